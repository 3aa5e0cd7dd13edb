#!/usr/bin/env bash
# Builds the test VM's initramfs: busybox, the wireless modules with their
# dependencies, hostapd, iw, the programs under test and their shared libraries,
# the init script and the VM's configuration directory.
#
#   build-initramfs.sh OUTPUT KERNEL_ROOT CONFIG_DIR ITEM...
#
# KERNEL_ROOT is an unpacked kernel package (fetch-kernel.sh). CONFIG_DIR becomes
# /etc/zel-vm; this script adds its "modules" file. Each ITEM is either an
# executable, copied to /bin, or SOURCE=DESTINATION, a data file copied to that
# absolute path.
set -euo pipefail
output=${1:?usage}; kernel_root=${2:?usage}; config=${3:?usage}; shift 3
here=$(cd "$(dirname "$0")" && pwd)

root=$(mktemp -d "${output}.root.XXXXXX")
trap 'rm -rf "$root"' EXIT
chmod 755 "$root"  # the VM's "/": mktemp made it private, the tests also run unprivileged
mkdir -p "$root"/{bin,sbin,usr/bin,usr/sbin,proc,sys,dev,tmp,run,etc,lib/modules}

# An executable and every shared library it needs, at their own paths.
copy_with_libraries() {
    local program=$1 destination=$2
    # Without debug information: a sanitizer build's programs are over 100 MB with it,
    # more than the VM's memory can unpack.
    strip --strip-debug -o "$root/$destination" "$program" 2>/dev/null || cp -L "$program" "$root/$destination"
    ldd "$program" 2>/dev/null | grep -o '/[^ ]*' | while read -r library; do
        if [ ! -e "$root$library" ]; then
            mkdir -p "$root$(dirname "$library")"
            cp -L "$library" "$root$library"
        fi
    done || true  # a script needs no library
}

cp /bin/busybox "$root/bin/busybox"
copy_with_libraries "$(command -v hostapd)" usr/sbin/hostapd
copy_with_libraries "$(command -v iw)" usr/sbin/iw
for item in "$@"; do
    if [[ "$item" == *=* ]]; then
        mkdir -p "$root$(dirname "${item#*=}")"
        cp -L "${item%%=*}" "$root${item#*=}"
    else
        copy_with_libraries "$item" "bin/$(basename "$item")"
    fi
done

# mac80211_hwsim and what it depends on, dependencies first (each .ko names its
# own in its modinfo "depends=" string; the package ships no modules.dep).
modules_dir=$(ls -d "$kernel_root"/lib/modules/*/ | head -n 1)
declare -A loaded=()
order=()
add_module() {
    local name=$1 path dependency
    [ -n "${loaded[$name]:-}" ] && return
    loaded[$name]=1
    path=$(cd "$modules_dir" && find kernel -name "$name.ko" -o -name "${name//_/-}.ko" | head -n 1)
    [ -n "$path" ] || { echo "build-initramfs: module $name not in the kernel package" >&2; exit 1; }
    for dependency in $(grep -a -o 'depends=[A-Za-z0-9_,-]*' "$modules_dir/$path" | head -n 1 |
                        cut -d= -f2 | tr ',' ' '); do
        add_module "$dependency"
    done
    mkdir -p "$root/lib/modules/$(dirname "$path")"
    cp "$modules_dir/$path" "$root/lib/modules/$path"
    order+=("$path")
}
add_module mac80211_hwsim
mkdir -p "$root/etc/zel-vm"
cp -r "$config"/. "$root/etc/zel-vm/"
: > "$root/etc/zel-vm/modules"
for path in "${order[@]}"; do
    params=""
    [[ "$path" == */mac80211_hwsim.ko ]] && params="radios=$(cat "$config/radios")"
    echo "$path $params" >> "$root/etc/zel-vm/modules"
done

cp "$here/init.sh" "$root/init"
chmod +x "$root/init"
(cd "$root" && find . | cpio -o -H newc --quiet) > "$output"
