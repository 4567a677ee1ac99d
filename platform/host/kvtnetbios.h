// NetBIOS on POSIX hosts, the host side.  The platform's Netbios carries
// datagrams as the packets of RFC 1002's datagram service, broadcast to UDP
// port 138 (B-node style); each process keeps those addressed to a name it
// holds.  Here: the packet format, for kvtps and the tests, and the hooks by
// which a test shapes this host's LANAs and watches the calls made.
#pragma once

#include <windows.h>
#include <nb30.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kvtnb {

constexpr uint16_t kDatagramPort = 138;
using Name = std::array<uint8_t, NCBNAMSZ>;
using Node = std::array<uint8_t, 6>;

// A NetBIOS name from text: its first 16 bytes, then blanks.
Name MakeName(const std::string &text);
// The 16 bytes with the trailing blanks taken off.
std::string NameText(const Name &name);

enum class DatagramType : uint8_t { DirectUnique = 0x10, DirectGroup = 0x11 };

struct Datagram {
    DatagramType type = DatagramType::DirectUnique;
    uint16_t id = 0;
    uint32_t sourceIp = 0;  // host byte order
    uint16_t sourcePort = kDatagramPort;
    Name source{};
    Name destination{};
    std::string data;
};

// The header, the two names and the data: 82 bytes and the data.
constexpr size_t kDatagramOverhead = 82;
// The most data one datagram carries: what fits a UDP datagram over IPv4.
constexpr size_t kMaxDatagramData = 65507 - kDatagramOverhead;

// A name in RFC 1001's first-level encoding, without scope: 0x20, the 32
// letters 'A' to 'P' of the 16 bytes' halves, 0x00.
std::string EncodeName(const Name &name);
// One unfragmented datagram (FIRST set, MORE clear, from a B node).
std::string EncodeDatagram(const Datagram &datagram);
// False for anything but a whole direct unique or direct group datagram in one
// piece, with both names first-level encoded and no scope, and a length field
// that agrees with the packet.  Never reads beyond size.
bool DecodeDatagram(const uint8_t *packet, size_t size, Datagram *datagram);

// A unique name's registration as a B node makes it, broadcast to UDP port 137,
// and the negative response (ACT_ERR) with which the station that holds the
// name already defends it, sent back to the asker.
constexpr uint16_t kNamePort = 137;
struct Registration {
    uint16_t id = 0;
    bool response = false;  // the negative response, or the request
    Name name{};
    uint32_t address = 0;   // host byte order
};
std::string EncodeRegistration(const Registration &registration);
// False for anything but a registration request of one unique name (its
// record naming the question's name by pointer) or a negative response to one,
// exactly as long as those are.  Never reads beyond size.
bool DecodeRegistration(const uint8_t *packet, size_t size, Registration *registration);

}  // namespace kvtnb

namespace kvthost {

// A LANA of this host.  The default is one, LANA 0, whose adapter address is
// this process's own (NetbiosAdapterAddress), as each machine has its own: two
// processes that load the monitor make different names, and neither receives
// what is sent to the other's.
struct NetbiosLana {
    uint8_t number = 0;
    std::optional<kvtnb::Node> address;  // none: the process's own
    bool leadsNowhere = false;           // its datagrams reach no one, and none arrive
};
// This process's adapter address, the same for its whole life: 02-d-p-p-p-p,
// a locally administered address of the last byte d of the host's IPv4 address
// and the four bytes of the process id (most significant first).
kvtnb::Node NetbiosAdapterAddress();
// Gives this process's NetBIOS these LANAs, in NCBENUM's order (an empty list
// restores the default), and forgets every name and pending receive without
// writing to their control blocks: for a test's fresh start.
void SetNetbiosLanas(const std::vector<NetbiosLana> &lanas);

// A Netbios call as made, with the code it returned.
struct NetbiosCall {
    uint8_t command = 0;  // with the ASYNCH bit as given
    uint8_t lana = 0;
    uint8_t num = 0;
    kvtnb::Name callname{};
    kvtnb::Name name{};
    std::string data;     // what NCBDGSEND sent
    uint8_t result = 0;
};
// The receives of this process that are pending now, on every LANA.
size_t NetbiosPendingReceives();

// Starts recording afresh (on) or stops and forgets (off).
void RecordNetbiosCalls(bool on);
std::vector<NetbiosCall> NetbiosCalls();
// Runs at each Netbios call before it is carried out, on the caller's thread;
// a code other than NRC_GOODRET fails the call with that code instead.
using NetbiosHook = std::function<uint8_t(const NCB &ncb)>;
void SetNetbiosHook(NetbiosHook hook);

}  // namespace kvthost
