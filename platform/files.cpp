// Files, folders and the profile reader.  Windows paths (C:\Windows\...) map
// into the prefix (KVT_PREFIX, default ~/.kvt), whose drive_c holds the
// Windows and system folders.  Names are matched without regard to case, as on
// Windows.  Share modes are enforced among the handles of this process.
#include <windows.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "kvthost.h"

namespace {

std::mutex gPrefixMutex;
std::string gPrefixOverride;

struct FileHandle {
    int fd;
    std::string path;
    DWORD access;
    DWORD share;
    bool deleteOnClose;
};
std::mutex gFilesMutex;
std::vector<FileHandle *> gOpenFiles;

const char16_t kWindowsDir[] = u"C:\\Windows";
const char16_t kSystemDir[] = u"C:\\Windows\\System32";
std::atomic<bool> gSystemDirectoryFails{false};

DWORD ErrnoToWin32(int e, bool parentMissing) {
    switch (e) {
    case ENOENT: return parentMissing ? ERROR_PATH_NOT_FOUND : ERROR_FILE_NOT_FOUND;
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EISDIR:
    case EROFS: return ERROR_ACCESS_DENIED;
    case EEXIST: return ERROR_FILE_EXISTS;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    case ENAMETOOLONG: return 206;  // ERROR_FILENAME_EXCED_RANGE
    default: return ERROR_ACCESS_DENIED;
    }
}

bool ParentExists(const std::string &path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) return true;
    struct stat st {};
    return stat(path.substr(0, slash).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The entry of a folder whose name matches without regard to case.
std::string MatchEntry(const std::string &dir, const std::string &name) {
    struct stat st {};
    if (lstat((dir + "/" + name).c_str(), &st) == 0) return name;
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return name;
    std::string found = name;
    while (struct dirent *e = readdir(d)) {
        if (strcasecmp(e->d_name, name.c_str()) == 0) {
            found = e->d_name;
            break;
        }
    }
    closedir(d);
    return found;
}

// A new opener must allow what the holders do, and the holders must allow
// what the new opener asks for.  Delete on close asks for the right to delete,
// as Windows adds DELETE to the access of such an open: a file opened so
// refuses any opener that doesn't share deletion, and can't be opened so
// while a holder doesn't share it.
bool SharingConflict(const std::string &path, DWORD access, DWORD share, bool deleteOnClose) {
    for (const FileHandle *h : gOpenFiles) {
        if (h->path != path) continue;
        if ((h->access & GENERIC_WRITE) && !(share & FILE_SHARE_WRITE)) return true;
        if ((h->access & GENERIC_READ) && !(share & FILE_SHARE_READ)) return true;
        if (h->deleteOnClose && !(share & FILE_SHARE_DELETE)) return true;
        if ((access & GENERIC_WRITE) && !(h->share & FILE_SHARE_WRITE)) return true;
        if ((access & GENERIC_READ) && !(h->share & FILE_SHARE_READ)) return true;
        if (deleteOnClose && !(h->share & FILE_SHARE_DELETE)) return true;
    }
    return false;
}

}  // namespace

namespace kvthost {

std::string Prefix() {
    std::lock_guard<std::mutex> lock(gPrefixMutex);
    if (!gPrefixOverride.empty()) return gPrefixOverride;
    const char *env = std::getenv("KVT_PREFIX");
    if (env != nullptr && *env != 0) return env;
    const char *home = std::getenv("HOME");
    return std::string(home != nullptr && *home != 0 ? home : ".") + "/.kvt";
}

void SetPrefix(const std::string &dir) {
    std::lock_guard<std::mutex> lock(gPrefixMutex);
    gPrefixOverride = dir;
}

bool MakePrefix(std::string *error) {
    std::string root = Prefix();
    const char *parts[] = {"", "/drive_c", "/drive_c/Windows", "/drive_c/Windows/System32",
                           "/drive_c/Windows/SysWOW64"};
    for (const char *part : parts) {
        std::string dir = root + part;
        if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
            if (error != nullptr) *error = "cannot make " + dir + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

std::string MapPath(const std::u16string &windowsPath) {
    std::string path = Narrow(windowsPath);
    for (char &c : path)
        if (c == '\\') c = '/';
    std::string rest;
    if (path.size() >= 2 && path[1] == ':') {
        char drive = static_cast<char>(std::tolower(static_cast<unsigned char>(path[0])));
        rest = "drive_";
        rest += drive;
        rest += path.substr(2);
    } else if (!path.empty() && path[0] == '/') {
        rest = "drive_c";
        rest += path;
    } else {
        return path;  // relative: as given
    }
    std::string result = Prefix();
    std::stringstream parts(rest);
    std::string part;
    while (std::getline(parts, part, '/')) {
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            // Never above the prefix.
            size_t slash = result.rfind('/');
            if (slash != std::string::npos && result.size() > Prefix().size()) result.erase(slash);
            continue;
        }
        result += '/';
        result += MatchEntry(result.substr(0, result.size() - 1), part);
    }
    return result;
}

void SetSystemDirectoryFails(bool fails) { gSystemDirectoryFails = fails; }

}  // namespace kvthost

extern "C" {

UINT WINAPI GetWindowsDirectoryW(LPWSTR buffer, UINT size) {
    UINT len = static_cast<UINT>(lstrlenW(kWindowsDir));
    if (buffer == nullptr || size <= len) return len + 1;
    lstrcpyW(buffer, kWindowsDir);
    return len;
}

UINT WINAPI GetSystemDirectoryW(LPWSTR buffer, UINT size) {
    if (gSystemDirectoryFails) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return 0;
    }
    UINT len = static_cast<UINT>(lstrlenW(kSystemDir));
    if (buffer == nullptr || size <= len) return len + 1;
    lstrcpyW(buffer, kSystemDir);
    return len;
}

HANDLE WINAPI CreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES,
                          DWORD disposition, DWORD flags, HANDLE) {
    if (name == nullptr || *name == 0 || disposition < CREATE_NEW || disposition > TRUNCATE_EXISTING) {
        SetLastError(name == nullptr || *name == 0 ? ERROR_PATH_NOT_FOUND : ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::string path = kvthost::MapPath(name);
    std::lock_guard<std::mutex> lock(gFilesMutex);
    struct stat st {};
    bool existed = stat(path.c_str(), &st) == 0;
    if (existed && S_ISDIR(st.st_mode)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    if (SharingConflict(path, access, share, (flags & FILE_FLAG_DELETE_ON_CLOSE) != 0)) {
        SetLastError(ERROR_SHARING_VIOLATION);
        return INVALID_HANDLE_VALUE;
    }
    int oflags = O_CLOEXEC;
    if ((access & GENERIC_READ) && (access & GENERIC_WRITE)) oflags |= O_RDWR;
    else if (access & GENERIC_WRITE) oflags |= O_WRONLY;
    else oflags |= O_RDONLY;
    switch (disposition) {
    case CREATE_NEW: oflags |= O_CREAT | O_EXCL; break;
    case CREATE_ALWAYS: oflags |= O_CREAT | O_TRUNC; break;
    case OPEN_EXISTING: break;
    case OPEN_ALWAYS: oflags |= O_CREAT; break;
    case TRUNCATE_EXISTING: oflags |= O_TRUNC; break;
    }
    if ((oflags & O_TRUNC) && !(access & GENERIC_WRITE)) oflags = (oflags & ~O_ACCMODE) | O_RDWR;
    int fd = open(path.c_str(), oflags, 0644);
    if (fd < 0) {
        SetLastError(ErrnoToWin32(errno, !ParentExists(path)));
        return INVALID_HANDLE_VALUE;
    }
    auto *h = new FileHandle{fd, path, access, share, (flags & FILE_FLAG_DELETE_ON_CLOSE) != 0};
    gOpenFiles.push_back(h);
    // Opening an existing file with OPEN_ALWAYS or CREATE_ALWAYS succeeds and says so.
    SetLastError(existed && (disposition == OPEN_ALWAYS || disposition == CREATE_ALWAYS)
                     ? ERROR_ALREADY_EXISTS
                     : ERROR_SUCCESS);
    return h;
}

BOOL WINAPI ReadFile(HANDLE file, LPVOID buffer, DWORD toRead, LPDWORD read, LPOVERLAPPED) {
    auto *h = static_cast<FileHandle *>(file);
    if (h == nullptr || file == INVALID_HANDLE_VALUE) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (!(h->access & GENERIC_READ)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    ssize_t n = ::read(h->fd, buffer, toRead);
    if (n < 0) {
        SetLastError(ErrnoToWin32(errno, false));
        return FALSE;
    }
    if (read != nullptr) *read = static_cast<DWORD>(n);
    return TRUE;
}

BOOL WINAPI WriteFile(HANDLE file, LPCVOID buffer, DWORD toWrite, LPDWORD written, LPOVERLAPPED) {
    auto *h = static_cast<FileHandle *>(file);
    if (h == nullptr || file == INVALID_HANDLE_VALUE) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (!(h->access & GENERIC_WRITE)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    const char *p = static_cast<const char *>(buffer);
    DWORD done = 0;
    while (done < toWrite) {
        ssize_t n = ::write(h->fd, p + done, toWrite - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            SetLastError(errno == ENOSPC ? 112 /* ERROR_DISK_FULL */ : ErrnoToWin32(errno, false));
            if (written != nullptr) *written = done;
            return FALSE;
        }
        done += static_cast<DWORD>(n);
    }
    if (written != nullptr) *written = done;
    return TRUE;
}

DWORD WINAPI SetFilePointer(HANDLE file, LONG distance, PLONG distanceHigh, DWORD method) {
    auto *h = static_cast<FileHandle *>(file);
    if (h == nullptr || file == INVALID_HANDLE_VALUE || method > FILE_END) {
        SetLastError(h == nullptr ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    off_t offset = distanceHigh != nullptr
                       ? static_cast<off_t>((static_cast<uint64_t>(static_cast<uint32_t>(*distanceHigh)) << 32) |
                                            static_cast<uint32_t>(distance))
                       : static_cast<off_t>(distance);
    int whence = method == FILE_BEGIN ? SEEK_SET : (method == FILE_CURRENT ? SEEK_CUR : SEEK_END);
    off_t pos = lseek(h->fd, offset, whence);
    if (pos < 0) {
        SetLastError(131);  // ERROR_NEGATIVE_SEEK
        return INVALID_SET_FILE_POINTER;
    }
    if (distanceHigh != nullptr) *distanceHigh = static_cast<LONG>(static_cast<uint64_t>(pos) >> 32);
    SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(pos);
}

BOOL WINAPI CloseHandle(HANDLE file) {
    auto *h = static_cast<FileHandle *>(file);
    std::lock_guard<std::mutex> lock(gFilesMutex);
    auto it = std::find(gOpenFiles.begin(), gOpenFiles.end(), h);
    if (h == nullptr || it == gOpenFiles.end()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    gOpenFiles.erase(it);
    ::close(h->fd);
    // The file goes when its last handle closes.
    if (h->deleteOnClose) {
        auto other = std::find_if(gOpenFiles.begin(), gOpenFiles.end(),
                                  [&](const FileHandle *o) { return o->path == h->path; });
        if (other != gOpenFiles.end()) (*other)->deleteOnClose = true;
        else ::unlink(h->path.c_str());
    }
    delete h;
    return TRUE;
}

BOOL WINAPI DeleteFileW(LPCWSTR name) {
    if (name == nullptr || *name == 0) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    }
    std::string path = kvthost::MapPath(name);
    std::lock_guard<std::mutex> lock(gFilesMutex);
    for (const FileHandle *h : gOpenFiles) {
        if (h->path == path && !(h->share & FILE_SHARE_DELETE)) {
            SetLastError(ERROR_SHARING_VIOLATION);
            return FALSE;
        }
    }
    struct stat st {};
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (::unlink(path.c_str()) != 0) {
        SetLastError(ErrnoToWin32(errno, !ParentExists(path)));
        return FALSE;
    }
    return TRUE;
}

// An INI file: "[section]" lines and "key=value" lines, names without regard
// to case, blanks around names and values dropped, one pair of quotes around
// a value dropped.  A file name without a folder lies in the Windows folder.
DWORD WINAPI GetPrivateProfileStringW(LPCWSTR app, LPCWSTR key, LPCWSTR def, LPWSTR out, DWORD size,
                                      LPCWSTR fileName) {
    if (out == nullptr || size == 0) return 0;
    std::u16string file = fileName != nullptr ? fileName : u"win.ini";
    if (file.find(u'\\') == std::u16string::npos && file.find(u'/') == std::u16string::npos)
        file = std::u16string(kWindowsDir) + u"\\" + file;
    auto trim = [](std::string s) {
        size_t a = s.find_first_not_of(" \t\r\n");
        size_t b = s.find_last_not_of(" \t\r\n");
        return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
    };
    std::u16string result;
    bool found = false;
    if (app != nullptr && key != nullptr) {
        std::ifstream in(kvthost::MapPath(file));
        std::string wantApp = kvthost::Narrow(app), wantKey = kvthost::Narrow(key);
        std::string line;
        bool inSection = false;
        while (!found && std::getline(in, line)) {
            line = trim(line);
            if (line.empty() || line[0] == ';') continue;
            if (line[0] == '[') {
                size_t close = line.find(']');
                inSection = close != std::string::npos &&
                            strcasecmp(trim(line.substr(1, close - 1)).c_str(), wantApp.c_str()) == 0;
                continue;
            }
            size_t eq = line.find('=');
            if (!inSection || eq == std::string::npos) continue;
            if (strcasecmp(trim(line.substr(0, eq)).c_str(), wantKey.c_str()) != 0) continue;
            std::string value = trim(line.substr(eq + 1));
            if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
                value.back() == value.front())
                value = value.substr(1, value.size() - 2);
            result = kvthost::Widen(value);
            found = true;
        }
    }
    if (!found) {
        result = def != nullptr ? def : u"";
        while (!result.empty() && result.back() == u' ') result.pop_back();
    }
    DWORD n = static_cast<DWORD>(result.size()) < size - 1 ? static_cast<DWORD>(result.size()) : size - 1;
    std::memcpy(out, result.data(), n * sizeof(WCHAR));
    out[n] = 0;
    return n;
}

}  // extern "C"
