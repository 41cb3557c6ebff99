#!/usr/bin/env bash
# Usage: contract.sh MODULE_DIR
#        contract.sh --headers INCLUDE_DIR [PRECOMPILED]
# Prints the binary contract of the modules, one fact per line: what hosts and codecs that were built elsewhere depend
# on. The first form prints that of this source tree and of the two modules in MODULE_DIR, the second only the part
# that comes from the SDK's headers. PRECOMPILED is a precompiled header that saves time.
#
# Clang's syntax tree names all declarations of the headers. From those names a witness program is generated. It
# derives a class from each interface, so that Clang prints the interface's table, and it prints sizes, offsets and
# values when it runs. A declaration of a kind that this script does not know is an error.
set -euo pipefail

usage() { sed -n '2,3s/^# //p' "$0" >&2; exit 2; }
fail() { printf 'contract.sh: %s\n' "$1" >&2; exit 1; }

# The part from the headers: print_headers INCLUDE_DIR [PRECOMPILED]. $inner names further headers.
inner=()
print_headers() {
    local compile=(clang++-14 -std=c++20 -w -fno-color-diagnostics -I "$1" -I "$root")
    [ $# -eq 1 ] || compile+=(-include-pch "$2")
    (cd "$1" && printf '#include "%s"\n' zumod/*.h "${inner[@]}") >"$work/all.cpp"
    "${compile[@]}" -fsyntax-only -Xclang -ast-dump -Xclang -ast-dump-filter=zumod "$work/all.cpp" >"$work/tree"
    { cat "$work/all.cpp"; generate_witness <"$work/tree"; } >"$work/witness.cpp"
    "${compile[@]}" -Xclang -fdump-vtable-layouts -o "$work/witness" "$work/witness.cpp" >"$work/tables"
    "$work/witness"
    print_tables <"$work/tables"
}

# Reads the syntax tree, writes the functions of the witness program.
generate_witness() {
    cat <<'CODE'
#include <cstdio>
#include <type_traits>
namespace contract {
void Print(const char* text) { std::printf(" = \"%s\"\n", text); }
template <class Number> void Print(Number number) {
    const auto bits = static_cast<unsigned long long>(number);
    if constexpr (std::is_signed_v<Number>) {
        std::printf(" = %lld\n", static_cast<long long>(number));
    } else {
        std::printf(" = %llu (0x%llx)\n", bits, bits);
    }
}
void PrintTemplates() {
    using Owner = zumod::CRefPtr_T<zumod::IReference>;
    std::printf("template CRefPtr_T size %zu returned in %s\n", sizeof(Owner),
                std::is_trivially_copyable_v<Owner> ? "registers" : "a hidden slot");
    std::printf("template CCounted_T size %zu\n", sizeof(zumod::CCounted_T<zumod::IReference>));
    for (const auto& name : {"NV12", "NV21", "I420", "YV12", "YUY2"}) {
        std::printf("format %s", name);
        Print(zumod::VideoFormatCode({name[0], name[1], name[2], name[3], 0}));
    }
}
CODE
    awk '
        # The words of a declaration after its position: flags, then its name.
        function name_of(line) {
            sub(/^[^<]*<[^>]*> ([^ ]*:[^ ]* )?/, "", line)
            while (match(line, /^(referenced|used|implicit|constexpr|class|struct|union) /)) {
                line = substr(line, RLENGTH + 1)
            }
            sub(/ .*/, "", line)
            return line
        }
        # The first quoted type, without the namespace.
        function type_of(line) {
            sub(/^[^\047]*\047/, "", line)
            sub(/\047.*/, "", line)
            gsub(/zumod::/, "", line)
            return line
        }
        function say(code) { body = body "    " code "\n" }
        function text(format, arguments) { say("std::printf(\"" format "\\n\"" arguments ");") }
        { match($0, /^[|` -]*/); depth = RLENGTH + 1; kind = substr($0, depth); sub(/ .*/, "", kind) }
        depth == 1 { next }
        depth == 3 { record = enumeration = "" }
        depth == 3 && kind == "VarDecl" && / constexpr / {
            name = name_of($0)
            say("std::printf(\"constant %s %s\", \"" name "\", \"" type_of($0) "\"); Print(zumod::" name ");")
            next
        }
        depth == 3 && kind == "EnumDecl" {
            enumeration = name_of($0)
            text("enumeration " enumeration ": " type_of($0) ", size %zu", ", sizeof(zumod::" enumeration ")")
            next
        }
        depth == 3 && kind == "CXXRecordDecl" && / definition$/ {
            record = name_of($0)
            polymorphic = 0
            next
        }
        depth == 3 && kind == "TypeAliasDecl" { text("alias " name_of($0) " = " type_of($0), ""); next }
        # Code that is compiled into its user, and checks.
        depth == 3 && kind ~ /^(StaticAssert|Function|FunctionTemplate|ClassTemplate|CXXRecord)Decl$/ { next }
        depth == 3 && kind == "original" { next }
        depth == 3 || kind == "NamespaceDecl" { printf "#error unknown declaration: %s\n", $0; next }
        enumeration != "" && depth == 5 && kind == "EnumConstantDecl" {
            name = name_of($0)
            number = "static_cast<std::underlying_type_t<zumod::" enumeration ">>(zumod::" enumeration "::" name ")"
            say("std::printf(\"enumerator " enumeration "::" name "\"); Print(" number ");")
        }
        record != "" && depth == 5 && kind == "DefinitionData" {
            polymorphic = / polymorphic/
            text((polymorphic ? "class " : "record ") record " size %zu alignment %zu",
                ", sizeof(zumod::" record "), alignof(zumod::" record ")")
            if (polymorphic) {
                tables = tables "struct Table_" record " : zumod::" record " { virtual void End(); };\n" \
                    "void Table_" record "::End() {}\n"
            }
        }
        # No class can be derived from a final one. It is an implementation that is compiled into its user.
        record != "" && depth == 5 && kind == "FinalAttr" { sub("struct Table_" record " .*", "", tables) }
        record != "" && depth == 5 && kind ~ /^(virtual|public|private|protected)$/ {
            base = $0
            sub(/^[|` -]*/, "", base)
            gsub(/\047[^\047]*\047:|\047|zumod::/, "", base)
            text("base " record ": " base, "")
        }
        record != "" && !polymorphic && depth == 5 && kind == "FieldDecl" {
            field = name_of($0)
            text("field " record "." field " " type_of($0) " offset %zu size %zu",
                ", offsetof(zumod::" record ", " field "), sizeof(zumod::" record "::" field ")")
        }
        END {
            printf "%s}\nint main() {\n    using contract::Print;\n%s", tables, body
            printf "    contract::PrintTemplates();\n}\n"
        }
    '
}

# Reads Clang's layouts, writes one line per slot. The slots before 0 hold the offsets to and of virtual bases. The
# table of a base at another address follows with that address.
print_tables() {
    awk '
        function flush(    i) {
            for (i = 0; i < count; ++i) {
                print "slot " interface at " " (i - before) " " slots[i]
            }
            count = 0
        }
        /^Vtable for \047contract::Table_/ {
            interface = $0
            sub(/^.*Table_/, "", interface)
            sub(/\047.*/, "", interface)
            at = ""
            ended = 0
            next
        }
        interface == "" { next }
        /^$/ { flush(); interface = ""; next }
        / RTTI$/ { before = count; next }
        /vtable address --$/ {
            match($0, /, [0-9]+\)/)
            address = substr($0, RSTART + 2, RLENGTH - 3)
            at = address == "0" ? "" : "+" address
            next
        }
        /^ +\[/ { sub(/^ +/, " "); slots[count - 1] = slots[count - 1] $0; next }
        / void contract::Table_.*::End\(\)$/ { ended = 1; flush(); next }
        # The offsets of a further table belong to it, not to the one before.
        ended && / (vcall_offset|vbase_offset|offset_to_top) / && count > 0 && slots[count - 1] !~ /offset/ { flush() }
        {
            sub(/^ *[0-9]+ \| /, "")
            gsub(/contract::Table_[A-Za-z_]*::~[A-Za-z_]*\(\)/, "destructor")
            gsub(/zumod::/, "")
            slots[count++] = $0
        }
    '
}

# The level and the text of every log call of the camera module, and their number.
print_log_texts() {
    local files calls
    files=$(find "$root/src" -name '*.cpp' ! -name '*_test.cpp' ! -path "$root/src/module/log.cpp")
    # shellcheck disable=SC2086 # file names of this project have no spaces
    calls=$(cat $files | grep -c 'ZuModLog(')
    # shellcheck disable=SC2086
    cat $files | tr '\n' ' ' | grep -oE 'ZuModLog\( *kLog[A-Za-z]+, *"([^"\\]|\\.)*"( *"([^"\\]|\\.)*")*' |
        sed -E 's/^ZuModLog\( *//; s/, *"/ "/; s/" +"//g' >"$work/texts"
    [ "$(wc -l <"$work/texts")" -eq "$calls" ] || fail "a call of ZuModLog has a level or a text that is not literal"
    sort -u "$work/texts" >"$work/unique"
    printf 'log texts: %s\n' "$(wc -l <"$work/unique")"
    sed 's/^/log /' "$work/unique"
}

# What the file exports, which libraries it needs, and the newest version of each kind that it needs.
print_binary() {
    local name
    name=$(basename "$1")
    readelf --wide --dyn-syms "$1" >"$work/symbols"
    awk -v name="$name" 'NR > 3 && $7 != "UND" && $5 != "LOCAL" { print "export " name " " $4 " " $5 " " $8 }' \
        "$work/symbols" | sort
    readelf --wide --dynamic "$1" | sed -nE "s/.*\(NEEDED\).*\[(.*)\]/needs $name \1/p" | sort
    grep -oE '@[A-Z]+_[0-9.]+' "$work/symbols" | tr -d @ | sort -Vu |
        awk -F_ -v name="$name" '
            { newest[$1] = $0 }
            END { for (kind in newest) print "newest " name " " newest[kind] }' | sort
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
export LC_ALL=C
case "${1:-}" in
    --headers)
        [ $# -eq 2 ] || [ $# -eq 3 ] || usage
        print_headers "${@:2}"
        ;;
    '' | -*) usage ;;
    *)
        [ $# -eq 1 ] || usage
        cat <<'TEXT'
# The binary contract: what hosts and codecs that were built elsewhere depend on. Written by tests/abi/contract.sh and
# reviewed line by line. A slot below 0 holds an offset to or of a virtual base; "IClientCameraPlugin+8" is the table of
# the base that begins at byte 8. GLIBCXX_3.4.30 is the run-time checks of _GLIBCXX_ASSERTIONS, which are worth needing
# the libstdc++ of GCC 12; without them it would be 3.4.29.
TEXT
        # Interfaces inside the camera module whose tables the contract states. ILockItem and ICObjectMonitor are not
        # among them: no pointer to one leaves the module. lock_test.cpp and object_monitor_test.cpp call their slots.
        inner=(src/base/buffer.h src/base/mem_alloctor.h src/bridge/camera_client.h)
        print_headers "$root/include"
        print_binary "$1/zu-client-camera.so"
        print_binary "$1/zu-codec.so"
        print_log_texts
        ;;
esac
