#!/usr/bin/env bash
#
# install.sh CMAKE BUILD CC CXX: installs a build, moves what was installed to another place, and uses it from
# there. Nothing in it may remember where it was built or installed.

set -euo pipefail
shopt -s inherit_errexit
cmake=$1 build=$2 cc=$3 cxx=$4
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    printf 'install.sh: %s\n' "$*" >&2
    exit 1
}

"$cmake" --install "$build" --prefix "$work/first" >/dev/null
options=$work/first/etc/l2vpn/l2vpnd.conf
echo 'max-acs = 17' >>"$options"
cp "$options" "$work/edited"
"$cmake" --install "$build" --prefix "$work/first" >/dev/null
if ! cmp -s "$options" "$work/edited"; then fail "a second installation replaces an edited file of options"; fi
mv "$work/first" "$work/moved"
prefix=$work/moved
lib=$(dirname "$(find "$prefix" -name libl2vpn_ac.so.1)")

missing=()
for file in bin/l2vpnctl bin/l2vpn-trace sbin/l2vpnd include/l2vpn/l2vpn_ac_api.h include/platform/platform.h \
    include/platform/sim.h share/l2vpn/l2vpn-states.bt share/bash-completion/completions/l2vpnctl \
    share/doc/l2vpn_ac/tutorial.md share/doc/l2vpn_ac/performance_cost.svg share/doc/l2vpn_ac/CHANGELOG.md \
    share/doc/l2vpn_ac/examples/{minimal/minimal.c,tutorial/port_owner.c,embed/libuv.c,owner/main.cpp,owner/README.md}; do
    if [[ ! -e $prefix/$file ]]; then missing+=("$file"); fi
done
if grep -q '@l2vpn_' "$prefix"/share/l2vpn/*.bt; then
    missing+=("the paths in share/l2vpn/*.bt")
fi
for soname in libl2vpn_ac.so.1 libl2vpn_platform.so.1 libl2vpn_sim.so.1.0; do
    library=${soname%%.*}
    for file in "$library.so" "$soname" "pkgconfig/${library#lib}.pc"; do
        if [[ ! -e $lib/$file ]]; then missing+=("$lib/$file"); fi
    done
    if ! readelf -d "$lib/$library.so" | grep -F SONAME | grep -q -F "[$soname]"; then
        fail "$library.so has no SONAME $soname"
    fi
done
if ((${#missing[@]} > 0)); then fail "not installed: ${missing[*]}"; fi

# The unit and the scripts for tracers alone say where all was installed: systemd and bpftrace want to know.
unit=lib/systemd/system/l2vpnd.service
if ! grep -q "^ExecStart=$work/first/sbin/l2vpnd " "$prefix/$unit"; then fail "$unit starts something else"; fi
if ! grep -q "^usdt:$work/first/lib/.*libl2vpn_ac\.so\.1:" "$prefix/share/l2vpn/l2vpn-states.bt"; then
    fail "l2vpn-states.bt traces something else"
fi
if found=$(grep -rIl -e "$work/first" -e "$build" "$prefix" | grep -v -e "/$unit$" -e '/share/l2vpn/l2vpn-[a-z]*\.bt$'); then
    fail "these tell of another place: $found"
fi
for file in "$prefix"/bin/* "$prefix"/sbin/* "$lib"/*.so; do
    if readelf -d "$file" | grep -E 'R(UN)?PATH' | grep -v -F "[\$ORIGIN"; then fail "$file looks elsewhere"; fi
done

# The examples need nothing that is not there.
examples=$prefix/share/doc/l2vpn_ac/examples
mapfile -t flags < <(PKG_CONFIG_PATH=$lib/pkgconfig pkg-config --cflags --libs l2vpn_ac libsystemd | xargs -n 1)
for example in minimal/minimal tutorial/first_owner embed/sd_event; do
    sources=("$examples/$example.c")
    if [[ $example == embed/* ]]; then sources+=("$examples/embed/owner.c"); fi
    "$cc" -o "$work/example" "${sources[@]}" "${flags[@]}" || fail "$example.c does not build"
    status=0
    said=$(LD_LIBRARY_PATH=$lib "$work/example" --help 2>&1) || status=$?
    if ((status != 2)) || [[ $said != *'takes no arguments'* ]]; then fail "$example ends with $status: $said"; fi
done
mapfile -t flags < <(PKG_CONFIG_PATH=$lib/pkgconfig pkg-config --cflags l2vpn_ac | xargs -n 1)
"$cxx" -std=c++20 -fsyntax-only "$examples"/owner/*.cpp "${flags[@]}" || fail "owner/*.cpp does not build"

CMAKE_PREFIX_PATH=$prefix PKG_CONFIG_PATH=$lib/pkgconfig RPATH=$lib PATH=$prefix/bin:$prefix/sbin:$PATH \
    "$here/use.sh" "$cc" "$cxx" "$cmake" "$here/consumer"
