// kvtmon listfile make|show: KVTLIST.BIN from a description a person writes,
// and back.
#include "listfile.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace kvtmon {

namespace {

// Offsets of a record, as the monitor reads it.
constexpr size_t kName = 0, kNameField = 48, kAddress = 48, kModel = 69, kNode = 70, kAuto = 76, kMask = 77,
                 kProtocols = 78, kQueues = 81, kQueueField = 64;
constexpr size_t kNameBytes = kNameField - 1, kQueueBytes = kQueueField - 1;
constexpr size_t kQueueKept = 31;  // what a port's queue name holds
constexpr int kJsonDepth = 8;

const struct {
    const char *name;
    uint8_t code;
} kProtocolNames[] = {{"auto", 0}, {"ipx", 1}, {"tcpip", 2}, {"netbios", 4}};

bool Fail(std::string *error, const std::string &why) {
    *error = why;
    return false;
}

bool ByteValue(const std::string &text, uint8_t *out) {
    if (text.empty() || text.size() > 4) return false;
    bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    unsigned value = 0;
    for (size_t i = hex ? 2 : 0; i < text.size(); ++i) {
        char c = text[i];
        int digit = c >= '0' && c <= '9' ? c - '0' : hex && c >= 'a' && c <= 'f' ? c - 'a' + 10
                                                  : hex && c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (digit < 0) return false;
        value = value * (hex ? 16 : 10) + static_cast<unsigned>(digit);
    }
    if (value > 255) return false;
    *out = static_cast<uint8_t>(value);
    return true;
}

std::vector<std::string> SplitAt(const std::string &text, char sep) {
    std::vector<std::string> parts(1);
    for (char c : text)
        if (c == sep) parts.emplace_back();
        else parts.back().push_back(c);
    return parts;
}

bool Address(const std::string &text, uint32_t *out) {
    if (text == "auto") return *out = 0, true;
    std::vector<std::string> parts = SplitAt(text, '.');
    uint32_t value = 0;
    for (const std::string &p : parts) {
        uint8_t b;
        if (parts.size() != 4 || p.empty() || p.size() > 3 || p.find_first_not_of("0123456789") != std::string::npos ||
            !ByteValue(p, &b))
            return false;
        value = value << 8 | b;
    }
    *out = value;
    return true;
}

// A server of the description, with what it was given.
struct Entry {
    ListServer server;
    bool node = false, ports = false, queues[3] = {}, seen[8] = {};
};

const char *const kKeys[] = {"model", "node", "auto", "ports", "protocols", "queue1", "queue2", "queue3"};

bool SetField(Entry &e, const std::string &key, const std::string &value, std::string *error) {
    ListServer &s = e.server;
    int k = 0;
    while (k < 8 && key != kKeys[k]) ++k;
    if (k == 8) return Fail(error, "no field '" + key + "' (fields: model node auto ports protocols queue1-3)");
    if (e.seen[k]) return Fail(error, "'" + key + "' given twice");
    e.seen[k] = true;
    const std::string what = key + "=" + value + ": ";
    if (key == "model" && !ByteValue(value, &s.model)) return Fail(error, what + "a model byte is 0 to 255");
    if (key == "auto" && !ByteValue(value, &s.autoProtocol)) return Fail(error, what + "auto-protocol is 0 to 255");
    if (key == "node") {
        std::vector<std::string> parts = SplitAt(value, value.find(':') != std::string::npos ? ':' : '-');
        bool ok = parts.size() == 6;
        for (size_t i = 0; ok && i < 6; ++i) ok = parts[i].size() == 2 && ByteValue("0x" + parts[i], &s.node[i]);
        if (!ok) return Fail(error, what + "a node is six hexadecimal bytes, 00-00-7F-00-00-02");
        e.node = true;
    }
    if (key == "ports") {
        e.ports = true;
        for (const std::string &p : SplitAt(value, ',')) {
            if (value == "none") break;
            if (p.size() != 1 || p[0] < '1' || p[0] > '3') return Fail(error, what + "ports are 1, 2, 3 or none");
            s.mask |= static_cast<uint8_t>(1 << (p[0] - '1'));
        }
    }
    if (key == "protocols") {
        std::vector<std::string> parts = SplitAt(value, ',');
        if (parts.size() > 3) return Fail(error, what + "three protocols at most, one per printer port");
        for (size_t i = 0; i < parts.size(); ++i) {
            bool named = false;
            for (const auto &p : kProtocolNames)
                if (parts[i] == p.name) s.protocols[i] = p.code, named = true;
            if (!named && !ByteValue(parts[i], &s.protocols[i]))
                return Fail(error, what + "a protocol is auto, ipx, tcpip, netbios or a code 0 to 255");
        }
    }
    if (key.rfind("queue", 0) == 0) {
        int q = key[5] - '1';
        if (value.size() > kQueueBytes) return Fail(error, what + "a queue name has at most 63 bytes");
        if (value.find('\0') != std::string::npos) return Fail(error, what + "a queue name holds no zero byte");
        s.queues[q] = value;
        e.queues[q] = true;
    }
    return true;
}

// The server once every field is given: what was not takes its default.
bool Finish(Entry &e, std::vector<ListServer> *servers, std::vector<std::string> *notes, std::string *error) {
    ListServer &s = e.server;
    if (s.name.empty() || s.name.size() > kNameBytes || s.name.find('\0') != std::string::npos)
        return Fail(error, "'" + s.name + "': a name has 1 to 47 bytes, none of them zero");
    if (servers->size() == kListServers) return Fail(error, "more than 100 print servers: the monitor takes 100");
    if (!e.node && s.address != 0)
        for (int i = 0; i < 4; ++i) s.node[2 + i] = static_cast<uint8_t>(s.address >> (24 - 8 * i));
    int ports = s.model & 3;
    if (!e.ports) s.mask = static_cast<uint8_t>((1 << ports) - 1);
    for (int q = 0; q < 3; ++q) {
        if (!e.queues[q]) s.queues[q] = "lpt" + std::to_string(q + 1);
        if (s.queues[q].size() > kQueueKept)
            notes->push_back(s.name + ": queue" + std::to_string(q + 1) + " has " + std::to_string(s.queues[q].size()) +
                             " characters; a port keeps its first 31");
        if ((s.mask & (1 << q)) && q >= ports)
            notes->push_back(s.name + ": model " + std::to_string(s.model) + " has " + std::to_string(ports) +
                             " printer ports; port " + std::to_string(q + 1) + " is not made");
        bool known = false;
        for (const auto &p : kProtocolNames) known = known || s.protocols[q] == p.code;
        if (!known)
            notes->push_back(s.name + ": protocol " + std::to_string(s.protocols[q]) + " is taken as automatic");
    }
    servers->push_back(s);
    return true;
}

// The tokens of a line: blanks part them, double quotes hold blanks (with \",
// \\ and \xHH inside), and # outside quotes ends the line.
bool Tokens(const std::string &line, std::vector<std::string> *tokens, std::string *error) {
    bool inToken = false, quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (!quoted && (c == ' ' || c == '\t' || c == '\r' || c == '#')) {
            inToken = false;
            if (c == '#') break;
            continue;
        }
        if (!inToken) tokens->emplace_back(), inToken = true;
        if (c == '"') {
            quoted = !quoted;
            continue;
        }
        if (quoted && c == '\\') {
            uint8_t b;
            if (i + 1 < line.size() && (line[i + 1] == '"' || line[i + 1] == '\\')) c = line[++i];
            else if (i + 3 < line.size() && line[i + 1] == 'x' && ByteValue("0x" + line.substr(i + 2, 2), &b))
                c = static_cast<char>(b), i += 3;
            else return Fail(error, "a quoted text knows \\\", \\\\ and \\xHH");
        }
        tokens->back().push_back(c);
    }
    return !quoted || Fail(error, "a quote is not closed");
}

bool ParseText(const std::string &text, std::vector<ListServer> *servers, std::vector<std::string> *notes,
               std::string *error) {
    std::istringstream in(text);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        std::vector<std::string> tokens;
        std::string why;
        Entry e;
        bool ok = Tokens(line, &tokens, &why);
        if (ok && tokens.empty()) continue;
        if (ok && tokens.size() < 2) ok = Fail(&why, "a line is a name, an address and fields");
        if (ok) e.server.name = tokens[0];
        if (ok && !Address(tokens[1], &e.server.address))
            ok = Fail(&why, "'" + tokens[1] + "': an address is dotted, 127.0.0.2, or auto");
        for (size_t i = 2; ok && i < tokens.size(); ++i) {
            size_t eq = tokens[i].find('=');
            if (eq == std::string::npos) ok = Fail(&why, "'" + tokens[i] + "' is no field=value");
            else ok = SetField(e, tokens[i].substr(0, eq), tokens[i].substr(eq + 1), &why);
        }
        if (ok) ok = Finish(e, servers, notes, &why);
        if (!ok) return Fail(error, "line " + std::to_string(number) + ": " + why);
    }
    return true;
}

// ---- JSON ----------------------------------------------------------------------------
struct Json {
    enum Kind { Scalar, String, Array, Object } kind = Scalar;
    std::string text;  // a string's bytes, a scalar's spelling
    std::vector<Json> items;
    std::vector<std::string> keys;  // an object's, one per item
};

class JsonReader {
public:
    explicit JsonReader(const std::string &text) : t_(text) {}
    bool Document(Json *out, std::string *error) {
        if (!Value(out, 0) || (Blanks(), at_ != t_.size()))
            return Fail(error, "JSON: " + (why_.empty() ? "text after the value" : why_) + " at byte " +
                                   std::to_string(at_));
        return true;
    }

private:
    void Blanks() {
        while (at_ < t_.size() && (t_[at_] == ' ' || t_[at_] == '\t' || t_[at_] == '\n' || t_[at_] == '\r')) ++at_;
    }
    bool Bad(const char *why) {
        why_ = why;
        return false;
    }
    bool Take(char c) {
        Blanks();
        if (at_ < t_.size() && t_[at_] == c) return ++at_, true;
        return false;
    }
    bool StringBody(std::string *out) {
        while (at_ < t_.size() && t_[at_] != '"') {
            char c = t_[at_++];
            if (c == '\\') {
                if (at_ >= t_.size()) return Bad("a text ends inside an escape");
                char e = t_[at_++];
                const std::string simple = "\"\\/bfnrt", meant = "\"\\/\b\f\n\r\t";
                uint8_t high, low;
                if (simple.find(e) != std::string::npos) c = meant[simple.find(e)];
                else if (e == 'u' && at_ + 4 <= t_.size() && ByteValue("0x" + t_.substr(at_, 2), &high) &&
                         ByteValue("0x" + t_.substr(at_ + 2, 2), &low) && high == 0)
                    c = static_cast<char>(low), at_ += 4;
                else return Bad("an escape other than of a byte (\\u0000 to \\u00FF)");
            }
            out->push_back(c);
        }
        return at_ < t_.size() ? (++at_, true) : Bad("a text is not closed");
    }
    bool Value(Json *out, int depth) {
        if (depth > kJsonDepth) return Bad("nested too deep");
        if (Take('"')) return out->kind = Json::String, StringBody(&out->text);
        bool array = Take('['), object = !array && Take('{');
        if (!array && !object) {
            Blanks();
            while (at_ < t_.size() && std::string("-+.0123456789abcdefghijklmnopqrstuvwxyzABCDEFXYZ").find(t_[at_]) !=
                                          std::string::npos)
                out->text.push_back(t_[at_++]);
            return !out->text.empty() || Bad("no value");
        }
        out->kind = array ? Json::Array : Json::Object;
        if (Take(array ? ']' : '}')) return true;
        do {
            if (object) {
                out->keys.emplace_back();
                if (!Take('"') || !StringBody(&out->keys.back()) || !Take(':')) return Bad("an object's member");
            }
            out->items.emplace_back();
            if (!Value(&out->items.back(), depth + 1)) return false;
        } while (Take(','));
        return Take(array ? ']' : '}') || Bad("a list is not closed");
    }
    const std::string &t_;
    size_t at_ = 0;
    std::string why_;
};

bool ParseJson(const std::string &text, std::vector<ListServer> *servers, std::vector<std::string> *notes,
               std::string *error) {
    Json doc;
    if (!JsonReader(text).Document(&doc, error)) return false;
    std::vector<Json> objects = doc.kind == Json::Array ? doc.items : std::vector<Json>{doc};
    for (size_t n = 0; n < objects.size(); ++n) {
        const Json &o = objects[n];
        std::string why, where = "print server " + std::to_string(n + 1) + ": ";
        if (o.kind != Json::Object) return Fail(error, where + "not an object");
        Entry e;
        bool named = false, addressed = false, ok = true;
        for (size_t i = 0; ok && i < o.items.size(); ++i) {
            const std::string &key = o.keys[i];
            const Json &v = o.items[i];
            std::string joined;
            for (size_t k = 0; k < v.items.size(); ++k) joined += (k ? "," : "") + v.items[k].text;
            bool list = v.kind == Json::Array, scalar = !list && v.kind != Json::Object;
            if (key == "name" || key == "address") {
                if (v.kind != Json::String) ok = Fail(&why, key + " is a text");
                else if (key == "name") e.server.name = v.text, named = true;
                else if (!(addressed = Address(v.text, &e.server.address)))
                    ok = Fail(&why, "'" + v.text + "': an address is dotted, 127.0.0.2, or auto");
            } else if (key == "queues") {
                if (!list || v.items.size() > 3) ok = Fail(&why, "queues is a list of at most three texts");
                for (size_t k = 0; ok && k < v.items.size(); ++k)
                    ok = SetField(e, "queue" + std::to_string(k + 1), v.items[k].text, &why);
            } else if (list || scalar) {
                ok = SetField(e, key, list ? (v.items.empty() && key == "ports" ? "none" : joined) : v.text, &why);
            } else {
                ok = Fail(&why, key + " is no object");
            }
        }
        if (ok && (!named || !addressed)) ok = Fail(&why, "a print server has a name and an address");
        if (ok) ok = Finish(e, servers, notes, &why);
        if (!ok) return Fail(error, where + why);
    }
    return true;
}

// ---- output -----------------------------------------------------------------------------
std::string AddressText(uint32_t a) {
    if (a == 0) return "auto";
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255);
    return text;
}

std::string NodeText(const uint8_t *n) {
    char text[18];
    std::snprintf(text, sizeof text, "%02X-%02X-%02X-%02X-%02X-%02X", n[0], n[1], n[2], n[3], n[4], n[5]);
    return text;
}

std::string ProtocolText(uint8_t code) {
    for (const auto &p : kProtocolNames)
        if (p.code == code) return p.name;
    return std::to_string(code);
}

std::string PortsText(uint8_t mask) {
    std::string text;
    for (int q = 0; q < 3; ++q)
        if (mask & (1 << q)) text += (text.empty() ? "" : ",") + std::to_string(q + 1);
    return text.empty() ? "none" : text;
}

// A value of the text form, quoted when it must be.
std::string Quoted(const std::string &value) {
    bool plain = !value.empty() && value[0] != '[' && value[0] != '{';  // never taken for JSON
    for (unsigned char c : value) plain = plain && c > 0x20 && c < 0x7F && c != '"' && c != '\\' && c != '#';
    if (plain) return value;
    std::string out = "\"";
    for (unsigned char c : value) {
        char hex[5];
        std::snprintf(hex, sizeof hex, "\\x%02X", c);
        out += c == '"' || c == '\\' ? std::string{'\\', static_cast<char>(c)}
               : c < 0x20 || c >= 0x7F ? std::string(hex) : std::string(1, static_cast<char>(c));
    }
    return out + "\"";
}

std::string JsonString(const std::string &value) {
    std::string out = "\"";
    for (unsigned char c : value) {
        char esc[8];
        std::snprintf(esc, sizeof esc, "\\u%04x", c);
        out += c == '"' || c == '\\' ? std::string{'\\', static_cast<char>(c)}
               : c < 0x20 || c >= 0x7F ? std::string(esc) : std::string(1, static_cast<char>(c));
    }
    return out + "\"";
}

bool ReadWhole(const std::string &path, std::string *bytes, std::string *error) {
    std::ifstream file;
    std::istream *in = &std::cin;
    if (path != "-") {
        file.open(path, std::ios::binary);
        if (!file) return Fail(error, "cannot read " + path);
        in = &file;
    }
    bytes->assign(std::istreambuf_iterator<char>(*in), std::istreambuf_iterator<char>());
    return true;
}

}  // namespace

bool ParseListDescription(const std::string &description, std::vector<ListServer> *servers, std::vector<std::string> *notes,
                   std::string *error) {
    servers->clear();
    size_t first = description.find_first_not_of(" \t\r\n");
    bool json = first != std::string::npos && (description[first] == '[' || description[first] == '{');
    return json ? ParseJson(description, servers, notes, error) : ParseText(description, servers, notes, error);
}

std::string EncodeListFile(const std::vector<ListServer> &servers) {
    std::string bytes;
    for (const ListServer &s : servers) {
        std::string r(kListRecordBytes, '\0');
        r.replace(kName, std::min(s.name.size(), kNameBytes), s.name, 0, kNameBytes);
        uint32_t address = htonl(s.address);
        r.replace(kAddress, 4, reinterpret_cast<const char *>(&address), 4);
        r[kModel] = static_cast<char>(s.model);
        r.replace(kNode, 6, reinterpret_cast<const char *>(s.node), 6);
        r[kAuto] = static_cast<char>(s.autoProtocol);
        r[kMask] = static_cast<char>(s.mask);
        r.replace(kProtocols, 3, reinterpret_cast<const char *>(s.protocols), 3);
        for (int q = 0; q < 3; ++q)
            r.replace(kQueues + q * kQueueField, std::min(s.queues[q].size(), kQueueBytes), s.queues[q], 0, kQueueBytes);
        bytes += r;
    }
    return bytes;
}

bool DecodeListFile(const std::string &bytes, std::vector<ListServer> *servers, std::string *error) {
    if (bytes.size() % kListRecordBytes != 0)
        return Fail(error, "no list file: its " + std::to_string(bytes.size()) +
                               " bytes are no whole number of 278-byte records");
    servers->clear();
    // Texts end at their first zero byte, and within their field.
    auto text = [&](size_t at, size_t most) { return std::string(bytes.c_str() + at, strnlen(bytes.c_str() + at, most)); };
    for (size_t at = 0; at < bytes.size(); at += kListRecordBytes) {
        ListServer s;
        s.name = text(at + kName, kNameBytes);
        uint32_t address;
        bytes.copy(reinterpret_cast<char *>(&address), 4, at + kAddress);
        s.address = ntohl(address);
        s.model = static_cast<uint8_t>(bytes[at + kModel]);
        bytes.copy(reinterpret_cast<char *>(s.node), 6, at + kNode);
        s.autoProtocol = static_cast<uint8_t>(bytes[at + kAuto]);
        s.mask = static_cast<uint8_t>(bytes[at + kMask]);
        bytes.copy(reinterpret_cast<char *>(s.protocols), 3, at + kProtocols);
        for (int q = 0; q < 3; ++q) s.queues[q] = text(at + kQueues + q * kQueueField, kQueueBytes);
        servers->push_back(s);
    }
    return true;
}

std::string ListDescriptionText(const std::vector<ListServer> &servers) {
    std::string out;
    for (const ListServer &s : servers) {
        out += Quoted(s.name) + " " + AddressText(s.address) + " model=" + std::to_string(s.model) +
               " node=" + NodeText(s.node) + " auto=" + std::to_string(s.autoProtocol) + " ports=" + PortsText(s.mask) +
               " protocols=" + ProtocolText(s.protocols[0]) + "," + ProtocolText(s.protocols[1]) + "," +
               ProtocolText(s.protocols[2]);
        for (int q = 0; q < 3; ++q) out += " queue" + std::to_string(q + 1) + "=" + Quoted(s.queues[q]);
        out += "\n";
    }
    return out;
}

std::string ListDescriptionJson(const std::vector<ListServer> &servers) {
    std::string out = "[";
    for (size_t i = 0; i < servers.size(); ++i) {
        const ListServer &s = servers[i];
        std::string ports;
        for (int q = 0; q < 3; ++q)
            if (s.mask & (1 << q)) ports += (ports.empty() ? "" : ", ") + std::to_string(q + 1);
        out += std::string(i ? "," : "") + "\n  {\"name\": " + JsonString(s.name) + ", \"address\": " +
               JsonString(AddressText(s.address)) + ", \"model\": " + std::to_string(s.model) +
               ", \"node\": " + JsonString(NodeText(s.node)) + ", \"auto\": " + std::to_string(s.autoProtocol) +
               ", \"ports\": [" + ports + "], \"protocols\": [" + JsonString(ProtocolText(s.protocols[0])) + ", " +
               JsonString(ProtocolText(s.protocols[1])) + ", " + JsonString(ProtocolText(s.protocols[2])) +
               "], \"queues\": [" + JsonString(s.queues[0]) + ", " + JsonString(s.queues[1]) + ", " +
               JsonString(s.queues[2]) + "]}";
    }
    return out + (servers.empty() ? "]\n" : "\n]\n");
}

int ListfileCommand(int argc, char **argv) {
    const char *usage =
        "usage: kvtmon listfile make DESCRIPTION FILE  a list file (KVTLIST.BIN) from a description, text\n"
        "                                              or JSON (DESCRIPTION - reads standard input)\n"
        "       kvtmon listfile show FILE [--json]      a list file's print servers, as the description\n"
        "a line of the text: NAME ADDRESS [model=N] [node=XX-XX-XX-XX-XX-XX] [auto=N] [ports=1,2,3|none]\n"
        "                    [protocols=P,P,P] [queue1=TEXT] [queue2=TEXT] [queue3=TEXT]\n"
        "  ADDRESS is dotted or auto; P is auto, ipx, tcpip or netbios; defaults: model 1, the node\n"
        "  00-00 and the address, auto 1, every port of the model, auto, lpt1 lpt2 lpt3\n";
    std::string command = argc > 0 ? argv[0] : "";
    bool json = argc == 3 && std::string(argv[2]) == "--json";
    if (!(command == "make" && argc == 3) && !(command == "show" && (argc == 2 || json))) {
        std::fputs(usage, command == "--help" || command == "-h" ? stdout : stderr);
        return command == "--help" || command == "-h" ? 0 : 2;
    }
    std::string bytes, error;
    std::vector<ListServer> servers;
    std::vector<std::string> notes;
    if (!ReadWhole(argv[1], &bytes, &error)) {
        std::fprintf(stderr, "kvtmon listfile: %s\n", error.c_str());
        return 2;
    }
    if (command == "make") {
        if (!ParseListDescription(bytes, &servers, &notes, &error)) {
            std::fprintf(stderr, "kvtmon listfile: %s: %s; nothing written\n", argv[1], error.c_str());
            return 2;
        }
        for (const std::string &note : notes) std::fprintf(stderr, "kvtmon listfile: note: %s\n", note.c_str());
        std::string records = EncodeListFile(servers);
        std::ofstream out(argv[2], std::ios::binary | std::ios::trunc);
        if (!out.write(records.data(), static_cast<std::streamsize>(records.size())) || !out.flush()) {
            std::fprintf(stderr, "kvtmon listfile: cannot write %s\n", argv[2]);
            return 2;
        }
        std::printf("%s: %zu print servers, %zu bytes\n", argv[2], servers.size(), records.size());
        return 0;
    }
    if (!DecodeListFile(bytes, &servers, &error)) {
        std::fprintf(stderr, "kvtmon listfile: %s is %s\n", argv[1], error.c_str());
        return 2;
    }
    if (json) {
        std::fputs(ListDescriptionJson(servers).c_str(), stdout);
        return 0;
    }
    std::printf("# %s: %zu print servers\n", argv[1], servers.size());
    if (servers.size() > kListServers) std::printf("# the monitor takes the first 100 and leaves out the rest\n");
    std::fputs(ListDescriptionText(servers).c_str(), stdout);
    return 0;
}

}  // namespace kvtmon
