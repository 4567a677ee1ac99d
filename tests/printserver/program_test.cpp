// kvtps the program: its command line and configuration file, the line it
// prints per job, and the spool it writes from names a client chose.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "kvtps_program.h"

using namespace kvtps;
namespace fs = std::filesystem;

namespace {

std::string ReadFile(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct TempDir {
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "kvtps-test-XXXXXX").string();
        path = mkdtemp(pattern.data());
    }
    ~TempDir() { fs::remove_all(path); }
    fs::path path;
};

// The LPR, IPX and management knobs, on the line and in the file.
TEST(ProgramOptions, ServersFromLineAndFileWithTheirKnobsInAnyOrder) {
    TempDir dir;
    std::ofstream(dir.path / "kvtps.conf") << "# one server\n"
                                              "[pc2]\n"
                                              "  address = 127.0.0.3   # its own\n"
                                              "store = no\n"
                                              "nak = 3:0x7f\n"
                                              "queue = 2:raw P2\nanswer = search,status\nmove = 127.0.0.9,1500\n";
    ProgramOptions o;
    std::string error;
    ASSERT_TRUE(ParseCommandLine({"--slow", "pc2=256", "--server", "pc1@127.0.0.2",
                                  std::string("--config=").append((dir.path / "kvtps.conf").string()),
                                  "--close-before-ack=pc1=2,3", "--refuse", "pc1", "--spool", "/s",
                                  "--quiet", "--ipx-busy", "pc1=3", "--ipx-reply-node", "pc1=00-00-7f-00-00-09",
                                  "--ipx-faults-on", "pc1=data,hangup", "--no-ipx", "pc2", "--device-name",
                                  "pc1=Front office", "--node", "pc1=00-40-26-00-00-0a", "--model", "pc1=0x83",
                                  "--type", "pc1=0", "--mgmt-silent", "pc2", "--reply-node", "pc1=00-40-26-00-00-0b",
                                  "--faults-on", "pc1=eeprom", "--cut-replies", "pc1=66"},
                                 &o, &error)) << error;
    ASSERT_EQ(o.servers.size(), 2u);
    const ServerConfig &a = o.servers[0], &b = o.servers[1];
    EXPECT_EQ(a.lpr.closeBeforeAck, 2);
    EXPECT_EQ(a.lpr.closeBeforeAckCount, 3);
    EXPECT_TRUE(a.lpr.refuse);
    EXPECT_EQ(a.ipxFaults.busyAnswers, 3);
    EXPECT_EQ(a.ipxFaults.replyNode, (NodeId{0, 0, 0x7f, 0, 0, 9}));
    EXPECT_EQ(a.ipxFaults.faultReplies, kIpxReplyData | kIpxReplyHangup);
    EXPECT_TRUE(a.ipx);
    EXPECT_EQ(a.deviceName, "Front office");
    EXPECT_EQ(a.node, (NodeId{0x00, 0x40, 0x26, 0x00, 0x00, 0x0a}));
    EXPECT_EQ(a.model, 0x83);
    EXPECT_EQ(a.type, 0);
    EXPECT_TRUE(a.mgmt.foreignNode);
    EXPECT_EQ(a.mgmt.replyNode, (NodeId{0x00, 0x40, 0x26, 0x00, 0x00, 0x0b}));
    EXPECT_EQ(a.mgmt.faultCommands, kAnswerReadEeprom);
    EXPECT_EQ(a.mgmt.cutReplyTo, 66u);
    EXPECT_FALSE(b.ipx);
    EXPECT_EQ(b.address, "127.0.0.3");
    EXPECT_FALSE(b.storeData);
    EXPECT_EQ(b.lpr.nakAtStep, 3);
    EXPECT_EQ(b.lpr.nakByte, 0x7f);
    EXPECT_EQ(b.lpr.readChunk, 256u);
    EXPECT_EQ(b.queueTexts[1], "raw P2");
    EXPECT_EQ(b.mgmt.answers, kAnswerSearch | kAnswerStatus);
    EXPECT_TRUE(b.mgmt.silent);
    EXPECT_EQ(b.moveAddress, "127.0.0.9");
    EXPECT_EQ(b.moveAfterMs, 1500);
    EXPECT_EQ(o.spoolDir, "/s");
    EXPECT_TRUE(o.quiet);
}

TEST(ProgramOptions, BadInputIsNamedNeverGuessed) {
    const struct {
        std::vector<std::string> args;
        const char *error;
    } cases[] = {
        {{}, "no server given (use --server or --config)"},
        {{"--verbose"}, "unknown option --verbose"},
        {{"--server", "p/c@127.0.0.2"}, "bad server name 'p/c' (letters, digits, '.', '_', '-')"},
        {{"--server", "pc1@127.0.0.2", "--nak", "pc1=2:0"},
         "--nak: nak wants K[:BYTE] with K 1-4 and BYTE 1-255, not '2:0'"},
        {{"--server", "pc1@127.0.0.2", "--silent", "pc2"}, "--silent: no server named 'pc2'"},
        {{"--server", "pc1@127.0.0.2", "--ipx-reply-node", "pc1=00-40-26-00-00-01"},
         "--ipx-reply-node: ipx-reply-node wants 00-00-a-b-c-d, not '00-40-26-00-00-01'"},
        {{"--config", "/nonexistent"}, "cannot read /nonexistent: No such file or directory"},
        {{"--server", "pc1@127.0.0.2", "--answer", "pc1=search,print"},
         "--answer: answer wants a list of search, eeprom, queues, status, not 'search,print'"},
        {{"--server", "pc1@127.0.0.2", "--queue", "pc1=4:x"},
         "--queue: queue wants K:TEXT with K 1-3 and at most 63 bytes, not '4:x'"},
    };
    for (const auto &c : cases) {
        ProgramOptions o;
        std::string error;
        EXPECT_FALSE(ParseCommandLine(c.args, &o, &error)) << c.error;
        EXPECT_EQ(error, c.error);
    }
    const struct {
        const char *text, *error;
    } files[] = {
        {"address = 127.0.0.2\n", "f:1: a setting before the first [NAME]"},
        {"[pc1]\n\ncolour = red\n", "f:3: unknown setting 'colour'"},
        {"[pc1]\nsilent = maybe\n", "f:2: silent wants yes or no, not 'maybe'"},
        {"[pc1]\nipx-silent = maybe\n", "f:2: ipx-silent wants yes or no, not 'maybe'"},
    };
    for (const auto &f : files) {
        std::vector<ServerConfig> servers;
        std::string error;
        EXPECT_FALSE(ParseConfig(f.text, "f", &servers, &error)) << f.text;
        EXPECT_EQ(error, f.error);
    }
}

LprJob CompletedJob() {
    LprJob job;
    job.server = "pc1";
    job.connection = 3;
    job.peer = "127.0.0.1:40000";
    job.queue = "LPT1";
    job.controlFileName = "cfA007pc1";
    job.dataFileName = "dfA007pc1";
    job.controlFile = std::string("\x02Hguest\nJa\"b\x01\n", 14) + '\0';
    job.controlLines = {"Hguest", "Ja\"b\x01"};
    job.data = "hello";
    job.dataBytes = 5;
    job.dataChecksum = Fnv1a64("hello", 5);
    job.complete = true;
    job.outcome = LprOutcome::Completed;
    return job;
}

TEST(ProgramOutput, OneLinePerJobWithItsBytesEscaped) {
    LprJob job = CompletedJob();
    EXPECT_EQ(DescribeJob(job),
              "pc1 #3 from 127.0.0.1:40000: queue \"LPT1\", cf \"cfA007pc1\" [\"Hguest\" "
              "\"Ja\\\"b\\x01\"], df \"dfA007pc1\", 5 data bytes, fnv1a64 a430d84680aabd0b, completed");
}

TEST(ProgramSpool, WritesBothFilesUnderSafeNamesWithoutOverwriting) {
    TempDir dir;
    LprJob job = CompletedJob();
    std::vector<std::string> written;
    std::string error;
    ASSERT_TRUE(SpoolJob(dir.path.string(), job, &written, &error)) << error;
    ASSERT_TRUE(SpoolJob(dir.path.string(), job, &written, &error)) << error;
    const fs::path folder = dir.path / "pc1";
    EXPECT_EQ(written, (std::vector<std::string>{
                           (folder / "cfA007pc1").string(), (folder / "dfA007pc1").string(),
                           (folder / "cfA007pc1.2").string(), (folder / "dfA007pc1.2").string()}));
    EXPECT_EQ(ReadFile(folder / "cfA007pc1"), job.controlFile);
    EXPECT_EQ(ReadFile(folder / "dfA007pc1.2"), "hello");

    // Names a hostile client chose stay inside the server's folder.
    job.controlFileName = job.dataFileName = "../../etc/passwd";
    written.clear();
    ASSERT_TRUE(SpoolJob(dir.path.string(), job, &written, &error)) << error;
    EXPECT_EQ(written, (std::vector<std::string>{(folder / "_.._.._etc_passwd").string(),
                                                 (folder / "_.._.._etc_passwd.data").string()}));
    EXPECT_EQ(SafeFileName(std::string("a\0b c", 5)), "a_b_c");

    // Count-only: the control file alone; broken off: nothing.
    job.data.clear();
    job.controlFileName = "cfB";
    written.clear();
    ASSERT_TRUE(SpoolJob(dir.path.string(), job, &written, &error)) << error;
    EXPECT_EQ(written, std::vector<std::string>{(folder / "cfB").string()});
    job.complete = false;
    ASSERT_TRUE(SpoolJob(dir.path.string(), job, &written, &error)) << error;
    EXPECT_EQ(written.size(), 1u);
}

}  // namespace
