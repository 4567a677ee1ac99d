#!/usr/bin/env bash
# The kvt backend beside CUPS's own lpd backend: the same files printed through
# one cupsd (scripts/cupsd-here.sh) to the same LPR print server of kvtps, in
# the same run, at the monitor's real waits.  A job's time runs from lp until
# lpstat lists it completed.  Writes bench/results/cups_backends.md.
#
#   make linux && scripts/privnet bench/cups_backends.sh
set -euo pipefail
cd "$(dirname "$0")/.."
[ "${KVT_PRIVATE_NET:-0}" = 1 ] || { echo "run it on the private network: scripts/privnet $0" >&2; exit 2; }
[ -x /usr/lib/cups/backend/lpd ] || { echo "CUPS's lpd backend is not installed (apt-get install cups)" >&2; exit 2; }
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$work"' EXIT
build/bin/kvtps --server PS1@127.0.0.2 --count-only PS1 >"$work/kvtps.out" 2>&1 &
mkdir -p "$work/cups/bin/backend"
scripts/cups.sh install --prefix "$work/prefix" --libdir "$work/lib" --backend-dir "$work/cups/bin/backend" >/dev/null
scripts/cupsd-here.sh "$work/cups" >/dev/null 2>&1 &
export CUPS_SERVER=$work/cups/cups.sock
for _ in $(seq 100); do lpstat -r 2>/dev/null | grep -q "is running" && break; sleep 0.1; done
lpadmin -p KVT -E -v 'kvt://127.0.0.2/P1?protocol=tcpip&queue=lpt1' -m raw 2>/dev/null
lpadmin -p LPD -E -v 'lpd://127.0.0.2/lpt1' -m raw 2>/dev/null
head -c 10240 /dev/urandom >"$work/small.prn"
head -c $((16 << 20)) /dev/urandom >"$work/large.prn"

now() { date +%s.%N; }
time_job() {  # queue file -> seconds from lp to completed
    local start id
    start=$(now)
    id=$(lp -d "$1" "$2" | sed -n 's/^request id is \([^ ]*\).*/\1/p')
    until lpstat -W completed -o "$1" | grep -q "^$id "; do sleep 0.02; done
    awk -v a="$(now)" -v b="$start" 'BEGIN { printf "%.2f", a - b }'
}
rows=()
for file in small large; do
    for round in 1 2 3; do
        for queue in KVT LPD; do
            rows+=("| $file ($(stat -c %s "$work/$file.prn") bytes) | $queue | $round | $(time_job $queue "$work/$file.prn") |")
        done
    done
done
completed=$(grep -c "completed" "$work/kvtps.out" || true)
{
    echo "# The kvt backend and CUPS's lpd backend"
    echo
    echo "\`scripts/privnet bench/cups_backends.sh\`, $(date -u +%Y-%m-%d), commit $(git rev-parse --short HEAD):"
    echo "one cupsd, one LPR print server of kvtps, each file printed three times by each backend,"
    echo "alternately. Seconds from \`lp\` until \`lpstat\` lists the job completed; kvtps"
    echo "stored $completed jobs whole."
    echo
    echo "| file | backend | round | seconds |"
    echo "|---|---|---:|---:|"
    printf '%s\n' "${rows[@]}"
} >bench/results/cups_backends.md
cat bench/results/cups_backends.md
