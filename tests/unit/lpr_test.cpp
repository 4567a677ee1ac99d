// The LPR transport against the emulated print server: the header to the
// byte, the queue name, the slicing of the data, the retries and their limit,
// refusals, and the job's deletion while connecting.
#include <gtest/gtest.h>

#include "fixture.h"
#include "lpr.h"
#include "transport.h"

namespace {

const std::string kControlFile = std::string("\x02Hguest\nJreport\nNreport\nHpc1\n", 29) + std::string(1, '\0');

TEST_F(JobTest, HeaderOfAJobIsTheShortenedLprExchangeToTheByte) {
    PINIPORT port = StartPort();
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    EXPECT_EQ(port->Status, PP_LPRREADY);
    ASSERT_TRUE(WriteAll(port, "hello"));
    EXPECT_TRUE(LocalmonEndDocPort(port));
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));

    kvtps::LprJob job = emulator.Jobs("PS1").front();
    // The control file is 0x02, four lines and 0x00: L counts all but the 0x00.
    std::string expected = std::string("\x02lpt1\n") + "\x02" "29 cfA007pc1\n" + kControlFile +
                           "\x03" "2147483647 dfA007pc1\n";
    EXPECT_EQ(job.header, expected);
    EXPECT_EQ(kControlFile.size(), 30u);
    EXPECT_EQ(job.data, "hello");
    EXPECT_TRUE(job.complete);
    EXPECT_EQ(port->Status, 0u);
    EXPECT_EQ(port->Socket, INVALID_SOCKET);
}

TEST_F(JobTest, ControlFileDropsTheLinesOfWhatCannotBeRead) {
    PINIPORT port = StartPort();
    StartServer();
    kvthost::SetUserNameFails(true);
    kvthost::SetComputerName("standalone");  // no dot: the whole name
    // A job the spooler no longer knows: GetJobW fails, the job still goes.
    kvthost::JobSpec other;
    other.printer = kPrinter;
    other.jobId = 1234;
    kvthost::AddJob(other);
    SetLastError(kSentinel);
    ASSERT_TRUE(LocalmonStartDocPort(port, const_cast<LPWSTR>(kPrinter), 99, 1, nullptr));
    LocalmonEndDocPort(port);
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    kvtps::LprJob job = emulator.Jobs("PS1").front();
    EXPECT_EQ(job.controlCommand, std::string("\x02" "13 cfA099standalone\n"));
    EXPECT_EQ(job.controlFile, std::string("\x02Hstandalone\n", 13) + std::string(1, '\0'));
    EXPECT_EQ(job.dataCommand, std::string("\x03" "2147483647 dfA099standalone\n"));
}

// GetUserNameW has room for 256 characters: a name that needs more (with its
// terminator) is not read, and the control file has no user line.
TEST_F(JobTest, AUserNameIsReadIntoRoomFor256Characters) {
    for (size_t length : {255u, 256u}) {
        SCOPED_TRACE(length);
        PINIPORT port = StartPort();
        StartServer();
        kvthost::ImpersonateUser(std::u16string(length, u'u'));
        ASSERT_TRUE(StartDoc(port));
        LocalmonEndDocPort(port);
        ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
        std::vector<std::string> lines = emulator.Jobs("PS1").front().controlLines;
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], length == 255 ? "H" + std::string(255, 'u') : "Jreport");
        emulator.Stop();
    }
}

TEST_F(JobTest, JobIdsAboveNineHundredNinetyNineAreNotCut) {
    PINIPORT port = StartPort();
    StartServer();
    kvthost::JobSpec job;
    job.printer = kPrinter;
    job.jobId = 1234;
    job.document = u"big";
    job.user = u"guest";
    kvthost::AddJob(job);
    ASSERT_TRUE(LocalmonStartDocPort(port, const_cast<LPWSTR>(kPrinter), 1234, 1, nullptr));
    LocalmonEndDocPort(port);
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    EXPECT_EQ(emulator.Jobs("PS1").front().controlFileName, "cfA1234pc1");
    EXPECT_EQ(emulator.Jobs("PS1").front().dataFileName, "dfA1234pc1");
}

TEST_F(JobTest, ControlCharactersInADocumentNameCannotOpenALine) {
    PINIPORT port = StartPort();
    StartServer();
    kvthost::JobSpec job;
    job.printer = kPrinter;
    job.jobId = 7;
    job.document = u"a\nPrm -rf";
    job.user = u"guest";
    kvthost::AddJob(job);
    ASSERT_TRUE(StartDoc(port));
    LocalmonEndDocPort(port);
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    std::vector<std::string> lines = emulator.Jobs("PS1").front().controlLines;
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1], "Ja Prm -rf");
    EXPECT_EQ(lines[2], "Na Prm -rf");
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
    PINIPORT port = StartPort(kvttest::HostOptions(), 0, c.stored, c.digitKey);
    if (!c.portKey) {
        HKEY server;
        ASSERT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE,
                              u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port\\Ports\\PS1",
                              &server),
                  ERROR_SUCCESS);
        std::u16string digit(1, c.digitKey);
        ASSERT_EQ(RegDeleteKeyW(server, digit.c_str()), ERROR_SUCCESS);
        RegCloseKey(server);
    }
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    LocalmonEndDocPort(port);
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    EXPECT_EQ(emulator.Jobs("PS1").front().queue, c.expected);
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
    size_t before = kvttest::LogLinesStartingWith("LprWrite ok").size();
    ASSERT_TRUE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(data.data()), 10000, &written));
    EXPECT_EQ(written, 10000u);
    // One "LprWrite ok" per slice: 4096, 4096 and 1808.
    EXPECT_EQ(kvttest::LogLinesStartingWith("LprWrite ok").size() - before, 3u);
    EXPECT_EQ(port->ZeroWriteCount, 0);
    LocalmonEndDocPort(port);
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    EXPECT_EQ(emulator.Jobs("PS1").front().data, data);
}

TEST_F(JobTest, ShortSendsEndTheCallWithWhatHasGoneAndTheRestFollows) {
    PINIPORT port = StartPort();
    kvtps::LprFaults slow;
    slow.readChunk = 4096;
    slow.readDelayMs = 1;
    slow.recvBufferBytes = 4096;
    StartServer(slow);
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
    char byte = 'x';
    for (int i = 1; i <= 1000; ++i) {
        DWORD written = kSentinel;
        ASSERT_TRUE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(&byte), 1, &written));
        ASSERT_EQ(written, 0u);
        ASSERT_EQ(port->ZeroWriteCount, i);
    }
    DWORD written = kSentinel;
    ASSERT_TRUE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(&byte), 1, &written));
    EXPECT_EQ(port->ZeroWriteCount, 0) << "the 1001st empty send pauses and starts the count again";
    ASSERT_TRUE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(&byte), 1, &written));
    ASSERT_EQ(written, 0u);
    EXPECT_EQ(port->ZeroWriteCount, 1);
    port->Status |= PP_LPRREADY;
    ASSERT_TRUE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(&byte), 1, &written));
    EXPECT_EQ(written, 1u);
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
    PINIPORT port = StartPort(kvttest::HostOptions(), 2 /* fixed TCP/IP */);
    StartServer(c.faults);
    kvthost::SetGetJobHook([&c](DWORD jobId, int call) {
        if (call == c.deleteAtGetJob) kvthost::SetJobStatus(kPrinter, jobId, JOB_STATUS_DELETING);
    });
    EXPECT_FALSE(StartDoc(port));
    kvthost::SetGetJobHook(nullptr);
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(emulator.Counters("PS1").connectionsAccepted, c.connections);
    for (const std::string &line : c.logged) EXPECT_EQ(kvttest::LogLinesStartingWith(line).size(), 1u) << line;
    EXPECT_TRUE(kvttest::LogLinesStartingWith(c.notLogged).empty()) << c.notLogged;
    EXPECT_EQ(port->Status, 0u);
    EXPECT_EQ(port->Socket, INVALID_SOCKET);
    EXPECT_EQ(kvthost::OpenPrinterHandles(), 0);
}

kvtps::LprFaults Faults(bool refuse, int closeBeforeAck, int nakAtStep, bool silent) {
    kvtps::LprFaults f;
    f.refuse = refuse, f.closeBeforeAck = closeBeforeAck, f.nakAtStep = nakAtStep, f.nakByte = 0x01, f.silent = silent;
    return f;
}

INSTANTIATE_TEST_SUITE_P(
    Lpr, LprStartFails,
    ::testing::Values(
        LprFailure{"Refused", Faults(true, 0, 0, false), 0, 0, {"Entry LprOpenFile() error 7"}, "Printing use IPX"},
        LprFailure{"ClosedBeforeAck1", Faults(false, 1, 0, false), 0, 200, {"Entry LprOpenFile() error 7"}, "Try "},
        LprFailure{"NonZeroAck1", Faults(false, 0, 1, false), 0, 1, {"Entry LprOpenFile() error 6"}, "Printing use IPX"},
        LprFailure{"NonZeroAck2", Faults(false, 0, 2, false), 0, 1, {"Entry LprOpenFile() error 6"}, "Printing use IPX"},
        LprFailure{"NonZeroAck3", Faults(false, 0, 3, false), 0, 1, {"Entry LprOpenFile() error 6"}, "Printing use IPX"},
        LprFailure{"NonZeroAck4", Faults(false, 0, 4, false), 0, 1, {"Entry LprOpenFile() error 6"}, "Printing use IPX"},
        // The user deletes the job during the fifth attempt.
        LprFailure{"DeletedWhileConnecting", Faults(true, 0, 0, false), 5, 0, {"Entry LprOpenFile() error 1"},
                   "Entry LprOpenFile() error 7"},
        LprFailure{"SilentIsTakenAsGoneAndTriedAgain", Faults(false, 0, 0, true), 2, 1,
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
