#!/usr/bin/env bash
#
# use.sh CC CXX CMAKE CONSUMER: builds the programs of the folder CONSUMER against what is installed, by CMake and
# by pkg-config, in C and in C++, and runs them: two owners beside the installed l2vpnd, and a test on the
# simulated platform. Where things are is told by the environment, as a user would: CMAKE_PREFIX_PATH,
# PKG_CONFIG_PATH, PATH, and RPATH for what pkg-config builds.

set -euo pipefail
shopt -s inherit_errexit
cc=$1 cxx=$2 cmake=$3 consumer=$4
work=$(mktemp -d)
daemon=''
clean_up() {
    if [[ -n $daemon ]]; then { kill -KILL "$daemon" && wait "$daemon"; } 2>/dev/null || true; fi
    rm -rf "$work"
}
trap clean_up EXIT
fail() {
    printf 'use.sh: %s\n' "$*" >&2
    exit 1
}

if ! { "$cmake" -S "$consumer" -B "$work/cmake" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" &&
    "$cmake" --build "$work/cmake"; } >"$work/log" 2>&1; then
    fail "the consumer does not build with CMake: $(<"$work/log")"
fi

# flags NAME...: as pkg-config gives them, and where the loader is to look.
flags() {
    pkg-config --cflags --libs "$@"
    if [[ -n ${RPATH-} ]]; then printf '%s\n' "-Wl,-rpath,$RPATH"; fi
}
mkdir "$work/pkg"
mapfile -t owner_flags < <(flags l2vpn_ac | xargs -n 1)
mapfile -t test_flags < <(flags l2vpn_sim l2vpn_ac | xargs -n 1)
warnings=(-Wall -Wextra -Wpedantic -Werror)
"$cc" -std=c11 "${warnings[@]}" -o "$work/pkg/owner_c" "$consumer/owner.c" "${owner_flags[@]}"
"$cxx" -std=c++20 "${warnings[@]}" -o "$work/pkg/owner_cpp" "$consumer/owner.cpp" "${owner_flags[@]}"
"$cxx" -std=c++20 "${warnings[@]}" -o "$work/pkg/owner_test" "$consumer/owner_test.cpp" "${test_flags[@]}"
if [[ $(pkg-config --modversion l2vpn_ac) != 1.* ]]; then fail "pkg-config tells no version 1"; fi

export L2VPN_RUNTIME_DIR=$work/run
mkfifo "$work/says"
l2vpnd --auto-provision --nodeid 7 >"$work/says" &
daemon=$!
read -r -t 60 line <"$work/says" || fail "l2vpnd does not start"
if [[ $line != "l2vpnd: ready on $work/run/L2VPN.sock" ]]; then fail "l2vpnd says: $line"; fi

for way in cmake pkg; do
    for owner in owner_c owner_cpp; do
        said=$(timeout 60 "$work/$way/$owner") || fail "$owner, built with $way, ends with $?"
        if [[ $said != $'create: Success\nprovisioned: 1, 0x1000' ]]; then fail "$owner, built with $way, says: $said"; fi
    done
    timeout 60 "$work/$way/owner_test" >"$work/log" || fail "owner_test, built with $way: $(<"$work/log")"
done
if ! l2vpnctl status >"$work/log" 2>&1; then fail "l2vpnctl: $(<"$work/log")"; fi
kill "$daemon"
status=0
wait "$daemon" || status=$?
daemon=''
if ((status != 0)); then fail "l2vpnd ends with $status"; fi
