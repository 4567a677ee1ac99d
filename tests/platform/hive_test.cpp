// The hive file both ways: what an administrator, a script or regedit writes
// is read exactly as written; what the platform writes reads back the same
// and stays a file a person can read; a file that cannot be parsed is refused
// by every call and never written over.  (Any bytes at all, parsed and written
// again: the fuzz target tests/fuzz/fuzz_hive.cpp.)  And the registry calls
// answer as Windows answers them where the monitor relies on it: statuses,
// buffer sizes, the order and case of sub keys, deletion.
#include <csignal>
#include <cstring>

#include "hive_fixture.h"

namespace {

const char16_t kHandWritten[] = uR"(; kept by hand
Windows Registry Editor Version 5.00

; the port monitor
[hkey_local_machine\SYSTEM\CurrentControlSet\Control\Print\Monitors\KVT Port]
@="KVT print port"
"Driver"="kvt64.dll"

[HKEY_LOCAL_MACHINE\system\currentcontrolset\Control\Print\Monitors\KVT Port\Ports\KVT1:]
" "=hex:2a
"IP    "=hex:01,02,a8,c0
"Path"="C:\\Windows\\\"q\""
"Timeout"=dword:0000EA60
"Expand"=hex(2):25,00,53,00,00,00
"Blob"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,\
  16,17,18,19,1a,1b,1c,1d,1e,1f
"Grüße"="naïve €"
)";

std::string Utf8(const std::u16string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        uint32_t c = s[i];
        if (c >= 0xD800 && c < 0xDC00) c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
        int extra = c < 0x80 ? 0 : c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
        out.push_back(static_cast<char>(extra == 0 ? c : (0xFF << (7 - extra)) | (c >> (6 * extra))));
        for (int k = extra - 1; k >= 0; --k) out.push_back(static_cast<char>(0x80 | ((c >> (6 * k)) & 0x3F)));
    }
    return out;
}

// The text as a file: LF or CRLF lines; no mark, a UTF-8 mark, or UTF-16LE with its mark.
std::string Encode(const std::u16string &text, bool crlf, int mark) {
    std::u16string lines;
    for (char16_t c : text) lines += c == u'\n' && crlf ? u"\r\n" : std::u16string(1, c);
    if (mark < 2) return (mark == 1 ? "\xEF\xBB\xBF" : "") + Utf8(lines);
    std::string bytes = "\xFF\xFE";
    for (char16_t c : lines) bytes += {static_cast<char>(c & 0xFF), static_cast<char>(c >> 8)};
    return bytes;
}

TEST_F(HiveTest, HandWrittenHiveIsReadAsWritten) {
    std::vector<BYTE> blob(32);
    for (BYTE i = 0; i < 32; ++i) blob[i] = i;
    for (int mark = 0; mark < 3; ++mark) {
        for (bool crlf : {false, true}) {
            SCOPED_TRACE("mark " + std::to_string(mark) + (crlf ? ", CRLF" : ", LF"));
            kvthost::ResetRegistry();
            WriteHive(Encode(kHandWritten, crlf, mark));
            HKEY monitor = Open(HKEY_LOCAL_MACHINE, u"SYSTEM\\CurrentControlSet\\Control\\Print\\Monitors\\KVT Port");
            HKEY port = Open(monitor, u"ports\\kvt1:");
            RegValue ip = Query(port, u"IP    ");
            ASSERT_EQ(ip, (RegValue{ERROR_SUCCESS, REG_BINARY, {0x01, 0x02, 0xa8, 0xc0}}));
            uint32_t address;
            std::memcpy(&address, ip.data.data(), 4);
            EXPECT_EQ(address, 0xC0A80201u);
            EXPECT_EQ(Query(port, u"IP").status, ERROR_FILE_NOT_FOUND) << "the blanks belong to the name";
            EXPECT_EQ(Query(port, u" "), (RegValue{ERROR_SUCCESS, REG_BINARY, {0x2a}}));
            EXPECT_EQ(Query(port, u"path"), (RegValue{ERROR_SUCCESS, REG_SZ, SzBytes(u"C:\\Windows\\\"q\"")}));
            EXPECT_EQ(Query(port, u"Timeout"), (RegValue{ERROR_SUCCESS, REG_DWORD, {0x60, 0xea, 0, 0}}));
            EXPECT_EQ(Query(port, u"Expand"), (RegValue{ERROR_SUCCESS, REG_EXPAND_SZ, SzBytes(u"%S")}));
            EXPECT_EQ(Query(port, u"Blob"), (RegValue{ERROR_SUCCESS, REG_BINARY, blob}));
            EXPECT_EQ(Query(port, u"Grüße"), (RegValue{ERROR_SUCCESS, REG_SZ, SzBytes(u"naïve €")}));
            EXPECT_EQ(Query(monitor, u""), (RegValue{ERROR_SUCCESS, REG_SZ, SzBytes(u"KVT print port")}));
            // A key keeps the case of its first appearance.
            EXPECT_EQ(SubKeys(HKEY_LOCAL_MACHINE), std::vector<std::u16string>{u"SYSTEM"});
            EXPECT_EQ(SubKeys(monitor), std::vector<std::u16string>{u"Ports"});
            RegCloseKey(port);
            RegCloseKey(monitor);
        }
    }
}

TEST_F(HiveTest, WhatIsWrittenReadsBackIdentically) {
    std::vector<BYTE> longList(300);
    for (size_t i = 0; i < longList.size(); ++i) longList[i] = static_cast<BYTE>(i * 7);
    const std::pair<std::u16string, RegValue> values[] = {  // name, {status 0 = ERROR_SUCCESS, type, bytes}
        {u"", {0, REG_SZ, SzBytes(u"default")}},
        {u" ", {0, REG_SZ, SzBytes(u"one blank")}},
        {u"IP    ", {0, REG_BINARY, {0x01, 0x02, 0xa8, 0xc0}}},
        {u"NoTerminator", {0, REG_SZ, {'a', 0, 'b', 0}}},
        {u"OddSize", {0, REG_SZ, {'a', 0, 'b'}}},
        {u"EmptyText", {0, REG_SZ, {}}},
        {u"EmptyBinary", {0, REG_BINARY, {}}},
        {u"Text", {0, REG_SZ, SzBytes(u"Grüße € \"q\" C:\\dir\\ \U0001F5A8")}},
        {u"Lines", {0, REG_SZ, SzBytes(u"a\r\nb\t")}},
        {u"Dword", {0, REG_DWORD, {0xef, 0xbe, 0xad, 0xde}}},
        {u"ShortDword", {0, REG_DWORD, {1, 2}}},
        {u"Qword", {0, 11, {1, 2, 3, 4, 5, 6, 7, 8}}},
        {u"Multi", {0, 7, {'a', 0, 0, 0, 'b', 0, 0, 0, 0, 0}}},
        {u"LargestType", {0, 0xFFFFFFFF, {9}}},
        {u"None", {0, REG_NONE, {}}},
        {u"Long", {0, REG_BINARY, longList}},
        {u"Quote\"and\\back", {0, REG_SZ, SzBytes(u"x")}},
        {u"Ünïcödé", {0, REG_DWORD, {1, 0, 0, 0}}},
    };
    HKEY port = Open(HKEY_LOCAL_MACHINE, u"Software\\Kvt\\Ports\\KVT1:", true);
    for (const auto &[name, v] : values) ASSERT_EQ(Set(port, name, v), ERROR_SUCCESS);
    RegCloseKey(port);

    // A file a person (and regedit) reads.
    const std::string text = HiveBytes();
    EXPECT_EQ(text.rfind("Windows Registry Editor Version 5.00\r\n\r\n", 0), 0u);
    for (const char *line : {"[HKEY_LOCAL_MACHINE\\Software\\Kvt\\Ports\\KVT1:]", "@=\"default\"",
                             "\"IP    \"=hex:01,02,a8,c0", "\"Dword\"=dword:deadbeef",
                             "\"Qword\"=hex(b):01,02,03,04,05,06,07,08", "\"Quote\\\"and\\\\back\"=\"x\""})
        EXPECT_NE(text.find(std::string("\r\n") + line + "\r\n"), std::string::npos) << line << " in\n" << text;
    for (size_t start = 0, end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2)
        ASSERT_LE(end - start, 80u) << "long lists are wrapped";

    // The same bytes in another prefix: the same tree, and written again, the same file.
    const std::string copy = prefix_ + "/copy";
    ASSERT_TRUE(std::filesystem::create_directory(copy));
    kvthost::SetPrefix(copy);
    WriteHive(text);
    port = Open(HKEY_LOCAL_MACHINE, u"SOFTWARE\\kvt\\ports\\kvt1:");
    for (const auto &[name, v] : values) EXPECT_EQ(Query(port, name), v) << kvthost::Narrow(name);
    RegCloseKey(port);
    RegCloseKey(Open(HKEY_LOCAL_MACHINE, u"Software", true));  // a change that changes nothing
    EXPECT_EQ(HiveBytes(), text);
}

TEST_F(HiveTest, UnreadableHiveIsRefusedAndNeverWrittenOver) {
    const std::string header = "Windows Registry Editor Version 5.00\r\n\r\n", key = "[HKEY_LOCAL_MACHINE\\A]\r\n";
    const std::string good = header + key + "\"v\"=dword:00000007\r\n";
    const std::pair<const char *, std::string> bad[] = {
        {"no header", key},
        {"empty file", ""},
        {"value before any key", header + "\"v\"=\"x\"\r\n" + key},
        {"unterminated quote", header + key + "\"v\"=\"x\r\n"},
        {"bad hex byte", header + key + "\"v\"=hex:01,0g\r\n"},
        {"key outside HKEY_LOCAL_MACHINE", header + "[HKEY_CURRENT_USER\\A]\r\n"},
        {"dword of seven digits", header + key + "\"v\"=dword:0000001\r\n"},
        {"dword of nine digits", header + key + "\"v\"=dword:000000001\r\n"},
        {"garbage line", header + key + "v=1\r\n"},
        {"key line without its bracket", header + "[HKEY_LOCAL_MACHINE\\A\r\n"},
        {"end inside a continuation", header + key + "\"v\"=hex:01,02,\\\r\n"},
        {"end inside a continuation, no newline", header + key + "\"v\"=hex:01,02,\\"},
    };
    const DWORD one = 1;
    const BYTE *oneBytes = reinterpret_cast<const BYTE *>(&one);
    for (const auto &[what, text] : bad) {
        SCOPED_TRACE(what);
        kvthost::ResetRegistry();
        WriteHive(good);
        HKEY opened = Open(HKEY_LOCAL_MACHINE, u"A"), key = nullptr;
        ASSERT_NE(text.size(), good.size()) << "written in place, the change is seen by the size";
        WriteHive(text);
        testing::internal::CaptureStderr();
        EXPECT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE, u"A", &key), ERROR_BADDB);
        EXPECT_EQ(RegCreateKeyW(HKEY_LOCAL_MACHINE, u"B", &key), ERROR_BADDB);
        EXPECT_EQ(RegSetValueExW(opened, u"v", 0, REG_DWORD, oneBytes, 4), ERROR_BADDB);
        EXPECT_EQ(Query(opened, u"v").status, ERROR_BADDB);
        EXPECT_EQ(RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"A"), ERROR_BADDB);
        const std::string message = testing::internal::GetCapturedStderr();
        EXPECT_EQ(HiveBytes(), text);
        const std::string says = kvthost::HivePath() + " cannot be read";
        size_t at = message.find(says);
        EXPECT_NE(at, std::string::npos) << message;
        EXPECT_EQ(message.find(says, at + 1), std::string::npos) << "said once:\n" << message;

        WriteHive(good + "\"w\"=\"mended\"\r\n");
        EXPECT_EQ(Query(opened, u"v"), (RegValue{ERROR_SUCCESS, REG_DWORD, {7, 0, 0, 0}}));
        EXPECT_EQ(RegSetValueExW(opened, u"v", 0, REG_DWORD, oneBytes, 4), ERROR_SUCCESS);
        EXPECT_EQ(Query(opened, u"w"), (RegValue{ERROR_SUCCESS, REG_SZ, SzBytes(u"mended")}));
        RegCloseKey(opened);
    }
}

// ---- the registry calls, as Windows answers them where the monitor relies on it ----

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

// A key line below the key of the line before it goes on from that key, and
// from the root again once a removal may have taken that key away.
TEST_F(HiveTest, AKeyRemovedAndNamedAgainBelowTheLineBeforeIsMadeAfresh) {
    WriteHive("Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\A\\B]\r\n\"old\"=dword:00000001\r\n"
              "[-HKEY_LOCAL_MACHINE\\A]\r\n[HKEY_LOCAL_MACHINE\\A\\B\\C]\r\n[HKEY_LOCAL_MACHINE\\A\\B\\C\\D]\r\n"
              "\"new\"=dword:00000002\r\n[HKEY_LOCAL_MACHINE\\a\\b\\E]\r\n");
    HKEY b = Open(HKEY_LOCAL_MACHINE, u"A\\B");
    EXPECT_EQ(Query(b, u"old").status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(SubKeys(b), (std::vector<std::u16string>{u"C", u"E"}));
    HKEY d = Open(b, u"C\\D");
    EXPECT_EQ(Query(d, u"new"), (RegValue{ERROR_SUCCESS, REG_DWORD, {2, 0, 0, 0}}));
    RegCloseKey(d);
    RegCloseKey(b);
}

// A batch's changes are this process's at once and the file's when the last
// batch ends, all together and beside what another process wrote meanwhile;
// a process killed inside a batch leaves the file as it was.
TEST_F(HiveTest, ABatchReachesTheFileWholeWhenItEnds) {
    const std::string header = "Windows Registry Editor Version 5.00\r\n\r\n", old = header + "[HKEY_LOCAL_MACHINE\\Old]\r\n";
    WriteHive(old);
    const BYTE one = 1;
    {
        kvthost::RegistryBatch outer;
        HKEY port = Open(HKEY_LOCAL_MACHINE, u"Ports\\PS1\\1", true);
        {
            kvthost::RegistryBatch inner;
            EXPECT_EQ(RegSetValueExW(port, u" ", 0, REG_BINARY, &one, 1), ERROR_SUCCESS);
        }
        EXPECT_EQ(RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Old"), ERROR_SUCCESS);
        EXPECT_EQ(Query(port, u" "), (RegValue{ERROR_SUCCESS, REG_BINARY, {1}}));
        EXPECT_EQ(HiveBytes(), old);
        WriteHive(old + "[HKEY_LOCAL_MACHINE\\Other]\r\n");  // another process's change
        EXPECT_EQ(SubKeys(HKEY_LOCAL_MACHINE), (std::vector<std::u16string>{u"Other", u"Ports"}));
        RegCloseKey(port);
    }
    ReadAfresh();
    EXPECT_EQ(SubKeys(HKEY_LOCAL_MACHINE), (std::vector<std::u16string>{u"Other", u"Ports"}));
    HKEY port = Open(HKEY_LOCAL_MACHINE, u"Ports\\PS1\\1");
    EXPECT_EQ(Query(port, u" "), (RegValue{ERROR_SUCCESS, REG_BINARY, {1}}));
    RegCloseKey(port);

    const std::string before = HiveBytes();
    EXPECT_EQ(Wait(Spawn([] {
                  HKEY key;
                  kvthost::BeginRegistryBatch();
                  RegCreateKeyW(HKEY_LOCAL_MACHINE, u"Lost", &key);
                  raise(SIGKILL);
                  return 0;
              })),
              128 + SIGKILL);
    EXPECT_EQ(HiveBytes(), before);
}

}  // namespace
