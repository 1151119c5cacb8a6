#!/usr/bin/env bash
# The long forms of everything that tries to break the library, one after the other, and a table of
# what each has covered. Called by ./dev torture, which has built the programs.
#     torture.sh BUILD FUZZ_BUILD [crash|pairs|recovery|fault|kill|threads|model|api|bytes]...
# How much: LENGTH (long or short: crash points, faults, model), PAIRS and RECOVERY (one scenario of these),
# KILLS, THREADS (seconds of each), API_RUNS and BYTES_RUNS.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$1 fuzz=$2 length=${LENGTH:-long}
shift 2
[ $# -gt 0 ] || set -- crash pairs recovery fault kill threads model api bytes
logs=$build/torture
mkdir -p "$logs"
table=$logs/table.txt
: > "$table"
failed=0

# row NAME COMMAND...: the last line of its output that carries a figure goes to the table.
row() {
    local name=$1 begin=$SECONDS verdict=good figure
    shift
    "$@" > "$logs/$name.log" 2>&1 || { verdict=FAILED failed=1; }
    figure=$(grep -aE 'explored|injected|writers killed|lookups and|number_of_executed|searches' "$logs/$name.log" |
        sed 's/stat::number_of_executed_units: */executions: /' | tail -n 1)
    [ -n "$figure" ] || { verdict=FAILED failed=1 figure="no figure, see $logs/$name.log"; }
    printf '%-10s %-6s %6s s  %s\n' "$name" $verdict $((SECONDS - begin)) "$figure" | tee -a "$table"
}

# libfuzzer NAME RUNS: a hundredth with the sanitizers and all counters, which also makes the corpus, then the
# bulk without, by the oracle alone.
libfuzzer() {
    local name=$1 runs=$2 corpus=$logs/corpus-$1
    mkdir -p "$corpus"
    local all=(-max_len=64 -timeout=20 -print_final_stats=1 "-artifact_prefix=$logs/$name-" "$corpus" "$here/../fuzz/inputs/$name")
    row "$name" "$fuzz/${name}_fuzz" "-runs=$((runs / 100))" "${all[@]}"
    row "$name-bulk" "$fuzz/${name}_fuzz_bulk" "-runs=$((runs - runs / 100))" -entropic=0 -use_counters=0 -reload=0 "${all[@]}"
}

for what in "$@"; do
    case $what in
    crash) row crash "$build/tests/crash_explore" "$length" ;;
    pairs) row pairs "$build/tests/crash_explore" pairs ${PAIRS:+"$PAIRS"} ;;
    recovery) row recovery "$build/tests/crash_explore" recovery ${RECOVERY:+"$RECOVERY"} ;;
    fault) row fault "$build/tests/fault_inject" "$length" ;;
    kill) row kill "$build/tests/kill_soak" "${KILLS:-10000}" ;;
    threads) row threads env "TSAN_OPTIONS=suppressions=$here/tsan/suppressions.txt" "$build/tests/tsan_threads" "${THREADS:-60}" ;;
    model) row model "$here/../model/check.sh" "$length" ;;
    api) libfuzzer api "${API_RUNS:-100000000}" ;;
    bytes) libfuzzer bytes "${BYTES_RUNS:-10000000}" ;;
    *) echo "no such form: $what" >&2 && failed=1 ;;
    esac
done
printf '\n'
cat "$table"
exit $failed
