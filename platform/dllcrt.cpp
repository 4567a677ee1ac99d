// Loader glue carried by every module built as a DLL on POSIX hosts (the part
// of a DLL's start-up that Windows' loader does): at load it registers the
// module, under its base address, with its resources, and calls the module's
// entry point for the process attach.
#include <windows.h>
#include <dlfcn.h>

#include "kvthost.h"

extern "C" BOOL WINAPI DllEntryPoint(HINSTANCE instance, DWORD reason, LPVOID reserved);
extern const kvthost::ResourceTable kvt_module_resources;

__attribute__((constructor)) static void KvtModuleAttach() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(&KvtModuleAttach), &info) == 0) return;
    kvthost::RegisterModule(info.dli_fbase, &kvt_module_resources);
    DllEntryPoint(static_cast<HINSTANCE>(info.dli_fbase), DLL_PROCESS_ATTACH, nullptr);
}
