// kvtspool.exe: a small print spooler for KVT64.DLL, run under Wine by the
// tests in wine_test.cpp.  It installs the monitor into the prefix as an
// administrator would, loads it as the spooler does (LoadLibrary and
// InitializePrintMonitor), drives the entry table with a real printer's name
// and a real job id of Wine's spooler, and goes through Wine's own spooler
// (winspool, localspl) to the monitor.  Every result is printed as a line
// "what: value" for the Linux side to check.
//
//   kvtspool setup DLL [debug=N] [notify=N] [port=NAME,ADDRESS,PROTOCOL[,QUEUE]]...
//                      [printer=NAME,PORT] [route=PORT]...
//   kvtspool job PORT PRINTER DOCUMENT FILE
//   kvtspool enum
//   kvtspool delete PORT...
//   kvtspool tree
//   kvtspool spooler PORT-TO-CONFIGURE PORT-TO-DELETE
//   kvtspool print PRINTER DOCUMENT FILE
//   kvtspool configure PORT CLICK TEXT [pause]
//   kvtspool add SERVER LPT QUEUE [pause] [tab] [ui]
//   kvtspool client monitors|addbyname PORT|denied PORT|delete PORT [pause]
//   kvtspool printer NAME PORT|-
//
// With "ui", add and configure take the client's path of Windows' spooler:
// the UI library named by the monitor's XcvData "MonitorUI", loaded, and its
// AddPortUI or ConfigurePortUI.  Wine 8's localspl opens transceive handles
// only on monitors of InitializePrintMonitor2, so for this monitor the harness
// routes OpenPrinterW ",XcvMonitor"/",XcvPort", XcvDataW and ClosePrinter to
// the monitor's XcvOpenPort, XcvDataPort and XcvClosePort itself, granting
// the access asked for, as Windows' router does for an administrator.
//
// A message box of this process (the monitor's "Starting DEBUG mode", its
// notice after a job) is read and answered with OK by a watcher thread and
// printed as "box: CAPTION | TEXT | ICON".  Wine runs with its null display
// driver, under which a box stands until it is answered, as on Windows (with
// no display driver at all, Wine 8 returns from MessageBoxW at once).
#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const wchar_t kMonitorName[] = L"PrintServer Network Port";
const wchar_t kMonitorKey[] = L"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port";
const wchar_t kDriverName[] = L"KVT Test Driver";
constexpr DWORD kSentinel = 0xdeadbeef;

std::string Narrow(const std::wstring &text) {
    if (text.empty()) return {};
    int n = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
    std::string out(n > 0 ? n - 1 : 0, '\0');
    if (n > 1) WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, out.data(), n, nullptr, nullptr);
    return out;
}

void Say(const char *what, const std::string &value) {
    std::printf("%s: %s\n", what, value.c_str());
    std::fflush(stdout);
}

// "RESULT ERROR": the entry's result and the thread's last error after it.
std::string Outcome(BOOL result, DWORD error) { return std::to_string(result ? 1 : 0) + " " + std::to_string(error); }

std::vector<std::wstring> Split(const std::wstring &text, wchar_t sep) {
    std::vector<std::wstring> parts;
    size_t start = 0;
    for (size_t at; (at = text.find(sep, start)) != std::wstring::npos; start = at + 1)
        parts.push_back(text.substr(start, at - start));
    parts.push_back(text.substr(start));
    return parts;
}

// ---- message boxes ---------------------------------------------------------------
// With "pause", a window waits for the Linux side before it is answered: the
// harness writes C:\kvt-ready.txt (what stands) and goes on once C:\kvt-go.txt
// is there, so that a screenshot can be taken of it.
bool gPause = false;
bool gPressDialogs = true;  // the watcher presses the default button of a dialog

void WaitForTheLinuxSide(const char *what) {
    if (!gPause) return;
    FILE *ready = _wfopen(L"C:\\kvt-ready.txt", L"w");
    std::fputs(what, ready);
    std::fclose(ready);
    for (int i = 0; i < 600 && GetFileAttributesW(L"C:\\kvt-go.txt") == INVALID_FILE_ATTRIBUTES; ++i) Sleep(50);
    DeleteFileW(L"C:\\kvt-ready.txt");
    DeleteFileW(L"C:\\kvt-go.txt");
}

// Polls for message boxes of this process, prints caption and text, and
// answers with OK.  Another dialog is pressed on its default button, as Enter
// would.  Its thread lives as long as the process.
DWORD WINAPI AnswerBoxes(void *) {
    for (;;) {
        HWND box = nullptr;
        while ((box = FindWindowExW(nullptr, box, L"#32770", nullptr)) != nullptr) {
            DWORD pid = 0;
            GetWindowThreadProcessId(box, &pid);
            if (pid != GetCurrentProcessId() || !IsWindowVisible(box)) continue;
            if (GetDlgItem(box, 0xFFFF) == nullptr) {  // no box: it has no text control of a box's
                if (!gPressDialogs) continue;             // the configure command's person has it
                wchar_t title[256] = L"";
                GetWindowTextW(box, title, 256);
                Say("dialog", Narrow(title));
                if (GetDlgItem(box, 206) != nullptr)  // dialog 200: no port to pick, Cancel
                    SendMessageW(GetDlgItem(box, 4), BM_CLICK, 0, 0);
                else
                    SendMessageW(GetDlgItem(box, LOWORD(SendMessageW(box, DM_GETDEFID, 0, 0))), BM_CLICK, 0, 0);
                while (IsWindow(box) && IsWindowVisible(box)) Sleep(10);
                continue;
            }
            WaitForTheLinuxSide("box");
            wchar_t caption[256] = L"", text[1024] = L"";
            GetWindowTextW(box, caption, 256);
            GetDlgItemTextW(box, 0xFFFF, text, 1024);  // a message box's text control
            // Its icon control: empty for type 0, the shared information icon
            // for MB_ICONINFORMATION.
            auto icon = reinterpret_cast<HICON>(SendDlgItemMessageW(box, 1088, STM_GETICON, 0, 0));
            const char *kind = icon == nullptr                          ? "no icon"
                               : icon == LoadIconW(nullptr, IDI_INFORMATION) ? "information icon"
                                                                           : "other icon";
            Say("box", Narrow(caption) + " | " + Narrow(text) + " | " + kind);
            // The box closes with its button (Yes of a question); it is gone
            // before the next look.
            PostMessageW(box, WM_COMMAND, GetDlgItem(box, IDYES) != nullptr ? IDYES : IDOK, 0);
            while (IsWindow(box) && IsWindowVisible(box)) Sleep(10);
        }
        Sleep(50);
    }
}

void StartBoxWatcher() { CloseHandle(CreateThread(nullptr, 0, AnswerBoxes, nullptr, 0, nullptr)); }

// ---- the monitor, loaded as the spooler loads it ---------------------------------
MONITOR *gMonitor = nullptr;

// LoadLibrary of the name in the monitor's "Driver" value, then
// InitializePrintMonitor with the monitor's registry path, as Wine's localspl
// does.  Prints the size of the table and which of its 17 slots are filled.
bool LoadMonitor() {
    HMODULE module = LoadLibraryW(L"KVT64.DLL");
    if (module == nullptr) {
        Say("load", "LoadLibrary failed " + std::to_string(GetLastError()));
        return false;
    }
    auto init = reinterpret_cast<LPMONITOREX(WINAPI *)(LPWSTR)>(
        reinterpret_cast<void *>(GetProcAddress(module, "InitializePrintMonitor")));
    if (init == nullptr) {
        Say("load", "no InitializePrintMonitor");
        return false;
    }
    LPMONITOREX table = init(const_cast<LPWSTR>(kMonitorKey));
    if (table == nullptr) {
        Say("load", "InitializePrintMonitor gave no table");
        return false;
    }
    gMonitor = &table->Monitor;
    std::string slots;
    auto *entries = reinterpret_cast<void *const *>(&table->Monitor);
    for (size_t i = 0; i < sizeof(MONITOR) / sizeof(void *); ++i) slots += entries[i] != nullptr ? 'x' : '-';
    Say("table", std::to_string(table->dwMonitorSize) + " " + slots);
    return true;
}

// ---- the client's path ---------------------------------------------------------------
// The transceive handles of the spooler's router, for this monitor.
std::vector<HANDLE> gXcvHandles;

BOOL WINAPI RouteOpenPrinter(LPWSTR name, LPHANDLE handle, LPPRINTER_DEFAULTSW defaults) {
    std::wstring object = name != nullptr ? name : L"";
    const std::wstring monitor = L",XcvMonitor ", port = L",XcvPort ";
    bool isMonitor = object.rfind(monitor, 0) == 0;
    if (!isMonitor && object.rfind(port, 0) != 0) return OpenPrinterW(name, handle, defaults);
    object.erase(0, isMonitor ? monitor.size() : port.size());
    if (isMonitor && object != kMonitorName) {
        SetLastError(ERROR_INVALID_PRINT_MONITOR);
        return FALSE;
    }
    HANDLE xcv = nullptr;
    if (!gMonitor->pfnXcvOpenPort(object.c_str(), defaults != nullptr ? defaults->DesiredAccess : 0, &xcv)) return FALSE;
    gXcvHandles.push_back(xcv);
    *handle = xcv;
    return TRUE;
}

BOOL WINAPI RouteXcvData(HANDLE xcv, PCWSTR dataName, PBYTE in, DWORD cbIn, PBYTE out, DWORD cbOut, PDWORD needed,
                         PDWORD status) {
    *status = gMonitor->pfnXcvDataPort(xcv, dataName, in, cbIn, out, cbOut, needed);
    return TRUE;
}

BOOL WINAPI RouteClosePrinter(HANDLE handle) {
    auto at = std::find(gXcvHandles.begin(), gXcvHandles.end(), handle);
    if (at == gXcvHandles.end()) return ClosePrinter(handle);
    gXcvHandles.erase(at);
    return gMonitor->pfnXcvClosePort(handle);
}

// The UI library's imports of winspool pointed at the router.
void RouteImports(HMODULE module) {
    auto *base = reinterpret_cast<BYTE *>(module);
    auto *nt = reinterpret_cast<IMAGE_NT_HEADERS *>(base + reinterpret_cast<IMAGE_DOS_HEADER *>(base)->e_lfanew);
    const auto &dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    const std::pair<const char *, void *> routes[] = {{"OpenPrinterW", reinterpret_cast<void *>(RouteOpenPrinter)},
                                                      {"XcvDataW", reinterpret_cast<void *>(RouteXcvData)},
                                                      {"ClosePrinter", reinterpret_cast<void *>(RouteClosePrinter)}};
    for (auto *imp = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR *>(base + dir.VirtualAddress); imp->Name != 0; ++imp) {
        if (lstrcmpiA(reinterpret_cast<char *>(base + imp->Name), "winspool.drv") != 0) continue;
        auto *names = reinterpret_cast<IMAGE_THUNK_DATA *>(base + imp->OriginalFirstThunk);
        auto *slots = reinterpret_cast<IMAGE_THUNK_DATA *>(base + imp->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
            auto *byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME *>(base + names->u1.AddressOfData);
            for (const auto &[function, route] : routes) {
                if (std::strcmp(reinterpret_cast<char *>(byName->Name), function) != 0) continue;
                DWORD old;
                VirtualProtect(&slots->u1.Function, sizeof(void *), PAGE_READWRITE, &old);
                slots->u1.Function = reinterpret_cast<ULONG_PTR>(route);
                VirtualProtect(&slots->u1.Function, sizeof(void *), old, &old);
            }
        }
    }
}

// What the client side does before AddPortUI, ConfigurePortUI or
// DeletePortUI: the UI library's name from the monitor, the library loaded,
// its table.  Prints "ui: NAME".
PMONITORUI LoadMonitorUi() {
    HANDLE xcv;
    PRINTER_DEFAULTSW defaults = {nullptr, nullptr, SERVER_ACCESS_ADMINISTER};
    if (!RouteOpenPrinter(const_cast<LPWSTR>((L",XcvMonitor " + std::wstring(kMonitorName)).c_str()), &xcv, &defaults))
        return nullptr;
    wchar_t name[MAX_PATH] = L"";
    DWORD needed = 0, status = 0;
    RouteXcvData(xcv, L"MonitorUI", nullptr, 0, reinterpret_cast<PBYTE>(name), sizeof name, &needed, &status);
    RouteClosePrinter(xcv);
    Say("ui", Narrow(name) + " " + std::to_string(status));
    HMODULE module = status == ERROR_SUCCESS ? LoadLibraryW(name) : nullptr;
    auto init = module == nullptr ? nullptr
                                  : reinterpret_cast<PMONITORUI(WINAPI *)()>(
                                        reinterpret_cast<void *>(GetProcAddress(module, "InitializePrintMonitorUI")));
    if (init == nullptr) return nullptr;
    RouteImports(module);
    return init();
}

// ---- setup ----------------------------------------------------------------------------
bool SetBinary(HKEY key, const wchar_t *name, const void *data, DWORD cb) {
    return RegSetValueExW(key, name, 0, REG_BINARY, static_cast<const BYTE *>(data), cb) == ERROR_SUCCESS;
}

bool SetText(HKEY key, const wchar_t *name, const std::wstring &text, DWORD type = REG_SZ) {
    return RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE *>(text.c_str()),
                          static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
}

// One port of the tree, in the forms the monitor stores: the server's address
// as 4 bytes little-endian in host order, "Network" and "Node Address" zero,
// the protocol as one byte, the queue name (if any) as REG_SZ.
bool WritePort(HKEY monitor, const std::wstring &spec) {
    std::vector<std::wstring> f = Split(spec, L',');
    if (f.size() < 3 || f[0].size() < 4) return false;
    std::wstring server = f[0].substr(0, f[0].size() - 3);
    wchar_t letter = f[0][f[0].size() - 2], last = f[0].back();
    wchar_t digit[2] = {letter == L'P' ? last : static_cast<wchar_t>(last + 3), 0};
    DWORD address = ntohl(inet_addr(Narrow(f[1]).c_str()));
    BYTE protocol = static_cast<BYTE>(_wtoi(f[2].c_str()));
    BYTE zero[6] = {};
    HKEY hServer, hDigit;
    if (RegCreateKeyW(monitor, (L"Ports\\" + server).c_str(), &hServer) != ERROR_SUCCESS) return false;
    bool ok = SetBinary(hServer, L"IP    ", &address, 4) && SetBinary(hServer, L"Network", zero, 4) &&
              SetBinary(hServer, L"Node Address", zero, 6) && RegCreateKeyW(hServer, digit, &hDigit) == ERROR_SUCCESS;
    if (ok) {
        ok = SetBinary(hDigit, L" ", &protocol, 1) && (f.size() < 4 || SetText(hDigit, L"QueueName", f[3]));
        RegCloseKey(hDigit);
    }
    RegCloseKey(hServer);
    return ok;
}

// A printer driver on Wine's own wineps.drv, with a data file of its own: the
// monitor never meets the driver, the printer only needs one.
bool InstallDriver() {
    wchar_t dir[MAX_PATH];
    DWORD needed = 0;
    if (!GetPrinterDriverDirectoryW(nullptr, nullptr, 1, reinterpret_cast<LPBYTE>(dir), sizeof dir, &needed))
        return false;
    std::wstring ppd = std::wstring(dir) + L"\\kvttest.ppd";
    HANDLE file = CreateFileW(ppd.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    const char text[] = "*PPD-Adobe: \"4.3\"\n*ModelName: \"KVT Test\"\n";
    DWORD written;
    WriteFile(file, text, sizeof text - 1, &written, nullptr);
    CloseHandle(file);
    DRIVER_INFO_3W info = {};
    info.cVersion = 3;
    info.pName = const_cast<LPWSTR>(kDriverName);
    info.pDriverPath = const_cast<LPWSTR>(L"wineps.drv");
    info.pDataFile = const_cast<LPWSTR>(L"kvttest.ppd");
    info.pConfigFile = const_cast<LPWSTR>(L"wineps.drv");
    info.pDefaultDataType = const_cast<LPWSTR>(L"RAW");
    return AddPrinterDriverExW(nullptr, 3, reinterpret_cast<LPBYTE>(&info), APD_COPY_NEW_FILES) ||
           GetLastError() == ERROR_PRINTER_DRIVER_ALREADY_INSTALLED;
}

// A printer NAME on PORT, made anew.  Wine 8's AddPrinterW takes the port's
// name as it stands; it doesn't ask the monitors for it.
bool InstallPrinter(const std::wstring &spec) {
    std::vector<std::wstring> f = Split(spec, L',');
    if (f.size() != 2 || !InstallDriver()) return false;
    HANDLE old;
    PRINTER_DEFAULTSW admin = {nullptr, nullptr, PRINTER_ALL_ACCESS};
    if (OpenPrinterW(const_cast<LPWSTR>(f[0].c_str()), &old, &admin)) {
        DeletePrinter(old);
        ClosePrinter(old);
    }
    PRINTER_INFO_2W info = {};
    info.pPrinterName = const_cast<LPWSTR>(f[0].c_str());
    info.pPortName = const_cast<LPWSTR>(f[1].c_str());
    info.pDriverName = const_cast<LPWSTR>(kDriverName);
    info.pPrintProcessor = const_cast<LPWSTR>(L"winprint");
    info.pDatatype = const_cast<LPWSTR>(L"RAW");
    info.Attributes = PRINTER_ATTRIBUTE_LOCAL;
    HANDLE printer = AddPrinterW(nullptr, 2, reinterpret_cast<LPBYTE>(&info));
    if (printer == nullptr) return false;
    ClosePrinter(printer);
    return true;
}

// The monitor installed as the README says: the file in the system folder, its
// key with "Driver", the flags; the host's TCP/IP component as Windows has it;
// the port tree; a printer.  The monitor's key is made anew each time.
int Setup(int argc, wchar_t **argv) {
    if (argc < 3) return 2;
    wchar_t system[MAX_PATH];
    GetSystemDirectoryW(system, MAX_PATH);
    // The UI library from beside the monitor.
    std::wstring ui = argv[2];
    ui.replace(ui.find_last_of(L"\\/") + 1, std::wstring::npos, L"KVT64UI.DLL");
    if (!CopyFileW(argv[2], (std::wstring(system) + L"\\KVT64.DLL").c_str(), FALSE) ||
        !CopyFileW(ui.c_str(), (std::wstring(system) + L"\\KVT64UI.DLL").c_str(), FALSE)) {
        Say("setup", "cannot copy the DLLs: " + std::to_string(GetLastError()));
        return 1;
    }

    // Wine's prefix has the Tcpip service key (for its Parameters) but no
    // "ImagePath": the monitor's test for the TCP/IP component would fail.
    HKEY tcpip;
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\Tcpip", &tcpip) != ERROR_SUCCESS ||
        !SetText(tcpip, L"ImagePath", L"System32\\drivers\\tcpip.sys", REG_EXPAND_SZ)) {
        Say("setup", "cannot write the TCP/IP component");
        return 1;
    }
    RegCloseKey(tcpip);

    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kMonitorKey);
    HKEY monitor;
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE, kMonitorKey, &monitor) != ERROR_SUCCESS ||
        !SetText(monitor, L"Driver", L"KVT64.DLL")) {
        Say("setup", "cannot write the monitor's key");
        return 1;
    }
    bool ok = true;
    for (int i = 3; i < argc && ok; ++i) {
        std::wstring arg = argv[i];
        size_t eq = arg.find(L'=');
        std::wstring name = arg.substr(0, eq), value = eq == std::wstring::npos ? L"" : arg.substr(eq + 1);
        if (name == L"debug" || name == L"notify") {
            BYTE flag = static_cast<BYTE>(_wtoi(value.c_str()));
            ok = SetBinary(monitor, name == L"debug" ? L"IsDEBUG" : L"IsNOTIFY", &flag, 1);
        } else if (name == L"port") {
            ok = WritePort(monitor, value);
        } else if (name == L"route") {
            // Wine's localspl finds the monitor of a port by a key
            // Monitors\<monitor>\Ports\<port name>, where this monitor keeps
            // Ports\<server>\<digit>; without it ConfigurePortW and DeletePortW
            // answer ERROR_NOT_SUPPORTED and never reach the monitor.  To the
            // monitor the key is a print server without ports.
            HKEY route;
            ok = RegCreateKeyW(monitor, (L"Ports\\" + value).c_str(), &route) == ERROR_SUCCESS;
            if (ok) RegCloseKey(route);
        } else if (name == L"printer") {
            ok = InstallPrinter(value);
        } else {
            ok = false;
        }
        if (!ok) Say("setup", "failed at " + Narrow(arg) + ": " + std::to_string(GetLastError()));
    }
    RegCloseKey(monitor);
    return ok ? 0 : 1;
}

// ---- job ------------------------------------------------------------------------------
bool ReadWholeFile(const wchar_t *path, std::string *data) {
    HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    char chunk[65536];
    DWORD got = 0;
    while (ReadFile(file, chunk, sizeof chunk, &got, nullptr) && got > 0) data->append(chunk, got);
    CloseHandle(file);
    return true;
}

// One job as the spooler runs it: the job made in Wine's spooler on the
// printer, the port opened, the document started with the printer's name and
// the job's id, the data written in 64 KiB buffers (again with the rest after
// a short write), the document ended, the port closed.  The job is then taken
// out of Wine's queue, so that Wine's own print path never sends it.  Inside
// the monitor, Wine 8's OpenPrinterW on the printer, GetJobW at level 1 (with
// pDocument and pPrinterName) and SetJobW work; SetPrinterW at level 0 fails
// with 124, which the monitor doesn't look at.
int Job(wchar_t *port, wchar_t *printerName, wchar_t *document, const wchar_t *file) {
    std::string data;
    if (!ReadWholeFile(file, &data)) {
        Say("job", "cannot read the data file");
        return 1;
    }
    if (!LoadMonitor()) return 1;
    HANDLE printer;
    if (!OpenPrinterW(printerName, &printer, nullptr)) {
        Say("job", "OpenPrinterW failed " + std::to_string(GetLastError()));
        return 1;
    }
    DOC_INFO_1W doc = {document, nullptr, const_cast<LPWSTR>(L"RAW")};
    DWORD jobId = StartDocPrinterW(printer, 1, reinterpret_cast<LPBYTE>(&doc));
    Say("job", std::to_string(jobId));

    HANDLE hPort = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(kSentinel));
    SetLastError(kSentinel);
    BOOL opened = gMonitor->pfnOpenPort(port, &hPort);
    Say("OpenPort", Outcome(opened, GetLastError()));
    if (opened) {
        SetLastError(kSentinel);
        DWORD start = GetTickCount();
        BOOL started = gMonitor->pfnStartDocPort(hPort, printerName, jobId, 1, reinterpret_cast<LPBYTE>(&doc));
        DWORD error = GetLastError();
        Say("StartDocPort", Outcome(started, error));
        Say("StartDocPort.ms", std::to_string(GetTickCount() - start));
        if (started) {
            size_t done = 0;
            int calls = 0;
            BOOL written = TRUE;
            while (done < data.size() && written) {
                DWORD cb = static_cast<DWORD>(std::min<size_t>(data.size() - done, 65536));
                DWORD count = kSentinel;
                SetLastError(kSentinel);
                written = gMonitor->pfnWritePort(hPort, reinterpret_cast<LPBYTE>(data.data() + done), cb, &count);
                ++calls;
                if (written) done += count;
                else Say("WritePort", Outcome(written, GetLastError()));
            }
            Say("written", std::to_string(done) + " in " + std::to_string(calls) + " calls");
            SetLastError(kSentinel);
            BOOL ended = gMonitor->pfnEndDocPort(hPort);
            Say("EndDocPort", Outcome(ended, GetLastError()));
        }
        Say("ClosePort", std::to_string(gMonitor->pfnClosePort(hPort)));
    }
    AbortPrinter(printer);
    ClosePrinter(printer);
    return 0;
}

// ---- enumeration ------------------------------------------------------------------------
// The buffer as hex, each string pointer replaced by its offset from the
// buffer's start (8 bytes, little-endian), so that the bytes can be compared.
std::string BufferWithOffsets(const BYTE *buffer, DWORD cb, DWORD level, DWORD count) {
    std::vector<BYTE> copy(buffer, buffer + cb);
    DWORD record = level == 1 ? sizeof(PORT_INFO_1W) : sizeof(PORT_INFO_2W);
    int pointers = level == 1 ? 1 : 3;
    for (DWORD r = 0; r < count; ++r)
        for (int p = 0; p < pointers; ++p) {
            size_t at = r * record + p * sizeof(void *);
            uintptr_t value;
            memcpy(&value, buffer + at, sizeof value);
            uint64_t offset = value - reinterpret_cast<uintptr_t>(buffer);
            if (value < reinterpret_cast<uintptr_t>(buffer) || offset >= cb) offset = ~0ull;
            memcpy(copy.data() + at, &offset, sizeof offset);
        }
    std::string hex;
    char two[3];
    for (BYTE b : copy) {
        std::snprintf(two, sizeof two, "%02x", b);
        hex += two;
    }
    return hex;
}

// EnumPorts as the spooler calls it: asked for the size first, then with one
// byte too few, then with the exact size into a buffer that has a guard
// behind it; levels 0 and 3 as well.
int Enum() {
    if (!LoadMonitor()) return 1;
    for (DWORD level = 1; level <= 2; ++level) {
        std::string l = std::to_string(level);
        DWORD needed = kSentinel, returned = kSentinel;
        SetLastError(kSentinel);
        BOOL ok = gMonitor->pfnEnumPorts(nullptr, level, nullptr, 0, &needed, &returned);
        Say(("enum" + l + ".size").c_str(), Outcome(ok, GetLastError()) + " " + std::to_string(needed));
        DWORD cb = needed;
        std::vector<BYTE> buffer(cb + 16, 0xCC);
        if (cb > 0) {
            SetLastError(kSentinel);
            returned = kSentinel;
            ok = gMonitor->pfnEnumPorts(nullptr, level, buffer.data(), cb - 1, &needed, &returned);
            Say(("enum" + l + ".short").c_str(), Outcome(ok, GetLastError()) + " " + std::to_string(needed) + " " +
                                                     std::to_string(returned));
        }
        SetLastError(kSentinel);
        ok = gMonitor->pfnEnumPorts(nullptr, level, buffer.data(), cb, &needed, &returned);
        Say(("enum" + l).c_str(), Outcome(ok, GetLastError()) + " " + std::to_string(needed) + " " +
                                      std::to_string(returned));
        Say(("enum" + l + ".buffer").c_str(), BufferWithOffsets(buffer.data(), cb, level, ok ? returned : 0));
        bool guard = true;
        for (DWORD i = cb; i < cb + 16; ++i) guard = guard && buffer[i] == 0xCC;
        Say(("enum" + l + ".guard").c_str(), guard ? "intact" : "overwritten");
    }
    DWORD needed = kSentinel, returned = kSentinel;
    SetLastError(kSentinel);
    BOOL ok = gMonitor->pfnEnumPorts(nullptr, 0, nullptr, 0, &needed, &returned);
    Say("enum0", Outcome(ok, GetLastError()) + " " + std::to_string(needed) + " " + std::to_string(returned));
    SetLastError(kSentinel);
    ok = gMonitor->pfnEnumPorts(nullptr, 3, nullptr, 0, &needed, &returned);
    Say("enum3", Outcome(ok, GetLastError()));
    return 0;
}

// The port names, as the monitor lists them at level 1.
std::string PortNames(BOOL(WINAPI *enumPorts)(LPWSTR, DWORD, LPBYTE, DWORD, LPDWORD, LPDWORD)) {
    DWORD needed = 0, returned = 0;
    enumPorts(nullptr, 1, nullptr, 0, &needed, &returned);
    std::vector<BYTE> buffer(needed + 1);
    std::string names;
    if (!enumPorts(nullptr, 1, buffer.data(), needed, &needed, &returned)) return "failed";
    auto *info = reinterpret_cast<PORT_INFO_1W *>(buffer.data());
    for (DWORD i = 0; i < returned; ++i) names += (i > 0 ? " " : "") + Narrow(info[i].pName);
    return names;
}

int Delete(int argc, wchar_t **argv) {
    if (!LoadMonitor()) return 1;
    for (int i = 2; i < argc; ++i) {
        SetLastError(kSentinel);
        BOOL ok = gMonitor->pfnDeletePort(nullptr, nullptr, argv[i]);
        Say("DeletePort", Narrow(argv[i]) + " " + Outcome(ok, GetLastError()));
    }
    Say("ports", PortNames(gMonitor->pfnEnumPorts));
    return 0;
}

// ---- the registry tree ------------------------------------------------------------------
// Every key below the monitor's, and every value as [name] type hex, in the
// registry's own order.
void DumpKey(HKEY key, const std::wstring &path) {
    Say("key", Narrow(path));
    wchar_t name[256];
    BYTE data[1024];
    for (DWORD i = 0;; ++i) {
        DWORD cchName = 256, cbData = sizeof data, type = 0;
        if (RegEnumValueW(key, i, name, &cchName, nullptr, &type, data, &cbData) != ERROR_SUCCESS) break;
        std::string hex;
        char two[3];
        for (DWORD b = 0; b < cbData; ++b) {
            std::snprintf(two, sizeof two, "%02x", data[b]);
            hex += two;
        }
        Say("value", Narrow(path) + " [" + Narrow(name) + "] " + std::to_string(type) + " " + hex);
    }
    for (DWORD i = 0;; ++i) {
        DWORD cchName = 256;
        if (RegEnumKeyExW(key, i, name, &cchName, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
        HKEY sub;
        if (RegOpenKeyExW(key, name, 0, KEY_READ, &sub) != ERROR_SUCCESS) continue;
        DumpKey(sub, path.empty() ? name : path + L"\\" + name);
        RegCloseKey(sub);
    }
}

int Tree() {
    HKEY monitor;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kMonitorKey, 0, KEY_READ, &monitor) != ERROR_SUCCESS) {
        Say("key", "missing");
        return 0;
    }
    DumpKey(monitor, L"");
    RegCloseKey(monitor);
    return 0;
}

// ---- dialog 550 -----------------------------------------------------------------------------
// The monitor's ConfigurePort, with a person at dialog 550 on a second
// thread: what the dialog shows is printed, the radio button gClick is
// clicked, the queue box emptied and gText typed into it key by key, then OK
// pressed.  The registry tree follows.
int gClick;
std::wstring gText;

DWORD WINAPI AnswerDialog(void *) {
    HWND dialog = nullptr;
    for (int i = 0; i < 600 && (dialog == nullptr || !IsWindowVisible(dialog)); ++i, Sleep(50))
        dialog = FindWindowW(L"#32770", L"Select Protocol");
    std::string shown;
    for (int id : {551, 552, 553, 554, 556})
        shown += std::to_string(id) + (IsDlgButtonChecked(dialog, id) == BST_CHECKED ? "x" : "") +
                 (IsWindowEnabled(GetDlgItem(dialog, id)) ? " " : "- ");
    wchar_t queue[64] = L"";
    GetDlgItemTextW(dialog, 1000, queue, 64);
    Say("shown", shown + Narrow(queue));
    SendMessageW(GetDlgItem(dialog, gClick), BM_CLICK, 0, 0);
    SendDlgItemMessageW(dialog, 1000, EM_SETSEL, 0, -1);
    for (wchar_t c : L"\b" + gText) SendDlgItemMessageW(dialog, 1000, WM_CHAR, c, 0);
    WaitForTheLinuxSide("dialog");
    SendMessageW(GetDlgItem(dialog, 5), BM_CLICK, 0, 0);
    return 0;
}

bool HasWord(int argc, wchar_t **argv, int from, const wchar_t *word) {
    for (int i = from; i < argc; ++i)
        if (std::wstring(argv[i]) == word) return true;
    return false;
}

int Configure(int argc, wchar_t **argv) {
    wchar_t *port = argv[2];
    gPause = HasWord(argc, argv, 5, L"pause"), gPressDialogs = false, gClick = _wtoi(argv[3]), gText = argv[4];
    PMONITORUI ui = nullptr;
    if (!LoadMonitor() || (HasWord(argc, argv, 5, L"ui") && (ui = LoadMonitorUi()) == nullptr)) return 1;
    HANDLE thread = CreateThread(nullptr, 0, AnswerDialog, nullptr, 0, nullptr);
    SetLastError(kSentinel);
    if (ui != nullptr) {
        BOOL ok = ui->pfnConfigurePortUI(nullptr, GetDesktopWindow(), port);
        Say("ConfigurePortUI", Outcome(ok, GetLastError()));
    } else {
        BOOL ok = gMonitor->pfnConfigurePort(nullptr, nullptr, port);
        Say("ConfigurePort", Outcome(ok, GetLastError()));
    }
    WaitForSingleObject(thread, 5000);
    CloseHandle(thread);
    return Tree();
}

std::string SpoolerPortNames();

// ---- adding a port ----------------------------------------------------------------------------
// The monitor's AddPort, with a person at its dialogs on a second thread.
// Dialog 250 is read ("listed") and Continue pressed.  In dialog 200 the
// line of gServer is selected, LPT gLpt clicked, its queue box emptied and
// gText typed; with gTab the Tab key is then pressed (WM_NEXTDLGCTL, what the
// dialog manager does with it) until the list has the focus ("focus"); what
// the dialog shows is printed ("shown"), OK pressed.
std::wstring gServer;
int gLpt;
bool gTab = false;

std::string Lines(HWND dialog, int id) {
    std::string lines;
    int count = static_cast<int>(SendDlgItemMessageW(dialog, id, LB_GETCOUNT, 0, 0));
    for (int i = 0; i < count; ++i) {
        std::wstring line(SendDlgItemMessageW(dialog, id, LB_GETTEXTLEN, i, 0) + 1, L'\0');
        line.resize(SendDlgItemMessageW(dialog, id, LB_GETTEXT, i, reinterpret_cast<LPARAM>(line.data())));
        lines += (i > 0 ? " | " : "") + Narrow(line);
    }
    return lines;
}

DWORD WINAPI AnswerAdd(void *) {
    HWND dialog = nullptr;
    for (int i = 0; i < 600 && (dialog == nullptr || !IsWindowVisible(dialog)); ++i, Sleep(50))
        dialog = FindWindowW(L"#32770", L"Add Port");
    if (GetDlgItem(dialog, 253) != nullptr) {
        Say("listed", Lines(dialog, 253));
        WaitForTheLinuxSide("dialog250");
        SendMessageW(GetDlgItem(dialog, 3), BM_CLICK, 0, 0);
        return 0;
    }
    Say("listed", Lines(dialog, 203));
    LRESULT line = SendDlgItemMessageW(dialog, 203, LB_FINDSTRING, -1, reinterpret_cast<LPARAM>((gServer + L" ").c_str()));
    SendDlgItemMessageW(dialog, 203, LB_SETCURSEL, line, 0);
    SendMessageW(dialog, WM_COMMAND, MAKEWPARAM(203, LBN_SELCHANGE), reinterpret_cast<LPARAM>(GetDlgItem(dialog, 203)));
    SendMessageW(GetDlgItem(dialog, 206 + gLpt), BM_CLICK, 0, 0);
    SendDlgItemMessageW(dialog, 1001 + gLpt, EM_SETSEL, 0, -1);
    for (wchar_t c : L"\b" + gText) SendDlgItemMessageW(dialog, 1001 + gLpt, WM_CHAR, c, 0);
    if (gTab) {
        const HWND list = GetDlgItem(dialog, 203);
        GUITHREADINFO info{};
        info.cbSize = sizeof info;
        for (int i = 0; i < 20 && !(GetGUIThreadInfo(GetWindowThreadProcessId(dialog, nullptr), &info) &&
                                    info.hwndFocus == list);
             ++i)
            SendMessageW(dialog, WM_NEXTDLGCTL, 0, FALSE);
        Say("focus", info.hwndFocus == list ? "the list" : "elsewhere");
    }
    std::string shown;
    for (int id : {201, 205, 1002, 1003, 1004}) {
        wchar_t text[64] = L"";
        GetDlgItemTextW(dialog, id, text, 64);
        shown += (id == 201 ? "" : " ") + Narrow(text);
    }
    Say("shown", shown);
    WaitForTheLinuxSide("dialog200");
    SendMessageW(GetDlgItem(dialog, 5), BM_CLICK, 0, 0);
    return 0;
}

int Add(int argc, wchar_t **argv) {
    gServer = argv[2], gLpt = _wtoi(argv[3]), gText = argv[4], gPressDialogs = false;
    gPause = HasWord(argc, argv, 5, L"pause"), gTab = HasWord(argc, argv, 5, L"tab");
    PMONITORUI ui = nullptr;
    if (!LoadMonitor() || (HasWord(argc, argv, 5, L"ui") && (ui = LoadMonitorUi()) == nullptr)) return 1;
    HANDLE thread = CreateThread(nullptr, 0, AnswerAdd, nullptr, 0, nullptr);
    SetLastError(kSentinel);
    if (ui != nullptr) {
        PWSTR made = nullptr;
        BOOL ok = ui->pfnAddPortUI(nullptr, GetDesktopWindow(), kMonitorName, &made);
        Say("AddPortUI", Outcome(ok, GetLastError()) + " " + (made != nullptr ? Narrow(made) : "-"));
        LocalFree(made);
    } else {
        BOOL ok = gMonitor->pfnAddPort(nullptr, nullptr, const_cast<LPWSTR>(kMonitorName));
        Say("AddPort", Outcome(ok, GetLastError()));
    }
    WaitForSingleObject(thread, 5000);
    CloseHandle(thread);
    Say("ports", PortNames(gMonitor->pfnEnumPorts));
    if (ui != nullptr) Say("spooler.ports", SpoolerPortNames());
    return Tree();
}

// ---- Wine's own spooler -------------------------------------------------------------------
// Wine 8's localspl loads the monitor (LoadLibrary, InitializePrintMonitor)
// for each call and frees it after, so every call runs the monitor's start-up
// again, with its box and a new log: EnumPortsW twice, once for the size and
// once for the data.  The log of one call is therefore read right after it,
// and printed line by line as "WHAT.log: LINE".
void SayLog(const std::string &what) {
    wchar_t system[MAX_PATH];
    GetSystemDirectoryW(system, MAX_PATH);
    std::string text;
    if (!ReadWholeFile((std::wstring(system) + L"\\KVTLOG").c_str(), &text)) return;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        Say((what + ".log").c_str(), text.substr(start, end - start));
    if (start < text.size()) Say((what + ".log").c_str(), text.substr(start));
}

std::string SpoolerPortNames() {
    DWORD needed = 0, returned = 0;
    EnumPortsW(nullptr, 1, nullptr, 0, &needed, &returned);
    std::vector<BYTE> buffer(needed + 1);
    if (!EnumPortsW(nullptr, 1, buffer.data(), needed, &needed, &returned)) return "failed";
    std::string names;
    auto *info = reinterpret_cast<PORT_INFO_1W *>(buffer.data());
    for (DWORD i = 0; i < returned; ++i) names += (i > 0 ? " " : "") + Narrow(info[i].pName);
    return names;
}

// The monitor through winspool and localspl: listed among the monitors, its
// ports among the ports, and the port calls passed to its entries.
void SayMonitors() {
    DWORD needed = 0, returned = 0;
    EnumMonitorsW(nullptr, 2, nullptr, 0, &needed, &returned);
    std::vector<BYTE> monitors(needed + 1);
    if (EnumMonitorsW(nullptr, 2, monitors.data(), needed, &needed, &returned)) {
        auto *info = reinterpret_cast<MONITOR_INFO_2W *>(monitors.data());
        for (DWORD i = 0; i < returned; ++i)
            Say("monitor", Narrow(info[i].pName) + " | " + Narrow(info[i].pDLLName ? info[i].pDLLName : L""));
    }
}

int Spooler(wchar_t *configurePort, wchar_t *deletePort) {
    DWORD needed = 0, returned = 0;
    SayMonitors();

    EnumPortsW(nullptr, 2, nullptr, 0, &needed, &returned);
    std::vector<BYTE> ports(needed + 1);
    if (EnumPortsW(nullptr, 2, ports.data(), needed, &needed, &returned)) {
        auto *info = reinterpret_cast<PORT_INFO_2W *>(ports.data());
        for (DWORD i = 0; i < returned; ++i)
            Say("port", Narrow(info[i].pPortName) + " | " + Narrow(info[i].pMonitorName ? info[i].pMonitorName : L"") +
                            " | " + Narrow(info[i].pDescription ? info[i].pDescription : L"") + " | " +
                            std::to_string(info[i].fPortType));
    }
    Say("ports", SpoolerPortNames());

    SetLastError(kSentinel);
    BOOL ok = AddPortW(nullptr, nullptr, const_cast<LPWSTR>(kMonitorName));
    Say("AddPortW", Outcome(ok, GetLastError()));
    SayLog("AddPortW");
    SetLastError(kSentinel);
    ok = ConfigurePortW(nullptr, nullptr, configurePort);
    Say("ConfigurePortW", Outcome(ok, GetLastError()));
    SayLog("ConfigurePortW");
    SetLastError(kSentinel);
    ok = DeletePortW(nullptr, nullptr, deletePort);
    Say("DeletePortW", Outcome(ok, GetLastError()));
    SayLog("DeletePortW");
    Say("ports", SpoolerPortNames());
    return 0;
}

// A job through Wine's own print path: the application's calls, and Wine's
// spooler sends the spooled data through the printer's port when the
// document ends.  Wine 8 calls StartDocPort with no printer name and job id 0.
int Print(wchar_t *printerName, wchar_t *document, const wchar_t *file) {
    std::string data;
    HANDLE printer;
    if (!ReadWholeFile(file, &data) || !OpenPrinterW(printerName, &printer, nullptr)) {
        Say("print", "cannot read the data file or open the printer");
        return 1;
    }
    DOC_INFO_1W doc = {document, nullptr, const_cast<LPWSTR>(L"RAW")};
    DWORD jobId = StartDocPrinterW(printer, 1, reinterpret_cast<LPBYTE>(&doc));
    Say("job", std::to_string(jobId));
    DWORD written = 0;
    BOOL ok = WritePrinter(printer, data.data(), static_cast<DWORD>(data.size()), &written);
    Say("WritePrinter", Outcome(ok, GetLastError()) + " " + std::to_string(written));
    SetLastError(kSentinel);
    ok = EndDocPrinter(printer);
    Say("EndDocPrinter", std::to_string(ok ? 1 : 0));
    ClosePrinter(printer);
    return 0;
}

// The monitor as an administrator's tools reach it after kvtsetup installed
// it: the monitors and ports of Wine's spooler; a port made by the platform's
// "AddPort" data name; the changes refused on a handle without the right to
// administer; DeletePortUI, its question answered Yes.
int Client(const std::wstring &action, wchar_t *port) {
    SayMonitors();
    if (action != L"monitors") {
        if (!LoadMonitor()) return 1;
        PRINTER_DEFAULTSW defaults = {nullptr, nullptr,
                                      static_cast<ACCESS_MASK>(action == L"denied" ? SERVER_ACCESS_ENUMERATE
                                                                                   : SERVER_ACCESS_ADMINISTER)};
        const std::wstring object = L",XcvMonitor " + std::wstring(kMonitorName);
        const DWORD cb = static_cast<DWORD>((wcslen(port) + 1) * sizeof(wchar_t));
        HANDLE xcv;
        DWORD needed = 0, status = 0;
        if (action == L"delete") {
            PMONITORUI ui = LoadMonitorUi();
            SetLastError(kSentinel);
            BOOL ok = ui != nullptr && ui->pfnDeletePortUI(nullptr, GetDesktopWindow(), port);
            Say("DeletePortUI", Outcome(ok, GetLastError()));
        } else if (RouteOpenPrinter(const_cast<LPWSTR>(object.c_str()), &xcv, &defaults)) {
            std::vector<const wchar_t *> names = {L"AddPort"};
            if (action == L"denied") names.push_back(L"DeletePort");
            for (const wchar_t *name : names) {
                RouteXcvData(xcv, name, reinterpret_cast<PBYTE>(port), cb, nullptr, 0, &needed, &status);
                Say(("XcvData." + Narrow(name)).c_str(), std::to_string(status));
            }
            RouteClosePrinter(xcv);
        }
    }
    Say("ports", SpoolerPortNames());
    return 0;
}

// A printer on a port, or ("-") the printer deleted.
int Printer(const std::wstring &name, const std::wstring &port) {
    HANDLE printer;
    PRINTER_DEFAULTSW admin = {nullptr, nullptr, PRINTER_ALL_ACCESS};
    if (port != L"-") return InstallPrinter(name + L"," + port) ? 0 : 1;
    if (!OpenPrinterW(const_cast<LPWSTR>(name.c_str()), &printer, &admin)) return 1;
    BOOL deleted = DeletePrinter(printer);
    ClosePrinter(printer);
    return deleted ? 0 : 1;
}

}  // namespace

int wmain(int argc, wchar_t **argv) {
    _setmode(_fileno(stdout), _O_BINARY);  // lines end in "\n" alone
    std::wstring command = argc > 1 ? argv[1] : L"";
    StartBoxWatcher();
    if (command == L"setup") return Setup(argc, argv);
    if (command == L"job" && argc == 6) return Job(argv[2], argv[3], argv[4], argv[5]);
    if (command == L"enum") return Enum();
    if (command == L"delete") return Delete(argc, argv);
    if (command == L"tree") return Tree();
    if (command == L"spooler" && argc == 4) return Spooler(argv[2], argv[3]);
    if (command == L"print" && argc == 5) return Print(argv[2], argv[3], argv[4]);
    if (command == L"configure" && argc >= 5) return Configure(argc, argv);
    if (command == L"add" && argc >= 5) return Add(argc, argv);
    if (command == L"client" && argc >= 3) {
        gPause = HasWord(argc, argv, 4, L"pause");
        return Client(argv[2], argc > 3 ? argv[3] : const_cast<wchar_t *>(L""));
    }
    if (command == L"printer" && argc == 4) return Printer(argv[2], argv[3]);
    std::fprintf(stderr, "usage: kvtspool setup|job|enum|delete|tree|spooler|print|configure|add|client|printer ...\n");
    return 2;
}
