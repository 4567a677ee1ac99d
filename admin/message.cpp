/*
 * Message boxes: the texts from the string table, and a box that comes back to
 * the front every 15 seconds until it is answered.  The hook and the timer
 * routine get no parameter of their own; each finds the state of its thread's
 * box through MessageTlsSlot.
 */
#include <windows.h>

#include <stdarg.h>

#include "admin.h"
#include "monitor.h"

int ShowMessage(HWND hWnd, UINT uType, UINT captionId, UINT textId, ...) {
    LPWSTR text = (LPWSTR)LocalAlloc(LPTR, MESSAGE_TEXT_BYTES);
    if (text == NULL) return 0;
    WCHAR format[MESSAGE_FORMAT_CHARS], caption[MESSAGE_CAPTION_CHARS];
    if (LoadStringW(DllInstance, textId, format, MESSAGE_FORMAT_CHARS) == 0 ||
        LoadStringW(DllInstance, captionId, caption, MESSAGE_CAPTION_CHARS) == 0) {
        LocalFree(text);
        return 0;
    }
    va_list args;
    va_start(args, textId);
    int len = wvsprintfW(text, format, args);
    va_end(args);
    /* The line feed always ends the text: one that fills the allocation is
     * cut to make room for it. */
    const int room = MESSAGE_TEXT_BYTES / (int)sizeof(WCHAR) - 2;
    if (len < 0) len = 0;
    if (len > room) len = room;
    text[len] = TEXT('\n');
    text[len + 1] = 0;

    int result;
    if (uType & MB_SYSTEMMODAL) {
        result = MessageBoxW(hWnd, text, caption, uType);
    } else {
        MessageHookState state;
        state.Hook = NULL;
        state.Window = NULL;
        state.Timer = 0;
        TlsSetValue(MessageTlsSlot, &state);
        state.Hook = SetWindowsHookExW(WH_CBT, MessageHook, NULL, GetCurrentThreadId());
        result = MessageBoxW(hWnd, text, caption, uType);
        TlsSetValue(MessageTlsSlot, NULL);
        if (state.Timer != 0) KillTimer(NULL, state.Timer);
        /* A box that never came leaves no hook behind to meet another window. */
        if (state.Window == NULL && state.Hook != NULL) UnhookWindowsHookEx(state.Hook);
    }
    LocalFree(text);
    return result;
}

/* The first window that the thread makes once the hook is in is the box. */
LRESULT CALLBACK MessageHook(int nCode, WPARAM wParam, LPARAM lParam) {
    (void)lParam;
    MessageHookState *state = (MessageHookState *)TlsGetValue(MessageTlsSlot);
    if (nCode == HCBT_CREATEWND && state != NULL && state->Window == NULL) {
        state->Window = (HWND)wParam;
        UnhookWindowsHookEx(state->Hook);
        state->Timer = SetTimer(NULL, 0, MESSAGE_FOREGROUND_MS, MessageTimer);
    }
    return 0;
}

/* Fires in the box's own message loop, on the thread of the box. */
void CALLBACK MessageTimer(HWND hWnd, UINT uMsg, UINT_PTR idEvent, DWORD dwTime) {
    (void)hWnd, (void)uMsg, (void)idEvent, (void)dwTime;
    MessageHookState *state = (MessageHookState *)TlsGetValue(MessageTlsSlot);
    if (state != NULL && state->Window != NULL) SetForegroundWindow(state->Window);
}
