// The host side of the platform layer: what the spooler host (kvtmon), the
// tests and the benchmarks use to stand in for Windows around the monitor.
// The monitor itself never includes this header; it sees only the Win32 API.
#pragma once

#include <windows.h>
#include <winsplp.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kvthost {

// ---- text -------------------------------------------------------------------
// One byte per character both ways, as the monitor's own conversions do.
std::u16string Widen(const std::string &s);
std::string Narrow(const std::u16string &s);
std::string Narrow(const char16_t *s);

// ---- modules and resources ----------------------------------------------------
struct StringResource {
    unsigned id;
    const char16_t *text;
};
// One line of a module's dialog templates (resources/dialogs.inc): a dialog,
// its controls in order, and the end of the dialog.
struct DialogItem {
    enum Kind { Dialog, Control, End } kind;
    int id;
    unsigned textId;        // the string its procedure sets as its text; 0: none
    const char16_t *text;   // a control's own text
    const char16_t *cls;    // a control's class: "BUTTON", "EDIT", "STATIC", "LISTBOX"
    DWORD style;
    short x, y, cx, cy;     // dialog units
    const char16_t *font;   // a dialog's font and its size in points
    int pointSize;
};
struct ResourceTable {
    const char16_t *moduleName;  // the Windows file name of the module, "KVT64.DLL"
    const StringResource *strings;
    size_t stringCount;
    const DialogItem *dialogs = nullptr;
    size_t dialogItemCount = 0;
};
// Called by the loader glue of a module (its base address is its HMODULE).
void RegisterModule(void *base, const ResourceTable *resources);
const ResourceTable *ModuleResources(void *base);  // nullptr for no module

// ---- prefix -------------------------------------------------------------------
// KVT_PREFIX (default ~/.kvt) holds drive_c/Windows, drive_c/Windows/System32,
// drive_c/Windows/SysWOW64 and the registry hive.
std::string Prefix();
void SetPrefix(const std::string &dir);  // overrides KVT_PREFIX for this process
// Makes the folders of the prefix; false with a message when it cannot.
bool MakePrefix(std::string *error);
// Maps a Windows path (C:\Windows\System32\KVTLOG) to the file in the prefix.
std::string MapPath(const std::u16string &windowsPath);
// GetSystemDirectoryW fails (returns 0) while set: for tests.
void SetSystemDirectoryFails(bool fails);
// GlobalAlloc fails (returns NULL) while set: for tests.
void SetGlobalAllocFails(bool fails);

// ---- registry -----------------------------------------------------------------
// HKEY_LOCAL_MACHINE lives in <prefix>/system.reg.  ResetRegistry empties it
// (tests); HivePath names the file.
void ResetRegistry();
std::string HivePath();
// While a batch stands, the registry changes of this process are seen at once
// by this process and written to the hive together when the last batch ends:
// a process killed in between leaves the hive as it was, so a host that wraps
// a call of the monitor in a batch (an add, a configure, a delete) has its
// changes in the file all or none.  Batches nest.
void BeginRegistryBatch();
void EndRegistryBatch();
struct RegistryBatch {
    RegistryBatch() { BeginRegistryBatch(); }
    ~RegistryBatch() { EndRegistryBatch(); }
    RegistryBatch(const RegistryBatch &) = delete;
    RegistryBatch &operator=(const RegistryBatch &) = delete;
};

// ---- clock ----------------------------------------------------------------------
// KVT_TIMESCALE scales every platform wait (Sleep, select, timers); GetTickCount
// advances in scaled milliseconds, so the monitor's own arithmetic holds.
double TimeScale();
void SetTimeScale(double scale);

// ---- spooler --------------------------------------------------------------------
struct JobSpec {
    std::u16string printer;
    DWORD jobId = 0;
    std::u16string document;
    std::u16string user;
    std::u16string machine;
    DWORD status = 0;
};
void AddPrinter(const std::u16string &printer);
void AddJob(const JobSpec &job);
bool SetJobStatus(const std::u16string &printer, DWORD jobId, DWORD status);
DWORD JobStatus(const std::u16string &printer, DWORD jobId);
void ResetSpooler();  // no printers, no jobs, no calls recorded
// The monitor that OpenPrinterW's ",XcvMonitor NAME" and ",XcvPort PORT"
// reach, as the spooler routes them to a loaded monitor's transceive entries;
// nullptr (or a table without them): such names are unknown printers.  The
// access granted is the access asked for (SERVER_ACCESS_ENUMERATE without
// defaults); "\\SERVER\" before the name is this machine's name or localhost.
void SetXcvMonitor(const std::u16string &name, const MONITOR *monitor);
bool HasXcvMonitor();

struct SpoolerCall {
    std::string function;  // "OpenPrinterW", "GetJobW", "SetJobW", "SetPrinterW", "ClosePrinter"
    DWORD jobId = 0;
    DWORD level = 0;
    DWORD command = 0;
    bool result = false;
};
std::vector<SpoolerCall> SpoolerCalls();  // the last 4096, oldest first
int OpenPrinterHandles();  // handles opened and not yet closed
// Runs at each GetJobW on a job, before the record is read: lets a test delete
// a job at a chosen moment, as a user would.
void SetGetJobHook(std::function<void(DWORD jobId, int callNumber)> hook);
// Runs at the start of every GetJobW, SetJobW, SetPrinterW and ClosePrinter
// (callNumber counts them all): lets a test act at each moment the monitor
// talks to the spooler.  Replaces a GetJobW hook.
void SetSpoolerHook(std::function<void(const char *function, DWORD jobId, int callNumber)> hook);

// ---- the user and the machine -------------------------------------------------------
// The user that GetUserNameW reports on this thread (the spooler impersonates the
// job's owner during the job calls).  Empty: the process's own user.
void ImpersonateUser(const std::u16string &user);
void RevertToSelf();
void SetUserNameFails(bool fails);  // GetUserNameW fails on every thread
// The computer name that gethostname reports; empty: the system's host name.
void SetComputerName(const std::string &name);

// ---- user interface -------------------------------------------------------------------
// Dialogs and message boxes are windows of the thread that made them, and stand
// in a modal loop on that thread.  Each time round the loop the platform fires
// the thread's due timers and then hands the window to the UI driver, which
// acts on it through the calls below, as a person would, or waits for a person
// at most waitMs (-1: no timer is due), and returns.  The loop ends when the
// dialog's procedure calls EndDialog or the box is answered.  Without a
// driver a dialog cannot be shown (DialogBoxParamW gives 0) and a box goes to
// the MessageBoxHandler below.
using UiDriver = std::function<void(HWND window, int waitMs)>;
void SetUiDriver(UiDriver driver);

// A window as a driver draws it.
struct ControlView {
    int id = 0;
    std::u16string cls;
    DWORD style = 0;
    int x = 0, y = 0, cx = 0, cy = 0;  // dialog units
    std::u16string text;
    bool enabled = true;
    int check = BST_UNCHECKED;
    size_t limit = 0;  // of an edit box's text
    std::vector<std::u16string> lines;  // of a list box, in its order
    int selection = -1;
};
struct WindowView {
    HWND window = nullptr;
    bool box = false;          // a message box: text, caption and type
    int templateId = 0;        // a dialog's
    std::u16string title;      // a dialog's title, a box's caption
    std::u16string text;
    DWORD style = 0;           // a dialog's style, a box's type
    int cx = 0, cy = 0;
    std::vector<ControlView> controls;
};
bool ViewWindow(HWND window, WindowView *view);
// The dialogs and boxes that stand on the calling thread, the first made first.
std::vector<HWND> ThreadWindows();

// Input as a person gives it, on the window's own thread.  It goes through the
// control as on Windows: the control takes the focus first, as under a mouse
// click; a radio button checks itself and clears the others of its group, an
// edit box keeps to its limit and its case, the procedure hears of it by
// WM_COMMAND.  A control that is disabled, or can take no input, takes none:
// false.
bool Click(HWND dialog, int id);                 // a button, radio button or check box
bool TypeKey(HWND dialog, int id, char16_t key); // at the end of an edit box's text; 8 erases
bool SelectLine(HWND dialog, int id, int index); // a line of a list box
// The keyboard focus of a dialog, as Windows' dialog manager keeps it: after
// WM_INITDIALOG returns TRUE, the first control with WS_TABSTOP that takes
// input.  A move tells the procedure as Windows' controls do, by WM_COMMAND:
// the list or edit box losing the focus first (LBN_KILLFOCUS, EN_KILLFOCUS),
// then the one gaining it (LBN_SETFOCUS, EN_SETFOCUS); buttons tell nothing.
int FocusedControl(HWND dialog);      // its id; 0: none
bool FocusControl(HWND dialog, int id);  // false for a control that takes no input
bool AnswerBox(HWND box, int result);            // IDOK, IDCANCEL... of the box's buttons
// A command that comes from no control, as Windows' dialog manager makes
// IDCANCEL of the Esc key: WM_COMMAND with the id, BN_CLICKED and no window.
bool Command(HWND dialog, int id);

struct ForegroundCall {
    HWND window;
    DWORD thread;
};
std::vector<ForegroundCall> ForegroundCalls();  // every SetForegroundWindow, in order
void ClearForegroundCalls();

struct MessageBoxRecord {
    std::u16string text;
    std::u16string caption;
    unsigned type = 0;
    // A box sent to another session by WTSSendMessageW: that session, its
    // time-out and whether the sender waited.  -1 for a box of this process.
    long session = -1;
    unsigned timeoutSeconds = 0;
    bool waited = true;
};
using MessageBoxHandler =
    std::function<int(HWND owner, const std::u16string &text, const std::u16string &caption,
                      unsigned type)>;
// What answers a box when no UI driver is set: called once, it blocks until it
// has the answer.  Without one either, a box is answered IDOK at once.
void SetMessageBoxHandler(MessageBoxHandler handler);
std::vector<MessageBoxRecord> MessageBoxes();  // every box shown, in order
void ClearMessageBoxes();

// The session this process runs in and the active console session
// (0xFFFFFFFF: none).  Both are 1 unless a test says otherwise: a process on
// a user's desktop.  Session 0 is that of services, the spooler's.
void SetSessions(DWORD own, DWORD console);

// ---- the private network ----------------------------------------------------------------
// Puts this process into a new user and network namespace with loopback up and
// "default dev lo src 127.0.0.1".  Must run before the process starts threads.
bool EnterPrivateNetwork(std::string *error);

}  // namespace kvthost
