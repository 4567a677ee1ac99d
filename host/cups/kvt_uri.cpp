#include "kvt_uri.h"

#include <cctype>
#include <cstring>

namespace kvtcups {

namespace {

constexpr size_t kServerChars = 47, kQueueChars = 31;

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Percent-decoded; false for a broken escape or a control character.
bool Decode(const std::string &in, std::string *out) {
    out->clear();
    for (size_t i = 0; i < in.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(in[i]);
        if (c == '%') {
            if (i + 2 >= in.size() || HexDigit(in[i + 1]) < 0 || HexDigit(in[i + 2]) < 0) return false;
            c = static_cast<unsigned char>(HexDigit(in[i + 1]) * 16 + HexDigit(in[i + 2]));
            i += 2;
        }
        if (c < 0x20 || c == 0x7F) return false;
        out->push_back(static_cast<char>(c));
    }
    return true;
}

std::string Encode(const std::string &in) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : in) {
        if (std::isalnum(c) || std::strchr("-._~", c) != nullptr) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 15]);
        }
    }
    return out;
}

bool Fail(std::string *error, const std::string &text, const char *why) {
    *error = "the device URI '" + text + "' " + why;
    return false;
}

}  // namespace

bool ParseDeviceUri(const std::string &text, DeviceUri *uri, std::string *error) {
    *uri = DeviceUri{};
    const std::string scheme = "kvt://";
    if (text.compare(0, scheme.size(), scheme) != 0) return Fail(error, text, "does not begin with kvt://");
    const size_t slash = text.find('/', scheme.size());
    if (slash == std::string::npos) return Fail(error, text, "names no port (kvt://SERVER/P1)");
    if (!Decode(text.substr(scheme.size(), slash - scheme.size()), &uri->server) || uri->server.empty() ||
        uri->server.size() > kServerChars || uri->server.find_first_of("\\/") != std::string::npos)
        return Fail(error, text, "names no print server of 1 to 47 characters");
    const size_t query = text.find('?', slash);
    const std::string path = text.substr(slash + 1, query == std::string::npos ? std::string::npos : query - slash - 1);
    if (path.size() != 2 || (path[0] != 'P' && path[0] != 'p') || path[1] < '1' || path[1] > '3')
        return Fail(error, text, "names no port P1, P2 or P3");
    uri->port = path[1] - '0';
    if (query == std::string::npos) return true;
    for (size_t at = query + 1; at <= text.size();) {
        size_t amp = text.find('&', at);
        if (amp == std::string::npos) amp = text.size();
        const std::string option = text.substr(at, amp - at);
        at = amp + 1;
        if (option.empty()) continue;
        const size_t eq = option.find('=');
        std::string name = option.substr(0, eq), value;
        if (eq == std::string::npos || !Decode(option.substr(eq + 1), &value))
            return Fail(error, text, "has an option without a value");
        if (name == "protocol") {
            const struct {
                const char *name;
                uint8_t value;
            } kProtocols[] = {{"auto", kProtocolAuto}, {"tcpip", kProtocolTcpip}, {"ipx", kProtocolIpx},
                              {"netbios", kProtocolNetbios}};
            bool known = false;
            for (const auto &p : kProtocols)
                if (value == p.name) uri->protocol = p.value, known = true;
            if (!known) return Fail(error, text, "has a protocol other than auto, tcpip, ipx or netbios");
        } else if (name == "queue") {
            if (value.empty() || value.size() > kQueueChars)
                return Fail(error, text, "has a queue name that is not 1 to 31 characters");
            uri->queue = value;
        } else {
            return Fail(error, text, "has an option other than protocol and queue");
        }
    }
    return true;
}

std::string DeviceField(const std::string &in) {
    std::string out;
    for (unsigned char c : in) out.push_back(c == '"' || c == '\\' || c < 0x20 ? '\'' : static_cast<char>(c));
    return out;
}

std::string DeviceUriFor(const std::string &server, int port, const std::string &queue) {
    return "kvt://" + Encode(server) + "/P" + std::to_string(port) + (queue.empty() ? "" : "?queue=" + Encode(queue));
}

}  // namespace kvtcups
