#!/usr/bin/env bash
# What scripts/demo and scripts/bench say to words they do not know, before they build anything.
set -euo pipefail

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/scripts
bad=0
fail() {
    printf 'not so: %s\n' "$1"
    bad=1
}

for script in demo bench test; do
    status=0
    printed=$("$scripts/$script" --unknown 2>&1 </dev/null) || status=$?
    [ "$status" -eq 2 ] || fail "$script ends with 2 at a wrong option"
    [ "$printed" = "scripts/$script: unknown option \"--unknown\" (see --help)" ] || fail "$script names it: $printed"
    printed=$("$scripts/$script" --help </dev/null) || fail "$script --help ends with 0"
    grep -q "^Usage: scripts/$script " <<<"$printed" || fail "$script --help begins with its usage"
done
exit "$bad"
