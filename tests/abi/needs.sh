#!/bin/sh
# needs.sh NM LIBRARY PLATFORM CONTRACT: what the library leaves undefined and the platform defines is part of
# the contract, and nothing else of the platform's is used.
set -eu
wanted=$(mktemp)
trap 'rm -f "$wanted"' EXIT
"$1" -D --undefined-only "$2" | awk '{ sub(/@.*/, "", $NF); print $NF }' | sort -u >"$wanted"
"$1" -D --defined-only "$3" | awk '{ sub(/@.*/, "", $NF); print $NF }' | sort -u | comm -12 "$wanted" - |
    diff - "$4"
