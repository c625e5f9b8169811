#!/usr/bin/env bash
# alone.sh CC CXX ROOT: what stands alone does. Each public header compiles by itself, as C and as C++; the
# library and its headers compile against the platform's contract and nothing else of a platform; and a value
# that does not fit its format does not compile.
set -euo pipefail
cc=$1 cxx=$2 root=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
lib=$root/l2vpn/lib/include
platform=$root/l2vpn/platform/include
options=(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -D_GNU_SOURCE -fsyntax-only)

# compiles LANGUAGE FILE OPTIONS...
compiles() {
    language=$1 file=$2
    shift 2
    case $language in
        c) "$cc" -std=c11 -x c "${options[@]}" "$@" "$file" ;;
        c++) "$cxx" -std=c++20 -x c++ "${options[@]}" "$@" "$file" ;;
    esac
}

for header in "$lib"/l2vpn/*.h "$platform"/platform/*.h; do
    name=${header#"$lib"/}
    name=${name#"$platform"/}
    printf '#include <%s>\n#include <%s>\ntypedef int not_empty;\n' "$name" "$name" >"$work/alone"
    compiles c++ "$work/alone" -I"$lib" -I"$platform"
    if [ "$name" != platform/sim.h ]; then # which is for C++ tests
        compiles c "$work/alone" -I"$lib" -I"$platform"
    fi
done

mkdir -p "$work/contract/platform"
cp "$root/tests/abi/contract_platform.h" "$work/contract/platform/platform.h"
compiles c "$root/tests/abi/headers.c" -I"$lib" -I"$work/contract"
compiles c++ "$root/tests/abi/headers.cpp" -I"$lib" -I"$work/contract"
for source in "$root"/l2vpn/lib/src/*.cpp; do
    compiles c++ "$source" -I"$lib" -I"$work/contract" -I"$root/l2vpn/probes"
done

# calls FUNCTION-CALL: compiles a program that makes it.
calls() {
    printf '#include <platform/platform.h>\nint main(void)\n{\n    %s;\n    return 0;\n}\n' "$1" >"$work/call"
    compiles c "$work/call" -I"$platform" 2>/dev/null
}
for call in \
    'gen_format_debug_fmt(1, "f", 1, "%s", VALUE)' 'gen_dbg_ltrace_ctx(1, "f", 1, "%s", VALUE)' \
    'gen_ltrace(1, "%s", VALUE)' 'l2vpn_ltrace(1, "%s", VALUE)' 'vy_syslog(6, "%s", VALUE)' \
    'l2vpn_generic_gen_dbg_ltrace_ctx(0, 0, 163, "f", 1, "%s", VALUE)'; do
    calls "$(printf %s "$call" | sed 's/VALUE/"text"/')"
    if calls "$(printf %s "$call" | sed 's/VALUE/1/')"; then
        echo "a number for a text compiles: $call" >&2
        exit 1
    fi
done
