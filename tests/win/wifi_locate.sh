#!/usr/bin/env bash
# zel.exe locate under Wine, scanning through the Native Wifi adapter with the
# wlanapi.dll double answering the sample walk's first scan, gives the fix zel locate
# gives on Linux replaying that scan, to the bit, and the position of zel determine
# within 1e-12 degrees: determine sums the access points in the order heard, locate
# in its own order, which may move the last bit.
#   wifi_locate.sh LINUX_ZEL WINE_RUNNER... -- WINDOWS_ZEL WLANAPI_DOUBLE SOURCE_DIR WORK_DIR
# Exit status 77 (skipped) when the Linux build is missing.
set -euo pipefail
linux_zel=$1
shift
runner=()
while [ "$1" != "--" ]; do runner+=("$1"); shift; done
windows_zel=$2 double=$3 source=$4 work=$5
if [ ! -x "$linux_zel" ]; then
    echo "no Linux zel at $linux_zel: build it first (scripts/build build --target zel)"
    exit 77
fi
# A program folder of the test's own: the double never sits beside shipped programs.
rm -rf "$work"
mkdir -p "$work"
cp "$windows_zel" "$double" "$work/"
head -1 "$source/examples/sample-walk.jsonl" >"$work/scan.jsonl"
{
    echo "interface 1 Scripted Wireless"
    jq -r '.aps[] | "bss \(.mac) \(.rss) 1"' "$work/scan.jsonl"
} >"$work/wlan"
db=$source/examples/sample-city.zel
linux=$("$linux_zel" locate --db "$db" --replay "$work/scan.jsonl" --json)
determined=$("$linux_zel" determine --db "$db" --scans "$work/scan.jsonl" --json)
# wlanapi=n: without the double beside it the program finds no adapter and fails.
windows=$(cd "$work" && ZEL_TEST_WLAN_SCRIPT=wlan ZEL_WINEDLLOVERRIDES=wlanapi=n \
    "${runner[@]}" ./"$(basename "$windows_zel")" locate --db "$db" --json | tr -d '\r')
jq -n --argjson l "$linux" --argjson w "$windows" --argjson d "$determined" '
    def near($a; $b): ($a - $b) | fabs <= 1e-12;
    [$l, $w] | map({latitude, longitude, hpe, nap}) | if .[0] != .[1] or .[0].nap < 3
        or (near($d.latitude; $w.latitude) and near($d.longitude; $w.longitude) | not)
    then error("Linux \(.[0]), Windows \(.[1]), determine \($d | {latitude, longitude})") else . end' >/dev/null
echo "the same fix on both: $(echo "$windows" | jq -c '{latitude, longitude, hpe, nap}')"
