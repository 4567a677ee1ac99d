/*
 * The diagnostic log.  Each line opens <system folder>\KVTLOG without sharing,
 * appends the text and a line feed with two writes, and closes the file.  A
 * failure never changes the course of the caller: it only shows a box.
 */
#include <windows.h>

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "debuglog.h"
#include "monitor.h"


void DebugLog(const char *text) {
    if (IsDEBUG == 0 || text == NULL) return;
    /* Logging never changes what the caller reports: keep its last error. */
    DWORD lastError = GetLastError();

    /* Without the system folder there is no place for the log: rather no
     * line than a file at the root of the drive. */
    WCHAR path[512 + 8];
    UINT len = GetSystemDirectoryW(path, 512);
    if (len == 0 || len >= 512) {
        SetLastError(lastError);
        return;
    }
    lstrcatW(path, TEXT("\\KVTLOG"));

    char line[LOG_BUFFER_SIZE];
    strncpy(line, text, sizeof line - 1);
    line[sizeof line - 1] = 0;

    HANDLE file = CreateFileW(path, GENERIC_WRITE, 0, NULL, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE) {
        MessageBoxW(NULL, TEXT("Can't create file : kvtlog"), TEXT("ERROR"), 0);
        SetLastError(lastError);
        return;
    }
    SetFilePointer(file, 0, NULL, FILE_END);
    DWORD written = 0;
    if (!WriteFile(file, line, (DWORD)strlen(line), &written, NULL))
        MessageBoxW(NULL, TEXT("Can't write to file : kvtlog"), TEXT("ERROR"), 0);
    WriteFile(file, "\n", 1, &written, NULL);
    CloseHandle(file);
    SetLastError(lastError);
}

/* The formatting buffers, LogBuffer and LogBuffer2, are the calling thread's
 * own, on its stack: a line that one thread formats is never overwritten by
 * another's before it is written. */
void LogPrintf(const char *format, ...) {
    char LogBuffer[LOG_BUFFER_SIZE];
    va_list args;
    va_start(args, format);
    vsnprintf(LogBuffer, sizeof LogBuffer, format, args);
    va_end(args);
    DebugLog(LogBuffer);
}

void LogWideName(const char *format, LPCWSTR name) {
    char LogBuffer[LOG_BUFFER_SIZE], LogBuffer2[LOG_BUFFER_SIZE];
    LogBuffer[0] = 0;
    if (WideCharToMultiByte(CP_ACP, 0, name, -1, LogBuffer, LOG_BUFFER_SIZE, NULL, NULL) == 0)
        LogBuffer[LOG_BUFFER_SIZE - 1] = 0;
    snprintf(LogBuffer2, sizeof LogBuffer2, format, LogBuffer);
    DebugLog(LogBuffer2);
}
