// The diagnostic log: what one line adds to the file, when nothing is added,
// the boxes of a log that can't be written, and the whole log of a job that
// goes out and of one that doesn't.
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

#include "debuglog.h"
#include "expected_log.h"
#include "fixture.h"
#include "netbios_calls.h"

namespace {

using kvttest::ReadLog;

// The text is written as it stands (no format), then one line feed; with
// IsDEBUG 0 nothing is; a formatted line too long is cut.
TEST(DebugLog, ALineIsItsTextAndOneLineFeed) {
    kvttest::TestHost host;
    IsDEBUG = 1;
    DebugLog("\n");
    DebugLog("100%s done %d");
    IsDEBUG = 0;
    DebugLog("not written\n");
    IsDEBUG = 1;
    LogPrintf("%s\n", std::string(3000, 'n').c_str());  // cut, never overflowing
    EXPECT_EQ(ReadLog(), "\n\n100%s done %d\n" + std::string(1023, 'n') + "\n");
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
    const auto boxes = kvthost::MessageBoxes();
    ASSERT_EQ(boxes.size(), 2u);
    EXPECT_TRUE(boxes[0].text == u"Can't create file : kvtlog" && boxes[0].caption == u"ERROR" && boxes[0].type == 0);
}

// The log of start-up over one port, then a job on it, to its queue name.
std::string JobStart() {
    return kvtlog::Startup("C:\\Windows", {{"PS1-P1", "7F000002", '1'}}) + kvtlog::LprJobStart("PS1-P1", 7);
}

// Each change made wherever its text stands.
std::string Changed(std::string text, std::initializer_list<std::pair<std::string, std::string>> changes) {
    for (const auto &[from, to] : changes)
        for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
            text.replace(at, from.size(), to);
    return text;
}

// ---- over IPX, on a host with TCP/IP and IPX --------------------------------------------

const char kIpxJob[] =
    "Printing use IPX\n\nIPXConnect port 1\n\nGetJob ok\n\nJob still printing\n\nConnect ok\n\n"
    "Leave LocalmonStartDocPort - success\n\nEntry LocalmonWritePort\n\nUsing IPX protocol\n\n"
    "Leave LocalmonWritePort - (return = TRUE)\n\n\n\nEntry LocalmonEndDocPort (status = 00000001)\n\n"
    "Protocol = IPX , call IPXHangup\n\nReset Status and PrinterStatus to 0\n\nLeave LocalmonEndDocPort - success\n\n";

// ---- over NetBIOS, on a host with all three transports ---------------------------------

// A port that may go by NetBIOS brings the monitor's names up before the busy
// test; "00007f000001" stands for this process's adapter address.
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

// The whole log of a job: over LPR on a host with TCP/IP alone, delivered or
// refused at the first ack; on a port fixed to IPX or NetBIOS, and on an
// automatic one whose job falls over from TCP/IP (PS1 refuses LPR) to IPX, or
// on through IPX (PS1 isn't there) to NetBIOS.  A reply that came late would
// add lines, so every exchange that is answered runs at the monitor's own
// pace; only the silence of IPX in the last case at a quarter of it, from the
// start-up's last name to CheckNETBIOS's send, which end and begin the parts
// that are answered.
TEST_F(JobTest, TheLogOfAJobIsTheWholePath) {
    const std::string lprFails = "Leave LprHandshake - acknowledgement is not 0\n\nEntry LprOpenFile() error 6\n\n"
                                 "LprOpenFile fail\n\n";
    const std::string ipxFails = "Try IPX protocol\n\nPrinting use IPX\n\nIPXConnect port 1\n\n"
                                 "PrintServer no response , sleep 500 ms\n\nConnect fail\n\n";
    const std::string closed = "\n\nLocalmonClosePort - close port\n\n", ipxJob = kIpxJob + closed,
                      nbJob = kNbJob + closed;
    const struct {
        char protocol;        // the port's
        bool ipx, netbios;    // the host offers them; PS1 is on IPX unless the host has NetBIOS
        int nak;              // PS1's LPR refuses at this ack
        bool fixedToChannel;  // the job start's LPR part is not there
        std::string rest;
    } cases[] = {{'2', false, false, 0, false, kvtlog::LprJobRest("pc1", false)},
                 {'2', false, false, 1, false, kvtlog::kLprRefused},
                 {'1', true, false, 1, true, ipxJob},
                 {'0', true, false, 1, false, lprFails + "Try IPX protocol\n\n" + ipxJob},
                 {'4', true, true, 1, true, nbJob},
                 {'0', true, true, 1, false, lprFails + ipxFails + "Try NETBIOS protocol\n\n" + nbJob}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.protocol << " " << c.ipx << c.netbios);
        PINIPORT port = StartPort({.ipx = c.ipx, .netbios = c.netbios, .timeScale = 1.0},
                                  static_cast<uint8_t>(c.protocol - '0'), u"lp");
        kvthost::SetNetbiosHook([](const NCB &ncb) -> uint8_t {
            const std::string name = nbtest::Text(ncb.ncb_name, NCBNAMSZ), to = nbtest::Text(ncb.ncb_callname, 4);
            if (ncb.ncb_command == NCBADDNAME && name.find(".E3") != std::string::npos) kvthost::SetTimeScale(0.25);
            if (ncb.ncb_command == NCBDGSEND && to == "TEST") kvthost::SetTimeScale(1.0);
            return NRC_GOODRET;
        });
        StartServers({kvttest::With(kvttest::Server(), [&](auto &s) { s.lpr.nakAtStep = c.nak, s.ipx = !c.netbios; })});
        HANDLE handle;
        ASSERT_TRUE(LocalmonOpenPort(const_cast<LPWSTR>(u"PS1-P1"), &handle));
        EXPECT_EQ(StartDoc(port) && WriteAll(port, "data") && LocalmonEndDocPort(port), c.rest != kvtlog::kLprRefused);
        ASSERT_TRUE(LocalmonClosePort(port));
        kvthost::SetNetbiosHook(nullptr);
        // The job start as JobStart() has it on a host with TCP/IP alone.
        const std::string all = c.netbios ? "7" : c.ipx ? "3" : "2", stored(1, c.protocol);
        const kvtnb::Node n = kvthost::NetbiosAdapterAddress();
        char adapter[13];
        std::snprintf(adapter, sizeof adapter, "%02x%02x%02x%02x%02x%02x", n[0], n[1], n[2], n[3], n[4], n[5]);
        const std::string nbStartUp = c.netbios ? Changed(kNbStartUp, {{"00007f000001", adapter}}) : "";
        const std::string start =
            Changed(JobStart(), {{"GetProtocol - protocol = 2", "GetProtocol - protocol = " + all},
                                 {"Get protocol: 02", "Get protocol: 0" + all},
                                 {"GetPrintProtocol - protocol = 2", "GetPrintProtocol - protocol = " + stored},
                                 {"Get Print Protocol: 2", "Get Print Protocol: " + stored},
                                 {" [TCPIP]\n", std::string(" [TCPIP]\n") + (c.ipx ? " [IPX]\n" : "") +
                                                    (c.netbios ? " [NETBIOS]\n" : "")},
                                 {"Status = 00000000", nbStartUp + "Status = 00000000"}});
        EXPECT_EQ(ReadLog(), (c.fixedToChannel ? start.substr(0, start.find("Printing use TCPIP")) : start) + c.rest);
    }
}

}  // namespace
