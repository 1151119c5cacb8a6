#!/usr/bin/env bash
# consume.sh ROOT: with the development package under ROOT ("" for the system itself), builds the C and the
# C++ example beside it by pkg-config and by CMake and runs the four, the tool and the Python module.
set -euo pipefail
root=$1
libdir=$root/usr/lib/$(gcc -print-multiarch)
if [ -n "$root" ]; then
    export PKG_CONFIG_LIBDIR=$libdir/pkgconfig CMAKE_PREFIX_PATH=$root/usr LD_LIBRARY_PATH=$libdir
    export PYTHONPATH=$root/usr/lib/python3/dist-packages PATH=$root/usr/bin:$PATH
    export PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=1 PKG_CONFIG_ALLOW_SYSTEM_LIBS=1
fi
cd "$(dirname "$0")"
flags=$(pkg-config --cflags --libs ovo_shkv)
case $root$flags in
"$root"*"$root"*) ;; # the flags lead into the root, not to another installation
*) echo "pkg-config leads to $flags"; exit 1 ;;
esac
gcc -std=c11 -Wall -Wextra -Werror -pedantic first_store.c -o pc_c $flags
g++ -std=c++20 -Wall -Wextra -Werror cpp_layer.cc -o pc_cc $flags
cmake -S . -B cm > cm.log 2>&1 || { cat cm.log; exit 1; }
cmake --build cm >> cm.log 2>&1 || { cat cm.log; exit 1; }
where=$(sed -n 's/^ovo_shkv_DIR:PATH=//p' cm/CMakeCache.txt)
[ "$where" = "$libdir/cmake/ovo_shkv" ] || { echo "CMake took $where"; exit 1; }
for program in ./pc_c ./pc_cc cm/use_c cm/use_cc; do
    $program | grep -E '^apple: 95$|^committed, apple costs 95$'
    used=$(ldd $program | awk '$1 == "libovo_shkv.so.0" {print $3}')
    [ "$(realpath "$used")" = "$(realpath "$libdir/libovo_shkv.so.0")" ] || { echo "$program runs with $used"; exit 1; }
done
shkvctl create tool > tool.log
shkvctl set tool key value >> tool.log
/usr/bin/python3 -c 'import shkv; print("Python:", shkv.open("tool")["key"].decode())'
shkvctl destroy tool >> tool.log || shkvctl destroy --yes tool >> tool.log
