// The terminal driver: each dialog drawn from its template with ncurses, and
// driven with the keyboard as on Windows.  A dialog unit is a quarter of a
// character cell across and an eighth of one down, so the templates' rows
// (multiples of 8 units) are the terminal's rows.
#include <curses.h>
#include <locale.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "kvthost.h"
#include "ui_driver.h"

namespace kvtmon {

namespace {

using kvthost::ControlView;
using kvthost::WindowView;

bool gStarted = false;
volatile std::sig_atomic_t gSignal = 0;
std::map<std::pair<HWND, int>, int> gListTop;  // the first line each list shows
size_t gForegroundSeen = 0;

enum Pair { kBody = 1, kTitle, kFocus, kDisabled };

void OnSignal(int signal) { gSignal = signal; }

void Start() {
    if (gStarted) return;
    setlocale(LC_ALL, "");  // line drawing as the terminal's character set has it
    initscr();
    gStarted = true;
    std::atexit(EndTerminal);
    for (int s : {SIGINT, SIGTERM, SIGHUP}) std::signal(s, OnSignal);
    raw();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    set_escdelay(25);  // Esc alone is a key, not the start of a sequence
    if (has_colors()) {
        start_color();
        init_pair(kBody, COLOR_BLACK, COLOR_WHITE);
        init_pair(kTitle, COLOR_WHITE, COLOR_BLUE);
        init_pair(kFocus, COLOR_WHITE, COLOR_BLACK);
        // Gray where the terminal has it, for what takes no input.
        init_pair(kDisabled, COLORS >= 256 ? 244 : COLORS >= 16 ? 8 : COLOR_BLACK, COLOR_WHITE);
    }
}

[[noreturn]] void Quit(const char *why, int status) {
    EndTerminal();
    std::fprintf(stderr, "kvtmon: %s; nothing stored\n", why);
    std::exit(status);
}

bool IsButton(const ControlView &c, DWORD type) { return c.cls == u"BUTTON" && (c.style & BS_TYPEMASK) == type; }
bool IsRadio(const ControlView &c) { return IsButton(c, BS_AUTORADIOBUTTON); }
bool IsGroupBox(const ControlView &c) { return IsButton(c, BS_GROUPBOX); }
bool IsPush(const ControlView &c) { return IsButton(c, BS_PUSHBUTTON) || IsButton(c, BS_DEFPUSHBUTTON); }
bool TakesFocus(const ControlView &c) {
    return c.enabled && c.cls != u"STATIC" && !IsGroupBox(c);
}

// The group of control i: from the control that starts it to the one before
// the next group.
std::pair<size_t, size_t> GroupOf(const WindowView &v, size_t i) {
    size_t first = i, last = i;
    while (first > 0 && (v.controls[first].style & WS_GROUP) == 0) --first;
    while (last + 1 < v.controls.size() && (v.controls[last + 1].style & WS_GROUP) == 0) ++last;
    return {first, last};
}

// The controls that Tab visits, in order: a radio group is one stop, at its
// checked button.
std::vector<int> TabStops(const WindowView &v) {
    std::vector<int> stops;
    for (size_t i = 0; i < v.controls.size(); ++i) {
        const ControlView &c = v.controls[i];
        if (!IsRadio(c)) {
            if ((c.style & WS_TABSTOP) != 0 && TakesFocus(c)) stops.push_back(c.id);
            continue;
        }
        auto [first, last] = GroupOf(v, i);
        int pick = 0;
        for (size_t k = first; k <= last; ++k) {
            const ControlView &r = v.controls[k];
            if (IsRadio(r) && r.enabled && (pick == 0 || r.check == BST_CHECKED)) pick = r.id;
        }
        if (pick != 0) stops.push_back(pick);
        i = last;
    }
    return stops;
}

const ControlView *Find(const WindowView &v, int id) {
    for (const ControlView &c : v.controls)
        if (c.id == id) return &c;
    return nullptr;
}

// The dialog's focused control, as the platform keeps it (so that the dialog
// hears of each move); where it has none that may have it, the first stop.
int Focus(const WindowView &v) {
    const int focus = kvthost::FocusedControl(v.window);
    const ControlView *c = Find(v, focus);
    if (c != nullptr && TakesFocus(*c)) return focus;
    std::vector<int> stops = TabStops(v);
    if (stops.empty()) return 0;
    kvthost::FocusControl(v.window, stops.front());
    return stops.front();
}

void MoveFocus(const WindowView &v, int step) {
    std::vector<int> stops = TabStops(v);
    if (stops.empty()) return;
    int focus = Focus(v);
    auto it = std::find(stops.begin(), stops.end(), focus);
    // Inside a radio group the stop is the checked button, which may not be
    // the focused one.
    if (it == stops.end()) {
        for (size_t i = 0; i < v.controls.size(); ++i)
            if (v.controls[i].id == focus) {
                auto [first, last] = GroupOf(v, i);
                for (size_t k = first; k <= last; ++k)
                    if (auto s = std::find(stops.begin(), stops.end(), v.controls[k].id); s != stops.end()) it = s;
            }
    }
    long at = it == stops.end() ? 0 : it - stops.begin();
    long n = static_cast<long>(stops.size());
    kvthost::FocusControl(v.window, stops[static_cast<size_t>(((at + step) % n + n) % n)]);
}

// The next enabled radio button of the focused one's group, clicked.
bool MoveInRadioGroup(const WindowView &v, int step) {
    int focus = Focus(v);
    for (size_t i = 0; i < v.controls.size(); ++i) {
        if (v.controls[i].id != focus || !IsRadio(v.controls[i])) continue;
        auto [first, last] = GroupOf(v, i);
        std::vector<int> radios;
        for (size_t k = first; k <= last; ++k)
            if (IsRadio(v.controls[k]) && v.controls[k].enabled) radios.push_back(v.controls[k].id);
        long at = std::find(radios.begin(), radios.end(), focus) - radios.begin();
        long n = static_cast<long>(radios.size());
        kvthost::Click(v.window, radios[static_cast<size_t>(((at + step) % n + n) % n)]);  // the focus with it
        return true;
    }
    return false;
}

int DefaultButton(const WindowView &v) {
    for (const ControlView &c : v.controls)
        if (IsButton(c, BS_DEFPUSHBUTTON) && c.enabled) return c.id;
    return 0;
}

// ---- drawing ----------------------------------------------------------------------
struct Frame {
    int top, left, rows, cols;
};

std::vector<std::string> BoxLines(const WindowView &v) {
    std::vector<std::string> lines;
    std::string text = kvthost::Narrow(v.text), line;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    for (char c : text + "\n") {
        if (c == '\n' || line.size() == 56) {
            lines.push_back(line);
            line.clear();
        }
        if (c != '\n') line.push_back(c);
    }
    return lines;
}

Frame Place(const WindowView &v) {
    int rows, cols;
    if (v.box) {
        std::vector<std::string> lines = BoxLines(v);
        size_t width = kvthost::Narrow(v.title).size() + 4;
        for (const std::string &l : lines) width = std::max(width, l.size() + 8);  // the icon's room and a margin
        cols = static_cast<int>(std::max<size_t>(width, 20)) + 2;
        rows = static_cast<int>(lines.size()) + 6;
    } else {
        cols = v.cx / 4 + 2;
        rows = v.cy / 8 + 2;
    }
    return {std::max(0, (LINES - 1 - rows) / 2), std::max(0, (COLS - cols) / 2), rows, cols};
}

void Text(int row, int col, const std::string &text, int width, attr_t attr) {
    if (width <= 0) return;
    attron(attr);
    mvaddnstr(row, col, text.c_str(), width);
    attroff(attr);
}

void Rectangle(int top, int left, int bottom, int right) {
    mvhline(top, left + 1, ACS_HLINE, right - left - 1);
    mvhline(bottom, left + 1, ACS_HLINE, right - left - 1);
    mvvline(top + 1, left, ACS_VLINE, bottom - top - 1);
    mvvline(top + 1, right, ACS_VLINE, bottom - top - 1);
    mvaddch(top, left, ACS_ULCORNER);
    mvaddch(top, right, ACS_URCORNER);
    mvaddch(bottom, left, ACS_LLCORNER);
    mvaddch(bottom, right, ACS_LRCORNER);
}

// The window's frame: its body cleared, a border, the title on the top line.
void DrawFrame(const Frame &f, const std::string &title) {
    attr_t body = has_colors() ? COLOR_PAIR(kBody) : A_NORMAL;
    attron(body);
    for (int r = 0; r < f.rows; ++r) mvhline(f.top + r, f.left, ' ', f.cols);
    Rectangle(f.top, f.left, f.top + f.rows - 1, f.left + f.cols - 1);
    attroff(body);
    std::string shown = " " + title + " ";
    attr_t bar = has_colors() ? COLOR_PAIR(kTitle) | A_BOLD : A_REVERSE;
    Text(f.top, f.left + std::max(1, (f.cols - static_cast<int>(shown.size())) / 2), shown, f.cols - 2, bar);
}

void DrawControl(const WindowView &v, const ControlView &c, const Frame &f, bool focused) {
    int row = f.top + 1 + (c.y + c.cy / 2) / 8, col = f.left + 1 + c.x / 4, width = c.cx / 4;
    int top = f.top + 1 + (c.y + 4) / 8, bottom = f.top + (c.y + c.cy + 4) / 8;
    int right = f.left + (c.x + c.cx) / 4;
    attr_t body = has_colors() ? COLOR_PAIR(kBody) : A_NORMAL;
    attr_t state = c.enabled ? body : (has_colors() ? COLOR_PAIR(kDisabled) : A_NORMAL) | A_DIM;
    attr_t mark = focused ? (has_colors() ? COLOR_PAIR(kFocus) | A_BOLD : A_REVERSE) : state;
    std::string text = kvthost::Narrow(c.text);
    if (IsGroupBox(c)) {
        attron(state);
        Rectangle(top, col, bottom, right);
        attroff(state);
        Text(top, col + 2, " " + text + " ", right - col - 3, state);
    } else if (c.cls == u"STATIC") {
        Text(row, col, text, width, state);
    } else if (IsRadio(c) || IsButton(c, BS_AUTOCHECKBOX)) {
        bool radio = IsRadio(c);
        std::string box = radio ? (c.check == BST_CHECKED ? "(*)" : "( )") : (c.check == BST_CHECKED ? "[x]" : "[ ]");
        Text(row, col, box, 3, mark);
        Text(row, col + 3, " " + text, width - 3, state);
    } else if (IsPush(c)) {
        bool isDefault = IsButton(c, BS_DEFPUSHBUTTON);
        std::string label = (isDefault ? "< " : "[ ") + text + (isDefault ? " >" : " ]");
        int pad = std::max(0, (width - static_cast<int>(label.size())) / 2);
        Text(row, col + pad, label, width - pad, focused ? mark : state);
    } else if (c.cls == u"EDIT") {
        int shown = std::max(0, static_cast<int>(text.size()) - width + 1);
        std::string field = text.substr(static_cast<size_t>(shown));
        field.resize(static_cast<size_t>(width), '_');
        Text(row, col, field, width, state | A_UNDERLINE);
        if (focused) move(row, col + std::min(width - 1, static_cast<int>(text.size()) - shown));
    } else if (c.cls == u"LISTBOX") {
        attron(state);
        Rectangle(top, col, bottom, right);
        attroff(state);
        int inside = bottom - top - 1;
        int &first = gListTop[{v.window, c.id}];
        if (c.selection >= 0 && c.selection < first) first = c.selection;
        if (c.selection >= first + inside) first = c.selection - inside + 1;
        first = std::max(0, std::min(first, static_cast<int>(c.lines.size()) - inside));
        for (int i = 0; i < inside && first + i < static_cast<int>(c.lines.size()); ++i) {
            std::string line = kvthost::Narrow(c.lines[static_cast<size_t>(first + i)]);
            line.resize(static_cast<size_t>(std::max(0, right - col - 1)), ' ');
            bool selected = first + i == c.selection;
            Text(top + 1 + i, col + 1, line, right - col - 1, selected ? (focused ? mark : state | A_REVERSE) : state);
        }
        if (focused && c.lines.empty()) Text(top + 1, col + 1, " ", 1, mark);
        // More lines than room: arrows on the right edge say which way they lie.
        if (first > 0) Text(top + 1, right, "^", 1, state);
        if (first + inside < static_cast<int>(c.lines.size())) Text(bottom - 1, right, "v", 1, state);
    }
}

void DrawBox(const WindowView &v, const Frame &f) {
    DrawFrame(f, kvthost::Narrow(v.title));
    attr_t body = has_colors() ? COLOR_PAIR(kBody) : A_NORMAL;
    std::vector<std::string> lines = BoxLines(v);
    bool stop = (v.style & 0xF0) == MB_ICONSTOP;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i == 0 && stop) Text(f.top + 2, f.left + 2, "(X)", 3, body | A_BOLD);
        Text(f.top + 2 + static_cast<int>(i), f.left + 7, lines[i], f.cols - 9, body);
    }
    std::string button = "< OK >";
    Text(f.top + f.rows - 2, f.left + (f.cols - static_cast<int>(button.size())) / 2, button, 6,
         has_colors() ? COLOR_PAIR(kFocus) | A_BOLD : A_REVERSE);
    curs_set(0);
}

void Draw(HWND active) {
    erase();
    std::vector<HWND> stack = kvthost::ThreadWindows();
    bool fits = true;
    for (HWND w : stack) {
        WindowView v;
        if (!kvthost::ViewWindow(w, &v)) continue;
        Frame f = Place(v);
        if (f.rows > LINES - 1 || f.cols > COLS) {
            fits = false;
            continue;
        }
        if (v.box) {
            DrawBox(v, f);
            continue;
        }
        DrawFrame(f, kvthost::Narrow(v.title));
        int focus = w == active ? Focus(v) : 0;
        bool cursor = false;
        const ControlView *focused = nullptr;
        for (const ControlView &c : v.controls) {
            if (c.id == focus && w == active) focused = &c;
            else DrawControl(v, c, f, false);
        }
        // The focused control last, so that the cursor stays in its field.
        if (focused != nullptr) {
            DrawControl(v, *focused, f, true);
            cursor = focused->cls == u"EDIT";
        }
        curs_set(cursor ? 1 : 0);
    }
    std::string help = fits ? "Tab/Shift+Tab: move   Arrows: choose   Space: select   Enter: OK   Ctrl+C: quit"
                            : "The terminal is too small for this dialog: make it larger (Ctrl+C quits)";
    Text(LINES - 1, 0, help, COLS, fits ? A_DIM : A_BOLD);
    if (!fits) curs_set(0);
    refresh();
}

// ---- keys -------------------------------------------------------------------------------
void Key(const WindowView &v, int key) {
    if (v.box) {
        if (key == ' ' || key == '\r' || key == '\n' || key == KEY_ENTER) kvthost::AnswerBox(v.window, IDOK);
        if (key == 27) kvthost::AnswerBox(v.window, IDCANCEL);  // a box with Cancel
        return;
    }
    int focus = Focus(v);
    const ControlView *c = Find(v, focus);
    bool edit = c != nullptr && c->cls == u"EDIT", list = c != nullptr && c->cls == u"LISTBOX";
    switch (key) {
    case '\t': MoveFocus(v, 1); return;
    case KEY_BTAB: MoveFocus(v, -1); return;
    case KEY_UP:
    case KEY_LEFT:
    case KEY_DOWN:
    case KEY_RIGHT: {
        int step = key == KEY_UP || key == KEY_LEFT ? -1 : 1;
        if (list && c->selection + step >= 0) kvthost::SelectLine(v.window, focus, std::max(0, c->selection + step));
        else if (edit && (key == KEY_LEFT || key == KEY_RIGHT)) return;
        else if (!MoveInRadioGroup(v, step) && !list) MoveFocus(v, step);
        return;
    }
    case ' ':
        if (edit) kvthost::TypeKey(v.window, focus, u' ');
        else if (c != nullptr && c->cls == u"BUTTON") kvthost::Click(v.window, focus);
        return;
    case '\r':
    case '\n':
    case KEY_ENTER:
        kvthost::Click(v.window, c != nullptr && IsPush(*c) ? focus : DefaultButton(v));
        return;
    case 27:  // Esc, which the dialog hears as IDCANCEL
        kvthost::Command(v.window, IDCANCEL);
        return;
    case KEY_BACKSPACE:
    case 127:
    case 8:
        if (edit) kvthost::TypeKey(v.window, focus, 8);
        return;
    default:
        if (edit && key >= 0x20 && key < 0x7F) kvthost::TypeKey(v.window, focus, static_cast<char16_t>(key));
    }
}

void Step(HWND window, int waitMs) {
    Start();
    // A box brought to the front by its timer rings the terminal's bell.
    std::vector<kvthost::ForegroundCall> calls = kvthost::ForegroundCalls();
    WindowView v;
    bool box = kvthost::ViewWindow(window, &v) && v.box;
    for (size_t i = gForegroundSeen; i < calls.size(); ++i)
        if (box && calls[i].window == window) beep();
    gForegroundSeen = calls.size();
    Draw(window);
    timeout(waitMs < 0 ? 200 : std::min(waitMs, 200));
    int key = getch();
    if (gSignal != 0) Quit("stopped by a signal", 128 + gSignal);
    if (key == 3) Quit("interrupted", 130);  // Ctrl+C, which raw mode hands over as a key
    if (key != ERR && kvthost::ViewWindow(window, &v)) Key(v, key);
}

}  // namespace

bool HaveTerminal() { return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0; }

void UseTerminal() { kvthost::SetUiDriver(Step); }

void EndTerminal() {
    if (!gStarted) return;
    gStarted = false;
    curs_set(1);
    endwin();
}

}  // namespace kvtmon
