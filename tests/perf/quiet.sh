#!/usr/bin/env bash
# quiet.sh PROGRAM: between the marks of each operation the trace of PROGRAM holds no system call; that
# of the operation "loud" does, or the trace would prove nothing.
set -euo pipefail
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
if ! strace -o /dev/null true 2> /dev/null; then
    echo "skipped: strace is missing or may not trace here"
    exit 77
fi
status=0
strace -f -o "$dir/trace" "$1" quiet || status=$?
[ "$status" = 0 ] || exit "$status"
awk '/chdir\("MARK end"/ {
         loud = op == "loud"
         if ((calls > 0) != loud) {print op ": " calls + 0 " system calls"; bad++; printf "%s", seen}
         op = ""; ops++; next
     }
     match($0, /chdir\("MARK [^"]*/) {op = substr($0, RSTART + 12, RLENGTH - 12); calls = 0; seen = ""; next}
     op != "" {calls++; seen = seen "    " $0 "\n"}
     END {print ops + 0 " operations traced"; exit bad || ops < 26}' "$dir/trace"
