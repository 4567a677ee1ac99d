#!/usr/bin/env bash
# The picture of CUPS's web interface listing the emulated print servers: the
# Add Printer page, made by CUPS's own admin.cgi against a cupsd of our own
# (scripts/cupsd-here.sh) with the kvt backend, and drawn by a headless
# Chromium.  Run on the private network by scripts/screenshots.sh; writes the
# picture to $1.
set -euo pipefail
cd "$(dirname "$0")/.."
out=$1
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$work"' EXIT
build/bin/kvtps --server PS1@127.0.0.2 --server PS2@127.0.0.3 --model PS2=3 --server LOBBY@127.0.0.4 \
    --model LOBBY=2 >/dev/null 2>&1 &
mkdir -p "$work/cups/bin/backend"
scripts/cups.sh install --prefix "$work/prefix" --libdir "$work/lib" --backend-dir "$work/cups/bin/backend" >/dev/null
cp -r /usr/share/cups/doc-root "$work/doc-root"
CUPS_DOC_ROOT=$work/doc-root scripts/cupsd-here.sh "$work/cups" KVT_TIMESCALE=0.2 >/dev/null 2>&1 &
export CUPS_SERVER=$work/cups/cups.sock
for _ in $(seq 100); do lpstat -r 2>/dev/null | grep -q "is running" && break; sleep 0.1; done
# The page a person reaches with Administration, Add Printer: a POST with the
# session cookie the form carries.
body='org.cups.sid=0123456789abcdef&OP=add-printer'
printf '%s' "$body" | env REQUEST_METHOD=POST CONTENT_TYPE=application/x-www-form-urlencoded \
    CONTENT_LENGTH=${#body} HTTP_COOKIE='org.cups.sid=0123456789abcdef' SERVER_NAME=localhost SERVER_PORT=8631 \
    SCRIPT_NAME=/admin/ CUPS_DATADIR=/usr/share/cups CUPS_DOCROOT="$work/doc-root" REMOTE_USER=root LANG=C \
    /usr/lib/cups/cgi-bin/admin.cgi 2>/dev/null | sed '1,/^\r\{0,1\}$/d' >"$work/doc-root/add-printer.html"
chromium --headless --no-sandbox --disable-gpu --window-size=1000,420 --screenshot="$work/shot.png" \
    http://127.0.0.1:8631/add-printer.html >/dev/null 2>&1
cp "$work/shot.png" "$out"
