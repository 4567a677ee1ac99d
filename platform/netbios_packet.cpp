// The datagram packets of RFC 1002 (section 4.4), direct unique and direct
// group, with names in RFC 1001's first-level encoding (section 14.1):
//
//   0  MSG_TYPE     0x10 direct unique, 0x11 direct group
//   1  FLAGS        SNT (bits 2-3, 0 for a B node), F 0x02 first, M 0x01 more
//   2  DGM_ID       16 bits, most significant byte first, as every field
//   4  SOURCE_IP
//   8  SOURCE_PORT
//   10 DGM_LENGTH   the bytes behind PACKET_OFFSET: both names and the data
//   12 PACKET_OFFSET
//   14 SOURCE_NAME, DESTINATION_NAME (34 bytes each), USER_DATA
#include <algorithm>
#include <cstring>

#include "kvtnetbios.h"

namespace kvtnb {
namespace {

constexpr size_t kHeaderBytes = 14;
constexpr size_t kEncodedNameBytes = 34;  // 0x20, 32 letters, 0x00
constexpr uint8_t kEncodedLength = 32;
constexpr uint8_t kFlagFirst = 0x02;
constexpr uint8_t kFlagMore = 0x01;

void Put16(std::string &out, uint16_t v) {
    out.push_back(static_cast<char>(v >> 8));
    out.push_back(static_cast<char>(v & 0xFF));
}

uint16_t Get16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

// One encoded name at p, with size bytes left; false unless it is 32 letters
// 'A' to 'P' and an empty scope.
bool DecodeName(const uint8_t *p, size_t size, Name *name) {
    if (size < kEncodedNameBytes || p[0] != kEncodedLength || p[kEncodedNameBytes - 1] != 0) return false;
    for (size_t i = 0; i < name->size(); ++i) {
        uint8_t high = p[1 + 2 * i] - 'A', low = p[2 + 2 * i] - 'A';
        if (high > 15 || low > 15) return false;
        (*name)[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

}  // namespace

Name MakeName(const std::string &text) {
    Name name;
    name.fill(' ');
    std::memcpy(name.data(), text.data(), std::min(text.size(), name.size()));
    return name;
}

std::string NameText(const Name &name) {
    std::string text(name.begin(), name.end());
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

std::string EncodeName(const Name &name) {
    std::string out(1, static_cast<char>(kEncodedLength));
    for (uint8_t byte : name) {
        out.push_back(static_cast<char>('A' + (byte >> 4)));
        out.push_back(static_cast<char>('A' + (byte & 0x0F)));
    }
    out.push_back('\0');
    return out;
}

std::string EncodeDatagram(const Datagram &d) {
    std::string out;
    out.push_back(static_cast<char>(d.type));
    out.push_back(static_cast<char>(kFlagFirst));
    Put16(out, d.id);
    Put16(out, static_cast<uint16_t>(d.sourceIp >> 16));
    Put16(out, static_cast<uint16_t>(d.sourceIp & 0xFFFF));
    Put16(out, d.sourcePort);
    Put16(out, static_cast<uint16_t>(2 * kEncodedNameBytes + d.data.size()));
    Put16(out, 0);
    out += EncodeName(d.source);
    out += EncodeName(d.destination);
    out += d.data;
    return out;
}

bool DecodeDatagram(const uint8_t *p, size_t size, Datagram *d) {
    if (p == nullptr || size < kDatagramOverhead) return false;
    if (p[0] != static_cast<uint8_t>(DatagramType::DirectUnique) &&
        p[0] != static_cast<uint8_t>(DatagramType::DirectGroup))
        return false;
    // One piece: the first fragment with no more behind it, at offset 0.
    if ((p[1] & (kFlagFirst | kFlagMore)) != kFlagFirst || Get16(p + 12) != 0) return false;
    if (Get16(p + 10) != size - kHeaderBytes) return false;
    Datagram out;
    if (!DecodeName(p + kHeaderBytes, size - kHeaderBytes, &out.source) ||
        !DecodeName(p + kHeaderBytes + kEncodedNameBytes, size - kHeaderBytes - kEncodedNameBytes,
                    &out.destination))
        return false;
    out.type = static_cast<DatagramType>(p[0]);
    out.id = Get16(p + 2);
    out.sourceIp = static_cast<uint32_t>(Get16(p + 4)) << 16 | Get16(p + 6);
    out.sourcePort = Get16(p + 8);
    out.data.assign(reinterpret_cast<const char *>(p + kDatagramOverhead), size - kDatagramOverhead);
    *d = std::move(out);
    return true;
}

// ---- name registration (RFC 1002 sections 4.2.2 and 4.2.5) --------------------------
//
//   0  NAME_TRN_ID
//   2  flags: R 0x8000, OPCODE (bits 11-14) 5, AA 0x0400, RD 0x0100, RA 0x0080,
//      B 0x0010, RCODE (bits 0-3)
//   4  QDCOUNT, ANCOUNT, NSCOUNT, ARCOUNT
//   12 a request: the question (name, NB 0x0020, IN 0x0001), then the record
//      of the name as a pointer to the question (0xC00C), NB, IN, TTL, RDLENGTH 6,
//      NB_FLAGS and NB_ADDRESS; a response: the record, its name written out.
namespace {

constexpr uint16_t kRequestFlags = 0x2910;   // registration, RD, B
constexpr uint16_t kNegativeFlags = 0xAD86;  // R, registration, AA, RD, RA, RCODE ACT_ERR
constexpr size_t kRequestBytes = 68, kResponseBytes = 62;

void PutRecordTail(std::string &out, uint32_t address) {
    Put16(out, 0x0020), Put16(out, 0x0001);  // NB, IN
    Put16(out, 0), Put16(out, 0);            // TTL
    Put16(out, 6), Put16(out, 0);            // RDLENGTH, NB_FLAGS: unique, B node
    Put16(out, static_cast<uint16_t>(address >> 16)), Put16(out, static_cast<uint16_t>(address & 0xFFFF));
}

}  // namespace

std::string EncodeRegistration(const Registration &r) {
    std::string out;
    Put16(out, r.id);
    Put16(out, r.response ? kNegativeFlags : kRequestFlags);
    for (uint16_t count : {uint16_t(r.response ? 0 : 1), uint16_t(r.response ? 1 : 0), uint16_t(0),
                           uint16_t(r.response ? 0 : 1)})
        Put16(out, count);
    out += EncodeName(r.name);
    if (!r.response) Put16(out, 0x0020), Put16(out, 0x0001), Put16(out, 0xC00C);
    PutRecordTail(out, r.address);
    return out;
}

bool DecodeRegistration(const uint8_t *p, size_t size, Registration *r) {
    if (p == nullptr || (size != kRequestBytes && size != kResponseBytes)) return false;
    const bool response = size == kResponseBytes;
    if (Get16(p + 2) != (response ? kNegativeFlags : kRequestFlags) || Get16(p + 4) != (response ? 0 : 1) ||
        Get16(p + 6) != (response ? 1 : 0) || Get16(p + 8) != 0 || Get16(p + 10) != (response ? 0 : 1))
        return false;
    Registration out;
    if (!DecodeName(p + 12, size - 12, &out.name)) return false;
    const uint8_t *record = p + 12 + kEncodedNameBytes + (response ? 0 : 6);
    if ((!response && (Get16(p + 46) != 0x0020 || Get16(p + 48) != 0x0001 || Get16(p + 50) != 0xC00C)) ||
        Get16(record) != 0x0020 || Get16(record + 2) != 0x0001 || Get16(record + 8) != 6)
        return false;
    out.id = Get16(p);
    out.response = response;
    out.address = static_cast<uint32_t>(Get16(record + 12)) << 16 | Get16(record + 14);
    *r = out;
    return true;
}

}  // namespace kvtnb
