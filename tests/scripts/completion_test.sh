#!/usr/bin/env bash
# completion_test.sh SHELL DIRECTORY PROGRAM...: every option and command in a program's help is completed, and camera
# names are those of the host. DIRECTORY has the completion files. Exits with 77 if there is no such shell.
# shellcheck disable=SC2317  # functions that are called by a name in a variable
set -euo pipefail

shell=$1
directory=$2
shift 2
command -v "$shell" >/dev/null || { echo "skipped: $shell is not installed"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
bad=0

# complete PROGRAM WORD...: what is offered for the last word.
complete_in_bash() {
    bash -c 'source "$0"; program=$1; shift; COMP_WORDS=("${program##*/}" "$@"); COMP_CWORD=$#
        PATH=${program%/*}:$PATH; "_${program##*[/]}" "$program"; printf "%s\n" "${COMPREPLY[@]}"' \
        "$directory/bash/${1##*/}" "$@" 2>&1
}
complete_in_zsh() {
    zsh -fc 'file=$1; shift; words=("$@"); CURRENT=$#
        compadd() { while [[ $1 == -* && $1 != --?* ]]; do shift; done; print -rl -- "$@" }
        _files() { print files }; _command_names() { print commands }
        complete() { source $file }; complete' zsh "$directory/zsh/_${1##*/}" "$@" 2>&1
}

# expect TEXTS PROGRAM WORD...: each line of TEXTS is offered for the last word.
expect() {
    local wanted=$1 offered
    shift
    offered=$("complete_in_$shell" "$@")
    missing=$(grep -vxF -f <(printf '%s\n' "$offered") <<<"$wanted") || return 0
    printf 'failed: %s does not offer:\n%s\n' "$*" "$missing"
    bad=1
}

options() { grep -oE '^  (-[A-Za-z],)?--[a-z-]+' | grep -oE -e '--[a-z-]+'; }

for program in "$@"; do
    help=$("$program" --help)
    expect "$(options <<<"$help")" "$program" --
    commands=$(sed -n '/^Subcommands:/,/^$/p' <<<"$help" | grep -oE '^  [a-z]+' | tr -d ' ') || continue
    expect "$commands" "$program" ''
    for command in $commands; do
        expect "$("$program" "$command" --help | options)" "$program" --timeout 5 "$command" 0 --
    done
done

# A stand-in of the peer that has a host with two cameras at one socket.
cat >"$work/zu-camera-peer" <<'END'
#!/usr/bin/env bash
if [ "$1 $3 $5 $6" = "--socket --timeout list --json" ] && [ "$2" = "/run/a b" ]; then
    echo '[{"id":0,"name":"Front Camera","display_name":"x"},{"id":1,"name":"Desk","display_name":"y"}]'
else
    exec "$REAL" "$@"
fi
END
chmod +x "$work/zu-camera-peer"
export REAL=$1
peer=$work/zu-camera-peer
socket='/run/a\ b'
front='Front Camera'
[ "$shell" = zsh ] || front='Front\ Camera'
expect Desk "$peer" --socket "$socket" stats ''
expect "$front" "$peer" --socket "$socket" record ''
expect Desk "$peer" --socket "$socket" record 0 a.mkv ''
expect Desk "$peer" --socket "$socket" camera 0 ''
expect ts "$peer" record 0 - --container ''
exit $bad
