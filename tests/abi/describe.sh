#!/bin/sh
# describe.sh ROOT LIBRARY STORED [--anew]: what a client is compiled against, functions, symbols and the
# layout of every record that the public headers name, read from the library's debug information, is exactly
# what is stored. --anew stores it: to be done, and reviewed, with every change that is meant.
set -eu
root=$1 library=$2 stored=$3
fresh=$(mktemp)
trap 'rm -f "$fresh"' EXIT

abidw --headers-dir "$root/l2vpn/lib/include" --headers-dir "$root/l2vpn/platform/include" \
    --drop-private-types --exported-interfaces-only --type-id-style hash --no-parameter-names \
    --no-show-locs --no-corpus-path --no-comp-dir-path --no-elf-needed "$library" |
    sed "s|path='[^']*/l2vpn/|path='l2vpn/|" >"$fresh"
if ! grep -q '<function-decl' "$fresh"; then
    echo "describe.sh: $library has no debug information to describe it by" >&2
    exit 2
fi
if [ "${4-}" = --anew ]; then
    cp "$fresh" "$stored"
    exit 0
fi
if ! abidiff --harmless --no-show-locs "$stored" "$fresh"; then
    echo "describe.sh: $library is no longer as $stored says; if that is meant: $0 $1 $2 $3 --anew" >&2
    exit 1
fi
