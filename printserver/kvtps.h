// kvtps: the print-server emulator.  One Emulator hosts one or more virtual
// KVT print servers inside the calling process; each listens for the LPR
// exchange on port 515 of its own address (127.0.0.2, 127.0.0.3, ...), stores
// every job it receives byte for byte, counts what it saw, and can be told to
// misbehave (fault knobs) while it runs.
//
// The LPR exchange, from the client's side, each step answered by one byte:
//   1. 0x02 queue 0x0A                                   -> 0x00
//   2. 0x02 L 0x20 cfA007pc1 0x0A                         -> 0x00
//   3. the control file: L+1 bytes, 0x02, lines, 0x00     -> 0x00
//   4. 0x03 2147483647 0x20 dfA007pc1 0x0A                -> 0x00
//   5. the raw data, until the client closes the connection.
// That is the monitor's; a server also takes a receive-job as other LPR
// clients send it (RFC 1179): after step 1 the control file's and the data
// files' subcommands in any order, each file count bytes and 0x00, every
// line and every file acknowledged, or 0x01 0x0A to abort (lpr_session.h).
//
// Each server also answers the management datagrams by which the monitor
// finds print servers and asks for their addresses: UDP to port 0x3434, sent
// to the limited broadcast address.  A query is 10 bytes, the 6-byte prefix
// (the target's node, or six 0xFF for all) and 00 CMD FF ~CMD; a reply is the
// server's node, 01 CMD 00 00 and the command's body (search: 66 bytes; EEPROM
// image: 512; queue names: 193; status: 62, its address at body offsets 58-61).
// One socket per emulator, bound to 0.0.0.0:0x3434 beside any others (a socket
// bound to a server's own address would not see broadcasts), hands each query
// to the servers it names.  Each server also speaks IPX: see kvtps_ipx.h.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kvtps_ipx.h"

namespace kvtps {

// ---- limits -------------------------------------------------------------------
// A control file longer than this (L) is a protocol error: the length comes from
// the client and is never trusted further than that.
constexpr size_t kMaxControlFileLength = 64 * 1024;
// A command line (step 1 and each subcommand) longer than this without its 0x0A is a
// protocol error.
constexpr size_t kMaxCommandLine = 1024;

// ---- checksum -------------------------------------------------------------------
// FNV-1a, 64 bits: the running checksum of a job's data, kept whether or not the
// data itself is stored.
constexpr uint64_t kFnvOffset = 0xcbf29ce484222325ull;
constexpr uint64_t kFnvPrime = 0x100000001b3ull;
inline uint64_t Fnv1a64(const void *bytes, size_t size, uint64_t hash = kFnvOffset) {
    const auto *p = static_cast<const unsigned char *>(bytes);
    for (size_t i = 0; i < size; ++i) {
        hash ^= p[i];
        hash *= kFnvPrime;
    }
    return hash;
}

// ---- configuration ----------------------------------------------------------------
// How a server misbehaves on LPR.  Every knob can change while the server runs
// (Emulator::SetLprFaults); a change applies to the next decision it governs.
struct LprFaults {
    bool refuse = false;  // nothing listens: a connect is refused
    bool silent = false;  // accept and read, never answer
    // Acks are counted in the order they fall due: ack 1 answers the
    // receive-job, then one each subcommand line and each file.
    // Close the connection instead of sending ack k (1..4; 0 = off), for the next
    // closeBeforeAckCount connections that reach step k (-1 = every one).
    int closeBeforeAck = 0;
    int closeBeforeAckCount = -1;
    // Answer ack k (1..4; 0 = off) with nakByte instead of 0x00, for the next
    // nakCount connections that reach step k (-1 = every one); the connection is
    // then kept, and read, until the client closes it.
    int nakAtStep = 0;
    uint8_t nakByte = 0x01;
    int nakCount = -1;
    // Slow reading: at most readChunk bytes per read (0 = no limit), and a pause
    // of readDelayMs after each read; recvBufferBytes sets SO_RCVBUF of the
    // listening socket and of each connection (0 = the system's default).
    size_t readChunk = 0;
    int readDelayMs = 0;
    int recvBufferBytes = 0;
    // A pause before each ack (and before a nak), in milliseconds.
    int ackDelayMs = 0;
    // A server that goes away in the middle of a job: the connection is closed
    // (reset, with what it has not read) once this many data bytes have come
    // (0 = never).
    uint64_t closeAfterBytes = 0;
};

// ---- management datagrams ------------------------------------------------------------
constexpr uint16_t kMgmtPort = 0x3434;
constexpr uint8_t kMgmtReadEeprom = 0x02;
constexpr uint8_t kMgmtSearch = 0x04;
constexpr uint8_t kMgmtStatus = 0x05;
constexpr uint8_t kMgmtQueueNames = 0x11;
constexpr size_t kMgmtQueryBytes = 10;
constexpr size_t kMgmtHeadBytes = 10;  // node prefix and reply head: the body starts here
constexpr size_t kSearchBodyBytes = 66;
constexpr size_t kEepromBytes = 512;
constexpr size_t kQueueBodyBytes = 193;
constexpr size_t kStatusBodyBytes = 62;
constexpr size_t kQueueTextBytes = 63;  // each queue-name text's field; a text of 63 has no terminator
constexpr size_t kSearchNameBytes = 50;  // the name's field; a name of 50 has no terminator
constexpr size_t kShortNameBytes = 8;

// Which commands a server answers (MgmtFaults::answers).
constexpr unsigned kAnswerSearch = 1;
constexpr unsigned kAnswerReadEeprom = 2;
constexpr unsigned kAnswerQueueNames = 4;
constexpr unsigned kAnswerStatus = 8;
constexpr unsigned kAnswerAll = kAnswerSearch | kAnswerReadEeprom | kAnswerQueueNames | kAnswerStatus;

using NodeId = std::array<uint8_t, 6>;
// "00-00-7f-00-00-02"; ParseNode takes that form or with ':' between the bytes.
std::string NodeText(const NodeId &node);
bool ParseNode(const std::string &text, NodeId *node);
// The node of a device at an IPv4 address a.b.c.d: 00-00-a-b-c-d.
NodeId NodeFromAddress(const std::string &address);

// How a server misbehaves on management datagrams.  Every knob can change
// while it runs (Emulator::SetManagementFaults) and applies to the next query.
struct MgmtFaults {
    bool silent = false;             // answers nothing (and counts what it was asked)
    unsigned answers = kAnswerAll;   // the commands it answers; others go unanswered
    bool foreignNode = false;        // replies carry replyNode in their prefix, not its node
    NodeId replyNode{};
    int replyCommand = -1;           // replies carry this command byte (0..255; -1: the one asked)
    size_t cutReplyTo = 0;           // replies are cut to this many bytes (0: whole)
    unsigned faultCommands = kAnswerAll;  // the replies that the three faults above change
    std::string statusAddress;       // the address status replies name (empty: its own)
};

// ---- NetBIOS --------------------------------------------------------------------------
// Datagrams of RFC 1002 broadcast to UDP port 138 (netbios_server.h).  Each
// server holds its name (the announced one, cut to 16 bytes), its short name
// with ".CFG", and is a member of the group KVTR.GROUP.  It answers MgmtSearch
// sent to the group or to its name, and MgmtReadEEPROM sent to its ".CFG"
// name: queries "PS" 00 00 00 CMD FF ~CMD, replies "PS" 80 00, the head and
// the body (the management faults apply to them as over UDP).  Print
// channel frames sent to its name are answered to the sender's name.
inline constexpr char kNbGroupName[] = "KVTR.GROUP";

// How a server takes part in NetBIOS.  enabled counts at the start; the others
// can change while it runs (Emulator::SetNetbiosFaults).
struct NbFaults {
    bool enabled = true;     // false: a host that holds no NetBIOS at all
    bool groupOnly = false;  // answers only what is sent to KVTR.GROUP
    std::string replyName;   // replies come from this name (empty: its own)
    int lateMs = 0;          // replies go out this late, in the monitor's milliseconds (KVT_TIMESCALE)
    ChannelFaults channel;   // the print channel's, as over IPX
};

// What one server was sent to its names, by what it was.
struct NbCounters {
    uint64_t groupSearch = 0;    // MgmtSearch to KVTR.GROUP
    uint64_t nameSearch = 0;     // MgmtSearch to its own name
    uint64_t cfgReadEeprom = 0;  // MgmtReadEEPROM to its ".CFG" name
    uint64_t other = 0;          // anything else to one of its names
    uint64_t replies = 0;
    uint64_t unanswered = 0;     // queries it let pass (group only, silent, not among its answers)
    ChannelCounters channel;     // the print channel's frames to its name
};

struct NbTraffic {
    uint64_t datagrams = 0;  // every packet on port 138
    uint64_t malformed = 0;  // no whole direct datagram of RFC 1002
    bool listening = false;
    std::string listenError;  // why nothing listens (port 138 is privileged outside the private network)
};

struct ServerConfig {
    std::string name;                  // the print server's name, as jobs and counters report it
    std::string address = "127.0.0.2"; // its own IPv4 address
    uint16_t lprPort = 515;            // 0: any free port (see Emulator::LprPort)
    bool storeData = true;             // false: count and checksum the data only
    LprFaults lpr;

    // The device as its management datagrams show it.
    bool management = true;            // answers management datagrams over UDP
    std::string deviceName;            // the name it announces (empty: name); several may share one
    std::string shortName;             // at most 8 bytes (empty: name, cut to 8)
    std::optional<NodeId> node;        // none: derived from address, and kept when it moves
    uint8_t model = 1;                 // model byte: its two low bits are the printer ports
    uint8_t type = 4;                  // 4: the monitor takes its queue names; 0: "lpt1".."lpt3"
    uint8_t autoProtocol = 1;          // 0: ports made from it are fixed to TCP/IP
    uint8_t psConfig = 0x04;           // EEPROM image offset 72: bit value 4, TCP/IP enabled
    uint8_t psSupportProtocol = 0x01;  // EEPROM image offset 489: bit value 1, TCP/IP supported
    std::string eepromAddress;         // the address in the EEPROM image (empty: its address;
                                       // "0.0.0.0": it takes one automatically)
    // The queue-name texts as the device reports them: the LPR queue name and a
    // two-byte port mark, which the monitor cuts off (with one blank before it).
    std::array<std::string, 3> queueTexts = {"lpt1 P1", "lpt2 P2", "lpt3 P3"};
    MgmtFaults mgmt;
    NbFaults netbios;

    bool ipx = true;                   // on IPX, at the address its node names (00-00-a-b-c-d)
    IpxFaults ipxFaults;

    // The kvtps program moves the server to moveAddress moveAfterMs after it
    // starts (-1: never), as a device that takes a new address would.
    std::string moveAddress;
    int moveAfterMs = -1;
};

// What one server was asked over UDP management datagrams: the queries whose
// prefix named it (its node or six 0xFF), by command.
struct MgmtCounters {
    uint64_t search = 0;
    uint64_t readEeprom = 0;
    uint64_t queueNames = 0;
    uint64_t status = 0;
    uint64_t otherCommands = 0;  // well-formed, with a command it doesn't know
    uint64_t replies = 0;        // replies sent
    uint64_t unanswered = 0;     // queries it let pass (silent, not among its answers, unknown)
};

// What the emulator's management socket received as a whole.
struct MgmtTraffic {
    uint64_t datagrams = 0;   // every datagram on port 0x3434
    uint64_t malformed = 0;   // shorter than 10 bytes, or not 00 CMD FF ~CMD behind the prefix
    uint64_t unaddressed = 0; // well-formed, naming no server of this emulator
    bool listening = false;
    std::string listenError;
};

// ---- what a server saw --------------------------------------------------------------
// How a connection's exchange ended.
enum class LprOutcome {
    Completed,      // the client closed the connection after a whole job
    ClientClosed,   // the client closed (or reset) it before the job was whole
    ProtocolError,  // the server closed it on bytes it could not accept
    FaultClosed,    // closed instead of an ack (closeBeforeAck)
    Nakked,         // a non-zero ack was sent; the client then closed
    Unanswered,     // silent server; the client gave up and closed
    Stopped,        // the emulator stopped while the connection was open
    Aborted,        // the client aborted the job (0x01) and closed
};
const char *OutcomeName(LprOutcome outcome);

// One data file of a job: its name and the bytes that came for it.
struct LprDataFile {
    std::string name;
    uint64_t length = 0;
    bool operator==(const LprDataFile &) const = default;
};

// One connection that delivered at least one byte.  Byte fields hold the bytes
// exactly as received (std::string used as a byte buffer).
struct LprJob {
    std::string server;
    uint64_t connection = 0;     // 1 for the server's first accepted connection, ...
    std::string peer;            // the client's address and port, "127.0.0.1:40312"
    std::string header;          // every byte received but the data files', exactly
    std::string queue;           // step 1, between 0x02 and 0x0A
    std::string controlCommand;  // the control file's subcommand, raw: 0x02 ... 0x0A
    size_t controlLength = 0;    // its L
    std::string controlFileName;
    std::string controlFile;     // raw: L+1 bytes
    std::vector<std::string> controlLines;  // its lines without 0x02, 0x0A and 0x00
    std::string dataCommand;     // the first data file's subcommand, raw: 0x03 ... 0x0A
    std::string dataLength;      // its count as sent ("2147483647")
    std::string dataFileName;    // its name
    std::vector<LprDataFile> dataFiles;  // every data file, in order
    std::string data;            // the data files one after the other (empty unless storeData)
    uint64_t dataBytes = 0;
    uint64_t dataChecksum = kFnvOffset;  // FNV-1a 64 of the data
    uint64_t ignoredBytes = 0;   // read and dropped after a withheld ack or a nak
    uint64_t totalBytes = 0;     // every byte received on the connection
    int acks = 0;                // acks (0x00) sent: 4 for the monitor's job
    int step = 0;                // the step the exchange ended in, acks + 1 (5: the monitor's data)
    LprOutcome outcome = LprOutcome::ClientClosed;
    bool complete = false;       // outcome == Completed
    std::string error;           // what went wrong, for anything but Completed
};

struct LprCounters {
    uint64_t connectionsAccepted = 0;
    uint64_t connectionsOpen = 0;
    uint64_t emptyConnections = 0;  // closed without a byte: no job stored
    // [k]: acks of step k sent (index 0 unused; the last counts every later step too)
    uint64_t acksSent[8] = {};
    uint64_t naksSent = 0;
    uint64_t faultCloses = 0;
    uint64_t unanswered = 0;        // acks withheld by a silent server
    uint64_t protocolErrors = 0;
    uint64_t jobsCompleted = 0;
    uint64_t jobsBrokenOff = 0;     // every stored job that did not complete
    uint64_t bytesReceived = 0;
    uint64_t reads = 0;             // successful reads that returned bytes
    uint64_t largestRead = 0;
    bool listening = false;
    std::string listenError;        // why the last attempt to listen failed
};

// Called on the server's thread for each job as it is stored.
using JobObserver = std::function<void(const LprJob &job)>;

namespace detail {
class LprServer;
class MgmtServer;
class IpxServer;
class NbServer;
}

class Emulator {
public:
    Emulator();
    ~Emulator();  // stops
    Emulator(const Emulator &) = delete;
    Emulator &operator=(const Emulator &) = delete;

    // Binds every server (unless its faults say refuse) and starts them; on any
    // failure nothing runs and *error names the server and the reason.  A start
    // that succeeds drops the jobs and counters of the previous run.
    bool Start(std::vector<ServerConfig> servers, std::string *error);
    // Closes every listener and connection (open jobs are stored as Stopped) and
    // joins the threads.  What the servers saw stays readable until the next Start.
    void Stop();
    bool Running() const;

    // Set before Start; applies to the servers of the next Start.
    void SetJobObserver(JobObserver observer);

    std::vector<std::string> ServerNames() const;
    bool HasServer(const std::string &server) const;
    // The port the server's listener has (or last had) bound; 0 if unknown.
    uint16_t LprPort(const std::string &server) const;

    std::vector<LprJob> Jobs(const std::string &server) const;
    size_t JobCount(const std::string &server) const;
    // Waits until the server has stored at least count jobs; false on time-out.
    bool WaitForJobs(const std::string &server, size_t count, int timeoutMs) const;
    void ClearJobs(const std::string &server);
    LprCounters Counters(const std::string &server) const;

    LprFaults Faults(const std::string &server) const;
    // Takes effect before it returns (a refusing server has closed its listener,
    // a server no longer refusing listens again); the counts of count-limited
    // faults start afresh.  False with a message for an unknown server, invalid
    // faults, or a listener that cannot be opened again.
    bool SetLprFaults(const std::string &server, const LprFaults &faults,
                      std::string *error = nullptr);

    // ---- management datagrams and the device's address ----
    NodeId Node(const std::string &server) const;
    std::string Address(const std::string &server) const;
    // The server takes another address, as after a new lease: its LPR listener
    // moves there (open connections stay), and its status replies and EEPROM
    // image (unless that names a fixed address) report it.  The node stays.
    bool SetAddress(const std::string &server, const std::string &address,
                    std::string *error = nullptr);
    MgmtCounters ManagementCounters(const std::string &server) const;
    MgmtTraffic ManagementTraffic() const;
    MgmtFaults ManagementFaults(const std::string &server) const;
    bool SetManagementFaults(const std::string &server, const MgmtFaults &faults,
                             std::string *error = nullptr);

    // ---- IPX (ipx_server.cpp) ----
    // Set before Start; called for each IPX job as it ends.
    void SetIpxJobObserver(IpxJobObserver observer);
    // Every channel the server opened, in order, the open ones too.
    std::vector<IpxJob> IpxJobs(const std::string &server) const;
    IpxCounters IpxCountersOf(const std::string &server) const;
    IpxFaults IpxFaultsOf(const std::string &server) const;
    bool SetIpxFaults(const std::string &server, const IpxFaults &faults, std::string *error = nullptr);
    // ---- NetBIOS ----
    NbCounters NetbiosCounters(const std::string &server) const;
    NbTraffic NetbiosTraffic() const;
    bool SetNetbiosFaults(const std::string &server, const NbFaults &faults, std::string *error = nullptr);
    // Set before Start; called for each NetBIOS print channel job as it ends.
    void SetNetbiosJobObserver(ChannelJobObserver observer);
    // Every channel the server opened over NetBIOS, in order, the open ones too.
    std::vector<ChannelJob> NetbiosJobs(const std::string &server) const;

private:
    std::shared_ptr<detail::LprServer> Find(const std::string &server) const;
    std::shared_ptr<detail::MgmtServer> Management() const;
    std::shared_ptr<detail::IpxServer> Ipx() const;

    mutable std::mutex mu_;
    std::vector<std::shared_ptr<detail::LprServer>> servers_;
    std::shared_ptr<detail::MgmtServer> mgmt_;
    std::shared_ptr<detail::IpxServer> ipx_;
    std::shared_ptr<detail::NbServer> netbios_;
    JobObserver observer_;
    IpxJobObserver ipxObserver_;
    ChannelJobObserver netbiosObserver_;
    bool running_ = false;
};

// Checks a configuration's values; false with a message naming what is wrong.
bool ValidateFaults(const LprFaults &faults, std::string *error);
bool ValidateManagement(const ServerConfig &config, std::string *error);
bool ValidateChannelFaults(const ChannelFaults &faults, std::string *error);
bool ValidateIpxFaults(const IpxFaults &faults, std::string *error);

// The reply a server sends to a command, faults applied; empty when it
// answers nothing.  The node and address are the server's current ones.
std::string BuildMgmtReply(const ServerConfig &config, const NodeId &node,
                           const std::string &address, uint8_t command);
// A server's NetBIOS names: its announced name cut to 16 bytes, and the
// ".CFG" name the monitor forms from the short name in its search reply.
std::string NbName(const ServerConfig &config);
std::string NbCfgName(const ServerConfig &config);
// The same reply over NetBIOS: "PS" 80 00 in place of the node.
std::string BuildNbReply(const ServerConfig &config, const NodeId &node, const std::string &address,
                         uint8_t command);

}  // namespace kvtps
