#!/usr/bin/env bash
# Fetches the Debian kernel that linux-image-amd64 points at and unpacks it, once,
# into a cache directory; later runs reuse it.
#
#   fetch-kernel.sh CACHE_DIR
#
# Prints the unpacked root (holding boot/vmlinuz-* and lib/modules/*) on success.
# Exits 77 when no kernel package can be had (no apt, no network, no such package).
set -euo pipefail
cache=${1:?usage: fetch-kernel.sh CACHE_DIR}
mkdir -p "$cache"

skip() { echo "fetch-kernel: $*" >&2; exit 77; }

command -v apt-cache >/dev/null && command -v apt-get >/dev/null || skip "no apt: cannot fetch a kernel"
command -v dpkg-deb >/dev/null || skip "no dpkg-deb: cannot unpack a kernel"

# The versioned image package (linux-image-6.1.0-NN-amd64) behind the metapackage.
package=$(apt-cache depends linux-image-amd64 2>/dev/null |
          awk '/Depends: linux-image-[0-9]/ { print $2; exit }')
[ -n "$package" ] || skip "apt knows no linux-image-amd64 (run apt-get update?)"

root="$cache/$package"
if [ ! -f "$root/.unpacked" ]; then
    deb=$(ls "$cache/${package}"_*.deb 2>/dev/null | head -n 1 || true)
    if [ -z "$deb" ]; then
        (cd "$cache" && timeout 300 apt-get download "$package" >&2) ||
            skip "apt-get download $package failed"
        deb=$(ls "$cache/${package}"_*.deb | head -n 1)
    fi
    rm -rf "$root"
    dpkg-deb -x "$deb" "$root" || skip "cannot unpack $deb"
    touch "$root/.unpacked"
fi
echo "$root"
