// libkvt64.so as the spooler meets it: what it exports, the table that
// InitializePrintMonitor hands over, and a job driven through that table
// against an emulated print server.
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include <winsplp.h>

#include "kvthost.h"
#include "kvtps.h"

namespace {

const char *LibraryPath() {
    const char *path = std::getenv("KVT64_SO");
    return path != nullptr ? path : KVT_BIN_DIR "/libkvt64.so";
}

// The names a shared object defines in its dynamic symbol table.
std::set<std::string> DefinedDynamicSymbols(const char *path) {
    std::set<std::string> names;
    int fd = open(path, O_RDONLY);
    if (fd < 0) return names;
    struct stat st {};
    fstat(fd, &st);
    auto *base = static_cast<const unsigned char *>(mmap(nullptr, st.st_size, PROT_READ, MAP_PRIVATE, fd, 0));
    close(fd);
    if (base == MAP_FAILED) return names;
    size_t size = static_cast<size_t>(st.st_size);
    auto *eh = reinterpret_cast<const Elf64_Ehdr *>(base);
    if (size >= sizeof(Elf64_Ehdr) && std::memcmp(eh->e_ident, ELFMAG, SELFMAG) == 0 &&
        eh->e_shoff + static_cast<size_t>(eh->e_shnum) * sizeof(Elf64_Shdr) <= size) {
        auto *sections = reinterpret_cast<const Elf64_Shdr *>(base + eh->e_shoff);
        for (int i = 0; i < eh->e_shnum; ++i) {
            if (sections[i].sh_type != SHT_DYNSYM || sections[i].sh_link >= eh->e_shnum) continue;
            const Elf64_Shdr &strtab = sections[sections[i].sh_link];
            auto *syms = reinterpret_cast<const Elf64_Sym *>(base + sections[i].sh_offset);
            size_t count = sections[i].sh_size / sizeof(Elf64_Sym);
            for (size_t s = 0; s < count; ++s) {
                if (syms[s].st_shndx == SHN_UNDEF || syms[s].st_name == 0) continue;
                int bind = ELF64_ST_BIND(syms[s].st_info);
                if (bind != STB_GLOBAL && bind != STB_WEAK) continue;
                names.insert(reinterpret_cast<const char *>(base + strtab.sh_offset + syms[s].st_name));
            }
        }
    }
    munmap(const_cast<unsigned char *>(base), size);
    return names;
}

const std::set<std::string> kEntryNames = {
    "DllEntryPoint",        "InitializePrintMonitor", "LocalmonEnumPorts",
    "LocalmonOpenPort",     "LocalmonStartDocPort",   "LocalmonWritePort",
    "LocalmonReadPort",     "LocalmonEndDocPort",     "LocalmonClosePort",
    "LocalmonAddPort",      "LocalmonAddPortEx",      "LocalmonConfigurePort",
    "LocalmonDeletePort",   "LocalmonGetPrinterDataFromPort", "LocalmonSetPortTimeOuts"};

TEST(Library, ExportsTheFifteenNamesOfTheEntryTableAndNothingElse) {
    EXPECT_EQ(DefinedDynamicSymbols(LibraryPath()), kEntryNames);
}

class LoadedMonitor : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/kvt-integration-XXXXXX";
        prefix_ = mkdtemp(dir);
        kvthost::SetPrefix(prefix_);
        std::string error;
        ASSERT_TRUE(kvthost::MakePrefix(&error)) << error;
        kvthost::SetTimeScale(0.01);
        HKEY key;
        ASSERT_EQ(RegCreateKeyW(HKEY_LOCAL_MACHINE, u"SYSTEM\\CurrentControlSet\\Services\\Tcpip", &key),
                  ERROR_SUCCESS);
        std::u16string image = u"tcpip.sys";
        RegSetValueExW(key, u"ImagePath", 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE *>(image.c_str()),
                       static_cast<DWORD>(image.size() * 2 + 2));
        RegCloseKey(key);
        std::u16string server = u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port"
                                u"\\Ports\\Lobby";
        ASSERT_EQ(RegCreateKeyW(HKEY_LOCAL_MACHINE, server.c_str(), &key), ERROR_SUCCESS);
        DWORD address = 0x7F000002;
        RegSetValueExW(key, u"IP    ", 0, REG_BINARY, reinterpret_cast<const BYTE *>(&address), 4);
        RegCloseKey(key);
        ASSERT_EQ(RegCreateKeyW(HKEY_LOCAL_MACHINE, (server + u"\\2").c_str(), &key), ERROR_SUCCESS);
        BYTE automatic = 0;
        RegSetValueExW(key, u" ", 0, REG_BINARY, &automatic, 1);
        std::u16string queue = u"raw";
        RegSetValueExW(key, u"QueueName", 0, REG_SZ, reinterpret_cast<const BYTE *>(queue.c_str()),
                       static_cast<DWORD>(queue.size() * 2 + 2));
        RegCloseKey(key);

        library_ = dlopen(LibraryPath(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library_, nullptr) << dlerror();
        auto init = reinterpret_cast<LPMONITOREX (*)(LPWSTR)>(dlsym(library_, "InitializePrintMonitor"));
        ASSERT_NE(init, nullptr);
        table_ = init(nullptr);
        ASSERT_NE(table_, nullptr);
    }

    void TearDown() override {
        std::error_code ec;
        std::filesystem::remove_all(prefix_, ec);
    }

    std::string prefix_;
    void *library_ = nullptr;
    LPMONITOREX table_ = nullptr;
};

TEST_F(LoadedMonitor, TheTableHas136BytesOfSlotsWithTheUnofferedOnesEmpty) {
    EXPECT_EQ(table_->dwMonitorSize, 136u);
    EXPECT_EQ(sizeof(MONITOR), 136u);
    const MONITOR &m = table_->Monitor;
    EXPECT_EQ(m.pfnOpenPortEx, nullptr);
    EXPECT_EQ(m.pfnXcvOpenPort, nullptr);
    EXPECT_EQ(m.pfnXcvDataPort, nullptr);
    EXPECT_EQ(m.pfnXcvClosePort, nullptr);
    // The other slots are the exported entries, in their order.
    const std::pair<const void *, const char *> slots[] = {
        {reinterpret_cast<const void *>(m.pfnEnumPorts), "LocalmonEnumPorts"},
        {reinterpret_cast<const void *>(m.pfnOpenPort), "LocalmonOpenPort"},
        {reinterpret_cast<const void *>(m.pfnStartDocPort), "LocalmonStartDocPort"},
        {reinterpret_cast<const void *>(m.pfnWritePort), "LocalmonWritePort"},
        {reinterpret_cast<const void *>(m.pfnReadPort), "LocalmonReadPort"},
        {reinterpret_cast<const void *>(m.pfnEndDocPort), "LocalmonEndDocPort"},
        {reinterpret_cast<const void *>(m.pfnClosePort), "LocalmonClosePort"},
        {reinterpret_cast<const void *>(m.pfnAddPort), "LocalmonAddPort"},
        {reinterpret_cast<const void *>(m.pfnAddPortEx), "LocalmonAddPortEx"},
        {reinterpret_cast<const void *>(m.pfnConfigurePort), "LocalmonConfigurePort"},
        {reinterpret_cast<const void *>(m.pfnDeletePort), "LocalmonDeletePort"},
        {reinterpret_cast<const void *>(m.pfnGetPrinterDataFromPort), "LocalmonGetPrinterDataFromPort"},
        {reinterpret_cast<const void *>(m.pfnSetPortTimeOuts), "LocalmonSetPortTimeOuts"}};
    for (const auto &[slot, name] : slots) EXPECT_EQ(slot, dlsym(library_, name)) << name;
}

TEST_F(LoadedMonitor, AJobDrivenThroughTheTableArrivesByteForByte) {
    kvtps::Emulator emulator;
    kvtps::ServerConfig config;
    config.name = "Lobby";
    config.address = "127.0.0.2";
    std::string error;
    ASSERT_TRUE(emulator.Start({config}, &error)) << error;

    kvthost::JobSpec job;
    job.printer = u"Lobby printer";
    job.jobId = 42;
    job.document = u"minutes.txt";
    job.user = u"clerk";
    kvthost::AddJob(job);
    kvthost::ImpersonateUser(u"clerk");
    kvthost::SetComputerName("frontdesk.example");

    const MONITOR &m = table_->Monitor;
    HANDLE port = nullptr;
    ASSERT_TRUE(m.pfnOpenPort(const_cast<LPWSTR>(u"Lobby-P2"), &port));
    ASSERT_TRUE(m.pfnStartDocPort(port, const_cast<LPWSTR>(u"Lobby printer"), 42, 1, nullptr));
    std::string data;
    for (int i = 0; i < 300000; ++i) data.push_back(static_cast<char>((i * 31) ^ (i >> 8)));
    size_t done = 0;
    while (done < data.size()) {
        DWORD written = 0;
        ASSERT_TRUE(m.pfnWritePort(port, reinterpret_cast<LPBYTE>(data.data() + done),
                                   static_cast<DWORD>(std::min<size_t>(data.size() - done, 65536)), &written));
        done += written;
    }
    ASSERT_TRUE(m.pfnEndDocPort(port));
    ASSERT_TRUE(m.pfnClosePort(port));

    ASSERT_TRUE(emulator.WaitForJobs("Lobby", 1, 10000));
    kvtps::LprJob got = emulator.Jobs("Lobby").front();
    EXPECT_TRUE(got.complete);
    EXPECT_EQ(got.queue, "raw");
    EXPECT_EQ(got.controlLines,
              (std::vector<std::string>{"Hclerk", "Jminutes.txt", "Nminutes.txt", "Hfrontdesk"}));
    EXPECT_EQ(got.controlFileName, "cfA042frontdesk");
    EXPECT_EQ(got.data, data);
}

}  // namespace
