// The diagnostic log: what one line adds to the file, when nothing is added,
// the boxes of a log that can't be written, and the whole log of a job that
// goes out and of one that doesn't.
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

#include "debuglog.h"
#include "expected_log.h"
#include "fixture.h"

namespace {

using kvttest::ReadLog;

TEST(DebugLog, ALineIsItsTextAndOneLineFeed) {
    kvttest::TestHost host;
    IsDEBUG = 1;
    DebugLog("Connect ok\n");
    EXPECT_EQ(ReadLog(), "Connect ok\n\n");
    DebugLog("\n");
    EXPECT_EQ(ReadLog(), "Connect ok\n\n\n\n");
    DebugLog("100%s done %d");  // the text is written as it stands
    EXPECT_EQ(ReadLog(), "Connect ok\n\n\n\n100%s done %d\n");
    IsDEBUG = 0;
    DebugLog("not written\n");
    EXPECT_EQ(ReadLog(), "Connect ok\n\n\n\n100%s done %d\n");
    EXPECT_TRUE(kvthost::MessageBoxes().empty());
}

TEST(DebugLog, TooLongATextIsCutAndLogPrintfNeverOverflows) {
    kvttest::TestHost host;
    IsDEBUG = 1;
    std::string name(3000, 'n');
    LogPrintf("%s\n", name.c_str());
    std::string log = ReadLog();
    EXPECT_EQ(log, std::string(1023, 'n') + "\n");
}

TEST(DebugLog, AFolderThatCannotBeWrittenShowsABoxForEachLine) {
    kvttest::TestHost host;
    // The system folder is no folder at all: no file can be made in it, even
    // by a user whom permissions don't stop.
    std::string system = kvthost::MapPath(u"C:\\Windows\\System32");
    ASSERT_EQ(rmdir(system.c_str()), 0);
    std::ofstream(system) << "in the way";
    IsDEBUG = 1;
    DebugLog("first\n");
    DebugLog("second\n");
    auto boxes = kvthost::MessageBoxes();
    ASSERT_EQ(boxes.size(), 2u);
    EXPECT_EQ(boxes[0].text, u"Can't create file : kvtlog");
    EXPECT_EQ(boxes[0].caption, u"ERROR");
    EXPECT_EQ(boxes[0].type, 0u);
}

// The log of start-up over one port, then a job on it, to its queue name.
std::string JobStart() {
    return kvtlog::Startup("C:\\Windows", {{"PS1-P1", "7F000002", '1'}}) + kvtlog::LprJobStart("PS1-P1", 7);
}

TEST_F(JobTest, TheLogOfAJobThatGoesOutIsTheWholePath) {
    PINIPORT port = StartPort(kvttest::HostOptions(), 2 /* TCP/IP */, u"lp");
    StartServer();
    HANDLE handle;
    ASSERT_TRUE(LocalmonOpenPort(const_cast<LPWSTR>(u"PS1-P1"), &handle));
    ASSERT_TRUE(StartDoc(port));
    ASSERT_TRUE(WriteAll(port, "data"));
    ASSERT_TRUE(LocalmonEndDocPort(port));
    ASSERT_TRUE(LocalmonClosePort(port));
    EXPECT_EQ(ReadLog(), JobStart() + kvtlog::LprJobRest("pc1", false));
}

TEST_F(JobTest, TheLogOfAJobThatIsRefusedEndsWithItsError) {
    PINIPORT port = StartPort(kvttest::HostOptions(), 2 /* TCP/IP */, u"lp");
    kvtps::LprFaults faults;
    faults.nakAtStep = 1;
    StartServer(faults);
    HANDLE handle;
    ASSERT_TRUE(LocalmonOpenPort(const_cast<LPWSTR>(u"PS1-P1"), &handle));
    EXPECT_FALSE(StartDoc(port));
    ASSERT_TRUE(LocalmonClosePort(port));
    EXPECT_EQ(ReadLog(), JobStart() + kvtlog::kLprRefused);
}

// ---- over IPX, on a host with TCP/IP and IPX --------------------------------------------

const char kIpxJob[] =
    "Printing use IPX\n\n"
    "IPXConnect port 1\n\n"
    "GetJob ok\n\n"
    "Job still printing\n\n"
    "Connect ok\n\n"
    "Leave LocalmonStartDocPort - success\n\n"
    "Entry LocalmonWritePort\n\n"
    "Using IPX protocol\n\n"
    "Leave LocalmonWritePort - (return = TRUE)\n\n"
    "\n\n"
    "Entry LocalmonEndDocPort (status = 00000001)\n\n"
    "Protocol = IPX , call IPXHangup\n\n"
    "Reset Status and PrinterStatus to 0\n\n"
    "Leave LocalmonEndDocPort - success\n\n";

// The start of a job as JobStart() has it, on a host with IPX too, for a port
// with the stored protocol given.
std::string JobStartOnAnIpxHost(char protocol) {
    std::string text = JobStart();
    const std::string changes[][2] = {{"GetProtocol - protocol = 2", "GetProtocol - protocol = 3"},
                                      {"Get protocol: 02", "Get protocol: 03"},
                                      {"GetPrintProtocol - protocol = 2", "GetPrintProtocol - protocol = ?"},
                                      {"Get Print Protocol: 2", "Get Print Protocol: ?"},
                                      {" [TCPIP]\n", " [TCPIP]\n [IPX]\n"}};
    for (const auto &change : changes)
        for (size_t at = 0; (at = text.find(change[0], at)) != std::string::npos; at += change[1].size())
            text.replace(at, change[0].size(), change[1]);
    for (char &c : text) c = c == '?' ? protocol : c;
    return text;
}

// ---- over NetBIOS, on a host with all three transports ---------------------------------

// A port that may go by NetBIOS brings the monitor's names up before the busy test.
const char kNbStartUp[] =
    "Support NETBIOS\n\n\n\nEntry NBStartup\n\n\n\nEntry GetUniquename\n\nLeave GetUniquename - success\n\n"
    "Name0 = 00007f000001.ER\n\nAdd name0 success\n\nSend data to Lana[0] success\r\n\n"
    "Receive data from Lana[0]\n\nWorking Lana number find : Lana[0]\n\n"
    "Add name1 : 00007f000001.E1 success\n\nAdd name2 : 00007f000001.E2 success\n\n"
    "Add name3 : 00007f000001.E3 success\n\n";

const char kNbJob[] =
    "Printing use NETBIOS\n\nSupport NETBIOS\n\nbStartup = TRUE\n\ncall CheckNETBIOS\n\n\n\nEntry CheckNETBIOS\n\n"
    "nRet == NRC_GOODRET\n\nLeave CheckNETBIOS\n\nNBConnect port 1\n\nGetJob ok\n\nJob still printing\n\n"
    "Connect ok\n\nLeave LocalmonStartDocPort - success\n\nEntry LocalmonWritePort\n\nUsing NETBIOS protocol\n\n"
    "Leave LocalmonWritePort - (return = TRUE)\n\n\n\nEntry LocalmonEndDocPort (status = 00000001)\n\n"
    "Protocol = NETBIOS , call NBHangup\n\nReset Status and PrinterStatus to 0\n\nLeave LocalmonEndDocPort - success\n\n";

// A port fixed to IPX or NetBIOS, and an automatic one whose job falls over
// from TCP/IP (PS1 refuses LPR) to IPX, or on through IPX (PS1 isn't there)
// to NetBIOS.  Waits of 125 ms: a reply that came late would add lines.
TEST_F(JobTest, TheLogOfAChannelJobAndOfOneThatFallsOverToItIsTheWholePath) {
    const std::string lprFails = "Leave LprHandshake - acknowledgement is not 0\n\nEntry LprOpenFile() error 6\n\n"
                                 "LprOpenFile fail\n\n";
    const std::string ipxFails = "Try IPX protocol\n\nPrinting use IPX\n\nIPXConnect port 1\n\n"
                                 "PrintServer no response , sleep 500 ms\n\nConnect fail\n\n";
    const struct {
        char protocol;
        bool netbios;  // the host offers it, and PS1 isn't on IPX
        std::string fallOver, job;
    } cases[] = {{'1', false, "", kIpxJob},
                 {'0', false, lprFails + "Try IPX protocol\n\n", kIpxJob},
                 {'4', true, "", kNbJob},
                 {'0', true, lprFails + ipxFails + "Try NETBIOS protocol\n\n", kNbJob}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.protocol);
        PINIPORT port = StartPort(kvttest::HostOptions{true, true, c.netbios, true, 0, true, 0.25},
                                  static_cast<uint8_t>(c.protocol - '0'), u"lp");
        kvtps::ServerConfig config;
        config.name = "PS1";
        config.address = "127.0.0.2";
        config.lpr.nakAtStep = 1;
        config.ipx = !c.netbios;
        std::string error;
        ASSERT_TRUE(emulator.Start({config}, &error)) << error;
        HANDLE handle;
        ASSERT_TRUE(LocalmonOpenPort(const_cast<LPWSTR>(u"PS1-P1"), &handle));
        ASSERT_TRUE(StartDoc(port));
        ASSERT_TRUE(WriteAll(port, "data"));
        ASSERT_TRUE(LocalmonEndDocPort(port));
        std::string start = JobStartOnAnIpxHost(c.protocol);
        const std::string changes[][2] = {{"protocol = 3", "protocol = 7"},
                                          {"Get protocol: 03", "Get protocol: 07"},
                                          {" [IPX]\n", " [IPX]\n [NETBIOS]\n"},
                                          {"Status = 00000000", std::string(kNbStartUp) + "Status = 00000000"}};
        for (const auto &change : changes)
            for (size_t at = 0; c.netbios && (at = start.find(change[0], at)) != std::string::npos;
                 at += change[1].size())
                start.replace(at, change[0].size(), change[1]);
        EXPECT_EQ(ReadLog(), (c.fallOver.empty() ? start.substr(0, start.find("Printing use TCPIP")) : start) +
                                 c.fallOver + c.job);
        emulator.Stop();
    }
}

}  // namespace
