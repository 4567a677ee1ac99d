// KVT64.DLL as the Windows build leaves it, read from the file: a 64-bit DLL
// that exports the fifteen names of the entry table and nothing else, carries
// the string table of resources/strings.inc and the dialogs of
// resources/dialogs.inc as real resources, and needs
// nothing beyond the DLLs of a bare Windows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>

#include <windows.h>  // the style names of dialogs.inc

#include "pe_image.h"

namespace {

std::string EnvOr(const char *name, const char *fallback) {
    const char *value = std::getenv(name);
    return value != nullptr && *value != 0 ? value : fallback;
}

bool ReadWholeFile(const std::string &path, std::string *text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream out;
    out << in.rdbuf();
    *text = out.str();
    return true;
}

// The DLL's bytes, read once.  Empty with *message when there is no DLL: CI
// always builds it first, so a missing DLL is a failure, never a skip.
const std::vector<uint8_t> &TheDll(std::string *message) {
    static std::string path = EnvOr("KVT_WIN_DLL", KVT_WIN_DLL_DEFAULT);
    static std::string text;
    static bool read = ReadWholeFile(path, &text);
    static std::vector<uint8_t> bytes(text.begin(), text.end());
    *message = read ? path : "no KVT64.DLL at " + path + ": build it first with `make win` (KVT_WIN_DLL names the file)";
    return bytes;
}

// ---- resources/strings.inc ------------------------------------------------------
// The one list of ids and texts, compiled here as the Linux table is: what the
// DLL must carry, read by the compiler rather than by a reader of our own.
#define KVT_STRING(id, text) {id, u##text},
const std::map<unsigned, std::u16string> kSourceStrings = {
#include "strings.inc"
};
#undef KVT_STRING

// ---- resources/dialogs.inc -----------------------------------------------------
// The dialogs as the one source gives them, compiled here as the Linux table
// is, each as a line of the dialog and a line per control.
std::string Describe(const pe::DialogItem &i) {
    char line[64];
    std::snprintf(line, sizeof line, "%u %08x %d,%d %dx%d %u ", i.id, i.style, i.x, i.y, i.cx, i.cy, i.pointSize);
    return line + std::string(i.cls.begin(), i.cls.end()) + " " + std::string(i.text.begin(), i.text.end());
}
#define KVT_DIALOG(id, x, y, cx, cy, style, titleId, font, pointSize) \
    {id, {0, style, x, y, cx, cy, pointSize, u"", u##font}},
#define KVT_CONTROL(id, textId, text, cls, style, x, y, cx, cy) \
    {0, {static_cast<uint32_t>(id), style, x, y, cx, cy, 0, u##cls, u##text}},
#define KVT_END_DIALOG(id)
const std::vector<std::pair<unsigned, pe::DialogItem>> kSourceDialogs = {
#include "dialogs.inc"
};
#undef KVT_DIALOG
#undef KVT_CONTROL
#undef KVT_END_DIALOG

std::string Show(const std::u16string &text) {
    std::string out = "\"";
    for (char16_t c : text) {
        if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
            out.push_back(static_cast<char>(c));
        } else {
            char hex[12];
            std::snprintf(hex, sizeof hex, "\\u%04x", static_cast<unsigned>(c));
            out += hex;
        }
    }
    return out + "\"";
}

std::string Lower(std::string s) {
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// ---- the DLL --------------------------------------------------------------------------
class KVT64Dll : public ::testing::Test {
protected:
    void SetUp() override {
        std::string message;
        const std::vector<uint8_t> &bytes = TheDll(&message);
        ASSERT_FALSE(bytes.empty()) << message;
        std::string error;
        ASSERT_TRUE(image.Parse(bytes.data(), bytes.size(), &error)) << message << ": " << error;
    }

    bool InCode(uint32_t rva) const {
        const pe::Section *s = image.SectionAt(rva);
        return s != nullptr && (s->characteristics & pe::kSectionExecute) != 0;
    }

    pe::Image image;
};

TEST_F(KVT64Dll, IsA64BitWindowsDll) {
    // Parse takes PE32+ images only: the optional header's magic is 0x20B.
    EXPECT_EQ(image.Machine(), pe::kMachineAmd64) << "not an x86-64 image";
    EXPECT_NE(image.Characteristics() & pe::kFileDll, 0) << "IMAGE_FILE_DLL is not set";
    EXPECT_NE(image.Characteristics() & pe::kFileExecutableImage, 0) << "IMAGE_FILE_EXECUTABLE_IMAGE is not set";
    EXPECT_TRUE(InCode(image.EntryPoint())) << "the entry point is not in a code section";
}

TEST_F(KVT64Dll, ExportsTheFifteenNamesOfTheEntryTableAndNothingElse) {
    pe::ExportTable exports;
    std::string error;
    ASSERT_TRUE(image.Exports(&exports, &error)) << error;
    EXPECT_EQ(exports.dllName, "KVT64.DLL");

    std::vector<std::string> names;
    for (const pe::Export &e : exports.names) {
        names.push_back(e.name);
        EXPECT_FALSE(e.forwarded) << e.name << " is forwarded to another DLL";
        EXPECT_TRUE(InCode(e.rva)) << e.name << " does not point into code";
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
}

TEST_F(KVT64Dll, CarriesTheStringTableOfStringsIncAsAResource) {
    const std::map<unsigned, std::u16string> &source = kSourceStrings;
    std::map<unsigned, std::u16string> dll;
    std::string error;
    ASSERT_TRUE(image.StringTable(&dll, &error)) << error;

    // A few texts by hand, blanks and backslashes included.
    const std::map<unsigned, std::u16string> known = {
        {833, u"printing success !!"},
        {1100, u"System\\CurrentControlSet\\Control\\Print\\Monitors"},
        {1110, u"IP    "},
        {1111, u" "},
        {1006, u"PrintServer"},
        {1101, u"KVT64.DLL"},
    };
    auto textOf = [](const std::map<unsigned, std::u16string> &table, unsigned id) {
        auto it = table.find(id);
        return it == table.end() ? std::string("(none)") : Show(it->second);
    };
    for (const auto &[id, text] : known) {
        EXPECT_EQ(textOf(source, id), Show(text)) << "strings.inc, id " << id;
        EXPECT_EQ(textOf(dll, id), Show(text)) << "KVT64.DLL, id " << id;
    }

    // Every id and text, both ways.
    for (const auto &[id, text] : source) {
        auto it = dll.find(id);
        if (it == dll.end()) {
            ADD_FAILURE() << "id " << id << " " << Show(text) << " is not in the DLL";
        } else {
            EXPECT_EQ(Show(it->second), Show(text)) << "id " << id;
        }
    }
    for (const auto &[id, text] : dll)
        if (source.count(id) == 0) ADD_FAILURE() << "the DLL has id " << id << " " << Show(text) << " that strings.inc lacks";
}

TEST_F(KVT64Dll, CarriesTheFourDialogsOfDialogsIncWithEveryControl) {
    std::map<unsigned, std::vector<pe::DialogItem>> dll;
    std::string error;
    ASSERT_TRUE(image.Dialogs(&dll, &error)) << error;
    // Each dialog and its controls as the source has them; DS_SETFONT is the
    // resource compiler's, for the font.
    std::map<unsigned, std::vector<std::string>> source, carried;
    unsigned dialog = 0;
    for (const auto &[id, item] : kSourceDialogs) source[dialog = id != 0 ? id : dialog].push_back(Describe(item));
    for (auto &[id, items] : dll) {
        items[0].style &= ~uint32_t{DS_SETFONT};
        for (const pe::DialogItem &item : items) carried[id].push_back(Describe(item));
    }
    EXPECT_EQ(carried, source);
    // Every control of the dialogs' tables is there (4294967295: the label without an id).
    const std::map<unsigned, std::vector<unsigned>> tables = {
        {200, {219, 203, 206, 5, 4, 1005, 201, 1006, 205, 1007, 207, 208, 209, 210, 211, 1008, 1002, 1003, 1004}},
        {250, {259, 253, 3}}, {300, {309, 301, 4294967295, 302, 5, 4}}, {550, {551, 552, 553, 554, 556, 1009, 1010, 1000, 5}}};
    for (const auto &[id, controls] : tables)
        for (unsigned control : controls)
            EXPECT_TRUE(std::any_of(dll[id].begin() + 1, dll[id].end(), [&](auto &c) { return c.id == control; }))
                << "dialog " << id << ", control " << control;
}

TEST_F(KVT64Dll, ImportsOnlyTheDllsOfABareWindows) {
    std::vector<std::string> dlls;
    std::string error;
    ASSERT_TRUE(image.Imports(&dlls, &error)) << error;
    const std::set<std::string> system = {"kernel32.dll", "user32.dll",   "advapi32.dll", "ws2_32.dll",
                                          "netapi32.dll", "winspool.drv", "msvcrt.dll"};
    std::set<std::string> seen;
    for (const std::string &dll : dlls) {
        std::string name = Lower(dll);
        seen.insert(name);
        bool universalCrt = name.rfind("api-ms-win-crt-", 0) == 0 && name.size() > 4 &&
                            name.compare(name.size() - 4, 4, ".dll") == 0;
        EXPECT_TRUE(system.count(name) != 0 || universalCrt) << dll << " is not part of Windows";
    }
    EXPECT_TRUE(seen.count("kernel32.dll") != 0) << "no KERNEL32 import: the import table was misread";
}

// ---- the reader itself, on files that are not whole ------------------------------------
TEST(PeReader, RefusesTheDllCutShortAnywhere) {
    std::string message;
    const std::vector<uint8_t> &dll = TheDll(&message);
    ASSERT_FALSE(dll.empty()) << message;
    std::string error;
    ASSERT_TRUE(pe::ReadAll(dll.data(), dll.size(), &error)) << error;
    pe::Image image;
    ASSERT_TRUE(image.Parse(dll.data(), dll.size(), &error));

    std::set<size_t> cuts = {0, 1, 2, 0x3C, 0x40, 0x80, 0x100, dll.size() - 1};
    for (const pe::Section &s : image.Sections()) {
        cuts.insert(s.rawOffset);
        cuts.insert(s.rawOffset + s.rawSize / 2);
    }
    for (size_t at = 4093; at < dll.size(); at += 4093) cuts.insert(at);
    for (size_t cut : cuts) {
        std::vector<uint8_t> copy(dll.begin(), dll.begin() + static_cast<std::ptrdiff_t>(cut));
        copy.shrink_to_fit();
        error.clear();
        EXPECT_FALSE(pe::ReadAll(copy.data(), copy.size(), &error)) << "cut at " << cut;
        EXPECT_FALSE(error.empty()) << "cut at " << cut;
    }
}

TEST(PeReader, SurvivesEveryByteOfTheHeadersAndTablesFlipped) {
    std::string message;
    const std::vector<uint8_t> &dll = TheDll(&message);
    ASSERT_FALSE(dll.empty()) << message;
    pe::Image image;
    std::string error;
    ASSERT_TRUE(image.Parse(dll.data(), dll.size(), &error)) << error;

    // The headers and section table, and the export, import and resource tables.
    std::vector<std::pair<size_t, size_t>> ranges = {{0, image.Sections().front().rawOffset}};
    for (size_t d : {pe::kExportDirectory, pe::kImportDirectory, pe::kResourceDirectory}) {
        pe::DataDirectory dir = image.Directory(d);
        size_t at;
        uint32_t size = std::min<uint32_t>(dir.size, 0x1000);
        ASSERT_TRUE(image.FileOffset(dir.rva, size, &at)) << "directory " << d;
        ranges.push_back({at, at + size});
    }
    std::vector<uint8_t> copy(dll);
    copy.shrink_to_fit();
    uint32_t nt = copy[0x3C] | copy[0x3D] << 8;
    const std::set<size_t> fatal = {0, 1, nt, nt + 1, nt + 2, nt + 3, nt + 24, nt + 25};  // MZ, PE\0\0, magic
    size_t refused = 0, tried = 0;
    for (auto [from, to] : ranges) {
        for (size_t i = from; i < to && i < copy.size(); ++i, ++tried) {
            copy[i] ^= 0xFF;
            error.clear();
            bool read = pe::ReadAll(copy.data(), copy.size(), &error);
            copy[i] ^= 0xFF;
            if (!read) {
                ++refused;
                EXPECT_FALSE(error.empty()) << "byte " << i;
            }
            if (fatal.count(i) != 0) {
                EXPECT_FALSE(read) << "byte " << i << " flipped was not noticed";
            }
        }
    }
    EXPECT_GT(tried, 1000u);
    EXPECT_GT(refused, 0u);
}

}  // namespace
