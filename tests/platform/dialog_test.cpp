// The dialog engine on its own: a sorted list, radio groups, edit boxes and
// disabled controls as Windows has them, the focus and what its moves tell,
// the messages a procedure gets, and how a dialog ends.
#include <gtest/gtest.h>

#include <array>
#include <functional>

#include "kvthost.h"

namespace {

using Item = kvthost::DialogItem;
Item Control(int id, const char16_t *cls, DWORD style) {
    return {Item::Control, id, 0, u"ab", cls, WS_CHILD | WS_VISIBLE | style, 0, 0, 40, 8, u"", 0};
}
const Item kTemplates[] = {
    {Item::Dialog, 7, 0, u"", u"", WS_POPUP, 0, 0, 160, 100, u"System", 10},
    Control(10, u"LISTBOX", LBS_SORT | LBS_NOTIFY | WS_TABSTOP), Control(11, u"LISTBOX", LBS_SORT | LBS_NOSEL),
    Control(20, u"BUTTON", BS_AUTORADIOBUTTON | WS_GROUP), Control(21, u"BUTTON", BS_AUTORADIOBUTTON),
    Control(22, u"BUTTON", BS_AUTORADIOBUTTON | WS_DISABLED), Control(30, u"BUTTON", BS_AUTORADIOBUTTON | WS_GROUP),
    Control(40, u"EDIT", ES_UPPERCASE | WS_GROUP), Control(41, u"EDIT", WS_DISABLED),
    {Item::End, 7, 0, u"", u"", 0, 0, 0, 0, 0, u"", 0}};
const kvthost::ResourceTable kModule = {u"DIALOGS.DLL", nullptr, 0, kTemplates, std::size(kTemplates)};
char gBase;
const HINSTANCE kModuleHandle = reinterpret_cast<HINSTANCE>(&gBase);

using Message = std::array<LPARAM, 3>;  // message, wParam, lParam
std::vector<Message> gMessages;
std::function<void(HWND)> gOnInit;

INT_PTR CALLBACK Procedure(HWND dialog, UINT msg, WPARAM wParam, LPARAM lParam) {
    gMessages.push_back({msg, static_cast<LPARAM>(wParam), lParam});
    if (msg == WM_INITDIALOG && gOnInit) gOnInit(dialog);
    return TRUE;
}

// Dialog 7 with param, and a person who acts once and ends it with 3.
INT_PTR RunDialog(std::function<void(HWND)> act, LPARAM param = 0) {
    kvthost::RegisterModule(&gBase, &kModule);
    gMessages.clear();
    kvthost::SetUiDriver([&](HWND d, int) { act(d), EndDialog(d, 3); });
    INT_PTR result = DialogBoxParamW(kModuleHandle, MAKEINTRESOURCEW(7), nullptr, Procedure, param);
    kvthost::SetUiDriver(nullptr);
    return result;
}

LRESULT Send(HWND d, int id, UINT msg, WPARAM w, const void *l = nullptr) {
    return SendDlgItemMessageW(d, id, msg, w, reinterpret_cast<LPARAM>(l));
}
Message Command(HWND d, int id, WORD code) {
    return {WM_COMMAND, static_cast<LPARAM>(MAKEWPARAM(id, code)), reinterpret_cast<LPARAM>(GetDlgItem(d, id))};
}

TEST(DialogEngine, ASortedListGivesWindowsIndexesAndItemDataFollowsItsLine) {
    RunDialog([](HWND d) {
        std::vector<LRESULT> places;
        std::u16string lines;
        for (const char16_t *text : {u"delta", u"Alpha", u"charlie", u"bravo", u"Bravo"}) {
            places.push_back(Send(d, 10, LB_ADDSTRING, 0, text));
            Send(d, 10, LB_SETITEMDATA, static_cast<WPARAM>(places.back()), reinterpret_cast<void *>(places.size()));
        }
        for (WPARAM i = 0; i < 5; ++i) {
            char16_t text[16];
            Send(d, 10, LB_GETTEXT, i, text);
            lines += text + std::u16string(1, u'0' + Send(d, 10, LB_GETITEMDATA, i)) + u" ";
        }
        EXPECT_EQ(places, (std::vector<LRESULT>{0, 0, 1, 1, 1}));
        EXPECT_EQ(lines, u"Alpha2 Bravo5 bravo4 charlie3 delta1 ");
        // The selection moves with its line; what is out of range is LB_ERR.
        EXPECT_EQ(Send(d, 10, LB_SETCURSEL, 2), 2);
        Send(d, 10, LB_ADDSTRING, 0, u"aardvark");
        for (UINT msg : {LB_SETCURSEL, LB_GETTEXT, LB_GETITEMDATA, LB_SETITEMDATA}) EXPECT_EQ(Send(d, 10, msg, 6), LB_ERR);
        EXPECT_EQ(Send(d, 10, LB_GETCURSEL, 0), 3);
        // A list without selection takes none, from the program or a person.
        Send(d, 11, LB_ADDSTRING, 0, u"report");
        EXPECT_EQ(Send(d, 11, LB_SETCURSEL, 0) + kvthost::SelectLine(d, 11, 0), LB_ERR);
        // The order of lstrcmpiW under Wine for these texts: hyphens and
        // apostrophes count only between texts otherwise equal.
        for (const char16_t *text : {u"PS3-P1", u"co-op", u"PS1", u"PS-1", u"PS31-P1", u"a-b", u"coop", u"PS_1", u"a'b",
                                     u"ab", u"PS 1", u"-a", u"--a", u"a", u"ab-c", u"a-bc", u"PS10", u"PS9"})
            Send(d, 11, LB_ADDSTRING, 0, text);
        std::u16string order;
        for (WPARAM i = 0; i < 19; ++i) {
            char16_t text[16] = u"?";
            Send(d, 11, LB_GETTEXT, i, text);
            order += text + std::u16string(u"|");
        }
        EXPECT_EQ(order, u"a|-a|--a|ab|a'b|a-b|ab-c|a-bc|coop|co-op|PS 1|PS_1|PS1|PS-1|PS10|PS31-P1|PS3-P1|PS9|report|");
        EXPECT_TRUE(kvthost::SelectLine(d, 10, 4));
        EXPECT_EQ(gMessages.back(), Command(d, 10, LBN_SELCHANGE));
    });
}

// The focus as Windows moves it: to the first tab stop once WM_INITDIALOG has
// returned TRUE, then to each control a person uses; a list or edit box losing
// it tells first, then the one gaining it; buttons tell nothing.
TEST(DialogEngine, TheFocusMovesWithInputAndListAndEditBoxesTellOfIt) {
    RunDialog([](HWND d) {
        EXPECT_EQ(kvthost::FocusedControl(d), 10);
        EXPECT_EQ(gMessages.back(), Command(d, 10, LBN_SETFOCUS));
        gMessages.clear();
        kvthost::TypeKey(d, 40, u'x');
        kvthost::Click(d, 20);
        EXPECT_FALSE(kvthost::FocusControl(d, 41)) << "disabled";
        EXPECT_TRUE(kvthost::FocusControl(d, 10));
        EXPECT_TRUE(kvthost::FocusControl(d, 10));
        EXPECT_EQ(gMessages, (std::vector<Message>{Command(d, 10, LBN_KILLFOCUS), Command(d, 40, EN_SETFOCUS),
                                                   Command(d, 40, EN_CHANGE), Command(d, 40, EN_KILLFOCUS),
                                                   Command(d, 20, BN_CLICKED), Command(d, 10, LBN_SETFOCUS)}));
    });
}

TEST(DialogEngine, RadioGroupsEditBoxesAndDisabledControlsTakeInputAsOnWindows) {
    RunDialog([](HWND d) {
        CheckRadioButton(d, 20, 22, 20);
        CheckDlgButton(d, 30, BST_CHECKED);
        EXPECT_TRUE(kvthost::Click(d, 21));
        EXPECT_EQ(gMessages.back(), Command(d, 21, BN_CLICKED));
        EXPECT_EQ(IsDlgButtonChecked(d, 20) * 100 + IsDlgButtonChecked(d, 21) * 10 + IsDlgButtonChecked(d, 30), 11u)
            << "the other group keeps its button";
        size_t heard = gMessages.size();
        EXPECT_FALSE(kvthost::Click(d, 22) || kvthost::TypeKey(d, 41, u'x'));
        EXPECT_EQ(gMessages.size(), heard) << "a disabled control takes no input";
        EXPECT_TRUE(EnableWindow(GetDlgItem(d, 22), TRUE) && kvthost::Click(d, 22)) << "it was disabled";
        // Upper case from the template on, and typing stops at the limit.
        Send(d, 40, EM_LIMITTEXT, 4);
        for (char16_t key : {u'c', u'd', u'e', char16_t(8), u'f'}) kvthost::TypeKey(d, 40, key);
        char16_t text[8];
        EXPECT_EQ(GetDlgItemTextW(d, 40, text, 8), 4u);
        EXPECT_EQ(std::u16string(text), u"ABCF");
        EXPECT_EQ(GetDlgItemTextW(d, 40, text, 3), 2u) << "cut to the room given";
    });
}

TEST(DialogEngine, ADialogStartsWithItsParameterAndEndsAsItsProcedureSays) {
    HWND dialog = nullptr, list = nullptr;
    EXPECT_EQ(RunDialog([&](HWND d) { dialog = d, list = GetDlgItem(d, 10), kvthost::Command(d, IDCANCEL); }, 1234), 3);
    EXPECT_EQ(gMessages.front(), (Message{WM_INITDIALOG, reinterpret_cast<LPARAM>(list), 1234}));
    EXPECT_EQ(gMessages.back(), (Message{WM_COMMAND, IDCANCEL, 0})) << "Esc: a command of no control";
    EXPECT_EQ(GetDlgItem(dialog, 10), nullptr) << "gone with its dialog";

    gOnInit = [](HWND d) { EndDialog(d, 5); };  // it never shows
    EXPECT_EQ(RunDialog([](HWND) { ADD_FAILURE() << "shown"; }), 5);
    gOnInit = nullptr;
    EXPECT_EQ(DialogBoxParamW(kModuleHandle, MAKEINTRESOURCEW(8), nullptr, Procedure, 0), -1);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_NAME_NOT_FOUND));
    EXPECT_EQ(DialogBoxParamW(kModuleHandle, MAKEINTRESOURCEW(7), nullptr, Procedure, 0), 0) << "nobody to show it to";
}

}  // namespace
