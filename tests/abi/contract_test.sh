#!/usr/bin/env bash
# Usage: contract_test.sh MODULE_DIR
# Compares the binary contract of the source tree and of the built modules with contract.golden.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
"$here/contract.sh" "$1" >"$actual"
if difference=$(diff --unified=0 "$here/contract.golden" "$actual"); then
    printf '%d lines are unchanged\n' "$(wc -l <"$actual")"
    exit 0
fi
cat <<TEXT
The binary contract has changed. Hosts and codecs that were built elsewhere depend on these lines (- reviewed, + now):

$(grep -E '^[-+][^-+]' <<<"$difference")

If the change is meant and every old host and codec still works, write the file anew and have it reviewed:
    tests/abi/contract.sh $1 >tests/abi/contract.golden
TEXT
exit 1
