#!/usr/bin/env bash
# make fuzz: every fuzz target under tests/fuzz for FUZZ_SECONDS seconds each
# (60 unless told), starting from the kept corpus and the hand-made seeds.
# The corpus that run grows is minimised back into tests/fuzz/corpus/<target>,
# and each target's figures go to bench/results/fuzz.md.  A crash leaves its
# input in build/fuzz/crashes/ and makes the run fail.
#
#   FUZZ_SECONDS=600 make fuzz          # longer runs
#   FUZZ_RUNS=10000000 make fuzz        # this many inputs per target (time no limit)
#   FUZZ_TARGETS="list_record hive" make fuzz   # only these
#   FUZZ_TABLE_ONLY=1 make fuzz         # only write the table again
# JOBS targets run side by side (2 unless told).  The table has each target's
# last run: a target not run this time keeps its row, which says when it ran, and
# the notes below the table (from a line "## Notes" on) are kept as they are.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-60}
runs=${FUZZ_RUNS:-}
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
fuzz_one() {
    local t=$1 bin kept work log status execs rate cov features crashes inputs limit
    bin=$out/fuzz_$t
    [ -x "$bin" ] || { echo "make fuzz: no target $t" >&2; exit 1; }
    kept=tests/fuzz/corpus/$t
    work=$out/work/$t
    rm -rf "$work" "$out/min/$t"
    mkdir -p "$kept" "$work" "$out/min/$t" "tests/fuzz/seeds/$t"
    cp -r "$kept/." "$work/"
    if [ -n "$runs" ]; then limit=(-runs="$runs"); else limit=(-max_total_time="$seconds"); fi
    echo "fuzz $t: ${limit[0]#-}"
    log=$out/$t.log
    set +e
    "$bin" "${limit[@]}" -timeout=10 -rss_limit_mb=2048 -max_len=4096 -print_final_stats=1 \
        -artifact_prefix="$out/crashes/$t-" "$work" "tests/fuzz/seeds/$t" >"$log" 2>&1
    status=$?
    set -e
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n1)
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n1 | cut -d' ' -f2)
    features=$(grep -o 'ft: [0-9]*' "$log" | tail -n1 | cut -d' ' -f2)
    crashes=$(find "$out/crashes" -name "$t-*" | wc -l)
    if [ "$status" -ne 0 ] || [ "$crashes" -ne 0 ]; then
        touch "$out/$t.failed"
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
    echo "| $t | ${execs:-0} | ${rate:-0} | ${cov:-0} | ${features:-0} | $inputs | $crashes | $(date -u +%Y-%m-%d), ${limit[0]#-} |" >"$out/$t.row"
}

running=0
[ "${FUZZ_TABLE_ONLY:-0}" = 1 ] && targets=
# The rows of this run only: a target's earlier row is the table's.
rm -f "$out"/*.row "$out"/*.failed
for t in $targets; do
    fuzz_one "$t" &
    running=$((running + 1))
    if [ "$running" -ge "$jobs" ]; then wait -n || true; running=$((running - 1)); fi
done
wait
table=bench/results/fuzz.md
for t in $(cd tests/fuzz && ls fuzz_*.cpp | sed 's/^fuzz_//; s/\.cpp$//'); do
    if [ -f "$out/$t.row" ]; then rows+=("$(cat "$out/$t.row")")
    elif [ -f "$table" ] && grep -q "^| $t |" "$table"; then rows+=("$(grep "^| $t |" "$table")"); fi
    if [ -f "$out/$t.failed" ]; then failed=1; fi
done
notes=$( [ -f "$table" ] && sed -n '/^## Notes/,$p' "$table" || true)

{
    echo "# Fuzzing in volume"
    echo
    echo "\`make fuzz\`, $jobs targets at a time on $(nproc) cores (the last run; a row says when"
    echo "its target last ran, and for how long: runs=N inputs, or max_total_time=N seconds);"
    echo "each target built with libFuzzer and the address and undefined-behaviour sanitizers."
    echo "Coverage is libFuzzer's count of covered edges (cov) and features (ft) at the end;"
    echo "the corpus is what \`-merge=1\` kept in tests/fuzz/corpus/."
    echo
    echo "| target | executions | per second | cov | ft | corpus inputs | crashes | run |"
    echo "|---|---:|---:|---:|---:|---:|---:|---|"
    printf '%s\n' "${rows[@]}"
    if [ -n "$notes" ]; then echo; printf '%s\n' "$notes"; fi
} >"$table.new"
mv "$table.new" "$table"
cat "$table"
exit $failed
