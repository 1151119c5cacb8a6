#!/usr/bin/env bash
# The long forms of everything that tries to break the library, one after the other, and a table of
# what each has covered. Called by ./dev torture, which has built the programs.
#     torture.sh BUILD FUZZ_BUILD [crash|pairs|recovery|fault|kill|threads|model|api|bytes|life]...
# Executions of the fuzz targets: API_RUNS, BYTES_RUNS, LIFE_RUNS; killed writers: KILLS.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$1 fuzz=$2
shift 2
[ $# -gt 0 ] || set -- crash pairs recovery fault kill threads model api bytes life
logs=$build/torture
mkdir -p "$logs"
table=$logs/table.txt
: > "$table"
failed=0

# row NAME COMMAND...: its last lines that carry a figure go to the table.
row() {
    local name=$1 begin=$SECONDS verdict=good
    shift
    "$@" > "$logs/$name.log" 2>&1 || { verdict=FAILED failed=1; }
    local figure
    figure=$(grep -aE 'explored|injected|writers killed|lookups and|stat::number_of_executed|SUMMARY' "$logs/$name.log" |
        sed 's/stat::number_of_executed_units: */executions: /' | tail -n 3 | paste -sd ';')
    [ "$name" != model ] || figure="$(grep -c states "$logs/model.log") searches, $(awk '{s += $(NF - 3)} END {print s}' "$logs/model.log") states"
    printf '%-10s %-6s %6s s  %s\n' "$name" $verdict $((SECONDS - begin)) "$figure" | tee -a "$table"
}

# libfuzzer NAME TARGET RUNS: first with the sanitizers and all counters, which also makes the corpus,
# then the bulk without, by the oracle alone.
libfuzzer() {
    local name=$1 runs=$3 corpus=$logs/corpus-$1
    mkdir -p "$corpus"
    local all=(-max_len=64 -print_final_stats=1 "-artifact_prefix=$logs/$name-")
    row "$name" "$fuzz/$2" "-runs=$((runs / 100))" "${all[@]}" "$corpus"
    row "$name-bulk" "$fuzz/$2_bulk" "-runs=$((runs - runs / 100))" -entropic=0 -use_counters=0 -reload=0 "${all[@]}" "$corpus"
}

for what in "$@"; do
    case $what in
    crash) row crash "$build/tests/crash_explore" long ;;
    pairs | recovery) row "$what" "$build/tests/crash_explore" "$what" ;;
    fault) row fault "$build/tests/fault_inject" long ;;
    kill) row kill "$build/tests/kill_soak" "${KILLS:-10000}" ;;
    threads) row threads env "TSAN_OPTIONS=suppressions=$here/tsan/suppressions.txt" "$build/tests/tsan_threads" 60 ;;
    model) row model "$here/../model/check.sh" long ;;
    api) libfuzzer api api_fuzz "${API_RUNS:-100000000}" ;;
    bytes) libfuzzer bytes bytes_fuzz "${BYTES_RUNS:-10000000}" ;;
    life) row life "$fuzz/life_fuzz" "-runs=${LIFE_RUNS:-20000}" -max_len=256 -print_final_stats=1 "-artifact_prefix=$logs/life-" ;;
    *) echo "no such form: $what" >&2 && failed=1 ;;
    esac
done
exit $failed
