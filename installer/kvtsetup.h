/* Resource numbers shared by kvtsetup.cpp and kvtsetup.rc. */
#pragma once

#define KVT_RES_MONITOR 101    /* KVT64.DLL */
#define KVT_RES_MONITOR_UI 102 /* KVT64UI.DLL */
