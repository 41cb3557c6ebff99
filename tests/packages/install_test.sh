#!/usr/bin/env bash
# Usage: install_test.sh DIRECTORY
# Takes the Debian packages in DIRECTORY through their life in a new Debian system that has nothing else: an older
# version is installed, used, upgraded, used, removed and purged, and leaves nothing. Needs root. Exits 77, and says
# why, if such a system cannot be made here.
set -euo pipefail
packages=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
skip() { printf 'skipped: %s\n' "$*"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip 'only root can make a new system'

lintian --allow-root --fail-on error "$packages"/*.deb

# The same packages as version 1.0.0-1, which is older.
mkdir "$work/old"
for package in "$packages"/*.deb; do
    dpkg-deb -R "$package" "$work/tree"
    sed -i -E '/^Version:/s/[0-9].*/1.0.0-1/; /^Depends:/s/\(= [^)]*\)/(= 1.0.0-1)/' "$work/tree/DEBIAN/control"
    dpkg-deb --root-owner-group -b "$work/tree" "$work/old/$(basename "$package" | sed 's/_[^_]*_/_1.0.0-1_/')" >/dev/null
    rm -rf "$work/tree"
done

cat >"$work/inside" <<'INSIDE'
#!/bin/bash
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
names=(zu-client-camera zu-client-camera-dev zu-camera-tools zu-vcam)
fail() { printf 'failed: %s\n' "$*" >&2; exit 1; }
traces() { find / -xdev \( -path /packages -o -path /proc -o -path /var/log -o -path /usr/share/locale \) -prune -o \
    \( -name 'zu-c*' -o -name 'zu-vcam*' -o -name 'zu' -o -name 'zumod' \) -print; }

# A user without rights lists and records a virtual camera.
use() {
    rm -rf /tmp/use
    mkdir -m 777 /tmp/use
    setpriv --reuid=65534 --regid=65534 --clear-groups env HOME=/tmp/use XDG_RUNTIME_DIR=/tmp/use bash -ec '
        cd /tmp/use
        zu-vcam --camera card="Front Camera",formats=NV12,sizes=640x480,fps=30 -- bash -ec "
            peer=(zu-camera-peer --exec \"zu-camera-host --stdio\")
            \"\${peer[@]}\" list
            \"\${peer[@]}\" record 0 film.mp4 --seconds 1
            \"\${peer[@]}\" snapshot 0 picture.png"' >/tmp/use.log 2>&1 || { cat /tmp/use.log; fail 'the programs do not work'; }
    for unit in /usr/lib/systemd/user/zu-camera-host.service /usr/lib/systemd/user/zu-camera-host.socket; do
        [ -f "$unit" ] || fail "$unit is missing"
    done
    # The service manager looks for a program without a path in /usr/local/bin, /usr/bin and /bin.
    (PATH=/usr/local/bin:/usr/bin:/bin; command -v "$(sed -nE 's/^ExecStart=([^ ]*).*/\1/p' \
        /usr/lib/systemd/user/zu-camera-host.service)" >/dev/null) || fail 'the service starts a program that is not there'
    grep -q 'Front Camera' /tmp/use.log || fail 'the camera is not listed'
    [ "$(stat -c %s /tmp/use/film.mp4)" -gt 1000 ] || fail 'nothing was recorded'
}
all_are() {
    local name
    for name in "${names[@]}"; do
        [ "$(dpkg-query -W -f '${Status} ${Version}' "$name")" = "install ok installed $1" ] || fail "$name is not $1"
    done
}

[ -z "$(traces)" ] || fail "there before the first installation: $(traces)"
apt-get install -qy --no-install-recommends /packages/old/*.deb
all_are 1.0.0-1
use
dpkg -i /packages/new/*.deb
all_are "$1"
use
apt-get remove -qy "${names[@]}"
[ -z "$(traces | grep -v ^/var/lib/dpkg/)" ] || fail "left behind by remove: $(traces)"
dpkg --purge "${names[@]}"
[ -z "$(traces)" ] || fail "left behind: $(traces)"
echo 'installed, upgraded, removed and purged'
INSIDE
chmod +x "$work/inside"

version=$(dpkg-deb -f "$(printf '%s\n' "$packages"/zu-vcam_*.deb)" Version)
status=0
# The hooks run before the new system is packed; "null" means that it is not packed at all.
mmdebstrap --variant=apt --format=null --quiet \
    --customize-hook="mkdir -p \"\$1/packages/old\" \"\$1/packages/new\"" \
    --customize-hook="cp '$work'/old/*.deb \"\$1/packages/old\"; cp '$packages'/*.deb \"\$1/packages/new\"" \
    --customize-hook="cp '$work/inside' \"\$1/packages\"; touch '$work/made'" \
    --customize-hook="chroot \"\$1\" /packages/inside '$version'" \
    bookworm >"$work/log" 2>&1 </dev/null || status=$?
if [ ! -e "$work/made" ]; then
    tail -n 5 "$work/log"
    skip 'no new Debian system could be made'
fi
[ "$status" -eq 0 ] || tail -n 60 "$work/log"
grep -x 'installed, upgraded, removed and purged' "$work/log" && exit "$status"
exit 1
