#!/usr/bin/env bash
# Runs a cupsd of one's own, in the foreground, with its configuration, spool,
# logs and backend folder in DIR: nothing of the system's print service is
# read, written or started.  It listens on DIR/cups.sock (CUPS_SERVER=DIR/cups.sock
# for lp, lpstat, lpadmin...) and on 127.0.0.1:PORT (CUPS_PORT, default 8631)
# for the web interface, whose pages come from CUPS_DOC_ROOT when set.  Each
# VAR=VALUE is handed to its backends.
#
#   scripts/privnet scripts/cupsd-here.sh DIR [VAR=VALUE...]
#
# Backends go in DIR/bin/backend (scripts/cups.sh install --backend-dir
# DIR/bin/backend ...); CUPS's own lpd backend is copied there.  Run as root
# (as in scripts/privnet), cupsd is started in a user namespace of its own as
# an ordinary user, so that CUPS runs its helpers and backends as that user.
set -euo pipefail
dir=${1:?usage: cupsd-here.sh DIR [VAR=VALUE...]}
shift
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
mkdir -p "$dir"/{etc,spool/tmp,cache,state,log,bin/backend}
for d in daemon filter cgi-bin; do ln -sfn "/usr/lib/cups/$d" "$dir/bin/$d"; done
if [ -x /usr/lib/cups/backend/lpd ]; then cp /usr/lib/cups/backend/lpd "$dir/bin/backend/lpd"; fi
cat >"$dir/etc/cupsd.conf" <<EOF
LogLevel debug
Listen $dir/cups.sock
Listen 127.0.0.1:${CUPS_PORT:-8631}
Browsing Off
DefaultAuthType None
WebInterface Yes
JobRetryInterval 3600
<Location />
Order allow,deny
Allow all
</Location>
EOF
{
    echo "ServerRoot $dir/etc"
    echo "RequestRoot $dir/spool"
    echo "TempDir $dir/spool/tmp"
    echo "CacheDir $dir/cache"
    echo "StateDir $dir/state"
    echo "ServerBin $dir/bin"
    echo "ErrorLog $dir/log/error_log"
    echo "AccessLog $dir/log/access_log"
    echo "PageLog $dir/log/page_log"
    echo "Sandboxing Relaxed"
    if [ -n "${CUPS_DOC_ROOT:-}" ]; then echo "DocumentRoot $CUPS_DOC_ROOT"; fi
    for setting in "$@"; do echo "SetEnv ${setting%%=*} ${setting#*=}"; done
} >"$dir/etc/cups-files.conf"
# On the private network alone: NetBIOS's datagram port 138 for a backend
# that runs as an ordinary user.
if [ "${KVT_PRIVATE_NET:-0}" = 1 ]; then
    echo 0 >/proc/sys/net/ipv4/ip_unprivileged_port_start 2>/dev/null ||
        echo "cupsd-here: NetBIOS jobs need port 138, which this user may not bind" >&2
fi
run=(/usr/sbin/cupsd -f -c "$dir/etc/cupsd.conf" -s "$dir/etc/cups-files.conf")
if [ "$(id -u)" -eq 0 ]; then exec unshare --user --map-user=1000 --map-group=1000 "${run[@]}"; fi
exec "${run[@]}"
