#!/bin/sh
# exports.sh NM LIBRARY LIST: the library's defined dynamic symbols are exactly those of the list.
set -eu
"$1" -D --defined-only "$2" | awk '{ print $NF }' | sort | diff - "$3"
