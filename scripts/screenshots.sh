#!/usr/bin/env bash
# The screenshots of the README, in docs/screenshots/: `kvtmon configure` in an
# xterm of 80x24 on a virtual X display, and the ones the Wine tests took of
# KVT64.DLL's own windows (build/tests/windows/wine/screenshots/, left by
# `make test`), and CUPS's web interface listing the print servers.  Needs Xvfb,
# xterm, xwd and ImageMagick (scripts/deps.sh --wine), and Chromium.
set -euo pipefail
cd "$(dirname "$0")/.."
out=docs/screenshots
mkdir -p "$out"
work=$(mktemp -d)
exec 5>"$work/display"
Xvfb -displayfd 5 -screen 0 1024x768x24 -nolisten tcp >/dev/null 2>&1 &
xvfb=$!
trap 'kill $xvfb 2>/dev/null; rm -rf "$work"' EXIT
for _ in $(seq 50); do [ -s "$work/display" ] && break; sleep 0.1; done
export DISPLAY=":$(cat "$work/display")" KVT_PREFIX="$work/prefix" KVT_TIMESCALE=0.001 LANG=C.UTF-8

# A port PS1-P1 on TCP/IP with the queue "lp", and the notice on.
build/bin/kvtmon init --notify >/dev/null
scripts/privnet build/bin/kvtmon print PS1-P1 /dev/null --server 127.0.0.2 --queue lp --protocol 2 \
    --quiet >/dev/null 2>&1 || true

xterm -tn xterm-256color -geometry 80x24 -T kvtmon -fa Monospace -fs 11 -e build/bin/kvtmon configure PS1-P1 &
term=$!
sleep 2
xwd -name kvtmon -silent | convert xwd:- "$out/configure-port-terminal.png"
kill $term 2>/dev/null || true

# Dialogs 200 and 250 of `kvtmon add`, over two print servers of kvtps on the
# private network (the xterm stays outside it).
for way in add-port add-all; do
    xterm -tn xterm-256color -geometry 80x24 -T kvtmon -fa Monospace -fs 11 -e scripts/privnet sh -c \
        "build/bin/kvtps --server PS1@127.0.0.2 --server PS2@127.0.0.3 --model PS2=3 >/dev/null 2>&1 &
         sleep 0.5; build/bin/kvtmon add $([ $way = add-all ] && echo --all)" &
    term=$!
    sleep 3
    xwd -name kvtmon -silent | convert xwd:- "$out/$way-terminal.png"
    kill $term 2>/dev/null || true
done

# Dialog 300 over dialog 200: the add runs in a tmux session that the xterm
# shows, and tmux types what a person would (Shift+Tab three times to
# "Create", Space, then a name and an address).
tmux -L kvtshots new-session -d -s create -x 80 -y 24 "scripts/privnet sh -c \
    'build/bin/kvtps --server PS1@127.0.0.2 --server PS2@127.0.0.3 --model PS2=3 >/dev/null 2>&1 &
     sleep 0.5; build/bin/kvtmon add; sleep 30'"
tmux -L kvtshots set-option -g status off
sleep 3
tmux -L kvtshots send-keys -t create BTab BTab BTab Space
sleep 1
tmux -L kvtshots send-keys -t create -l PS9
tmux -L kvtshots send-keys -t create Tab
tmux -L kvtshots send-keys -t create -l 127.0.0.9
xterm -tn xterm-256color -geometry 80x24 -T kvtmon -fa Monospace -fs 11 -e tmux -L kvtshots attach -t create &
term=$!
sleep 2
xwd -name kvtmon -silent | convert xwd:- "$out/create-server-terminal.png"
kill $term 2>/dev/null || true
tmux -L kvtshots kill-server 2>/dev/null || true

# CUPS's Add Printer page with the print servers that the kvt backend found.
if command -v chromium >/dev/null && [ -x /usr/sbin/cupsd ]; then
    scripts/privnet scripts/cups-screenshot.sh "$PWD/$out/cups-add-printer.png"
else
    echo "no chromium or no cupsd: apt-get install chromium cups for the picture of CUPS's web interface" >&2
fi

for shot in configure-port message-box add-port add-all delete-port; do
    from=build/tests/windows/wine/screenshots/$shot.png
    if [ -f "$from" ]; then cp "$from" "$out/$shot-wine.png"; else echo "no $from: run make test first" >&2; fi
done
ls -l "$out"
