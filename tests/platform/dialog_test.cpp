// The dialog engine on its own: a dialog of a module's templates, its sorted
// list, radio groups, edit boxes and disabled controls as Windows has them,
// the messages its procedure gets, and how it ends.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kvthost.h"

namespace {

using Item = kvthost::DialogItem;
constexpr DWORD kChild = WS_CHILD | WS_VISIBLE;
const Item kTemplates[] = {
    {Item::Dialog, 7, 0, u"", u"", WS_POPUP | WS_CAPTION, 0, 0, 160, 100, u"System", 10},
    {Item::Control, 10, 0, u"", u"LISTBOX", kChild | LBS_SORT | LBS_NOTIFY | WS_TABSTOP, 0, 0, 60, 40, u"", 0},
    {Item::Control, 11, 0, u"", u"LISTBOX", kChild | LBS_SORT | LBS_NOSEL, 0, 40, 60, 40, u"", 0},
    {Item::Control, 20, 0, u"A", u"BUTTON", kChild | BS_AUTORADIOBUTTON | WS_GROUP, 80, 0, 40, 8, u"", 0},
    {Item::Control, 21, 0, u"B", u"BUTTON", kChild | BS_AUTORADIOBUTTON, 80, 8, 40, 8, u"", 0},
    {Item::Control, 22, 0, u"C", u"BUTTON", kChild | BS_AUTORADIOBUTTON | WS_DISABLED, 80, 16, 40, 8, u"", 0},
    {Item::Control, 30, 0, u"X", u"BUTTON", kChild | BS_AUTORADIOBUTTON | WS_GROUP, 80, 24, 40, 8, u"", 0},
    {Item::Control, 40, 0, u"ab", u"EDIT", kChild | ES_UPPERCASE | WS_GROUP, 80, 32, 40, 12, u"", 0},
    {Item::Control, 41, 0, u"", u"EDIT", kChild | WS_DISABLED, 80, 48, 40, 12, u"", 0},
    {Item::Control, 50, 0, u"N", u"BUTTON", kChild | BS_AUTOCHECKBOX, 80, 64, 40, 8, u"", 0},
    {Item::Control, 1, 0, u"OK", u"BUTTON", kChild | BS_DEFPUSHBUTTON, 80, 80, 40, 14, u"", 0},
    {Item::End, 7, 0, u"", u"", 0, 0, 0, 0, 0, u"", 0},
};
const kvthost::ResourceTable kModule = {u"DIALOGS.DLL", nullptr, 0, kTemplates, std::size(kTemplates)};
char gModuleBase;
HINSTANCE Module() { return reinterpret_cast<HINSTANCE>(&gModuleBase); }

struct Message {
    UINT msg;
    WPARAM wParam;
    LPARAM lParam;
};
std::vector<Message> gMessages;
std::function<void(HWND)> gOnInit;

// Keeps every message; OK (id 1) ends the dialog with 1.
INT_PTR CALLBACK Procedure(HWND dialog, UINT msg, WPARAM wParam, LPARAM lParam) {
    gMessages.push_back({msg, wParam, lParam});
    if (msg == WM_INITDIALOG && gOnInit) gOnInit(dialog);
    if (msg == WM_COMMAND && LOWORD(wParam) == 1) EndDialog(dialog, 1);
    return TRUE;
}

class DialogEngine : public ::testing::Test {
protected:
    void SetUp() override {
        kvthost::RegisterModule(Module(), &kModule);
        gMessages.clear();
        gOnInit = nullptr;
    }
    void TearDown() override { kvthost::SetUiDriver(nullptr); }

    // Runs dialog 7 with param; the script acts once on the live dialog.
    INT_PTR Run(std::function<void(HWND)> script, LPARAM param = 0) {
        kvthost::SetUiDriver([&](HWND dialog, int) {
            ++driverCalls;
            script(dialog);
        });
        return DialogBoxParamW(Module(), MAKEINTRESOURCEW(7), nullptr, Procedure, param);
    }
    LRESULT Send(HWND d, int id, UINT msg, WPARAM w, const char16_t *text = nullptr) {
        return SendDlgItemMessageW(d, id, msg, w, reinterpret_cast<LPARAM>(text));
    }
    std::u16string Line(HWND d, int id, int index) {
        char16_t text[64] = u"?";
        Send(d, id, LB_GETTEXT, static_cast<WPARAM>(index), text);
        return text;
    }
    int driverCalls = 0;
};

TEST_F(DialogEngine, ASortedListGivesWindowsIndexesAndItemDataFollowsItsLine) {
    INT_PTR result = Run([&](HWND d) {
        std::vector<LRESULT> places;
        LPARAM data = 1;
        for (const char16_t *text : {u"delta", u"Alpha", u"charlie", u"bravo", u"Bravo"}) {
            places.push_back(Send(d, 10, LB_ADDSTRING, 0, text));
            Send(d, 10, LB_SETITEMDATA, static_cast<WPARAM>(places.back()), reinterpret_cast<const char16_t *>(data++));
        }
        EXPECT_EQ(places, (std::vector<LRESULT>{0, 0, 1, 1, 1}));
        std::vector<std::pair<std::u16string, LRESULT>> lines;
        for (int i = 0; i < 5; ++i) lines.push_back({Line(d, 10, i), Send(d, 10, LB_GETITEMDATA, i)});
        EXPECT_EQ(lines, (std::vector<std::pair<std::u16string, LRESULT>>{
                             {u"Alpha", 2}, {u"Bravo", 5}, {u"bravo", 4}, {u"charlie", 3}, {u"delta", 1}}));
        // The selection moves with its line; what is out of range is LB_ERR.
        EXPECT_EQ(Send(d, 10, LB_SETCURSEL, 2), 2);
        Send(d, 10, LB_ADDSTRING, 0, u"aardvark");
        EXPECT_EQ(Send(d, 10, LB_GETCURSEL, 0), 3);
        EXPECT_EQ(Line(d, 10, 3), u"bravo");
        for (UINT msg : {LB_SETCURSEL, LB_GETTEXT, LB_GETITEMDATA, LB_SETITEMDATA}) EXPECT_EQ(Send(d, 10, msg, 6), LB_ERR);
        EXPECT_EQ(Send(d, 10, LB_GETCURSEL, 0), 3);
        EXPECT_EQ(Send(d, 10, LB_SETCURSEL, static_cast<WPARAM>(-1)), LB_ERR);
        EXPECT_EQ(Send(d, 10, LB_GETCURSEL, 0), LB_ERR);
        // A list without selection takes none, from the program or a person.
        Send(d, 11, LB_ADDSTRING, 0, u"report");
        EXPECT_EQ(Send(d, 11, LB_SETCURSEL, 0), LB_ERR);
        EXPECT_FALSE(kvthost::SelectLine(d, 11, 0));
        gMessages.clear();
        EXPECT_TRUE(kvthost::SelectLine(d, 10, 4));
        ASSERT_EQ(gMessages.size(), 1u);
        EXPECT_EQ(gMessages[0].wParam, MAKEWPARAM(10, LBN_SELCHANGE));
        EXPECT_EQ(gMessages[0].lParam, reinterpret_cast<LPARAM>(GetDlgItem(d, 10)));
        EndDialog(d, 3);
    });
    EXPECT_EQ(result, 3);
}

TEST_F(DialogEngine, RadioGroupsEditBoxesAndDisabledControlsTakeInputAsOnWindows) {
    Run([&](HWND d) {
        CheckRadioButton(d, 20, 22, 20);
        CheckDlgButton(d, 30, BST_CHECKED);
        gMessages.clear();
        EXPECT_TRUE(kvthost::Click(d, 21));
        EXPECT_EQ(IsDlgButtonChecked(d, 20), 0u);
        EXPECT_EQ(IsDlgButtonChecked(d, 21), 1u);
        EXPECT_EQ(IsDlgButtonChecked(d, 30), 1u) << "another group";
        ASSERT_EQ(gMessages.size(), 1u);
        EXPECT_EQ(gMessages[0].msg, static_cast<UINT>(WM_COMMAND));
        EXPECT_EQ(gMessages[0].wParam, MAKEWPARAM(21, BN_CLICKED));
        EXPECT_EQ(gMessages[0].lParam, reinterpret_cast<LPARAM>(GetDlgItem(d, 21)));
        // Disabled: no input, no message, until enabled again.
        EXPECT_FALSE(kvthost::Click(d, 22));
        EXPECT_FALSE(kvthost::TypeKey(d, 41, u'x'));
        EXPECT_EQ(gMessages.size(), 1u);
        EXPECT_TRUE(EnableWindow(GetDlgItem(d, 22), TRUE)) << "it was disabled";
        EXPECT_TRUE(kvthost::Click(d, 22));
        EXPECT_EQ(IsDlgButtonChecked(d, 21), 0u);
        // An upper-case box: its template text, what is set, what is typed, to its limit.
        char16_t text[8];
        EXPECT_EQ(GetDlgItemTextW(d, 40, text, 8), 2u);
        EXPECT_EQ(std::u16string(text), u"AB");
        Send(d, 40, EM_LIMITTEXT, 4);
        for (char16_t key : {u'c', u'd', u'e', char16_t(8), u'f'}) kvthost::TypeKey(d, 40, key);
        GetDlgItemTextW(d, 40, text, 8);
        EXPECT_EQ(std::u16string(text), u"ABCF");
        EXPECT_EQ(GetDlgItemTextW(d, 40, text, 3), 2u) << "cut to the room given";
        EXPECT_EQ(std::u16string(text), u"AB");
        kvthost::Click(d, 50);
        EXPECT_EQ(IsDlgButtonChecked(d, 50), 1u);
        kvthost::Click(d, 50);
        EXPECT_EQ(IsDlgButtonChecked(d, 50), 0u);
        kvthost::Click(d, 1);
    });
}

std::vector<HWND> gCreated;

TEST_F(DialogEngine, ADialogStartsWithItsParameterAndEndsAsItsProcedureSays) {
    gCreated.clear();
    HHOOK hook = SetWindowsHookExW(
        WH_CBT,
        [](int code, WPARAM w, LPARAM) -> LRESULT {
            if (code == HCBT_CREATEWND) gCreated.push_back(reinterpret_cast<HWND>(w));
            return 0;
        },
        nullptr, GetCurrentThreadId());
    HWND dialog = nullptr, list = nullptr;
    EXPECT_EQ(Run([&](HWND d) { dialog = d, list = GetDlgItem(d, 10), EndDialog(d, 0); }, 1234), 0);
    EXPECT_TRUE(UnhookWindowsHookEx(hook));
    // The hook hears of the dialog, then of each control.
    ASSERT_EQ(gCreated.size(), 11u);
    EXPECT_EQ(gCreated[0], dialog);
    EXPECT_EQ(gCreated[1], list);
    ASSERT_FALSE(gMessages.empty());
    EXPECT_EQ(gMessages[0].msg, static_cast<UINT>(WM_INITDIALOG));
    EXPECT_EQ(gMessages[0].wParam, reinterpret_cast<WPARAM>(list)) << "the first control that takes Tab";
    EXPECT_EQ(gMessages[0].lParam, 1234);
    EXPECT_EQ(GetDlgItem(dialog, 10), nullptr) << "gone with its dialog";
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_WINDOW_HANDLE));

    // Ended while it starts up: it never shows.
    gOnInit = [](HWND d) { EndDialog(d, 5); };
    EXPECT_EQ(Run([](HWND) {}), 5);
    EXPECT_EQ(driverCalls, 1) << "only the first dialog's";

    gOnInit = nullptr;
    EXPECT_EQ(DialogBoxParamW(Module(), MAKEINTRESOURCEW(8), nullptr, Procedure, 0), -1);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_NAME_NOT_FOUND));
    kvthost::SetUiDriver(nullptr);
    EXPECT_EQ(DialogBoxParamW(Module(), MAKEINTRESOURCEW(7), nullptr, Procedure, 0), 0) << "nobody to show it to";
}

}  // namespace
