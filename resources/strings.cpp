// The string table of the Linux build: the same list as the Windows resource
// script, handed to the platform's LoadStringW through the module's loader glue.
#include "kvthost.h"

#define KVT_STRING(id, text) {id, u##text},

static const kvthost::StringResource kStrings[] = {
#include "strings.inc"
};

extern const kvthost::ResourceTable kvt_module_resources = {
    u"KVT64.DLL", kStrings, sizeof kStrings / sizeof kStrings[0]};
