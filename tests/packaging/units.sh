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
# What every system has, and the units refer to.
for folder in /usr/lib/systemd/system /lib/systemd/system; do
    if [[ -e $folder/sysinit.target ]]; then cp "$folder"/*.target "$folder"/*.slice "$folder"/*.mount "$units"; fi
done
mkdir -p "$root/bin" "$root/etc"
cp /bin/kill "$root/bin/kill"

# verify UNITS...: silent, or what systemd has to say of them.
verify() { systemd-analyze verify --root="$root" --man=no --recursive-errors=yes "$@" 2>&1; }
said=$(verify "$units/l2vpnd.service" "$units/l2vpnd.socket") || fail "systemd-analyze verify ends with $?: $said"
if [[ -n $said ]]; then fail "systemd-analyze verify: $said"; fi
# It does look: a setting that does not exist is not passed over.
sed 's/^ProtectHome=/ProtectHouse=/' "$units/l2vpnd.service" >"$units/wrong.service"
said=$(verify "$units/wrong.service") || true
if [[ $said != *ProtectHouse* ]]; then fail "systemd-analyze verify passes over a wrong unit: $said"; fi

if ! said=$(systemd-analyze security --root="$root" --offline=yes --threshold="$most_exposed" --no-pager \
    l2vpnd.service 2>&1); then
    fail "systemd-analyze security: $said"
fi

# The user and the folder are made as the units want them.
systemd-sysusers --root="$root" >/dev/null
if ! grep -q '^l2vpn:' "$root/etc/passwd" || ! grep -q '^l2vpn:' "$root/etc/group"; then
    fail "systemd-sysusers makes no user and group l2vpn"
fi
if ((EUID == 0)); then
    systemd-tmpfiles --root="$root" --create --prefix=/run/l2vpn
    if [[ $(stat -c '%a %G' "$root/run/l2vpn") != "750 "* ]]; then fail "/run/l2vpn is not made, or not with 0750"; fi
fi
