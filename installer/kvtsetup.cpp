/*
 * kvtsetup.exe: installs and uninstalls the PrintServer Network Port monitor.
 * KVT64.DLL and KVT64UI.DLL travel inside it as resources; installing writes
 * them into the system folder and hands the monitor to the spooler with
 * AddMonitorW, uninstalling takes it back with DeleteMonitorW and removes them.
 *
 *   kvtsetup.exe                 install, asking first and showing the result
 *   kvtsetup.exe /uninstall      uninstall, likewise
 *   /S or /silent                no message boxes: one line of result on the
 *                                standard error handle, when there is one
 *
 * Exit codes:
 *   0  done
 *   1  failed, or cancelled at the question
 *   2  usage: an unknown argument
 *   3  not run as an administrator
 *   4  install: already installed; uninstall: not installed
 *   5  uninstall: a port of the monitor is still used by a printer
 */
#include <windows.h>
#include <shellapi.h>
#include <winspool.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "kvtsetup.h"

namespace {

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2, kNotAdmin = 3, kInstallState = 4, kPortInUse = 5 };

// Every text the administrator sees.
const wchar_t kMonitorName[] = L"PrintServer Network Port";
const wchar_t kMonitorDll[] = L"KVT64.DLL";
const wchar_t kMonitorUiDll[] = L"KVT64UI.DLL";
const wchar_t kTitle[] = L"PrintServer Network Port Setup";
const wchar_t kAskInstall[] = L"Install the PrintServer Network Port monitor (KVT64.DLL)?";
const wchar_t kAskUninstall[] = L"Uninstall the PrintServer Network Port monitor (KVT64.DLL)?";
const wchar_t kInstalled[] =
    L"The PrintServer Network Port monitor is installed. Add its ports from Printers & scanners "
    L"or Print Management: Ports, Add Port..., PrintServer Network Port.";
const wchar_t kAlreadyInstalled[] = L"The PrintServer Network Port monitor is already installed.";
const wchar_t kUninstalled[] = L"The PrintServer Network Port monitor is uninstalled.";
const wchar_t kNotInstalled[] = L"The PrintServer Network Port monitor is not installed.";
const wchar_t kNeedAdmin[] = L"Setup must be run as an administrator.";
const wchar_t kPortUsed[] =
    L"The port %ls is still used by the printer %ls. Delete the printer or move it to another port first.";
const wchar_t kMonitorUsed[] =
    L"The PrintServer Network Port monitor is still in use. Delete the printers on its ports "
    L"or move them to other ports first.";
const wchar_t kRemovedAtRestart[] = L" %ls will be removed at the next restart.";
const wchar_t kCannotList[] = L"Setup could not ask the print spooler for its %ls: %ls";
const wchar_t kCannotWrite[] = L"Setup could not write %ls: %ls";
const wchar_t kCannotAdd[] = L"The print spooler did not add the monitor: %ls";
const wchar_t kCannotDelete[] = L"The print spooler did not remove the monitor: %ls";
const wchar_t kCannotRemove[] = L"The monitor is uninstalled, but setup could not remove %ls: %ls";
const wchar_t kUsageText[] =
    L"Usage: kvtsetup.exe [/uninstall] [/S]\r\n"
    L"  (no option)   install the PrintServer Network Port monitor (KVT64.DLL)\r\n"
    L"  /uninstall    uninstall it\r\n"
    L"  /S, /silent   no message boxes; the result as one line on standard error\r\n"
    L"Exit codes: 0 done, 1 failed or cancelled, 2 usage, 3 not an administrator,\r\n"
    L"4 already installed (install) or not installed (uninstall),\r\n"
    L"5 a port of the monitor is still used by a printer (uninstall).";

bool Silent = false;

std::wstring Format(const wchar_t *format, ...) {
    wchar_t text[2048];
    va_list args;
    va_start(args, format);
    int n = std::vswprintf(text, sizeof text / sizeof text[0], format, args);
    va_end(args);
    return n < 0 ? std::wstring(format) : std::wstring(text, static_cast<size_t>(n));
}

// The system's text for an error code, with the code.
std::wstring ErrorText(DWORD error) {
    wchar_t *text = nullptr;
    DWORD n =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, error, 0, reinterpret_cast<wchar_t *>(&text), 0, nullptr);
    std::wstring out(text != nullptr ? text : L"", n);
    LocalFree(text);
    while (!out.empty() && (out.back() == L'\r' || out.back() == L'\n' || out.back() == L' ')) out.pop_back();
    return out.empty() ? Format(L"error %lu", error) : Format(L"%ls (error %lu)", out.c_str(), error);
}

// Shows the result: a message box, or in silent mode one line on standard error.
int Report(int code, const std::wstring &text) {
    if (!Silent) {
        UINT icon = code == kDone ? MB_ICONINFORMATION : code == kFailed ? MB_ICONERROR : MB_ICONWARNING;
        MessageBoxW(nullptr, text.c_str(), kTitle, MB_OK | icon);
        return code;
    }
    HANDLE err = GetStdHandle(STD_ERROR_HANDLE);
    if (err == nullptr || err == INVALID_HANDLE_VALUE) return code;
    std::wstring line = text + L"\r\n";
    DWORD mode = 0, written = 0;
    if (GetConsoleMode(err, &mode)) {
        WriteConsoleW(err, line.c_str(), static_cast<DWORD>(line.size()), &written, nullptr);
        return code;
    }
    int size =
        WideCharToMultiByte(CP_UTF8, 0, line.c_str(), static_cast<int>(line.size()), nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, line.c_str(), static_cast<int>(line.size()), bytes.data(), size, nullptr, nullptr);
    WriteFile(err, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    return code;
}

// A failed step: access denied means no administrator, anything else a failure.
int ReportError(DWORD error, const std::wstring &text) {
    return error == ERROR_ACCESS_DENIED ? Report(kNotAdmin, kNeedAdmin) : Report(kFailed, text);
}

bool IsAdministrator() {
    SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
    PSID admins = nullptr;
    BOOL member = FALSE;
    if (!AllocateAndInitializeSid(&nt, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0, 0,
                                  &admins))
        return false;
    if (!CheckTokenMembership(nullptr, admins, &member)) member = FALSE;
    FreeSid(admins);
    return member != FALSE;
}

// One of the spooler's Enum* calls at its level, into buffer; returns 0 or the error.
template <typename Call>
DWORD Enumerate(std::vector<BYTE> &buffer, DWORD &count, Call call) {
    DWORD needed = 0;
    buffer.assign(1024, 0);
    for (int attempt = 0; attempt < 4; ++attempt) {
        if (call(buffer.data(), static_cast<DWORD>(buffer.size()), &needed, &count)) return 0;
        DWORD error = GetLastError();
        if (error != ERROR_INSUFFICIENT_BUFFER) return error;
        buffer.assign(needed + 256, 0);
    }
    return ERROR_INSUFFICIENT_BUFFER;
}

// Whether the spooler lists the monitor; false with error set when it cannot say.
bool MonitorInstalled(DWORD &error) {
    std::vector<BYTE> buffer;
    DWORD count = 0;
    error = Enumerate(buffer, count, [](BYTE *data, DWORD size, DWORD *needed, DWORD *n) {
        return EnumMonitorsW(nullptr, 2, data, size, needed, n);
    });
    auto *monitors = reinterpret_cast<MONITOR_INFO_2W *>(buffer.data());
    for (DWORD i = 0; error == 0 && i < count; ++i)
        if (monitors[i].pName != nullptr && lstrcmpiW(monitors[i].pName, kMonitorName) == 0) return true;
    return false;
}

std::wstring SystemFile(const wchar_t *name) {
    wchar_t folder[MAX_PATH];
    UINT n = GetSystemDirectoryW(folder, MAX_PATH);
    return (n == 0 || n >= MAX_PATH ? std::wstring(L"C:\\Windows\\System32") : std::wstring(folder, n)) + L"\\" + name;
}

// Writes the resource into the file; returns 0 or the error.
DWORD WriteResource(int id, const std::wstring &path) {
    HRSRC found = FindResourceW(nullptr, MAKEINTRESOURCEW(id), RT_RCDATA);
    HGLOBAL loaded = found != nullptr ? LoadResource(nullptr, found) : nullptr;
    const void *data = loaded != nullptr ? LockResource(loaded) : nullptr;
    if (data == nullptr) return ERROR_RESOURCE_DATA_NOT_FOUND;
    DWORD size = SizeofResource(nullptr, found), written = 0;
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return GetLastError();
    DWORD error = WriteFile(file, data, size, &written, nullptr) && written == size ? 0 : GetLastError();
    if (!CloseHandle(file) && error == 0) error = GetLastError();
    if (error != 0) DeleteFileW(path.c_str());
    return error;
}

int Install() {
    DWORD error = 0;
    if (MonitorInstalled(error)) return Report(kInstallState, kAlreadyInstalled);
    if (error != 0) return ReportError(error, Format(kCannotList, L"monitors", ErrorText(error).c_str()));
    if (!IsAdministrator()) return Report(kNotAdmin, kNeedAdmin);

    const std::wstring monitor = SystemFile(kMonitorDll), ui = SystemFile(kMonitorUiDll);
    if ((error = WriteResource(KVT_RES_MONITOR, monitor)) != 0)
        return ReportError(error, Format(kCannotWrite, monitor.c_str(), ErrorText(error).c_str()));
    if ((error = WriteResource(KVT_RES_MONITOR_UI, ui)) != 0) {
        DeleteFileW(monitor.c_str());
        return ReportError(error, Format(kCannotWrite, ui.c_str(), ErrorText(error).c_str()));
    }
    MONITOR_INFO_2W info = {const_cast<wchar_t *>(kMonitorName), nullptr, const_cast<wchar_t *>(kMonitorDll)};
    if (!AddMonitorW(nullptr, 2, reinterpret_cast<BYTE *>(&info))) {
        error = GetLastError();
        DeleteFileW(monitor.c_str());
        DeleteFileW(ui.c_str());
        return ReportError(error, Format(kCannotAdd, ErrorText(error).c_str()));
    }
    return Report(kDone, kInstalled);
}

// Whether the printer's port list ("P1,P2,...") holds the port.
bool PortListHas(const wchar_t *list, const wchar_t *port) {
    std::wstring ports = list != nullptr ? list : L"";
    for (size_t start = 0; start <= ports.size();) {
        size_t end = ports.find(L',', start);
        if (end == std::wstring::npos) end = ports.size();
        size_t first = ports.find_first_not_of(L' ', start);
        size_t last = end;
        while (last > start && ports[last - 1] == L' ') --last;
        if (first < last && lstrcmpiW(ports.substr(first, last - first).c_str(), port) == 0) return true;
        start = end + 1;
    }
    return false;
}

// Fills port and printer with the first local printer on a port of the monitor;
// returns 0 (port empty when there is none) or the error and what was listed.
DWORD FindPrinterOnPort(std::wstring &port, std::wstring &printer, const wchar_t *&listed) {
    std::vector<BYTE> ports, printers;
    DWORD portCount = 0, printerCount = 0;
    listed = L"ports";
    DWORD error = Enumerate(ports, portCount, [](BYTE *data, DWORD size, DWORD *needed, DWORD *n) {
        return EnumPortsW(nullptr, 2, data, size, needed, n);
    });
    if (error != 0) return error;
    listed = L"printers";
    error = Enumerate(printers, printerCount, [](BYTE *data, DWORD size, DWORD *needed, DWORD *n) {
        return EnumPrintersW(PRINTER_ENUM_LOCAL, nullptr, 2, data, size, needed, n);
    });
    if (error != 0) return error;
    auto *portInfo = reinterpret_cast<PORT_INFO_2W *>(ports.data());
    auto *printerInfo = reinterpret_cast<PRINTER_INFO_2W *>(printers.data());
    for (DWORD i = 0; i < portCount; ++i) {
        if (portInfo[i].pMonitorName == nullptr || lstrcmpiW(portInfo[i].pMonitorName, kMonitorName) != 0) continue;
        for (DWORD j = 0; j < printerCount; ++j) {
            if (!PortListHas(printerInfo[j].pPortName, portInfo[i].pPortName)) continue;
            port = portInfo[i].pPortName;
            printer = printerInfo[j].pPrinterName != nullptr ? printerInfo[j].pPrinterName : L"";
            return 0;
        }
    }
    return 0;
}

// Deletes the file, or has it deleted at the next restart when it is in use.
// Returns 0, or the error; delayed tells which happened.
DWORD RemoveFile(const std::wstring &path, bool &delayed) {
    delayed = false;
    if (DeleteFileW(path.c_str())) return 0;
    DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return 0;
    if (error != ERROR_SHARING_VIOLATION && error != ERROR_ACCESS_DENIED) return error;
    // A DLL still loaded by the spooler refuses to go: access denied or a sharing violation.
    if (!MoveFileExW(path.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT)) return GetLastError();
    delayed = true;
    return 0;
}

int Uninstall() {
    DWORD error = 0;
    if (!MonitorInstalled(error)) {
        if (error != 0) return ReportError(error, Format(kCannotList, L"monitors", ErrorText(error).c_str()));
        return Report(kInstallState, kNotInstalled);
    }
    if (!IsAdministrator()) return Report(kNotAdmin, kNeedAdmin);

    std::wstring port, printer;
    const wchar_t *listed = L"";
    if ((error = FindPrinterOnPort(port, printer, listed)) != 0)
        return ReportError(error, Format(kCannotList, listed, ErrorText(error).c_str()));
    if (!port.empty()) return Report(kPortInUse, Format(kPortUsed, port.c_str(), printer.c_str()));

    if (!DeleteMonitorW(nullptr, nullptr, const_cast<wchar_t *>(kMonitorName))) {
        error = GetLastError();
        if (error == ERROR_PRINT_MONITOR_IN_USE) return Report(kPortInUse, kMonitorUsed);
        return ReportError(error, Format(kCannotDelete, ErrorText(error).c_str()));
    }

    std::wstring text = kUninstalled;
    for (const wchar_t *name : {kMonitorDll, kMonitorUiDll}) {
        const std::wstring path = SystemFile(name);
        bool delayed = false;
        if ((error = RemoveFile(path, delayed)) != 0)
            return Report(kFailed, Format(kCannotRemove, path.c_str(), ErrorText(error).c_str()));
        if (delayed) text += Format(kRemovedAtRestart, path.c_str());
    }
    // The monitor's log goes with it (its next start would have replaced it).
    DeleteFileW(SystemFile(L"KVTLOG").c_str());
    return Report(kDone, text);
}

bool IsOption(const wchar_t *arg, const wchar_t *name) {
    return (arg[0] == L'/' || arg[0] == L'-') && lstrcmpiW(arg + 1, name) == 0;
}

}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int) {
    int argc = 0;
    wchar_t **argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    bool uninstall = false, usage = argv == nullptr;
    for (int i = 1; i < argc; ++i) {
        if (IsOption(argv[i], L"S") || IsOption(argv[i], L"silent"))
            Silent = true;
        else if (IsOption(argv[i], L"uninstall"))
            uninstall = true;
        else
            usage = true;
    }
    LocalFree(argv);
    if (usage) return Report(kUsage, kUsageText);

    if (!Silent && MessageBoxW(nullptr, uninstall ? kAskUninstall : kAskInstall, kTitle,
                               MB_YESNO | MB_ICONQUESTION | MB_DEFBUTTON1) != IDYES)
        return kFailed;  // answered No: nothing changed, nothing more to say
    return uninstall ? Uninstall() : Install();
}
