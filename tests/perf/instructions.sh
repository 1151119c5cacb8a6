#!/usr/bin/env bash
# instructions.sh PROGRAM TABLE COMPILER: counts the instructions of each operation and compares them with
# the table, within 2% either way, so that no path becomes slower unseen and the table stays true.
# RENEW=1 writes the table anew instead.
set -euo pipefail
program=$1 table=$2 compiler="# built by $3"
if [ "${RENEW:-}" != 1 ] && ! grep -qxF "$compiler" "$table"; then
    echo "skipped: the table was $(grep '^# built by' "$table" | cut -c3-), this is another compiler: $3"
    exit 77
fi
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
# The plainest memcpy and friends, so that the counts do not depend on the processor.
export GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2_Usable,-AVX2,-AVX512F_Usable,-AVX512F,-ERMS,-FSRM
status=0
valgrind --tool=callgrind --callgrind-out-file="$dir/out" "$program" > "$dir/log" 2>&1 || status=$?
if [ "$status" != 0 ]; then
    cat "$dir/log"
    exit "$status"
fi
# One dump for each operation: its name, and the instructions of 1,000 of them.
for dump in $(ls "$dir"/out.* | sort -t. -k3n); do
    awk '/^desc: Trigger: Client Request: / {name = $NF} /^(summary|totals):/ {n = $2}
         END {if (name) printf "%s %d\n", name, n / 1000}' "$dump"
done > "$dir/counts"
[ -s "$dir/counts" ] || { echo "no counts"; cat "$dir/log"; exit 1; }
if [ "${RENEW:-}" = 1 ]; then
    { grep '^#' "$table" | grep -v '^# built by'; echo "$compiler"; awk '{printf "%-20s %6d\n", $1, $2}' "$dir/counts"; } > "$dir/table"
    cp "$dir/table" "$table"
    cat "$table"
    exit 0
fi
awk 'BEGIN {printf "%-20s %9s %9s %8s\n", "operation", "table", "now", "change"}
     NR == FNR {if ($1 !~ /^#/) want[$1] = $2; next}
     {
         change = want[$1] ? ($2 / want[$1] - 1) * 100 : 100
         bad = change > 2 || change < -2
         printf "%-20s %9d %9d %+7.1f%%%s\n", $1, want[$1], $2, change, bad ? "  <--" : ""
         failed += bad; delete want[$1]
     }
     END {
         for (name in want) {print name " was not counted"; failed++}
         if (failed) print "beyond 2%: mend the path, or write down what the change is worth with RENEW=1"
         exit failed > 0
     }' "$table" "$dir/counts"
