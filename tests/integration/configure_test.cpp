// kvtmon configure as a user runs it: dialog 550 answered from the command
// line, and in a terminal of 80x24 (tmux) with keys as a person types them.
#include "kvthost.h"
#include "kvtmon_run.h"

namespace {

class KvtmonConfigure : public kvttest::KvtmonTest {
protected:
    void SetUp() override {  // PS9-P1 on TCP/IP with the queue "lp", the notice off, a host without IPX
        KvtmonTest::SetUp();
        ASSERT_EQ(Kvtmon({"init", "--transports", "tcpip"}).status, 0);
        kvthost::SetPrefix(dir_ + "/prefix");
        HKEY key;
        RegCreateKeyW(HKEY_LOCAL_MACHINE, u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port"
                                          u"\\Ports\\PS9\\1", &key);
        RegSetValueExW(key, u" ", 0, REG_BINARY, reinterpret_cast<const BYTE *>("\2"), 1);
        RegSetValueExW(key, u"QueueName", 0, REG_SZ, reinterpret_cast<const BYTE *>(u"lp"), 6);
        RegCloseKey(key);
    }
    void TearDown() override {
        Tmux("kill-server");
        KvtmonTest::TearDown();
    }

    // A command of this test's own tmux server, and what it printed.
    std::string Tmux(const std::string &command) {
        std::system(("tmux -L kvt-" + std::to_string(getpid()) + " " + command + " >" + dir_ + "/tmux 2>&1").c_str());
        return kvttest::Slurp(dir_ + "/tmux");
    }
    // A terminal of 80x24 running `kvtmon configure PS9-P1` (or another command),
    // then saying how it ended.
    void StartTerminal(const std::string &command = "configure PS9-P1") {
        Tmux("-f /dev/null -u new-session -d -x 80 -y 24 'LANG=C.UTF-8 KVT_PREFIX=" + dir_ + "/prefix " +
             kvttest::KvtmonPath() + " " + command + "; echo EXIT=$?; sleep 60'");
    }
    // The screen once it shows the text; a failure after 20 seconds.
    std::string WaitFor(const std::string &text) {
        std::string screen;
        for (int i = 0; i < 400 && (screen = Tmux("capture-pane -p")).find(text) == std::string::npos; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_NE(screen.find(text), std::string::npos) << text << " is not on\n" << screen;
        return screen;
    }
};

TEST_F(KvtmonConfigure, AnswersAreTypedIntoTheDialogAndWhatIsStoredIsShown) {
    const std::string q31(31, 'q');
    const struct {
        std::vector<std::string> args;
        int status;
        std::string out, err;  // out: what follows "PS9-P1: transport "; err: a part of it
    } cases[] = {
        {{"--protocol", "auto", "--queue", "raw", "--notify", "on"}, 0, "automatic (0), queue name \"raw\"", ""},
        {{"--protocol", "ipx", "--queue", "none"}, 3, "", "this host does not offer IPX"},
        {{"--queue", q31 + "qq"}, 0, "automatic (0), queue name \"" + q31 + "\"", "the name is cut"},
        {{}, 2, "", "no terminal to show the dialog on"},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args = {"configure", "PS9-P1"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        kvttest::KvtmonRun run = Kvtmon(args);
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_EQ(run.out, c.out.empty() ? "" : "PS9-P1: transport " + c.out + ", notice after each job on\n");
        EXPECT_TRUE(kvttest::Holds(run.err, c.err));
    }
    EXPECT_EQ(Kvtmon({"configure", "PS8-P1", "--notify", "on"}).err, "kvtmon: no port 'PS8-P1'\n");
}

TEST_F(KvtmonConfigure, APersonAtTheTerminalChoosesTypesAndPressesOK) {
    ASSERT_EQ(Kvtmon({"init", "--transports", "tcpip,ipx", "--debug"}).status, 0);  // the start-up box comes first
    StartTerminal();
    EXPECT_EQ(WaitFor("Starting DEBUG mode").find("Select Protocol"), std::string::npos);
    Tmux("send-keys Enter");
    std::string screen = WaitFor("Select Protocol");
    for (const char *shown : {"(*) TCP/IP", "( ) IPX", "LPR Setting", "Queue Name", "lp______", "[ ] Notify", "< OK >"})
        EXPECT_TRUE(kvttest::Holds(screen, shown));
    Tmux("send-keys Down");  // past the disabled NetBEUI, round to Auto
    WaitFor("(*) Auto");
    Tmux("send-keys Tab BSpace BSpace r a w Tab Space");
    WaitFor("raw______");
    Tmux("send-keys Enter");
    screen = WaitFor("PS9-P1: transport automatic (0), queue name \"raw\", notice after each job on\nEXIT=0");
    EXPECT_EQ(screen.find("Select Protocol"), std::string::npos) << "the terminal is given back";
}

// In the add dialog, tabbing back into the list of print servers puts the
// choice back on LPT1, as the list's focus notice does on Windows.
TEST_F(KvtmonConfigure, TabbingIntoTheAddDialogsListPutsThePortBackOnLpt1) {
    kvtps::ServerConfig server = kvttest::Server("PS7", "127.0.0.7");
    server.model = 3;
    StartServers({server});
    StartTerminal("add");
    WaitFor("PS7 ");
    Tmux("send-keys Down");
    WaitFor("PS7-P1");
    Tmux("send-keys Tab Right");
    WaitFor("PS7-P2");
    Tmux("send-keys BTab");
    WaitFor("PS7-P1");
    Tmux("send-keys Enter");
    WaitFor("added PS7-P1\nEXIT=0");
}

TEST_F(KvtmonConfigure, CtrlCLeavesTheDialogAndStoresNothing) {
    StartTerminal();
    WaitFor("Select Protocol");
    Tmux("send-keys Tab x y z C-c");
    EXPECT_EQ(WaitFor("kvtmon: interrupted; nothing stored\nEXIT=130").find("Select Protocol"), std::string::npos);
    EXPECT_EQ(Kvtmon({"configure", "PS9-P1", "--notify", "on"}).out,
              "PS9-P1: transport TCP/IP (2), queue name \"lp\", notice after each job on\n");
}

}  // namespace
