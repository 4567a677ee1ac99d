// The host side of the platform layer: what the spooler host (kvtmon), the
// tests and the benchmarks use to stand in for Windows around the monitor.
// The monitor itself never includes this header; it sees only the Win32 API.
#pragma once

#include <windows.h>

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
struct ResourceTable {
    const char16_t *moduleName;  // the Windows file name of the module, "KVT64.DLL"
    const StringResource *strings;
    size_t stringCount;
};
// Called by the loader glue of a module (its base address is its HMODULE).
void RegisterModule(void *base, const ResourceTable *resources);

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

struct SpoolerCall {
    std::string function;  // "OpenPrinterW", "GetJobW", "SetJobW", "SetPrinterW", "ClosePrinter"
    DWORD jobId = 0;
    DWORD level = 0;
    DWORD command = 0;
    bool result = false;
};
std::vector<SpoolerCall> SpoolerCalls();
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
struct MessageBoxRecord {
    std::u16string text;
    std::u16string caption;
    unsigned type = 0;
};
using MessageBoxHandler =
    std::function<int(HWND owner, const std::u16string &text, const std::u16string &caption,
                      unsigned type)>;
// The driver that answers boxes.  Without one, a box is answered IDOK at once.
void SetMessageBoxHandler(MessageBoxHandler handler);
std::vector<MessageBoxRecord> MessageBoxes();  // every box shown, in order
void ClearMessageBoxes();

// ---- the private network ----------------------------------------------------------------
// Puts this process into a new user and network namespace with loopback up and
// "default dev lo src 127.0.0.1".  Must run before the process starts threads.
bool EnterPrivateNetwork(std::string *error);

}  // namespace kvthost
