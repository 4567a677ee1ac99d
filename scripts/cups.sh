#!/usr/bin/env bash
# Installs the kvt backend where CUPS looks for backends, or removes it.
#
#   scripts/cups.sh install [--prefix DIR] [--libdir DIR] [--backend-dir DIR] [--from DIR]
#   scripts/cups.sh uninstall [--purge] [--prefix DIR] [--libdir DIR] [--backend-dir DIR]
#
# install copies kvt, kvtmon, libkvt64.so, libkvt64ui.so and libkvtsearch.so from DIR (the
# build's build/bin) to the library folder (/usr/local/lib/kvt), links
# <backend-dir>/kvt to the backend there (mode 0700, owner root: CUPS runs it
# as root, as the Windows spooler runs its monitors), and makes the prefix
# that keeps the backend's registry and log (/var/lib/kvt) with all three
# transports offered.  A prefix other than /var/lib/kvt is written beside the
# backend (kvt.prefix).  uninstall removes the link and the library folder;
# the prefix, with its ports, stays unless --purge.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
action=${1:-}
shift || true
prefix=/var/lib/kvt
libdir=/usr/local/lib/kvt
from=$here/build/bin
purge=0
if command -v cups-config >/dev/null 2>&1; then backend_dir=$(cups-config --serverbin)/backend
else backend_dir=/usr/lib/cups/backend; fi
while [ $# -gt 0 ]; do
    case "$1" in
    --prefix) prefix=$2; shift 2 ;;
    --libdir) libdir=$2; shift 2 ;;
    --backend-dir) backend_dir=$2; shift 2 ;;
    --from) from=$2; shift 2 ;;
    --purge) purge=1; shift ;;
    *) echo "cups.sh: unknown option '$1'" >&2; exit 2 ;;
    esac
done
case "$prefix$libdir$backend_dir" in
*" "*) echo "cups.sh: folders with spaces are not supported" >&2; exit 2 ;;
esac

case "$action" in
install)
    for f in kvt kvtmon libkvt64.so libkvt64ui.so libkvtsearch.so; do
        [ -f "$from/$f" ] || { echo "cups.sh: no $from/$f; build first (make linux)" >&2; exit 1; }
    done
    [ -d "$backend_dir" ] || { echo "cups.sh: no CUPS backend folder $backend_dir (is CUPS installed?)" >&2; exit 1; }
    install -d -m 0755 "$libdir"
    install -m 0700 "$from/kvt" "$libdir/kvt"
    install -m 0755 "$from/kvtmon" "$libdir/kvtmon"
    install -m 0644 "$from/libkvt64.so" "$from/libkvt64ui.so" "$from/libkvtsearch.so" "$libdir/"
    if [ "$prefix" != /var/lib/kvt ]; then echo "$prefix" >"$libdir/kvt.prefix"; else rm -f "$libdir/kvt.prefix"; fi
    ln -sfn "$libdir/kvt" "$backend_dir/kvt"
    if [ ! -d "$prefix/drive_c" ]; then KVT_PREFIX=$prefix "$libdir/kvtmon" init >/dev/null; fi
    chmod 0755 "$prefix"
    echo "kvt backend installed: $backend_dir/kvt -> $libdir/kvt, registry and log in $prefix"
    echo "print servers:  lpinfo -v | grep kvt://"
    echo "a queue:        lpadmin -p KVT1 -E -v kvt://SERVER/P1 -m raw"
    ;;
uninstall)
    if [ -L "$backend_dir/kvt" ]; then rm -f "$backend_dir/kvt"; fi
    rm -rf "$libdir"
    if [ "$purge" = 1 ]; then rm -rf "$prefix"; echo "kvt backend removed, with its prefix $prefix"
    else echo "kvt backend removed; its ports and log stay in $prefix (--purge removes them)"; fi
    ;;
*)
    sed -n '2,14p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
    ;;
esac
