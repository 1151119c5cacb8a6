#!/usr/bin/env bash
# check.sh SOURCE COMMAND...: runs the example and compares its output with the lines under "Prints:" in
# the head of its source. It must end well and leave no store but the registry.
set -euo pipefail
source=$1
TMPDIR=$(mktemp -d)
export TMPDIR
trap 'rm -rf "$TMPDIR"' EXIT
shift
sed -nE '/Prints:$/,/\*\/$|^"""$|^$/ {/Prints:$/d; s/^( \*|#|\/\/)? {0,1}    //p}' "$source" | sed 's/ \*\/$//' > "$TMPDIR/expected"
"$(dirname "$0")/../tests/support/shm_box.sh" sh -c '"$@" || exit; ls /dev/shm/shkvdb' sh "$@" > "$TMPDIR/printed"
echo ovo_shkv_registry_db >> "$TMPDIR/expected"
diff -u "$TMPDIR/expected" "$TMPDIR/printed"
