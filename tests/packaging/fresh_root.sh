#!/usr/bin/env bash
#
# fresh_root.sh RESULTS: installs the packages of the folder RESULTS into a Debian root that has nothing but a compiler,
# CMake and pkg-config, and builds and runs consumers there, outside of the sources. Needs mmdebstrap, and what it
# fetches the root with: the package sources of this machine.

set -euo pipefail
shopt -s inherit_errexit
results=$(cd "$1" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# shellcheck source=/dev/null
suite=$(. /etc/os-release && printf '%s' "$VERSION_CODENAME")
# shellcheck disable=SC2016 # the variables are apt's
mirror=$(apt-get indextargets --format '$(RELEASE) $(SITE)' 'Created-By: Packages' 'Component: main' |
    awk -v suite="$suite" '$1 == suite { print $2; exit }')
if [[ -z $mirror ]]; then
    echo "fresh_root.sh: this machine has no package source of Debian $suite" >&2
    exit 1
fi

mkdir "$work/given"
cp -r "$here/in_fresh_root.sh" "$here/use.sh" "$here/consumer" "$work/given"
find "$results" -maxdepth 1 -name '*.deb' ! -name '*-dbgsym_*' -exec cp -t "$work/given" {} +
if ! mmdebstrap --quiet --variant=apt --include=cmake,g++,make,pkg-config --customize-hook="copy-in $work/given /" \
    --customize-hook="chroot \"\$1\" /given/in_fresh_root.sh" "$suite" /dev/null "$mirror" >"$work/log" 2>&1; then
    tail -n 40 "$work/log" >&2
    echo "fresh_root.sh: the packages cannot be installed, used or removed there" >&2
    exit 1
fi
