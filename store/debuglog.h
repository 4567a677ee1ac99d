/*
 * debuglog.h: the diagnostic log, <system folder>\KVTLOG.
 */
#ifndef KVT_DEBUGLOG_H
#define KVT_DEBUGLOG_H

#include <windows.h>

#define LOG_BUFFER_SIZE 1024

/* Appends the text and a line feed to the log when IsDEBUG is set. */
void DebugLog(const char *text);

/* A number line: the format and its arguments into LogBuffer, then logged.
 * Texts longer than 1023 bytes are cut there. */
void LogPrintf(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* A line with a wide name: the name narrowed into LogBuffer, then put into
 * the format's single "%s" in LogBuffer2, then logged. */
void LogWideName(const char *format, LPCWSTR name);

#endif /* KVT_DEBUGLOG_H */
