// KVT64.DLL as the Windows build leaves it, read from the file by the
// cross toolchain's own readers (objdump for the headers, exports and imports,
// windres for the resources): a DLL that exports the fifteen names of
// the entry table and nothing else, carries the string table of
// resources/strings.inc and the dialogs of resources/dialogs.inc as real
// resources, and needs nothing beyond the DLLs of a bare Windows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include <windows.h>  // the style names of dialogs.inc

namespace {

std::string DllPath() {
    const char *value = std::getenv("KVT_WIN_DLL");
    return value != nullptr && *value != 0 ? value : KVT_WIN_DLL_DEFAULT;
}

// What a command prints.
std::string Output(const std::string &command) {
    std::string out;
    if (FILE *pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
        pclose(pipe);
    }
    return out;
}

// The groups of every match of a pattern in a text.
std::vector<std::vector<std::string>> All(const std::string &text, const std::string &pattern) {
    std::vector<std::vector<std::string>> matches;
    const std::regex re(pattern);
    for (auto m = std::sregex_iterator(text.begin(), text.end(), re); m != std::sregex_iterator(); ++m)
        matches.emplace_back(m->begin(), m->end());
    return matches;
}

uint64_t Hex(const std::string &text) { return std::strtoull(text.c_str(), nullptr, 16); }

// A quoted text of windres's output, unescaped.
std::u16string Unquote(const std::string &quoted) {
    std::u16string text;
    for (size_t i = 0; i < quoted.size(); ++i) {
        char c = quoted[i];
        if (c == '\\' && i + 1 < quoted.size()) {
            c = quoted[++i];
            c = c == 'n' ? '\n' : c == 't' ? '\t' : c == 'r' ? '\r' : c;
        } else if (c == '"' && i + 1 < quoted.size() && quoted[i + 1] == '"') {
            ++i;
        }
        text.push_back(static_cast<unsigned char>(c));
    }
    return text;
}

std::string Show(const std::u16string &text) {
    std::string out = "\"";
    for (char16_t c : text) {
        char hex[12];
        std::snprintf(hex, sizeof hex, "\\u%04x", static_cast<unsigned>(c));
        out += c >= 0x20 && c < 0x7F && c != '"' && c != '\\' ? std::string(1, static_cast<char>(c)) : hex;
    }
    return out + "\"";
}

// ---- resources/strings.inc and resources/dialogs.inc ------------------------------
// The one list of ids and texts, and the dialogs, compiled here as the Linux
// tables are: what the DLL must carry.  Each dialog is a line of the dialog
// (its font as the text) and a line per control.
#define KVT_STRING(id, text) {id, u##text},
const std::map<unsigned, std::u16string> kSourceStrings = {
#include "strings.inc"
};
#undef KVT_STRING

std::string Describe(uint32_t id, uint32_t style, int x, int y, int cx, int cy, unsigned pointSize,
                     const std::u16string &cls, const std::u16string &text) {
    char line[64];
    std::snprintf(line, sizeof line, "%u %08x %d,%d %dx%d %u ", id, style, x, y, cx, cy, pointSize);
    return line + std::string(cls.begin(), cls.end()) + " " + std::string(text.begin(), text.end());
}
#define KVT_DIALOG(id, x, y, cx, cy, style, titleId, font, pointSize) \
    {id, Describe(0, style, x, y, cx, cy, pointSize, u"", u##font)},
#define KVT_CONTROL(id, textId, text, cls, style, x, y, cx, cy) \
    {0, Describe(static_cast<uint32_t>(id), style, x, y, cx, cy, 0, u##cls, u##text)},
#define KVT_END_DIALOG(id)
const std::vector<std::pair<unsigned, std::string>> kSourceDialogs = {
#include "dialogs.inc"
};
#undef KVT_DIALOG
#undef KVT_CONTROL
#undef KVT_END_DIALOG

// ---- the DLL --------------------------------------------------------------------------
class KVT64Dll : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(std::ifstream(DllPath()).good())
            << "no KVT64.DLL at " << DllPath() << ": build it first with `make win` (KVT_WIN_DLL names the file)";
        headers = Output(KVT_MINGW_OBJDUMP " -p -h '" + DllPath() + "'");
        resources = Output(KVT_MINGW_WINDRES " -i '" + DllPath() + "' -O rc");
        ASSERT_NE(headers.find("ImageBase"), std::string::npos) << headers;
    }

    // An address relative to the image that lies in a code section.
    bool InCode(uint64_t rva) {
        const uint64_t at = Hex(All(headers, R"(ImageBase\s+([0-9a-f]+))").at(0)[1]) + rva;
        for (const auto &s : All(headers, R"(\n +\d+ \S+ +([0-9a-f]+) +([0-9a-f]+) .*\n +([^\n]*))"))
            if (at >= Hex(s[2]) && at < Hex(s[2]) + Hex(s[1]) && s[3].find("CODE") != std::string::npos)
                return true;
        return false;
    }

    std::string headers, resources;
};

TEST_F(KVT64Dll, ExportsTheFifteenNamesOfTheEntryTableAndNothingElse) {
    EXPECT_EQ(All(headers, R"(\nName\s+[0-9a-f]+ (\S+))").at(0)[1], "KVT64.DLL");
    std::vector<std::string> addresses, names;
    for (const auto &e : All(headers, R"(\[ *\d+\] \+base\[ *\d+\] ([0-9a-f]+) (\w+ RVA))")) {
        EXPECT_EQ(e[2], "Export RVA") << "an export is forwarded to another DLL";
        addresses.push_back(e[1]);
    }
    const std::string table = headers.substr(std::min(headers.find("[Ordinal/Name Pointer] Table"), headers.size()));
    for (const auto &n : All(table.substr(0, table.find("\n\n")), R"(\n\t\[ *(\d+)\] (\w+))")) {
        names.push_back(n[2]);
        const size_t ordinal = std::stoul(n[1]);
        EXPECT_TRUE(ordinal < addresses.size() && InCode(Hex(addresses[ordinal]))) << n[2] << " does not point into code";
    }
    // The loader finds a name by binary search: the table must be in byte order.
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end())) << "the export name table is not sorted";
    std::vector<std::string> expected = {
        "DllEntryPoint",        "InitializePrintMonitor", "LocalmonEnumPorts",
        "LocalmonOpenPort",     "LocalmonStartDocPort",   "LocalmonWritePort",
        "LocalmonReadPort",     "LocalmonEndDocPort",     "LocalmonClosePort",
        "LocalmonAddPort",      "LocalmonAddPortEx",      "LocalmonConfigurePort",
        "LocalmonDeletePort",   "LocalmonGetPrinterDataFromPort", "LocalmonSetPortTimeOuts"};
    std::sort(expected.begin(), expected.end());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, expected);
    EXPECT_EQ(addresses.size(), expected.size());
}

TEST_F(KVT64Dll, CarriesTheStringTableOfStringsIncAsAResource) {
    std::map<unsigned, std::u16string> dll;
    for (const auto &s : All(resources, R"~(\n  (\d+), L?"((?:[^"\\]|\\.|"")*)")~"))
        EXPECT_TRUE(dll.emplace(std::stoul(s[1]), Unquote(s[2])).second) << "id " << s[1] << " twice";
    // A few texts by hand, blanks and backslashes included.
    const std::map<unsigned, std::u16string> known = {
        {833, u"printing success !!"}, {1100, u"System\\CurrentControlSet\\Control\\Print\\Monitors"},
        {1110, u"IP    "},           {1111, u" "},
        {1006, u"PrintServer"},        {1101, u"KVT64.DLL"},
    };
    for (const auto &[id, text] : known) EXPECT_EQ(Show(kSourceStrings.at(id)), Show(text)) << "strings.inc, id " << id;
    std::map<unsigned, std::string> shownSource, shownDll;
    for (const auto &[id, text] : kSourceStrings) shownSource[id] = Show(text);
    for (const auto &[id, text] : dll) shownDll[id] = Show(text);
    EXPECT_EQ(shownDll, shownSource);
}

TEST_F(KVT64Dll, CarriesTheFourDialogsOfDialogsIncWithEveryControl) {
    // Each dialog and its controls as the source has them; DS_SETFONT is the
    // resource compiler's, for the font.
    std::map<unsigned, std::vector<std::string>> source, carried;
    unsigned dialog = 0;
    for (const auto &[id, item] : kSourceDialogs) source[dialog = id != 0 ? id : dialog].push_back(item);
    const std::string number = R"(\s*(-?\d+))";
    for (const auto &d : All(resources, R"(\n(\d+) DIALOGEX)" + number + "," + number + "," + number + "," + number +
                                            R"~(\n(?:[^\n]*\n)*?STYLE 0x([0-9a-f]+)\n(?:[^\n]*\n)*?FONT (\d+), "([^"]*)"\n)~"
                                            R"(BEGIN\n((?:  [^\n]*\n)*)END)")) {
        auto &items = carried[std::stoul(d[1])];
        items.push_back(Describe(0, static_cast<uint32_t>(Hex(d[6])) & ~uint32_t{DS_SETFONT}, std::stoi(d[2]),
                                 std::stoi(d[3]), std::stoi(d[4]), std::stoi(d[5]), std::stoul(d[7]), u"",
                                 Unquote(d[8])));
        for (const auto &c : All(d[9], R"~(CONTROL "((?:[^"\\]|\\.|"")*)",)~" + number + R"~(, "(\w+)", 0x([0-9a-f]+),)~" +
                                           number + "," + number + "," + number + "," + number))
            items.push_back(Describe(static_cast<uint32_t>(std::stol(c[2])), static_cast<uint32_t>(Hex(c[4])),
                                     std::stoi(c[5]), std::stoi(c[6]), std::stoi(c[7]), std::stoi(c[8]), 0,
                                     Unquote(c[3]), Unquote(c[1])));
    }
    EXPECT_EQ(carried, source);
    // Every control of the dialogs' tables is there (4294967295: the label without an id).
    const std::map<unsigned, std::vector<unsigned>> tables = {
        {200, {219, 203, 206, 5, 4, 1005, 201, 1006, 205, 1007, 207, 208, 209, 210, 211, 1008, 1002, 1003, 1004}},
        {250, {259, 253, 3}}, {300, {309, 301, 4294967295, 302, 5, 4}}, {550, {551, 552, 553, 554, 556, 1009, 1010, 1000, 5}}};
    for (const auto &[id, controls] : tables)
        for (unsigned control : controls)
            EXPECT_TRUE(std::any_of(carried[id].begin() + 1, carried[id].end(), [&](const std::string &c) {
                return c.rfind(std::to_string(control) + " ", 0) == 0;
            })) << "dialog " << id << ", control " << control;
}

TEST_F(KVT64Dll, ImportsOnlyTheDllsOfABareWindows) {
    const std::set<std::string> system = {"kernel32.dll", "user32.dll",   "advapi32.dll", "ws2_32.dll",
                                          "netapi32.dll", "winspool.drv", "msvcrt.dll",   "wtsapi32.dll"};
    std::set<std::string> seen;
    for (const auto &d : All(headers, R"(DLL Name: (\S+))")) {
        std::string name = d[1];
        for (char &c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        seen.insert(name);
        const bool universalCrt = std::regex_match(name, std::regex(R"(api-ms-win-crt-.*\.dll)"));
        EXPECT_TRUE(system.count(name) != 0 || universalCrt) << d[1] << " is not part of Windows";
    }
    EXPECT_TRUE(seen.count("kernel32.dll") != 0) << "no KERNEL32 import: the import table was misread";
}

}  // namespace
