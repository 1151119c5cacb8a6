#!/bin/sh
# Draws docs/plots/store-map.svg from a run: a store that was loaded, thinned out and filled again.
# In a mount namespace of its own: draw_map.sh FILE, shkvctl in PATH.
set -e
mount -t tmpfs tmpfs /dev/shm
shkvctl create packages --key-max 24 --value-max 64 --entries 12000 -q
seq 9000 | sed 's/.*/package-&\tversion &/' | shkvctl load packages - -q
thin_out() {
    awk -v first="$1" -v last="$2" 'BEGIN { srand(7)
        for (i = first; i <= last; i++) if (rand() < 0.2 || i % 3000 < 250) print "package-" i }' |
        xargs shkvctl del packages -q
    sleep 0.2 # readers have moved on: what was deleted before is free with the next deletes
}
thin_out 1 3000
thin_out 3001 6000
thin_out 6001 7500
seq 9001 9300 | sed 's/.*/package-&\tversion &/' | shkvctl load packages - -q
exec shkvctl stat packages --map "$1" -q
