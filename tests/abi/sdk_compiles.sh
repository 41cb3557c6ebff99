#!/usr/bin/env bash
# Usage: sdk_compiles.sh COMPILER STANDARD INCLUDE_DIR SOURCE
# Compiles each header of the SDK by itself, included twice, and SOURCE, a program whose objects implement the SDK's
# interfaces, with every warning an error.
set -euo pipefail

compiler=$1 standard=$2 include_dir=$3 source=$4
flags=(-Wall -Wextra -Wpedantic -Werror -Wformat=2 -Wundef -Wshadow -Wconversion -Wsign-conversion
    -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wextra-semi)
compile=("$compiler" "-std=$standard" "${flags[@]}" -fsyntax-only -I "$include_dir" -x c++)
count=0 bad=0
for header in "$include_dir"/zumod/*.h; do
    name=zumod/$(basename "$header")
    count=$((count + 1))
    printf '#include "%s"\n#include "%s"\n' "$name" "$name" | "${compile[@]}" - || {
        printf 'does not compile: %s\n' "$name"
        bad=1
    }
done
"${compile[@]}" "$source" || {
    printf 'does not compile: %s\n' "$source"
    bad=1
}
printf '%d headers\n' "$count"
[ "$count" -ge 16 ] && [ "$bad" -eq 0 ]
