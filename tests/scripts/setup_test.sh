#!/usr/bin/env bash
# scripts/setup against stand-ins of the package tools: nothing is installed by this test.
set -euo pipefail

setup=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/scripts/setup
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
bad=0

fail() {
    printf 'failed: %s\n' "$1"
    bad=1
}

# stand_in NAME: a program of that name whose body is read from the standard input.
stand_in() {
    { printf '#!/usr/bin/env bash\n'; cat; } >"$work/bin/$1"
    chmod +x "$work/bin/$1"
}

# run ARGUMENTS...: leaves the exit status in $status, what was printed in $printed, the tools' calls in $calls.
run() {
    : >"$work/calls"
    status=0
    printed=$(PATH="$work/bin:$PATH" WORK="$work" "$setup" "$@" 2>&1 </dev/null) || status=$?
    calls=$(cat "$work/calls")
}

# dpkg-query prints $work/packages, one "ii  name" or "ii  name:arch" per line.
stand_in dpkg-query <<<"cat \"\$WORK/packages\""
stand_in apt-get <<<"echo \"apt-get \$*\" >>\"\$WORK/calls\""
stand_in dpkg <<<"[ \"\$1\" = --print-architecture ] && echo amd64 || echo \"dpkg \$*\" >>\"\$WORK/calls\""
stand_in sudo <<<"echo sudo >>\"\$WORK/calls\"; exec \"\$@\""
as_user() { stand_in id <<<"echo $1"; }

as_user 0
: >"$work/packages"
run --list
[ "$status" -eq 0 ] || fail '--list exits 0'
[ -z "$calls" ] || fail '--list installs nothing'
printf '%s\n' "$printed" >"$work/list"
grep -qx 'cmake' "$work/list" || fail 'the list names the packages, one per line'

sed 's/^/ii  /' "$work/list" >"$work/packages"
run
[ "$status" -eq 0 ] || fail 'exits 0 when all is there'
[ -z "$printed" ] || fail "prints nothing when all is there: $printed"
[ -z "$calls" ] || fail 'calls no tool when all is there'

sed 's/^/ii  /; s/$/:amd64/' "$work/list" >"$work/packages"
run
[ -z "$printed$calls" ] || fail 'knows a package that is listed with its architecture'

sed 's/^/ii  /' "$work/list" | grep -vx 'ii  cmake' >"$work/packages"
run
[ "$status" -eq 0 ] || fail 'exits 0 after installing'
grep -qE '^apt-get install .* cmake$' <<<"$calls" || fail "installs only what is missing: $calls"
grep -q '^apt-get update' <<<"$calls" || fail 'reads the package lists first'
grep -q sudo <<<"$calls" && fail 'root does not use sudo'

sed 's/^/ii  /; s/^ii  cmake$/rc  cmake/' "$work/list" >"$work/packages"
run
grep -qE '^apt-get install .* cmake$' <<<"$calls" || fail 'a removed package counts as missing'

as_user 1000
run
[ "$(grep -c '^sudo$' <<<"$calls")" -eq 2 ] || fail 'another user uses sudo for each call'

as_user 0
sed 's/^/ii  /' "$work/list" >"$work/packages"
grep -qx 'qemu-system-x86' "$work/list" && fail 'the virtual machine is not in the plain list'
run --vm
grep -qE '^apt-get install .* qemu-system-x86( |$)' <<<"$calls" || fail "--vm installs the virtual machine: $calls"
run --vm --list
grep -qx 'qemu-system-x86' <<<"$printed" || fail '--vm --list names the virtual machine'
grep -qx 'cmake' <<<"$printed" || fail '--vm --list names the rest as well'
[ -z "$calls" ] || fail '--vm --list installs nothing'
run --packages
grep -qE '^apt-get install .* mmdebstrap( |$)' <<<"$calls" || fail "--packages installs what packages need: $calls"

grep -q ':arm64$' "$work/list" && fail 'the foreign libraries are not in the plain list'
{ sed 's/^/ii  /' "$work/list"; echo 'ii  uuid-dev:amd64'; } >"$work/packages"
run --arm64
[ "$(head -n 1 <<<"$calls")" = 'dpkg --add-architecture arm64' ] || fail "--arm64 adds the architecture first: $calls"
grep -qE '^apt-get install .* uuid-dev:arm64( |$)' <<<"$calls" || fail 'an installed native library does not count as the foreign one'
run --arm64 --list
awk '{ print "ii  " $0 }' <<<"$printed" >"$work/packages"
run --arm64
[ -z "$printed$calls" ] || fail "installs nothing when the foreign libraries are there: $calls"
as_user 1000

for wrong in --lst list -x; do
    run "$wrong"
    [ "$status" -eq 2 ] || fail "$wrong is refused with 2, not $status"
    [ -z "$calls" ] || fail "$wrong installs nothing"
    grep -qF -- "$wrong" <<<"$printed" || fail "$wrong is named in the message"
done
run --help
[ "$status" -eq 0 ] || fail '--help exits 0'
grep -q '^Usage: scripts/setup' <<<"$printed" || fail '--help prints the usage'
[ -z "$calls" ] || fail '--help installs nothing'

for script in scripts/test scripts/bench scripts/demo scripts/vm scripts/coverage scripts/soak; do
    status=0
    "${setup%scripts/setup}$script" --no-such-option >/dev/null 2>&1 || status=$?
    [ "$status" -eq 2 ] || fail "$script refuses a wrong option with 2, not $status"
done
[ "$bad" -eq 0 ] && echo 'passed'
exit "$bad"
