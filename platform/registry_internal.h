// The registry tree shared by the Win32 registry calls and the hive file.
#pragma once

#include <windows.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kvtreg {

struct Value {
    std::u16string name;
    DWORD type;
    std::vector<BYTE> data;
};

struct Key {
    std::u16string name;
    std::map<std::u16string, std::unique_ptr<Key>> children;  // by upper-case name
    std::vector<Value> values;                                // in order of creation
};

std::u16string Upper(const std::u16string &s);
const Key *Find(const Key *root, const std::vector<std::u16string> &path);
Key *FindMutable(Key *root, const std::vector<std::u16string> &path);
Key *CreateChild(Key *parent, const std::u16string &name);
Value *FindValue(Key *key, const std::u16string &name);
const Value *FindValue(const Key *key, const std::u16string &name);

// The bytes of a hive file read into root: false, with the line and the
// fault in error, when they are not one.  HiveText is the file's text for a
// tree, as the platform writes it.
bool ParseHive(const std::string &bytes, Key *root, std::string *error);
std::string HiveText(const Key &root);

// The tree as it stands now; NULL with the status when it cannot be read.
const Key *Current(LSTATUS *status);
// Applies one change to the tree and keeps it; the edit's status is returned.
// Inside a batch the change is kept in the tree at once and written when the
// batch ends, when the edit runs again on the file's tree as it is then: an
// edit holds copies of what it needs, never references to the caller's.
using Edit = std::function<LSTATUS(Key &)>;
LSTATUS Change(const Edit &edit);
// The batch count, under the registry's lock; the end of the last one writes
// the changes made in it.
void BeginBatch();
void EndBatch();

}  // namespace kvtreg
