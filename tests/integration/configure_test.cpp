// kvtmon configure as a user runs it: dialog 550 answered from the command
// line, and in a terminal of 80x24 (tmux) with keys as a person types them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "kvthost.h"
#include "kvtmon_run.h"

namespace {

const std::u16string kMonitorKey = u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port";

class KvtmonConfigure : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/kvt-configure-XXXXXX";
        dir_ = mkdtemp(dir);
        ASSERT_EQ(Kvtmon({"init"}).status, 0);
        // PS9-P1 on TCP/IP with the queue "lp", the notice off.
        kvthost::SetPrefix(dir_ + "/prefix");
        HKEY key;
        RegCreateKeyW(HKEY_LOCAL_MACHINE, (kMonitorKey + u"\\Ports\\PS9\\1").c_str(), &key);
        BYTE tcpip = 2;
        RegSetValueExW(key, u" ", 0, REG_BINARY, &tcpip, 1);
        RegSetValueExW(key, u"QueueName", 0, REG_SZ, reinterpret_cast<const BYTE *>(u"lp"), 6);
        RegCloseKey(key);
    }
    void TearDown() override {
        if (!tmux_.empty()) std::system(("tmux -L " + tmux_ + " kill-server 2>/dev/null").c_str());
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    kvttest::KvtmonRun Kvtmon(std::vector<std::string> args) { return kvttest::RunKvtmon(args, dir_, "0.01"); }
    std::string Stored() {
        kvttest::KvtmonRun run = Kvtmon({"configure", "PS9-P1", "--notify", "off"});
        return run.out.substr(run.out.find(':') + 2);
    }

    // A terminal of 80x24 running `kvtmon configure PS9-P1`, then saying how it ended.
    void StartTerminal() {
        tmux_ = "kvt-configure-" + std::to_string(getpid());
        std::string kvtmon = std::getenv("KVTMON") != nullptr ? std::getenv("KVTMON") : KVT_BIN_DIR "/kvtmon";
        std::string command = "tmux -L " + tmux_ + " -f /dev/null -u new-session -d -x 80 -y 24 'LANG=C.UTF-8 KVT_PREFIX=" + dir_ +
                              "/prefix " + kvtmon + " configure PS9-P1; echo EXIT=$?; sleep 60'";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
    }
    std::string Screen() {
        std::string screen;
        FILE *pane = popen(("tmux -L " + tmux_ + " capture-pane -p").c_str(), "r");
        for (int c; pane != nullptr && (c = std::fgetc(pane)) != EOF;) screen.push_back(static_cast<char>(c));
        if (pane != nullptr) pclose(pane);
        return screen;
    }
    // The screen once it shows the text; a failure after 20 seconds.
    std::string WaitFor(const std::string &text) {
        std::string screen;
        for (int i = 0; i < 400 && (screen = Screen()).find(text) == std::string::npos; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_NE(screen.find(text), std::string::npos) << text << " is not on\n" << screen;
        return screen;
    }
    void Keys(const std::string &keys) { std::system(("tmux -L " + tmux_ + " send-keys " + keys).c_str()); }

    std::string dir_, tmux_;
};

TEST_F(KvtmonConfigure, AnswersAreTypedIntoTheDialogAndWhatIsStoredIsShown) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out, err;  // err: a part of it
    };
    const std::string cut = std::string(31, 'q');
    const Case cases[] = {
        {{"--protocol", "auto", "--queue", "raw", "--notify", "on"}, 0,
         "PS9-P1: transport automatic (0), queue name \"raw\", notice after each job on\n", ""},
        {{"--notify", "off"}, 0, "PS9-P1: transport automatic (0), queue name \"raw\", notice after each job off\n", ""},
        {{"--protocol", "ipx", "--queue", "none"}, 3, "", "this host does not offer IPX"},
        {{"--queue", cut + "qqqq"}, 0, "PS9-P1: transport automatic (0), queue name \"" + cut +
         "\", notice after each job off\n", "the name is cut"},
        {{}, 2, "", "no terminal to show the dialog on"},
        {{"--protocol", "lpr"}, 2, "", "--protocol is auto, ipx, tcpip or netbeui"},
    };
    for (const Case &c : cases) {
        std::vector<std::string> args = {"configure", "PS9-P1"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        kvttest::KvtmonRun run = Kvtmon(args);
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_EQ(run.out, c.out);
        EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
    }
    kvttest::KvtmonRun run = Kvtmon({"configure", "PS8-P1", "--notify", "on"});
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.err, "kvtmon: no port 'PS8-P1'\n");
}

TEST_F(KvtmonConfigure, APersonAtTheTerminalChoosesTypesAndPressesOK) {
    // With the log on, the monitor's start-up box comes first and waits.
    ASSERT_EQ(Kvtmon({"init", "--debug"}).status, 0);
    StartTerminal();
    std::string screen = WaitFor("Starting DEBUG mode");
    EXPECT_NE(screen.find("< OK >"), std::string::npos) << screen;
    EXPECT_EQ(screen.find("Select Protocol"), std::string::npos) << screen;
    Keys("Enter");
    screen = WaitFor("Select Protocol");
    for (const char *shown : {"(*) TCP/IP", "( ) Auto", "( ) IPX", "( ) NetBEUI", "LPR Setting", "Queue Name",
                              "lp______", "[ ] Notify user after print out", "< OK >"})
        EXPECT_NE(screen.find(shown), std::string::npos) << shown << " is not on\n" << screen;
    // Down from TCP/IP passes the disabled NetBEUI and comes round to Auto.
    Keys("Down");
    WaitFor("(*) Auto");
    Keys("Tab BSpace BSpace r a w Tab Space");
    screen = WaitFor("[x] Notify");
    EXPECT_NE(screen.find("raw______"), std::string::npos) << screen;
    Keys("Enter");
    screen = WaitFor("EXIT=");
    EXPECT_NE(screen.find("PS9-P1: transport automatic (0), queue name \"raw\", notice after each job on\nEXIT=0"),
              std::string::npos)
        << screen;
    EXPECT_EQ(screen.find("Select Protocol"), std::string::npos) << "the terminal is given back";
}

TEST_F(KvtmonConfigure, CtrlCLeavesTheDialogAndStoresNothing) {
    StartTerminal();
    WaitFor("Select Protocol");
    Keys("Tab x y z C-c");
    std::string screen = WaitFor("EXIT=");
    EXPECT_NE(screen.find("kvtmon: interrupted; nothing stored\nEXIT=130"), std::string::npos) << screen;
    EXPECT_EQ(screen.find("Select Protocol"), std::string::npos) << "the terminal is given back";
    EXPECT_EQ(Stored(), "transport TCP/IP (2), queue name \"lp\", notice after each job off\n");
}

}  // namespace
