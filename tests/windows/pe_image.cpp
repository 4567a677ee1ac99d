#include "pe_image.h"

#include <cstdio>

namespace pe {

namespace {

constexpr uint32_t kPeSignature = 0x00004550;  // "PE\0\0"
constexpr size_t kFileHeaderSize = 20;
constexpr size_t kSectionHeaderSize = 40;
constexpr size_t kMaxSections = 96;       // what the Windows loader accepts
constexpr size_t kMaxDirectories = 16;
constexpr size_t kMaxTableEntries = 65536;
constexpr size_t kMaxDescriptors = 4096;  // import descriptors before we call the table endless
constexpr size_t kSymbolSize = 18;

std::string Hex(uint64_t v) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(v));
    return text;
}

bool Fail(std::string *error, const std::string &what) {
    *error = what;
    return false;
}

// rva + delta, when it is still a 32-bit address.
bool Offset(uint32_t rva, uint64_t delta, uint32_t *out) {
    uint64_t sum = uint64_t{rva} + delta;
    if (sum > UINT32_MAX) return false;
    *out = static_cast<uint32_t>(sum);
    return true;
}

}  // namespace

bool Image::U16(size_t offset, uint16_t *value) const {
    if (offset > size_ || size_ - offset < 2) return false;
    *value = static_cast<uint16_t>(bytes_[offset] | bytes_[offset + 1] << 8);
    return true;
}

bool Image::U32(size_t offset, uint32_t *value) const {
    if (offset > size_ || size_ - offset < 4) return false;
    *value = uint32_t{bytes_[offset]} | uint32_t{bytes_[offset + 1]} << 8 | uint32_t{bytes_[offset + 2]} << 16 |
             uint32_t{bytes_[offset + 3]} << 24;
    return true;
}

bool Image::U16At(uint32_t rva, uint16_t *value) const {
    size_t offset;
    return FileOffset(rva, 2, &offset) && U16(offset, value);
}

bool Image::U32At(uint32_t rva, uint32_t *value) const {
    size_t offset;
    return FileOffset(rva, 4, &offset) && U32(offset, value);
}

bool Image::CStringAt(uint32_t rva, size_t maxLength, std::string *text) const {
    text->clear();
    for (size_t i = 0; i <= maxLength; ++i) {
        uint32_t at;
        size_t offset;
        if (!Offset(rva, i, &at) || !FileOffset(at, 1, &offset)) return false;
        if (bytes_[offset] == 0) return true;
        text->push_back(static_cast<char>(bytes_[offset]));
    }
    return false;
}

DataDirectory Image::Directory(size_t index) const {
    return index < directories_.size() ? directories_[index] : DataDirectory{};
}

bool Image::FileOffset(uint32_t rva, uint32_t size, size_t *offset) const {
    uint64_t end = uint64_t{rva} + size;
    if (end <= sizeOfHeaders_) {
        if (end > size_) return false;
        *offset = rva;
        return true;
    }
    for (const Section &s : sections_) {
        // Only the bytes the file holds: what lies past the raw data (or past the
        // section's virtual size, when it is smaller) is not in the file.
        uint32_t extent = s.rawSize;
        if (s.virtualSize != 0 && s.virtualSize < extent) extent = s.virtualSize;
        if (rva < s.virtualAddress || end > uint64_t{s.virtualAddress} + extent) continue;
        uint64_t at = uint64_t{s.rawOffset} + (rva - s.virtualAddress);
        if (at + size > size_) return false;
        *offset = static_cast<size_t>(at);
        return true;
    }
    return false;
}

const Section *Image::SectionAt(uint32_t rva) const {
    for (const Section &s : sections_) {
        uint32_t extent = s.virtualSize > s.rawSize ? s.virtualSize : s.rawSize;
        if (rva >= s.virtualAddress && uint64_t{rva} < uint64_t{s.virtualAddress} + extent) return &s;
    }
    return nullptr;
}

bool Image::Parse(const uint8_t *bytes, size_t size, std::string *error) {
    *this = Image();
    bytes_ = bytes;
    size_ = size;
    uint16_t mz;
    if (!U16(0, &mz) || mz != 0x5A4D) return Fail(error, "no DOS header (\"MZ\")");
    uint32_t nt, signature;
    if (!U32(0x3C, &nt)) return Fail(error, "the DOS header is cut short");
    if (!U32(nt, &signature) || signature != kPeSignature)
        return Fail(error, "no PE signature at " + Hex(nt) + " (e_lfanew)");

    size_t fileHeader = size_t{nt} + 4;
    uint16_t sectionCount, optionalSize, magic;
    if (!U16(fileHeader, &machine_) || !U16(fileHeader + 2, &sectionCount) || !U32(fileHeader + 8, &symbolTable_) ||
        !U32(fileHeader + 12, &symbolCount_) || !U16(fileHeader + 16, &optionalSize) ||
        !U16(fileHeader + 18, &characteristics_))
        return Fail(error, "the file header is cut short");

    size_t optional = fileHeader + kFileHeaderSize;
    if (!U16(optional, &magic)) return Fail(error, "the optional header is cut short");
    if (magic != kMagicPe32Plus) return Fail(error, "not a PE32+ image (optional header magic " + Hex(magic) + ")");
    uint32_t directoryCount;
    if (optionalSize < 112 || !U32(optional + 16, &entryPoint_) || !U32(optional + 60, &sizeOfHeaders_) ||
        !U32(optional + 108, &directoryCount))
        return Fail(error, "the optional header is cut short");
    if (directoryCount > kMaxDirectories || 112 + 8 * size_t{directoryCount} > optionalSize)
        return Fail(error, "the optional header claims " + std::to_string(directoryCount) + " data directories");
    for (size_t i = 0; i < directoryCount; ++i) {
        DataDirectory d;
        if (!U32(optional + 112 + 8 * i, &d.rva) || !U32(optional + 116 + 8 * i, &d.size))
            return Fail(error, "the data directories are cut short");
        directories_.push_back(d);
    }

    if (sectionCount == 0 || sectionCount > kMaxSections)
        return Fail(error, "the file header claims " + std::to_string(sectionCount) + " sections");
    size_t table = optional + optionalSize;
    for (size_t i = 0; i < sectionCount; ++i) {
        size_t at = table + i * kSectionHeaderSize;
        if (at > size_ || size_ - at < kSectionHeaderSize) return Fail(error, "the section table is cut short");
        Section s;
        for (size_t k = 0; k < 8 && bytes_[at + k] != 0; ++k) s.name.push_back(static_cast<char>(bytes_[at + k]));
        U32(at + 8, &s.virtualSize);
        U32(at + 12, &s.virtualAddress);
        U32(at + 16, &s.rawSize);
        U32(at + 20, &s.rawOffset);
        U32(at + 36, &s.characteristics);
        sections_.push_back(s);
    }
    return CheckExtents(error);
}

// Everything the headers place in the file must be in it: a copy cut short
// anywhere is refused here, not half read later.
bool Image::CheckExtents(std::string *error) const {
    if (sizeOfHeaders_ > size_) return Fail(error, "the headers (" + Hex(sizeOfHeaders_) + " bytes) pass the end of the file");
    for (const Section &s : sections_) {
        if (uint64_t{s.rawOffset} + s.rawSize > size_)
            return Fail(error, "section " + s.name + " (" + Hex(s.rawOffset) + " + " + Hex(s.rawSize) +
                                   ") passes the end of the file (" + Hex(size_) + ")");
    }
    if (symbolTable_ != 0) {
        uint64_t strings = uint64_t{symbolTable_} + uint64_t{symbolCount_} * kSymbolSize;
        uint32_t stringsSize;
        if (strings > size_ || !U32(static_cast<size_t>(strings), &stringsSize) || stringsSize < 4 ||
            strings + stringsSize > size_)
            return Fail(error, "the symbol table at " + Hex(symbolTable_) + " passes the end of the file");
    }
    DataDirectory certificates = Directory(4);  // the one directory given as a file offset
    if (certificates.size != 0 && uint64_t{certificates.rva} + certificates.size > size_)
        return Fail(error, "the certificate table passes the end of the file");
    return true;
}

bool Image::Exports(ExportTable *table, std::string *error) const {
    *table = ExportTable();
    DataDirectory dir = Directory(kExportDirectory);
    if (dir.rva == 0 || dir.size == 0) return Fail(error, "no export directory");
    size_t at;
    if (!FileOffset(dir.rva, 40, &at)) return Fail(error, "the export directory lies outside the file");
    uint32_t nameRva = 0, functionCount = 0, nameCount = 0, functions = 0, names = 0, ordinals = 0;
    U32(at + 12, &nameRva);
    U32(at + 20, &functionCount);
    U32(at + 24, &nameCount);
    U32(at + 28, &functions);
    U32(at + 32, &names);
    U32(at + 36, &ordinals);
    if (!CStringAt(nameRva, 256, &table->dllName)) return Fail(error, "the export directory's DLL name is unreadable");
    if (functionCount > kMaxTableEntries || nameCount > kMaxTableEntries)
        return Fail(error, "the export directory claims " + std::to_string(functionCount) + " functions and " +
                               std::to_string(nameCount) + " names");
    size_t ignored;
    if (!FileOffset(functions, functionCount * 4, &ignored) || !FileOffset(names, nameCount * 4, &ignored) ||
        !FileOffset(ordinals, nameCount * 2, &ignored))
        return Fail(error, "the export tables lie outside the file");
    for (uint32_t i = 0; i < nameCount; ++i) {
        Export e;
        uint32_t nameAt = 0;
        uint16_t ordinal = 0;
        U32At(names + 4 * i, &nameAt);
        U16At(ordinals + 2 * i, &ordinal);
        if (!CStringAt(nameAt, 1024, &e.name))
            return Fail(error, "export name " + std::to_string(i) + " is unreadable");
        if (ordinal >= functionCount)
            return Fail(error, "export " + e.name + " has ordinal index " + std::to_string(ordinal) + " of " +
                                   std::to_string(functionCount));
        U32At(functions + 4 * uint32_t{ordinal}, &e.rva);
        e.forwarded = e.rva >= dir.rva && uint64_t{e.rva} < uint64_t{dir.rva} + dir.size;
        table->names.push_back(e);
    }
    return true;
}

bool Image::Imports(std::vector<std::string> *dlls, std::string *error) const {
    dlls->clear();
    struct Kind {
        size_t directory;
        uint32_t descriptorSize;
        uint32_t nameField;
        const char *what;
    };
    for (const Kind &k : {Kind{kImportDirectory, 20, 12, "import"}, Kind{kDelayImportDirectory, 32, 4, "delay-import"}}) {
        DataDirectory dir = Directory(k.directory);
        if (dir.rva == 0) continue;
        for (size_t i = 0;; ++i) {
            if (i == kMaxDescriptors) return Fail(error, std::string("the ") + k.what + " table has no end");
            uint32_t rva;
            size_t at;
            if (!Offset(dir.rva, i * k.descriptorSize, &rva) || !FileOffset(rva, k.descriptorSize, &at))
                return Fail(error, std::string("the ") + k.what + " table lies outside the file");
            bool empty = true;
            for (uint32_t b = 0; b < k.descriptorSize; ++b) empty = empty && bytes_[at + b] == 0;
            if (empty) break;
            uint32_t nameRva = 0;
            U32(at + k.nameField, &nameRva);
            std::string name;
            if (!CStringAt(nameRva, 256, &name))
                return Fail(error, std::string("the name of ") + k.what + " " + std::to_string(i) + " is unreadable");
            dlls->push_back(name);
        }
    }
    return true;
}

namespace {

struct ResourceEntry {
    bool named = false;
    uint32_t id = 0;
    bool directory = false;
    uint32_t target = 0;  // from the start of the resource directory
};

}  // namespace

bool Image::Resources(uint32_t type, const char *what, std::vector<Span> *spans, std::string *error) const {
    spans->clear();
    const uint32_t base = Directory(kResourceDirectory).rva;
    if (base == 0) return Fail(error, "no resource directory");

    auto readDirectory = [&](uint32_t offset, std::vector<ResourceEntry> *entries) {
        entries->clear();
        uint32_t rva;
        size_t at;
        uint16_t named, ids;
        if (!Offset(base, offset, &rva) || !FileOffset(rva, 16, &at) || !U16(at + 12, &named) || !U16(at + 14, &ids))
            return false;
        size_t count = size_t{named} + ids;
        if (!Offset(rva, 16, &rva) || !FileOffset(rva, static_cast<uint32_t>(count * 8), &at)) return false;
        for (size_t i = 0; i < count; ++i) {
            uint32_t name = 0, data = 0;
            U32(at + 8 * i, &name);
            U32(at + 8 * i + 4, &data);
            entries->push_back({(name & 0x80000000u) != 0, name & 0x7FFFFFFFu, (data & 0x80000000u) != 0,
                                data & 0x7FFFFFFFu});
        }
        return true;
    };

    std::vector<ResourceEntry> types, names, languages;
    if (!readDirectory(0, &types)) return Fail(error, "the resource directory lies outside the file");
    const ResourceEntry *typeEntry = nullptr;
    for (const ResourceEntry &e : types)
        if (!e.named && e.id == type) typeEntry = &e;
    if (typeEntry == nullptr) return Fail(error, std::string("no ") + what + " among the resources");
    if (!typeEntry->directory || !readDirectory(typeEntry->target, &names))
        return Fail(error, std::string("the ") + what + " directory is unreadable");
    for (const ResourceEntry &name : names) {
        if (name.named || name.id == 0 || !name.directory)
            return Fail(error, std::string(what) + " has an entry that is no resource (" + Hex(name.id) + ")");
        if (!readDirectory(name.target, &languages))
            return Fail(error, std::string(what) + " " + std::to_string(name.id) + " is unreadable");
        for (const ResourceEntry &language : languages) {
            // A data entry: the data's RVA, its size, a code page and a reserved word.
            uint32_t entryRva, dataRva = 0, dataSize = 0;
            size_t entry, at;
            if (language.directory || !Offset(base, language.target, &entryRva) || !FileOffset(entryRva, 16, &entry) ||
                !U32(entry, &dataRva) || !U32(entry + 4, &dataSize) || !FileOffset(dataRva, dataSize, &at))
                return Fail(error, "the data of " + std::string(what) + " " + std::to_string(name.id) +
                                       " is unreadable");
            spans->push_back({name.id, at, dataSize});
        }
    }
    return true;
}

bool Image::StringTable(std::map<unsigned, std::u16string> *strings, std::string *error) const {
    strings->clear();
    std::vector<Span> blocks;
    if (!Resources(kResourceString, "string table (RT_STRING)", &blocks, error)) return false;
    for (const Span &block : blocks) {
        // Block n holds the ids (n-1)*16 .. (n-1)*16+15.
        if (block.id > 4096) return Fail(error, "RT_STRING has a block beyond the ids (" + Hex(block.id) + ")");
        size_t pos = 0;
        for (unsigned i = 0; i < 16; ++i) {
            uint16_t length;
            if (block.size - pos < 2 || !U16(block.at + pos, &length) || block.size - pos - 2 < size_t{length} * 2)
                return Fail(error, "string block " + std::to_string(block.id) + " is cut short at string " +
                                       std::to_string(i));
            pos += 2;
            std::u16string text;
            for (size_t c = 0; c < length; ++c, pos += 2) {
                uint16_t unit = 0;
                U16(block.at + pos, &unit);
                text.push_back(static_cast<char16_t>(unit));
            }
            if (length == 0) continue;
            unsigned id = (block.id - 1) * 16 + i;
            auto [it, inserted] = strings->emplace(id, text);
            if (!inserted && it->second != text)
                return Fail(error, "string " + std::to_string(id) + " differs between languages");
        }
    }
    return true;
}

namespace {

// Reads a template front to back, each read inside its resource's data.
struct TemplateReader {
    const uint8_t *data;
    size_t size, pos = 0;
    bool ok = true;

    uint32_t Read(size_t bytes) {
        uint32_t v = 0;
        if (!ok || pos > size || size - pos < bytes) return ok = false, 0;
        for (size_t i = 0; i < bytes; ++i) v |= uint32_t{data[pos + i]} << (8 * i);
        return pos += bytes, v;
    }
    // Text to its terminator; or an ordinal (0xFFFF and a number), named when it is a class's.
    std::u16string Text(bool ordinal = true) {
        static const char16_t *const kClasses[] = {u"BUTTON", u"EDIT", u"STATIC", u"LISTBOX", u"SCROLLBAR", u"COMBOBOX"};
        std::u16string text;
        for (char16_t c; ok && (c = static_cast<char16_t>(Read(2))) != 0;) {
            if (c != 0xFFFF || !ordinal || !text.empty()) text.push_back(c);
            else return (c = static_cast<char16_t>(Read(2))) >= 0x80 && c < 0x86 ? kClasses[c - 0x80] : u"#";
        }
        return text;
    }
    void Rectangle(DialogItem *item) {
        item->x = static_cast<int16_t>(Read(2)), item->y = static_cast<int16_t>(Read(2));
        item->cx = static_cast<int16_t>(Read(2)), item->cy = static_cast<int16_t>(Read(2));
    }
};

}  // namespace

bool Image::Dialogs(std::map<unsigned, std::vector<DialogItem>> *dialogs, std::string *error) const {
    dialogs->clear();
    std::vector<Span> spans;
    if (!Resources(kResourceDialog, "dialog (RT_DIALOG)", &spans, error)) return false;
    for (const Span &span : spans) {
        TemplateReader r{bytes_ + span.at, span.size};
        std::vector<DialogItem> &items = (*dialogs)[span.id];
        DialogItem d;
        if (r.Read(2) != 1 || r.Read(2) != 0xFFFF)
            return Fail(error, "dialog " + std::to_string(span.id) + " is no DIALOGEX template");
        r.Read(4), r.Read(4);  // help id, extended style
        d.style = r.Read(4);
        uint32_t count = r.Read(2);
        r.Rectangle(&d);
        r.Text(), r.Text(), r.Text(false);  // menu, class, title
        if ((d.style & 0x40) != 0) {         // DS_SETFONT: size, weight, italic, character set, face
            d.pointSize = static_cast<uint16_t>(r.Read(2));
            r.Read(4);
            d.text = r.Text(false);
        }
        items.push_back(d);
        for (uint32_t i = 0; i < count && r.ok; ++i) {
            DialogItem c;
            r.pos = (r.pos + 3) & ~size_t{3};
            r.Read(4), r.Read(4);  // help id, extended style
            c.style = r.Read(4);
            r.Rectangle(&c);
            c.id = r.Read(4);
            c.cls = r.Text();
            c.text = r.Text();
            r.pos += r.Read(2);  // creation data
            items.push_back(c);
        }
        if (!r.ok || r.pos > r.size) return Fail(error, "dialog " + std::to_string(span.id) + " is cut short");
    }
    return true;
}

bool ReadAll(const uint8_t *bytes, size_t size, std::string *error) {
    Image image;
    ExportTable exports;
    std::vector<std::string> imports;
    std::map<unsigned, std::u16string> strings;
    std::map<unsigned, std::vector<DialogItem>> dialogs;
    return image.Parse(bytes, size, error) && image.Exports(&exports, error) && image.Imports(&imports, error) &&
           image.StringTable(&strings, error) && image.Dialogs(&dialogs, error);
}

}  // namespace pe
