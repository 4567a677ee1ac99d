// KVT64.DLL in a real Win32 environment: Wine, with its own registry, files,
// Winsock and print spooler, standing in for Windows.  kvtspool.exe (the
// harness, spooler_harness.cpp) installs and drives the monitor inside Wine;
// the print servers are kvtps's, in this Linux process; everything runs on
// this process's private network, the Wine server included.
//
// Measured on Wine 8.0 (Debian 8.0~repack-4), and relied on here:
// - Wine's server makes every socket of its processes: a server of the prefix
//   that runs outside the private network would connect the monitor outside
//   it (a connect to 127.0.0.2:515 is then refused).  Each test therefore
//   stops any server of the prefix first, and its own at the end.
// - GetUserNameW gives $USER, so the tests run as user "guest", as the
//   monitor's unit tests do.  gethostname gives the host's own name, which
//   has to resolve (gethostbyname), or the LPR job start fails with error 3.
// - GetWindowsDirectoryW gives "C:\windows", in lower case.
// - RegEnumKeyExW gives sub keys in order of their names without regard to
//   case, as Windows does, so the monitor's records come in that order.
#include <netdb.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "emulated.h"
#include "expected_log.h"
#include "run_program.h"

namespace {

using kvttest::Server;
using kvttest::Slurp;

constexpr int kRunMs = 60000;  // the longest a harness run may take
const std::string kMonitorName = "PrintServer Network Port";

void WriteFile(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// The prefix that the test wine_prefix_made has made.
const std::string &Prefix() {
    static std::string prefix = [] {
        std::string text = Slurp(KVT_WINE_PREFIX_RECORD);
        while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
        return text;
    }();
    return prefix;
}

std::string SystemFolder() { return Prefix() + "/drive_c/windows/system32"; }

// A Unix path as Wine's drive Z: shows it.
std::string OnDriveZ(std::string path) {
    for (char &c : path)
        if (c == '/') c = '\\';
    return "Z:" + path;
}

// What a program printed, and the lines "what: value" of the harness.
struct Ran : kvttest::ProgramRun {
    std::vector<std::string> All(const std::string &what) const {
        std::vector<std::string> values;
        std::istringstream lines(out);
        std::string line, head = what + ": ";
        while (std::getline(lines, line))
            if (line.compare(0, head.size(), head) == 0) values.push_back(line.substr(head.size()));
        return values;
    }
    std::string One(const std::string &what) const {
        auto values = All(what);
        return values.size() == 1 ? values[0] : "<" + std::to_string(values.size()) + " lines " + what + ">";
    }
    // The words of the one line "what: ...", such as an entry's "RESULT ERROR".
    std::vector<std::string> Words(const std::string &what) const {
        std::vector<std::string> words;
        std::istringstream in(One(what));
        for (std::string word; in >> word;) words.push_back(word);
        return words;
    }
    // The result of an entry (1 TRUE, 0 FALSE), whatever its last error.
    std::string Result(const std::string &what) const {
        auto words = Words(what);
        return words.empty() ? "<no " + what + ">" : words[0];
    }
    // The log file as the harness printed it after a call of Wine's spooler.
    std::string Log(const std::string &what) const {
        std::string log;
        for (const auto &line : All(what + ".log")) log += line + "\n";
        return log;
    }
};

std::ostream &operator<<(std::ostream &os, const Ran &ran) {
    return os << "status " << ran.status << "\n--- out\n" << ran.out << "--- err\n" << ran.err;
}

// The X display of the tests of windows on a display; empty: Wine's null driver.
std::string gDisplay;

// Runs a program with the environment of Wine's runs and waits for it, at
// most timeoutMs.
Ran RunProgram(const std::vector<std::string> &argv, int timeoutMs = kRunMs) {
    Ran ran;
    static_cast<kvttest::ProgramRun &>(ran) = kvttest::RunProgram(
        argv, {"WINEPREFIX=" + Prefix(), "WINEDEBUG=-all", "WINEDLLOVERRIDES=mscoree,mshtml=", "USER=guest",
               "WAYLAND_DISPLAY", gDisplay.empty() ? "DISPLAY" : "DISPLAY=" + gDisplay},
        timeoutMs);
    return ran;
}

// Stops the prefix's Wine server, wherever it runs, and waits for it to end.
void StopWineServer() {
    RunProgram({KVT_WINESERVER, "-k"});
    RunProgram({KVT_WINESERVER, "-w"});
}

std::string Hex(const std::string &bytes) {
    std::string hex;
    char two[3];
    for (unsigned char b : bytes) {
        std::snprintf(two, sizeof two, "%02x", b);
        hex += two;
    }
    return hex;
}

// Text as UTF-16LE with its terminator, as the spooler's buffers hold it.
std::string Wide(const std::string &ascii) {
    std::string bytes;
    for (char c : ascii) bytes += std::string{c, '\0'};
    return bytes + std::string(2, '\0');
}

std::string Le(uint64_t value, int size) {
    std::string bytes;
    for (int i = 0; i < size; ++i) bytes += static_cast<char>((value >> (8 * i)) & 0xFF);
    return bytes;
}

// The buffer of the monitor's EnumPorts for these ports: the records from the
// front, each string at the buffer's end and below the one before, pointers
// given as offsets from the buffer's start.
std::string EnumBuffer(int level, const std::vector<std::string> &ports) {
    std::vector<std::vector<std::string>> strings;
    size_t total = 0;
    for (const auto &name : ports) {
        strings.push_back(level == 1 ? std::vector<std::string>{name}
                                     : std::vector<std::string>{name, kMonitorName, kMonitorName});
        total += level == 1 ? 8 : 32;
        for (const auto &s : strings.back()) total += Wide(s).size();
    }
    std::string records, tail;
    size_t end = total;
    for (const auto &set : strings) {
        for (const auto &s : set) {
            end -= Wide(s).size();
            records += Le(end, 8);
            tail = Wide(s) + tail;
        }
        if (level == 2) records += Le(1, 4) + Le(0, 4);  // PORT_TYPE_WRITE, Reserved
    }
    return Hex(records + tail);
}

// The non-empty lines of a log from the first line that begins with `from` to
// the first after it that begins with `to`.
std::vector<std::string> LogLines(const std::string &log, const std::string &from, const std::string &to) {
    std::vector<std::string> lines;
    std::istringstream in(log);
    std::string line;
    bool inside = false;
    while (std::getline(in, line)) {
        if (!inside && line.compare(0, from.size(), from) == 0) inside = true;
        if (!inside || line.empty()) continue;
        lines.push_back(line);
        if (lines.size() > 1 && line.compare(0, to.size(), to) == 0) break;
    }
    return lines;
}

// The keys and values below "Ports" of kvtspool's tree, in its order.
std::vector<std::string> PortsTree(const Ran &dump) {
    std::vector<std::string> lines;
    std::istringstream in(dump.out);
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, 11, "key: Ports\\") == 0 || line.compare(0, 13, "value: Ports\\") == 0)
            lines.push_back(line.substr(line.find(": ") + 2));
    return lines;
}

// Bytes of every value, so that a job that loses or reorders any shows it.
std::string JobBytes(size_t size) {
    std::string bytes(size, '\0');
    uint32_t x = 2463534242u;
    for (size_t i = 0; i < size; ++i) {
        x ^= x << 13, x ^= x >> 17, x ^= x << 5;
        bytes[i] = static_cast<char>(i < 512 ? i : x);
    }
    return bytes;
}

// The host's name up to its first dot, as the control file names the host.
std::string ShortHostName() {
    char name[256] = "";
    gethostname(name, sizeof name - 1);
    return std::string(name).substr(0, std::string(name).find('.'));
}

// The LPR job start needs the host's own name to resolve, as Windows always
// has it; a machine without it in its hosts file fails here, and says so.
void ExpectHostNameResolves() {
    char name[256] = "";
    gethostname(name, sizeof name - 1);
    addrinfo *found = nullptr;
    int error = getaddrinfo(name, nullptr, nullptr, &found);
    if (found != nullptr) freeaddrinfo(found);
    ASSERT_EQ(error, 0) << "the host's name " << name << " does not resolve: the monitor's LPR job start "
                        << "fails without it (LprOpenFile error 3); add it to /etc/hosts";
}

class UnderWine : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(Prefix().empty()) << "no Wine prefix: the test wine_prefix_made makes it";
        StopWineServer();
    }

    void TearDown() override {
        emulator.Stop();
        StopWineServer();
    }

    static Ran Spool(std::vector<std::string> args) {
        args.insert(args.begin(), {KVT_WINE, KVT_SPOOL_EXE});
        return RunProgram(args);
    }

    // The monitor installed into the prefix, its key written anew with the
    // items of kvtspool's setup.
    static void Install(std::vector<std::string> items) {
        items.insert(items.begin(), {"setup", OnDriveZ(KVT_WIN_DLL)});
        Ran ran = Spool(items);
        ASSERT_EQ(ran.status, 0) << ran;
    }

    // The data of a job, as C:\kvtjob.bin.
    static std::string JobFile(const std::string &bytes) {
        WriteFile(Prefix() + "/drive_c/kvtjob.bin", bytes);
        return "C:\\kvtjob.bin";
    }

    static std::string Log() { return Slurp(SystemFolder() + "/KVTLOG"); }
    static bool Stored(const Ran &ran, const std::string &value) {
        auto values = ran.All("value");
        return std::count(values.begin(), values.end(), value) == 1;
    }

    void StartServers(const std::vector<kvtps::ServerConfig> &servers) {
        std::string error;
        ASSERT_TRUE(emulator.Start(servers, &error)) << error;
    }

    kvtps::Emulator emulator;
};

TEST_F(UnderWine, AJobOverLprArrivesWholeAndTheLogIsTheWholePath) {
    ASSERT_NO_FATAL_FAILURE(ExpectHostNameResolves());
    WriteFile(SystemFolder() + "/KVTLOG", "a line of an earlier start\n");
    ASSERT_NO_FATAL_FAILURE(Install({"debug=1", "notify=1", "port=PS1-P1,127.0.0.2,2,lp", "printer=Office,PS1-P1"}));
    ASSERT_NO_FATAL_FAILURE(StartServers({Server("PS1", "127.0.0.2")}));
    std::string data = JobBytes(3000);

    Ran ran = Spool({"job", "PS1-P1", "Office", "report", JobFile(data)});
    ASSERT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.One("table"), "136 xx-xxxxxxxxxxxxxx") << ran;
    unsigned jobId = std::stoul(ran.One("job"));
    EXPECT_GT(jobId, 0u);
    EXPECT_EQ(ran.Result("OpenPort"), "1");
    EXPECT_EQ(ran.Result("StartDocPort"), "1") << ran;
    EXPECT_EQ(ran.One("written"), "3000 in 1 calls");
    EXPECT_EQ(ran.Result("EndDocPort"), "1");
    // The notice names the printer and the document, from Wine's GetJobW.
    EXPECT_EQ(ran.All("box"), (std::vector<std::string>{"DEBUG | Starting DEBUG mode | no icon",
                                                        "Office | report printing success !! | information icon"}));

    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    kvtps::LprJob job = emulator.Jobs("PS1").at(0);
    EXPECT_TRUE(job.complete) << job.error;
    EXPECT_EQ(job.queue, "lp");
    std::string host = ShortHostName();
    EXPECT_EQ(job.controlFileName, kvtlog::JobIdLine("cfA%03u", jobId) + host);
    EXPECT_EQ(job.controlLines, (std::vector<std::string>{"Hguest", "Jreport", "Nreport", "H" + host}));
    EXPECT_EQ(job.dataFileName, kvtlog::JobIdLine("dfA%03u", jobId) + host);
    EXPECT_TRUE(job.data == data) << "the data differ from what was written";

    EXPECT_EQ(Log(), kvtlog::Startup("C:\\windows", {{"PS1-P1", "7F000002", '1'}}) +
                         kvtlog::LprJobStart("PS1-P1", jobId) + kvtlog::LprJobRest(host, true));
}

TEST_F(UnderWine, ALargeJobArrivesByteForByte) {
    ASSERT_NO_FATAL_FAILURE(ExpectHostNameResolves());
    ASSERT_NO_FATAL_FAILURE(Install({"debug=0", "port=PS1-P1,127.0.0.2,2,lp", "printer=Office,PS1-P1"}));
    ASSERT_NO_FATAL_FAILURE(StartServers({Server("PS1", "127.0.0.2")}));
    std::string data = JobBytes(1 << 20);

    Ran ran = Spool({"job", "PS1-P1", "Office", "report", JobFile(data)});
    ASSERT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.One("written").substr(0, 11), "1048576 in ") << ran;
    EXPECT_EQ(ran.Result("EndDocPort"), "1");
    EXPECT_TRUE(ran.All("box").empty()) << ran;

    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    kvtps::LprJob job = emulator.Jobs("PS1").at(0);
    EXPECT_TRUE(job.complete) << job.error;
    EXPECT_EQ(job.dataBytes, data.size());
    EXPECT_TRUE(job.data == data) << "the data differ from what was written";
}

TEST_F(UnderWine, APortFixedToTcpIpFailsAtOnceWhenThePrintServerRefusesTheHeader) {
    ASSERT_NO_FATAL_FAILURE(ExpectHostNameResolves());
    ASSERT_NO_FATAL_FAILURE(Install({"debug=1", "port=PS2-P1,127.0.0.3,2,lp", "printer=Office,PS2-P1"}));
    kvtps::ServerConfig server = Server("PS2", "127.0.0.3");
    server.lpr.nakAtStep = 1;
    ASSERT_NO_FATAL_FAILURE(StartServers({server}));

    Ran ran = Spool({"job", "PS2-P1", "Office", "report", JobFile("never sent")});
    ASSERT_EQ(ran.status, 0) << ran;
    unsigned jobId = std::stoul(ran.One("job"));
    EXPECT_EQ(ran.One("StartDocPort"), "0 1117") << ran;
    // At once: one connection, no second attempt (200 of them would take
    // minutes), and no other transport.
    EXPECT_LT(std::stoi(ran.One("StartDocPort.ms")), 20000);
    ASSERT_TRUE(emulator.WaitForJobs("PS2", 1, 10000));
    kvtps::LprCounters counters = emulator.Counters("PS2");
    EXPECT_EQ(counters.connectionsAccepted, 1u);
    EXPECT_EQ(counters.naksSent, 1u);

    EXPECT_EQ(Log(), kvtlog::Startup("C:\\windows", {{"PS2-P1", "7F000003", '1'}}) +
                         kvtlog::LprJobStart("PS2-P1", jobId) + kvtlog::kLprRefused);
}

TEST_F(UnderWine, TheStoredProtocolAndQueueNameDecideTheTransportAndTheQueue) {
    ASSERT_NO_FATAL_FAILURE(ExpectHostNameResolves());
    ASSERT_NO_FATAL_FAILURE(Install({"debug=1", "port=PS1-P2,127.0.0.2,0,", "port=PS1-P3,127.0.0.2,1,lp",
                                     "printer=Office,PS1-P2", "printer=Lab,PS1-P3"}));
    ASSERT_NO_FATAL_FAILURE(StartServers({Server("PS1", "127.0.0.2")}));

    // Automatic, on a host that offers TCP/IP alone; the empty queue name is sent.
    Ran ran = Spool({"job", "PS1-P2", "Office", "report", JobFile("automatic")});
    ASSERT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.Result("StartDocPort"), "1") << ran;
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    EXPECT_EQ(emulator.Jobs("PS1").at(0).queue, "");
    EXPECT_EQ(emulator.Jobs("PS1").at(0).data, "automatic");
    auto lines = LogLines(Log(), "Get Print Protocol", "Leave GetPrintQueueName");
    EXPECT_EQ(lines, (std::vector<std::string>{"Get Print Protocol: 0", "pIniPort->WorkProtocol: 0",
                                               "Printing use TCPIP", "Entry LprOpenFile()", "Entry LprHandshake",
                                               "Entry GetPrintQueueName", "getPrintQueueName:0000000000000000",
                                               "getPrintQueueName_1:0000000000000000",
                                               "getPrintQueueName_after pack:0000000000000000",
                                               "Leave GetPrintQueueName - success"}));

    // Fixed to IPX, which Wine doesn't have: refused without a connection.
    ran = Spool({"job", "PS1-P3", "Lab", "report", JobFile("never sent")});
    ASSERT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.One("StartDocPort"), "0 1117") << ran;
    EXPECT_EQ(emulator.Counters("PS1").connectionsAccepted, 1u);
    lines = LogLines(Log(), "Get Print Protocol", "Leave LocalmonStartDocPort");
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "Get Print Protocol: 1", "pIniPort->WorkProtocol: 0", "Printing use IPX", "not support IPX",
                         "Leave LocalmonStartDocPort - ERROR_IO_DEVICE tid = 0xFF (status: 00000000)"}));
}

TEST_F(UnderWine, StartUpRebuildsThePortsFromTheRegistryAndEnumPortsFillsTheBufferExactly) {
    // Written in another order than the registry's own.
    ASSERT_NO_FATAL_FAILURE(Install({"debug=1", "port=PS2-C2,127.0.0.3,0", "port=PS1-P2,127.0.0.2,2,lp",
                                     "port=PS1-P1,127.0.0.2,2,lp"}));
    Ran ran = Spool({"enum"});
    ASSERT_EQ(ran.status, 0) << ran;
    const std::vector<std::string> ports = {"PS1-P1", "PS1-P2", "PS2-C2"};
    for (int level : {1, 2}) {
        std::string l = std::to_string(level), buffer = EnumBuffer(level, ports);
        std::string needed = std::to_string(buffer.size() / 2);
        EXPECT_EQ(ran.One("enum" + l + ".size"), "0 122 " + needed);
        EXPECT_EQ(ran.One("enum" + l + ".short"), "0 122 " + needed + " 3735928559");  // count untouched
        auto words = ran.Words("enum" + l);  // result, last error, needed, returned
        ASSERT_EQ(words.size(), 4u) << ran;
        EXPECT_EQ(words[0], "1");
        EXPECT_EQ(words[2], needed);
        EXPECT_EQ(words[3], "3");
        EXPECT_EQ(ran.One("enum" + l + ".buffer"), buffer);
        EXPECT_EQ(ran.One("enum" + l + ".guard"), "intact");
    }
    EXPECT_EQ(ran.Result("enum0"), "1");
    EXPECT_EQ(ran.One("enum0").substr(ran.One("enum0").find(' ', 2)), " 0 3");
    EXPECT_EQ(ran.One("enum3"), "0 124");
    // Nothing of the enumeration is logged.
    EXPECT_EQ(Log(), kvtlog::Startup("C:\\windows", {{"PS1-P1", "7F000002", '1'}, {"PS1-P2", "7F000002", '2'},
                                 {"PS2-C2", "7F000003", '5'}}));
}

TEST_F(UnderWine, DeletePortRemovesTheRecordAndItsKeysAndTheNextStartFindsTheRest) {
    ASSERT_NO_FATAL_FAILURE(Install({"debug=0", "port=PS1-P1,127.0.0.2,2,lp", "port=PS1-P2,127.0.0.2,0,",
                                     "port=PS2-P1,127.0.0.3,2,raw"}));
    Ran ran = Spool({"delete", "PS1-P2", "PS9-P1"});
    ASSERT_EQ(ran.status, 0) << ran;
    auto deletes = ran.All("DeletePort");
    ASSERT_EQ(deletes.size(), 2u) << ran;
    EXPECT_EQ(deletes[0].substr(0, 9), "PS1-P2 1 ");
    EXPECT_EQ(deletes[1], "PS9-P1 0 1796");
    EXPECT_EQ(ran.One("ports"), "PS1-P1 PS2-P1");
    // The log is off: start-up's own lines, no box.
    EXPECT_TRUE(ran.All("box").empty()) << ran;
    EXPECT_EQ(Log(),
              "OS type : Windows NT/2000\n\nWindows path : C:\\windows\n\nLoad driver : KVT64.DLL\n success\n\n"
              "DLL version: 4.1.0.0\n\nVendorDesc : \n\nDeviceDesc : PrintServer\n\nDisable DEBUG mode\n\n");

    const std::vector<std::string> server2 = {
        "Ports\\PS2",
        "Ports\\PS2 [IP    ] 3 0300007f",
        "Ports\\PS2 [Network] 3 00000000",
        "Ports\\PS2 [Node Address] 3 000000000000",
        "Ports\\PS2\\1",
        "Ports\\PS2\\1 [ ] 3 02",
        "Ports\\PS2\\1 [QueueName] 1 " + Hex(Wide("raw")),
    };
    std::vector<std::string> expected = {
        "Ports\\PS1",
        "Ports\\PS1 [IP    ] 3 0200007f",
        "Ports\\PS1 [Network] 3 00000000",
        "Ports\\PS1 [Node Address] 3 000000000000",
        "Ports\\PS1\\1",
        "Ports\\PS1\\1 [ ] 3 02",
        "Ports\\PS1\\1 [QueueName] 1 " + Hex(Wide("lp")),
    };
    expected.insert(expected.end(), server2.begin(), server2.end());
    EXPECT_EQ(PortsTree(Spool({"tree"})), expected);

    // A new start finds the two ports left; the last port of PS1 takes the
    // server's key with it.
    ran = Spool({"delete", "PS1-P1"});
    EXPECT_EQ(ran.One("DeletePort").substr(0, 9), "PS1-P1 1 ") << ran;
    EXPECT_EQ(ran.One("ports"), "PS2-P1");
    EXPECT_EQ(PortsTree(Spool({"tree"})), server2);
}

// The route= items make the keys by which Wine's spooler finds the monitor of
// a port (see kvtspool's setup).
TEST_F(UnderWine, WinesSpoolerListsTheMonitorAndItsPortsAndPassesPortCallsToIt) {
    ASSERT_NO_FATAL_FAILURE(Install({"debug=1", "port=PS1-P1,127.0.0.2,2,lp", "port=PS1-P2,127.0.0.2,0,",
                                     "route=PS1-P1", "route=PS1-P2", "printer=Office,PS1-P1"}));
    Ran ran = Spool({"spooler", "PS1-P1", "PS1-P2"});
    ASSERT_EQ(ran.status, 0) << ran;
    auto monitors = ran.All("monitor");
    EXPECT_NE(std::find(monitors.begin(), monitors.end(), kMonitorName + " | KVT64.DLL"), monitors.end()) << ran;
    auto ports = ran.All("port");
    for (const std::string name : {"PS1-P1", "PS1-P2"})
        EXPECT_NE(std::find(ports.begin(), ports.end(), name + " | " + kMonitorName + " | " + kMonitorName + " | 1"),
                  ports.end())
            << ran;
    auto lists = ran.All("ports");
    ASSERT_EQ(lists.size(), 2u) << ran;
    EXPECT_NE(lists[0].find(" PS1-P1 PS1-P2"), std::string::npos) << lists[0];
    // Every box is the monitor's start-up, run again for each call.
    EXPECT_FALSE(ran.All("box").empty()) << ran;
    for (const auto &box : ran.All("box")) EXPECT_EQ(box, "DEBUG | Starting DEBUG mode | no icon");

    std::string startup = kvtlog::Startup("C:\\windows", {{"PS1-P1", "7F000002", '1'}, {"PS1-P2", "7F000002", '2'}});
    // Dialog 200 stands, over a search that found nothing, until kvtspool
    // presses Cancel; dialog 550 until it presses its default button, OK.
    EXPECT_EQ(ran.One("AddPortW"), "1 1223");
    std::string silence = "[TCPSearchRcv()] Select Error\n\n";
    EXPECT_EQ(ran.Log("AddPortW"), startup +
                                       "\n\nEntry LocalmonAddPort\n\nName: NULL \t\nMonitorName: PrintServer Network Port \n\n"
                                       "\n\nEntry GetProtocol\n\nLeave GetProtocol - protocol = 2\n\n"
                                       "[LocalmonAddPort]Support protocol = 2\n\nSupport TCPIP\n\n\n\nEntry GetPortName\n\n" +
                                       silence + silence + silence +
                                       "Leave GetPortName - dialog ended with 0\n\n"
                                       "Leave LocalmonAddPort - Get Port Name fail\n\n");
    EXPECT_EQ(ran.All("dialog"), (std::vector<std::string>{"Add Port", "Select Protocol"}));
    EXPECT_EQ(ran.Result("ConfigurePortW"), "1");
    EXPECT_EQ(ran.Log("ConfigurePortW"), startup +
                                             "\n\nEntry LocalmonConfigurePort\n\n"
                                             "Name: NULL\t\n"
                                             "PortName: PS1-P1 \n\n"
                                             "\n\nEntry GetProtocol\n\n"
                                             "Leave GetProtocol - protocol = 2\n\n"
                                             "FindPortFromList ok\n\n"
                                             "\n\nEntry GetPrintProtocol\n\n"
                                             "Leave GetPrintProtocol - protocol = 2\n\n"
                                             "PrintMethod = 2\n\n"
                                             "IsNotify = 0\n\n"
                                             "Leave LocalmonConfigurePort - success\n\n");
    EXPECT_EQ(ran.Result("DeletePortW"), "1");
    EXPECT_EQ(ran.Log("DeletePortW"), startup +
                                          "\n\nEntry LocalmonDeletePort\n\n"
                                          "Name: NULL \t\n"
                                          "PortName: PS1-P2\n\n"
                                          "Call DeleteMonitorPortEntry\n\n"
                                          "\n\nEntry DeleteMonitorPortEntry\n\n"
                                          "Leave DeleteMonitorPortEntry - success\n\n"
                                          "DeleteMonitorPortEntry return TRUE , call DeletePortRegistry\n\n"
                                          "\n\nEntry DeletePortRegistry\n\n"
                                          "PortName = PS1-P2\n\n"
                                          "Leave DeletePortRegistry\n\n"
                                          "Leave LocalmonDeletePort (return = 1)\n\n");
    EXPECT_NE(lists[1].find(" PS1-P1"), std::string::npos) << lists[1];
    EXPECT_EQ(lists[1].find("PS1-P2"), std::string::npos) << lists[1];
    auto keys = Spool({"tree"}).All("key");
    EXPECT_NE(std::find(keys.begin(), keys.end(), "Ports\\PS1\\1"), keys.end());
    EXPECT_EQ(std::find(keys.begin(), keys.end(), "Ports\\PS1\\2"), keys.end());
}

// Wine's own print path: the application's document goes through the
// printer's port to the print server.  Wine 8 starts it with no printer name
// and job id 0, so the monitor's GetJobW finds no job, and the control file
// has no document lines.
TEST_F(UnderWine, AJobPrintedThroughWinesSpoolerReachesThePrintServer) {
    ASSERT_NO_FATAL_FAILURE(ExpectHostNameResolves());
    ASSERT_NO_FATAL_FAILURE(Install({"debug=1", "port=PS1-P1,127.0.0.2,2,lp", "route=PS1-P1", "printer=Office,PS1-P1"}));
    ASSERT_NO_FATAL_FAILURE(StartServers({Server("PS1", "127.0.0.2")}));
    std::string data = JobBytes(20000);

    Ran ran = Spool({"print", "Office", "report", JobFile(data)});
    ASSERT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.Result("WritePrinter"), "1") << ran;
    EXPECT_EQ(ran.One("EndDocPrinter"), "1") << ran;

    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    kvtps::LprJob job = emulator.Jobs("PS1").at(0);
    EXPECT_TRUE(job.complete) << job.error;
    EXPECT_EQ(job.queue, "lp");
    EXPECT_EQ(job.controlFileName, "cfA000" + ShortHostName());
    EXPECT_EQ(job.controlLines, (std::vector<std::string>{"Hguest", "H" + ShortHostName()}));
    EXPECT_TRUE(job.data == data) << "the data differ from what was written";
    auto lines = LogLines(Log(), "Entry LocalmonStartDocPort", "JobID");
    EXPECT_EQ(lines, (std::vector<std::string>{"Entry LocalmonStartDocPort", "PrinterName: NULL",
                                               "JobID: 00000000 \t Level: 00000001"}));
}

// ---- windows on a display ----------------------------------------------------------------
// Wine's X11 driver on a virtual display (Xvfb) of this test's own, instead of
// the null driver of the other tests, which the fixture puts back.  With
// "pause", kvtspool waits at each window (C:\\kvt-ready.txt names it) until the
// screenshot is taken (C:\\kvt-go.txt).
class OnADisplay : public UnderWine {
protected:
    void SetUp() override {
        if (!*KVT_XVFB || !*KVT_XWD || !*KVT_CONVERT) {
            ASSERT_EQ(std::getenv("KVT_REQUIRE_WINE"), nullptr) << "Xvfb, xwd or ImageMagick is missing";
            GTEST_SKIP() << "Xvfb, xwd or ImageMagick is not installed: scripts/deps.sh --wine installs them";
        }
        UnderWine::SetUp();
        std::string xvfb = std::string(KVT_XVFB) + " -displayfd 3 -screen 0 800x600x24 -nolisten tcp 3>" + Prefix() +
                           "/display & echo $! >" + Prefix() + "/xvfb";
        ASSERT_EQ(std::system(xvfb.c_str()), 0);
        for (int i = 0; i < 200 && Slurp(Prefix() + "/display").empty(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        gDisplay = ":" + std::to_string(std::atoi(Slurp(Prefix() + "/display").c_str()));
        Driver("x11");
    }
    void TearDown() override {
        if (IsSkipped()) return;
        Driver("null");
        UnderWine::TearDown();
        gDisplay.clear();
        std::system(("kill $(cat " + Prefix() + "/xvfb); rm " + Prefix() + "/xvfb " + Prefix() + "/display").c_str());
    }
    // Wine's display driver; without a window manager Wine draws the title bars
    // itself.  The server writes the registry out when it ends by itself.
    void Driver(const char *name) {
        for (auto [key, value, data] : {std::tuple{"Drivers", "Graphics", name}, {"X11 Driver", "Decorated", "N"}})
            EXPECT_EQ(RunProgram({KVT_WINE, "reg", "add", std::string("HKCU\\Software\\Wine\\") + key, "/v", value, "/d",
                                  data, "/f"}).status, 0);
        RunProgram({KVT_WINESERVER, "-w"});
    }
    // Once kvtspool stands at the window, a PNG of it, cut from the display, in
    // screenshots/ of the build tree; then kvtspool goes on.  False after 30 s.
    bool Screenshot(const std::string &which, const std::string &title, const std::string &file) {
        for (int i = 0; i < 600 && Slurp(Prefix() + "/drive_c/kvt-ready.txt") != which; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::string shot = "mkdir -p " KVT_WINE_SCREENSHOTS " && export DISPLAY=" + gDisplay + " && set -- $(xwininfo -name '" +
                           title + "' | awk '/Absolute upper-left|Width|Height/ {print $NF}') && " KVT_XWD
                           " -root -silent | " KVT_CONVERT " xwd:- -crop $3x$4+$1+$2 +repage " KVT_WINE_SCREENSHOTS "/" + file;
        bool taken = Slurp(Prefix() + "/drive_c/kvt-ready.txt") == which && std::system(shot.c_str()) == 0;
        WriteFile(Prefix() + "/drive_c/kvt-go.txt", "");
        return taken;
    }
};

// Dialogs 550, 200 and 250 in the administrator's process: the client's path
// (the UI library that the monitor names, its ConfigurePortUI and AddPortUI),
// the monitor reached through its transceive entries.
TEST_F(OnADisplay, ConfigurePortUIShowsDialog550AndStoresWhatAPersonChose) {
    ASSERT_NO_FATAL_FAILURE(Install({"debug=1", "notify=1", "port=PS1-P1,127.0.0.2,2,lp"}));
    Ran ran;
    // Typed past the box's limit: Windows' own edit box keeps to the monitor's 31 characters.
    std::string typed = "raw-queue-name-typed-past-the-limit";
    std::thread harness([&] { ran = Spool({"configure", "PS1-P1", "551", typed, "pause", "ui"}); });
    EXPECT_TRUE(Screenshot("box", "DEBUG", "message-box.png"));
    EXPECT_TRUE(Screenshot("dialog", "Select Protocol", "configure-port.png"));
    harness.join();
    EXPECT_EQ(ran.All("box"), std::vector<std::string>{"DEBUG | Starting DEBUG mode | no icon"}) << ran;
    // TCP/IP checked, the transports the host lacks disabled, the queue name in its box.
    EXPECT_EQ(ran.One("shown"), "551 552- 553x 554- 556x lp") << ran;
    EXPECT_EQ(ran.One("ui"), "KVT64UI.DLL 0") << ran;
    EXPECT_EQ(ran.Result("ConfigurePortUI"), "1") << ran;
    EXPECT_TRUE(Stored(ran, "Ports\\PS1\\1 [ ] 3 00") && Stored(ran, " [IsNOTIFY] 3 01") &&
                Stored(ran, "Ports\\PS1\\1 [QueueName] 1 " + Hex(Wide(typed.substr(0, 31)))))
        << ran;
}

// Dialog 200 as a person fills it, over a search of kvtps's servers; the
// port in the monitor's list, in Wine's spooler and in Wine's registry; then
// dialog 250.
TEST_F(OnADisplay, AddPortUIShowsDialog200AndMakesThePortAPersonChose) {
    ASSERT_NO_FATAL_FAILURE(Install({"debug=0"}));
    kvtps::ServerConfig ps2 = Server("PS2", "127.0.0.3");
    ps2.model = 3;
    ASSERT_NO_FATAL_FAILURE(StartServers({Server("PS1", "127.0.0.2"), ps2}));
    Ran ran;
    std::thread harness([&] { ran = Spool({"add", "PS2", "2", "lp2", "pause", "ui"}); });
    EXPECT_TRUE(Screenshot("dialog200", "Add Port", "add-port.png"));
    harness.join();
    EXPECT_EQ(ran.One("listed"), "PS1        127.0.0.2 | PS2        127.0.0.3") << ran;
    EXPECT_EQ(ran.One("shown"), "PS2-P2 127.0.0.3 lpt1 lp2 lpt3") << ran;
    EXPECT_EQ(ran.One("AddPortUI"), "1 0 PS2-P2") << ran;
    EXPECT_EQ(ran.One("ports"), "PS2-P2") << ran;
    EXPECT_TRUE(ran.One("spooler.ports").ends_with(" LPT3: PS2-P2")) << ran;
    EXPECT_TRUE(Stored(ran, "Ports\\PS2 [IP    ] 3 0300007f") && Stored(ran, "Ports\\PS2\\2 [ ] 3 00") &&
                Stored(ran, "Ports\\PS2\\2 [QueueName] 1 " + Hex(Wide("lp2"))))
        << ran;

    // Dialog 250, for its picture: the marker file's way.
    WriteFile(Prefix() + "/drive_c/windows/syswow64/KVTJLPR", "");
    std::thread again([&] { ran = Spool({"add", "-", "1", "-", "pause", "ui"}); });
    EXPECT_TRUE(Screenshot("dialog250", "Add Port", "add-all.png"));
    again.join();
    EXPECT_EQ(ran.One("ports"), "PS2-P2 PS1-P1 PS2-P1 PS2-P3") << ran;

    // DeletePortUI's question, for its picture.
    std::thread remove([&] { ran = Spool({"client", "delete", "PS2-P3", "pause"}); });
    EXPECT_TRUE(Screenshot("box", "KVT Manager", "delete-port.png"));
    remove.join();
    EXPECT_EQ(ran.One("DeletePortUI"), "1 0") << ran;
}

// In dialog 200, Tab pressed after LPT2 until the list has the focus: the
// list's focus notice puts the port back on LPT1, as the engine does on Linux.
TEST_F(UnderWine, TabbingIntoDialog200sListPutsThePortBackOnLpt1) {
    ASSERT_NO_FATAL_FAILURE(Install({"debug=0"}));
    kvtps::ServerConfig ps2 = Server("PS2", "127.0.0.3");
    ps2.model = 3;
    ASSERT_NO_FATAL_FAILURE(StartServers({ps2}));
    Ran ran = Spool({"add", "PS2", "2", "lp2", "tab"});
    EXPECT_EQ(ran.One("focus"), "the list") << ran;
    EXPECT_EQ(ran.One("shown").substr(0, 16), "PS2-P1 127.0.0.3") << ran;
    EXPECT_EQ(ran.One("ports"), "PS2-P1") << ran;
}

// The list file's way makes its ports with no dialog; the marker file's way
// shows dialog 250, sorted by Windows' list box (PS31-P1 before PS3-P1, as
// the engine on Linux sorts it too), and makes every port found.  Each file
// is gone after.
TEST_F(UnderWine, AddPortTakesTheListFileAndTheMarkerFile) {
    ASSERT_NO_FATAL_FAILURE(Install({"debug=0"}));
    ASSERT_NO_FATAL_FAILURE(
        StartServers({Server("PS1", "127.0.0.2"), Server("PS3", "127.0.0.3"), Server("PS31", "127.0.0.4")}));
    const std::string folder = Prefix() + "/drive_c/windows/syswow64/";
    std::string record(278, '\0');
    record.replace(0, 3, "LST");
    record.replace(48, 4, std::string{127, 0, 0, 5});
    record[69] = 1, record[77] = 1;
    record.replace(81, 2, "lq");
    WriteFile(folder + "KVTLIST.BIN", record);
    Ran ran = Spool({"add", "-", "1", "-"});
    EXPECT_EQ(ran.Result("AddPort"), "1") << ran;
    EXPECT_TRUE(ran.All("listed").empty()) << ran;
    EXPECT_EQ(ran.One("ports"), "LST-P1") << ran;
    EXPECT_TRUE(Stored(ran, "Ports\\LST\\1 [QueueName] 1 " + Hex(Wide("lq")))) << ran;
    EXPECT_FALSE(std::ifstream(folder + "KVTLIST.BIN").good());

    WriteFile(folder + "KVTJLPR", "");
    ran = Spool({"add", "-", "1", "-"});
    EXPECT_EQ(ran.Result("AddPort"), "1") << ran;
    EXPECT_EQ(ran.One("listed"), "PS1-P1        127.0.0.2 | PS31-P1       127.0.0.4 | PS3-P1        127.0.0.3") << ran;
    EXPECT_EQ(ran.One("ports"), "LST-P1 PS1-P1 PS3-P1 PS31-P1") << ran;
    EXPECT_FALSE(std::ifstream(folder + "KVTJLPR").good());
}

// kvtsetup.exe as an administrator runs it, silent: the monitor added through
// Wine's spooler and reached by the client's path; a change refused on a
// handle without the right to administer; no uninstall while a printer uses
// a port; DeletePortUI; then nothing left of the monitor.
TEST_F(UnderWine, KvtsetupInstallsTheMonitorAndItsUninstallLeavesNothing) {
    Spool({"printer", "Office", "-"});  // what other tests left
    RunProgram({KVT_WINE, "reg", "delete", "HKLM\\System\\CurrentControlSet\\Control\\Print\\Monitors\\" + kMonitorName,
                "/f"});
    for (const char *file : {"KVT64.DLL", "KVT64UI.DLL", "KVTLOG"}) std::remove((SystemFolder() + "/" + file).c_str());
    const std::vector<std::string> install = {KVT_WINE, KVT_SETUP_EXE, "/S"},
                                   uninstall = {KVT_WINE, KVT_SETUP_EXE, "/uninstall", "/S"};
    Ran ran = RunProgram(install);
    ASSERT_EQ(ran.status, 0) << ran;
    ran = RunProgram(install);
    EXPECT_EQ(ran.status, 4) << ran;
    EXPECT_NE(ran.err.find("already installed"), std::string::npos) << ran;

    ran = Spool({"client", "addbyname", "PS9-P1"});
    auto monitors = ran.All("monitor");
    EXPECT_EQ(std::count(monitors.begin(), monitors.end(), kMonitorName + " | KVT64.DLL"), 1) << ran;
    EXPECT_EQ(ran.One("XcvData.AddPort"), "0") << ran;
    EXPECT_TRUE(ran.One("ports").ends_with(" PS9-P1")) << ran;
    ran = Spool({"client", "denied", "PS9-P2"});
    EXPECT_EQ(ran.One("XcvData.AddPort") + " " + ran.One("XcvData.DeletePort"), "5 5") << ran;
    EXPECT_TRUE(ran.One("ports").ends_with(" PS9-P1")) << ran;

    ASSERT_EQ(Spool({"printer", "Office", "PS9-P1"}).status, 0);
    ran = RunProgram(uninstall);
    EXPECT_EQ(ran.status, 5) << ran;
    EXPECT_NE(ran.err.find("PS9-P1"), std::string::npos) << ran;
    ASSERT_EQ(Spool({"printer", "Office", "-"}).status, 0);
    ran = Spool({"client", "delete", "PS9-P1"});
    EXPECT_EQ(ran.One("DeletePortUI"), "1 0") << ran;
    EXPECT_EQ(ran.One("ports").find("PS9"), std::string::npos) << ran;

    ran = RunProgram(uninstall);
    EXPECT_EQ(ran.status, 0) << ran;
    for (const char *file : {"KVT64.DLL", "KVT64UI.DLL", "KVTLOG"})
        EXPECT_FALSE(std::ifstream(SystemFolder() + "/" + file).good()) << file;
    EXPECT_EQ(Spool({"tree"}).One("key"), "missing");
    EXPECT_EQ(RunProgram(uninstall).status, 4);
}

}  // namespace
