// A small reader for PE32+ images (64-bit Windows DLLs), enough to check
// KVT64.DLL from the file itself: headers, section table, exports, imports and
// the string table and the dialogs among the resources.
//
// Every read is bounds-checked against the bytes handed in: a truncated or
// corrupt file gives false and a message, never a read outside the buffer.
// The reader does not own the bytes; they must outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace pe {

constexpr uint16_t kMachineAmd64 = 0x8664;
constexpr uint16_t kMagicPe32Plus = 0x20B;
constexpr uint16_t kFileExecutableImage = 0x0002;
constexpr uint16_t kFileDll = 0x2000;
constexpr uint32_t kSectionExecute = 0x20000000;

// Data directory slots.
constexpr size_t kExportDirectory = 0;
constexpr size_t kImportDirectory = 1;
constexpr size_t kResourceDirectory = 2;
constexpr size_t kDelayImportDirectory = 13;

constexpr uint32_t kResourceDialog = 5;  // RT_DIALOG
constexpr uint32_t kResourceString = 6;  // RT_STRING

// A DIALOGEX template (DLGTEMPLATEEX and its DLGITEMTEMPLATEEX items) as a
// list: the dialog itself (its font as the text), then each control.  A class
// given by ordinal is named as Windows names it: "BUTTON", "EDIT", "STATIC"...
struct DialogItem {
    uint32_t id = 0, style = 0;
    int16_t x = 0, y = 0, cx = 0, cy = 0;
    uint16_t pointSize = 0;
    std::u16string cls, text;
};

struct Section {
    std::string name;  // up to 8 characters; "/n" for a long name kept in the symbol string table
    uint32_t virtualAddress = 0;
    uint32_t virtualSize = 0;
    uint32_t rawOffset = 0;
    uint32_t rawSize = 0;
    uint32_t characteristics = 0;
};

struct DataDirectory {
    uint32_t rva = 0;
    uint32_t size = 0;
};

struct Export {
    std::string name;
    uint32_t rva = 0;        // of the code or data the name stands for
    bool forwarded = false;  // rva points at a forwarder string inside the export directory
};

struct ExportTable {
    std::string dllName;        // the name the DLL gives itself
    std::vector<Export> names;  // in the order of the name table
};

class Image {
public:
    // Reads the DOS header, the NT headers (PE32+ only), the data directories and
    // the section table, and checks that every part the headers describe lies
    // inside the file.  False with *error when it does not.
    bool Parse(const uint8_t *bytes, size_t size, std::string *error);

    uint16_t Machine() const { return machine_; }
    uint16_t Characteristics() const { return characteristics_; }
    uint32_t EntryPoint() const { return entryPoint_; }
    const std::vector<Section> &Sections() const { return sections_; }
    DataDirectory Directory(size_t index) const;

    // The file offset of size bytes at rva, when all of them are in the file.
    bool FileOffset(uint32_t rva, uint32_t size, size_t *offset) const;
    // The section that holds rva, or nullptr.
    const Section *SectionAt(uint32_t rva) const;

    bool Exports(ExportTable *table, std::string *error) const;
    // The DLL names of the import and delay-import tables, in table order.
    bool Imports(std::vector<std::string> *dlls, std::string *error) const;
    // Every non-empty string of the RT_STRING resources, by id.
    bool StringTable(std::map<unsigned, std::u16string> *strings, std::string *error) const;
    // Every RT_DIALOG resource, by id.
    bool Dialogs(std::map<unsigned, std::vector<DialogItem>> *dialogs, std::string *error) const;

private:
    bool U16(size_t offset, uint16_t *value) const;
    bool U32(size_t offset, uint32_t *value) const;
    bool U16At(uint32_t rva, uint16_t *value) const;
    bool U32At(uint32_t rva, uint32_t *value) const;
    // A NUL-terminated string at rva, of at most maxLength characters.
    bool CStringAt(uint32_t rva, size_t maxLength, std::string *text) const;
    bool CheckExtents(std::string *error) const;
    // The data of every resource of a type, by its id: file offset and size.
    struct Span {
        unsigned id;
        size_t at;
        uint32_t size;
    };
    bool Resources(uint32_t type, const char *what, std::vector<Span> *spans, std::string *error) const;

    const uint8_t *bytes_ = nullptr;
    size_t size_ = 0;
    uint16_t machine_ = 0;
    uint16_t characteristics_ = 0;
    uint32_t entryPoint_ = 0;
    uint32_t sizeOfHeaders_ = 0;
    uint32_t symbolTable_ = 0;
    uint32_t symbolCount_ = 0;
    std::vector<DataDirectory> directories_;
    std::vector<Section> sections_;
};

// Reads every part this reader knows (headers, exports, imports, strings,
// dialogs): true
// only when all of them read.  *error says what failed first.
bool ReadAll(const uint8_t *bytes, size_t size, std::string *error);

}  // namespace pe
