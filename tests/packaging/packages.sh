#!/usr/bin/env bash
#
# packages.sh SOURCES RESULTS [BUILT]: builds the Debian packages, as packaging/build-packages.sh does, and looks at
# them: what is in which, what they depend on, what lintian has to say, and whether owners can be built and run with
# what is in them.

set -euo pipefail
shopt -s inherit_errexit
sources=$1 results=$2
"$sources/packaging/build-packages.sh" "$@"

bad=0
complain() {
    printf 'packages.sh: %s\n' "$*" >&2
    bad=1
}

version=$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' "$sources/CMakeLists.txt")
multiarch=usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
file_of() { printf '%s' "$results/$1_${version}"_*.deb; }

# has PACKAGE FILES...: these are in it.
has() {
    local package=$1 file contents
    contents=$(dpkg-deb --fsys-tarfile "$(file_of "$package")" | tar -t | sed 's|^\./||')
    shift
    for file in "$@"; do
        if ! grep -q -x -F "$file" <<<"$contents"; then complain "$package has no $file"; fi
    done
}
has libl2vpn-ac1 "$multiarch/libl2vpn_ac.so.1" "$multiarch/libl2vpn_ac.so.$version" "$multiarch/libl2vpn_platform.so.1"
has libl2vpn-sim1.0 "$multiarch/libl2vpn_sim.so.1.0"
has libl2vpn-ac-dev usr/include/l2vpn/l2vpn_ac_api.h usr/include/platform/platform.h usr/include/platform/sim.h \
    "$multiarch/libl2vpn_ac.so" "$multiarch/libl2vpn_platform.so" "$multiarch/libl2vpn_sim.so" \
    "$multiarch/pkgconfig/l2vpn_ac.pc" "$multiarch/cmake/l2vpn_ac/l2vpn_ac-config.cmake" \
    usr/share/man/man3/l2vpn_ac_create.3.gz usr/share/man/man7/l2vpn_ac.7.gz \
    usr/share/doc/libl2vpn-ac-dev/examples/{minimal/minimal.c,tutorial/first_owner.c,embed/libuv.c,owner/main.cpp,owner/README.md}
has l2vpnd usr/sbin/l2vpnd usr/bin/l2vpnctl usr/bin/l2vpn-trace lib/systemd/system/l2vpnd.service \
    lib/systemd/system/l2vpnd.socket usr/lib/sysusers.d/l2vpnd.conf usr/lib/tmpfiles.d/l2vpnd.conf \
    etc/l2vpn/l2vpnd.conf usr/share/l2vpn/l2vpn-{latency,states,traffic}.bt "$multiarch/wireshark/plugins/l2vpn.lua" \
    usr/share/bash-completion/completions/{l2vpnctl,l2vpnd,l2vpn-trace} usr/share/man/man8/l2vpnd.8.gz
for page in "$sources"/CHANGELOG.md "$sources"/docs/*.md "$sources"/docs/*.svg; do
    has l2vpn-ac-doc "usr/share/doc/l2vpn-ac-doc/${page##*/}"
done
if [[ ${DEB_BUILD_OPTIONS-} != *noautodbgsym* ]]; then
    for package in libl2vpn-ac1 libl2vpn-sim1.0 l2vpnd; do
        symbols=$(dpkg-deb --fsys-tarfile "$(file_of "$package-dbgsym")" | tar -t)
        if ! grep -q 'usr/lib/debug/.build-id/.*\.debug$' <<<"$symbols"; then
            complain "$package-dbgsym has no debug symbols"
        fi
    done
fi

# needs PACKAGE NAMES...: it depends on exactly these, versions aside.
needs() {
    local package=$1 found
    shift
    found=$(dpkg-deb -f "$(file_of "$package")" Depends | tr ',' '\n' | sed -E 's/^ *//; s/ .*//' | LC_ALL=C sort |
        tr '\n' ' ')
    if [[ $found != "$* " ]]; then complain "$package depends on: $found, and not on: $*"; fi
}
needs libl2vpn-ac1 libc6 libgcc-s1 libstdc++6
needs libl2vpn-sim1.0 libc6 libgcc-s1 libstdc++6
needs libl2vpn-ac-dev libl2vpn-ac1 libl2vpn-sim1.0
needs l2vpnd libc6 libgcc-s1 libl2vpn-ac1 libstdc++6 libsystemd0 systemd zlib1g
if ! dpkg-deb -I "$(file_of libl2vpn-ac1)" shlibs | grep -q '^libl2vpn_ac 1 libl2vpn-ac1'; then
    complain "what is linked with libl2vpn_ac.so.1 would not depend on libl2vpn-ac1"
fi

# The service runs once it is installed, and after each boot; its socket is there before any owner.
installs=$(dpkg-deb --ctrl-tarfile "$(file_of l2vpnd)" | tar -x -O ./postinst)
for line in "deb-systemd-helper enable 'l2vpnd.service'" "deb-systemd-helper enable 'l2vpnd.socket'" \
    "deb-systemd-invoke \$_dh_action 'l2vpnd.service' 'l2vpnd.socket'"; do
    if ! grep -q -F "$line" <<<"$installs"; then complain "l2vpnd's postinst has no: $line"; fi
done

said=$(lintian --allow-root --fail-on error,warning "$results"/*.changes 2>&1) || complain "lintian: $said"
if [[ -n $said ]]; then complain "lintian: $said"; fi

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
for package in libl2vpn-ac1 libl2vpn-sim1.0 libl2vpn-ac-dev l2vpnd; do
    dpkg-deb -x "$(file_of "$package")" "$root"
done
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
CMAKE_PREFIX_PATH=$root/usr PKG_CONFIG_PATH=$root/$multiarch/pkgconfig LD_LIBRARY_PATH=$root/$multiarch \
    PATH=$root/usr/bin:$root/usr/sbin:$PATH "$here/use.sh" gcc g++ cmake "$here/consumer" ||
    complain "what is packed cannot be used"
exit $bad
