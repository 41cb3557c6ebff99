#!/usr/bin/env bash
# Usage: reproducible_test.sh MODULE_DIR WORK_DIR COMPILER CMAKE_OPTION...
# Builds the modules in MODULE_DIR once more, from a copy of the sources at another path, in another time zone and
# without a compiler cache, and compares the bytes. The build stamp of each module in MODULE_DIR becomes the
# SOURCE_DATE_EPOCH of the second build.
set -euo pipefail

modules=$1 work=$2 compiler=$3
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
git -C "$root" rev-parse >/dev/null 2>&1 || { echo 'skipped: the sources are not in a git work tree'; exit 77; }

rm -rf "$work"
mkdir -p "$work/a copy of the sources"
cd "$work/a copy of the sources"
git -C "$root" ls-files -coz --exclude-standard | tar -C "$root" --null --ignore-failed-read -T - -c | tar -x

here=$(date +%z)
TZ=Pacific/Kiritimati
[ "$(TZ=$TZ date +%z)" != "$here" ] || TZ=Pacific/Niue
export TZ CCACHE_DISABLE=1
unset CMAKE_C_COMPILER_LAUNCHER CMAKE_CXX_COMPILER_LAUNCHER
printf 'time zone of the first build %s, of the second %s\n' "$here" "$(date +%z)"
cmake -G Ninja -S . -B build "-DCMAKE_CXX_COMPILER=$compiler" -DBUILD_TESTING=OFF -DZU_BENCH=OFF "${@:4}" >"$work/log"

different=0
for module in zu-client-camera zu-codec; do
    stamp=$(grep -aoE '(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 1-3][0-9] 20[0-9]{2} [0-9:]{8}' \
        "$modules/$module.so")
    SOURCE_DATE_EPOCH=$(date -u -d "$stamp" +%s)
    export SOURCE_DATE_EPOCH
    cmake --build build --parallel 1 --target "$module" >>"$work/log" || { cat "$work/log"; exit 1; }
    printf '%s, built %s:\n' "$module" "$stamp"
    (cd "$modules" && sha256sum "$module.so")
    (cd build/modules && sha256sum "$module.so")
    cmp "$modules/$module.so" "build/modules/$module.so" || different=1
done
[ "$different" -eq 0 ] || exit 1
rm -rf "$work"
