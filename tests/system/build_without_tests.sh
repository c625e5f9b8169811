#!/usr/bin/env bash
#
# Configures without tests, with GoogleTest hidden, and builds what users get.
#
# usage: build_without_tests.sh SOURCE-DIRECTORY CMAKE

set -euo pipefail

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
"$2" -S "$1" -B "$dir" -G Ninja -DBUILD_TESTING=OFF -DCMAKE_BUILD_TYPE=Debug -DL2VPN_WERROR=ON \
    -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON
"$2" --build "$dir" -j 2 --target l2vpn_ac l2vpn_platform
test -e "$dir/lib/libl2vpn_ac.so.1"
test -e "$dir/lib/libl2vpn_platform.so.1"
