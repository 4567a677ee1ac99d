// The device's side of the management datagrams: node addresses, checking a
// configuration, and the reply to each command, byte for byte.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>

#include "kvtps.h"

namespace kvtps {
namespace {

// Offsets in the bodies, as the monitor reads them.
constexpr size_t kSearchShortName = 0;
constexpr size_t kSearchName = 8;
constexpr size_t kSearchType = 58;
constexpr size_t kSearchAutoProtocol = 60;
constexpr size_t kEepromNode = 2;
constexpr size_t kEepromModel = 8;
constexpr size_t kEepromConfig = 72;
constexpr size_t kEepromSupportProtocol = 489;
constexpr size_t kEepromAddress = 498;
constexpr size_t kQueueText[3] = {2, 66, 130};
constexpr size_t kStatusAddress = 58;

// Copies text into a field of size bytes: cut to the field, a terminator
// only where there is room for one (the rest of the field is zero already).
void PutText(std::string &body, size_t offset, size_t size, const std::string &text) {
    std::memcpy(&body[offset], text.data(), std::min(size, text.size()));
}

// The four bytes of an IPv4 address in network order; 0.0.0.0 for bad text.
void PutAddress(std::string &body, size_t offset, const std::string &address) {
    in_addr a{};
    inet_pton(AF_INET, address.c_str(), &a);
    std::memcpy(&body[offset], &a.s_addr, 4);
}

unsigned CommandBit(uint8_t command) {
    switch (command) {
    case kMgmtSearch: return kAnswerSearch;
    case kMgmtReadEeprom: return kAnswerReadEeprom;
    case kMgmtQueueNames: return kAnswerQueueNames;
    case kMgmtStatus: return kAnswerStatus;
    default: return 0;
    }
}

bool ValidAddress(const std::string &text) {
    in_addr a;
    return inet_pton(AF_INET, text.c_str(), &a) == 1;
}

}  // namespace

std::string NodeText(const NodeId &node) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x-%02x-%02x-%02x-%02x-%02x", node[0], node[1], node[2], node[3],
                  node[4], node[5]);
    return text;
}

bool ParseNode(const std::string &text, NodeId *node) {
    if (text.size() != 17) return false;
    NodeId n{};
    for (size_t i = 0; i < 6; ++i) {
        if (i > 0 && text[3 * i - 1] != '-' && text[3 * i - 1] != ':') return false;
        unsigned value = 0;
        for (size_t k = 0; k < 2; ++k) {
            char c = text[3 * i + k];
            int digit = c >= '0' && c <= '9' ? c - '0'
                        : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                               : -1;
            if (digit < 0) return false;
            value = value * 16 + static_cast<unsigned>(digit);
        }
        n[i] = static_cast<uint8_t>(value);
    }
    *node = n;
    return true;
}

NodeId NodeFromAddress(const std::string &address) {
    in_addr a{};
    inet_pton(AF_INET, address.c_str(), &a);
    NodeId node{};
    std::memcpy(&node[2], &a.s_addr, 4);
    return node;
}

bool ValidateManagement(const ServerConfig &c, std::string *error) {
    auto fail = [&](const std::string &message) {
        if (error) *error = message;
        return false;
    };
    if (c.shortName.size() > kShortNameBytes) return fail("a short name has at most 8 bytes");
    if (!c.eepromAddress.empty() && !ValidAddress(c.eepromAddress))
        return fail("bad EEPROM address '" + c.eepromAddress + "'");
    if (!c.mgmt.statusAddress.empty() && !ValidAddress(c.mgmt.statusAddress))
        return fail("bad status address '" + c.mgmt.statusAddress + "'");
    if (c.mgmt.replyCommand < -1 || c.mgmt.replyCommand > 255) return fail("a reply command is a byte");
    if ((c.mgmt.answers | c.mgmt.faultCommands) & ~kAnswerAll) return fail("unknown commands among the answers");
    for (const auto &text : c.queueTexts)
        if (text.size() > kQueueTextBytes) return fail("a queue-name text has at most 63 bytes");
    if (!c.moveAddress.empty() && !ValidAddress(c.moveAddress))
        return fail("bad address to move to '" + c.moveAddress + "'");
    return true;
}

std::string BuildMgmtReply(const ServerConfig &c, const NodeId &node, const std::string &address,
                           uint8_t command) {
    const MgmtFaults &f = c.mgmt;
    const unsigned bit = CommandBit(command);
    if (!c.management || f.silent || !(f.answers & bit)) return "";
    const bool faulty = (f.faultCommands & bit) != 0;
    std::string body;
    switch (command) {
    case kMgmtSearch:
        body.assign(kSearchBodyBytes, '\0');
        PutText(body, kSearchShortName, kShortNameBytes, c.shortName.empty() ? c.name : c.shortName);
        PutText(body, kSearchName, kSearchNameBytes, c.deviceName.empty() ? c.name : c.deviceName);
        body[kSearchType] = static_cast<char>(c.type);
        body[kSearchAutoProtocol] = static_cast<char>(c.autoProtocol);
        break;
    case kMgmtReadEeprom:
        body.assign(kEepromBytes, '\0');
        std::memcpy(&body[kEepromNode], node.data(), node.size());
        body[kEepromModel] = static_cast<char>(c.model);
        body[kEepromConfig] = static_cast<char>(c.psConfig);
        body[kEepromSupportProtocol] = static_cast<char>(c.psSupportProtocol);
        PutAddress(body, kEepromAddress, c.eepromAddress.empty() ? address : c.eepromAddress);
        break;
    case kMgmtQueueNames:
        body.assign(kQueueBodyBytes, '\0');
        for (size_t i = 0; i < 3; ++i) PutText(body, kQueueText[i], kQueueTextBytes, c.queueTexts[i]);
        break;
    case kMgmtStatus:
        body.assign(kStatusBodyBytes, '\0');
        PutAddress(body, kStatusAddress, f.statusAddress.empty() ? address : f.statusAddress);
        break;
    default:
        return "";
    }
    const NodeId &from = faulty && f.foreignNode ? f.replyNode : node;
    std::string reply(from.begin(), from.end());
    reply.push_back('\x01');
    reply.push_back(static_cast<char>(faulty && f.replyCommand >= 0 ? f.replyCommand : command));
    reply.append(2, '\0');
    reply += body;
    if (faulty && f.cutReplyTo > 0 && f.cutReplyTo < reply.size()) reply.resize(f.cutReplyTo);
    return reply;
}

}  // namespace kvtps
