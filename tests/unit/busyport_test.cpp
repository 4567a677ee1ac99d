// A port's record belongs to its job from the job start's claim to the end of
// the job, whatever the transport does with Status meanwhile: a delete in any
// moment of that span is refused with ERROR_BUSY, and the record stays valid
// for the job's thread.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "fixture.h"

namespace {

LPWSTR PortName() { return const_cast<LPWSTR>(u"ps1-p1"); }

// Three connects closed before the first acknowledgement, then one that goes
// through: the LPR transport puts Status to 0 in each pause between them.
const kvtps::LprFaults kClosedThrice = {.closeBeforeAck = 1, .closeBeforeAckCount = 3}, kNak = {.nakAtStep = 1};

class BusyPort : public JobTest {};

// The job's thread tries the delete itself at each moment it talks to the
// spooler: the deletion test of every connect attempt, the header's job
// record, and the job end before and after the pause that follows the close.
TEST_F(BusyPort, EveryMomentOfTheJobRefusesTheDelete) {
    PINIPORT port = StartPort();
    StartServer(kClosedThrice);
    std::vector<std::string> refused;
    kvthost::SetSpoolerHook([&](const char *function, DWORD, int) {
        SetLastError(kSentinel);
        bool busy = !LocalmonDeletePort(nullptr, nullptr, PortName()) && GetLastError() == ERROR_BUSY;
        refused.push_back(busy ? function : std::string("deleted at ") + function);
    });
    ASSERT_TRUE(StartDoc(port));
    EXPECT_FALSE(StartDoc(port)) << "nor is the port claimed by a second job";
    EXPECT_EQ(GetLastError(), ERROR_BUSY);
    ASSERT_TRUE(WriteAll(port, "the job goes on"));
    EXPECT_TRUE(LocalmonEndDocPort(port));
    kvthost::SetSpoolerHook(nullptr);

    EXPECT_EQ(refused, (std::vector<std::string>{"GetJobW", "GetJobW", "GetJobW", "GetJobW", "GetJobW", "GetJobW",
                                                 "SetPrinterW", "SetJobW", "ClosePrinter"}));
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    EXPECT_EQ(emulator.Jobs("PS1").back().data, "the job goes on");
    EXPECT_EQ(emulator.Counters("PS1").connectionsAccepted, 4u) << "three closed, and none for the second job";
    EXPECT_TRUE(LocalmonDeletePort(nullptr, nullptr, PortName())) << "the job has ended";
}

class DeletesOnSeveralThreads : public JobTest, public ::testing::WithParamInterface<bool> {};

// Once the job has claimed the port (at its first call of the spooler), four
// threads delete it without pause.  A delete may go through only after the
// job's last call of the spooler (its printer closed at the end, or at the
// failed start after the fall-over); until then each is refused.  Under the
// address sanitizer a record freed under the job is a report of its own.
TEST_P(DeletesOnSeveralThreads, NoDeleteGoesThroughBeforeTheJobLetsGo) {
    const bool delivered = GetParam();
    // An automatic port falls over from TCP/IP; four threads at the log would only show boxes.
    PINIPORT port = StartPort({.netbios = true, .debug = false});
    StartServer(delivered ? kClosedThrice : kNak, delivered);
    std::atomic<bool> released{false}, stop{false};
    std::atomic<int> deleted{0}, early{0};
    std::vector<std::thread> deleters;
    auto deleter = [&] {
        while (!stop && deleted == 0) {
            bool gone = LocalmonDeletePort(nullptr, nullptr, PortName());
            if (gone ? !released : GetLastError() != ERROR_BUSY && GetLastError() != ERROR_UNKNOWN_PORT) ++early;
            deleted += gone;
        }
    };
    kvthost::SetSpoolerHook([&](const char *function, DWORD, int call) {
        for (int i = 0; call == 1 && i < 4; ++i) deleters.emplace_back(deleter);
        if (std::strcmp(function, "ClosePrinter") == 0) released = true;
    });
    EXPECT_EQ(StartDoc(port), delivered ? TRUE : FALSE);
    if (delivered) {
        WriteAll(port, "delivered whole");
        LocalmonEndDocPort(port);
    }
    stop = true;
    for (auto &t : deleters) t.join();
    EXPECT_EQ(deleters.size(), 4u);
    EXPECT_EQ(early, 0);
    if (delivered) {
        ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
        EXPECT_EQ(emulator.Jobs("PS1").back().data, "delivered whole");
    }
}

INSTANTIATE_TEST_SUITE_P(Ownership, DeletesOnSeveralThreads, ::testing::Values(true, false),
                         [](const auto &info) { return std::string(info.param ? "Printed" : "FallenOver"); });

}  // namespace
