// Message boxes through the host's UI driver: the box blocks the calling thread
// until the driver answers.  Without a driver a box is answered at once with
// IDOK, as a service without a desktop would see it.  Every box is recorded.
#include <windows.h>

#include <mutex>
#include <string>
#include <vector>

#include "kvthost.h"

namespace {

std::mutex gMutex;
kvthost::MessageBoxHandler gHandler;
std::vector<kvthost::MessageBoxRecord> gBoxes;

}  // namespace

extern "C" int WINAPI MessageBoxW(HWND owner, LPCWSTR text, LPCWSTR caption, UINT type) {
    kvthost::MessageBoxHandler handler;
    std::u16string t = text != nullptr ? text : u"";
    std::u16string c = caption != nullptr ? caption : u"Error";
    {
        std::lock_guard<std::mutex> lock(gMutex);
        gBoxes.push_back({t, c, type});
        handler = gHandler;
    }
    return handler ? handler(owner, t, c, type) : IDOK;
}

namespace kvthost {

void SetMessageBoxHandler(MessageBoxHandler handler) {
    std::lock_guard<std::mutex> lock(gMutex);
    gHandler = std::move(handler);
}

std::vector<MessageBoxRecord> MessageBoxes() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gBoxes;
}

void ClearMessageBoxes() {
    std::lock_guard<std::mutex> lock(gMutex);
    gBoxes.clear();
}

}  // namespace kvthost
