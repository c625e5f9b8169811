#!/usr/bin/env bash
#
# build-packages.sh SOURCES RESULTS [BUILT]: Debian packages of the sources, in the folder RESULTS. They are built
# anew, with the distribution's compiler options; with BUILT, what that build made is packed as it is.

set -euo pipefail
shopt -s inherit_errexit
sources=$(cd "$1" && pwd)
results=$2
tree=$results/l2vpn-ac

rm -rf "$results"
mkdir -p "$tree"
results=$(cd "$results" && pwd)
tar -C "$sources" -c CHANGELOG.md CMakeLists.txt cmake docs examples l2vpn packaging | tar -C "$tree" -x
cp -r "$tree/packaging/debian" "$tree/debian"
if (($# > 2)); then
    L2VPN_BUILT=$(cd "$3" && pwd)
    export L2VPN_BUILT
fi
cd "$tree"
dpkg-buildpackage --build=binary --no-sign >"$results/build.log" 2>&1 || {
    tail -n 40 "$results/build.log" >&2
    echo "build-packages.sh: no packages; the whole log: $results/build.log" >&2
    exit 1
}
