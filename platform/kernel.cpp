// kernel32 and advapi32 services other than files and the registry: the
// thread's last error, TLS slots, re-entrant critical sections, local memory,
// the platform's version, the user name, modules and their string tables.
#include <windows.h>

#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "kvthost.h"

namespace {

thread_local DWORD tLastError = 0;

// TLS: a fixed number of slots, as Windows guarantees at least 64.
constexpr DWORD kTlsSlots = 128;
std::mutex gTlsMutex;
std::array<bool, kTlsSlots> gTlsUsed{};
thread_local std::array<LPVOID, kTlsSlots> tTlsValues{};

struct Module {
    void *base;
    const kvthost::ResourceTable *resources;
};
std::mutex gModuleMutex;
std::vector<Module> gModules;

std::mutex gUserMutex;
bool gUserNameFails = false;
thread_local std::u16string tImpersonated;

std::atomic<bool> gGlobalAllocFails{false};

}  // namespace

extern "C" {

DWORD WINAPI GetLastError(void) { return tLastError; }
void WINAPI SetLastError(DWORD code) { tLastError = code; }

DWORD WINAPI GetCurrentThreadId(void) { return static_cast<DWORD>(syscall(SYS_gettid)); }

DWORD WINAPI TlsAlloc(void) {
    std::lock_guard<std::mutex> lock(gTlsMutex);
    for (DWORD i = 0; i < kTlsSlots; ++i) {
        if (!gTlsUsed[i]) {
            gTlsUsed[i] = true;
            return i;
        }
    }
    SetLastError(ERROR_NO_MORE_ITEMS);
    return TLS_OUT_OF_INDEXES;
}

LPVOID WINAPI TlsGetValue(DWORD index) {
    if (index >= kTlsSlots) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    SetLastError(ERROR_SUCCESS);
    return tTlsValues[index];
}

BOOL WINAPI TlsSetValue(DWORD index, LPVOID value) {
    if (index >= kTlsSlots) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    tTlsValues[index] = value;
    return TRUE;
}

BOOL WINAPI TlsFree(DWORD index) {
    std::lock_guard<std::mutex> lock(gTlsMutex);
    if (index >= kTlsSlots || !gTlsUsed[index]) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    gTlsUsed[index] = false;
    return TRUE;
}

// A critical section may be entered again by the thread that holds it.
void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION cs) {
    cs->impl = new std::recursive_mutex;
    cs->initialised = 1;
}
void WINAPI EnterCriticalSection(LPCRITICAL_SECTION cs) {
    static_cast<std::recursive_mutex *>(cs->impl)->lock();
}
void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION cs) {
    static_cast<std::recursive_mutex *>(cs->impl)->unlock();
}
void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION cs) {
    delete static_cast<std::recursive_mutex *>(cs->impl);
    cs->impl = nullptr;
    cs->initialised = 0;
}

HLOCAL WINAPI LocalAlloc(UINT flags, SIZE_T bytes) {
    void *p = (flags & LMEM_ZEROINIT) ? std::calloc(1, bytes == 0 ? 1 : bytes)
                                      : std::malloc(bytes == 0 ? 1 : bytes);
    if (p == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return p;
}

HLOCAL WINAPI LocalFree(HLOCAL mem) {
    std::free(mem);
    return nullptr;
}

// Fixed memory only: the handle is the address.
HGLOBAL WINAPI GlobalAlloc(UINT flags, SIZE_T bytes) {
    if (gGlobalAllocFails) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return LocalAlloc(flags & GMEM_ZEROINIT, bytes);
}

HGLOBAL WINAPI GlobalFree(HGLOBAL mem) { return LocalFree(mem); }

// The platform reports itself as Windows NT 10.0.
BOOL WINAPI GetVersionExW(LPOSVERSIONINFOW info) {
    if (info == nullptr || info->dwOSVersionInfoSize < sizeof(OSVERSIONINFOW)) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    info->dwMajorVersion = 10;
    info->dwMinorVersion = 0;
    info->dwBuildNumber = 19045;
    info->dwPlatformId = VER_PLATFORM_WIN32_NT;
    info->szCSDVersion[0] = 0;
    return TRUE;
}

// The user the calling thread runs as: the job's owner while the host
// impersonates one, else the process's own user.  *pcbBuffer counts
// characters with the terminator, both ways.
BOOL WINAPI GetUserNameW(LPWSTR buffer, LPDWORD pcbBuffer) {
    if (pcbBuffer == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    {
        std::lock_guard<std::mutex> lock(gUserMutex);
        if (gUserNameFails) {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
    }
    std::u16string name = tImpersonated;
    if (name.empty()) {
        const char *env = std::getenv("USER");
        struct passwd *pw = getpwuid(geteuid());
        name = kvthost::Widen(pw != nullptr ? pw->pw_name : (env != nullptr ? env : "user"));
    }
    DWORD needed = static_cast<DWORD>(name.size() + 1);
    if (buffer == nullptr || *pcbBuffer < needed) {
        *pcbBuffer = needed;
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    std::memcpy(buffer, name.c_str(), needed * sizeof(WCHAR));
    *pcbBuffer = needed;
    return TRUE;
}

// A module's handle is its base address, as on Windows.  A name without an
// extension is taken to end in ".DLL"; a NULL name is the program itself,
// which carries no strings.
HMODULE WINAPI GetModuleHandleW(LPCWSTR name) {
    static char programMarker;
    if (name == nullptr) return reinterpret_cast<HMODULE>(&programMarker);
    std::u16string wanted(name);
    if (wanted.find(u'.') == std::u16string::npos) wanted += u".DLL";
    std::lock_guard<std::mutex> lock(gModuleMutex);
    for (const Module &m : gModules)
        if (_wcsicmp(m.resources->moduleName, wanted.c_str()) == 0) return static_cast<HMODULE>(m.base);
    SetLastError(126);  // ERROR_MOD_NOT_FOUND
    return nullptr;
}

int WINAPI LoadStringW(HINSTANCE instance, UINT id, LPWSTR buffer, int cchMax) {
    if (buffer == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const char16_t *text = nullptr;
    {
        std::lock_guard<std::mutex> lock(gModuleMutex);
        for (const Module &m : gModules) {
            if (m.base != static_cast<void *>(instance)) continue;
            for (size_t i = 0; i < m.resources->stringCount; ++i)
                if (m.resources->strings[i].id == id) text = m.resources->strings[i].text;
        }
    }
    if (text == nullptr) {
        if (cchMax > 0) buffer[0] = 0;
        SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
        return 0;
    }
    int len = lstrlenW(text);
    if (cchMax == 0) {  // a read-only pointer to the resource itself
        *reinterpret_cast<const char16_t **>(buffer) = text;
        return len;
    }
    int n = len < cchMax - 1 ? len : cchMax - 1;
    std::memcpy(buffer, text, static_cast<size_t>(n) * sizeof(WCHAR));
    buffer[n] = 0;
    return n;
}

}  // extern "C"

namespace kvthost {

const ResourceTable *ModuleResources(void *base) {
    std::lock_guard<std::mutex> lock(gModuleMutex);
    for (const Module &m : gModules)
        if (m.base == base) return m.resources;
    return nullptr;
}

void RegisterModule(void *base, const ResourceTable *resources) {
    std::lock_guard<std::mutex> lock(gModuleMutex);
    for (Module &m : gModules) {
        if (m.base == base) {
            m.resources = resources;
            return;
        }
    }
    gModules.push_back({base, resources});
}

void ImpersonateUser(const std::u16string &user) { tImpersonated = user; }
void RevertToSelf() { tImpersonated.clear(); }
void SetUserNameFails(bool fails) {
    std::lock_guard<std::mutex> lock(gUserMutex);
    gUserNameFails = fails;
}
void SetGlobalAllocFails(bool fails) { gGlobalAllocFails = fails; }

}  // namespace kvthost
