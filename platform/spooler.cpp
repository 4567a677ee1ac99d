// The spooler's services to a monitor, over a job table that the host fills:
// printers, jobs with their document, owner and status bits, and a record of
// every call the monitor makes on them.
#include <windows.h>
#include <winspool.h>

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

BOOL WINAPI OpenPrinterW(LPWSTR name, LPHANDLE handle, LPPRINTER_DEFAULTSW) {
    std::lock_guard<std::recursive_mutex> lock(gMutex);
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
    delete h;
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
