// Shared by the hive tests: a fresh prefix for each test, the hive file's bytes,
// the registry calls wrapped for assertions, and child processes.
#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <windows.h>

#include "kvthost.h"

struct RegValue {
    LSTATUS status = ERROR_SUCCESS;
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
    bool operator==(const RegValue &) const = default;
};

inline void PrintTo(const RegValue &v, std::ostream *out) {
    *out << "{status " << v.status << ", type " << v.type << ", bytes" << std::hex;
    for (BYTE b : v.data) *out << ' ' << int(b);
    *out << std::dec << '}';
}

// A text as REG_SZ holds it: UTF-16LE with its terminator.
inline std::vector<BYTE> SzBytes(const std::u16string &s) {
    std::vector<BYTE> bytes;
    for (char16_t c : s) bytes.insert(bytes.end(), {static_cast<BYTE>(c & 0xFF), static_cast<BYTE>(c >> 8)});
    bytes.insert(bytes.end(), {0, 0});
    return bytes;
}

class HiveTest : public testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/kvt-hive-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        prefix_ = dir;
        kvthost::SetPrefix(prefix_);
        std::string error;
        ASSERT_TRUE(kvthost::MakePrefix(&error)) << error;
        kvthost::ResetRegistry();
    }
    void TearDown() override {
        kvthost::SetPrefix(prefix_);
        kvthost::ResetRegistry();
        std::filesystem::remove_all(prefix_);
    }

    static std::string HiveBytes() {
        std::ifstream in(kvthost::HivePath(), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    // In place, as an administrator's editor writes it.
    static void WriteHive(const std::string &bytes) {
        std::ofstream(kvthost::HivePath(), std::ios::binary | std::ios::trunc) << bytes;
    }
    // The hive cache is keyed by the file's path: the same file named another
    // way is parsed afresh, as a new process would parse it.
    void ReadAfresh() {
        alias_ = !alias_;
        kvthost::SetPrefix(alias_ ? prefix_ + "/." : prefix_);
    }

    static HKEY Open(HKEY parent, const std::u16string &path, bool create = false) {
        HKEY key = nullptr;
        EXPECT_EQ((create ? RegCreateKeyW : RegOpenKeyW)(parent, path.c_str(), &key), ERROR_SUCCESS);
        return key;
    }
    static RegValue Query(HKEY key, const std::u16string &name) {
        RegValue v;
        DWORD size = 0;
        v.status = RegQueryValueExW(key, name.c_str(), nullptr, &v.type, nullptr, &size);
        if (v.status != ERROR_SUCCESS) return v;
        v.data.resize(size);
        v.status = RegQueryValueExW(key, name.c_str(), nullptr, &v.type, v.data.data(), &size);
        v.data.resize(size);
        return v;
    }
    static LSTATUS Set(HKEY key, const std::u16string &name, const RegValue &v) {
        return RegSetValueExW(key, name.c_str(), 0, v.type, v.data.data(), static_cast<DWORD>(v.data.size()));
    }
    static std::vector<std::u16string> SubKeys(HKEY key) {
        std::vector<std::u16string> names;
        WCHAR name[256];
        DWORD size = 256;
        LSTATUS status;
        while ((status = RegEnumKeyExW(key, static_cast<DWORD>(names.size()), name, &size, nullptr, nullptr,
                                       nullptr, nullptr)) == ERROR_SUCCESS) {
            names.emplace_back(name, size);
            size = 256;
        }
        EXPECT_EQ(status, ERROR_NO_MORE_ITEMS);
        return names;
    }

    // Runs body in a child process, which exits with what body returns.
    static pid_t Spawn(const std::function<int()> &body) {
        pid_t pid = fork();
        if (pid == 0) _exit(body());
        return pid;
    }
    // The child's exit status, or 128 + the signal that ended it.
    static int Wait(pid_t pid) {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string prefix_;
    bool alias_ = false;
};
