#!/usr/bin/env bash
# Runs the benchmarks (one program per bench/*.cpp, built into build/bin) and
# writes what they report, with the machine they ran on, to
# bench/results/<UTC date and time>.txt.
#
#   scripts/bench.sh                  every benchmark
#   scripts/bench.sh lpr_throughput   only the ones named
#   KVT_BUILD=/path/to/build scripts/bench.sh
#
# Exits non-zero when a benchmark is missing or fails (a wrong checksum, a job
# that did not arrive); a figure below its target is reported, not a failure.
set -u

root=$(cd "$(dirname "$0")/.." && pwd)
build=${KVT_BUILD:-$root/build}
results=$root/bench/results
mkdir -p "$results"
out=$results/$(date -u +%Y-%m-%d-%H%M%S).txt

names=("$@")
if [ ${#names[@]} -eq 0 ]; then
    for src in "$root"/bench/*.cpp; do names+=("$(basename "$src" .cpp)"); done
fi

cpu=$(grep -m1 'model name' /proc/cpuinfo 2>/dev/null | cut -d: -f2 | sed 's/^ *//')
type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt" 2>/dev/null)
# The commit of the sources the build was made from, and whether they differ from it.
source=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$build/CMakeCache.txt" 2>/dev/null)
source=${source:-$root}
commit=$(git -C "$source" rev-parse --short HEAD 2>/dev/null || echo unknown)
git -C "$source" diff --quiet HEAD 2>/dev/null || commit="$commit (with local changes)"

{
    echo "date:    $(date -u '+%Y-%m-%d %H:%M:%S') UTC"
    echo "commit:  $commit"
    echo "machine: nproc $(nproc), ${cpu:-unknown CPU}, Linux $(uname -r)"
    echo "load:    $(cut -d' ' -f1-3 /proc/loadavg) (1, 5, 15 min) before the first benchmark"
    echo "build:   $build (${type:-unknown build type})"
} | tee "$out"

status=0
for name in "${names[@]}"; do
    {
        echo
        echo "== $name"
    } | tee -a "$out"
    program=$build/bin/$name
    if [ ! -x "$program" ]; then
        echo "no $program: build it first with make linux" | tee -a "$out"
        status=1
        continue
    fi
    "$program" 2>&1 | tee -a "$out"
    code=${PIPESTATUS[0]}
    if [ "$code" -ne 0 ]; then
        echo "$name exited with status $code" | tee -a "$out"
        status=1
    fi
done

echo
echo "results written to ${out#"$root"/}"
exit $status
