#!/usr/bin/env bash
#
# Configures without tests, with what only tests and benchmarks need hidden, and builds all that users get.
#
# usage: build_without_tests.sh SOURCE-DIRECTORY CMAKE

set -euo pipefail

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
"$2" -S "$1" -B "$dir" -G Ninja -DBUILD_TESTING=OFF -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 \
    -DL2VPN_WERROR=ON -DL2VPN_UNITY=ON \
    -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON
"$2" --build "$dir" -j 2
for file in lib/libl2vpn_ac.so.1 lib/libl2vpn_platform.so.1 lib/libl2vpn_sim.so.1 \
    bin/l2vpnd bin/l2vpnctl bin/l2vpn-trace bin/l2vpn-owner bin/l2vpn-minimal; do
    test -e "$dir/$file"
done
