// kvtps's settings of a server's print channel, over IPX (with IPX's own) and
// over NetBIOS: the same keys on the command line (with two dashes) and in the
// configuration file, "ipx-" or "nb-" and the knob.
#include <cstdlib>
#include <cstring>

#include "kvtps_program.h"

namespace kvtps {
namespace {

const char kChannelUsage[] =
    "IPX, per server (on IPX at the address its node names, 00-00-a-b-c-d for a.b.c.d;\n"
    "search and EEPROM read on socket 0x3434, the print channel on 0x3030, 0x3131,\n"
    "0x3232 and 0x3535):\n"
    "  --no-ipx NAME                 not on IPX\n"
    "  --ipx-silent NAME             counts what it is sent over IPX, answers nothing but\n"
    "                                the busy answers of --ipx-busy\n"
    "  --ipx-busy NAME=N             answers the next N connects busy (channel 0)\n"
    "  --ipx-drop-data NAME=N        loses every N-th data frame on its way in\n"
    "  --ipx-drop-replies NAME=N     loses every N-th reply on its way out\n"
    "  --ipx-flags NAME=BYTE         replies carry BYTE as Flags instead of 0x80\n"
    "  --ipx-wrong-sequence NAME     replies carry the request's Sequence plus one\n"
    "  --ipx-other-port NAME         replies name the next printer port\n"
    "  --ipx-reply-node NAME=NODE    replies come from NODE (00-00-a-b-c-d, a local address)\n"
    "  --ipx-faults-on NAME=LIST     the replies the four faults above change: connect, data,\n"
    "                                hangup, management (default: all)\n"
    "  --ipx-fault-count NAME=N      they change the first N of those replies only\n"
    "  --ipx-delay NAME=MS           waits MS ms before each reply\n"
    "  --ipx-gone NAME=K[,N]         after K data frames lets the next N frames pass\n"
    "                                unanswered (default: all), then answers again\n"
    "The print channel over NetBIOS (frames to its NetBIOS name), per server:\n"
    "  --nb-silent, --nb-busy, --nb-drop-data, --nb-drop-replies, --nb-flags,\n"
    "  --nb-wrong-sequence, --nb-other-port, --nb-faults-on, --nb-fault-count, --nb-gone\n"
    "                                as their --ipx- twins, for the channel's frames and\n"
    "                                replies; --nb-reply-name and --nb-late apply to them too\n"
    "\n";

const char *const kFlags[] = {"silent", "wrong-sequence", "other-port"};
const char *const kValued[] = {"busy", "drop-data", "drop-replies", "flags", "faults-on", "fault-count", "gone"};
const char *const kIpxFlags[] = {"no-ipx"};
const char *const kIpxValued[] = {"ipx-reply-node", "ipx-delay"};

template <size_t N>
bool Among(const char *const (&list)[N], const std::string &name) {
    for (const char *item : list)
        if (name == item) return true;
    return false;
}

// The channel knob that key names ("silent" for "nb-silent"), or "" for none.
std::string Knob(const std::string &key) {
    for (const char *prefix : {"ipx-", "nb-"}) {
        if (key.rfind(prefix, 0) != 0) continue;
        std::string knob = key.substr(std::strlen(prefix));
        return Among(kFlags, knob) || Among(kValued, knob) ? knob : "";
    }
    return "";
}

// A number without sign within [0, high], decimal or 0x hex.
bool Number(const std::string &text, long high, long *out) {
    if (text.empty() || text.size() > 12 || text[0] == '-' || text[0] == '+' || text[0] == ' ') return false;
    char *end = nullptr;
    long v = std::strtol(text.c_str(), &end, 0);
    if (*end != 0 || v < 0 || v > high) return false;
    *out = v;
    return true;
}

}  // namespace

const char *ChannelUsageText() { return kChannelUsage; }

bool IsChannelOption(const std::string &name, bool *isFlag) {
    *isFlag = Among(kIpxFlags, name) || Among(kFlags, Knob(name));
    return *isFlag || Among(kIpxValued, name) || !Knob(name).empty();
}

bool ApplyChannelSetting(ServerConfig *s, const std::string &key, const std::string &value, bool fromFlag,
                         bool *known, std::string *error) {
    const std::string knob = Knob(key);
    ChannelFaults &f = key.rfind("nb-", 0) == 0 ? s->netbios.channel : static_cast<ChannelFaults &>(s->ipxFaults);
    long n = 0;
    *known = true;
    auto fail = [&](const std::string &wants) {
        *error = key + " wants " + wants + ", not '" + value + "'";
        return false;
    };
    if (Among(kIpxFlags, key) || Among(kFlags, knob)) {
        bool on = fromFlag || value == "yes" || value == "true" || value == "on" || value == "1";
        if (!fromFlag && !on && value != "no" && value != "false" && value != "off" && value != "0")
            return fail("yes or no");
        if (key == "no-ipx") s->ipx = !on;
        if (knob == "silent") f.silent = on;
        if (knob == "wrong-sequence") f.wrongSequence = on;
        if (knob == "other-port") f.otherPort = on;
    } else if (knob == "busy" || knob == "fault-count" || key == "ipx-delay") {
        if (!Number(value, key == "ipx-delay" ? 600000 : 1000000000, &n)) return fail("a count");
        (knob == "busy" ? f.busyAnswers : knob == "fault-count" ? f.faultCount : s->ipxFaults.delayMs) =
            static_cast<int>(n);
    } else if (knob == "drop-data" || knob == "drop-replies") {
        if (!Number(value, 1000000000, &n) || n == 0) return fail("N of 1 or more");
        (knob == "drop-data" ? f.dropDataEvery : f.dropReplyEvery) = static_cast<unsigned>(n);
    } else if (knob == "gone") {
        const size_t comma = value.find(',');
        long k = 0;
        if (!Number(value.substr(0, comma), 1000000000, &k) ||
            (comma != std::string::npos && !Number(value.substr(comma + 1), 1000000000, &n)))
            return fail("K[,N]");
        f.goneAfter = static_cast<int>(k);
        f.goneFor = comma == std::string::npos ? -1 : static_cast<int>(n);
    } else if (knob == "flags") {
        if (!Number(value, 255, &n)) return fail("a byte");
        f.replyFlags = static_cast<int>(n);
    } else if (key == "ipx-reply-node") {
        NodeId node;
        if (!ParseNode(value, &node) || node[0] != 0 || node[1] != 0) return fail("00-00-a-b-c-d");
        s->ipxFaults.replyNode = node;
    } else if (knob == "faults-on") {
        unsigned bits = 0;
        for (size_t at = 0; at <= value.size();) {
            size_t comma = value.find(',', at);
            std::string item = value.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
            if (item == "connect") bits |= kReplyConnect;
            else if (item == "data") bits |= kReplyData;
            else if (item == "hangup") bits |= kReplyHangup;
            else if (item == "management") bits |= kReplyManagement;
            else if (!item.empty()) return fail("a list of connect, data, hangup, management");
            if (comma == std::string::npos) break;
            at = comma + 1;
        }
        f.faultReplies = bits;
    } else {
        *known = false;
        return false;
    }
    return true;
}

}  // namespace kvtps
