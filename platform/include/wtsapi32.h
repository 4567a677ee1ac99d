// The one call of the terminal services that the monitor makes: a box sent
// to another session's desktop.  The host records it (kvthost.h).
#ifndef KVT_PLATFORM_WTSAPI32_H
#define KVT_PLATFORM_WTSAPI32_H

#include <windows.h>

#define WTS_CURRENT_SERVER_HANDLE ((HANDLE)NULL)

#ifdef __cplusplus
extern "C" {
#endif

BOOL WINAPI WTSSendMessageW(HANDLE hServer, DWORD SessionId, LPWSTR pTitle, DWORD TitleLength, LPWSTR pMessage,
                            DWORD MessageLength, DWORD Style, DWORD Timeout, DWORD *pResponse, BOOL bWait);

#ifdef __cplusplus
}
#endif

#endif
