// HKEY_LOCAL_MACHINE kept in $KVT_PREFIX/system.reg, in the text format that
// regedit exports and imports ("Windows Registry Editor Version 5.00"), so a
// port tree can be written by hand, by a script or a test, and moved between
// Linux and Windows.
//
// The file is the truth.  A reader takes it again whenever it has changed on
// disk.  A change locks system.reg.lock, reads the file again if another
// process changed it, applies the change, and writes the whole tree to a
// temporary file that is synced and renamed over the hive: a crash leaves the
// old tree or the new one, never a torn one, and no process's change is lost.
// A hive that cannot be parsed is never written over: every call that needs it
// fails with ERROR_BADDB until the file is mended.
#include <windows.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kvthost.h"
#include "registry_internal.h"

namespace {

const char kHeader[] = "Windows Registry Editor Version 5.00";
const char kRootName[] = "HKEY_LOCAL_MACHINE";

struct FileSignature {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    struct timespec mtime {};
    bool operator==(const FileSignature &o) const {
        return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
               mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec;
    }
};

struct Cache {
    std::string path;            // the hive this cache holds
    FileSignature signature;
    bool loaded = false;
    bool bad = false;            // the file could not be parsed
    std::string badReported;     // the message last written for a bad file
    kvtreg::Key root;
};
Cache gCache;

// The changes of the batches that stand, in the order they were made: kept in
// gCache.root at once, and made again on the file's tree when it is read anew
// and when the last batch ends and writes them.
int gBatches = 0;
std::vector<kvtreg::Edit> gPending;

void ApplyPending() {
    for (const auto &edit : gPending) edit(gCache.root);
}

using kvthost::HivePath;

FileSignature Signature(const std::string &path) {
    FileSignature s;
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return s;
    s.exists = true;
    s.dev = st.st_dev;
    s.ino = st.st_ino;
    s.size = st.st_size;
    s.mtime = st.st_mtim;
    return s;
}

// ---- text of the file ---------------------------------------------------------

std::string ToUtf8(const std::u16string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        uint32_t c = s[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] < 0xE000)
            c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

// UTF-8 to UTF-16; a byte that is no part of a UTF-8 sequence stands for itself.
std::u16string FromUtf8(const std::string &s) {
    std::u16string out;
    for (size_t i = 0; i < s.size();) {
        unsigned char b = static_cast<unsigned char>(s[i]);
        int extra = b >= 0xF0 && b < 0xF8 ? 3 : b >= 0xE0 ? 2 : b >= 0xC0 ? 1 : 0;
        uint32_t c = extra == 3 ? (b & 0x07u) : extra == 2 ? (b & 0x0Fu) : extra == 1 ? (b & 0x1Fu) : b;
        bool ok = b < 0x80 || (extra > 0 && i + extra < s.size() + 0);
        for (int k = 1; ok && k <= extra; ++k) {
            if (i + k >= s.size() || (static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) ok = false;
            else c = (c << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
        }
        // An overlong form ("\xC0\x8A" for a line feed) or a code past U+10FFFF is
        // no UTF-8 either: read as itself, it cannot become a character that the
        // written file would read otherwise.
        static const uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
        if (ok && extra > 0 && (c < kLeast[extra] || c > 0x10FFFF)) ok = false;
        if (!ok || (b >= 0x80 && extra == 0)) {
            out.push_back(b);
            ++i;
            continue;
        }
        if (c >= 0x10000) {
            c -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(c));
        }
        i += static_cast<size_t>(extra) + 1;
    }
    return out;
}

// The file's bytes as UTF-8 text: a UTF-16LE file (regedit's own) is converted.
std::string DecodeFile(const std::string &bytes) {
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
        static_cast<unsigned char>(bytes[1]) == 0xFE) {
        std::u16string wide;
        for (size_t i = 2; i + 1 < bytes.size(); i += 2)
            wide.push_back(static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                                 (static_cast<unsigned char>(bytes[i + 1]) << 8)));
        return ToUtf8(wide);
    }
    if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) return bytes.substr(3);
    return bytes;
}

std::string Quote(const std::u16string &s) {
    std::string out = "\"";
    for (char c : ToUtf8(s)) {
        if (c == '\\' || c == '"') out.push_back('\\');
        out.push_back(c);
    }
    return out + "\"";
}

// A REG_SZ that regedit would write as text: terminated once, at its end, and
// made of characters that survive the round trip.
bool PlainString(const kvtreg::Value &v, std::u16string *text) {
    if (v.type != REG_SZ || v.data.size() < 2 || v.data.size() % 2 != 0) return false;
    size_t n = v.data.size() / 2;
    text->clear();
    for (size_t i = 0; i < n; ++i) {
        char16_t c = static_cast<char16_t>(v.data[2 * i] | (v.data[2 * i + 1] << 8));
        if (i == n - 1) return c == 0;
        if (c < 0x20 || c == 0x7F) return false;
        text->push_back(c);
    }
    return false;
}

void AppendValue(std::string &out, const kvtreg::Value &v) {
    std::string line = v.name.empty() ? "@=" : Quote(v.name) + "=";
    std::u16string text;
    if (PlainString(v, &text)) {
        out += line + Quote(text) + "\r\n";
        return;
    }
    if (v.type == REG_DWORD && v.data.size() == 4) {
        char dword[16];
        std::snprintf(dword, sizeof dword, "dword:%08x",
                      static_cast<unsigned>(v.data[0] | (v.data[1] << 8) | (v.data[2] << 16) |
                                            (static_cast<unsigned>(v.data[3]) << 24)));
        out += line + dword + "\r\n";
        return;
    }
    // The type in hexadecimal, as regedit writes it and the parser reads it (REG_QWORD is hex(b)).
    char type[24];
    std::snprintf(type, sizeof type, "hex(%x):", static_cast<unsigned>(v.type));
    line += v.type == REG_BINARY ? "hex:" : type;
    for (size_t i = 0; i < v.data.size(); ++i) {
        char byte[4];
        std::snprintf(byte, sizeof byte, "%02x", v.data[i]);
        line += byte;
        if (i + 1 < v.data.size()) {
            line += ",";
            if (line.size() > 76) {  // regedit's wrapping of long lists
                out += line + "\\\r\n";
                line = "  ";
            }
        }
    }
    out += line + "\r\n";
}

void AppendKey(std::string &out, const kvtreg::Key &key, const std::string &path) {
    if (!path.empty()) {
        out += "[" + std::string(kRootName) + "\\" + path + "]\r\n";
        for (const auto &v : key.values) AppendValue(out, v);
        out += "\r\n";
    } else if (!key.values.empty()) {
        out += "[" + std::string(kRootName) + "]\r\n";
        for (const auto &v : key.values) AppendValue(out, v);
        out += "\r\n";
    }
    for (const auto &[upper, child] : key.children) {
        (void)upper;
        AppendKey(out, *child, path.empty() ? ToUtf8(child->name) : path + "\\" + ToUtf8(child->name));
    }
}

// ---- parsing ------------------------------------------------------------------------

struct Parser {
    std::string text;
    std::string error;
    int lineNumber = 0;
    kvtreg::Key *lastKey_ = nullptr;  // the key of the last key line, and its path
    std::string lastPath_;

    bool Fail(const std::string &what) {
        error = "line " + std::to_string(lineNumber) + ": " + what;
        return false;
    }

    // A quoted string from p; p is left after the closing quote.
    bool QuotedString(const std::string &line, size_t &p, std::u16string *out) {
        if (p >= line.size() || line[p] != '"') return Fail("a name or text must be in double quotes");
        std::string raw;
        for (++p; p < line.size(); ++p) {
            if (line[p] == '\\' && p + 1 < line.size()) {
                raw.push_back(line[++p]);
            } else if (line[p] == '"') {
                ++p;
                *out = FromUtf8(raw);
                return true;
            } else {
                raw.push_back(line[p]);
            }
        }
        return Fail("a quoted text has no closing quote");
    }

    bool HexList(const std::string &list, std::vector<BYTE> *out) {
        size_t p = 0;
        while (p < list.size()) {
            while (p < list.size() && (list[p] == ' ' || list[p] == '\t')) ++p;
            if (p >= list.size()) break;
            size_t start = p;
            while (p < list.size() && std::isxdigit(static_cast<unsigned char>(list[p]))) ++p;
            if (p - start == 0 || p - start > 2) return Fail("bad hexadecimal byte in '" + list + "'");
            out->push_back(static_cast<BYTE>(std::stoul(list.substr(start, p - start), nullptr, 16)));
            while (p < list.size() && (list[p] == ' ' || list[p] == '\t')) ++p;
            if (p < list.size()) {
                if (list[p] != ',') return Fail("bytes must be separated by commas");
                ++p;
            }
        }
        return true;
    }

    bool Value(const std::string &line, kvtreg::Key *key) {
        size_t p = 0;
        std::u16string name;
        if (line[0] == '@') {
            p = 1;
        } else if (!QuotedString(line, p, &name)) {
            return false;
        }
        while (p < line.size() && line[p] == ' ') ++p;
        if (p >= line.size() || line[p] != '=') return Fail("a value needs '=' after its name");
        std::string data = line.substr(p + 1);
        while (!data.empty() && data.front() == ' ') data.erase(0, 1);
        while (!data.empty() && (data.back() == ' ' || data.back() == '\t')) data.pop_back();

        if (data == "-") {  // removes the value
            for (auto it = key->values.begin(); it != key->values.end(); ++it)
                if (kvtreg::Upper(it->name) == kvtreg::Upper(name)) {
                    key->values.erase(it);
                    break;
                }
            return true;
        }
        kvtreg::Value v{name, REG_SZ, {}};
        if (!data.empty() && data[0] == '"') {
            size_t q = 0;
            std::u16string text;
            if (!QuotedString(data, q, &text)) return false;
            if (q != data.size()) return Fail("text after the closing quote");
            for (char16_t c : text) {
                v.data.push_back(static_cast<BYTE>(c & 0xFF));
                v.data.push_back(static_cast<BYTE>(c >> 8));
            }
            v.data.push_back(0);
            v.data.push_back(0);
        } else if (data.rfind("dword:", 0) == 0) {
            std::string digits = data.substr(6);
            if (digits.size() != 8 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
                return Fail("a dword has eight hexadecimal digits");
            uint32_t d = static_cast<uint32_t>(std::stoul(digits, nullptr, 16));
            v.type = REG_DWORD;
            for (int i = 0; i < 4; ++i) v.data.push_back(static_cast<BYTE>(d >> (8 * i)));
        } else if (data.rfind("hex:", 0) == 0) {
            v.type = REG_BINARY;
            if (!HexList(data.substr(4), &v.data)) return false;
        } else if (data.rfind("hex(", 0) == 0) {
            size_t close = data.find("):");
            std::string type = close == std::string::npos ? "" : data.substr(4, close - 4);
            if (type.empty() || type.size() > 8 || type.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
                return Fail("bad value type in '" + data + "'");
            v.type = static_cast<DWORD>(std::stoul(type, nullptr, 16));
            if (!HexList(data.substr(close + 2), &v.data)) return false;
        } else {
            return Fail("a value is \"text\", dword:, hex: or hex(type):");
        }
        if (kvtreg::Value *old = kvtreg::FindValue(key, name)) *old = v;
        else key->values.push_back(v);
        return true;
    }

    bool KeyLine(const std::string &line, kvtreg::Key &root, kvtreg::Key **current) {
        if (line.back() != ']') return Fail("a key line ends with ']'");
        std::string path = line.substr(1, line.size() - 2);
        bool remove = !path.empty() && path[0] == '-';
        if (remove) path.erase(0, 1);
        std::string rootPart = path.substr(0, path.find('\\'));
        if (strcasecmp(rootPart.c_str(), kRootName) != 0)
            return Fail("only HKEY_LOCAL_MACHINE is kept here, not '" + rootPart + "'");
        // A line below the key of the line before it (each line of a written
        // tree is) goes on from that key: a deep tree reads in time linear in
        // its text, not in the square of its depth.
        kvtreg::Key *from = &root;
        size_t p = rootPart.size();
        if (!remove && lastKey_ != nullptr && path.size() > lastPath_.size() && path[lastPath_.size()] == '\\' &&
            path.compare(0, lastPath_.size(), lastPath_) == 0) {
            from = lastKey_;
            p = lastPath_.size();
        }
        std::vector<std::u16string> parts;
        while (p < path.size()) {
            size_t next = path.find('\\', p + 1);
            std::string part = path.substr(p + 1, next == std::string::npos ? std::string::npos : next - p - 1);
            if (part.empty()) return Fail("an empty key name in '" + path + "'");
            // Counted as the registry counts it, in UTF-16 units: the text the
            // platform writes for a name it took is read back.
            parts.push_back(FromUtf8(part));
            if (parts.back().size() > 255) return Fail("a key name longer than 255 characters");
            p = next == std::string::npos ? path.size() : next;
        }
        if (remove) {
            *current = nullptr;
            lastKey_ = nullptr;  // the key removed may be it
            if (parts.empty()) return Fail("HKEY_LOCAL_MACHINE cannot be removed");
            std::vector<std::u16string> parentPath(parts.begin(), parts.end() - 1);
            if (kvtreg::Key *parent = kvtreg::FindMutable(&root, parentPath))
                parent->children.erase(kvtreg::Upper(parts.back()));
            return true;
        }
        kvtreg::Key *k = from;
        for (const auto &part : parts) k = kvtreg::CreateChild(k, part);
        *current = lastKey_ = k;
        lastPath_ = path;
        return true;
    }

    bool Parse(kvtreg::Key &root) {
        size_t pos = 0;
        bool headerSeen = false;
        kvtreg::Key *current = nullptr;
        std::string pending;  // a value whose hex list goes on on the next line
        // The text after the last newline is a line only if it is not empty: a file
        // that ends "01,\<CR><LF>" ends inside its list (a torn or cut file).
        while (pos < text.size()) {
            size_t end = text.find('\n', pos);
            std::string line = text.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
            pos = end == std::string::npos ? text.size() : end + 1;
            ++lineNumber;
            while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
                line.pop_back();
            if (!pending.empty()) {
                size_t first = line.find_first_not_of(" \t");
                line = pending + (first == std::string::npos ? "" : line.substr(first));
                pending.clear();
            }
            if (!line.empty() && line.back() == '\\' && line.find("=hex") != std::string::npos) {
                line.pop_back();
                pending = line;
                continue;
            }
            size_t first = line.find_first_not_of(" \t");
            if (first == std::string::npos || line[first] == ';') continue;
            line = line.substr(first);
            if (!headerSeen) {
                if (line != kHeader && line != "REGEDIT4")
                    return Fail(std::string("the file must begin with \"") + kHeader + "\"");
                headerSeen = true;
                continue;
            }
            if (line[0] == '[') {
                if (!KeyLine(line, root, &current)) return false;
                continue;
            }
            if (line[0] == '"' || line[0] == '@') {
                if (current == nullptr) return Fail("a value before any key");
                if (!Value(line, current)) return false;
                continue;
            }
            return Fail("neither a key, a value nor a comment: '" + line.substr(0, 40) + "'");
        }
        if (!pending.empty()) return Fail("the file ends inside a list of bytes");
        if (!headerSeen) return Fail(std::string("the file must begin with \"") + kHeader + "\"");
        return true;
    }
};

bool ReadFileBytes(const std::string &path, std::string *bytes) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bytes->clear();
    char buffer[65536];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        bytes->append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return true;
}

void ReportBad(const std::string &path, const std::string &error) {
    std::string message = "kvtwin32: the registry hive " + path + " cannot be read (" + error +
                          "); nothing is read from it or written to it until it is mended";
    if (gCache.badReported != message) {
        std::fprintf(stderr, "%s\n", message.c_str());
        gCache.badReported = message;
    }
}

// Makes the cache hold the hive as it is on disk now, with the changes of the
// batches that stand.
void Refresh() {
    std::string path = HivePath();
    FileSignature now = Signature(path);
    if (gCache.loaded && gCache.path == path && gCache.signature == now) return;
    gCache.path = path;
    gCache.loaded = true;
    gCache.signature = now;
    gCache.root = kvtreg::Key();
    gCache.bad = false;
    if (!now.exists) {  // a new prefix: an empty tree
        ApplyPending();
        return;
    }
    std::string bytes;
    if (!ReadFileBytes(path, &bytes)) {
        gCache.bad = true;
        ReportBad(path, std::strerror(errno));
        return;
    }
    kvtreg::Key root;
    std::string error;
    if (!kvtreg::ParseHive(bytes, &root, &error)) {
        gCache.bad = true;
        ReportBad(path, error);
        return;
    }
    gCache.root = std::move(root);
    ApplyPending();
}

class HiveLock {
public:
    explicit HiveLock(int operation) {
        std::string path = kvthost::Prefix() + "/system.reg.lock";
        fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ < 0) {
            error_ = errno;
            return;
        }
        while (flock(fd_, operation) != 0 && errno == EINTR) {
        }
    }
    ~HiveLock() {
        if (fd_ >= 0) close(fd_);  // closing releases the lock
    }
    bool ok() const { return fd_ >= 0; }
    int error() const { return error_; }

private:
    int fd_ = -1;
    int error_ = 0;
};

LSTATUS WriteHive() {
    const std::string text = kvtreg::HiveText(gCache.root);
    std::string path = HivePath();
    std::string temp = path + ".tmp." + std::to_string(getpid());
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return ERROR_CANTWRITE;
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            close(fd);
            unlink(temp.c_str());
            return ERROR_CANTWRITE;
        }
        done += static_cast<size_t>(n);
    }
    if (fsync(fd) != 0 || close(fd) != 0 || rename(temp.c_str(), path.c_str()) != 0) {
        unlink(temp.c_str());
        return ERROR_CANTWRITE;
    }
    int dir = open(kvthost::Prefix().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
    gCache.signature = Signature(path);
    return ERROR_SUCCESS;
}

}  // namespace

namespace kvtreg {

bool ParseHive(const std::string &bytes, Key *root, std::string *error) {
    Parser parser;
    parser.text = DecodeFile(bytes);
    *root = Key();
    if (parser.Parse(*root)) return true;
    *error = parser.error;
    return false;
}

std::string HiveText(const Key &root) {
    std::string text = std::string(kHeader) + "\r\n\r\n";
    AppendKey(text, root, "");
    return text;
}

const Key *Current(LSTATUS *status) {
    std::string path = HivePath();
    FileSignature now = Signature(path);
    if (!(gCache.loaded && gCache.path == path && gCache.signature == now)) {
        // Another process may be renaming a new hive in: read under the lock.
        HiveLock lock(LOCK_SH);
        Refresh();
    }
    if (gCache.bad) {
        *status = ERROR_BADDB;
        return nullptr;
    }
    *status = ERROR_SUCCESS;
    return &gCache.root;
}

namespace {

// Makes the edits on the file's tree as it is now and writes it.  The one
// change of a call outside a batch gives its own status, and nothing is
// written when it fails; the changes of a batch are written whatever each
// gives now (one that no longer fits the file's tree, whose key another
// process has removed since, is left out).  No batch stands here (the last
// one has handed its changes over), so the cache is the file's tree.
LSTATUS Commit(const std::vector<Edit> &edits, bool batch) {
    HiveLock lock(LOCK_EX);
    if (!lock.ok()) return lock.error() == ENOENT ? ERROR_PATH_NOT_FOUND : ERROR_ACCESS_DENIED;
    // Always read the file again here, whatever its signature says: on a file
    // system with coarse time stamps, another process's hive can have the
    // inode, size and time of the one cached (a freed inode is reused), and
    // editing the cached tree would then lose that process's change.
    gCache.loaded = false;
    Refresh();
    if (gCache.bad) return ERROR_BADDB;
    LSTATUS status = ERROR_SUCCESS;
    for (const auto &edit : edits) {
        LSTATUS made = edit(gCache.root);
        if (!batch) status = made;
    }
    if (status == ERROR_SUCCESS) status = WriteHive();
    if (status != ERROR_SUCCESS) gCache.loaded = false;  // read the file again next time
    return status;
}

}  // namespace

LSTATUS Change(const Edit &edit) {
    if (gBatches == 0) return Commit({edit}, false);
    LSTATUS status;
    if (Current(&status) == nullptr) return status;
    status = edit(gCache.root);
    if (status == ERROR_SUCCESS) gPending.push_back(edit);
    return status;
}

void BeginBatch() { ++gBatches; }

void EndBatch() {
    if (gBatches == 0 || --gBatches > 0 || gPending.empty()) return;
    std::vector<Edit> edits;
    edits.swap(gPending);
    LSTATUS status = Commit(edits, true);
    if (status != ERROR_SUCCESS)
        std::fprintf(stderr, "kvtwin32: the registry hive %s was not written (error %ld); %zu changes are lost\n",
                     HivePath().c_str(), static_cast<long>(status), edits.size());
}

}  // namespace kvtreg

namespace kvthost {

std::string HivePath() { return Prefix() + "/system.reg"; }

void ResetRegistry() {
    gCache = Cache();
    gPending.clear();
    gBatches = 0;
    unlink(HivePath().c_str());
}

}  // namespace kvthost
