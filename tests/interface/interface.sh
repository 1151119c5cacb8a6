#!/usr/bin/env bash
# interface.sh LIBRARY SYMBOLS INCLUDE CC CXX: the library exports the names of the symbols file and
# no other, carries its name, needs the C library alone, and its header declares every one of these
# names to C11 and to C++ without a warning.
set -euo pipefail
library=$1 symbols=$2 include=$3 cc=$4 cxx=$5
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export LC_ALL=C

sed -n 's/^ \(.*\)@Base .*/\1/p' "$symbols" | sort > "$dir/wanted"
nm -D --defined-only "$library" | awk '{print $3}' | sort > "$dir/exported"
[ -s "$dir/wanted" ] || { echo "$symbols lists no names"; exit 1; }
diff -u "$dir/wanted" "$dir/exported" || { echo "the exported names are not those of $symbols"; exit 1; }

objdump -p "$library" > "$dir/dynamic"
grep -Eq '^ +SONAME +libovo_shkv\.so\.0$' "$dir/dynamic" || { echo "another SONAME"; cat "$dir/dynamic"; exit 1; }
others=$(awk '$1 == "NEEDED" && $2 != "libc.so.6" {print $2}' "$dir/dynamic")
[ -z "$others" ] || { echo "the library needs $others"; exit 1; }

# A program that takes the address of each name: declared, with linkage that the library satisfies.
{
    echo '#include "shkv.h"'
    echo 'int main(void)'
    echo '{'
    echo '    volatile uintptr_t sink;'
    awk '{print "    sink = (uintptr_t)&" $1 ";"}' "$dir/wanted"
    echo '    return sink == 0;'
    echo '}'
} > "$dir/all.c"
cp "$dir/all.c" "$dir/all.cc"
sed '/sigbus_jmp/d' "$dir/all.c" > "$dir/iso.c" # plain ISO C has no sigjmp_buf
strict="-Wall -Wextra -Werror -pedantic -I$include"
$cc -std=gnu11 $strict "$dir/all.c" "$library" -o "$dir/all_c"
$cc -std=c11 $strict "$dir/iso.c" "$library" -o "$dir/iso_c"
for std in c++11 c++17 c++20; do
    $cxx -std=$std $strict "$dir/all.cc" "$library" -o "$dir/all_cc"
done
# The format header stands on its own.
for header in shkv.h shkv_format.h; do
    echo "#include \"$header\"" > "$dir/one.c"
    $cc -std=c11 $strict -fsyntax-only "$dir/one.c"
    $cxx -std=c++11 $strict -x c++ -fsyntax-only "$dir/one.c"
done
# The C++ layer asks for C++20 and nothing else.
echo '#include "shkv.hpp"' > "$dir/layer.cc"
for more in "" "-fno-exceptions -fno-rtti"; do
    $cxx -std=c++20 $strict -Wshadow $more -fsyntax-only "$dir/layer.cc"
done
for program in all_c iso_c all_cc; do
    LD_LIBRARY_PATH=$(dirname "$library") "$dir/$program"
done
