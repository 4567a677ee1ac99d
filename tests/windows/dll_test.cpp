// KVT64.DLL as the Windows build leaves it, read from the file: a 64-bit DLL
// that exports the fifteen names of the entry table and nothing else, carries
// the string table of resources/strings.inc as a real resource, and needs
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
// Lines KVT_STRING(id, "text") with the simple C escapes, between C comments.
// Anything else in the file is an error, so that no entry is silently passed
// over or misread.
class IncParser {
public:
    explicit IncParser(const std::string &text) : s_(text) {}

    bool Parse(std::map<unsigned, std::u16string> *out, std::string *error) {
        const std::string macro = "KVT_STRING";
        for (SkipBlank(); i_ < s_.size(); SkipBlank()) {
            if (s_.compare(i_, macro.size(), macro) != 0) return Fail(error, "expected KVT_STRING");
            i_ += macro.size();
            SkipBlank();
            if (!Take('(')) return Fail(error, "expected (");
            SkipBlank();
            unsigned id = 0;
            size_t digits = 0;
            for (; i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_])) && digits < 6; ++i_, ++digits)
                id = id * 10 + static_cast<unsigned>(s_[i_] - '0');
            if (digits == 0 || id > 65535) return Fail(error, "expected an id from 0 to 65535");
            SkipBlank();
            if (!Take(',')) return Fail(error, "expected , after the id");
            std::string bytes;
            for (SkipBlank(); i_ < s_.size() && s_[i_] == '"'; SkipBlank())  // adjacent literals join
                if (!Literal(&bytes, error)) return false;
            if (!Take(')')) return Fail(error, "expected ) after the text of " + std::to_string(id));
            std::u16string text;
            if (!Utf16(bytes, &text)) return Fail(error, "the text of " + std::to_string(id) + " is not UTF-8");
            if (!out->emplace(id, text).second) return Fail(error, "id " + std::to_string(id) + " appears twice");
        }
        return true;
    }

private:
    bool Fail(std::string *error, const std::string &what) {
        *error = what + " at byte " + std::to_string(i_) + " of strings.inc";
        return false;
    }
    bool Take(char c) {
        if (i_ >= s_.size() || s_[i_] != c) return false;
        ++i_;
        return true;
    }
    void SkipBlank() {
        for (;;) {
            while (i_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[i_]))) ++i_;
            if (s_.compare(i_, 2, "/*") == 0) {
                size_t end = s_.find("*/", i_ + 2);
                i_ = end == std::string::npos ? s_.size() : end + 2;
            } else if (s_.compare(i_, 2, "//") == 0) {
                size_t end = s_.find('\n', i_);
                i_ = end == std::string::npos ? s_.size() : end;
            } else {
                return;
            }
        }
    }
    bool Literal(std::string *bytes, std::string *error) {
        ++i_;  // the opening quote
        while (i_ < s_.size() && s_[i_] != '"' && s_[i_] != '\n') {
            char c = s_[i_++];
            if (c != '\\') {
                bytes->push_back(c);
                continue;
            }
            if (i_ >= s_.size()) break;
            char e = s_[i_++];
            static const std::string simple = "\\\"'?abfnrtv", meaning = "\\\"'?\a\b\f\n\r\t\v";
            if (size_t k = simple.find(e); k != std::string::npos) {
                bytes->push_back(meaning[k]);
            } else {
                return Fail(error, std::string("an escape this reader does not know: \\") + e);
            }
        }
        if (!Take('"')) return Fail(error, "unterminated string");
        return true;
    }
    static bool Utf16(const std::string &bytes, std::u16string *out) {
        for (size_t i = 0; i < bytes.size();) {
            unsigned char c = static_cast<unsigned char>(bytes[i]);
            int more = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : -1;
            if (more < 0 || i + static_cast<size_t>(more) >= bytes.size()) return false;
            uint32_t cp = more == 0 ? c : c & (0x3F >> more);
            for (int k = 1; k <= more; ++k) {
                unsigned char t = static_cast<unsigned char>(bytes[i + k]);
                if ((t & 0xC0) != 0x80) return false;
                cp = cp << 6 | (t & 0x3F);
            }
            i += static_cast<size_t>(more) + 1;
            if (cp >= 0x10000) {
                cp -= 0x10000;
                out->push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
                out->push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
            } else {
                out->push_back(static_cast<char16_t>(cp));
            }
        }
        return true;
    }

    const std::string &s_;
    size_t i_ = 0;
};

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
    std::string path = EnvOr("KVT_STRINGS_INC", KVT_STRINGS_INC);
    std::string inc;
    ASSERT_TRUE(ReadWholeFile(path, &inc)) << "cannot read " << path;
    std::map<unsigned, std::u16string> source, dll;
    std::string error;
    ASSERT_TRUE(IncParser(inc).Parse(&source, &error)) << error;
    ASSERT_TRUE(image.StringTable(&dll, &error)) << error;

    // A few texts by hand, blanks and backslashes included, so that the reading
    // of strings.inc is held to them too.
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

TEST_F(KVT64Dll, ImportsOnlyTheDllsOfABareWindows) {
    std::vector<std::string> dlls;
    std::string error;
    ASSERT_TRUE(image.Imports(&dlls, &error)) << error;
    const std::set<std::string> system = {"kernel32.dll", "user32.dll",   "advapi32.dll",
                                          "ws2_32.dll",   "winspool.drv", "msvcrt.dll"};
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
std::vector<uint8_t> Garbage(size_t size, uint32_t seed) {
    std::vector<uint8_t> bytes(size);
    for (uint8_t &b : bytes) {
        seed = seed * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(seed >> 24);
    }
    return bytes;
}

TEST(PeReader, RefusesFilesThatAreNoImage) {
    std::vector<std::vector<uint8_t>> files;
    files.push_back({});
    files.push_back({'M', 'Z'});
    std::vector<uint8_t> far(64, 0);  // a DOS header whose e_lfanew points past the end
    far[0] = 'M', far[1] = 'Z', far[0x3C] = 0xF0, far[0x3D] = far[0x3E] = far[0x3F] = 0xFF;
    files.push_back(far);
    files.push_back(Garbage(64 * 1024, 1));
    std::vector<uint8_t> dosOnly = Garbage(4096, 2);  // "MZ", then a PE signature over garbage
    dosOnly[0] = 'M', dosOnly[1] = 'Z', dosOnly[0x3C] = 0x80, dosOnly[0x3D] = dosOnly[0x3E] = dosOnly[0x3F] = 0;
    dosOnly[0x80] = 'P', dosOnly[0x81] = 'E', dosOnly[0x82] = dosOnly[0x83] = 0;
    files.push_back(dosOnly);
    for (size_t i = 0; i < files.size(); ++i) {
        // An exact-size heap copy, so that a read past the end is one the sanitizers see.
        std::unique_ptr<uint8_t[]> copy(new uint8_t[files[i].size() + 1]);
        std::copy(files[i].begin(), files[i].end(), copy.get());
        std::string error;
        EXPECT_FALSE(pe::ReadAll(copy.get(), files[i].size(), &error)) << "file " << i;
        EXPECT_FALSE(error.empty()) << "file " << i;
    }
}

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
