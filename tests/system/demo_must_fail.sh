#!/usr/bin/env bash
#
# The demo with an l2vpnctl that leaves one AC out of what the process holds: it must notice and fail.
#
# usage: demo_must_fail.sh DIRECTORY-OF-THE-PROGRAMS DEMO

set -euo pipefail

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
ln -s "$1/l2vpnd" "$1/l2vpn-owner" "$dir/"
cat >"$dir/l2vpnctl" <<EOF
#!/usr/bin/env bash
set -o pipefail
'$1/l2vpnctl' "\$@" | grep -v '"name":"port0.110"'
EOF
chmod +x "$dir/l2vpnctl"

status=0
"$2" "$dir" >"$dir/output" || status=$?
cat "$dir/output"
if ((status != 1)); then
    echo "the demo ended with $status, not 1"
    exit 1
fi
grep -q 'port0.110: the process does not hold it' "$dir/output"
