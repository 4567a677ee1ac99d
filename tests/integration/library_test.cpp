// libkvt64.so as the spooler meets it: what it exports, and the table that
// InitializePrintMonitor hands over.  (kvtmon print drives a job through that
// table: kvtmon_test.cpp.)
#include <dlfcn.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include <winsplp.h>

#include "kvthost.h"

namespace {

const char *LibraryPath() {
    const char *path = std::getenv("KVT64_SO");
    return path != nullptr ? path : KVT_BIN_DIR "/libkvt64.so";
}

TEST(Library, ExportsTheFifteenNamesOfTheEntryTableAndNothingElse) {
    // The global and weak names its dynamic symbol table defines, as binutils reads them.
    FILE *nm = popen((std::string("nm -D -g --defined-only ") + LibraryPath()).c_str(), "r");
    ASSERT_NE(nm, nullptr);
    std::set<std::string> names;
    char line[512];
    while (std::fgets(line, sizeof line, nm) != nullptr) {
        std::string text(line, std::strcspn(line, "\n"));
        names.insert(text.substr(text.rfind(' ') + 1));
    }
    ASSERT_EQ(pclose(nm), 0);
    EXPECT_EQ(names, (std::set<std::string>{
                         "DllEntryPoint", "InitializePrintMonitor", "LocalmonEnumPorts", "LocalmonOpenPort",
                         "LocalmonStartDocPort", "LocalmonWritePort", "LocalmonReadPort", "LocalmonEndDocPort",
                         "LocalmonClosePort", "LocalmonAddPort", "LocalmonAddPortEx", "LocalmonConfigurePort",
                         "LocalmonDeletePort", "LocalmonGetPrinterDataFromPort", "LocalmonSetPortTimeOuts"}));
}

TEST(Library, TheTableHas136BytesOfSlotsAndTheTransceiveEntriesInTheTableAlone) {
    char dir[] = "/tmp/kvt-integration-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    kvthost::SetPrefix(dir);
    std::string error;
    ASSERT_TRUE(kvthost::MakePrefix(&error)) << error;
    kvthost::SetTimeScale(0.01);
    void *library = dlopen(LibraryPath(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto init = reinterpret_cast<LPMONITOREX (*)(LPWSTR)>(dlsym(library, "InitializePrintMonitor"));
    ASSERT_NE(init, nullptr);
    LPMONITOREX table = init(nullptr);
    ASSERT_NE(table, nullptr);

    EXPECT_EQ(table->dwMonitorSize, 136u);
    EXPECT_EQ(sizeof(MONITOR), 136u);
    const MONITOR &m = table->Monitor;
    EXPECT_EQ(m.pfnOpenPortEx, nullptr);
    // The transceive entries are in the table alone: the library exports
    // its fifteen names and no more.
    for (const char *name : {"LocalmonXcvOpenPort", "LocalmonXcvDataPort", "LocalmonXcvClosePort"})
        EXPECT_EQ(dlsym(library, name), nullptr) << name;
    EXPECT_NE(m.pfnXcvOpenPort, nullptr);
    EXPECT_NE(m.pfnXcvDataPort, nullptr);
    EXPECT_NE(m.pfnXcvClosePort, nullptr);
    // The other slots are the exported entries, in their order.
#define SLOT(name) {reinterpret_cast<const void *>(m.pfn##name), "Localmon" #name}
    const std::pair<const void *, const char *> slots[] = {
        SLOT(EnumPorts), SLOT(OpenPort),      SLOT(StartDocPort),  SLOT(WritePort),  SLOT(ReadPort),
        SLOT(EndDocPort), SLOT(ClosePort),    SLOT(AddPort),       SLOT(AddPortEx),  SLOT(ConfigurePort),
        SLOT(DeletePort), SLOT(GetPrinterDataFromPort), SLOT(SetPortTimeOuts)};
#undef SLOT
    for (const auto &[slot, name] : slots) EXPECT_EQ(slot, dlsym(library, name)) << name;
    std::filesystem::remove_all(dir);
}

}  // namespace
