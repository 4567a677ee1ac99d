// The kvt backend under a real CUPS: cupsd from Debian's packages, started by
// scripts/cupsd-here.sh as the test's own user inside the private network,
// with a configuration, spool and backend folder of the test's.
// Queues are made with lpadmin on kvt:// URIs, jobs printed with lp and
// cancelled with cancel, and lpinfo lists what the backend finds.  Without
// CUPS the tests are skipped with a notice.
#include <algorithm>

#include "kvt_uri.h"
#include "kvtmon_run.h"

namespace {

namespace fs = std::filesystem;
using kvttest::Eventually;

const char *const kCupsd = "/usr/sbin/cupsd";

class Cups : public kvttest::KvtmonTest {
protected:
    static void SetUpTestSuite() {
        for (const char *tool : {kCupsd, "/usr/sbin/lpadmin", "/usr/sbin/lpinfo", "/usr/bin/lp", "/usr/bin/lpstat",
                                 "/usr/bin/cancel", "/usr/lib/cups/daemon/cups-deviced"})
            if (access(tool, X_OK) != 0) missing_ = tool;
    }

    void SetUp() override {
        if (!missing_.empty()) {
            std::fprintf(stderr, "NOTICE: %s is not installed (Debian's cups, cups-daemon, cups-client), so the "
                                 "tests of the kvt backend under CUPS are skipped\n", missing_.c_str());
            GTEST_SKIP() << missing_ << " is not installed";
        }
        KvtmonTest::SetUp();
        fs::create_directories(dir_ + "/bin/backend");
        // The backend as the README installs it, into the test's folders.
        kvttest::ProgramRun installed = Run({KVT_SOURCE_DIR "/scripts/cups.sh", "install", "--prefix",
                                             dir_ + "/prefix", "--libdir", dir_ + "/lib", "--backend-dir",
                                             dir_ + "/bin/backend", "--from", KVT_BIN_DIR});
        ASSERT_EQ(installed.status, 0) << installed.out;
        // PS1 prints to "lpt1"; PS2 names its own queues.
        kvtps::ServerConfig ps1 = kvttest::Server("PS1", "127.0.0.2"), ps2 = kvttest::Server("PS2", "127.0.0.3");
        ps1.type = 0;
        ps2.model = 3;
        ps2.queueTexts[2] = "draft&3 P3";
        StartServers({ps1, ps2});
        // cupsd as the README runs one of one's own (the test is in the private network).
        std::vector<std::string> args = {KVT_SOURCE_DIR "/scripts/cupsd-here.sh", dir_,
                                         std::string("KVT_TIMESCALE=") + timeScale_};
        std::vector<char *> argv;
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        ASSERT_EQ(posix_spawn(&cupsd_, argv[0], nullptr, nullptr, argv.data(), environ), 0);
        setenv("CUPS_SERVER", (dir_ + "/cups.sock").c_str(), 1);
        ASSERT_TRUE(Eventually([&] { return Run({"lpstat", "-r"}).out.find("is running") != std::string::npos; }))
            << "cupsd did not start: " << kvttest::Slurp(dir_ + "/log/error_log");
    }

    void TearDown() override {
        if (cupsd_ > 0) {
            kill(cupsd_, SIGTERM);
            waitpid(cupsd_, nullptr, 0);
        }
        if (HasFailure()) std::fprintf(stderr, "%s\n", kvttest::Slurp(dir_ + "/log/error_log").c_str());
        KvtmonTest::TearDown();
    }

    // A command of CUPS's, its output and errors in one text.
    kvttest::ProgramRun Run(std::vector<std::string> args) {
        kvttest::ProgramRun ran = kvttest::RunProgram(std::move(args));
        ran.out += ran.err;
        return ran;
    }

    void AddQueue(const std::string &queue, const std::string &uri) {
        kvttest::ProgramRun r = Run({"lpadmin", "-p", queue, "-E", "-v", uri, "-m", "raw"});
        ASSERT_EQ(r.status, 0) << r.out;
    }
    // lp's job id ("KVT1-3"), of a file with these bytes.
    std::string Print(const std::string &queue, const std::string &bytes, int copies = 1) {
        std::ofstream(dir_ + "/job.prn", std::ios::binary) << bytes;
        kvttest::ProgramRun r = Run({"lp", "-d", queue, "-n", std::to_string(copies), dir_ + "/job.prn"});
        size_t at = r.out.find("request id is ");
        EXPECT_NE(at, std::string::npos) << r.out;
        return at == std::string::npos ? "" : r.out.substr(at + 14, r.out.find(' ', at + 14) - at - 14);
    }
    bool Completed(const std::string &job) {
        return Run({"lpstat", "-W", "completed", "-o"}).out.find(job + " ") != std::string::npos;
    }
    // What the state of the job's queue says ("... Waiting for ...").
    std::string QueueState(const std::string &queue) { return Run({"lpstat", "-l", "-p", queue}).out; }

    static std::string Bytes(size_t n, unsigned seed) {
        std::string s(n, '\0');
        for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + seed * 7 + i / 251) & 0xFF);
        return s;
    }

    static inline std::string missing_;
    pid_t cupsd_ = -1;
};

// A job printed with lp arrives at the print server byte for byte, over each
// transport, its copies in one job, with CUPS's title in its control file over LPR;
// and one printed by CUPS's own lpd backend arrives whole too.
TEST_F(Cups, AJobPrintedWithLpArrivesWholeOverEachTransport) {
    const struct {
        const char *protocol;
        std::vector<std::string> (*stored)(kvtps::Emulator &);
    } kTransports[] = {
        {"tcpip", [](kvtps::Emulator &e) { std::vector<std::string> v; for (auto &j : e.Jobs("PS2")) if (j.complete) v.push_back(j.data); return v; }},
        {"ipx", [](kvtps::Emulator &e) { std::vector<std::string> v; for (auto &j : e.IpxJobs("PS2")) if (j.hungUp) v.push_back(j.data); return v; }},
        {"netbios", [](kvtps::Emulator &e) { std::vector<std::string> v; for (auto &j : e.NetbiosJobs("PS2")) if (j.hungUp) v.push_back(j.data); return v; }},
    };
    unsigned seed = 1;
    for (const auto &t : kTransports) {
        SCOPED_TRACE(t.protocol);
        const std::string queue = std::string("KVT_") + t.protocol;
        AddQueue(queue, std::string("kvt://PS2/P2?protocol=") + t.protocol + "&queue=lpt2");
        const std::string data = Bytes(100 * 1024 + seed, seed);
        const std::string job = Print(queue, data, static_cast<int>(seed));
        ASSERT_TRUE(Eventually([&] { return Completed(job); })) << QueueState(queue);
        ASSERT_TRUE(Eventually([&] { return t.stored(emulator_).size() == 1; }));
        std::string copies;
        for (unsigned c = 0; c < seed; ++c) copies += data;
        EXPECT_TRUE(t.stored(emulator_)[0] == copies) << seed << " copies";
        ++seed;
    }
    std::vector<kvtps::LprJob> lpr = emulator_.Jobs("PS2");
    ASSERT_EQ(lpr.size(), 1u);
    EXPECT_EQ(lpr[0].queue, "lpt2");
    EXPECT_NE(std::find(lpr[0].controlLines.begin(), lpr[0].controlLines.end(), "Jjob.prn"),
              lpr[0].controlLines.end());
    // CUPS's own lpd backend prints to the same emulated print server.
    AddQueue("LPD", "lpd://127.0.0.3/lpt1");
    const std::string data = Bytes(70000, 9), job = Print("LPD", data);
    ASSERT_TRUE(Eventually([&] { return Completed(job); })) << QueueState("LPD");
    ASSERT_TRUE(Eventually([&] { return emulator_.Jobs("PS2").size() == 2; }));
    EXPECT_TRUE(emulator_.Jobs("PS2")[1].complete && emulator_.Jobs("PS2")[1].data == data);
}

// lpinfo -v (CUPS's device listing, which the web interface's Add Printer shows)
// lists every printer port of the emulated print servers, with the queue names
// of a print server that names its own; a queue made from a line prints there.
TEST_F(Cups, LpinfoListsThePrintServersPortsAndTheirOwnQueues) {
    const std::string devices = Run({"lpinfo", "-v"}).out;
    for (const char *uri : {"network kvt://PS1/P1\n", "network kvt://PS2/P1?queue=lpt1\n",
                            "network kvt://PS2/P2?queue=lpt2\n", "network kvt://PS2/P3?queue=draft%263\n"})
        EXPECT_TRUE(kvttest::Holds(devices, uri)) << devices;
    EXPECT_EQ(devices.find("kvt://PS1/P2"), std::string::npos) << "PS1 has one printer port";
    EXPECT_TRUE(kvttest::Holds(Run({"lpinfo", "-l", "-v"}).out, "KVT PS2 port P3 (127.0.0.3, queue draft&3)"));

    const size_t at = devices.find("kvt://PS2/P3");
    ASSERT_NE(at, std::string::npos);
    AddQueue("LISTED", devices.substr(at, devices.find('\n', at) - at));
    const std::string job = Print("LISTED", Bytes(3000, 5));
    ASSERT_TRUE(Eventually([&] { return Completed(job); })) << QueueState("LISTED");
    ASSERT_TRUE(Eventually([&] { return emulator_.Jobs("PS2").size() == 1; }));
    EXPECT_EQ(emulator_.Jobs("PS2")[0].queue, "draft&3");
}

// With the monitor's waits less shrunk: a print server busy for minutes.
class CupsSlower : public Cups {
protected:
    CupsSlower() { timeScale_ = "0.05"; }
};

// A job cancelled with cancel while the print server answers busy ends at once,
// through the monitor's own deletion test; a print server that is off leaves
// the job to be tried again.
TEST_F(CupsSlower, ACancelledJobEndsAndAnUnreachableServerLeavesTheJobForRetry) {
    kvtps::IpxFaults busy;
    busy.busyAnswers = 1000000;
    ASSERT_TRUE(emulator_.SetIpxFaults("PS1", busy));
    AddQueue("BUSY", "kvt://PS1/P1?protocol=ipx");
    const std::string busyJob = Print("BUSY", Bytes(5000, 3));
    ASSERT_TRUE(Eventually([&] { return QueueState("BUSY").find("busy or not answering") != std::string::npos; }))
        << QueueState("BUSY");
    ASSERT_EQ(Run({"cancel", busyJob}).status, 0);
    ASSERT_TRUE(Eventually([&] { return Completed(busyJob); }));
    // The backend ends (CUPS shows the job cancelled before): the print server
    // hears no more connects, long before the monitor's 61 x 21 busy ones.
    EXPECT_TRUE(Eventually([&] {
        const uint64_t connects = emulator_.IpxCountersOf("PS1").connects;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        return emulator_.IpxCountersOf("PS1").connects == connects;
    })) << "the monitor went on after the cancel";
    EXPECT_LT(emulator_.IpxCountersOf("PS1").connects, 61u * 21u) << "the job start ran to its end";
    EXPECT_EQ(emulator_.IpxCountersOf("PS1").hangups, 0u);

    AddQueue("OFF", "kvt://127.0.0.9/P1?protocol=tcpip");
    const std::string offJob = Print("OFF", "to nobody");
    ASSERT_TRUE(Eventually([&] { return QueueState("OFF").find("cannot be reached") != std::string::npos; }))
        << QueueState("OFF");
    EXPECT_FALSE(Completed(offJob));
    EXPECT_TRUE(kvttest::Holds(Run({"lpstat", "-o", "OFF"}).out, offJob)) << "the job waits for its retry";
}

// The device URI: what the backend takes, and the message for what it refuses.
TEST(DeviceUri, TakesServerPortProtocolAndQueueAndRefusesTheRest) {
    const struct {
        const char *uri;
        const char *server;  // nullptr: refused, with a message holding `why`
        int port;
        uint8_t protocol;
        const char *queue;
        const char *why;
    } kCases[] = {
        {"kvt://PS1/P1", "PS1", 1, kvtcups::kProtocolAuto, nullptr, nullptr},
        {"kvt://PS%202/p3?protocol=netbios&queue=lpt3", "PS 2", 3, kvtcups::kProtocolNetbios, "lpt3", nullptr},
        {"kvt://127.0.0.2/P2?queue=a%26b&protocol=tcpip&", "127.0.0.2", 2, kvtcups::kProtocolTcpip, "a&b", nullptr},
        {"lpd://PS1/P1", nullptr, 0, 0, nullptr, "kvt://"},
        {"kvt://PS1", nullptr, 0, 0, nullptr, "no port"},
        {"kvt://PS1/P4", nullptr, 0, 0, nullptr, "P1, P2 or P3"},
        {"kvt:///P1", nullptr, 0, 0, nullptr, "print server"},
        {"kvt://PS%0A1/P1", nullptr, 0, 0, nullptr, "print server"},
        {"kvt://PS1/P1?protocol=appletalk", nullptr, 0, 0, nullptr, "protocol"},
        {"kvt://PS1/P1?queue=0123456789012345678901234567890123", nullptr, 0, 0, nullptr, "31 characters"},
        {"kvt://PS1/P1?colour=blue", nullptr, 0, 0, nullptr, "other than"},
        {"kvt://PS1/P1?queue", nullptr, 0, 0, nullptr, "without a value"},
    };
    for (const auto &c : kCases) {
        kvtcups::DeviceUri uri;
        std::string error;
        const bool taken = kvtcups::ParseDeviceUri(c.uri, &uri, &error);
        ASSERT_EQ(taken, c.server != nullptr) << c.uri << ": " << error;
        if (!taken) {
            EXPECT_TRUE(kvttest::Holds(error, c.why)) << c.uri;
            continue;
        }
        EXPECT_EQ(uri.server, c.server) << c.uri;
        EXPECT_EQ(uri.port, c.port) << c.uri;
        EXPECT_EQ(uri.protocol, c.protocol) << c.uri;
        EXPECT_EQ(uri.queue.value_or("(none)"), c.queue != nullptr ? c.queue : "(none)") << c.uri;
        const std::optional<std::string> queue = uri.queue;  // the listing's URI of the port reads back
        EXPECT_TRUE(kvtcups::ParseDeviceUri(kvtcups::DeviceUriFor(uri.server, uri.port, queue.value_or("")), &uri,
                                            &error))
            << c.uri;
        EXPECT_EQ(uri.queue, queue) << c.uri;
    }
}

}  // namespace
