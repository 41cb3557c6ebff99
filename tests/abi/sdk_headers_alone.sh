#!/usr/bin/env bash
# Usage: sdk_headers_alone.sh COMPILER STANDARD INCLUDE_DIR
# Compiles each header of the SDK by itself, included twice, with every warning an error.
set -euo pipefail

compiler=$1 standard=$2 include_dir=$3
flags=(-Wall -Wextra -Wpedantic -Werror -Wformat=2 -Wundef -Wshadow -Wconversion -Wsign-conversion
    -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wextra-semi)
count=0 bad=0
for header in "$include_dir"/zumod/*.h; do
    name=zumod/$(basename "$header")
    count=$((count + 1))
    printf '#include "%s"\n#include "%s"\n' "$name" "$name" |
        "$compiler" -std="$standard" "${flags[@]}" -fsyntax-only -I "$include_dir" -x c++ - || {
        printf 'not alone: %s\n' "$name"
        bad=1
    }
done
printf '%d headers\n' "$count"
[ "$count" -ge 14 ] && [ "$bad" -eq 0 ]
