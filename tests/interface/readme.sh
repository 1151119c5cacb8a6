#!/usr/bin/env bash
# readme.sh README LIBRARY INCLUDE CC SHKVCTL: the program that the README shows does what it says there, and
# its links lead to files of the tree.
set -euo pipefail
readme=$1 library=$2 include=$3 cc=$4 shkvctl=$5
here=$(cd "$(dirname "$0")" && pwd)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
awk '/^```c$/ {take = 1; next} /^```$/ {take = 0} take' "$readme" > "$dir/counter.c"
[ "$(wc -l < "$dir/counter.c")" -ge 10 ] || { echo "the README shows no program"; exit 1; }
$cc -std=c11 -Wall -Wextra -Werror -pedantic -I"$include" "$dir/counter.c" "$library" -o "$dir/counter" \
    "-Wl,-rpath,$(dirname "$library")"
"$here/../support/shm_box.sh" sh -ec '"$1"; "$1"; "$2" scan counter --count; "$2" destroy counter > /dev/null' \
    sh "$dir/counter" "$shkvctl" > "$dir/printed"
printf 'run 1\nrun 2\n1\n' | diff - "$dir/printed"
missing=0
for link in $(grep -oE '\]\([^):]+\)' "$readme" | sed 's/^](//; s/[#)].*//' | sort -u); do
    [ -e "$(dirname "$readme")/$link" ] || { echo "no such file: $link"; missing=1; }
done
exit $missing
