// Message boxes: texts from the string table, and a box that its timer brings
// to the front every 15 seconds for as long as it stands, on each thread.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "admin.h"
#include "fixture.h"

namespace {

TEST(MessageBox, TextsComeFromTheTableAndAlwaysEndInALineFeed) {
    kvttest::TestHost host;
    std::u16string longName(2000, u'n');
    const struct {
        UINT caption, text;
        const char16_t *argument;
        std::u16string shown;  // empty: no box
    } cases[] = {{832, 838, nullptr, u"System already under add port\n"},
                 {832, 801, u"PS1-", u"'PS1-' is an invalid port name.\n"},
                 {832, 801, longName.c_str(), u"'" + longName.substr(0, 1021) + u"\n"},
                 {832, 999, nullptr, u""}, {999, 838, nullptr, u""}};
    for (const auto &c : cases) {
        kvthost::ClearMessageBoxes();
        EXPECT_EQ(ShowMessage(nullptr, MB_ICONSTOP, c.caption, c.text, c.argument), c.shown.empty() ? 0 : IDOK);
        std::u16string boxes;
        for (const auto &box : kvthost::MessageBoxes()) boxes += box.text + u"|" + box.caption;
        EXPECT_EQ(boxes, c.shown.empty() ? u"" : c.shown + u"|KVT Manager") << "text " << c.text;
    }
    // The hook on a thread without a box of its own finds no record and does nothing.
    EXPECT_EQ(MessageHook(HCBT_CREATEWND, 0, 0), 0);
}

// Each box is left open 40 s of the monitor's time (20 s when system-modal),
// then answered; the threads that brought each box to the front are kept.
class OpenBoxes : public MonitorTest {
protected:
    void SetUp() override {
        StartHost({.timeScale = 0.05});  // 40 s in 2 s
        kvthost::SetUiDriver([this](HWND box, int waitMs) {
            kvthost::WindowView view;
            kvthost::ViewWindow(box, &view);
            DWORD now = GetTickCount(), openMs = view.style & MB_SYSTEMMODAL ? 20000 : 40000, start;
            {
                std::lock_guard<std::mutex> lock(mutex);
                start = opened.emplace(box, now).first->second;
            }
            if (now - start >= openMs) return (void)kvthost::AnswerBox(box, IDOK);
            int rest = static_cast<int>(std::ceil((openMs - (now - start)) * 0.05));
            std::this_thread::sleep_for(std::chrono::milliseconds(waitMs < 0 ? rest : std::min(waitMs, rest)));
        });
    }
    std::mutex mutex;
    std::map<HWND, DWORD> opened;
};

TEST_F(OpenBoxes, EachThreadsBoxComesToTheFrontTwiceInFortySecondsAndThenNoMore) {
    DWORD threads[2] = {};
    auto show = [&](int i) {
        threads[i] = GetCurrentThreadId();
        EXPECT_EQ(ShowMessage(nullptr, MB_ICONSTOP, 832, 838), IDOK);
        EXPECT_EQ(TlsGetValue(MessageTlsSlot), nullptr);
        // A system-modal box has neither hook nor timer, and the first box's timer is gone.
        EXPECT_EQ(ShowMessage(nullptr, MB_ICONSTOP | MB_SYSTEMMODAL, 832, 838), IDOK);
    };
    std::thread first(show, 0), second(show, 1);
    first.join(), second.join();
    std::map<HWND, std::vector<DWORD>> calls;
    for (const auto &c : kvthost::ForegroundCalls()) calls[c.window].push_back(c.thread);
    std::multiset<std::vector<DWORD>> seen;
    for (const auto &[window, callers] : calls) seen.insert(callers);
    EXPECT_EQ(opened.size(), 4u);
    EXPECT_EQ(seen, (std::multiset<std::vector<DWORD>>{{threads[0], threads[0]}, {threads[1], threads[1]}}));
}

}  // namespace
