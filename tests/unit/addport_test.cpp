// Adding ports: the list file's silent way, dialog 250's every port and dialog
// 200's one port, by what each leaves in the port list, the registry, the log
// and the hand-over folder; and the address parser of dialogs 200 and 300.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <memory>
#include <set>

#include "admin.h"
#include "fixture.h"

using namespace kvttest;

namespace {

std::string HandOver(const char16_t *f) { return kvthost::MapPath(u"C:\\Windows\\SysWOW64\\" + std::u16string(f)); }
bool Lies(const char16_t *name) { return std::ifstream(HandOver(name)).good(); }

const Bytes kIp2{127, 0, 0, 2};

// The ports in list order: NAME address protocol queue.
std::string Ports() {
    std::string all;
    for (PINIPORT p = PortListHead; p != nullptr; p = p->pNext) {
        char queue[QUEUE_NAME_BYTES] = {}, line[160];
        GetPrintQueueName(p->pName, queue);
        DWORD a = p->IPAddress;
        snprintf(line, sizeof line, "%s %u.%u.%u.%u %u %s;", kvthost::Narrow(p->pName).c_str(), a >> 24,
                 a >> 16 & 255, a >> 8 & 255, a & 255, GetPrintProtocol(p->pName), queue);
        all += line;
    }
    return all;
}

// A person at the dialogs: a box is noted and answered OK; a dialog is
// handed to act once and cancelled when it stands again after that.
struct Person {
    std::string seen;
    std::function<void(HWND, const kvthost::WindowView &)> act;
    std::set<HWND> answered;
    void operator()(HWND w, int) {
        kvthost::WindowView v;
        if (!kvthost::ViewWindow(w, &v)) return;
        if (v.box) {
            seen += "[box] " + kvthost::Narrow(v.text) + "\n";
            kvthost::AnswerBox(w, IDOK);
        } else if (!answered.insert(w).second) {
            kvthost::Command(w, IDCANCEL);
        } else {
            seen += "[" + std::to_string(v.templateId) + "]";
            if (act) act(w, v);
        }
    }
};

// What a dialog shows now: its list, its disabled controls, and the port
// name, address and queue boxes of dialog 200.
std::string Look(HWND w, bool withList) {
    kvthost::WindowView v;
    kvthost::ViewWindow(w, &v);
    std::string seen;
    for (const kvthost::ControlView &c : v.controls) {
        for (const std::u16string &l : c.lines) seen += withList ? " |" + kvthost::Narrow(l) : "";
        if (!c.enabled && c.id != IDC_PORT_NAME && c.id != IDC_IP_ADDRESS) seen += " -" + std::to_string(c.id);
    }
    if (v.templateId == DLG_PORT_NAME)
        for (int id : {IDC_PORT_NAME, IDC_IP_ADDRESS, IDC_QUEUE1, IDC_QUEUE1 + 1, IDC_QUEUE1 + 2})
            for (const kvthost::ControlView &c : v.controls)
                if (c.id == id && !c.text.empty()) seen += " " + std::to_string(id) + "=" + kvthost::Narrow(c.text);
    return seen;
}

// Selects the first line of the list that starts with prefix.
void Select(HWND w, const std::string &prefix) {
    kvthost::WindowView v;
    kvthost::ViewWindow(w, &v);
    for (const kvthost::ControlView &c : v.controls)
        for (size_t i = 0; i < c.lines.size(); ++i)
            if (c.id == IDC_PS_LIST && kvthost::Narrow(c.lines[i]).rfind(prefix, 0) == 0) {
                kvthost::SelectLine(w, c.id, int(i));
                return;
            }
}
void Type(HWND w, int id, const std::string &text) {
    for (int i = 0; i < 40; ++i) kvthost::TypeKey(w, id, 8);
    for (char c : text) kvthost::TypeKey(w, id, char16_t(c));
}
using Act = std::function<void(HWND)>;
Act Pick(const std::string &prefix, int lpt = 1, Act more = nullptr) {
    return [=](HWND w) {
        Select(w, prefix);
        kvthost::Click(w, IDC_LPT1 + lpt - 1);
        if (more) more(w);
    };
}

struct AddPort : MonitorTest {
    void Start(bool tcpip, bool ipx, bool netbios) {
        StartHost({.tcpip = tcpip, .ipx = ipx, .netbios = netbios, .timeScale = 0.05});
        person = std::make_shared<Person>();
        kvthost::SetUiDriver([p = person](HWND w, int ms) { (*p)(w, ms); });
    }
    void Lay(const char16_t *name, const Bytes &bytes) { std::ofstream(HandOver(name), std::ios::binary) << bytes; }
    void StartServers() {
        auto server = [](const char *name, const char *address, uint8_t model, uint8_t type) {
            kvtps::ServerConfig c = Server(name, address);
            c.model = model, c.type = type, c.queueTexts = {"qa P1", "qb P2", "qc P3"};
            return c;
        };
        std::vector<kvtps::ServerConfig> s = {server("PS1", "127.0.0.2", 1, 4), server("PS3", "127.0.0.3", 3, 0),
                                              server("PS31", "127.0.0.4", 3, 4), server("ZERO", "127.0.0.5", 2, 4),
                                              server("OFF", "127.0.0.6", 1, 0), server("LONGNAME123", "127.0.0.7", 1, 4),
                                              server("low", "127.0.0.8", 1, 4), server("NONE", "127.0.0.9", 4, 4)};
        s[3].eepromAddress = "0.0.0.0";
        s[4].psConfig = 0;
        s[6].autoProtocol = 0;
        MonitorTest::StartServers(s);
    }
    BOOL Add() {
        SetLastError(0);
        return LocalmonAddPort(nullptr, nullptr, nullptr);
    }
    std::shared_ptr<Person> person;
};

TEST_F(AddPort, EachWayEndsAsTheSpoolerIsToldAndConsumesItsFile) {
    const Bytes three = ListRecord("PS1", kIp2, 3, 5, std::string(40, 'q')) + ListRecord("PS2", kIp2, 4, 7, "") +
                        ListRecord("PS4", kIp2, 3, 0, "");
    const struct {
        const char *what;
        bool tcpip, netbios, nbFails;
        Bytes list;            // "-": none
        bool marker, cancel;   // a marker file; the person cancels dialog 200
        BOOL result;
        DWORD error;
        std::string leave, ports, seen;
        bool listLeft, markerLeft;
    } cases[] = {
        {"empty list", true, false, false, "", false, false, TRUE, 0, "call AddPort3 ( return = 1 )", "", "", false, false},
        {"mask and model", true, false, false, three, true, false, TRUE, 0, "call AddPort3 ( return = 1 )",
         "PS1-P1 127.0.0.2 0 " + std::string(31, 'q') + ";PS1-P3 127.0.0.2 0 ;", "", false, true},
        {"a short last record keeps the rest of the one before", true, false, false,
         ListRecord("PS1", kIp2, 1, 1, "lp") + "PS5", false, false, TRUE, 0, "call AddPort3 ( return = 1 )",
         "PS1-P1 127.0.0.2 0 lp;PS5-P1 127.0.0.2 0 lp;", "", false, false},
        {"NetBIOS alone, no start-up", false, true, true, ListRecord("ps1", kIp2, 1, 1, ""), false, false, TRUE, 0,
         "call AddPort3 ( return = 1 )", "ps1-P1 127.0.0.2 0 ;", "", false, false},
        {"no protocol", false, false, false, "", true, false, FALSE, 0, "PC no support any protocol", "", "", true, true},
        {"NBStartup fails", false, true, true, "-", true, false, FALSE, ERROR_NOT_ENOUGH_MEMORY, "NBStartup fail", "", "", false, true},
        {"marker", true, false, false, "-", true, false, TRUE, 0, "call AddPort2 ( return = 1 )", "", "[250]",
         false, false},
        {"cancel", true, false, false, "-", false, true, TRUE, ERROR_CANCELLED, "Get Port Name fail", "",
         "[200]", false, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Start(c.tcpip, false, c.netbios);
        if (c.list != "-") Lay(u"KVTLIST.BIN", c.list);
        if (c.marker) Lay(u"KVTJLPR", "");
        person->act = [&](HWND w, const kvthost::WindowView &) { kvthost::Click(w, c.cancel ? IDC_PORT_CANCEL : IDC_CONTINUE); };
        kvthost::SetGlobalAllocFails(c.nbFails);
        EXPECT_EQ(Add(), c.result);
        kvthost::SetGlobalAllocFails(false);
        EXPECT_EQ(GetLastError(), c.error);
        EXPECT_EQ(LogLinesStartingWith("Leave LocalmonAddPort ").back(), "Leave LocalmonAddPort - " + c.leave);
        EXPECT_EQ(Ports(), c.ports);
        EXPECT_EQ(person->seen, c.seen);
        EXPECT_EQ(Lies(u"KVTLIST.BIN"), c.listLeft);
        EXPECT_EQ(Lies(u"KVTJLPR"), c.markerLeft);
        EXPECT_FALSE(AddPortBusy);
    }
    // After the failed start-up the next add tries it again and goes on.
    Start(false, false, true);
    kvthost::SetGlobalAllocFails(true);
    EXPECT_FALSE(Add());
    kvthost::SetGlobalAllocFails(false);
    Lay(u"KVTJLPR", "");
    person->act = [](HWND w, const kvthost::WindowView &) { kvthost::Click(w, IDC_CONTINUE); };
    Add();
    EXPECT_EQ(LogCount("bStartup = FALSE"), 2u);
    EXPECT_EQ(LogCount("Leave LocalmonAddPort - System already"), 0u);
}

TEST_F(AddPort, AnExistingPortOfAnyCaseStaysAsItIsAndASecondAddWaits) {
    Start(true, false, false);
    Lay(u"KVTLIST.BIN", ListRecord("PS1", kIp2, 3, 3, "new"));
    CreateMonitorPortEntry(u"ps1-p1", MonitorName, 0x0A000001, nullptr, nullptr, '1');
    MakePortKeys(u"ps1", u'1', 0x0A000001, 4, u"keep");
    EXPECT_TRUE(Add());
    EXPECT_EQ(Ports(), "ps1-p1 10.0.0.1 4 keep;PS1-P2 127.0.0.2 0 ;");

    // Dialog 200 for an existing port's name gives 802 and FALSE; a second add
    // while it stands gives 838 and FALSE.
    StartServers();
    std::string second;
    person->act = [&](HWND w, const kvthost::WindowView &) {
        second = std::to_string(Add());
        second += " " + std::to_string(GetLastError());
        Pick("PS1 ")(w);
        kvthost::Click(w, IDC_PORT_OK);
    };
    EXPECT_FALSE(Add());
    EXPECT_EQ(std::to_string(GetLastError()) + " " + second, "1223 0 1223");
    EXPECT_EQ(person->seen, "[200][box] System already under add port\n\n[box] PrintServer PS1-P1 already exists.\n\n");
    EXPECT_FALSE(AddPortBusy);
}

// Dialog 200 in TCP/IP mode: act, then a look at the dialog and OK; dialog
// 300 is answered with the name "ps1" or "new" and the next address.
TEST_F(AddPort, DialogTwoHundredShowsTheSelectedServerAndOKTakesWhatItShows) {
    const std::string lines = "[200] |LONGNAME123 127.0.0.7 |low        127.0.0.8 |NONE       127.0.0.9 "
                              "|OFF        TCP/IP Disabled |PS1        127.0.0.2 |PS3        127.0.0.3 "
                              "|PS31       127.0.0.4 |ZERO       Automatic IP -208 -209 -210 -211 -1003 -1004 "
                              "201=LONGNAME123-P1 205=127.0.0.7 1002=qa 1003=qb 1004=qc\n";
    const std::string q40(40, 't'), longest(47, 'L');  // the longest name a record holds
    const struct {
        Act act;
        std::string shown, ports;
        std::string created = "ps1";  // typed into dialog 300's name box
    } cases[] = {
        {[](HWND w) {
             kvthost::Click(w, IDC_PORT_OK), kvthost::Click(w, IDC_CREATE), kvthost::Click(w, IDC_CREATE);
             Select(w, "NEW ");
         },
         " -210 -211 201=NEW-P1 205=10.1.1.1 1002=lpt1", "NEW-P1 10.1.1.1 2 lpt1;", "new"},
        {Pick("PS1 ", 3), " -208 -209 -210 -211 -1003 -1004 201=PS1-P1 205=127.0.0.2 1002=qa 1003=qb 1004=qc",
         "PS1-P1 127.0.0.2 0 qa;"},
        {Pick("PS3 ", 2, [](HWND w) { Type(w, IDC_QUEUE1 + 1, "typed"); }),
         " -210 -211 201=PS3-P2 205=127.0.0.3 1002=lpt1 1003=typed 1004=lpt3", "PS3-P2 127.0.0.3 0 lpt2;"},
        {Pick("PS31 ", 2, [=](HWND w) { Type(w, IDC_QUEUE1 + 1, q40); }),
         " -210 -211 201=PS31-P2 205=127.0.0.4 1002=qa 1003=" + q40 + " 1004=qc", "PS31-P2 127.0.0.4 0 " + q40.substr(9) + ";"},
        {Pick("PS31 ", 1, [](HWND w) { Type(w, IDC_QUEUE1 + 1, "typed"), kvthost::Click(w, IDC_LPT1 + 1); }),
         " -210 -211 201=PS31-P2 205=127.0.0.4 1002=qa 1003=qb 1004=qc", "PS31-P2 127.0.0.4 0 qb;"},
        {Pick("ZERO ", 2), " -210 -211 201=ZERO-P2 205=0.0.0.0 1002=qa 1003=qb 1004=qc", "ZERO-P2 0.0.0.0 0 qb;"},
        {Pick("OFF "), " -208 -209 -210 -211 -1003 -1004 201=OFF-P1 205=0.0.0.0 1002=lpt1", "OFF-P1 0.0.0.0 0 lpt1;"},
        {Pick("LONGNAME123 "), " -208 -209 -210 -211 -1003 -1004 201=LONGNAME123-P1 205=127.0.0.7 1002=qa 1003=qb 1004=qc",
         "LONGNAME123-P1 127.0.0.7 0 qa;"},
        {Pick("low "), " -208 -209 -210 -211 -1003 -1004 201=low-P1 205=127.0.0.8 1002=qa 1003=qb 1004=qc",
         "LOW-P1 127.0.0.8 0 ;"},
        {[](HWND w) { kvthost::Click(w, IDC_CREATE), kvthost::Click(w, IDC_CREATE), Select(w, "PS1        1"); },
         " -208 -209 -210 -211 -1003 -1004 201=PS1-P1 205=10.1.1.1 1002=qa 1003=qb 1004=qc", "PS1-P1 10.1.1.1 0 qa;"},
        // Typed past dialog 300's limit of 47; the Port box holds the name and its suffix whole.
        {[=](HWND w) { kvthost::Click(w, IDC_CREATE), kvthost::Click(w, IDC_CREATE), Select(w, longest); },
         " -210 -211 201=" + longest + "-P1 205=10.1.1.1 1002=lpt1", longest + "-P1 10.1.1.1 2 lpt1;",
         std::string(50, 'l')},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.shown);
        if (&c == &cases[1]) StartServers();  // the first case searches an empty network
        Start(true, false, false);
        std::vector<std::string> addresses = {"0.0.0.0", "10.1.1.1"};
        person->act = [&](HWND w, const kvthost::WindowView &v) {
            if (v.templateId == DLG_REMOTE_SERVER) {
                Type(w, IDC_REMOTE_NAME, c.created);
                Type(w, IDC_REMOTE_IP, addresses.empty() ? "1.2.3" : addresses.front());
                if (!addresses.empty()) addresses.erase(addresses.begin());
                kvthost::Click(w, IDC_PORT_OK);
                return;
            }
            person->seen += Look(w, true) + "\n";
            c.act(w);
            person->seen += Look(w, false) + "\n";
            kvthost::Click(w, IDC_PORT_OK);
        };
        EXPECT_TRUE(Add());
        EXPECT_EQ(Ports(), c.ports);
        std::string seen = person->seen;
        EXPECT_TRUE(seen.ends_with(c.shown + "\n")) << seen;
        if (&c != &cases[0]) {
            EXPECT_EQ(seen.rfind(lines, 0), 0u) << seen;
        }
    }
    EXPECT_NE(person->seen.find("do NOT allow IP address equal to 0.0.0.0."), std::string::npos) << person->seen;
}

// IPX and NetBIOS mode keep the name's case, take the address from the table
// and no queue name; "Create" is disabled.  NetBIOS mode over a table the
// test fills, as its search adds to what the table holds.
TEST_F(AddPort, TheIPXAndNetBIOSModesKeepTheCaseAndTakeNoQueueNames) {
    StartServers();
    for (bool ipx : {true, false}) {
        Start(false, ipx, !ipx);
        bStartup = TRUE;
        std::string shown;
        person->act = [&](HWND w, const kvthost::WindowView &) {
            Pick("low ")(w);
            Type(w, IDC_QUEUE1, "typed");
            shown = Look(w, false);
            kvthost::Click(w, IDC_PORT_OK);
        };
        AvailPS[0].IPAddress = htonl(0x7F000008), AvailPS[0].AutoProtocol = 0, TotalPrintServer = 1;
        lstrcpyW(AvailPS[0].Name, u"low");
        PortParam p{};
        EXPECT_TRUE(ipx ? Add() : NBGetPortName(nullptr, &p) && CreateNewPort(u"low-P1", &p));
        EXPECT_EQ(Ports(), "low-P1 127.0.0.8 2 ;");
        EXPECT_EQ(shown, ipx ? " -208 -209 -210 -211 -206 201=low-P1 205=127.0.0.8 1002=typed"
                             : " -210 -211 -206 201=low-P1 205=0.0.0.0 1002=typed");
    }
}

// Dialog 250 makes every printer port of every print server found, lists
// each, sorted as Windows sorts (PS31-P1 before PS3-P1), and makes again only
// what is missing.
TEST_F(AddPort, DialogTwoFiftyMakesEveryPrinterPortFoundOnce) {
    StartServers();
    const std::string tcpLines =
        "|LONGNAME123-P1 127.0.0.7|low-P1        127.0.0.8|OFF-P1        127.0.0.6|PS1-P1        127.0.0.2"
        "|PS31-P1       127.0.0.4|PS31-P2       127.0.0.4|PS31-P3       127.0.0.4|PS3-P1        127.0.0.3"
        "|PS3-P2        127.0.0.3|PS3-P3        127.0.0.3|ZERO-P1       Automatic IP|ZERO-P2       Automatic IP";
    const std::string tcpPorts =
        "PS1-P1 127.0.0.2 0 qa;PS3-P1 127.0.0.3 0 lpt1;PS3-P2 127.0.0.3 0 lpt2;PS3-P3 127.0.0.3 0 lpt3;"
        "PS31-P1 127.0.0.4 0 qa;PS31-P2 127.0.0.4 0 qb;PS31-P3 127.0.0.4 0 qc;ZERO-P1 0.0.0.0 0 qa;"
        "ZERO-P2 0.0.0.0 0 qb;OFF-P1 127.0.0.6 0 lpt1;LONGNAME123-P1 127.0.0.7 0 qa;low-P1 127.0.0.8 2 qa;";
    std::string lines;
    auto run = [&] {
        lines.clear();
        Lay(u"KVTJLPR", "");
        person->act = [&](HWND w, const kvthost::WindowView &v) {
            for (const kvthost::ControlView &c : v.controls)
                for (const std::u16string &l : c.lines) lines += "|" + kvthost::Narrow(l);
            kvthost::Click(w, IDC_CONTINUE);
        };
        EXPECT_TRUE(Add());
    };
    Start(true, false, false);
    run();
    EXPECT_EQ(lines, tcpLines);
    EXPECT_EQ(Ports(), tcpPorts);
    run();  // nothing new
    EXPECT_EQ(lines, tcpLines);
    EXPECT_EQ(Ports(), tcpPorts);
    EXPECT_TRUE(LocalmonDeletePort(nullptr, nullptr, const_cast<LPWSTR>(u"PS3-P2")));
    run();  // made again, at the end of the list
    EXPECT_EQ(Ports().substr(Ports().size() - 24), "PS3-P2 127.0.0.3 0 lpt2;");

    Start(false, true, false);
    run();
    EXPECT_EQ(lines.substr(0, 30), "|LONGNAME123-P1|low-P1       |");
    EXPECT_EQ(Ports().substr(0, 42), "PS1-P1 127.0.0.2 0 ;PS3-P1 127.0.0.3 0 ;PS");
    Start(false, false, true);  // NetBIOS mode over a table the test fills
    AvailPS[0].ModelType = 1, AvailPS[0].Type = 4, TotalPrintServer = 1, lstrcpyW(AvailPS[0].Name, u"NB");
    strcpy(AvailPS[0].QueueName[0].Text, "q"), person->act = [](HWND w, auto &) { kvthost::Click(w, IDC_CONTINUE); };
    EXPECT_TRUE(NBGetPortName2(nullptr));
    EXPECT_EQ(Ports(), "NB-P1 0.0.0.0 2 ;");
}

TEST(ParseIPAddress, DotsAndNumbersAsTheDialogsTakeThem) {
    const struct {
        const char16_t *text;
        BOOL valid;
        DWORD address;
    } cases[] = {
        {u"1.2.3.4", TRUE, 0x01020304},    {u"1.2.3", FALSE, 0x01020300},      {u"1.2.3.256", FALSE, 0x01020300},
        {u"a.2.3.4", FALSE, 0x00020304},   {u"1.2.3.4.5", TRUE, 0x01020304},   {u"1.2.3.4x", TRUE, 0x01020304},
        {u"1..2.3.4", TRUE, 0x01020304},   {u".0.0.0.0", TRUE, 0},             {u"", FALSE, 0},
        {u"1.2.3.-1", FALSE, 0x010203FF},  {u"1.2.3.0000004", TRUE, 0x01020304}, {u"1.2.3.00000004", FALSE, 0x01020300},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(kvthost::Narrow(c.text));
        PortParam p{};
        EXPECT_EQ(ParseIPAddress(&p, c.text), c.valid);
        EXPECT_EQ(p.IPAddress, c.address);
    }
}

}  // namespace
