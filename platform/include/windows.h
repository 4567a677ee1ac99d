/*
 * windows.h for POSIX hosts: the part of the Win32 API that the monitor
 * calls, with Windows' types, sizes and error numbers.  The functions are
 * implemented in platform/ (libkvtwin32.so).  This header is never on the
 * include path of the Windows build.
 */
#ifndef KVT_PLATFORM_WINDOWS_H
#define KVT_PLATFORM_WINDOWS_H

#include <stddef.h>
#include <stdint.h>
#include <stdarg.h>

#define WINAPI
#define CALLBACK
#define APIENTRY
#define WINAPIV
#define DECLSPEC_EXPORT __attribute__((visibility("default")))

/* ---- basic types (LLP64 sizes, as on 64-bit Windows) ------------------ */
typedef int BOOL;
typedef int WINBOOL;
typedef unsigned char BYTE;
typedef unsigned char UCHAR;
typedef UCHAR *PUCHAR;
typedef unsigned char BOOLEAN;
typedef unsigned short WORD;
typedef unsigned short USHORT;
typedef uint32_t DWORD;
typedef uint32_t ULONG;
typedef int32_t LONG;
typedef unsigned int UINT;
typedef int INT;
typedef short SHORT;
typedef char CHAR;
typedef char16_t WCHAR;
typedef uintptr_t UINT_PTR;
typedef intptr_t INT_PTR;
typedef uintptr_t ULONG_PTR;
typedef intptr_t LONG_PTR;
typedef uintptr_t DWORD_PTR;
typedef size_t SIZE_T;
typedef DWORD ACCESS_MASK;
typedef ACCESS_MASK REGSAM;

typedef void *LPVOID, *PVOID;
typedef const void *LPCVOID;
typedef BYTE *LPBYTE, *PBYTE;
typedef DWORD *LPDWORD, *PDWORD;
typedef LONG *PLONG;
typedef BOOL *LPBOOL;
typedef CHAR *LPSTR, *PSTR;
typedef const CHAR *LPCSTR, *PCSTR;
typedef WCHAR *LPWSTR, *PWSTR;
typedef const WCHAR *LPCWSTR, *PCWSTR;

typedef void *HANDLE;
typedef HANDLE *PHANDLE, *LPHANDLE;
typedef struct HINSTANCE__ *HINSTANCE;
typedef HINSTANCE HMODULE;
typedef struct HWND__ *HWND;
typedef struct HKEY__ *HKEY;
typedef HKEY *PHKEY;
typedef struct HHOOK__ *HHOOK;
typedef HANDLE HGLOBAL, HLOCAL;
typedef LONG_PTR LRESULT;
typedef UINT_PTR WPARAM;
typedef LONG_PTR LPARAM;
typedef LONG LSTATUS;

/* A socket handle is pointer-sized, as in Winsock. */
typedef UINT_PTR SOCKET;

#define TRUE 1
#define FALSE 0
#define MAX_PATH 260
#define INFINITE 0xFFFFFFFFu
#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)

/* Wide literals: WCHAR is char16_t here, so L"" cannot be used. */
#define TEXT(quote) u##quote
#define MAKEINTRESOURCEW(i) ((LPWSTR)(ULONG_PTR)(WORD)(i))

/* ---- error numbers ------------------------------------------------------ */
#define ERROR_SUCCESS 0L
#define NO_ERROR 0L
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_PATH_NOT_FOUND 3L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_NOT_ENOUGH_MEMORY 8L
#define ERROR_INVALID_DATA 13L
#define ERROR_OUTOFMEMORY 14L
#define ERROR_NOT_READY 21L
#define ERROR_WRITE_FAULT 29L
#define ERROR_SHARING_VIOLATION 32L
#define ERROR_NOT_SUPPORTED 50L
#define ERROR_FILE_EXISTS 80L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_CALL_NOT_IMPLEMENTED 120L
#define ERROR_INSUFFICIENT_BUFFER 122L
#define ERROR_INVALID_NAME 123L
#define ERROR_INVALID_LEVEL 124L
#define ERROR_BUSY 170L
#define ERROR_ALREADY_EXISTS 183L
#define ERROR_MORE_DATA 234L
#define ERROR_NO_MORE_ITEMS 259L
#define ERROR_BADDB 1009L
#define ERROR_BADKEY 1010L
#define ERROR_CANTOPEN 1011L
#define ERROR_CANTREAD 1012L
#define ERROR_CANTWRITE 1013L
#define ERROR_KEY_DELETED 1018L
#define ERROR_KEY_HAS_CHILDREN 1020L
#define ERROR_IO_DEVICE 1117L
#define ERROR_CANCELLED 1223L
#define ERROR_INVALID_WINDOW_HANDLE 1400L
#define ERROR_INVALID_HOOK_HANDLE 1404L
#define ERROR_INVALID_INDEX 1413L
#define ERROR_CONTROL_ID_NOT_FOUND 1421L
#define ERROR_INVALID_HOOK_FILTER 1426L
#define ERROR_RESOURCE_NAME_NOT_FOUND 1814L
#define ERROR_RESOURCE_TYPE_NOT_FOUND 1813L
#define ERROR_UNKNOWN_PORT 1796L
#define ERROR_INVALID_PRINTER_NAME 1801L
#define ERROR_INVALID_PRINT_MONITOR 3007L

/* ---- kernel32 ------------------------------------------------------------ */
#define DLL_PROCESS_DETACH 0
#define DLL_PROCESS_ATTACH 1
#define DLL_THREAD_ATTACH 2
#define DLL_THREAD_DETACH 3

#define LMEM_FIXED 0x0000
#define LMEM_ZEROINIT 0x0040
#define LPTR (LMEM_FIXED | LMEM_ZEROINIT)
#define GMEM_FIXED 0x0000
#define GMEM_ZEROINIT 0x0040
#define GPTR (GMEM_FIXED | GMEM_ZEROINIT)
#define TLS_OUT_OF_INDEXES 0xFFFFFFFFu

#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define FILE_SHARE_DELETE 0x00000004u
#define CREATE_NEW 1
#define CREATE_ALWAYS 2
#define OPEN_EXISTING 3
#define OPEN_ALWAYS 4
#define TRUNCATE_EXISTING 5
#define FILE_ATTRIBUTE_NORMAL 0x00000080u
#define FILE_FLAG_DELETE_ON_CLOSE 0x04000000u
#define FILE_BEGIN 0
#define FILE_CURRENT 1
#define FILE_END 2
#define INVALID_SET_FILE_POINTER ((DWORD)-1)

#define VER_PLATFORM_WIN32s 0
#define VER_PLATFORM_WIN32_WINDOWS 1
#define VER_PLATFORM_WIN32_NT 2

#define CP_ACP 0

typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

typedef struct _OVERLAPPED OVERLAPPED, *LPOVERLAPPED;

typedef struct _SYSTEMTIME {
    WORD wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
} SYSTEMTIME, *PSYSTEMTIME, *LPSYSTEMTIME;

typedef struct _OSVERSIONINFOW {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    WCHAR szCSDVersion[128];
} OSVERSIONINFOW, *POSVERSIONINFOW, *LPOSVERSIONINFOW;

typedef struct _COMMTIMEOUTS {
    DWORD ReadIntervalTimeout;
    DWORD ReadTotalTimeoutMultiplier;
    DWORD ReadTotalTimeoutConstant;
    DWORD WriteTotalTimeoutMultiplier;
    DWORD WriteTotalTimeoutConstant;
} COMMTIMEOUTS, *LPCOMMTIMEOUTS;

/* A re-entrant lock; the fields are the platform's own. */
typedef struct _RTL_CRITICAL_SECTION {
    void *impl;
    LONG initialised;
} CRITICAL_SECTION, *LPCRITICAL_SECTION, *PCRITICAL_SECTION;

#ifdef __cplusplus
extern "C" {
#endif

DWORD WINAPI GetLastError(void);
void WINAPI SetLastError(DWORD dwErrCode);

void WINAPI Sleep(DWORD dwMilliseconds);
DWORD WINAPI GetTickCount(void);
DWORD WINAPI GetCurrentThreadId(void);
DWORD WINAPI GetCurrentProcessId(void);
BOOL WINAPI ProcessIdToSessionId(DWORD dwProcessId, DWORD *pSessionId);
DWORD WINAPI WTSGetActiveConsoleSessionId(void);

DWORD WINAPI TlsAlloc(void);
LPVOID WINAPI TlsGetValue(DWORD dwTlsIndex);
BOOL WINAPI TlsSetValue(DWORD dwTlsIndex, LPVOID lpTlsValue);
BOOL WINAPI TlsFree(DWORD dwTlsIndex);

void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
void WINAPI EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection);

HLOCAL WINAPI LocalAlloc(UINT uFlags, SIZE_T uBytes);
HLOCAL WINAPI LocalFree(HLOCAL hMem);
HGLOBAL WINAPI GlobalAlloc(UINT uFlags, SIZE_T dwBytes);
HGLOBAL WINAPI GlobalFree(HGLOBAL hMem);

HMODULE WINAPI GetModuleHandleW(LPCWSTR lpModuleName);
int WINAPI LoadStringW(HINSTANCE hInstance, UINT uID, LPWSTR lpBuffer, int cchBufferMax);

UINT WINAPI GetWindowsDirectoryW(LPWSTR lpBuffer, UINT uSize);
UINT WINAPI GetSystemDirectoryW(LPWSTR lpBuffer, UINT uSize);

HANDLE WINAPI CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                          LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                          DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
BOOL WINAPI ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                     LPDWORD lpNumberOfBytesRead, LPOVERLAPPED lpOverlapped);
BOOL WINAPI WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                      LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped);
DWORD WINAPI SetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh,
                            DWORD dwMoveMethod);
BOOL WINAPI CloseHandle(HANDLE hObject);
BOOL WINAPI DeleteFileW(LPCWSTR lpFileName);

DWORD WINAPI GetPrivateProfileStringW(LPCWSTR lpAppName, LPCWSTR lpKeyName, LPCWSTR lpDefault,
                                      LPWSTR lpReturnedString, DWORD nSize, LPCWSTR lpFileName);

BOOL WINAPI GetVersionExW(LPOSVERSIONINFOW lpVersionInformation);
BOOL WINAPI GetUserNameW(LPWSTR lpBuffer, LPDWORD pcbBuffer);

int WINAPI WideCharToMultiByte(UINT CodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar,
                               LPSTR lpMultiByteStr, int cbMultiByte, LPCSTR lpDefaultChar,
                               LPBOOL lpUsedDefaultChar);
int WINAPI MultiByteToWideChar(UINT CodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte,
                               LPWSTR lpWideCharStr, int cchWideChar);

int WINAPI lstrlenW(LPCWSTR lpString);
LPWSTR WINAPI lstrcpyW(LPWSTR lpString1, LPCWSTR lpString2);
LPWSTR WINAPI lstrcpynW(LPWSTR lpString1, LPCWSTR lpString2, int iMaxLength);
LPWSTR WINAPI lstrcatW(LPWSTR lpString1, LPCWSTR lpString2);
int WINAPI lstrcmpW(LPCWSTR lpString1, LPCWSTR lpString2);
int WINAPI lstrcmpiW(LPCWSTR lpString1, LPCWSTR lpString2);
int WINAPI wvsprintfW(LPWSTR lpOut, LPCWSTR lpFmt, va_list arglist);
int WINAPIV wsprintfW(LPWSTR lpOut, LPCWSTR lpFmt, ...);

/* ---- advapi32: the registry --------------------------------------------- */
#define HKEY_CLASSES_ROOT ((HKEY)(ULONG_PTR)((LONG)0x80000000))
#define HKEY_CURRENT_USER ((HKEY)(ULONG_PTR)((LONG)0x80000001))
#define HKEY_LOCAL_MACHINE ((HKEY)(ULONG_PTR)((LONG)0x80000002))

#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4

#define KEY_QUERY_VALUE 0x0001
#define KEY_SET_VALUE 0x0002
#define KEY_CREATE_SUB_KEY 0x0004
#define KEY_ENUMERATE_SUB_KEYS 0x0008
#define KEY_NOTIFY 0x0010
#define KEY_READ 0x20019
#define KEY_WRITE 0x20006
#define KEY_ALL_ACCESS 0xF003F

LSTATUS WINAPI RegOpenKeyW(HKEY hKey, LPCWSTR lpSubKey, PHKEY phkResult);
LSTATUS WINAPI RegOpenKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD ulOptions, REGSAM samDesired,
                             PHKEY phkResult);
LSTATUS WINAPI RegCreateKeyW(HKEY hKey, LPCWSTR lpSubKey, PHKEY phkResult);
LSTATUS WINAPI RegQueryValueExW(HKEY hKey, LPCWSTR lpValueName, LPDWORD lpReserved, LPDWORD lpType,
                                LPBYTE lpData, LPDWORD lpcbData);
LSTATUS WINAPI RegSetValueExW(HKEY hKey, LPCWSTR lpValueName, DWORD Reserved, DWORD dwType,
                              const BYTE *lpData, DWORD cbData);
LSTATUS WINAPI RegEnumKeyExW(HKEY hKey, DWORD dwIndex, LPWSTR lpName, LPDWORD lpcchName,
                             LPDWORD lpReserved, LPWSTR lpClass, LPDWORD lpcchClass,
                             void *lpftLastWriteTime);
LSTATUS WINAPI RegDeleteKeyW(HKEY hKey, LPCWSTR lpSubKey);
LSTATUS WINAPI RegCloseKey(HKEY hKey);

/* ---- user32: dialogs, controls, hooks and timers ----------------------------- */
#define LOWORD(l) ((WORD)((DWORD_PTR)(l) & 0xFFFF))
#define HIWORD(l) ((WORD)(((DWORD_PTR)(l) >> 16) & 0xFFFF))
#define MAKEWPARAM(low, high) ((WPARAM)(DWORD)(((WORD)(low)) | ((DWORD)((WORD)(high))) << 16))
#define IS_INTRESOURCE(r) ((((ULONG_PTR)(r)) >> 16) == 0)

#define WM_SETTEXT 0x000C
#define WM_INITDIALOG 0x0110
#define WM_COMMAND 0x0111
#define WM_TIMER 0x0113

#define WS_POPUP 0x80000000u
#define WS_CHILD 0x40000000u
#define WS_VISIBLE 0x10000000u
#define WS_DISABLED 0x08000000u
#define WS_CAPTION 0x00C00000u
#define WS_BORDER 0x00800000u
#define WS_VSCROLL 0x00200000u
#define WS_SYSMENU 0x00080000u
#define WS_GROUP 0x00020000u
#define WS_TABSTOP 0x00010000u
#define DS_MODALFRAME 0x0080u
#define DS_SETFONT 0x0040u
#define DS_CENTER 0x0800u
#define SS_LEFT 0x0000u
#define BS_PUSHBUTTON 0x0000u
#define BS_DEFPUSHBUTTON 0x0001u
#define BS_CHECKBOX 0x0002u
#define BS_AUTOCHECKBOX 0x0003u
#define BS_RADIOBUTTON 0x0004u
#define BS_GROUPBOX 0x0007u
#define BS_AUTORADIOBUTTON 0x0009u
#define BS_TYPEMASK 0x000Fu
#define ES_LEFT 0x0000u
#define ES_UPPERCASE 0x0008u
#define ES_AUTOHSCROLL 0x0080u
#define LBS_NOTIFY 0x0001u
#define LBS_SORT 0x0002u
#define LBS_NOINTEGRALHEIGHT 0x0100u
#define LBS_NOSEL 0x4000u

#define BN_CLICKED 0
#define EN_CHANGE 0x0300
#define EN_SETFOCUS 0x0100
#define EN_KILLFOCUS 0x0200
#define LBN_SELCHANGE 1
#define LBN_SETFOCUS 4
#define LBN_KILLFOCUS 5
#define BST_UNCHECKED 0
#define BST_CHECKED 1
#define BM_GETCHECK 0x00F0
#define BM_SETCHECK 0x00F1
#define EM_LIMITTEXT 0x00C5
#define LB_ADDSTRING 0x0180
#define LB_SETCURSEL 0x0186
#define LB_GETCURSEL 0x0188
#define LB_GETTEXT 0x0189
#define LB_GETTEXTLEN 0x018A
#define LB_GETCOUNT 0x018B
#define LB_GETITEMDATA 0x0199
#define LB_SETITEMDATA 0x019A
#define LB_ERR (-1)

#define WH_CBT 5
#define HCBT_CREATEWND 3

/* A dialog's own data, as the 64-bit dialog manager lays it out. */
#define DWLP_MSGRESULT 0
#define DWLP_DLGPROC (DWLP_MSGRESULT + sizeof(LRESULT))
#define DWLP_USER (DWLP_DLGPROC + sizeof(DLGPROC))

typedef INT_PTR(CALLBACK *DLGPROC)(HWND, UINT, WPARAM, LPARAM);
typedef LRESULT(CALLBACK *HOOKPROC)(int, WPARAM, LPARAM);
typedef void(CALLBACK *TIMERPROC)(HWND, UINT, UINT_PTR, DWORD);

INT_PTR WINAPI DialogBoxParamW(HINSTANCE hInstance, LPCWSTR lpTemplateName, HWND hWndParent,
                               DLGPROC lpDialogFunc, LPARAM dwInitParam);
BOOL WINAPI EndDialog(HWND hDlg, INT_PTR nResult);
HWND WINAPI GetDlgItem(HWND hDlg, int nIDDlgItem);
BOOL WINAPI SetDlgItemTextW(HWND hDlg, int nIDDlgItem, LPCWSTR lpString);
UINT WINAPI GetDlgItemTextW(HWND hDlg, int nIDDlgItem, LPWSTR lpString, int cchMax);
LRESULT WINAPI SendDlgItemMessageW(HWND hDlg, int nIDDlgItem, UINT Msg, WPARAM wParam, LPARAM lParam);
BOOL WINAPI CheckRadioButton(HWND hDlg, int nIDFirstButton, int nIDLastButton, int nIDCheckButton);
BOOL WINAPI CheckDlgButton(HWND hDlg, int nIDButton, UINT uCheck);
UINT WINAPI IsDlgButtonChecked(HWND hDlg, int nIDButton);
BOOL WINAPI EnableWindow(HWND hWnd, BOOL bEnable);
BOOL WINAPI SetWindowTextW(HWND hWnd, LPCWSTR lpString);
HWND WINAPI GetDesktopWindow(void);
BOOL WINAPI SetForegroundWindow(HWND hWnd);
HHOOK WINAPI SetWindowsHookExW(int idHook, HOOKPROC lpfn, HINSTANCE hmod, DWORD dwThreadId);
BOOL WINAPI UnhookWindowsHookEx(HHOOK hhk);
UINT_PTR WINAPI SetTimer(HWND hWnd, UINT_PTR nIDEvent, UINT uElapse, TIMERPROC lpTimerFunc);
BOOL WINAPI KillTimer(HWND hWnd, UINT_PTR uIDEvent);
LONG_PTR WINAPI SetWindowLongPtrW(HWND hWnd, int nIndex, LONG_PTR dwNewLong);
LONG_PTR WINAPI GetWindowLongPtrW(HWND hWnd, int nIndex);

/* ---- user32: boxes --------------------------------------------------------- */
#define MB_OK 0x00000000u
#define MB_OKCANCEL 0x00000001u
#define MB_YESNO 0x00000004u
#define MB_ICONSTOP 0x00000010u
#define MB_ICONERROR 0x00000010u
#define MB_ICONQUESTION 0x00000020u
#define MB_ICONEXCLAMATION 0x00000030u
#define MB_ICONINFORMATION 0x00000040u
#define MB_SYSTEMMODAL 0x00001000u
#define IDOK 1
#define IDCANCEL 2
#define IDASYNC 32001
#define IDYES 6
#define IDNO 7

int WINAPI MessageBoxW(HWND hWnd, LPCWSTR lpText, LPCWSTR lpCaption, UINT uType);

#ifdef __cplusplus
}

/* CRT wide-string functions on WCHAR.  They are C++ overloads here, since the
 * C library's own functions of these names work on the 32-bit wchar_t. */
int _wcsicmp(const WCHAR *a, const WCHAR *b);
WCHAR *_wcsupr(WCHAR *s);
WCHAR *wcstok(WCHAR *s, const WCHAR *delim);
size_t wcslen(const WCHAR *s);
#endif

#endif /* KVT_PLATFORM_WINDOWS_H */
