#!/usr/bin/env bash
# check.sh SOURCE [BUILD]: makes the Debian packages of SOURCE, from a finished build where one is given, lets
# lintian look at them, and uses them as a newcomer would: installed by dpkg into a clean root, and unpacked
# into a directory of any name. The packages go to $OUT, when that is set.
set -euo pipefail
source=$(realpath "$1") build=${2:+$(realpath "$2")}
here=$(cd "$(dirname "$0")" && pwd)
for tool in dpkg-buildpackage dh lintian dh_python3 pkg-config scdoc; do
    command -v $tool > /dev/null || { echo "skipped: $tool is missing"; exit 77; }
done
# A build that was configured for other directories does not serve.
if [ -n "$build" ] && ! grep -q "^CMAKE_INSTALL_LIBDIR:.*=lib/$(gcc -print-multiarch)$" "$build/CMakeCache.txt"; then
    build=
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
step() { printf '== %s (%ss)\n' "$1" "$SECONDS"; }

# A copy, since the packaging tools write into the tree that they pack.
step "packing ${build:+the build in $build}"
mkdir "$work/src"
if git -C "$source" rev-parse 2> /dev/null; then
    git -C "$source" ls-files -z --cached --others --exclude-standard |
        (cd "$source" && tar -c --null --ignore-failed-read -T - 2> /dev/null) | tar -x -C "$work/src"
else
    cp -a "$source/." "$work/src"
fi
cd "$work/src"
export OVO_SHKV_BUILD=$build LC_ALL=C.UTF-8
options=
[ -z "$build" ] || options=noautodbgsym # nothing to put there
DEB_BUILD_OPTIONS="$options parallel=$(nproc)" dpkg-buildpackage -b -us -uc > "$work/build.log" 2>&1 || {
    tail -40 "$work/build.log"
    exit 1
}
if grep -E 'dpkg-gensymbols: (warning|error)|dpkg-shlibdeps: warning' "$work/build.log"; then
    exit 1
fi

step lintian
lintian --fail-on error,warning "$work"/*.changes > "$work/lintian.log" 2>&1 || {
    cat "$work/lintian.log"
    exit 1
}

step "unpacked into a directory of any name"
mkdir "$work/elsewhere"
for deb in "$work"/*.deb; do
    dpkg -x "$deb" "$work/elsewhere"
done
mkdir "$work/use"
cp "$here"/consumer/* "$source"/examples/{first_store.c,cpp_layer.cc} "$work/use"
cp -r "$work/use" "$work/use_elsewhere"
"$here/../support/shm_box.sh" "$work/use_elsewhere/consume.sh" "$work/elsewhere"

# A root that is this system as it was, with a layer above that takes all changes and goes away with it.
step "installed into a clean root"
if [ "$(id -u)" = 0 ]; then
    mkdir "$work/layer" "$work/root"
    unshare -m bash -euc '
        work=$1
        mount -t tmpfs tmpfs "$work/layer"
        mkdir "$work/layer/up" "$work/layer/tmp"
        mount -t overlay overlay -o "lowerdir=/,upperdir=$work/layer/up,workdir=$work/layer/tmp" "$work/root" || exit 77
        mkdir -p "$work/root/debs"
        cp "$work"/*.deb "$work/root/debs"
        cp -r "$work/use" "$work/root/use"
        mount -t proc proc "$work/root/proc"
        mount --bind /dev "$work/root/dev"
        mount -t tmpfs -o mode=1777 tmpfs "$work/root/dev/shm"
        rm -f "$work/root"/usr/local/lib/*/libovo_shkv* "$work/root"/usr/local/include/shkv*
        inside() { env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$work/root" "$@"; }
        inside sh -c "dpkg -i /debs/*.deb" > "$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; exit 1; }
        inside /use/consume.sh ""
        names=$(for deb in "$work"/*.deb; do dpkg-deb -f "$deb" Package; done)
        inside dpkg --purge $names > "$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; exit 1; }
        left=$(cd "$work/root" && find usr -name "*shkv*" | head) # the purge takes all of it along
        [ -z "$left" ] || { echo "left behind: $left"; exit 1; }
    ' bash "$work" && status=0 || status=$?
    [ "$status" = 0 ] || [ "$status" = 77 ] || exit "$status"
    [ "$status" = 0 ] || echo "no overlay file system here: only unpacked"
else
    echo "not root: only unpacked"
fi
if [ -n "${OUT:-}" ]; then
    mkdir -p "$OUT"
    cp "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$OUT"
    ls -l "$OUT"/*.deb
fi
step done
