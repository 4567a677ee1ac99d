// The fault matrix: a job on a port fixed to LPR (TCP/IP), IPX or NetBIOS, and
// on an automatic port, against each fault kvtps can show.  Every cell holds
// the monitor to its promise: what became of the job (delivered byte for byte,
// failed with which last error, fell over to which transport), how long it
// took in the monitor's own milliseconds against the bounds that its attempt
// limits, pauses and resend limits give, and what the print server counted.
//
//   fault_matrix [--short] [--only TEXT] [--write FILE]
//
// --short runs the cells marked for make test, --only those whose fault or
// transport contains TEXT; --write puts the table in FILE as markdown.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "channel.h"
#include "ipx.h"
#include "kvthost.h"
#include "kvtps.h"
#include "lpr.h"
#include "monitor.h"
#include "monitor_host.h"
#include "nbstartup.h"
#include "netbios.h"
#include "transport.h"

namespace {

// The monitor's constants, in its milliseconds, under the short names the
// bounds are written with.
constexpr double A = LPR_CONNECT_ATTEMPTS, P = LPR_PAUSE_MS, POLL = LPR_POLL_WAIT_MS, RW = LPR_RECV_WAIT_MS,
                 HW = LPR_HANDSHAKE_WAITS, SW = LPR_SEND_WAIT_MS, CLOSE = LPR_CLOSE_PAUSE_MS;
constexpr double W = IPX_WAIT_MS, SEARCHES = IPX_SEARCHES_AT_JOB_START, NBP = NB_PERIOD_MS, PAUSE = CHANNEL_PAUSE_MS,
                 R = CHANNEL_DATA_RESENDS, S = CHANNEL_DATA_RESENDS + 1,
                 BUSY = CHANNEL_BUSY_LIMIT + 1, WL = CHANNEL_WRITE_LIMIT + 1;
// The job: 66 channel frames, 16 LPR slices.
constexpr size_t kJobBytes = 65500;
constexpr size_t kFrames = (kJobBytes + CHANNEL_SLICE_BYTES - 1) / CHANNEL_SLICE_BYTES;
constexpr double FR = kFrames;
constexpr double SL = (kJobBytes + LPR_SLICE_BYTES - 1) / LPR_SLICE_BYTES;
// A job that goes well, from the start to the end of its job end.  LPR: the
// pause before the poll and the one after the close; at most a poll and a
// wait for writability per slice more.  IPX: a search pass (at least its last
// wait) and the pause after the hang-up; at most a pass with one reply, and a
// wait for writability and one for the reply of each frame.  NetBIOS: each
// frame answered within its first period.
constexpr double LPR_LO = P + CLOSE, LPR_HI = P + POLL + SL * SW + CLOSE;
constexpr double IPX_LO = W + PAUSE, IPX_HI = 3 * W + 2 * W * (FR + 2) + PAUSE;
constexpr double NB_LO = PAUSE, NB_HI = NBP * (FR + 2) + PAUSE;
// Fault settings given in the monitor's milliseconds.
constexpr double D1 = 1000, D3 = 4000, D600 = 600000, LATE = 700, TOO_LATE = 120000, CHUNK = 1024, RD = 100;
constexpr double GONE_AFTER = 16, GONE_FOR = 30;

enum Col { LPR, IPX, NB, AUTO };
const char *const kColName[] = {"LPR (TCP/IP)", "IPX", "NetBIOS", "automatic"};
const char *const kVia[] = {"TCPIP", "IPX", "NETBIOS"};
enum Out { DELIVERED, START_FAILS, WRITE_FAILS };

struct Bound {
    double ms;
    std::string text;
};
#define B(e) Bound{double(e), #e}

// What the print server counts for a cell, -1 where the cell does not say:
// LPR connections accepted; channel connects, data frames, hang-ups.
struct Counts {
    double conns = -1, connects = -1, frames = -1, hangups = -1;
};

// One fault (a row), and what it does to each transport it applies to.
struct Fault {
    const char *name;
    kvtps::LprFaults lpr;
    kvtps::ChannelFaults channel;
    double scale;             // KVT_TIMESCALE of its cells
    double lateMs = 0;        // channel replies this late
    bool otherSender = false;  // channel replies from another node or name
};

struct Cell {
    int fault;
    Col col;  // the transport the fault is on
    Out out;
    DWORD error;
    Bound lo, hi;
    Counts counts;
    bool inShort;
    const char *known = nullptr;  // a promise the monitor does not keep yet, and why
    bool automatic = false;       // on an automatic port
    const char *fellTo = nullptr;  // the transport it then falls over to
};
int Column(const Cell &c) { return c.automatic ? AUTO : c.col; }

kvtps::LprFaults Lpr(void (*set)(kvtps::LprFaults &)) {
    kvtps::LprFaults f;
    set(f);
    return f;
}
kvtps::ChannelFaults Ch(void (*set)(kvtps::ChannelFaults &)) {
    kvtps::ChannelFaults f;
    set(f);
    return f;
}
#define LF(body) Lpr([](kvtps::LprFaults &f) { body; })
#define CF(body) Ch([](kvtps::ChannelFaults &f) { body; })

const std::vector<Fault> kFaults = {
    {"refused", LF(f.refuse = true), {}, 0.005},
    {"silent (takes the connection, never answers)", LF(f.silent = true), {}, 0.002},
    {"closes before ack 1", LF(f.closeBeforeAck = 1), {}, 0.005},
    {"closes before ack 4", LF(f.closeBeforeAck = 4), {}, 0.005},
    {"non-zero ack 1", LF(f.nakAtStep = 1), {}, 0.01},
    {"non-zero ack 4", LF(f.nakAtStep = 4), {}, 0.01},
    {"slow reads (1 KiB per 100 ms)", LF(f.readChunk = CHUNK; f.recvBufferBytes = 4096), {}, 0.01},
    {"acks 1 s late", {}, {}, 0.01},
    {"acks 4 s late (three waits)", {}, {}, 0.01},
    {"acks 10 min late (past the header's 30 s of waits)", {}, {}, 0.002},
    {"gone mid-job (closes after 16 KiB)", LF(f.closeAfterBytes = 16384), {}, 0.01},
    {"back after 3 closed connects", LF(f.closeBeforeAck = 1; f.closeBeforeAckCount = 3), {}, 0.01},
    {"silent (answers no frame)", {}, CF(f.silent = true), 0.01},
    {"busy for 60 connects", {}, CF(f.busyAnswers = 60 * 21), 0.01},
    {"busy for 61 connects", {}, CF(f.busyAnswers = 61 * 21), 0.005},
    {"every 3rd data frame lost", {}, CF(f.dropDataEvery = 3), 0.01},
    {"every 3rd reply lost", {}, CF(f.dropReplyEvery = 3), 0.01},
    {"wrong Flags on every data reply", {}, CF(f.replyFlags = 0x81; f.faultReplies = kvtps::kReplyData), 0.002},
    {"wrong Sequence on 3 data replies", {}, CF(f.wrongSequence = true; f.faultReplies = kvtps::kReplyData;
                                                 f.faultCount = 3), 0.01},
    {"wrong Port on every reply", {}, CF(f.otherPort = true; f.faultReplies = kvtps::kReplyConnect |
                                                                               kvtps::kReplyData |
                                                                               kvtps::kReplyHangup), 0.01},
    {"replies 0.7 s late", {}, {}, 0.01, LATE},
    {"replies 2 min late (past 21 sends)", {}, {}, 0.01, TOO_LATE},
    {"gone mid-job (silent after 16 frames)", {}, CF(f.goneAfter = GONE_AFTER), 0.002},
    {"back after 30 unanswered frames", {}, CF(f.goneAfter = GONE_AFTER; f.goneFor = GONE_FOR), 0.01},
    {"replies from another node", {}, CF(f.faultReplies = kvtps::kReplyConnect | kvtps::kReplyData |
                                                             kvtps::kReplyHangup), 0.01, 0, true},
    {"replies from another name", {}, {}, 0.01, 0, true},
};

// Each LPR or channel cell; the automatic port's cells follow from them.
const std::vector<Cell> kCells = {
    {0, LPR, START_FAILS, ERROR_IO_DEVICE, B(A * P), B(A * (2 * P + POLL)), {.conns = 0}, true},
    {1, LPR, START_FAILS, ERROR_IO_DEVICE, B(A * (2 * P + HW * RW)), B(A * (2 * P + POLL + HW * RW)), {.conns = A}, true},
    {2, LPR, START_FAILS, ERROR_IO_DEVICE, B(A * 2 * P), B(A * (2 * P + POLL)), {.conns = A}, true},
    {3, LPR, START_FAILS, ERROR_IO_DEVICE, B(A * 2 * P), B(A * (2 * P + POLL)), {.conns = A}, false},
    {4, LPR, START_FAILS, ERROR_IO_DEVICE, B(P), B(P + POLL), {.conns = 1}, true},
    {5, LPR, START_FAILS, ERROR_IO_DEVICE, B(P), B(P + POLL), {.conns = 1}, false},
    {6, LPR, DELIVERED, 0, B(LPR_LO), B(LPR_HI + kJobBytes / CHUNK * RD), {.conns = 1}, true},
    {7, LPR, DELIVERED, 0, B(LPR_LO + 4 * D1), B(LPR_HI + 4 * RW), {.conns = 1}, true},
    {8, LPR, DELIVERED, 0, B(LPR_LO + 4 * D3), B(LPR_HI + 4 * 3 * RW), {.conns = 1}, false},
    {9, LPR, START_FAILS, ERROR_IO_DEVICE, B(A * (2 * P + HW * RW)), B(A * (2 * P + POLL + HW * RW)), {.conns = A}, false},
    {10, LPR, WRITE_FAILS, ERROR_WRITE_FAULT, B(LPR_LO), B(LPR_HI), {.conns = 1}, true},
    {11, LPR, DELIVERED, 0, B(3 * 2 * P + LPR_LO), B(3 * (2 * P + POLL) + LPR_HI), {.conns = 4}, true},
    {12, IPX, START_FAILS, ERROR_IO_DEVICE, B(SEARCHES * W + S * W + PAUSE), B(SEARCHES * 2 * W + S * 2 * W + PAUSE),
     {.connects = S, .frames = 0}, true},
    {12, NB, START_FAILS, ERROR_IO_DEVICE, B(R * NBP + PAUSE), B(S * NBP + PAUSE), {.connects = S, .frames = 0}, true},
    {13, IPX, DELIVERED, 0, B(60 * (R * PAUSE + PAUSE) + IPX_LO), B(60 * (R * PAUSE + S * 2 * W + PAUSE) + IPX_HI),
     {.connects = 60 * S + 1, .frames = FR, .hangups = 1}, false},
    {13, NB, DELIVERED, 0, B(60 * (R * NBP + PAUSE) + NB_LO), B(60 * (S * NBP + PAUSE) + NB_HI),
     {.connects = 60 * S + 1, .frames = FR, .hangups = 1}, false},
    {14, IPX, START_FAILS, ERROR_BUSY, B(BUSY * (R * PAUSE + PAUSE)), B(W * 3 + BUSY * (R * PAUSE + S * 2 * W + PAUSE)),
     {.connects = BUSY * S, .frames = 0}, false},
    {14, NB, START_FAILS, ERROR_BUSY, B(BUSY * (R * NBP + PAUSE)), B(BUSY * (S * NBP + PAUSE)),
     {.connects = BUSY * S, .frames = 0}, true},
    {15, IPX, DELIVERED, 0, B(IPX_LO + (kFrames - 1) / 2 * W), B(IPX_HI + FR / 2 * 2 * W), {.connects = 1, .frames = FR + (kFrames - 1) / 2}, true},
    {15, NB, DELIVERED, 0, B(NB_LO + (kFrames - 1) / 2 * NBP), B(NB_HI + FR / 2 * NBP), {.connects = 1, .frames = FR + (kFrames - 1) / 2}, false},
    {16, IPX, DELIVERED, 0, B(IPX_LO + FR / 3 * W), B(IPX_HI + FR * 2 * W), {.connects = 1}, false},
    {16, NB, DELIVERED, 0, B(NB_LO + FR / 3 * NBP), B(NB_HI + FR * NBP), {.connects = 1}, true},
    {17, IPX, WRITE_FAILS, ERROR_WRITE_FAULT, B(WL * PAUSE),
     B(IPX_HI + WL * (S * 2 * W + PAUSE)), {.connects = 1, .frames = WL * S, .hangups = 0}, true},
    {17, NB, WRITE_FAILS, ERROR_WRITE_FAULT, B(WL * (R * NBP + PAUSE)), B(NB_HI + WL * (S * NBP + PAUSE)),
     {.connects = 1, .frames = WL * S, .hangups = 0}, false},
    {18, IPX, DELIVERED, 0, B(IPX_LO), B(IPX_HI + 3 * 2 * W), {.connects = 1, .frames = FR + 3}, false},
    {18, NB, DELIVERED, 0, B(NB_LO + 3 * NBP), B(NB_HI + 3 * NBP), {.connects = 1, .frames = FR + 3}, true},
    {19, IPX, START_FAILS, ERROR_IO_DEVICE, B(W + PAUSE), B(3 * W + S * 2 * W + PAUSE), {.connects = S}, true},
    {19, NB, START_FAILS, ERROR_IO_DEVICE, B(R * NBP + PAUSE), B(S * NBP + PAUSE), {.connects = S}, false},
    {20, IPX, DELIVERED, 0, B(SEARCHES * W + (FR + 2) * LATE + PAUSE), B(SEARCHES * 2 * W + (FR + 2) * 4 * W + PAUSE),
     {.connects = 1, .frames = FR, .hangups = 1}, true},
    {20, NB, DELIVERED, 0, B((FR + 2) * LATE + PAUSE), B((FR + 2) * 2 * NBP + PAUSE),
     {.connects = 1, .frames = FR, .hangups = 1}, false},
    {21, IPX, START_FAILS, ERROR_IO_DEVICE, B(SEARCHES * W + S * W + PAUSE), B(SEARCHES * 2 * W + S * 2 * W + PAUSE),
     {.connects = S}, false},
    {21, NB, START_FAILS, ERROR_IO_DEVICE, B(R * NBP + PAUSE), B(S * NBP + PAUSE), {.connects = S}, true},
    {22, IPX, WRITE_FAILS, ERROR_WRITE_FAULT, B(WL * (S * W + PAUSE)), B(IPX_HI + WL * (S * 2 * W + PAUSE)),
     {.connects = 1, .frames = GONE_AFTER + WL * S, .hangups = 0}, false},
    {22, NB, WRITE_FAILS, ERROR_WRITE_FAULT, B(WL * (R * NBP + PAUSE)), B(NB_HI + WL * (S * NBP + PAUSE)),
     {.connects = 1, .frames = GONE_AFTER + WL * S, .hangups = 0}, true},
    {23, IPX, DELIVERED, 0, B(IPX_LO + GONE_FOR * W + PAUSE), B(IPX_HI + GONE_FOR * 2 * W + PAUSE),
     {.connects = 1, .frames = FR + GONE_FOR, .hangups = 1}, true},
    {23, NB, DELIVERED, 0, B(NB_LO + (GONE_FOR - 1) * NBP + PAUSE), B(NB_HI + GONE_FOR * NBP + PAUSE),
     {.connects = 1, .frames = FR + GONE_FOR, .hangups = 1}, false},
    {24, IPX, DELIVERED, 0, B(IPX_LO), B(IPX_HI), {.connects = 1, .frames = FR, .hangups = 1}, true},
    {25, NB, DELIVERED, 0, B(NB_LO), B(NB_HI), {.connects = 1, .frames = FR, .hangups = 1}, true},
};

// The automatic port's cell: the faulty transport goes first (an automatic
// port begins with the one that last worked), and when its job start fails
// the job falls over to the next, which is sound.  Its time adds that job.
Cell Automatic(const Cell &c) {
    Cell a = c;
    a.automatic = true;
    a.inShort = false;
    if (c.out == START_FAILS) {
        const bool toIpx = c.col != IPX;
        a.fellTo = kVia[toIpx ? IPX : LPR];
        a.out = DELIVERED;
        a.error = 0;
        a.lo = {c.lo.ms + (toIpx ? IPX_LO : LPR_LO), c.lo.text + (toIpx ? " + IPX_LO" : " + LPR_LO")};
        a.hi = {c.hi.ms + (toIpx ? IPX_HI : LPR_HI), c.hi.text + (toIpx ? " + IPX_HI" : " + LPR_HI")};
    }
    return a;
}

struct Result {
    std::string outcome, counts;
    double ms = 0;
    bool ok = true;
    std::string why;  // what did not hold
};

std::string JobData() {
    std::string data(kJobBytes, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 % 251);
    return data;
}

// Polls what the server saw until it holds (a datagram may still be on its
// way), for at most two seconds.
template <typename F>
bool Within2s(F holds) {
    for (int i = 0; i < 200 && !holds(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return holds();
}

Result Run(const Cell &c) {
    const Fault &f = kFaults[c.fault];
    const Col on = c.col;
    Result r;
    kvttest::HostOptions host;
    host.tcpip = on == LPR || c.automatic;
    host.ipx = on == IPX || c.automatic;
    host.netbios = on == NB || c.automatic;
    host.timeScale = f.scale;
    auto testHost = std::make_unique<kvttest::TestHost>(host);
    const uint8_t protocol = c.automatic ? PROTOCOL_AUTO : on == LPR ? PROTOCOL_TCPIP : on == IPX ? PROTOCOL_IPX
                                                                                            : PROTOCOL_NETBIOS;
    kvttest::MakePortKeys(u"PS1", u'1', 0x7F000002, protocol, nullptr);
    InitializePrintMonitor(nullptr);
    PINIPORT port = PortListHead;
    const BYTE node[6] = {0, 0, 0x7F, 0, 0, 2};
    std::memcpy(port->NodeID, node, 6);
    port->WorkProtocol = !c.automatic || on == LPR ? 0 : on == IPX ? PROTOCOL_IPX : PROTOCOL_NETBIOS;
    kvthost::JobSpec job;
    job.printer = u"Office";
    job.jobId = 7;
    job.document = u"report";
    job.user = u"guest";
    kvthost::AddJob(job);
    kvthost::SetComputerName("pc1.lan");

    kvtps::ServerConfig server;
    server.name = "PS1";
    if (on == LPR) {
        server.lpr = f.lpr;
        const double delay = c.fault == 7 ? D1 : c.fault == 8 ? D3 : c.fault == 9 ? D600 : 0;
        server.lpr.ackDelayMs = static_cast<int>(delay * f.scale + 0.5);
        if (f.lpr.readChunk) server.lpr.readDelayMs = static_cast<int>(RD * f.scale + 0.5);
    } else if (on == IPX) {
        static_cast<kvtps::ChannelFaults &>(server.ipxFaults) = f.channel;
        server.ipxFaults.delayMs = static_cast<int>(f.lateMs * f.scale + 0.5);
        if (f.otherSender) server.ipxFaults.replyNode = kvtps::NodeId{0, 0, 0x7F, 0, 0, 9};
    }
    kvtps::Emulator emulator;
    std::string error;
    if (!emulator.Start({server}, &error)) return {"emulator: " + error, "", 0, false, "the emulator did not start"};
    // NetBIOS starts up against a sound server (its search is answered), and
    // the print channel's fault follows.
    if (host.netbios) bStartup = NBStartup();
    if (on == NB) {
        kvtps::NbFaults nb;
        nb.channel = f.channel;
        nb.lateMs = static_cast<int>(f.lateMs);
        if (f.otherSender) nb.replyName = "PS9";
        emulator.SetNetbiosFaults("PS1", nb);
    }

    const std::string data = JobData();
    SetLastError(0xdeadbeef);
    const DWORD t0 = GetTickCount();
    bool started = LocalmonStartDocPort(port, const_cast<LPWSTR>(u"Office"), 7, 1, nullptr);
    DWORD lastError = started ? 0 : GetLastError();
    bool written = false;
    if (started) {
        // In two buffers, as the spooler hands them over; a server that goes
        // away mid-job has gone by the second.
        size_t done = 0;
        written = true;
        for (size_t end : {data.size() / 2, data.size()}) {
            while (done < end && written) {
                DWORD n = 0;
                written = LocalmonWritePort(port, reinterpret_cast<LPBYTE>(const_cast<char *>(data.data() + done)),
                                            static_cast<DWORD>(end - done), &n);
                done += n;
            }
            if (on == LPR && f.lpr.closeAfterBytes) Within2s([&] { return emulator.Counters("PS1").faultCloses > 0; });
        }
        if (!written) lastError = GetLastError();
        LocalmonEndDocPort(port);
    }
    r.ms = GetTickCount() - t0;

    std::string via;
    for (const auto &line : kvttest::LogLines())
        if (line.rfind("Printing use ", 0) == 0) via = line.substr(13);
    std::string got;
    if (via == "TCPIP" && Within2s([&] { return emulator.JobCount("PS1") > 0; }))
        for (const auto &j : emulator.Jobs("PS1")) got = j.complete ? j.data : got;
    auto channelJob = [&](const std::vector<kvtps::ChannelJob> &jobs) {
        for (const auto &j : jobs) got = j.hungUp ? j.data : got;
    };
    if (via == "IPX") channelJob(emulator.IpxJobs("PS1"));
    if (via == "NETBIOS") channelJob(emulator.NetbiosJobs("PS1"));
    const bool delivered = started && written && got == data;

    const Out out = delivered ? DELIVERED : !started ? START_FAILS : WRITE_FAILS;
    const std::string fellOver = c.automatic && via != kVia[on] ? "fell over to " + via + ", " : "";
    r.outcome = out == DELIVERED      ? fellOver + "delivered intact"
                : out == START_FAILS ? "start failed " + std::to_string(lastError) + " (" + via + ")"
                                     : "write failed " + std::to_string(lastError);
    auto fail = [&](const std::string &why) { r.ok = false, r.why += (r.why.empty() ? "" : "; ") + why; };
    if (out != c.out || (out != DELIVERED && lastError != c.error)) fail("outcome");
    if (started && out == DELIVERED && !written) fail("write");
    if (via != (c.fellTo ? c.fellTo : kVia[on])) fail("transport");
    if (port->Status != 0 || kvthost::OpenPrinterHandles() != 0) fail("port left busy");

    // Counts, once what was sent has arrived.
    Counts seen;
    auto read = [&] {
        if (on == LPR) {
            seen.conns = static_cast<double>(emulator.Counters("PS1").connectionsAccepted);
        } else {
            const kvtps::ChannelCounters ch =
                on == IPX ? emulator.IpxCountersOf("PS1") : emulator.NetbiosCounters("PS1").channel;
            seen.connects = double(ch.connects), seen.frames = double(ch.dataFrames), seen.hangups = double(ch.hangups);
        }
        // Exact where the job never starts; once the server has answered, a
        // reply slow on a loaded machine may cost a send more.
        auto same = [&](double want, double got) {
            return want < 0 || want == got || (c.out != START_FAILS && got > want);
        };
        return same(c.counts.conns, seen.conns) && same(c.counts.connects, seen.connects) &&
               same(c.counts.frames, seen.frames) && same(c.counts.hangups, seen.hangups);
    };
    if (!Within2s(read)) fail("counts");
    auto n = [](double v) { return std::to_string(static_cast<long long>(v)); };
    r.counts = on == LPR ? n(seen.conns) + " connections"
                         : n(seen.connects) + " connects, " + n(seen.frames) +
                               " data frames, " + n(seen.hangups) + " hang-ups";
    // Time: never shorter than the monitor's own pauses add up to, never
    // longer than its limits allow, with room for what a loaded machine adds
    // to each of its many short waits (as much again, and five seconds of
    // real time).
    if (r.ms < c.lo.ms) fail("too soon");
    if (r.ms > 2 * c.hi.ms + 5000 / f.scale) fail("too late");
    if (!r.ok && std::getenv("KVT_MATRIX_LOG"))  // the monitor's log of a cell that does not hold
        for (const auto &line : kvttest::LogLines()) std::fprintf(stderr, "  | %s\n", line.c_str());
    emulator.Stop();
    return r;
}

std::string Seconds(double ms) {
    char text[32];
    std::snprintf(text, sizeof text, ms < 10000 ? "%.2f s" : "%.0f s", ms / 1000);
    return text;
}

}  // namespace

int main(int argc, char **argv) {
    bool shortForm = false;
    std::string only, writeTo;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--short") shortForm = true;
        else if (a == "--only" && i + 1 < argc) only = argv[++i];
        else if (a == "--write" && i + 1 < argc) writeTo = argv[++i];
        else return std::fprintf(stderr, "usage: fault_matrix [--short] [--only TEXT] [--write FILE]\n"), 2;
    }
    std::string error;
    if (!kvthost::EnterPrivateNetwork(&error)) return std::fprintf(stderr, "private network: %s\n", error.c_str()), 2;

    std::vector<Cell> cells;
    // One automatic cell a fault: from its IPX cell where it has one.
    for (const Cell &c : kCells) {
        cells.push_back(c);
        if (c.col != NB || std::none_of(kCells.begin(), kCells.end(), [&](const Cell &o) {
                return o.fault == c.fault && o.col == IPX;
            }))
            cells.push_back(Automatic(c));
    }
    std::vector<std::pair<Cell, Result>> done;
    int failed = 0, known = 0;
    const auto begin = std::chrono::steady_clock::now();
    for (const Cell &c : cells) {
        const std::string label = std::string(kFaults[c.fault].name) + " / " + kColName[Column(c)];
        if ((shortForm && !c.inShort) || label.find(only) == std::string::npos) continue;
        Result r = Run(c);
        if (!r.ok && c.known) r.why = std::string("known: ") + c.known, ++known;
        else if (!r.ok) ++failed;
        std::printf("%-60s %-8s %s; %s in [%s, %s]; %s%s%s\n", label.c_str(), r.ok ? "ok" : c.known ? "KNOWN" : "FAIL",
                    r.outcome.c_str(), Seconds(r.ms).c_str(), Seconds(c.lo.ms).c_str(), Seconds(c.hi.ms).c_str(),
                    r.counts.c_str(), r.ok ? "" : " -- ", r.why.c_str());
        std::fflush(stdout);
        done.emplace_back(c, r);
    }
    const double minutes = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() / 60;
    std::printf("%zu cells, %zu hold, %d known, %d fail, %.1f minutes\n", done.size(),
                done.size() - failed - known, known, failed, minutes);
    if (!writeTo.empty()) {
        std::ofstream md(writeTo);
        char date[32];
        const std::time_t now = std::time(nullptr);
        std::strftime(date, sizeof date, "%Y-%m-%d", std::gmtime(&now));
        md << "# The fault matrix\n\nMade by `make faults` (`build/bin/fault_matrix --write docs/faults.md`) on "
           << date << ": " << done.size() << " cells, " << done.size() - failed - known << " hold, " << known
           << " known, " << failed << " fail, in " << static_cast<int>(minutes + 0.5)
           << " minutes. Each fault runs at its own `KVT_TIMESCALE` (below); times are the monitor's, "
              "the time measured divided by the timescale, from the job start to the end of the job end.\n\n"
              "A cell holds when the job ends as it must (delivered byte for byte, or failed with that last "
              "error, or fallen over to the next transport), the port is free again, the print server counted "
              "what it must, and the time lies between the bounds: never below what the monitor's own pauses "
              "add up to, never above what its limits allow, with room for what a loaded machine adds to "
              "each of the monitor's many short waits (up to twice the bound and five seconds of real time): "
              "a time above the upper bound is that machine's, a time below the lower one would be the monitor's. The automatic port begins with the faulty transport (the one "
              "that last worked) and falls over to a sound one.\n\n| fault | scale |";
        for (const char *col : kColName) md << " " << col << " |";
        md << "\n|---|---|---|---|---|---|\n";
        for (size_t fi = 0; fi < kFaults.size(); ++fi) {
            md << "| " << kFaults[fi].name << " | " << kFaults[fi].scale << " |";
            for (int col = LPR; col <= AUTO; ++col) {
                md << (std::none_of(done.begin(), done.end(), [&](const auto &d) {
                          return d.first.fault == static_cast<int>(fi) && Column(d.first) == col;
                      }) ? " -" : " ");
                for (const auto &[c, r] : done)
                    if (c.fault == static_cast<int>(fi) && Column(c) == col)
                        md << r.outcome << "<br>" << Seconds(r.ms) << " in [" << Seconds(c.lo.ms) << ", "
                           << Seconds(c.hi.ms) << "]<br>" << r.counts << "<br>"
                           << (r.ok ? "**ok**" : c.known ? "**known**: " : "**FAIL**: ") << r.why;
                md << " |";
            }
            md << "\n";
        }
        md << "\n## Bounds\n\nIn the monitor's milliseconds, from its constants: A = " << A << " LPR connect attempts, "
           << "P = " << P << " ms pause, POLL = " << POLL << " ms connect poll, RW = " << RW << " ms wait for an ack, "
           << "HW = " << HW << " waits of a header step, SW = " << SW << " ms wait for writability, CLOSE = " << CLOSE
           << " ms pause after the close; W = " << W << " ms IPX wait, SEARCHES = " << SEARCHES
           << " searches at an IPX job start, NBP = " << NBP << " ms NetBIOS period, PAUSE = " << PAUSE
           << " ms channel pause, R = " << R << " resends (S = " << S << " sends), BUSY = " << BUSY
           << " busy answers, WL = " << WL << " failed data operations; the job has FR = " << FR
           << " frames, SL = " << SL << " LPR slices. A sound job: LPR_LO = P + CLOSE, LPR_HI = P + POLL + SL * SW + CLOSE, "
              "IPX_LO = W + PAUSE, IPX_HI = 3 * W + 2 * W * (FR + 2) + PAUSE, NB_LO = PAUSE, NB_HI = NBP * (FR + 2) + "
              "PAUSE. Faults: D1, D3, D600 acks 1 s, 4 s and 10 min late, LATE and TOO_LATE replies 0.7 s and 2 min late, "
              "CHUNK and RD the slow reader's 1024 bytes per 100 ms, GONE_AFTER 16 frames, GONE_FOR 30 frames.\n\n"
              "| fault | transport | lower bound | upper bound |\n|---|---|---|---|\n";
        for (const auto &[c, r] : done)
            md << "| " << kFaults[c.fault].name << " | " << kColName[Column(c)] << " | `" << c.lo.text << "` | `"
               << c.hi.text << "` |\n";
    }
    return failed == 0 ? 0 : 1;
}
