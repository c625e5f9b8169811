#!/usr/bin/env bash
#
# filtered.sh UNIT PROGRAMS DEMO: the demo with an l2vpnd that has no more system calls than its unit leaves it.

set -euo pipefail
unit=$1 programs=$2 demo=$3
under_filter=$(dirname "${BASH_SOURCE[0]}")/under_filter.py
dir=$(mktemp -d)
daemon=''
clean_up() {
    if [[ -n $daemon ]]; then { kill -KILL "$daemon" && wait "$daemon"; } 2>/dev/null || true; fi
    rm -rf "$dir"
}
trap clean_up EXIT
fail() {
    printf 'filtered.sh: %s\n' "$*" >&2
    exit 1
}

# The filter does hold: a call that no service is to make.
status=0
/usr/bin/python3 "$under_filter" "$unit" /usr/bin/python3 -c 'import ctypes; ctypes.CDLL(None).swapoff(None)' || status=$?
if ((status != 128 + 31)); then fail "swapoff() ended its program with $status, not by SIGSYS"; fi

ln -s "$programs/l2vpnctl" "$programs/l2vpn-owner" "$dir/"
cat >"$dir/l2vpnd" <<EOF
#!/bin/sh
exec /usr/bin/python3 -B '$under_filter' '$unit' '$programs/l2vpnd' "\$@"
EOF
chmod +x "$dir/l2vpnd"
"$demo" "$dir"

# What the demo leaves out: passed over to a new file of options, and stopped.
mkdir -m 700 "$dir/run"
: >"$dir/l2vpnd.conf"
"$dir/l2vpnd" --runtime-dir "$dir/run" --config "$dir/l2vpnd.conf" >"$dir/said" 2>&1 &
daemon=$!
says() {
    local end=$((SECONDS + 60))
    until grep -q "$1" "$dir/said"; do
        if ((SECONDS >= end)); then fail "l2vpnd does not say '$1': $(cat "$dir/said")"; fi
        sleep 0.05
    done
}
says 'ready on'
kill -HUP "$daemon"
says 'read the options again'
kill -TERM "$daemon"
status=0
wait "$daemon" || status=$?
daemon=''
if ((status != 0)); then fail "stopped, l2vpnd ends with $status: $(cat "$dir/said")"; fi
