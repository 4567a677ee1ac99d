// A port's record belongs to its job from the job start's claim to the end of
// the job, whatever the transport does with Status meanwhile: a delete in any
// moment of that span is refused with ERROR_BUSY, and the record stays valid
// for the job's thread.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "job_fixture.h"

namespace {

LPWSTR PortName() { return const_cast<LPWSTR>(u"ps1-p1"); }

bool DeleteIsRefused() {
    SetLastError(kSentinel);
    return !LocalmonDeletePort(nullptr, nullptr, PortName()) && GetLastError() == ERROR_BUSY;
}

// Three connects closed before the first acknowledgement, then one that goes
// through: the LPR transport puts Status to 0 in each pause between them.
kvtps::LprFaults ThreeClosedAttempts() {
    kvtps::LprFaults faults;
    faults.closeBeforeAck = 1;
    faults.closeBeforeAckCount = 3;
    return faults;
}

class BusyPort : public JobTest {};

// The job's thread tries the delete itself at each moment it talks to the
// spooler: the deletion test of every connect attempt, the header's job
// record, and the job end before and after the pause that follows the close.
TEST_F(BusyPort, EveryMomentOfTheJobRefusesTheDelete) {
    PINIPORT port = StartPort();
    StartServer(ThreeClosedAttempts());
    std::vector<std::string> refused, allowed;
    kvthost::SetSpoolerHook([&](const char *function, DWORD, int) {
        (DeleteIsRefused() ? refused : allowed).push_back(function);
    });
    ASSERT_TRUE(StartDoc(port));
    EXPECT_FALSE(StartDoc(port)) << "nor is the port claimed by a second job";
    EXPECT_EQ(GetLastError(), ERROR_BUSY);
    ASSERT_TRUE(WriteAll(port, "the job goes on"));
    EXPECT_TRUE(LocalmonEndDocPort(port));
    kvthost::SetSpoolerHook(nullptr);

    EXPECT_TRUE(allowed.empty()) << allowed.front();
    EXPECT_EQ(refused, (std::vector<std::string>{"GetJobW", "GetJobW", "GetJobW", "GetJobW", "GetJobW",
                                                 "GetJobW", "SetPrinterW",
                                                 "SetJobW", "ClosePrinter"}));
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    EXPECT_EQ(emulator.Jobs("PS1").back().data, "the job goes on");
    EXPECT_TRUE(LocalmonDeletePort(nullptr, nullptr, PortName())) << "the job has ended";
    EXPECT_EQ(PortListHead, nullptr);
}

struct DeleteCase {
    const char *name;
    kvtps::LprFaults faults;
    bool delivered;  // the job goes out, or its start fails after the fall-over
};

class DeletesOnSeveralThreads : public JobTest, public ::testing::WithParamInterface<DeleteCase> {};

// Once the job has claimed the port (at its first call of the spooler), four
// threads delete it without pause.  A delete may go through only after the
// job's last call of the spooler (its printer closed at the end, or at the
// failed start); until then each is refused.  Under the address sanitizer a
// record freed under the job is a report of its own.
TEST_P(DeletesOnSeveralThreads, NoDeleteGoesThroughBeforeTheJobLetsGo) {
    kvttest::HostOptions options;
    options.netbios = true;  // an automatic port falls over from TCP/IP
    options.debug = false;   // four threads at the log would only show boxes
    PINIPORT port = StartPort(options);
    StartServer(GetParam().faults);
    std::atomic<bool> released{false}, stop{false};
    std::atomic<int> deleted{0}, early{0};
    std::vector<std::thread> deleters;
    auto deleter = [&] {
        while (!stop && deleted == 0) {
            if (LocalmonDeletePort(nullptr, nullptr, PortName())) {
                if (!released) ++early;
                ++deleted;
            } else if (GetLastError() != ERROR_BUSY && GetLastError() != ERROR_UNKNOWN_PORT) {
                ++early;  // a refusal for any other reason is wrong too
            }
        }
    };
    kvthost::SetSpoolerHook([&](const char *function, DWORD, int call) {
        if (call == 1)
            for (int i = 0; i < 4; ++i) deleters.emplace_back(deleter);
        if (std::strcmp(function, "ClosePrinter") == 0) released = true;
    });
    BOOL started = StartDoc(port);
    if (started) {
        WriteAll(port, "delivered whole");
        LocalmonEndDocPort(port);
    }
    stop = true;
    for (auto &t : deleters) t.join();
    kvthost::SetSpoolerHook(nullptr);

    EXPECT_EQ(deleters.size(), 4u);
    EXPECT_EQ(started, GetParam().delivered ? TRUE : FALSE);
    EXPECT_EQ(early, 0);
    EXPECT_LE(deleted, 1);
    if (GetParam().delivered) {
        ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
        EXPECT_EQ(emulator.Jobs("PS1").back().data, "delivered whole");
    }
}

kvtps::LprFaults Nak() {
    kvtps::LprFaults faults;
    faults.nakAtStep = 1;
    return faults;
}

INSTANTIATE_TEST_SUITE_P(Ownership, DeletesOnSeveralThreads,
                         ::testing::Values(DeleteCase{"TriedAgainThenPrinted", ThreeClosedAttempts(), true},
                                           DeleteCase{"RefusedAndFallenOver", Nak(), false}),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
