// Message boxes: texts from the string table, and a box that its timer
// brings to the front every 15 seconds for as long as it stands, on each
// thread that shows one.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <map>
#include <mutex>
#include <thread>

#include "admin.h"
#include "kvthost.h"
#include "monitor.h"
#include "monitor_host.h"

namespace {

constexpr double kScale = 0.05;  // 40 s of the monitor's time in 2 s

TEST(MessageBox, TextsComeFromTheTableAndAlwaysEndInALineFeed) {
    kvttest::TestHost host;
    std::u16string longName(2000, u'n');
    struct Case {
        UINT caption, text;
        const char16_t *argument;
        int result;
        std::u16string shown;
    };
    const Case cases[] = {
        {832, 838, nullptr, IDOK, u"System already under add port\n"},
        {832, 801, u"PS1-", IDOK, u"'PS1-' is an invalid port name.\n"},
        {832, 801, longName.c_str(), IDOK, u"'" + longName.substr(0, 1021) + u"\n"},
        {832, 999, nullptr, 0, u""},
        {999, 838, nullptr, 0, u""},
    };
    for (const Case &c : cases) {
        kvthost::ClearMessageBoxes();
        EXPECT_EQ(ShowMessage(nullptr, MB_ICONSTOP, c.caption, c.text, c.argument), c.result);
        auto boxes = kvthost::MessageBoxes();
        ASSERT_EQ(boxes.size(), c.result != 0 ? 1u : 0u) << "text " << c.text << ", caption " << c.caption;
        if (boxes.empty()) continue;
        EXPECT_EQ(boxes[0].text, c.shown);
        EXPECT_EQ(boxes[0].caption, u"KVT Manager");
        EXPECT_EQ(boxes[0].type, MB_ICONSTOP);
    }
    // The hook on a thread without a box of its own finds no record and does nothing.
    EXPECT_EQ(MessageHook(HCBT_CREATEWND, 0, 0), 0);
}

// A person who leaves each box open for a while, then answers OK.  What the
// box's thread held in MessageTlsSlot meanwhile is kept.
class OpenBoxes : public ::testing::Test {
protected:
    void SetUp() override {
        host = std::make_unique<kvttest::TestHost>(Options());
        kvthost::SetUiDriver([this](HWND box, int waitMs) {
            DWORD now = GetTickCount();
            DWORD start;
            {
                std::lock_guard<std::mutex> lock(mutex);
                start = opened.emplace(box, now).first->second;
                slotHeld[box] = TlsGetValue(MessageTlsSlot) != nullptr;
            }
            if (now - start >= openMs) {
                kvthost::AnswerBox(box, IDOK);
                return;
            }
            int rest = static_cast<int>(std::ceil((openMs - (now - start)) * kScale));
            std::this_thread::sleep_for(std::chrono::milliseconds(waitMs < 0 ? rest : std::min(waitMs, rest)));
        });
    }
    static kvttest::HostOptions Options() {
        kvttest::HostOptions o;
        o.timeScale = kScale;
        return o;
    }
    // The SetForegroundWindow calls of each window.
    std::map<HWND, std::vector<DWORD>> Calls() {
        std::map<HWND, std::vector<DWORD>> calls;
        for (const auto &c : kvthost::ForegroundCalls()) calls[c.window].push_back(c.thread);
        return calls;
    }

    std::unique_ptr<kvttest::TestHost> host;
    DWORD openMs = 40000;
    std::mutex mutex;
    std::map<HWND, DWORD> opened;
    std::map<HWND, bool> slotHeld;
};

TEST_F(OpenBoxes, ABoxOpenFortySecondsComesToTheFrontTwiceAndThenNoMore) {
    EXPECT_EQ(ShowMessage(nullptr, MB_ICONSTOP, 832, 838), IDOK);
    EXPECT_EQ(TlsGetValue(MessageTlsSlot), nullptr);
    ASSERT_EQ(opened.size(), 1u);
    HWND box = opened.begin()->first;
    EXPECT_TRUE(slotHeld[box]);
    EXPECT_EQ(Calls(), (std::map<HWND, std::vector<DWORD>>{{box, {GetCurrentThreadId(), GetCurrentThreadId()}}}));

    // A system-modal box has neither hook nor timer; the first box's timer is gone.
    openMs = 20000;
    EXPECT_EQ(ShowMessage(nullptr, MB_ICONSTOP | MB_SYSTEMMODAL, 832, 838), IDOK);
    ASSERT_EQ(opened.size(), 2u);
    for (const auto &[window, held] : slotHeld) EXPECT_EQ(held, window == box);
    EXPECT_EQ(Calls().size(), 1u);
    EXPECT_EQ(Calls()[box].size(), 2u);
}

TEST_F(OpenBoxes, TwoThreadsEachBringTheirOwnBoxToTheFront) {
    DWORD threads[2] = {};
    auto show = [&](int i) {
        threads[i] = GetCurrentThreadId();
        ShowMessage(nullptr, MB_ICONSTOP, 832, 838);
    };
    std::thread first(show, 0), second(show, 1);
    first.join();
    second.join();
    auto calls = Calls();
    ASSERT_EQ(calls.size(), 2u);
    std::vector<std::vector<DWORD>> seen;
    for (const auto &[window, callers] : calls) seen.push_back(callers);
    std::sort(seen.begin(), seen.end());
    std::vector<std::vector<DWORD>> expected = {{threads[0], threads[0]}, {threads[1], threads[1]}};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(seen, expected);
}

}  // namespace
