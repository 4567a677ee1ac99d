// The registry: HKEY_LOCAL_MACHINE as a tree of keys and values.  Key and
// value names keep their case and their blanks and match without regard to
// case; sub keys enumerate in Windows' order (by upper-case name); values
// keep their type and bytes exactly.  A handle names its key by path, so a key
// deleted under an open handle gives ERROR_KEY_DELETED, as on Windows.  The
// tree itself lives in the prefix's hive file (hive.cpp).
#include <windows.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "kvthost.h"
#include "registry_internal.h"

namespace {

std::recursive_mutex gMutex;

struct OpenKey {
    std::vector<std::u16string> path;  // components below HKEY_LOCAL_MACHINE
};
std::set<OpenKey *> gHandles;

// The hive file is made of lines and regedit's format has no escape for a
// line feed: a name holding one would make the whole file unreadable.
bool FileCanHold(const std::u16string &name) { return name.find(u'\n') == std::u16string::npos; }

bool SplitPath(LPCWSTR sub, std::vector<std::u16string> *out) {
    if (sub == nullptr) return true;
    std::u16string part;
    for (const WCHAR *p = sub; *p != 0; ++p) {
        if (*p == u'\\') {
            if (!part.empty()) out->push_back(part);
            part.clear();
        } else {
            part.push_back(*p);
        }
    }
    if (!part.empty()) out->push_back(part);
    for (const auto &c : *out)
        if (c.size() > 255 || !FileCanHold(c)) return false;
    return true;
}

// Resolves a handle to its path; false for an unknown handle.
bool HandlePath(HKEY key, std::vector<std::u16string> *path) {
    if (key == HKEY_LOCAL_MACHINE) {
        path->clear();
        return true;
    }
    auto *h = reinterpret_cast<OpenKey *>(key);
    if (gHandles.count(h) == 0) return false;
    *path = h->path;
    return true;
}

HKEY NewHandle(const std::vector<std::u16string> &path) {
    auto *h = new OpenKey{path};
    gHandles.insert(h);
    return reinterpret_cast<HKEY>(h);
}

// The key a handle names, in the tree as it stands now; NULL with the status
// when the handle is unknown, the hive unreadable or the key deleted.  The
// caller holds gMutex.
const kvtreg::Key *KeyOfHandle(HKEY key, LSTATUS *status) {
    std::vector<std::u16string> path;
    if (!HandlePath(key, &path)) {
        *status = ERROR_INVALID_HANDLE;
        return nullptr;
    }
    const kvtreg::Key *root = kvtreg::Current(status);
    if (root == nullptr) return nullptr;
    const kvtreg::Key *k = kvtreg::Find(root, path);
    if (k == nullptr) *status = ERROR_KEY_DELETED;
    return k;
}

LSTATUS OpenCommon(HKEY key, LPCWSTR sub, PHKEY result, bool create) {
    if (result == nullptr) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    std::vector<std::u16string> path;
    if (!HandlePath(key, &path)) return ERROR_INVALID_HANDLE;
    const std::vector<std::u16string> own = path;  // the handle's own key
    if (!SplitPath(sub, &path)) return ERROR_INVALID_PARAMETER;
    LSTATUS status = ERROR_SUCCESS;
    if (create) {
        status = kvtreg::Change([own, path](kvtreg::Key &root) -> LSTATUS {
            // Under a key deleted since the handle was opened nothing is
            // created (the key is not brought back), as on Windows.
            kvtreg::Key *k = kvtreg::FindMutable(&root, own);
            if (k == nullptr) return ERROR_KEY_DELETED;
            for (size_t i = own.size(); i < path.size(); ++i) k = kvtreg::CreateChild(k, path[i]);
            return ERROR_SUCCESS;
        });
    } else {
        const kvtreg::Key *root = kvtreg::Current(&status);
        if (root == nullptr) return status;
        if (kvtreg::Find(root, path) == nullptr)
            return kvtreg::Find(root, own) == nullptr ? ERROR_KEY_DELETED : ERROR_FILE_NOT_FOUND;
    }
    if (status != ERROR_SUCCESS) return status;
    *result = NewHandle(path);
    return ERROR_SUCCESS;
}

}  // namespace

namespace kvtreg {

std::u16string Upper(const std::u16string &s) {
    std::u16string u = s;
    for (auto &c : u)
        if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - 32);
    return u;
}

const Key *Find(const Key *root, const std::vector<std::u16string> &path) {
    const Key *k = root;
    for (const auto &name : path) {
        auto it = k->children.find(Upper(name));
        if (it == k->children.end()) return nullptr;
        k = it->second.get();
    }
    return k;
}

Key *FindMutable(Key *root, const std::vector<std::u16string> &path) {
    return const_cast<Key *>(Find(root, path));
}

Key *CreateChild(Key *parent, const std::u16string &name) {
    auto &slot = parent->children[Upper(name)];
    if (!slot) {
        slot = std::make_unique<Key>();
        slot->name = name;
    }
    return slot.get();
}

Value *FindValue(Key *key, const std::u16string &name) {
    return const_cast<Value *>(FindValue(static_cast<const Key *>(key), name));
}

const Value *FindValue(const Key *key, const std::u16string &name) {
    std::u16string wanted = Upper(name);
    for (const auto &v : key->values)
        if (Upper(v.name) == wanted) return &v;
    return nullptr;
}

}  // namespace kvtreg

extern "C" {

LSTATUS WINAPI RegOpenKeyW(HKEY key, LPCWSTR sub, PHKEY result) {
    // With no sub key the handle passed in comes back.
    if (result != nullptr && (sub == nullptr || *sub == 0)) {
        std::lock_guard<std::recursive_mutex> lock(gMutex);
        std::vector<std::u16string> path;
        if (!HandlePath(key, &path)) return ERROR_INVALID_HANDLE;
        *result = key;
        return ERROR_SUCCESS;
    }
    return OpenCommon(key, sub, result, false);
}

LSTATUS WINAPI RegOpenKeyExW(HKEY key, LPCWSTR sub, DWORD, REGSAM, PHKEY result) {
    return OpenCommon(key, sub, result, false);
}

LSTATUS WINAPI RegCreateKeyW(HKEY key, LPCWSTR sub, PHKEY result) {
    return OpenCommon(key, sub, result, true);
}

LSTATUS WINAPI RegCloseKey(HKEY key) {
    if (key == HKEY_LOCAL_MACHINE || key == HKEY_CURRENT_USER || key == HKEY_CLASSES_ROOT)
        return ERROR_SUCCESS;
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    auto *h = reinterpret_cast<OpenKey *>(key);
    if (gHandles.erase(h) == 0) return ERROR_INVALID_HANDLE;
    delete h;
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                                LPDWORD cbData) {
    if (reserved != nullptr || (data != nullptr && cbData == nullptr)) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    LSTATUS status;
    const kvtreg::Key *k = KeyOfHandle(key, &status);
    if (k == nullptr) return status;
    const kvtreg::Value *v = kvtreg::FindValue(k, name != nullptr ? name : u"");
    if (v == nullptr) return ERROR_FILE_NOT_FOUND;
    if (type != nullptr) *type = v->type;
    DWORD size = static_cast<DWORD>(v->data.size());
    if (data == nullptr) {
        if (cbData != nullptr) *cbData = size;
        return ERROR_SUCCESS;
    }
    if (*cbData < size) {
        *cbData = size;
        return ERROR_MORE_DATA;
    }
    if (size > 0) std::memcpy(data, v->data.data(), size);
    *cbData = size;
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegSetValueExW(HKEY key, LPCWSTR name, DWORD, DWORD type, const BYTE *data, DWORD cbData) {
    if (data == nullptr && cbData != 0) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    std::vector<std::u16string> path;
    if (!HandlePath(key, &path)) return ERROR_INVALID_HANDLE;
    std::u16string valueName = name != nullptr ? name : u"";
    if (!FileCanHold(valueName)) return ERROR_INVALID_PARAMETER;
    const std::vector<BYTE> bytes(data, data + cbData);
    return kvtreg::Change([path, valueName, type, bytes](kvtreg::Key &root) -> LSTATUS {
        kvtreg::Key *k = kvtreg::FindMutable(&root, path);
        if (k == nullptr) return ERROR_KEY_DELETED;
        kvtreg::Value *v = kvtreg::FindValue(k, valueName);
        if (v == nullptr) {
            k->values.push_back({valueName, type, {}});
            v = &k->values.back();
        }
        v->type = type;
        v->data = bytes;
        return ERROR_SUCCESS;
    });
}

LSTATUS WINAPI RegEnumKeyExW(HKEY key, DWORD index, LPWSTR name, LPDWORD cchName, LPDWORD reserved,
                             LPWSTR, LPDWORD, void *) {
    if (name == nullptr || cchName == nullptr || reserved != nullptr) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    LSTATUS status;
    const kvtreg::Key *k = KeyOfHandle(key, &status);
    if (k == nullptr) return status;
    if (index >= k->children.size()) return ERROR_NO_MORE_ITEMS;
    auto it = k->children.begin();
    std::advance(it, index);
    const std::u16string &child = it->second->name;
    if (child.size() + 1 > *cchName) return ERROR_MORE_DATA;
    std::memcpy(name, child.c_str(), (child.size() + 1) * sizeof(WCHAR));
    *cchName = static_cast<DWORD>(child.size());
    return ERROR_SUCCESS;
}

// Deletes a key that has no sub keys; one with sub keys is refused, as on Windows.
LSTATUS WINAPI RegDeleteKeyW(HKEY key, LPCWSTR sub) {
    if (sub == nullptr) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    std::vector<std::u16string> path;
    if (!HandlePath(key, &path)) return ERROR_INVALID_HANDLE;
    const std::vector<std::u16string> own = path;
    if (!SplitPath(sub, &path)) return ERROR_INVALID_PARAMETER;
    if (path.empty()) return ERROR_ACCESS_DENIED;
    return kvtreg::Change([own, path](kvtreg::Key &root) -> LSTATUS {
        if (kvtreg::Find(&root, own) == nullptr) return ERROR_KEY_DELETED;
        std::vector<std::u16string> parentPath(path.begin(), path.end() - 1);
        kvtreg::Key *parent = kvtreg::FindMutable(&root, parentPath);
        if (parent == nullptr) return ERROR_FILE_NOT_FOUND;
        auto it = parent->children.find(kvtreg::Upper(path.back()));
        if (it == parent->children.end()) return ERROR_FILE_NOT_FOUND;
        if (!it->second->children.empty()) return ERROR_ACCESS_DENIED;
        parent->children.erase(it);
        return ERROR_SUCCESS;
    });
}

}  // extern "C"

namespace kvthost {

void BeginRegistryBatch() {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    kvtreg::BeginBatch();
}

void EndRegistryBatch() {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    kvtreg::EndBatch();
}

}  // namespace kvthost
