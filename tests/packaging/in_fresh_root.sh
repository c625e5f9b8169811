#!/usr/bin/env bash
#
# in_fresh_root.sh: run in a Debian root by fresh_root.sh, with the packages beside it: installs them with what they
# depend on, uses them, and removes them.

set -euo pipefail
shopt -s inherit_errexit
cd "$(dirname "${BASH_SOURCE[0]}")"
fail() {
    printf 'in_fresh_root.sh: %s\n' "$*" >&2
    exit 1
}

apt-get -q -y install --no-install-recommends ./*.deb
if [[ $(ldconfig -p) != *libl2vpn_ac.so.1* ]]; then fail "the loader does not know the library"; fi
if ! getent passwd l2vpn || ! getent group l2vpn; then fail "there is no user or group l2vpn"; fi
if [[ $(stat -c '%U:%G %a' /run/l2vpn) != "l2vpn:l2vpn 750" ]]; then fail "/run/l2vpn: $(stat -c '%U:%G %a' /run/l2vpn)"; fi
if [[ ! -e /etc/systemd/system/sockets.target.wants/l2vpnd.socket ]]; then fail "the socket is not enabled"; fi
./use.sh gcc g++ cmake consumer
apt-get -q -y purge l2vpnd l2vpn-ac-doc libl2vpn-ac-dev libl2vpn-ac1 libl2vpn-sim1.0
for file in /usr/sbin/l2vpnd /etc/l2vpn /usr/include/l2vpn /etc/systemd/system/sockets.target.wants/l2vpnd.socket; do
    if [[ -e $file ]]; then fail "$file stays when the packages are removed"; fi
done
