// The LPR transport against the emulated print server: the header to the
// byte, the queue name, the slicing of the data, the retries and their limit,
// refusals, and the job's deletion while connecting.
#include <gtest/gtest.h>

#include "fixture.h"
#include "lpr.h"
#include "transport.h"

namespace {

TEST_F(JobTest, HeaderOfAJobIsTheShortenedLprExchangeToTheByte) {
    PINIPORT port = StartPort();
    StartServer();
    const kvtps::LprJob job = Print(port, "hello");
    // The control file is 0x02, four lines and 0x00: L counts all but the 0x00.
    EXPECT_EQ(job.header, std::string("\x02lpt1\n") + "\x02" "29 cfA007pc1\n" +
                              std::string("\x02Hguest\nJreport\nNreport\nHpc1\n", 29) + std::string(1, '\0') +
                              "\x03" "2147483647 dfA007pc1\n");
    EXPECT_TRUE(job.data == "hello" && job.complete);
    EXPECT_TRUE(port->Status == 0 && port->Socket == INVALID_SOCKET);
}

// The control file holds what can be read: the user's name, into room for 256
// characters with its terminator (a longer one is not read); the document's,
// its control characters made blanks so that none opens a line; the host name
// to its first dot.  A job the spooler doesn't know (GetJobW fails) still goes,
// its id not cut above 999.
TEST_F(JobTest, ControlFileDropsTheLinesOfWhatCannotBeRead) {
    const struct {
        std::u16string user, document;  // no user: GetUserNameW fails
        DWORD jobId;
        const char *host, *name;
        std::vector<std::string> lines;
    } cases[] = {{std::u16string(255, u'u'), u"report", 7, "pc1.lan", "A007pc1",
                  {"H" + std::string(255, 'u'), "Jreport", "Nreport", "Hpc1"}},
                 {std::u16string(256, u'u'), u"report", 7, "pc1.lan", "A007pc1", {"Jreport", "Nreport", "Hpc1"}},
                 {u"guest", u"a\nPrm -rf", 7, "pc1.lan", "A007pc1", {"Hguest", "Ja Prm -rf", "Na Prm -rf", "Hpc1"}},
                 {u"", u"report", 1234, "standalone", "A1234standalone", {"Hstandalone"}}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        PINIPORT port = StartPort();
        StartServer();
        AddJob(7, c.document);
        kvthost::ImpersonateUser(c.user);
        kvthost::SetUserNameFails(c.user.empty());
        kvthost::SetComputerName(c.host);
        const kvtps::LprJob job = Print(port, "", c.jobId);
        std::string file = "\x02";
        for (const std::string &line : c.lines) file += line + "\n";
        EXPECT_EQ(job.controlFile, file + std::string(1, '\0'));
        EXPECT_EQ(job.controlCommand, "\x02" + std::to_string(file.size()) + " cf" + c.name + "\n");
        EXPECT_EQ(job.dataCommand, std::string("\x03" "2147483647 df") + c.name + "\n");
    }
}

struct QueueCase {
    const char *name;
    char16_t digitKey;
    const char16_t *stored;  // nullptr: no QueueName value
    bool portKey;            // false: the port's digit key is missing
    std::string expected;
};

class QueueNameTest : public JobTest, public ::testing::WithParamInterface<QueueCase> {};

const std::u16string kLongQueueText(64, u'q');
const char16_t *const kLongQueue = kLongQueueText.c_str();

TEST_P(QueueNameTest, FirstLineCarriesTheQueueName) {
    const QueueCase &c = GetParam();
    PINIPORT port = StartPort({}, 0, c.stored, c.digitKey);
    const std::u16string digitKey = kvttest::kPortsKey + u"\\PS1\\" + c.digitKey;
    EXPECT_TRUE(c.portKey || RegDeleteKeyW(HKEY_LOCAL_MACHINE, digitKey.c_str()) == ERROR_SUCCESS);
    StartServer();
    EXPECT_EQ(Print(port).queue, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Lpr, QueueNameTest,
    ::testing::Values(QueueCase{"Stored", u'2', u"laser", true, "laser"},
                      QueueCase{"StoredEmpty", u'1', u"", true, ""},
                      QueueCase{"NoneStored", u'1', nullptr, true, "lpt1"},
                      QueueCase{"NoPortKey", u'3', nullptr, false, "lpt3"},
                      // A serial port reads the key of the printer port with its
                      // digit, which isn't there: "lpt" and the digit key 4.
                      QueueCase{"SerialPort", u'4', nullptr, true, "lpt4"},
                      // A name longer than the 63 bytes of the packed name is cut there.
                      QueueCase{"SixtyFourCharactersCutAt63", u'1', kLongQueue, true, std::string(63, 'q')}),
    [](const ::testing::TestParamInfo<QueueCase> &info) { return std::string(info.param.name); });

TEST_F(JobTest, TenThousandBytesLeaveInSlicesOf4096In_One_Call) {
    PINIPORT port = StartPort();
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    std::string data(10000, 'x');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
    DWORD written = kSentinel;
    const size_t before = kvttest::LogCount("LprWrite ok");
    ASSERT_TRUE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(data.data()), 10000, &written));
    EXPECT_EQ(written, 10000u);
    // One "LprWrite ok" per slice: 4096, 4096 and 1808.
    EXPECT_EQ(kvttest::LogCount("LprWrite ok") - before, 3u);
    EXPECT_EQ(port->ZeroWriteCount, 0);
    LocalmonEndDocPort(port);
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    EXPECT_EQ(emulator.Jobs("PS1").front().data, data);
}

TEST_F(JobTest, ShortSendsEndTheCallWithWhatHasGoneAndTheRestFollows) {
    PINIPORT port = StartPort();
    StartServer({.readChunk = 4096, .readDelayMs = 1, .recvBufferBytes = 4096});
    ASSERT_TRUE(StartDoc(port));
    std::string data(5 << 20, '\0');  // more than the largest send buffer
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i % 251);
    size_t done = 0;
    bool sawShortCall = false;
    while (done < data.size()) {
        DWORD written = kSentinel;
        ASSERT_TRUE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(data.data() + done),
                                      static_cast<DWORD>(data.size() - done), &written));
        ASSERT_LE(written, data.size() - done);
        if (written < data.size() - done) sawShortCall = true;
        if (written % 4096 != 0 && written < data.size() - done) {
            ASSERT_EQ(port->ZeroWriteCount, 0) << "a send that took part of a slice resets the count";
        }
        done += written;
    }
    EXPECT_TRUE(sawShortCall);
    LocalmonEndDocPort(port);
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 20000));
    EXPECT_EQ(emulator.Jobs("PS1").front().data, data);
}

TEST_F(JobTest, EmptySendsAreCountedAndPauseAfterAThousand) {
    PINIPORT port = StartPort();
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    // A connection that is up but not ready for data sends nothing.
    port->Status &= ~PP_LPRREADY;
    auto send = [&] {
        char byte = 'x';
        DWORD written = kSentinel;
        EXPECT_TRUE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(&byte), 1, &written));
        return written;
    };
    for (int i = 1; i <= 1000; ++i) {
        ASSERT_EQ(send(), 0u);
        ASSERT_EQ(port->ZeroWriteCount, i);
    }
    EXPECT_EQ(send(), 0u);
    EXPECT_EQ(port->ZeroWriteCount, 0) << "the 1001st empty send pauses and starts the count again";
    EXPECT_EQ(send(), 0u);
    EXPECT_EQ(port->ZeroWriteCount, 1);
    port->Status |= PP_LPRREADY;
    EXPECT_EQ(send(), 1u);
    EXPECT_EQ(port->ZeroWriteCount, 0) << "a send that moved bytes resets the count";
    LocalmonEndDocPort(port);
}

// A job start on a port fixed to TCP/IP that fails: 200 attempts against a
// server that refuses or closes before its first ack (error 7); a non-zero ack
// at any step ends at once, with no further connect (error 6); a job deleted
// while connecting stops the attempts (error 1), also against a silent server,
// which is taken as gone after its waits and tried again.
struct LprFailure {
    const char *name;
    kvtps::LprFaults faults;
    int deleteAtGetJob;  // 0: never deleted
    uint64_t connections;
    std::vector<std::string> logged;  // once each
    const char *notLogged;
};

class LprStartFails : public JobTest, public ::testing::WithParamInterface<LprFailure> {};

TEST_P(LprStartFails, WithError1117AndTheLogSaysWhy) {
    const LprFailure &c = GetParam();
    PINIPORT port = StartPort({}, 2 /* fixed TCP/IP */);
    StartServer(c.faults);
    kvthost::SetGetJobHook([&c](DWORD jobId, int call) {
        if (call == c.deleteAtGetJob) kvthost::SetJobStatus(kPrinter, jobId, JOB_STATUS_DELETING);
    });
    EXPECT_FALSE(StartDoc(port));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(emulator.Counters("PS1").connectionsAccepted, c.connections);
    for (const std::string &line : c.logged) EXPECT_EQ(kvttest::LogCount(line), 1u) << line;
    EXPECT_EQ(kvttest::LogCount(c.notLogged), 0u) << c.notLogged;
    EXPECT_TRUE(port->Status == 0 && port->Socket == INVALID_SOCKET && kvthost::OpenPrinterHandles() == 0);
}

INSTANTIATE_TEST_SUITE_P(
    Lpr, LprStartFails,
    ::testing::Values(
        LprFailure{"Refused", {.refuse = true}, 0, 0, {"Entry LprOpenFile() error 7"}, "Printing use IPX"},
        LprFailure{"ClosedBeforeAck1", {.closeBeforeAck = 1}, 0, 200, {"Entry LprOpenFile() error 7"}, "Try "},
        // At step 1 the whole log of log_test's refused job.
        LprFailure{"NonZeroAck2", {.nakAtStep = 2}, 0, 1, {"Entry LprOpenFile() error 6"}, "Printing use IPX"},
        LprFailure{"NonZeroAck3", {.nakAtStep = 3}, 0, 1, {"Entry LprOpenFile() error 6"}, "Printing use IPX"},
        LprFailure{"NonZeroAck4", {.nakAtStep = 4}, 0, 1, {"Entry LprOpenFile() error 6"}, "Printing use IPX"},
        // The user deletes the job during the fifth attempt.
        LprFailure{"DeletedWhileConnecting", {.refuse = true}, 5, 0, {"Entry LprOpenFile() error 1"},
                   "Entry LprOpenFile() error 7"},
        LprFailure{"SilentIsTakenAsGoneAndTriedAgain", {.silent = true}, 2, 1,
                   {"Leave LprHandshake - connection closed", "Entry LprOpenFile() error 1"},
                   "Entry LprOpenFile() error 7"}),
    [](const ::testing::TestParamInfo<LprFailure> &info) { return std::string(info.param.name); });

TEST_F(JobTest, AWriteWithoutASocketFailsAndTheEndFreesThePort) {
    PINIPORT port = StartPort();
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    closesocket(port->Socket);
    port->Socket = INVALID_SOCKET;
    char byte = 'x';
    DWORD written = kSentinel;
    SetLastError(kSentinel);
    EXPECT_FALSE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(&byte), 1, &written));
    EXPECT_EQ(GetLastError(), ERROR_WRITE_FAULT);
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(port->Status, PP_LPRREADY) << "the port stays busy until the job ends";
    EXPECT_EQ(port->hPrinter, nullptr);
    EXPECT_FALSE(StartDoc(port));
    EXPECT_EQ(GetLastError(), ERROR_BUSY);
    EXPECT_TRUE(LocalmonEndDocPort(port));
    EXPECT_EQ(port->Status, 0u);
    EXPECT_EQ(kvthost::OpenPrinterHandles(), 0);
}

}  // namespace
