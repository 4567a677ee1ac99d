#!/bin/sh
# The Wine prefix in which the tests of wine_test.cpp run KVT64.DLL.
#
#   wine_prefix.sh make RECORD     a fresh prefix in a temporary folder; its path
#                                  is written into the file RECORD
#   wine_prefix.sh remove RECORD   stops the prefix's Wine server, removes the prefix
#
# Run `make` inside the private network (scripts/privnet), so that the Wine
# server it starts, which holds every socket of the prefix, never runs outside.
# WINE and WINESERVER name the programs (default: wine, wineserver).
set -eu
[ $# -eq 2 ] || { echo "usage: $0 make|remove RECORD" >&2; exit 2; }
command=$1 record=$2
wine=${WINE:-wine} wineserver=${WINESERVER:-wineserver}
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" USER=guest
unset DISPLAY WAYLAND_DISPLAY

remove() {
    [ -s "$record" ] || return 0
    old=$(cat "$record")
    case $old in
    */kvt-wine.*)
        WINEPREFIX=$old "$wineserver" -k 2>/dev/null || true
        rm -rf "$old" ;;
    esac
    rm -f "$record"
}

case $command in
make)
    remove
    prefix=$(mktemp -d "${TMPDIR:-/tmp}/kvt-wine.XXXXXX")
    echo "$prefix" >"$record"
    export WINEPREFIX="$prefix"
    "$wine" wineboot --init
    # No display: Wine's null driver.  Under it a message box stands until it
    # is answered, as on Windows; with no driver at all Wine 8 returns from
    # MessageBoxW at once.
    "$wine" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /t REG_SZ /d null /f
    # Wait for the server to end, so that the registry is on disk and no
    # server of this prefix outlives the private network.
    "$wineserver" -w ;;
remove)
    remove ;;
*)
    echo "usage: $0 make|remove RECORD" >&2
    exit 2 ;;
esac
