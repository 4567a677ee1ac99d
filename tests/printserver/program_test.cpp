// kvtps the program: its command line and configuration file, the line it
// prints per job, and the spool it writes from names a client chose.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "kvtps_program.h"

using namespace kvtps;
namespace fs = std::filesystem;

namespace {

bool Parse(std::vector<std::string> args, ProgramOptions *options, std::string *error) {
    return ParseCommandLine(args, options, error);
}

std::string ReadFile(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class TempDir {
public:
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "kvtps-test-XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~TempDir() { fs::remove_all(path_); }
    const fs::path &path() const { return path_; }

private:
    fs::path path_;
};

TEST(ProgramOptions, ServersAndTheirKnobsInAnyOrder) {
    ProgramOptions o;
    std::string error;
    ASSERT_TRUE(Parse({"--nak", "pc2=3:0x7f", "--server", "pc1@127.0.0.2", "--server=pc2@127.0.0.3:1515",
                       "--close-before-ack=pc1=2,3", "--slow", "pc2=256", "--rcvbuf", "pc2=4096",
                       "--ack-delay", "pc1=50", "--silent", "pc2", "--refuse=pc1", "--count-only",
                       "pc2", "--spool", "/tmp/s", "--quiet", "--private-net"},
                      &o, &error))
        << error;
    ASSERT_EQ(o.servers.size(), 2u);
    const ServerConfig &a = o.servers[0], &b = o.servers[1];
    EXPECT_EQ(a.name, "pc1");
    EXPECT_EQ(a.address, "127.0.0.2");
    EXPECT_EQ(a.lprPort, 515);
    EXPECT_EQ(a.lpr.closeBeforeAck, 2);
    EXPECT_EQ(a.lpr.closeBeforeAckCount, 3);
    EXPECT_EQ(a.lpr.ackDelayMs, 50);
    EXPECT_TRUE(a.lpr.refuse);
    EXPECT_FALSE(a.lpr.silent);
    EXPECT_TRUE(a.storeData);
    EXPECT_EQ(b.lprPort, 1515);
    EXPECT_EQ(b.lpr.nakAtStep, 3);
    EXPECT_EQ(b.lpr.nakByte, 0x7f);
    EXPECT_EQ(b.lpr.readChunk, 256u);
    EXPECT_EQ(b.lpr.readDelayMs, 10);
    EXPECT_EQ(b.lpr.recvBufferBytes, 4096);
    EXPECT_TRUE(b.lpr.silent);
    EXPECT_FALSE(b.storeData);
    EXPECT_EQ(o.spoolDir, "/tmp/s");
    EXPECT_TRUE(o.quiet);
    EXPECT_TRUE(o.privateNet);
}

TEST(ProgramOptions, BadInputIsNamedNeverGuessed) {
    const struct {
        std::vector<std::string> args;
        const char *error;
    } cases[] = {
        {{}, "no server given (use --server or --config)"},
        {{"pc1@127.0.0.2"}, "unexpected argument 'pc1@127.0.0.2'"},
        {{"--verbose"}, "unknown option --verbose"},
        {{"--server"}, "--server wants a value"},
        {{"--server", "127.0.0.2"}, "--server wants NAME@ADDRESS[:PORT], not '127.0.0.2'"},
        {{"--server", "p/c@127.0.0.2"}, "bad server name 'p/c' (letters, digits, '.', '_', '-')"},
        {{"--server", "pc1@127.0.0.2:"}, "bad port ''"},
        {{"--server", "pc1@127.0.0.2:65536"}, "bad port '65536'"},
        {{"--server", "pc1@127.1"}, "bad IPv4 address '127.1'"},
        {{"--server", "pc1@127.0.0.2", "--server", "pc1@127.0.0.3"}, "server pc1 given twice"},
        {{"--server", "pc1@127.0.0.2", "--nak", "pc1"}, "--nak wants NAME=VALUE, not 'pc1'"},
        {{"--server", "pc1@127.0.0.2", "--nak", "pc1=5"},
         "--nak: nak wants K[:BYTE] with K 1-4 and BYTE 1-255, not '5'"},
        {{"--server", "pc1@127.0.0.2", "--nak", "pc1=2:0"},
         "--nak: nak wants K[:BYTE] with K 1-4 and BYTE 1-255, not '2:0'"},
        {{"--server", "pc1@127.0.0.2", "--close-before-ack", "pc1=1,0"},
         "--close-before-ack: close-before-ack wants K[,N] with K 1-4, not '1,0'"},
        {{"--server", "pc1@127.0.0.2", "--slow", "pc1=-5"}, "--slow: slow wants BYTES[,MS], not '-5'"},
        {{"--server", "pc1@127.0.0.2", "--silent", "pc2"}, "--silent: no server named 'pc2'"},
        {{"--server", "pc1@127.0.0.2", "--quiet=yes"}, "--quiet takes no value"},
        {{"--config", "/nonexistent/kvtps.conf"}, "cannot read /nonexistent/kvtps.conf: No such file or directory"},
    };
    for (const auto &c : cases) {
        ProgramOptions o;
        std::string error;
        EXPECT_FALSE(Parse(c.args, &o, &error)) << c.error;
        EXPECT_EQ(error, c.error);
    }
    ProgramOptions o;
    std::string error;
    EXPECT_TRUE(Parse({"--help"}, &o, &error));
    EXPECT_TRUE(o.help);
}

TEST(ProgramConfig, FileSetsTheSameAsTheOptions) {
    TempDir dir;
    const fs::path file = dir.path() / "kvtps.conf";
    std::ofstream(file) << "# two servers\n"
                           "[pc1]\n"
                           "address = 127.0.0.2\n"
                           "  port=1515   # test port\n"
                           "close-before-ack = 4\n"
                           "\n"
                           "[pc2]\n"
                           "address = 127.0.0.3\n"
                           "store = no\n"
                           "nak = 1\n"
                           "silent = yes\n"
                           "refuse = off\n";
    ProgramOptions o;
    std::string error;
    ASSERT_TRUE(Parse({"--config", file.string(), "--slow", "pc2=100,5", "--server", "pc3@127.0.0.4"},
                      &o, &error))
        << error;
    ASSERT_EQ(o.servers.size(), 3u);
    EXPECT_EQ(o.servers[0].lprPort, 1515);
    EXPECT_EQ(o.servers[0].lpr.closeBeforeAck, 4);
    EXPECT_EQ(o.servers[0].lpr.closeBeforeAckCount, -1);
    EXPECT_EQ(o.servers[1].address, "127.0.0.3");
    EXPECT_FALSE(o.servers[1].storeData);
    EXPECT_EQ(o.servers[1].lpr.nakAtStep, 1);
    EXPECT_EQ(o.servers[1].lpr.nakByte, 0x01);
    EXPECT_TRUE(o.servers[1].lpr.silent);
    EXPECT_FALSE(o.servers[1].lpr.refuse);
    EXPECT_EQ(o.servers[1].lpr.readChunk, 100u);
    EXPECT_EQ(o.servers[1].lpr.readDelayMs, 5);
    EXPECT_EQ(o.servers[2].name, "pc3");

    const struct {
        const char *text;
        const char *error;
    } bad[] = {
        {"address = 127.0.0.2\n", "f:1: a setting before the first [NAME]"},
        {"[pc1\n", "f:1: a section is [NAME]"},
        {"[pc1]\n[pc1]\n", "f:2: server pc1 given twice"},
        {"[..]\n", "f:1: bad server name '..'"},
        {"[pc1]\nport 515\n", "f:2: expected key = value"},
        {"[pc1]\n\ncolour = red\n", "f:3: unknown setting 'colour'"},
        {"[pc1]\nsilent = maybe\n", "f:2: silent wants yes or no, not 'maybe'"},
        {"[pc1]\nack-delay = 1e3\n", "f:2: ack-delay wants milliseconds, not '1e3'"},
    };
    for (const auto &b : bad) {
        std::vector<ServerConfig> servers;
        EXPECT_FALSE(ParseConfig(b.text, "f", &servers, &error)) << b.text;
        EXPECT_EQ(error, b.error);
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
    job.step = 5;
    return job;
}

TEST(ProgramOutput, OneLinePerJobWithItsBytesEscaped) {
    LprJob job = CompletedJob();
    EXPECT_EQ(DescribeJob(job),
              "pc1 #3 from 127.0.0.1:40000: queue \"LPT1\", cf \"cfA007pc1\" [\"Hguest\" "
              "\"Ja\\\"b\\x01\"], df \"dfA007pc1\", 5 data bytes, fnv1a64 a430d84680aabd0b, completed");
    job.complete = false;
    job.outcome = LprOutcome::FaultClosed;
    job.step = 2;
    job.error = "closed instead of ack 2";
    job.controlFileName.clear();
    job.controlLines.clear();
    job.dataFileName.clear();
    job.dataBytes = 0;
    job.dataChecksum = kFnvOffset;
    EXPECT_EQ(DescribeJob(job),
              "pc1 #3 from 127.0.0.1:40000: queue \"LPT1\" [], 0 data bytes, "
              "fnv1a64 cbf29ce484222325, fault-closed in step 2 (closed instead of ack 2)");
}

TEST(ProgramSpool, WritesBothFilesUnderSafeNamesWithoutOverwriting) {
    TempDir dir;
    LprJob job = CompletedJob();
    std::vector<std::string> written;
    std::string error;
    ASSERT_TRUE(SpoolJob(dir.path().string(), job, &written, &error)) << error;
    ASSERT_TRUE(SpoolJob(dir.path().string(), job, &written, &error)) << error;
    const fs::path folder = dir.path() / "pc1";
    EXPECT_EQ(written, (std::vector<std::string>{
                           (folder / "cfA007pc1").string(), (folder / "dfA007pc1").string(),
                           (folder / "cfA007pc1.2").string(), (folder / "dfA007pc1.2").string()}));
    EXPECT_EQ(ReadFile(folder / "cfA007pc1"), job.controlFile);
    EXPECT_EQ(ReadFile(folder / "dfA007pc1.2"), "hello");

    // Names chosen by a hostile client stay inside the server's folder.
    job.controlFileName = "../../etc/passwd";
    job.dataFileName = "../../etc/passwd";
    written.clear();
    ASSERT_TRUE(SpoolJob(dir.path().string(), job, &written, &error)) << error;
    ASSERT_EQ(written.size(), 2u);
    for (const auto &path : written) EXPECT_EQ(fs::path(path).parent_path(), folder) << path;
    EXPECT_EQ(fs::path(written[0]).filename(), "_.._.._etc_passwd");
    EXPECT_EQ(fs::path(written[1]).filename(), "_.._.._etc_passwd.data");

    // Count-only and broken-off jobs: only what there is.
    job.data.clear();
    job.controlFileName = "cfB";
    written.clear();
    ASSERT_TRUE(SpoolJob(dir.path().string(), job, &written, &error)) << error;
    EXPECT_EQ(written, std::vector<std::string>{(folder / "cfB").string()});
    job.complete = false;
    written.clear();
    ASSERT_TRUE(SpoolJob(dir.path().string(), job, &written, &error)) << error;
    EXPECT_TRUE(written.empty());

    EXPECT_EQ(SafeFileName(""), "_");
    EXPECT_EQ(SafeFileName(".."), "_..");
    EXPECT_EQ(SafeFileName(std::string("a\0b c", 5)), "a_b_c");
    EXPECT_EQ(SafeFileName(std::string(300, 'x')).size(), 128u);
}

}  // namespace
