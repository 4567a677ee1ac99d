// The string table and the dialog templates of the Linux build: the same lists
// as the Windows resource script, handed to the platform's LoadStringW and
// DialogBoxParamW through the module's loader glue.
#include "kvthost.h"

#define KVT_STRING(id, text) {id, u##text},

static const kvthost::StringResource kStrings[] = {
#include "strings.inc"
};

#define KVT_DIALOG(id, x, y, cx, cy, style, titleId, font, pointSize) \
    {kvthost::DialogItem::Dialog, id, titleId, u"", u"", style, x, y, cx, cy, u##font, pointSize},
#define KVT_CONTROL(id, textId, text, cls, style, x, y, cx, cy) \
    {kvthost::DialogItem::Control, id, textId, u##text, u##cls, style, x, y, cx, cy, u"", 0},
#define KVT_END_DIALOG(id) {kvthost::DialogItem::End, id, 0, u"", u"", 0, 0, 0, 0, 0, u"", 0},

static const kvthost::DialogItem kDialogs[] = {
#include "dialogs.inc"
};

// The module these resources belong to: the monitor, or its UI library.
#ifndef KVT_MODULE_FILE
#define KVT_MODULE_FILE u"KVT64.DLL"
#endif

extern const kvthost::ResourceTable kvt_module_resources = {
    KVT_MODULE_FILE, kStrings, sizeof kStrings / sizeof kStrings[0], kDialogs, sizeof kDialogs / sizeof kDialogs[0]};
