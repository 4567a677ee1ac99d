// The user interface: dialogs built from a module's templates, their controls,
// message boxes, CBT hooks, timers and the foreground window.  A dialog or a
// box stands in a modal loop on the thread that made it; each time round, the
// loop fires that thread's due timers and hands the window to the UI driver
// (kvthost::SetUiDriver), which acts on it as a person would.  The dialog's
// procedure gets real messages: WM_INITDIALOG with the start-up parameter,
// WM_COMMAND with the control's id and notification code, WM_TIMER.
//
// One lock guards every window's state.  It is never held while a procedure,
// a hook, a timer routine or the driver runs, so they may call back in.
#include <windows.h>
#include <wtsapi32.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "clock_internal.h"
#include "kvthost.h"

namespace {

struct Line {
    std::u16string text;
    LPARAM data = 0;
};

struct Window {
    enum Kind { Dialog, Control, Box } kind;
    HWND handle = nullptr;
    DWORD thread = 0;
    uint64_t serial = 0;  // the order of making
    Window *parent = nullptr;
    int id = 0;
    std::u16string cls;
    DWORD style = 0;
    int x = 0, y = 0, cx = 0, cy = 0;
    std::u16string text;  // a dialog's title, a box's caption
    bool enabled = true;
    int check = BST_UNCHECKED;
    size_t limit = 0x7FFFFFFE;
    std::vector<Line> lines;
    int selection = -1;
    // A dialog's.
    int templateId = 0;
    DLGPROC proc = nullptr;
    std::vector<Window *> controls;
    bool ended = false;
    INT_PTR result = 0;
    LONG_PTR user = 0;  // DWLP_USER: the procedure's own
    Window *focus = nullptr;  // the control with the keyboard focus
    // A box's.
    std::u16string boxText;
    UINT type = 0;
    int answer = 0;
};

struct Hook {
    HOOKPROC proc;
    DWORD thread;  // 0: every thread
};

struct Timer {
    DWORD thread;
    HWND window;
    UINT_PTR id;
    TIMERPROC proc;
    int64_t periodNs;
    int64_t dueNs;
};

std::mutex gMutex;
std::map<HWND, std::unique_ptr<Window>> gWindows;
uint64_t gSerial = 0;
std::vector<std::unique_ptr<Hook>> gHooks;
std::vector<Timer> gTimers;
UINT_PTR gNextTimerId = 1;
kvthost::UiDriver gDriver;
kvthost::MessageBoxHandler gHandler;
std::vector<kvthost::MessageBoxRecord> gBoxes;
DWORD gOwnSession = 1, gConsoleSession = 1;
std::vector<kvthost::ForegroundCall> gForeground;

// A handle is never given twice in a process, so that one kept after its
// window has gone never names another.
HWND HandleOf(const Window *w) { return w->handle; }

// The window of a handle, or nullptr with ERROR_INVALID_WINDOW_HANDLE.  Locked.
Window *Find(HWND handle) {
    auto it = gWindows.find(handle);
    if (it != gWindows.end()) return it->second.get();
    SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    return nullptr;
}

// The control of a dialog by its id, or nullptr.  Locked.
Window *FindControl(HWND dialog, int id) {
    Window *d = Find(dialog);
    if (d == nullptr) return nullptr;
    for (Window *c : d->controls)
        if (c->id == id) return c;
    SetLastError(ERROR_CONTROL_ID_NOT_FOUND);
    return nullptr;
}

Window *Make(Window::Kind kind) {
    auto w = std::make_unique<Window>();
    w->kind = kind;
    w->thread = GetCurrentThreadId();
    w->serial = ++gSerial;
    w->handle = reinterpret_cast<HWND>(static_cast<uintptr_t>(0x10000 + 4 * w->serial));
    Window *raw = w.get();
    gWindows[HandleOf(raw)] = std::move(w);
    return raw;
}

// Tells the thread's CBT hooks of a new window, the newest hook first.
void CallCreateHooks(HWND window) {
    std::vector<Hook *> hooks;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        DWORD me = GetCurrentThreadId();
        for (auto it = gHooks.rbegin(); it != gHooks.rend(); ++it)
            if ((*it)->thread == 0 || (*it)->thread == me) hooks.push_back(it->get());
    }
    for (Hook *h : hooks) {
        HOOKPROC proc = nullptr;
        {
            // A hook that an earlier one removed is not called.
            std::lock_guard<std::mutex> lock(gMutex);
            for (auto &live : gHooks)
                if (live.get() == h) proc = h->proc;
        }
        if (proc != nullptr) proc(HCBT_CREATEWND, reinterpret_cast<WPARAM>(window), 0);
    }
}

void Destroy(Window *w) {
    std::lock_guard<std::mutex> lock(gMutex);
    HWND handle = HandleOf(w);
    std::erase_if(gTimers, [&](const Timer &t) { return t.window == handle; });
    for (Window *c : w->controls) gWindows.erase(HandleOf(c));
    gWindows.erase(handle);
}

bool IsKind(const Window *w, const char16_t *cls) { return w->cls == cls; }
DWORD ButtonType(const Window *w) { return w->style & BS_TYPEMASK; }
bool TakesInput(const Window *w) { return w->enabled && (w->parent == nullptr || w->parent->enabled); }

// The auto radio buttons of w's group: from the control that starts the group
// (WS_GROUP, or the dialog's first) to the one before the next group.
std::vector<Window *> RadioGroup(Window *w) {
    std::vector<Window *> &all = w->parent->controls;
    size_t at = static_cast<size_t>(std::find(all.begin(), all.end(), w) - all.begin());
    size_t first = at, last = at;
    while (first > 0 && (all[first]->style & WS_GROUP) == 0) --first;
    while (last + 1 < all.size() && (all[last + 1]->style & WS_GROUP) == 0) ++last;
    std::vector<Window *> group;
    for (size_t i = first; i <= last; ++i)
        if (IsKind(all[i], u"BUTTON") && ButtonType(all[i]) == BS_AUTORADIOBUTTON) group.push_back(all[i]);
    return group;
}

// The text as an edit box keeps it: in upper case when its style says so.
std::u16string EditText(const Window *w, std::u16string text) {
    if (IsKind(w, u"EDIT") && (w->style & ES_UPPERCASE) != 0)
        for (char16_t &c : text) c = (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c;
    return text;
}

// The order in which Windows' list box sorts, as CompareString's word sort
// without regard to case gives it, measured under Wine for printable ASCII
// (one character each, sorted by lstrcmpiW):
//   ' - space ! " # $ % & ( ) * , . / : ; ? @ [ \ ] ^ _ ` { | } ~ + < = > 0-9 A-Z
// with each letter equal to its small one.  Hyphen and apostrophe weigh
// nothing at first: "PS31-P1" comes before "PS3-P1" (PS31P1 before PS3P1, a
// digit before a letter).  Only between texts otherwise equal do they count:
// a text without them first ("coop", "co-op"), then the one whose first such
// mark stands later ("ab-c", "a-bc"), an apostrophe before a hyphen at one
// place ("a'b", "a-b"), fewer before more ("-a", "--a").
int SortWeight(char16_t c) {
    static const char16_t kOrder[] = u" !\"#$%&()*,./:;?@[\\]^_`{|}~+<=>0123456789abcdefghijklmnopqrstuvwxyz";
    if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c + 32);
    for (size_t i = 0; kOrder[i] != 0; ++i)
        if (kOrder[i] == c) return static_cast<int>(i);
    return 0x100 + c;  // beyond ASCII: after the letters, by code
}

bool Light(char16_t c) { return c == u'-' || c == u'\''; }

int ListOrder(const char16_t *a, const char16_t *b) {
    const char16_t *x = a, *y = b;
    for (;;) {
        while (Light(*x)) ++x;
        while (Light(*y)) ++y;
        if (*x == 0 || *y == 0) {
            if (*x != *y) return *x == 0 ? -1 : 1;
            break;
        }
        int d = SortWeight(*x++) - SortWeight(*y++);
        if (d != 0) return d < 0 ? -1 : 1;
    }
    // Equal but for the light marks: each mark as (its place among the others, kind).
    size_t at = 0, bt = 0;
    for (;;) {
        while (*a != 0 && !Light(*a)) ++a, ++at;
        while (*b != 0 && !Light(*b)) ++b, ++bt;
        if (*a == 0 || *b == 0) return *a == *b ? 0 : (*a == 0 ? -1 : 1);
        if (at != bt) return at > bt ? -1 : 1;
        if (*a != *b) return *a == u'\'' ? -1 : 1;
        ++a, ++b;
    }
}

// Where a sorted list puts a new line: the binary search of Windows' list box,
// in its order; a line equal to one there goes before it.
size_t SortedPlace(const std::vector<Line> &lines, const char16_t *text) {
    size_t min = 0, max = lines.size();
    while (min != max) {
        size_t index = (min + max) / 2;
        int order = ListOrder(lines[index].text.c_str(), text);
        if (order == 0) return index;
        if (order > 0) max = index;
        else min = index + 1;
    }
    return max;
}

// A control's answer to a message.  Locked.
LRESULT ControlMessage(Window *c, UINT msg, WPARAM wParam, LPARAM lParam) {
    bool list = IsKind(c, u"LISTBOX");
    size_t index = static_cast<size_t>(wParam);
    bool valid = list && index < c->lines.size();
    switch (msg) {
    case LB_ADDSTRING: {
        if (!list) return 0;
        const char16_t *text = reinterpret_cast<const char16_t *>(lParam);
        if (text == nullptr) text = u"";
        size_t at = (c->style & LBS_SORT) != 0 ? SortedPlace(c->lines, text) : c->lines.size();
        c->lines.insert(c->lines.begin() + static_cast<std::ptrdiff_t>(at), Line{text, 0});
        if (c->selection >= static_cast<int>(at)) ++c->selection;
        return static_cast<LRESULT>(at);
    }
    case LB_SETITEMDATA:
        if (!valid) return LB_ERR;
        c->lines[index].data = lParam;
        return TRUE;
    case LB_GETITEMDATA: return valid ? c->lines[index].data : LB_ERR;
    case LB_GETTEXTLEN: return valid ? static_cast<LRESULT>(c->lines[index].text.size()) : LB_ERR;
    case LB_GETTEXT: {
        // As on Windows, the caller's buffer has room for the whole line.
        if (!valid || lParam == 0) return LB_ERR;
        const std::u16string &t = c->lines[index].text;
        std::copy(t.c_str(), t.c_str() + t.size() + 1, reinterpret_cast<char16_t *>(lParam));
        return static_cast<LRESULT>(t.size());
    }
    case LB_GETCOUNT: return list ? static_cast<LRESULT>(c->lines.size()) : 0;
    case LB_SETCURSEL:
        if (!list || (c->style & LBS_NOSEL) != 0) return LB_ERR;
        if (static_cast<int>(wParam) == -1) c->selection = -1;
        if (!valid) return LB_ERR;
        c->selection = static_cast<int>(index);
        return static_cast<LRESULT>(index);
    case LB_GETCURSEL: return list ? c->selection : LB_ERR;
    case EM_LIMITTEXT:
        if (IsKind(c, u"EDIT")) c->limit = wParam == 0 ? 0x7FFFFFFE : wParam;
        return 0;
    case BM_GETCHECK: return IsKind(c, u"BUTTON") ? c->check : 0;
    case BM_SETCHECK:
        if (IsKind(c, u"BUTTON") && ButtonType(c) != BS_GROUPBOX) c->check = static_cast<int>(wParam);
        return 0;
    case WM_SETTEXT:
        c->text = EditText(c, reinterpret_cast<const char16_t *>(lParam) ? reinterpret_cast<const char16_t *>(lParam)
                                                                          : u"");
        return TRUE;
    default: return 0;
    }
}

// Sends WM_COMMAND for a control to its dialog's procedure.  Not locked.
void SendCommand(HWND dialog, int id, WORD code, HWND control) {
    DLGPROC proc = nullptr;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        if (Window *d = Find(dialog)) proc = d->proc;
    }
    if (proc != nullptr) proc(dialog, WM_COMMAND, MAKEWPARAM(id, code), reinterpret_cast<LPARAM>(control));
}

// What a list or edit box tells its dialog as it gains or loses the focus; 0
// for the others (a button tells only with BS_NOTIFY, which no dialog has).
WORD FocusCode(const Window *c, bool gains) {
    if (IsKind(c, u"LISTBOX")) return gains ? LBN_SETFOCUS : LBN_KILLFOCUS;
    if (IsKind(c, u"EDIT")) return gains ? EN_SETFOCUS : EN_KILLFOCUS;
    return 0;
}

// Gives the dialog's focus to its control id, one of the class kind (any but
// a label or a group box when nullptr) that takes input; the control losing it
// tells first.  Not locked.
bool MoveFocus(HWND dialog, int id, const char16_t *kind = nullptr) {
    HWND lost = nullptr, gained = nullptr;
    int lostId = 0;
    WORD lostCode = 0, gainedCode = 0;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        Window *d = Find(dialog);
        Window *to = d != nullptr && d->kind == Window::Dialog ? FindControl(dialog, id) : nullptr;
        if (to == nullptr || !TakesInput(to) || (kind != nullptr && !IsKind(to, kind)) || IsKind(to, u"STATIC") ||
            (IsKind(to, u"BUTTON") && ButtonType(to) == BS_GROUPBOX))
            return false;
        if (d->focus == to) return true;
        if (d->focus != nullptr) lost = HandleOf(d->focus), lostId = d->focus->id, lostCode = FocusCode(d->focus, false);
        d->focus = to;
        gained = HandleOf(to), gainedCode = FocusCode(to, true);
    }
    if (lostCode != 0) SendCommand(dialog, lostId, lostCode, lost);
    if (gainedCode != 0) SendCommand(dialog, id, gainedCode, gained);
    return true;
}

// Fires the calling thread's due timers; a timer that has missed turns fires
// once and keeps its beat.
void RunTimers() {
    std::vector<Timer> due;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        int64_t now = KvtRealNowNs();
        for (Timer &t : gTimers) {
            if (t.thread != GetCurrentThreadId() || t.dueNs > now) continue;
            due.push_back(t);
            t.dueNs += t.periodNs * ((now - t.dueNs) / t.periodNs + 1);
        }
    }
    for (const Timer &t : due) {
        DLGPROC dialogProc = nullptr;
        {
            // A timer that an earlier routine killed does not fire.
            std::lock_guard<std::mutex> lock(gMutex);
            auto live = std::find_if(gTimers.begin(), gTimers.end(), [&](const Timer &x) {
                return x.thread == t.thread && x.window == t.window && x.id == t.id;
            });
            if (live == gTimers.end()) continue;
            if (t.proc == nullptr)
                if (Window *w = Find(t.window)) dialogProc = w->proc;
        }
        if (t.proc != nullptr) t.proc(t.window, WM_TIMER, t.id, GetTickCount());
        else if (dialogProc != nullptr) dialogProc(t.window, WM_TIMER, t.id, 0);
    }
}

// Real milliseconds until the thread's next timer; -1 when it has none.
int NextTimerMs() {
    std::lock_guard<std::mutex> lock(gMutex);
    int64_t next = -1, now = KvtRealNowNs();
    for (const Timer &t : gTimers)
        if (t.thread == GetCurrentThreadId()) {
            int64_t wait = std::max<int64_t>(0, t.dueNs - now);
            if (next < 0 || wait < next) next = wait;
        }
    return next < 0 ? -1 : static_cast<int>(std::min<int64_t>((next + 999999) / 1000000, 1 << 30));
}

// The modal loop of a dialog or box, until done() says it has ended.
template <typename Done>
void ModalLoop(HWND window, kvthost::UiDriver &driver, Done done) {
    for (;;) {
        RunTimers();
        if (done()) return;
        driver(window, NextTimerMs());
        if (done()) return;
    }
}

kvthost::UiDriver CurrentDriver() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gDriver;
}

}  // namespace

extern "C" {

INT_PTR WINAPI DialogBoxParamW(HINSTANCE instance, LPCWSTR name, HWND owner, DLGPROC proc, LPARAM param) {
    (void)owner;
    const kvthost::ResourceTable *resources = kvthost::ModuleResources(instance);
    const kvthost::DialogItem *item = nullptr, *end = nullptr;
    if (resources != nullptr && resources->dialogs != nullptr && IS_INTRESOURCE(name)) {
        end = resources->dialogs + resources->dialogItemCount;
        for (const kvthost::DialogItem *i = resources->dialogs; i < end && item == nullptr; ++i)
            if (i->kind == kvthost::DialogItem::Dialog && i->id == LOWORD(name)) item = i;
    }
    if (item == nullptr || proc == nullptr) {
        SetLastError(item == nullptr ? ERROR_RESOURCE_NAME_NOT_FOUND : ERROR_INVALID_PARAMETER);
        return -1;
    }
    // Without a driver there is no desktop to show the dialog on: 0, as for
    // an owner it cannot be shown over, so that nothing is taken as answered.
    kvthost::UiDriver driver = CurrentDriver();
    if (!driver) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }

    Window *dialog;
    std::vector<HWND> made;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        dialog = Make(Window::Dialog);
        dialog->templateId = item->id;
        dialog->style = item->style;
        dialog->cx = item->cx;
        dialog->cy = item->cy;
        dialog->proc = proc;
        made.push_back(HandleOf(dialog));
        for (const kvthost::DialogItem *i = item + 1; i < end && i->kind == kvthost::DialogItem::Control; ++i) {
            Window *c = Make(Window::Control);
            c->parent = dialog;
            c->id = i->id;
            c->cls = i->cls;
            c->style = i->style;
            c->x = i->x, c->y = i->y, c->cx = i->cx, c->cy = i->cy;
            c->text = EditText(c, i->text);
            c->enabled = (i->style & WS_DISABLED) == 0;
            dialog->controls.push_back(c);
            made.push_back(HandleOf(c));
        }
    }
    HWND handle = HandleOf(dialog);
    for (HWND w : made) CallCreateHooks(w);

    // The focus goes to the first control that takes the Tab key.
    HWND focus = nullptr;
    int focusId = 0;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        for (Window *c : dialog->controls)
            if (focus == nullptr && (c->style & WS_TABSTOP) != 0 && TakesInput(c)) focus = HandleOf(c), focusId = c->id;
    }
    // TRUE: the focus goes where wParam says, as Windows' dialog manager puts
    // it; into a radio group at its checked button, as the Tab key goes there.
    if (proc(handle, WM_INITDIALOG, reinterpret_cast<WPARAM>(focus), param) && focus != nullptr) {
        {
            std::lock_guard<std::mutex> lock(gMutex);
            Window *c = Find(focus);
            if (c != nullptr && IsKind(c, u"BUTTON") && ButtonType(c) == BS_AUTORADIOBUTTON)
                for (Window *other : RadioGroup(c))
                    if (other->check == BST_CHECKED && TakesInput(other)) focusId = other->id;
        }
        MoveFocus(handle, focusId);
    }
    ModalLoop(handle, driver, [&] {
        std::lock_guard<std::mutex> lock(gMutex);
        return dialog->ended;
    });
    INT_PTR result = dialog->result;
    Destroy(dialog);
    return result;
}

BOOL WINAPI EndDialog(HWND dialog, INT_PTR result) {
    std::lock_guard<std::mutex> lock(gMutex);
    Window *d = Find(dialog);
    if (d == nullptr || d->kind != Window::Dialog) return FALSE;
    d->ended = true;
    d->result = result;
    return TRUE;
}

HWND WINAPI GetDlgItem(HWND dialog, int id) {
    std::lock_guard<std::mutex> lock(gMutex);
    Window *c = FindControl(dialog, id);
    return c != nullptr ? HandleOf(c) : nullptr;
}

BOOL WINAPI SetWindowTextW(HWND window, LPCWSTR text) {
    std::lock_guard<std::mutex> lock(gMutex);
    Window *w = Find(window);
    if (w == nullptr) return FALSE;
    if (w->kind == Window::Control) return static_cast<BOOL>(ControlMessage(w, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(text)));
    w->text = text != nullptr ? text : u"";
    return TRUE;
}

BOOL WINAPI SetDlgItemTextW(HWND dialog, int id, LPCWSTR text) {
    HWND control = GetDlgItem(dialog, id);
    return control != nullptr && SetWindowTextW(control, text);
}

UINT WINAPI GetDlgItemTextW(HWND dialog, int id, LPWSTR buffer, int cchMax) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (buffer == nullptr || cchMax <= 0) return 0;
    buffer[0] = 0;
    Window *c = FindControl(dialog, id);
    if (c == nullptr) return 0;
    size_t n = std::min(c->text.size(), static_cast<size_t>(cchMax - 1));
    std::copy(c->text.begin(), c->text.begin() + static_cast<std::ptrdiff_t>(n), buffer);
    buffer[n] = 0;
    return static_cast<UINT>(n);
}

LRESULT WINAPI SendDlgItemMessageW(HWND dialog, int id, UINT msg, WPARAM wParam, LPARAM lParam) {
    std::lock_guard<std::mutex> lock(gMutex);
    Window *c = FindControl(dialog, id);
    return c != nullptr ? ControlMessage(c, msg, wParam, lParam) : 0;
}

BOOL WINAPI CheckDlgButton(HWND dialog, int id, UINT check) {
    std::lock_guard<std::mutex> lock(gMutex);
    Window *c = FindControl(dialog, id);
    if (c == nullptr) return FALSE;
    ControlMessage(c, BM_SETCHECK, check, 0);
    return TRUE;
}

UINT WINAPI IsDlgButtonChecked(HWND dialog, int id) {
    std::lock_guard<std::mutex> lock(gMutex);
    Window *c = FindControl(dialog, id);
    return c != nullptr ? static_cast<UINT>(ControlMessage(c, BM_GETCHECK, 0, 0)) : 0;
}

BOOL WINAPI CheckRadioButton(HWND dialog, int first, int last, int check) {
    std::lock_guard<std::mutex> lock(gMutex);
    Window *d = Find(dialog);
    if (d == nullptr) return FALSE;
    for (Window *c : d->controls)
        if (c->id >= first && c->id <= last) ControlMessage(c, BM_SETCHECK, c->id == check ? BST_CHECKED : BST_UNCHECKED, 0);
    return TRUE;
}

// The result is whether the window was disabled before.
BOOL WINAPI EnableWindow(HWND window, BOOL enable) {
    std::lock_guard<std::mutex> lock(gMutex);
    Window *w = Find(window);
    if (w == nullptr) return FALSE;
    BOOL wasDisabled = !w->enabled;
    w->enabled = enable != FALSE;
    return wasDisabled;
}

// A dialog's own data, DWLP_USER alone: the procedure keeps there what
// belongs to that dialog, so that two dialogs of one procedure on two threads
// keep apart.  The slot, or nullptr with the error set.  Locked.
static LONG_PTR *UserSlot(HWND window, int index) {
    Window *w = Find(window);
    if (w == nullptr) return nullptr;
    if (w->kind != Window::Dialog || index != static_cast<int>(DWLP_USER)) {
        SetLastError(ERROR_INVALID_INDEX);
        return nullptr;
    }
    return &w->user;
}

// The result is the value before.
LONG_PTR WINAPI SetWindowLongPtrW(HWND window, int index, LONG_PTR value) {
    std::lock_guard<std::mutex> lock(gMutex);
    LONG_PTR *slot = UserSlot(window, index);
    if (slot == nullptr) return 0;
    LONG_PTR before = *slot;
    *slot = value;
    SetLastError(0);
    return before;
}

LONG_PTR WINAPI GetWindowLongPtrW(HWND window, int index) {
    std::lock_guard<std::mutex> lock(gMutex);
    LONG_PTR *slot = UserSlot(window, index);
    return slot != nullptr ? *slot : 0;
}

// The desktop: a handle that names no window the platform makes (theirs
// begin above it), so that a UI library given it as its owner shows its
// dialogs, as over Windows' desktop.
HWND WINAPI GetDesktopWindow(void) { return reinterpret_cast<HWND>(static_cast<uintptr_t>(0x10000)); }

BOOL WINAPI SetForegroundWindow(HWND window) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (Find(window) == nullptr) return FALSE;
    gForeground.push_back({window, GetCurrentThreadId()});
    return TRUE;
}

HHOOK WINAPI SetWindowsHookExW(int type, HOOKPROC proc, HINSTANCE module, DWORD thread) {
    (void)module;
    if (type != WH_CBT || proc == nullptr) {
        SetLastError(type != WH_CBT ? ERROR_INVALID_HOOK_FILTER : ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(gMutex);
    gHooks.push_back(std::make_unique<Hook>(Hook{proc, thread}));
    return reinterpret_cast<HHOOK>(gHooks.back().get());
}

BOOL WINAPI UnhookWindowsHookEx(HHOOK hook) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto it = std::find_if(gHooks.begin(), gHooks.end(),
                           [&](const auto &h) { return reinterpret_cast<HHOOK>(h.get()) == hook; });
    if (it == gHooks.end()) {
        SetLastError(ERROR_INVALID_HOOK_HANDLE);
        return FALSE;
    }
    gHooks.erase(it);
    return TRUE;
}

// A timer of the calling thread, fired by its modal loops; its period is in
// the monitor's milliseconds, as every platform wait (KVT_TIMESCALE).  Without
// a window the id is the platform's own.
UINT_PTR WINAPI SetTimer(HWND window, UINT_PTR id, UINT elapse, TIMERPROC proc) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (window != nullptr && Find(window) == nullptr) return 0;
    if (window == nullptr) id = gNextTimerId++;
    std::erase_if(gTimers, [&](const Timer &t) { return t.window == window && t.id == id && window != nullptr; });
    int64_t period = KvtScaledWaitNs(static_cast<int64_t>(std::max<UINT>(elapse, 10)) * 1000000);
    gTimers.push_back({GetCurrentThreadId(), window, id, proc, period, KvtRealNowNs() + period});
    return window != nullptr ? TRUE : id;
}

BOOL WINAPI KillTimer(HWND window, UINT_PTR id) {
    std::lock_guard<std::mutex> lock(gMutex);
    size_t removed = std::erase_if(gTimers, [&](const Timer &t) {
        return t.window == window && t.id == id && (window != nullptr || t.thread == GetCurrentThreadId());
    });
    return removed > 0;
}

// A box is a window of its thread like a dialog: the CBT hooks hear of it,
// and it stands in the thread's modal loop, with its timers, until the driver
// answers it.  Without a driver the MessageBoxHandler answers, or IDOK.
int WINAPI MessageBoxW(HWND owner, LPCWSTR text, LPCWSTR caption, UINT type) {
    std::u16string t = text != nullptr ? text : u"";
    std::u16string c = caption != nullptr ? caption : u"Error";
    Window *box;
    kvthost::MessageBoxHandler handler;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        gBoxes.push_back({t, c, type});
        handler = gHandler;
        box = Make(Window::Box);
        box->text = c;
        box->boxText = t;
        box->type = type;
    }
    HWND handle = HandleOf(box);
    CallCreateHooks(handle);
    kvthost::UiDriver driver = CurrentDriver();
    int answer = IDOK;
    if (driver) {
        ModalLoop(handle, driver, [&] {
            std::lock_guard<std::mutex> lock(gMutex);
            return box->answer != 0;
        });
        answer = box->answer;
    } else if (handler) {
        answer = handler(owner, t, c, type);
    }
    Destroy(box);
    return answer;
}

DWORD WINAPI GetCurrentProcessId(void) { return static_cast<DWORD>(getpid()); }

BOOL WINAPI ProcessIdToSessionId(DWORD process, DWORD *session) {
    if (process != GetCurrentProcessId() || session == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(gMutex);
    *session = gOwnSession;
    return TRUE;
}

DWORD WINAPI WTSGetActiveConsoleSessionId(void) {
    std::lock_guard<std::mutex> lock(gMutex);
    return gConsoleSession;
}

// A box on another session's desktop: recorded, and answered at once, IDOK
// for a sender that waits and IDASYNC for one that doesn't.  Only the active
// console session takes it.  The lengths are in bytes.
BOOL WINAPI WTSSendMessageW(HANDLE, DWORD session, LPWSTR title, DWORD titleBytes, LPWSTR message,
                            DWORD messageBytes, DWORD style, DWORD timeout, DWORD *response, BOOL wait) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (response == nullptr || session != gConsoleSession || session == 0xFFFFFFFF) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::u16string caption(title != nullptr ? title : u"", title != nullptr ? titleBytes / 2 : 0);
    std::u16string text(message != nullptr ? message : u"", message != nullptr ? messageBytes / 2 : 0);
    gBoxes.push_back({text, caption, style, static_cast<long>(session), timeout, wait != FALSE});
    *response = wait ? IDOK : IDASYNC;
    return TRUE;
}

}  // extern "C"

namespace kvthost {

void SetUiDriver(UiDriver driver) {
    std::lock_guard<std::mutex> lock(gMutex);
    gDriver = std::move(driver);
}

bool ViewWindow(HWND window, WindowView *view) {
    std::lock_guard<std::mutex> lock(gMutex);
    Window *w = Find(window);
    if (w == nullptr || w->kind == Window::Control) return false;
    *view = WindowView();
    view->window = window;
    view->box = w->kind == Window::Box;
    view->templateId = w->templateId;
    view->title = w->text;
    view->text = w->boxText;
    view->style = view->box ? w->type : w->style;
    view->cx = w->cx;
    view->cy = w->cy;
    for (Window *c : w->controls) {
        ControlView v;
        v.id = c->id;
        v.cls = c->cls;
        v.style = c->style;
        v.x = c->x, v.y = c->y, v.cx = c->cx, v.cy = c->cy;
        v.text = c->text;
        v.enabled = c->enabled;
        v.check = c->check;
        v.limit = c->limit;
        for (const Line &l : c->lines) v.lines.push_back(l.text);
        v.selection = c->selection;
        view->controls.push_back(v);
    }
    return true;
}

std::vector<HWND> ThreadWindows() {
    std::lock_guard<std::mutex> lock(gMutex);
    std::vector<Window *> mine;
    for (auto &[handle, w] : gWindows)
        if (w->kind != Window::Control && w->thread == GetCurrentThreadId()) mine.push_back(w.get());
    std::sort(mine.begin(), mine.end(), [](Window *a, Window *b) { return a->serial < b->serial; });
    std::vector<HWND> handles;
    for (Window *w : mine) handles.push_back(HandleOf(w));
    return handles;
}

bool Click(HWND dialog, int id) {
    HWND control;
    if (!MoveFocus(dialog, id, u"BUTTON")) return false;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        Window *c = FindControl(dialog, id);
        if (c == nullptr || !TakesInput(c) || !IsKind(c, u"BUTTON") || ButtonType(c) == BS_GROUPBOX) return false;
        if (ButtonType(c) == BS_AUTORADIOBUTTON) {
            for (Window *other : RadioGroup(c)) other->check = BST_UNCHECKED;
            c->check = BST_CHECKED;
        } else if (ButtonType(c) == BS_AUTOCHECKBOX) {
            c->check = c->check == BST_CHECKED ? BST_UNCHECKED : BST_CHECKED;
        }
        control = HandleOf(c);
    }
    SendCommand(dialog, id, BN_CLICKED, control);
    return true;
}

bool TypeKey(HWND dialog, int id, char16_t key) {
    HWND control;
    if (!MoveFocus(dialog, id, u"EDIT")) return false;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        Window *c = FindControl(dialog, id);
        if (c == nullptr || !TakesInput(c) || !IsKind(c, u"EDIT")) return false;
        if (key == 8) {
            if (c->text.empty()) return true;
            c->text.pop_back();
        } else if (key < 0x20 || c->text.size() >= c->limit) {
            return true;  // nothing to add: the box is full, or the key is no character
        } else {
            c->text += EditText(c, std::u16string(1, key));
        }
        control = HandleOf(c);
    }
    SendCommand(dialog, id, EN_CHANGE, control);
    return true;
}

bool SelectLine(HWND dialog, int id, int index) {
    HWND control;
    bool notify;
    if (!MoveFocus(dialog, id, u"LISTBOX")) return false;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        Window *c = FindControl(dialog, id);
        if (c == nullptr || !TakesInput(c) || !IsKind(c, u"LISTBOX") || (c->style & LBS_NOSEL) != 0 || index < 0 ||
            static_cast<size_t>(index) >= c->lines.size())
            return false;
        c->selection = index;
        control = HandleOf(c);
        notify = (c->style & LBS_NOTIFY) != 0;
    }
    if (notify) SendCommand(dialog, id, LBN_SELCHANGE, control);
    return true;
}

int FocusedControl(HWND dialog) {
    std::lock_guard<std::mutex> lock(gMutex);
    Window *d = Find(dialog);
    return d != nullptr && d->focus != nullptr ? d->focus->id : 0;
}

bool FocusControl(HWND dialog, int id) { return MoveFocus(dialog, id); }

bool Command(HWND dialog, int id) {
    {
        std::lock_guard<std::mutex> lock(gMutex);
        Window *d = Find(dialog);
        if (d == nullptr || d->kind != Window::Dialog) return false;
    }
    SendCommand(dialog, id, BN_CLICKED, nullptr);
    return true;
}

bool AnswerBox(HWND box, int result) {
    std::lock_guard<std::mutex> lock(gMutex);
    Window *w = Find(box);
    if (w == nullptr || w->kind != Window::Box) return false;
    UINT buttons = w->type & 0xF;
    bool offered = buttons == MB_OKCANCEL ? (result == IDOK || result == IDCANCEL)
                   : buttons == MB_YESNO  ? (result == IDYES || result == IDNO)
                                          : result == IDOK;
    if (offered) w->answer = result;
    return offered;
}

void SetSessions(DWORD own, DWORD console) {
    std::lock_guard<std::mutex> lock(gMutex);
    gOwnSession = own, gConsoleSession = console;
}

std::vector<ForegroundCall> ForegroundCalls() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gForeground;
}

void ClearForegroundCalls() {
    std::lock_guard<std::mutex> lock(gMutex);
    gForeground.clear();
}

void SetMessageBoxHandler(MessageBoxHandler handler) {
    std::lock_guard<std::mutex> lock(gMutex);
    gHandler = std::move(handler);
}

std::vector<MessageBoxRecord> MessageBoxes() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gBoxes;
}

void ClearMessageBoxes() {
    std::lock_guard<std::mutex> lock(gMutex);
    gBoxes.clear();
}

}  // namespace kvthost
