// The registry calls answer as Windows answers them where the monitor relies
// on it: statuses, buffer sizes, the order and case of sub keys, deletion.
#include "hive_fixture.h"

namespace {

TEST_F(HiveTest, ValuesAnswerWithWindowsStatusesAndSizes) {
    HKEY key = Open(HKEY_LOCAL_MACHINE, u"Q", true);
    ASSERT_EQ(Set(key, u"Bin", {ERROR_SUCCESS, REG_BINARY, {1, 2, 3, 4}}), ERROR_SUCCESS);
    DWORD type = 0, size = 8;
    BYTE buffer[8] = {};
    EXPECT_EQ(RegQueryValueExW(key, u"Missing", nullptr, &type, buffer, &size), ERROR_FILE_NOT_FOUND);
    size = 3;
    EXPECT_EQ(RegQueryValueExW(key, u"BIN", nullptr, &type, buffer, &size), ERROR_MORE_DATA);
    EXPECT_EQ(size, 4u) << "the size needed";
    EXPECT_EQ(Query(key, u"bin"), (RegValue{ERROR_SUCCESS, REG_BINARY, {1, 2, 3, 4}}));
    // Set under another case, it is the same value.
    ASSERT_EQ(Set(key, u"BIN", {ERROR_SUCCESS, REG_DWORD, {5, 0, 0, 0}}), ERROR_SUCCESS);
    EXPECT_EQ(Query(key, u"Bin"), (RegValue{ERROR_SUCCESS, REG_DWORD, {5, 0, 0, 0}}));
    // The file has no way to hold a line feed in a name: such a name is refused.
    EXPECT_EQ(Set(key, u"a\nb", {ERROR_SUCCESS, REG_SZ, SzBytes(u"x")}), ERROR_INVALID_PARAMETER);
    HKEY sub = nullptr;
    EXPECT_EQ(RegCreateKeyW(key, u"c\nd", &sub), ERROR_INVALID_PARAMETER);
    ReadAfresh();
    EXPECT_EQ(Query(key, u"Bin").status, ERROR_SUCCESS) << "the hive stays readable";
    RegCloseKey(key);
}

TEST_F(HiveTest, SubKeysKeepTheirCaseAndEnumerateByUpperCaseName) {
    HKEY parent = Open(HKEY_LOCAL_MACHINE, u"Ports", true);
    for (const char16_t *name : {u"b", u"_x", u"Port2", u"A", u"port10", u"C", u"PORT2", u"a"})
        RegCloseKey(Open(parent, name, true));
    // '_' sorts after the upper-case letters and before the lower-case ones.
    EXPECT_EQ(SubKeys(parent), (std::vector<std::u16string>{u"A", u"b", u"C", u"port10", u"Port2", u"_x"}));
    WCHAR name[8];
    DWORD size = 6;
    EXPECT_EQ(RegEnumKeyExW(parent, 3, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
    size = 7;
    EXPECT_EQ(RegEnumKeyExW(parent, 3, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(name, size), u"port10");
    size = 8;
    EXPECT_EQ(RegEnumKeyExW(parent, 6, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_NO_MORE_ITEMS);

    HKEY same = nullptr;
    EXPECT_EQ(RegOpenKeyW(parent, u"pOrT2", &same), ERROR_SUCCESS);
    RegCloseKey(same);
    EXPECT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE, u"Ports\\Port", &same), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegOpenKeyW(parent, u"", &same), ERROR_SUCCESS);
    EXPECT_EQ(same, parent) << "an empty sub key gives the same handle";
    RegCloseKey(parent);
}

TEST_F(HiveTest, KeysAreDeletedAsOnWindows) {
    RegCloseKey(Open(HKEY_LOCAL_MACHINE, u"Ports\\KVT1:\\Job", true));
    HKEY port = Open(HKEY_LOCAL_MACHINE, u"Ports\\KVT1:");
    EXPECT_EQ(RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Ports\\KVT1:"), ERROR_ACCESS_DENIED) << "it has a sub key";
    EXPECT_EQ(SubKeys(port), std::vector<std::u16string>{u"Job"});
    EXPECT_EQ(RegDeleteKeyW(port, u"JOB"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteKeyW(port, u"Job"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"ports\\kvt1:"), ERROR_SUCCESS);

    // The handle outlives its key: every use says so, and nothing brings the key back.
    HKEY key = nullptr;
    WCHAR name[16];
    DWORD size = 16;
    EXPECT_EQ(Query(port, u"v").status, ERROR_KEY_DELETED);
    EXPECT_EQ(Set(port, u"v", {ERROR_SUCCESS, REG_DWORD, {1, 0, 0, 0}}), ERROR_KEY_DELETED);
    EXPECT_EQ(RegEnumKeyExW(port, 0, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_KEY_DELETED);
    EXPECT_EQ(RegOpenKeyW(port, u"Job", &key), ERROR_KEY_DELETED);
    EXPECT_EQ(RegCreateKeyW(port, u"Job", &key), ERROR_KEY_DELETED);
    EXPECT_EQ(RegDeleteKeyW(port, u"Job"), ERROR_KEY_DELETED);
    EXPECT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE, u"Ports\\KVT1:", &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegCloseKey(port), ERROR_SUCCESS);
}

}  // namespace
