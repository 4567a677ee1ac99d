// The spooler's services to a monitor, over a job table that the host fills:
// printers, jobs with their document, owner and status bits, and a record of
// every call the monitor makes on them.
#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "kvthost.h"

namespace {

struct Printer {
    std::u16string name;
};
struct PrinterHandle {
    std::u16string printer;
    HANDLE xcv = nullptr;  // a transceive handle of the monitor: ",XcvMonitor" or ",XcvPort"
};

std::recursive_mutex gMutex;
std::vector<Printer> gPrinters;
std::vector<kvthost::JobSpec> gJobs;
std::set<PrinterHandle *> gHandles;
// The most recent calls: a channel job makes a deletion test per frame, so a
// long-running host keeps the last ones only.
constexpr size_t kCallsKept = 4096;
std::deque<kvthost::SpoolerCall> gCalls;
std::function<void(const char *, DWORD, int)> gHook;
int gHookCalls = 0;
std::u16string gXcvMonitorName;
const MONITOR *gXcvMonitor = nullptr;

// ",XcvMonitor NAME" or ",XcvPort PORT", after "\\SERVER\" when SERVER is
// this machine: the monitor's object (empty for the monitor), false for any
// other name.
bool XcvObject(const char16_t *name, std::u16string *object) {
    std::u16string n(name);
    if (n.rfind(u"\\\\", 0) == 0) {
        size_t end = n.find(u'\\', 2);
        if (end == std::u16string::npos) return false;
        std::u16string server = n.substr(2, end - 2);
        char host[256] = {};
        gethostname(host, sizeof host - 1);
        if (_wcsicmp(server.c_str(), kvthost::Widen(host).c_str()) != 0 && _wcsicmp(server.c_str(), u"localhost") != 0)
            return false;
        n = n.substr(end + 1);
    }
    const std::u16string monitor = u",XcvMonitor ", port = u",XcvPort ";
    if (n.rfind(monitor, 0) == 0) {
        object->clear();
        return gXcvMonitor != nullptr && n.substr(monitor.size()) == gXcvMonitorName;
    }
    if (n.rfind(port, 0) != 0 || n.size() == port.size()) return false;
    *object = n.substr(port.size());
    return gXcvMonitor != nullptr;
}

kvthost::JobSpec *FindJob(const std::u16string &printer, DWORD jobId) {
    for (auto &j : gJobs)
        if (j.jobId == jobId && _wcsicmp(j.printer.c_str(), printer.c_str()) == 0) return &j;
    return nullptr;
}

PrinterHandle *Resolve(HANDLE h) {
    auto *p = static_cast<PrinterHandle *>(h);
    return gHandles.count(p) != 0 ? p : nullptr;
}

void Record(const char *fn, DWORD jobId, DWORD level, DWORD command, bool result) {
    gCalls.push_back({fn, jobId, level, command, result});
    if (gCalls.size() > kCallsKept) gCalls.pop_front();
}

// Runs the test's hook, if any, without the table's lock, so that the hook may
// call the monitor (and the monitor the spooler) on this or another thread.
void RunHook(std::unique_lock<std::recursive_mutex> &lock, const char *fn, DWORD jobId) {
    if (!gHook) return;
    auto hook = gHook;
    int call = ++gHookCalls;
    lock.unlock();
    hook(fn, jobId, call);
    lock.lock();
}

}  // namespace

extern "C" {

BOOL WINAPI OpenPrinterW(LPWSTR name, LPHANDLE handle, LPPRINTER_DEFAULTSW defaults) {
    std::unique_lock<std::recursive_mutex> lock(gMutex);
    std::u16string object;
    if (name != nullptr && (name[0] == u',' || name[0] == u'\\')) {
        // The monitor's transceive entries, called without the table's lock.
        const MONITOR *monitor = gXcvMonitor;
        if (handle == nullptr || !XcvObject(name, &object)) {
            SetLastError(handle == nullptr ? ERROR_INVALID_PARAMETER : ERROR_INVALID_PRINTER_NAME);
            return FALSE;
        }
        lock.unlock();
        ACCESS_MASK granted = defaults != nullptr ? defaults->DesiredAccess : SERVER_ACCESS_ENUMERATE;
        HANDLE xcv = nullptr;
        if (!monitor->pfnXcvOpenPort(object.c_str(), granted, &xcv)) return FALSE;
        lock.lock();
        auto *h = new PrinterHandle{name, xcv};
        gHandles.insert(h);
        *handle = h;
        return TRUE;
    }
    bool known = false;
    if (name != nullptr)
        for (const auto &p : gPrinters)
            if (_wcsicmp(p.name.c_str(), name) == 0) known = true;
    if (handle == nullptr || !known) {
        Record("OpenPrinterW", 0, 0, 0, false);
        SetLastError(handle == nullptr ? ERROR_INVALID_PARAMETER : ERROR_INVALID_PRINTER_NAME);
        return FALSE;
    }
    auto *h = new PrinterHandle{name};
    gHandles.insert(h);
    *handle = h;
    Record("OpenPrinterW", 0, 0, 0, true);
    return TRUE;
}

BOOL WINAPI ClosePrinter(HANDLE handle) {
    std::unique_lock<std::recursive_mutex> lock(gMutex);
    RunHook(lock, "ClosePrinter", 0);
    PrinterHandle *h = Resolve(handle);
    Record("ClosePrinter", 0, 0, 0, h != nullptr);
    if (h == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    gHandles.erase(h);
    HANDLE xcv = h->xcv;
    delete h;
    const MONITOR *monitor = gXcvMonitor;
    lock.unlock();
    if (xcv != nullptr && monitor != nullptr) return monitor->pfnXcvClosePort(xcv);
    return TRUE;
}

BOOL WINAPI XcvDataW(HANDLE handle, LPCWSTR dataName, PBYTE input, DWORD cbInput, PBYTE output, DWORD cbOutput,
                     PDWORD needed, PDWORD status) {
    std::unique_lock<std::recursive_mutex> lock(gMutex);
    PrinterHandle *h = Resolve(handle);
    const MONITOR *monitor = gXcvMonitor;
    if (h == nullptr || h->xcv == nullptr || monitor == nullptr || status == nullptr) {
        SetLastError(h == nullptr || h->xcv == nullptr ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    HANDLE xcv = h->xcv;
    lock.unlock();
    DWORD unused = 0;
    *status = monitor->pfnXcvDataPort(xcv, dataName, input, cbInput, output, cbOutput, needed ? needed : &unused);
    return TRUE;
}

// Level 1 only: the record, then its strings behind it in the same buffer.
BOOL WINAPI GetJobW(HANDLE handle, DWORD jobId, DWORD level, LPBYTE buffer, DWORD cbBuf,
                    LPDWORD pcbNeeded) {
    std::unique_lock<std::recursive_mutex> lock(gMutex);
    PrinterHandle *h = Resolve(handle);
    if (h == nullptr) {
        Record("GetJobW", jobId, level, 0, false);
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    RunHook(lock, "GetJobW", jobId);
    h = Resolve(handle);
    if (h == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    kvthost::JobSpec *job = FindJob(h->printer, jobId);
    if (job == nullptr) {
        Record("GetJobW", jobId, level, 0, false);
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (level != 1) {
        Record("GetJobW", jobId, level, 0, false);
        SetLastError(ERROR_INVALID_LEVEL);
        return FALSE;
    }
    const std::u16string datatype = u"RAW";
    const std::u16string *strings[] = {&h->printer, &job->machine, &job->user, &job->document, &datatype};
    DWORD needed = sizeof(JOB_INFO_1W);
    for (const auto *s : strings) needed += static_cast<DWORD>((s->size() + 1) * sizeof(WCHAR));
    if (pcbNeeded != nullptr) *pcbNeeded = needed;
    if (buffer == nullptr || cbBuf < needed) {
        Record("GetJobW", jobId, level, 0, false);
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    std::memset(buffer, 0, needed);
    auto *info = reinterpret_cast<JOB_INFO_1W *>(buffer);
    LPBYTE end = buffer + sizeof(JOB_INFO_1W);
    LPWSTR *fields[] = {&info->pPrinterName, &info->pMachineName, &info->pUserName, &info->pDocument,
                        &info->pDatatype};
    for (size_t i = 0; i < 5; ++i) {
        size_t bytes = (strings[i]->size() + 1) * sizeof(WCHAR);
        std::memcpy(end, strings[i]->c_str(), bytes);
        *fields[i] = reinterpret_cast<LPWSTR>(end);
        end += bytes;
    }
    info->JobId = job->jobId;
    info->pStatus = nullptr;
    info->Status = job->status;
    info->Priority = 1;
    Record("GetJobW", jobId, level, 0, true);
    return TRUE;
}

BOOL WINAPI SetJobW(HANDLE handle, DWORD jobId, DWORD level, LPBYTE, DWORD command) {
    std::unique_lock<std::recursive_mutex> lock(gMutex);
    RunHook(lock, "SetJobW", jobId);
    PrinterHandle *h = Resolve(handle);
    bool ok = h != nullptr && FindJob(h->printer, jobId) != nullptr;
    Record("SetJobW", jobId, level, command, ok);
    if (!ok) {
        SetLastError(h == nullptr ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (command == JOB_CONTROL_SENT_TO_PRINTER) FindJob(h->printer, jobId)->status |= JOB_STATUS_PRINTED;
    return TRUE;
}

BOOL WINAPI SetPrinterW(HANDLE handle, DWORD level, LPBYTE, DWORD command) {
    std::unique_lock<std::recursive_mutex> lock(gMutex);
    RunHook(lock, "SetPrinterW", 0);
    bool ok = Resolve(handle) != nullptr;
    Record("SetPrinterW", 0, level, command, ok);
    if (!ok) SetLastError(ERROR_INVALID_HANDLE);
    return ok ? TRUE : FALSE;
}

}  // extern "C"

namespace kvthost {

void AddPrinter(const std::u16string &printer) {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    for (const auto &p : gPrinters)
        if (_wcsicmp(p.name.c_str(), printer.c_str()) == 0) return;
    gPrinters.push_back({printer});
}

void AddJob(const JobSpec &job) {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    AddPrinter(job.printer);
    if (JobSpec *old = FindJob(job.printer, job.jobId)) {
        *old = job;
        return;
    }
    gJobs.push_back(job);
}

bool SetJobStatus(const std::u16string &printer, DWORD jobId, DWORD status) {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    JobSpec *job = FindJob(printer, jobId);
    if (job == nullptr) return false;
    job->status = status;
    return true;
}

DWORD JobStatus(const std::u16string &printer, DWORD jobId) {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    JobSpec *job = FindJob(printer, jobId);
    return job != nullptr ? job->status : 0;
}

void SetXcvMonitor(const std::u16string &name, const MONITOR *monitor) {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    gXcvMonitorName = name;
    gXcvMonitor = monitor != nullptr && monitor->pfnXcvOpenPort != nullptr && monitor->pfnXcvDataPort != nullptr &&
                          monitor->pfnXcvClosePort != nullptr
                      ? monitor
                      : nullptr;
}

bool HasXcvMonitor() {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    return gXcvMonitor != nullptr;
}

void ResetSpooler() {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    gPrinters.clear();
    gJobs.clear();
    gCalls.clear();
    gHook = nullptr;
    gHookCalls = 0;
}

std::vector<SpoolerCall> SpoolerCalls() {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    return {gCalls.begin(), gCalls.end()};
}

int OpenPrinterHandles() {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    return static_cast<int>(gHandles.size());
}

void SetSpoolerHook(std::function<void(const char *function, DWORD jobId, int callNumber)> hook) {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
    gHook = std::move(hook);
    gHookCalls = 0;
}

void SetGetJobHook(std::function<void(DWORD jobId, int callNumber)> hook) {
    if (!hook) {
        SetSpoolerHook(nullptr);
        return;
    }
    // Numbered by the GetJobW calls alone.
    auto calls = std::make_shared<int>(0);
    SetSpoolerHook([hook, calls](const char *function, DWORD jobId, int) {
        if (std::strcmp(function, "GetJobW") == 0) hook(jobId, ++*calls);
    });
}

}  // namespace kvthost
