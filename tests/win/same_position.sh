#!/usr/bin/env bash
# The sample walk replayed through the on-device determination gives the same fixes
# with zel on Linux and zel.exe under Wine: the same access points, HPE and count
# exactly, and positions within 1e-12 degrees. Not to the bit: sin, cos, acos, pow
# and log10 of mingw-w64 and of glibc differ in the last bit now and then, which
# moves a latitude by one unit in the last place and a speed by up to 0.01 km/h.
#   same_position.sh LINUX_ZEL WINE_RUNNER... -- WINDOWS_ZEL SOURCE_DIR
# Exit status 77 (skipped) when the Linux build is missing.
set -euo pipefail
linux_zel=$1
shift
runner=()
while [ "$1" != "--" ]; do runner+=("$1"); shift; done
windows_zel=$2 source=$3
if [ ! -x "$linux_zel" ]; then
    echo "no Linux zel at $linux_zel: build it first (scripts/build build --target zel)"
    exit 77
fi
arguments=(determine --db "$source/examples/sample-city.zel" --scans "$source/examples/sample-walk.jsonl" --json)
linux=$("$linux_zel" "${arguments[@]}")
windows=$("${runner[@]}" "$windows_zel" "${arguments[@]}" | tr -d '\r')
jq -n --slurpfile l <(echo "$linux") --slurpfile w <(echo "$windows") '
    def near($a; $b; $tolerance): ($a - $b) | fabs <= $tolerance;
    if ($l | length) != ($w | length) or ($l | length) < 100 then error("\($l | length) against \($w | length) fixes") else . end
    | [range(0; $l | length) as $i | $l[$i] as $a | $w[$i] as $b
       | select(($a | del(.latitude, .longitude, .speed, .bearing)) != ($b | del(.latitude, .longitude, .speed, .bearing))
                or (near($a.latitude; $b.latitude; 1e-12) and near($a.longitude; $b.longitude; 1e-12)
                    and near($a.speed; $b.speed; 0.01) and near($a.bearing; $b.bearing; 1e-6) | not))
       | {linux: $a, windows: $b}]
    | if length > 0 then error("fixes differ: \(.[0])") else . end' >/dev/null
same=$(jq -n --slurpfile l <(echo "$linux") --slurpfile w <(echo "$windows") '[range(0; $l | length) as $i | select($l[$i] == $w[$i])] | length')
echo "$(echo "$linux" | wc -l) fixes alike, $same of them to the bit; the last on Linux: $(echo "$linux" | tail -1 | jq -c '{latitude, longitude, hpe, nap}')"
echo "the last on Windows: $(echo "$windows" | tail -1 | jq -c '{latitude, longitude, hpe, nap}')"
