#!/usr/bin/env bash
# make fuzz: every fuzz target under tests/fuzz for FUZZ_SECONDS seconds each
# (60 unless told), starting from the kept corpus and the hand-made seeds.
# The corpus that run grows is minimised back into tests/fuzz/corpus/<target>,
# and each target's figures go to bench/results/fuzz.md.  A crash leaves its
# input in build/fuzz/crashes/ and makes the run fail.
#
#   FUZZ_SECONDS=600 make fuzz          # longer runs
#   FUZZ_TARGETS="list_record hive" make fuzz   # only these
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-60}
jobs=${JOBS:-2}
root=$PWD
out=build/fuzz
cxx=$(command -v clang++ clang++-16 clang++-15 clang++-14 2>/dev/null | head -n1 || true)
if [ -z "$cxx" ]; then
    echo "make fuzz: no clang++ here (scripts/deps.sh installs it)" >&2
    exit 1
fi

cmake -S tests/fuzz -B "$out" -DCMAKE_CXX_COMPILER="$cxx" -DKVT_SOURCE_DIR="$root" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$out" -j"$jobs" >/dev/null

targets=${FUZZ_TARGETS:-$(cd tests/fuzz && ls fuzz_*.cpp | sed 's/^fuzz_//; s/\.cpp$//')}
mkdir -p "$out/crashes" bench/results
rows=()
failed=0
for t in $targets; do
    bin=$out/fuzz_$t
    [ -x "$bin" ] || { echo "make fuzz: no target $t" >&2; exit 1; }
    kept=tests/fuzz/corpus/$t
    work=$out/work/$t
    rm -rf "$work" "$out/min/$t"
    mkdir -p "$kept" "$work" "$out/min/$t" "tests/fuzz/seeds/$t"
    cp -r "$kept/." "$work/"
    echo "fuzz $t: ${seconds} s"
    log=$out/$t.log
    set +e
    "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 -print_final_stats=1 \
        -artifact_prefix="$out/crashes/$t-" "$work" "tests/fuzz/seeds/$t" >"$log" 2>&1
    status=$?
    set -e
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n1)
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n1 | cut -d' ' -f2)
    features=$(grep -o 'ft: [0-9]*' "$log" | tail -n1 | cut -d' ' -f2)
    crashes=$(find "$out/crashes" -name "$t-*" | wc -l)
    if [ "$status" -ne 0 ] || [ "$crashes" -ne 0 ]; then
        failed=1
        echo "fuzz $t: FAILED (exit $status, $crashes inputs in $out/crashes); see $log" >&2
    fi
    # The corpus, minimised: the smallest set of inputs with the same coverage.
    "$bin" -merge=1 -timeout=10 -rss_limit_mb=2048 -max_len=4096 "$out/min/$t" "$work" \
        "tests/fuzz/seeds/$t" >>"$log" 2>&1 || true
    if [ -n "$(ls -A "$out/min/$t")" ]; then
        rm -rf "$kept"
        mkdir -p "$kept"
        cp "$out/min/$t/"* "$kept/"
    fi
    inputs=$(ls "$kept" | wc -l)
    rows+=("| $t | ${execs:-0} | ${rate:-0} | ${cov:-0} | ${features:-0} | $inputs | $crashes |")
done

{
    echo "# Fuzzing in volume"
    echo
    echo "\`make fuzz\` with FUZZ_SECONDS=$seconds, $(date -u +%Y-%m-%d), $(nproc) cores;"
    echo "each target built with libFuzzer and the address and undefined-behaviour sanitizers."
    echo "Coverage is libFuzzer's count of covered edges (cov) and features (ft) at the end;"
    echo "the corpus is what \`-merge=1\` kept in tests/fuzz/corpus/."
    echo
    echo "| target | executions | per second | cov | ft | corpus inputs | crashes |"
    echo "|---|---:|---:|---:|---:|---:|---:|"
    printf '%s\n' "${rows[@]}"
} >bench/results/fuzz.md
cat bench/results/fuzz.md
exit $failed
