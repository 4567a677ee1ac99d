// kvtps's command line and configuration file.  Both set the same server
// settings with the same value syntax; the knobs are applied once every server
// is known, so options may name servers given later on the line or in a file.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <arpa/inet.h>

#include "kvtps_program.h"

namespace kvtps {
namespace {

const char kUsage[] =
    "usage: kvtps [OPTION]...\n"
    "Hosts virtual KVT print servers that take LPR jobs on port 515 of their own\n"
    "address, prints a line per job received, and runs until SIGINT or SIGTERM.\n"
    "\n"
    "Servers:\n"
    "  --server NAME@ADDRESS[:PORT]  a print server (repeatable); PORT defaults to 515\n"
    "  --config FILE                 servers from FILE (format below; repeatable)\n"
    "\n"
    "Faults and modes, per server (NAME as given with --server or in a file):\n"
    "  --refuse NAME                 listen on nothing: connects are refused\n"
    "  --silent NAME                 accept and read, never answer\n"
    "  --close-before-ack NAME=K[,N] close the connection instead of ack K (1-4),\n"
    "                                for the first N connections (default: all)\n"
    "  --nak NAME=K[:BYTE]           answer ack K with BYTE (default 0x01), then wait\n"
    "                                for the client to close\n"
    "  --slow NAME=BYTES[,MS]        read at most BYTES at a time, MS ms apart (default 10)\n"
    "  --rcvbuf NAME=BYTES           receive buffer (SO_RCVBUF) of its sockets\n"
    "  --ack-delay NAME=MS           wait MS ms before each answer\n"
    "  --close-after NAME=BYTES      close the connection once BYTES data bytes have come\n"
    "  --count-only NAME             keep only the byte count and checksum of the data\n"
    "\n"
    "The device, as management datagrams (UDP port 0x3434) show it, per server:\n"
    "  --device-name NAME=TEXT       the name it announces (default NAME; servers may share one)\n"
    "  --short-name NAME=TEXT        its short name, at most 8 bytes (default: NAME cut to 8)\n"
    "  --node NAME=XX-XX-XX-XX-XX-XX its node address (default 00-00-a-b-c-d for a.b.c.d)\n"
    "  --model NAME=BYTE             model byte; its two low bits are the printer ports (default 1)\n"
    "  --type NAME=BYTE              4: the monitor takes its queue names; 0: lpt1..lpt3 (default 4)\n"
    "  --auto-protocol NAME=BYTE     0: ports made from it are fixed to TCP/IP (default 1)\n"
    "  --ps-config NAME=BYTE         EEPROM byte 72; bit value 4: TCP/IP enabled (default 4)\n"
    "  --ps-support NAME=BYTE        EEPROM byte 489; bit value 1: TCP/IP supported (default 1)\n"
    "  --eeprom-address NAME=ADDRESS the address in its EEPROM image (default: its address;\n"
    "                                0.0.0.0: it takes one automatically)\n"
    "  --queue NAME=K:TEXT           the queue-name text of printer port K (1-3) as the device\n"
    "                                reports it, with its two-byte port mark (default \"lptK PK\")\n"
    "  --no-management NAME          answers no management datagram at all\n"
    "  --move NAME=ADDRESS,MS        takes ADDRESS MS ms after the start (LPR moves there,\n"
    "                                status replies report it; the node stays)\n"
    "Management faults, per server:\n"
    "  --mgmt-silent NAME            counts the queries it is sent, answers none\n"
    "  --answer NAME=LIST            answers only these commands: search, eeprom, queues, status\n"
    "  --reply-node NAME=XX-XX-...   replies carry this node instead of its own\n"
    "  --reply-command NAME=BYTE     replies carry this command byte instead of the one asked\n"
    "  --cut-replies NAME=BYTES      replies are cut to BYTES bytes\n"
    "  --status-address NAME=ADDRESS status replies name ADDRESS (0.0.0.0: none yet)\n"
    "  --faults-on NAME=LIST         the replies that --reply-node, --reply-command and\n"
    "                                --cut-replies change (default: all)\n"
    "NetBIOS (datagrams on UDP port 138), per server: it holds its name (cut to 16 bytes)\n"
    "and its short name with \".CFG\", is a member of KVTR.GROUP, answers the search sent to\n"
    "the group or its name and the EEPROM read sent to its \".CFG\" name:\n"
    "  --no-netbios NAME             holds no NetBIOS name at all\n"
    "  --nb-group-only NAME          answers only what is sent to KVTR.GROUP\n"
    "  --nb-reply-name NAME=TEXT     replies come from the NetBIOS name TEXT, not its own\n"
    "  --nb-late NAME=MS             replies go out MS ms late (KVT_TIMESCALE applies)\n"
    "\n"
    "\n";

const char kUsageProgram[] =
    "Program:\n"
    "  --spool DIR                   write each completed job's control and data files to\n"
    "                                DIR/NAME/ under the names the client sent (made safe)\n"
    "  --private-net                 enter a private network (user and network namespace,\n"
    "                                loopback only) before starting\n"
    "  --quiet                       print nothing but errors\n"
    "  --help                        this text\n"
    "\n"
    "Configuration file: one section per server, '#' starts a comment.\n"
    "  [pc1]\n"
    "  address = 127.0.0.2\n"
    "  port = 515\n"
    "  store = no                 # like --count-only\n"
    "  refuse = yes\n"
    "  silent = yes\n"
    "  close-before-ack = 2,1\n"
    "  nak = 3:0x02\n"
    "  slow = 512,10\n"
    "  rcvbuf = 4096\n"
    "  ack-delay = 100\n"
    "  device-name = Office     # and every other per-server option, without its dashes\n"
    "  queue = 1:lp P1\n"
    "\n"
    "Each job prints one line: server, connection, queue, control lines, data bytes,\n"
    "FNV-1a 64 checksum of the data, and how the exchange ended.\n"
    "Exit status: 0 after a signal, 1 if the servers cannot start, 2 for bad input.\n";

bool Fail(std::string *error, const std::string &message) {
    *error = message;
    return false;
}

// A decimal number (or 0x hex when hexAllowed), no sign, within [low, high].
bool ParseNumber(const std::string &text, long long low, long long high, bool hexAllowed,
                 long long *value) {
    if (text.empty()) return false;
    int base = 10;
    std::string digits = text;
    if (hexAllowed && text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        digits = text.substr(2);
    }
    for (char ch : digits) {
        if (!(base == 16 ? std::isxdigit(static_cast<unsigned char>(ch)) : std::isdigit(static_cast<unsigned char>(ch)))) {
            return false;
        }
    }
    if (digits.size() > 12) return false;
    long long v = std::strtoll(digits.c_str(), nullptr, base);
    if (v < low || v > high) return false;
    *value = v;
    return true;
}

bool ParseYesNo(const std::string &text, bool *value) {
    if (text == "yes" || text == "true" || text == "on" || text == "1") {
        *value = true;
        return true;
    }
    if (text == "no" || text == "false" || text == "off" || text == "0") {
        *value = false;
        return true;
    }
    return false;
}

bool ValidName(const std::string &name) {
    if (name.empty() || name.size() > 64) return false;
    for (char ch : name) {
        if (!std::isalnum(static_cast<unsigned char>(ch)) && ch != '_' && ch != '-' && ch != '.') {
            return false;
        }
    }
    return name != "." && name != "..";
}

// "A,B" or "A:B" into A and B ("" when the separator is absent).
void SplitPair(const std::string &text, char separator, std::string *first, std::string *second) {
    size_t at = text.find(separator);
    *first = text.substr(0, at);
    *second = at == std::string::npos ? "" : text.substr(at + 1);
}

bool ParseAddress(const std::string &text) {
    in_addr address;
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

// "search,eeprom,queues,status" into kAnswer* bits.
bool ParseAnswers(const std::string &text, unsigned *answers) {
    unsigned bits = 0;
    std::istringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        if (item == "search") bits |= kAnswerSearch;
        else if (item == "eeprom") bits |= kAnswerReadEeprom;
        else if (item == "queues") bits |= kAnswerQueueNames;
        else if (item == "status") bits |= kAnswerStatus;
        else if (!item.empty()) return false;
    }
    *answers = bits;
    return true;
}

// The settings of the device and its management datagrams.  False with
// *known false when key is none of them.
bool ApplyDeviceSetting(ServerConfig *s, const std::string &key, const std::string &value, bool fromFlag,
                        bool *known, std::string *error) {
    MgmtFaults &f = s->mgmt;
    long long n = 0;
    std::string a, b;
    *known = true;
    auto byte = [&](uint8_t *out) {
        if (!ParseNumber(value, 0, 255, true, &n)) return Fail(error, key + " wants a byte, not '" + value + "'");
        *out = static_cast<uint8_t>(n);
        return true;
    };
    if (key == "device-name") {
        if (value.size() > kSearchNameBytes) return Fail(error, "a device name has at most 50 bytes");
        s->deviceName = value;
    } else if (key == "short-name") {
        if (value.size() > kShortNameBytes) return Fail(error, "a short name has at most 8 bytes");
        s->shortName = value;
    } else if (key == "node" || key == "reply-node") {
        NodeId node;
        if (!ParseNode(value, &node)) return Fail(error, key + " wants XX-XX-XX-XX-XX-XX, not '" + value + "'");
        if (key == "node") s->node = node;
        else f.foreignNode = true, f.replyNode = node;
    } else if (key == "model") {
        return byte(&s->model);
    } else if (key == "type") {
        return byte(&s->type);
    } else if (key == "auto-protocol") {
        return byte(&s->autoProtocol);
    } else if (key == "ps-config") {
        return byte(&s->psConfig);
    } else if (key == "ps-support") {
        return byte(&s->psSupportProtocol);
    } else if (key == "eeprom-address" || key == "status-address") {
        if (!ParseAddress(value)) return Fail(error, "bad IPv4 address '" + value + "'");
        (key == "eeprom-address" ? s->eepromAddress : f.statusAddress) = value;
    } else if (key == "queue") {
        SplitPair(value, ':', &a, &b);
        if (!ParseNumber(a, 1, 3, false, &n) || value.find(':') == std::string::npos || b.size() > kQueueTextBytes) {
            return Fail(error, "queue wants K:TEXT with K 1-3 and at most 63 bytes, not '" + value + "'");
        }
        s->queueTexts[static_cast<size_t>(n - 1)] = b;
    } else if (key == "management" || key == "no-management" || key == "mgmt-silent") {
        bool on = true;
        if (!fromFlag && !ParseYesNo(value, &on)) return Fail(error, key + " wants yes or no, not '" + value + "'");
        if (key == "management") s->management = on;
        if (key == "no-management") s->management = !on;
        if (key == "mgmt-silent") f.silent = on;
    } else if (key == "answer" || key == "faults-on") {
        if (!ParseAnswers(value, key == "answer" ? &f.answers : &f.faultCommands)) {
            return Fail(error, key + " wants a list of search, eeprom, queues, status, not '" + value + "'");
        }
    } else if (key == "reply-command") {
        uint8_t command;
        if (!byte(&command)) return false;
        f.replyCommand = command;
    } else if (key == "cut-replies") {
        if (!ParseNumber(value, 1, 65535, false, &n)) return Fail(error, "cut-replies wants a byte count");
        f.cutReplyTo = static_cast<size_t>(n);
    } else if (key == "move") {
        SplitPair(value, ',', &a, &b);
        if (!ParseAddress(a) || !ParseNumber(b, 0, 86400000, false, &n)) {
            return Fail(error, "move wants ADDRESS,MS, not '" + value + "'");
        }
        s->moveAddress = a;
        s->moveAfterMs = static_cast<int>(n);
    } else {
        *known = false;
        return false;
    }
    return true;
}

// The NetBIOS settings.  False with *known false when key is none of them.
bool ApplyNetbiosSetting(ServerConfig *s, const std::string &key, const std::string &value, bool fromFlag,
                         bool *known, std::string *error) {
    NbFaults &f = s->netbios;
    long long n = 0;
    *known = true;
    if (key == "netbios" || key == "no-netbios" || key == "nb-group-only") {
        bool on = true;
        if (!fromFlag && !ParseYesNo(value, &on)) return Fail(error, key + " wants yes or no, not '" + value + "'");
        if (key == "netbios") f.enabled = on;
        if (key == "no-netbios") f.enabled = !on;
        if (key == "nb-group-only") f.groupOnly = on;
    } else if (key == "nb-reply-name") {
        if (value.empty() || value.size() > 16) return Fail(error, "a NetBIOS name has 1 to 16 bytes");
        f.replyName = value;
    } else if (key == "nb-late") {
        if (!ParseNumber(value, 0, 600000, false, &n)) return Fail(error, "nb-late wants milliseconds, not '" + value + "'");
        f.lateMs = static_cast<int>(n);
    } else {
        *known = false;
        return false;
    }
    return true;
}

// One setting of a server, by the key the file uses (the long option without
// its dashes).  value is empty for a flag given on the command line.
bool ApplySetting(ServerConfig *s, const std::string &key, const std::string &value,
                  bool fromFlag, std::string *error) {
    LprFaults &f = s->lpr;
    long long n = 0, m = 0;
    std::string a, b;
    bool known = false;
    if (ApplyDeviceSetting(s, key, value, fromFlag, &known, error)) return true;
    if (known) return false;
    if (ApplyChannelSetting(s, key, value, fromFlag, &known, error)) return true;
    if (known) return false;
    if (ApplyNetbiosSetting(s, key, value, fromFlag, &known, error)) return true;
    if (known) return false;
    if (key == "address") {
        in_addr address;
        if (inet_pton(AF_INET, value.c_str(), &address) != 1) {
            return Fail(error, "bad IPv4 address '" + value + "'");
        }
        s->address = value;
    } else if (key == "port") {
        if (!ParseNumber(value, 0, 65535, false, &n)) return Fail(error, "bad port '" + value + "'");
        s->lprPort = static_cast<uint16_t>(n);
    } else if (key == "store" || key == "refuse" || key == "silent" || key == "count-only") {
        bool on = true;
        if (!fromFlag && !ParseYesNo(value, &on)) {
            return Fail(error, key + " wants yes or no, not '" + value + "'");
        }
        if (key == "store") s->storeData = on;
        if (key == "count-only") s->storeData = !on;
        if (key == "refuse") f.refuse = on;
        if (key == "silent") f.silent = on;
    } else if (key == "close-before-ack") {
        SplitPair(value, ',', &a, &b);
        if (!ParseNumber(a, 1, 4, false, &n) ||
            (!b.empty() && !ParseNumber(b, 1, INT_MAX, false, &m))) {
            return Fail(error, "close-before-ack wants K[,N] with K 1-4, not '" + value + "'");
        }
        f.closeBeforeAck = static_cast<int>(n);
        f.closeBeforeAckCount = b.empty() ? -1 : static_cast<int>(m);
    } else if (key == "nak") {
        SplitPair(value, ':', &a, &b);
        if (!ParseNumber(a, 1, 4, false, &n) ||
            (!b.empty() && !ParseNumber(b, 1, 255, true, &m))) {
            return Fail(error, "nak wants K[:BYTE] with K 1-4 and BYTE 1-255, not '" + value + "'");
        }
        f.nakAtStep = static_cast<int>(n);
        f.nakByte = b.empty() ? 0x01 : static_cast<uint8_t>(m);
    } else if (key == "slow") {
        SplitPair(value, ',', &a, &b);
        if (!ParseNumber(a, 1, 1 << 20, false, &n) ||
            (!b.empty() && !ParseNumber(b, 0, 60000, false, &m))) {
            return Fail(error, "slow wants BYTES[,MS], not '" + value + "'");
        }
        f.readChunk = static_cast<size_t>(n);
        f.readDelayMs = b.empty() ? 10 : static_cast<int>(m);
    } else if (key == "rcvbuf") {
        if (!ParseNumber(value, 1, 64 << 20, false, &n)) {
            return Fail(error, "rcvbuf wants a byte count, not '" + value + "'");
        }
        f.recvBufferBytes = static_cast<int>(n);
    } else if (key == "ack-delay") {
        if (!ParseNumber(value, 0, 600000, false, &n)) {
            return Fail(error, "ack-delay wants milliseconds, not '" + value + "'");
        }
        f.ackDelayMs = static_cast<int>(n);
    } else if (key == "close-after") {
        if (!ParseNumber(value, 1, INT_MAX, false, &n)) {
            return Fail(error, "close-after wants a byte count, not '" + value + "'");
        }
        f.closeAfterBytes = static_cast<uint64_t>(n);
    } else {
        return Fail(error, "unknown setting '" + key + "'");
    }
    return true;
}

bool ParseServerSpec(const std::string &spec, ServerConfig *s, std::string *error) {
    size_t at = spec.find('@');
    if (at == std::string::npos) return Fail(error, "--server wants NAME@ADDRESS[:PORT], not '" + spec + "'");
    s->name = spec.substr(0, at);
    if (!ValidName(s->name)) {
        return Fail(error, "bad server name '" + s->name + "' (letters, digits, '.', '_', '-')");
    }
    std::string address, port;
    SplitPair(spec.substr(at + 1), ':', &address, &port);
    if (!ApplySetting(s, "address", address, false, error)) return false;
    if (spec.find(':', at) != std::string::npos && !ApplySetting(s, "port", port, false, error)) {
        return false;
    }
    return true;
}

std::string Trim(const std::string &text) {
    size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string::npos) return "";
    size_t end = text.find_last_not_of(" \t\r");
    return text.substr(begin, end - begin + 1);
}

ServerConfig *FindServer(std::vector<ServerConfig> &servers, const std::string &name) {
    for (auto &s : servers) {
        if (s.name == name) return &s;
    }
    return nullptr;
}

}  // namespace

const char *UsageText() {
    static const std::string text = std::string(kUsage) + ChannelUsageText() + kUsageProgram;
    return text.c_str();
}

bool ParseConfig(const std::string &text, const std::string &origin,
                 std::vector<ServerConfig> *servers, std::string *error) {
    std::istringstream in(text);
    std::string line;
    ServerConfig *current = nullptr;
    for (int number = 1; std::getline(in, line); ++number) {
        const std::string where = origin + ":" + std::to_string(number) + ": ";
        line = Trim(line.substr(0, line.find('#')));
        if (line.empty()) continue;
        if (line.front() == '[') {
            if (line.back() != ']') return Fail(error, where + "a section is [NAME]");
            std::string name = Trim(line.substr(1, line.size() - 2));
            if (!ValidName(name)) return Fail(error, where + "bad server name '" + name + "'");
            if (FindServer(*servers, name)) return Fail(error, where + "server " + name + " given twice");
            servers->push_back(ServerConfig{});
            current = &servers->back();
            current->name = name;
            continue;
        }
        size_t equals = line.find('=');
        if (equals == std::string::npos) return Fail(error, where + "expected key = value");
        if (!current) return Fail(error, where + "a setting before the first [NAME]");
        std::string why;
        if (!ApplySetting(current, Trim(line.substr(0, equals)), Trim(line.substr(equals + 1)),
                          false, &why)) {
            return Fail(error, where + why);
        }
    }
    return true;
}

bool ReadConfigFile(const std::string &path, std::vector<ServerConfig> *servers,
                    std::string *error) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return Fail(error, "cannot read " + path + ": " + std::strerror(errno));
    std::ostringstream text;
    text << file.rdbuf();
    return ParseConfig(text.str(), path, servers, error);
}

bool ParseCommandLine(const std::vector<std::string> &args, ProgramOptions *options,
                      std::string *error) {
    // Per-server settings wait until every server is known.
    struct Knob {
        std::string key, argument;
    };
    std::vector<Knob> knobs;
    static const char *const kKnobs[] = {"refuse", "silent", "close-before-ack", "nak",
                                         "slow", "rcvbuf", "ack-delay", "close-after", "count-only",
                                         "device-name", "short-name", "node", "model", "type",
                                         "auto-protocol", "ps-config", "ps-support",
                                         "eeprom-address", "queue", "no-management", "move",
                                         "mgmt-silent", "answer", "reply-node", "reply-command",
                                         "cut-replies", "status-address", "faults-on",
                                         "no-netbios", "nb-group-only", "nb-reply-name", "nb-late"};
    for (size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        if (arg.rfind("--", 0) != 0 || arg.size() == 2) {
            return Fail(error, "unexpected argument '" + arg + "'");
        }
        std::string name = arg.substr(2), value;
        bool hasValue = false;
        if (size_t equals = name.find('='); equals != std::string::npos) {
            value = name.substr(equals + 1);
            name = name.substr(0, equals);
            hasValue = true;
        }
        auto takeValue = [&]() {
            if (hasValue) return true;
            if (i + 1 >= args.size()) return Fail(error, "--" + name + " wants a value");
            value = args[++i];
            return true;
        };
        if (name == "help" || name == "quiet" || name == "private-net") {
            if (hasValue) return Fail(error, "--" + name + " takes no value");
            if (name == "help") options->help = true;
            if (name == "quiet") options->quiet = true;
            if (name == "private-net") options->privateNet = true;
        } else if (name == "server") {
            if (!takeValue()) return false;
            ServerConfig s;
            if (!ParseServerSpec(value, &s, error)) return false;
            if (FindServer(options->servers, s.name)) return Fail(error, "server " + s.name + " given twice");
            options->servers.push_back(s);
        } else if (name == "config") {
            if (!takeValue()) return false;
            std::vector<ServerConfig> loaded;
            if (!ReadConfigFile(value, &loaded, error)) return false;
            for (auto &s : loaded) {
                if (FindServer(options->servers, s.name)) {
                    return Fail(error, "server " + s.name + " given twice (" + value + ")");
                }
                options->servers.push_back(s);
            }
        } else if (name == "spool") {
            if (!takeValue()) return false;
            if (value.empty()) return Fail(error, "--spool wants a directory");
            options->spoolDir = value;
        } else if (bool ipxFlag; std::find(std::begin(kKnobs), std::end(kKnobs), name) != std::end(kKnobs) ||
                                 IsChannelOption(name, &ipxFlag)) {
            if (!takeValue()) return false;
            knobs.push_back({name, value});
        } else {
            return Fail(error, "unknown option --" + name);
        }
    }
    if (options->help) return true;
    for (const auto &knob : knobs) {
        bool ipxFlag = false;
        const bool flag = knob.key == "refuse" || knob.key == "silent" || knob.key == "count-only" ||
                          knob.key == "no-management" || knob.key == "mgmt-silent" ||
                          (IsChannelOption(knob.key, &ipxFlag) && ipxFlag) ||
                          knob.key == "no-netbios" || knob.key == "nb-group-only";
        std::string server = knob.argument, value;
        if (!flag) {
            size_t equals = knob.argument.find('=');
            if (equals == std::string::npos) {
                return Fail(error, "--" + knob.key + " wants NAME=VALUE, not '" + knob.argument + "'");
            }
            server = knob.argument.substr(0, equals);
            value = knob.argument.substr(equals + 1);
        }
        ServerConfig *s = FindServer(options->servers, server);
        if (!s) return Fail(error, "--" + knob.key + ": no server named '" + server + "'");
        std::string why;
        if (!ApplySetting(s, knob.key, value, flag, &why)) return Fail(error, "--" + knob.key + ": " + why);
    }
    if (options->servers.empty()) return Fail(error, "no server given (use --server or --config)");
    return true;
}

}  // namespace kvtps
