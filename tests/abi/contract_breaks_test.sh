#!/usr/bin/env bash
# Usage: contract_breaks_test.sh WORK_DIR
# Plants breaks in a copy of the SDK's headers and checks that contract.sh prints the line that each of them changes.
# All are planted at once, each in another interface, because a run of the compiler for each would take long.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
include=$here/../../include
work=$1
rm -rf "$work"
mkdir -p "$work"
cp -r "$include" "$work/include"

failures=0
fail() {
    printf 'not so: %s\n' "$1"
    failures=$((failures + 1))
}

expected=()
# plant NAME HEADER SED_SCRIPT LINE...: edits the copy. The difference must have each LINE, with its - or +.
plant() {
    local line header=$work/include/zumod/$2
    cp "$header" "$work/before"
    sed -i -E "$3" "$header"
    ! cmp -s "$work/before" "$header" || fail "\"$1\" changes $2"
    for line in "${@:4}"; do
        expected+=("$1" "$line")
    done
}

plant 'two operations swapped' channel_stream.h \
    's/virtual int Read\(void\* data/virtual int Other(void* data/
     s/virtual int Write\(const void\* data/virtual int Read(void* data/
     s/virtual int Other\(void\* data/virtual int Write(const void* data/' \
    '-slot IChannelStream 4 int IChannelStream::Read(void *, unsigned long, unsigned long *) [pure]' \
    '+slot IChannelStream 4 int IChannelStream::Write(const void *, unsigned long, unsigned long *) [pure]' \
    '-slot IChannelStream 5 int IChannelStream::Write(const void *, unsigned long, unsigned long *) [pure]' \
    '+slot IChannelStream 5 int IChannelStream::Read(void *, unsigned long, unsigned long *) [pure]'

plant 'an operation inserted' codec_decode.h \
    's/^( *)virtual uint64_t GetInputSize/\1virtual uint64_t GetInputTime() = 0;\n&/' \
    '-slot IVDecArgs 5 uint64_t IVDecArgs::GetInputSize() [pure]' \
    '+slot IVDecArgs 5 uint64_t IVDecArgs::GetInputTime() [pure]' \
    '+slot IVDecArgs 7 void IVDecArgs::OnPicture(const VideoDecodedPicture *) [pure]'

plant 'an operation appended' codec.h \
    's/^( *)virtual bool Encode\(.*/&\n\1virtual int ReservedEncoder21() { return 0; }/' \
    '+slot IVEncoder 21 int IVEncoder::ReservedEncoder21()'

plant 'a result type changed' mod_interface.h \
    's/virtual bool SetProperty/virtual int SetProperty/' \
    '-slot IZUModInterface 5 bool IZUModInterface::SetProperty(const char *, IZUModData *) [pure]' \
    '+slot IZUModInterface 5 int IZUModInterface::SetProperty(const char *, IZUModData *) [pure]' \
    '+slot IVEncoder 5 int IZUModInterface::SetProperty(const char *, IZUModData *) [pure]'

plant 'an argument widened' enc_args.h \
    's/PrepareOutput\(uint32_t size\)/PrepareOutput(uint64_t size)/' \
    '-slot IVEncArgs 9 uint64_t IVEncArgs::PrepareOutput(uint32_t) [pure]' \
    '+slot IVEncArgs 9 uint64_t IVEncArgs::PrepareOutput(uint64_t) [pure]'

plant 'a virtual base made plain' mod_data.h \
    's/class IZUModData : public virtual IReference/class IZUModData : public IReference/' \
    '-base IZUModData: virtual public IReference' \
    '+base IZUModData: public IReference' \
    '-slot IZUModData -5 vbase_offset (0)'

plant 'an enumerator changed' runtime.h \
    's/kLogFailure = 4/kLogFailure = 16/' \
    '-enumerator LogLevel::kLogFailure = 4 (0x4)' \
    '+enumerator LogLevel::kLogFailure = 16 (0x10)'

plant 'the text of a key changed' create_policy.h \
    's/"zu\.module\.version"/"zu.module.Version"/' \
    '-constant kPolicyVersion const char[18] = "zu.module.version"' \
    '+constant kPolicyVersion const char[18] = "zu.module.Version"'

# Every run needs the same standard headers.
{ printf '#include <cstdio>\n'; cat "$include"/zumod/*.h | grep '^#include <' | sort -u; } >"$work/standard.h"
clang++-14 -std=c++20 -w -x c++-header -o "$work/standard.pch" "$work/standard.h"
"$here/contract.sh" --headers "$include" "$work/standard.pch" >"$work/intact"
"$here/contract.sh" --headers "$work/include" "$work/standard.pch" >"$work/broken"
diff --unified=0 "$work/intact" "$work/broken" >"$work/difference" || true
for ((i = 0; i < ${#expected[@]}; i += 2)); do
    grep -qxF -e "${expected[i + 1]}" "$work/difference" || fail "${expected[i]} is reported as ${expected[i + 1]}"
done
printf '%d lines expected\n' $((i / 2))

# contract.sh refuses what it cannot print.
printf 'namespace zumod::inner {\ninline constexpr int kHidden = 1;\n}\n' >>"$work/include/zumod/reference.h"
if "$here/contract.sh" --headers "$work/include" "$work/standard.pch" >"$work/broken" 2>"$work/errors"; then
    fail 'a declaration of an unknown kind is refused'
fi
grep -q 'unknown declaration: .*NamespaceDecl.* inner' "$work/errors" || fail 'the refused declaration is named'

[ "$failures" -eq 0 ] || exit 1
rm -rf "$work"
