#!/usr/bin/env bash
# Usage: sdk_test.sh BUILD_DIRECTORY WORK_DIRECTORY
# Installs the build, builds the installed examples against the installed SDK, with warnings as errors, and lends
# a virtual camera with each of them: both hosts, the codec, the peer.
set -euo pipefail
build=$1 work=$2
fail() { printf 'failed: %s\n' "$*" >&2; exit 1; }
command -v python3 >/dev/null || { echo 'skipped: python3 is not installed'; exit 77; }

rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
modules=$work/prefix/lib/zu
examples=$work/prefix/share/doc/zu-client-camera-dev/examples
cmake -S "$examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_FLAGS='-Wall -Wextra -Werror' \
    -DCMAKE_CXX_FLAGS='-Wall -Wextra -Werror' >/dev/null
cmake --build "$work/examples" >/dev/null

# lend WIDTHxHEIGHT HOST MODULE: the peer saves ten frames of that size.
lend() {
    rm -f "$work/film.h264"
    "$work/prefix/bin/zu-vcam" --camera card='Front Camera',formats=NV12,sizes="$1",fps=30 -- \
        python3 "$examples/peer.py" "$work/film.h264" 10 "$work/examples/$2" "$3" \
        >"$work/list.txt" 2>"$work/log.txt" || { cat "$work/log.txt"; fail "$2 with $3"; }
    grep -qx "0 'Front Camera' $1" "$work/list.txt" || fail "the list of $2 is: $(<"$work/list.txt")"
    seen=$(ffprobe -v error -count_frames -show_entries stream=width,height,nb_read_frames -of csv=p=0:s=x "$work/film.h264" 2>&1)
    [ "$seen" = "$1x10" ] || fail "the film of $2 is $seen"
}
lend 640x480 example-host "$modules/zu-client-camera.so"
lend 640x480 example-host-c "$modules/zu-client-camera.so"

# The module beside the example's codec: it is the one that is found there. 200 and 120 are no multiples of 16.
mkdir "$work/modules"
cp "$modules/zu-client-camera.so" "$work/examples/zu-codec.so" "$work/modules"
lend 200x120 example-host "$work/modules/zu-client-camera.so"
[ "$(stat -c %s "$work/film.h264")" -gt 300000 ] || fail 'the codec of the example does not compress'

"$work/prefix/bin/zu-module-validate" "$work/examples/zu-codec.so" "$modules/zu-client-camera.so" >"$work/checks.txt" 2>&1 ||
    { cat "$work/checks.txt"; fail 'a module does not pass its checks'; }

# The other way to find the SDK.
export PKG_CONFIG_PATH=$work/prefix/share/pkgconfig
[ "$(pkg-config --modversion zu-client-camera)" = "$("$work/prefix/bin/zu-vcam" --version | cut -d' ' -f2)" ] ||
    fail 'the versions of the SDK and of the programs differ'
[ -f "$(pkg-config --variable=moduledir zu-client-camera)/zu-codec.so" ] || fail 'pkg-config does not know the modules'
printf '#include "zumod/zumod.h"\n' >"$work/one.cpp"
# shellcheck disable=SC2046 # several flags
c++ -std=c++17 -fsyntax-only $(pkg-config --cflags zu-client-camera) "$work/one.cpp" || fail 'the flags of pkg-config'
