#!/usr/bin/env bash
#
# The whole life of an inventory: created, provisioned, changed, and created anew when the L2VPN process died.
# Every step is checked against what the process holds; the exit status is 0 only when all of it was right.
#
# usage: demo.sh DIRECTORY-OF-THE-PROGRAMS

set -Eeuo pipefail
shopt -s inherit_errexit

if (($# != 1)) || [[ ! -x $1/l2vpnd ]]; then
    printf 'usage: demo.sh DIRECTORY-OF-THE-PROGRAMS\n' >&2
    exit 2
fi
bin=$(cd "$1" && pwd)
sample=$(cd "$(dirname "${BASH_SOURCE[0]}")/owner" && pwd)
readonly bin sample
readonly patience=60 # seconds that any step may take

if [[ -t 1 ]]; then
    readonly bold=$'\e[1m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m'
else
    readonly bold='' green='' red='' plain=''
fi

dir=$(mktemp -d "${TMPDIR:-/tmp}/l2vpn-demo.XXXXXX")
readonly dir inventory=$dir/inventory.csv mstp=$sample/mstp.conf owner_log=$dir/owner.log daemon_log=$dir/l2vpnd.log
daemon=''
owner=''

# Also keeps the shell from saying that a program of its own was killed.
kill_hard() {
    if [[ -n $1 ]]; then { kill -KILL "$1" && wait "$1"; } 2>/dev/null || true; fi
}

clean_up() {
    kill_hard "$owner"
    kill_hard "$daemon"
    rm -rf "$dir"
}
trap clean_up EXIT
trap 'exit 1' INT TERM

step_number=0
step() {
    ((step_number += 1))
    printf '\n%s%d  %s%s\n' "$bold" "$step_number" "$*" "$plain"
}
show() { cut -c 1-116 | sed 's/^/   /'; }
# Reads to the end, so that the program before it in a pipe never meets a closed one.
first() { sed -n "1,$1p"; }
right() { printf '   %sok%s  %s\n' "$green" "$plain" "$*"; }
fail() {
    printf '   %sFAILED%s  %s\n' "$red" "$plain" "$*"
    printf '\nthe last lines of the owner:\n'
    tail -n 5 "$owner_log" 2>/dev/null | show || true
    printf 'the last lines of l2vpnd:\n'
    tail -n 5 "$daemon_log" 2>/dev/null | show || true
    exit 1
}

trap 'fail "line $LINENO of the demo: $BASH_COMMAND"' ERR

# wait_for WHAT COMMAND...: until the command succeeds.
wait_for() {
    local what=$1 end=$((SECONDS + patience))
    shift
    until "$@"; do
        if ((SECONDS >= end)); then fail "not within $patience s: $what"; fi
        sleep 0.05
    done
}

ctl() { "$bin/l2vpnctl" --runtime-dir "$dir" "$@"; }

# What the owner has said since the last `listen`.
heard=0
listen() { heard=$(wc -l <"$owner_log"); }
owner_said() { tail -n +$((heard + 1)) "$owner_log"; }
owner_says() { owner_said | grep -E -e "$1" >/dev/null; }
# No line at all is no failure, which would be told where a number is awaited.
says_times() { (($(owner_said | { grep -c -E -e "$1" || true; }) >= $2)); }

start_daemon() {
    : >"$daemon_log"
    "$bin/l2vpnd" --runtime-dir "$dir" --auto-provision >"$daemon_log" 2>&1 &
    daemon=$!
    wait_for 'l2vpnd is ready' grep -q 'ready on' "$daemon_log"
    right "$(grep 'ready on' "$daemon_log")"
}

holds_inventory() {
    ctl show acs --json --raw 2>/dev/null |
        "$bin/l2vpn-owner" --inventory "$inventory" --compare - >"$dir/compared" 2>&1
}
holds_scenario() {
    ctl show mstp --json --raw 2>/dev/null |
        "$bin/l2vpn-owner" --inventory "$inventory" --mstp "$mstp" --compare-mstp - >"$dir/compared" 2>&1
}
# The messages may still be on their way, so a difference counts only when it stays.
check_held() {
    local end=$((SECONDS + patience / 4))
    until "$1"; do
        if ((SECONDS >= end)); then
            show <"$dir/compared"
            fail 'the process does not hold what the owner was to hand over'
        fi
        sleep 0.05
    done
    right "$(cat "$dir/compared")"
}

# Class 7 cannot be provisioned: no layout of data exists for it.
provisionable() { grep -c -v -E '^#|^name|^$|^[^,]*, 7,' "$inventory"; }
provisioned() { (($(ctl show acs --state provisioned --json | grep -c '"handle"') == $1)); }
told_provisioned() {
    (($(owner_said | sed -n -E 's/.*: provisioned ([0-9]+) ACs?, with the information that was given/\1/p' |
        paste -s -d + - | sed 's/^$/0/') == $1))
}
check_provisioned() {
    local count
    count=$(provisionable)
    wait_for "$count ACs are provisioned" provisioned "$count"
    wait_for "the owner was told so, with its own information in the data" told_provisioned "$count"
    right "$count ACs provisioned; the owner decoded their data and found its own information in them"
}

# change SED-SCRIPT: the inventory is written anew, as an editor does it.
change() {
    listen
    sed -E "$1" "$inventory" >"$dir/inventory.new"
    mv "$dir/inventory.new" "$inventory"
    wait_for 'the owner saw the change' owner_says '^inventory changed'
    wait_for 'the owner sent the change' owner_says '^all [0-9]+ ACs created'
    owner_said | grep -E 'inventory changed|updated|deleted' | show
}

# --------------------------------------------------------------------------------------------------------

cp "$sample/inventory.csv" "$inventory"
: >"$owner_log"

step 'The L2VPN process starts'
start_daemon

step 'An interface owner hands over its inventory and a spanning-tree scenario'
"$bin/l2vpn-owner" --inventory "$inventory" --watch --mstp "$mstp" --runtime-dir "$dir" >"$owner_log" 2>&1 &
owner=$!
wait_for 'the owner has handed over everything' owner_says '^all 300 ACs created'
owner_said | grep -E 'created|MSTP' | show
check_held holds_inventory
printf '   what l2vpnd says about it:\n'
ctl show clients | awk 'NF >= 13 { printf "%-7s%5s%10s%9s%6s\n", $3, $9, $11, $12, $13 }' | show
ctl show acs --class 6 | first 4 | show

step 'The process provisions them'
check_provisioned
ctl show acs --state provisioned --class 2 | first 3 | show

step 'The VLAN map, 4,094 entries in one batch of several requests, and the rest of the scenario'
check_held holds_scenario

step 'Twenty interfaces get another pseudowire in the inventory'
change 's/ pw=70([01][0-9]),/ pw=81\1,/'
owner_says '0 to create, 20 to update, 0 to replace, 0 to delete' || fail 'it should be 20 updates'
check_held holds_inventory

step 'Ten interfaces vanish from the inventory'
change '/^mgmt1\./d'
owner_says '0 to create, 0 to update, 0 to replace, 10 to delete' || fail 'it should be 10 deletes'
check_held holds_inventory

step 'The process sends a flags notice to the client of class 11'
listen
ctl notify flags --class 11 --flags 0x40 >/dev/null
wait_for 'the owner has the notice' owner_says '^class 11: notice, flags 0x00000042'
right "$(owner_said | grep 'notice')"

step 'The process is killed with SIGKILL, and started again'
listen
kill_hard "$daemon"
wait_for 'the owner saw all its clients DOWN' says_times '^class [0-9]+: DOWN' 9
right "$(owner_said | grep -c DOWN) clients went DOWN"
listen
start_daemon
wait_for 'the owner handed over everything again' owner_says '^all 290 ACs created'
right "$(owner_said | grep -c ': UP$') clients came UP, and created everything anew"
check_held holds_inventory
check_held holds_scenario
check_provisioned

kill -TERM "$owner"
wait "$owner" || fail 'the owner did not end well'
owner=''
printf '\n%severything was as it should be%s\n' "$bold$green" "$plain"
