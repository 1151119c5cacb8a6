#!/usr/bin/env bash
# Runs the model of one bucket through spin: every interleaving must be right, and each fault put in
# must be found. Readers store nothing, so one at a time covers them; the long form also runs both.
#     model/check.sh short|long
set -euo pipefail
model=$(cd "$(dirname "$0")" && pwd)/store.pml
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
bad=0 searches=0 states=0
opt=-O1
[ "${1:-short}" = short ] || opt=-O2

# run right|wrong SWITCH...: what spin must find, and how often it looked.
run() {
    local want=$1 found=right
    shift
    spin -a "$@" "$model" > spin.log
    cc $opt -DSAFETY -DCOLLAPSE -DNOFAIR -DMEMLIM=6000 -o pan pan.c
    ./pan -m1000000 -w24 > pan.log
    grep -q 'errors: 0$' pan.log || found=wrong
    grep -q 'Search not completed' pan.log && [ $found = right ] && found=unfinished
    local stored
    stored=$(sed -n 's/^ *\([0-9]*\) states, stored.*/\1/p' pan.log)
    printf '%-32s %-6s %12s states\n' "$*" $found "$stored"
    searches=$((searches + 1)) states=$((states + stored))
    [ $found = "$want" ] || bad=1
}

run right -DONLY=KEEP
[ "${1:-short}" = short ] || run right -DONLY=GUEST
for fault in PUBLISH_EARLY NO_HOLD NO_VALIDATION NO_MOVE_CHECK FLIP_EARLY ONE_WALK; do
    run wrong -D$fault -DONLY=KEEP
done
if [ "${1:-short}" = long ]; then
    run right -DONLY=KEEP -DWALKS=2
    run wrong -DONLY=KEEP -DWALKS=2 -DUNLINK_CLEARS # three walks hide it
    run right -DOPS=2
    run right -DONLY=KEEP -DOPS=4
fi
echo "$searches searches, $states states"
[ $bad = 0 ] || echo "the model does not say what it must"
exit $bad
