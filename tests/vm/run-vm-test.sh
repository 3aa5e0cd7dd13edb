#!/usr/bin/env bash
# The scan against a real kernel: boots the Debian kernel under qemu (software
# emulation) with mac80211_hwsim radios, access points of known BSSIDs on some
# radios, a medium that gives each a known signal, and runs the commands of
# tests/vm/commands with the station radio up.
#
#   run-vm-test.sh WORK_DIR CACHE_DIR PROGRAM...
#
# PROGRAMs are copied into the VM's /bin (see build-initramfs.sh for data files);
# they must include zel_vm_hwsim_medium.
# Exit status: 0 when every command exited 0, 1 on a failure, 77 (skipped) when
# qemu, the user-space tools or the kernel cannot be had.
set -euo pipefail
work=${1:?usage}; cache=${2:?usage}; shift 2
here=$(cd "$(dirname "$0")" && pwd)

skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAILED: $*"; exit 1; }

for tool in qemu-system-x86_64 hostapd iw cpio busybox timeout; do
    command -v $tool >/dev/null || skip "$tool is not installed (scripts/install-deps installs it)"
done
ldd "$(command -v busybox)" >/dev/null 2>&1 && skip "busybox is not the static build (busybox-static)"

status=0
kernel_root=$("$here/fetch-kernel.sh" "$cache") || status=$?
[ $status -eq 77 ] && skip "no kernel package could be fetched"
[ $status -eq 0 ] || fail "fetching the kernel"
kernel=$(ls "$kernel_root"/boot/vmlinuz-* | head -n 1)

# The simulated world: radios wlan0..wlan2 are access points that the medium
# makes heard at the given signal; wlan3 is an ad-hoc station that must not be
# reported; wlan4 scans.
rm -rf "$work"; mkdir -p "$work/config"
cat > "$work/config/aps" <<'APS'
wlan0 02:5a:45:4c:00:01 zel-one 1 -45
wlan1 02:5a:45:4c:00:02 zel-two 6 -67
wlan2 02:5a:45:4c:00:03 zel-three 11 -82
APS
echo "wlan3 zel-adhoc 2437" > "$work/config/ibss"
echo wlan4 > "$work/config/station"
echo 5 > "$work/config/radios"
# A sanitized build is too slow under emulation for the one-shot flow's timing.
for program in "$@"; do
    ldd "$program" 2>/dev/null | grep -q libasan && touch "$work/config/sanitized"
done
grep -v '^#' "$here/commands" > "$work/config/commands"
# GeoClue and what it needs, when the host has them (else its check says it skipped).
geoclue=()
for program in /usr/libexec/geoclue /usr/libexec/geoclue-2.0/demos/agent \
    /usr/libexec/geoclue-2.0/demos/where-am-i "$(command -v wpa_supplicant)" \
    "$(command -v dbus-daemon)" "$(command -v dbus-send)" "$(command -v sqlite3)"; do
    [ -x "$program" ] && geoclue+=("$program") || { geoclue=(); break; }
done
[ ${#geoclue[@]} -gt 0 ] || echo "SKIPPED (GeoClue checks): install geoclue-2.0 geoclue-2-demo wpasupplicant dbus sqlite3"

"$here/build-initramfs.sh" "$work/initramfs.cpio" "$kernel_root" "$work/config" "$@" "${geoclue[@]}" ||
    fail "building the initramfs"

echo "booting $(basename "$kernel") under qemu (TCG)"
start=$(date +%s)
status=0
timeout 210 qemu-system-x86_64 -machine q35,accel=tcg -cpu max -m 1024 -smp 1 \
    -nographic -no-reboot -nic none -kernel "$kernel" -initrd "$work/initramfs.cpio" \
    -append "console=ttyS0 rdinit=/init panic=-1 quiet loglevel=3" \
    < /dev/null > "$work/console.log" 2>&1 || status=$?
tr -d '\r' < "$work/console.log"
echo "VM ran $(( $(date +%s) - start )) s"
[ $status -eq 124 ] && fail "the VM did not finish within 210 s"

# Every command must have run and exited 0.
while read -r command; do
    [ -z "$command" ] && continue
    grep -qF "zel-vm: status 0: $command" "$work/console.log" || fail "in the VM: $command"
done < "$work/config/commands"
echo "PASSED: every command in the VM exited 0"
