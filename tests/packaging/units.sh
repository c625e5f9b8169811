#!/usr/bin/env bash
#
# units.sh CMAKE BUILD: installs into a root of its own, and has systemd judge the units there: that they say what
# they mean, and how much they leave open.

set -euo pipefail
shopt -s inherit_errexit
cmake=$1 build=$2
readonly most_exposed=10 # tenths, of 100: how much an intruder in the process could reach
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
fail() {
    printf 'units.sh: %s\n' "$*" >&2
    exit 1
}

DESTDIR=$root "$cmake" --install "$build" --prefix /usr >/dev/null
units=$root/usr/lib/systemd/system
# What every system has, and the units refer to: stand-ins, so that this machine's own are not judged with them.
for target in basic multi-user shutdown sockets sysinit; do
    printf '[Unit]\nDescription=%s\nDefaultDependencies=no\n' "$target" >"$units/$target.target"
done
mkdir -p "$root/bin" "$root/etc"
install -m 755 /dev/null "$root/bin/sh"

# verify UNITS...: what systemd has to say of them.
verify() { systemd-analyze verify --root="$root" --man=no --recursive-errors=no "$@" 2>&1 | grep -F l2vpnd || true; }
said=$(verify "$units/l2vpnd.service" "$units/l2vpnd.socket")
if [[ -n $said ]]; then fail "systemd-analyze verify: $said"; fi
# It does look: neither a setting that does not exist nor a program that is not there is passed over.
sed 's/^ProtectHome=/ProtectHouse=/' "$units/l2vpnd.service" >"$units/l2vpnd-wrong.service"
sed 's|^ExecReload=/bin/sh|ExecReload=/bin/gone|' "$units/l2vpnd.service" >"$units/l2vpnd-gone.service"
said=$(verify "$units/l2vpnd-wrong.service" "$units/l2vpnd-gone.service")
if [[ $said != *ProtectHouse* || $said != */bin/gone* ]]; then fail "systemd-analyze verify passes over faults: $said"; fi
if [[ ! -e $root/etc/l2vpn/l2vpnd.conf ]] || ! grep -q '^ExecStart=.* /etc/l2vpn/l2vpnd.conf$' "$units/l2vpnd.service"; then
    fail "the file of options is not in /etc, or the unit names another"
fi

if ! said=$(systemd-analyze security --root="$root" --offline=yes --threshold="$most_exposed" --no-pager \
    l2vpnd.service 2>&1); then
    fail "systemd-analyze security: $said"
fi

# The user and the folder are made as the units want them.
systemd-sysusers --root="$root" >/dev/null
if ! grep -q '^l2vpn:' "$root/etc/passwd" || ! grep -q '^l2vpn:' "$root/etc/group"; then
    fail "systemd-sysusers makes no user and group l2vpn"
fi
# Not everybody, nor every root, can give the folder away, but anybody can have the file read: the user and group of its
# line are looked up.
made=(--clean)
touch "$root/probe"
if chown 1:1 "$root/probe" 2>/dev/null; then made=(--create); fi
said=$(systemd-tmpfiles --root="$root" "${made[@]}" --prefix=/run/l2vpn 2>&1) || fail "systemd-tmpfiles ends with $?: $said"
if [[ -n $said ]]; then fail "systemd-tmpfiles: $said"; fi
if [[ ${made[*]} == --create ]]; then
    ids=$(sed -n 's/^l2vpn:[^:]*:\([0-9]*\):\([0-9]*\):.*/\1 \2/p' "$root/etc/passwd")
    if [[ $(stat -c '%a %u %g' "$root/run/l2vpn") != "750 $ids" ]]; then
        fail "/run/l2vpn is not made with 0750 for $ids: $(stat -c '%a %u %g' "$root/run/l2vpn")"
    fi
fi
