#!/usr/bin/env bash
# Accuracy of learned tile files on real data nobody here wrote (../shared/realdata),
# and learning throughput on a large simulated set. For each data set: learn from
# its training part with `zel learn`, replay its test part with `zel determine
# --independent` (every scan located afresh), and print fixes, median, mean and p90
# error and the share of fixes whose truth lies within the reported HPE.
#   WiGLE Israel 2017: each log located from the other logs of its group (BM2 and
#     BM3 are one walk area); one scan per second of the log, truth its median fix;
#     also with each scan pooled from the rows within 5 s, as the data's README
#     suggests (WiGLE writes a row only when something changed).
#   UJIIndoorLoc: learned from trainingData, validationData replayed (true metres).
# Each is also replayed on a baseline file: every AP at the plain weighted centroid
# (10^(RSS/10)) of its training observations, quality 50, exponent 0.25.
#
# Usage: bench/learn_accuracy.sh [BUILD_DIR] [REALDATA_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
data=${2:-../shared/realdata}
zel=$build/bin/zel
helper=bench/learn_accuracy.py
[ -x "$zel" ] || { echo "learn_accuracy: build $zel first (scripts/build $build --target zel)" >&2; exit 1; }
command -v python3 >/dev/null || { echo "learn_accuracy: python3 missing (scripts/install-deps)" >&2; exit 1; }
work=$(mktemp -d)
trap '[ -n "${KEEP:-}" ] || rm -rf "$work"' EXIT; [ -z "${KEEP:-}" ] || echo "work: $work" >&2

if [ -d "$data/wigle_israel2017/raw" ]; then
  wigle=$data/wigle_israel2017
  groups=$(tail -n +2 "$wigle/manifest.csv" | python3 -c '
import csv, sys
for row in csv.reader(sys.stdin):
    print(row[0] + "\t" + row[4].replace("BM3", "BM2"))')
  : > "$work/wigle.jsonl.list"
  while IFS=$'\t' read -r file group; do
    others=()
    while IFS=$'\t' read -r other othergroup; do
      [ "$othergroup" = "$group" ] && [ "$other" != "$file" ] && others+=("$wigle/raw/$other")
    done <<< "$groups"
    [ ${#others[@]} -gt 0 ] || continue
    n=$(wc -l < "$work/wigle.jsonl.list")
    "$zel" learn "${others[@]}" -o "$work/w$n.zel" > /dev/null 2> "$work/w$n.learn.log"
    python3 "$helper" wigle-test "$wigle/raw/$file" "$work/w$n.jsonl" "$work/w$n.truth.csv"
    "$zel" determine --independent --json --db "$work/w$n.zel" --scans "$work/w$n.jsonl" \
      --truth "$work/w$n.truth.csv" > "$work/w$n.out"
    python3 "$helper" centroid "$work/w$n.centroid.csv" "${others[@]}"
    "$zel" tiles build -o "$work/w$n.centroid.zel" "$work/w$n.centroid.csv" > /dev/null
    "$zel" determine --independent --json --db "$work/w$n.centroid.zel" --scans "$work/w$n.jsonl" \
      --truth "$work/w$n.truth.csv" > "$work/w$n.centroid.out"
    python3 "$helper" wigle-test "$wigle/raw/$file" "$work/w$n.pooled.jsonl" "$work/w$n.pooled.truth.csv" 5
    "$zel" determine --independent --json --db "$work/w$n.zel" --scans "$work/w$n.pooled.jsonl" \
      --truth "$work/w$n.pooled.truth.csv" > "$work/w$n.pooled.out"
    echo "$work/w$n.pooled.out" >> "$work/pooled.$group.list"
    echo "$work/w$n.out" >> "$work/wigle.jsonl.list"
    echo "$work/w$n.centroid.out" >> "$work/base.$group.list"
    echo "$work/w$n.out" >> "$work/wigle.$group.list"
  done <<< "$groups"
  for list in "$work"/wigle.*.list; do
    name=${list#"$work"/wigle.}; name=${name%.list}; [ "$name" = jsonl ] && name="all groups"
    echo -n "WiGLE Israel 2017, $name ($(wc -l < "$list") logs): "
    python3 "$helper" summary $(cat "$list")
  done
  echo -n "WiGLE Israel 2017, the groups of one walk (all but misc): "
  python3 "$helper" summary $(cat "$work"/wigle.BM*.list "$work"/wigle.course*.list)
  echo -n "  the same, each scan pooled from the rows within 5 s (WiGLE writes partial scans): "
  python3 "$helper" summary $(cat "$work"/pooled.BM*.list "$work"/pooled.course*.list)
  echo -n "  the same pooled, all groups: "
  python3 "$helper" summary $(cat "$work"/pooled.*.list)
  echo -n "  baseline (plain weighted centroid), all groups: "
  python3 "$helper" summary $(cat "$work"/base.*.list)
  echo -n "  baseline (plain weighted centroid), the groups of one walk: "
  python3 "$helper" summary $(cat "$work"/base.BM*.list "$work"/base.course*.list)
else
  echo "learn_accuracy: no $data/wigle_israel2017, skipped"
fi

if [ -d "$data/ujiindoorloc" ]; then
  python3 "$helper" uji-train "$data/ujiindoorloc" "$work/uji_train.csv"
  python3 "$helper" uji-test "$data/ujiindoorloc" "$work/uji.jsonl" "$work/uji.truth.csv"
  "$zel" learn "$work/uji_train.csv" --columns mac=bssid,latitude=lat,longitude=lon,rss=level,time=seconds \
    -o "$work/uji.zel" > /dev/null
  "$zel" determine --independent --json --db "$work/uji.zel" --scans "$work/uji.jsonl" \
    --truth "$work/uji.truth.csv" > "$work/uji.out"
  echo -n "UJIIndoorLoc validation: "
  python3 "$helper" summary "$work/uji.out"
  python3 "$helper" centroid "$work/uji_centroid.csv" "$work/uji_train.csv"
  "$zel" tiles build -o "$work/uji_centroid.zel" "$work/uji_centroid.csv" > /dev/null
  "$zel" determine --independent --json --db "$work/uji_centroid.zel" --scans "$work/uji.jsonl" \
    --truth "$work/uji.truth.csv" > "$work/uji_centroid.out"
  echo -n "  baseline (plain weighted centroid): "
  python3 "$helper" summary "$work/uji_centroid.out"
else
  echo "learn_accuracy: no $data/ujiindoorloc, skipped"
fi

# Throughput: observations of simulated walks (each scan with its true position)
# through a city of 20,000 APs; the time of `zel learn` includes reading the JSON.
"$zel" sim city --aps 20000 --size-km 3 -o "$work/city.csv" > /dev/null
for seed in 1 2 3 4; do
  "$zel" sim walk --city "$work/city.csv" --seed $seed --minutes 120 --period-ms 500 \
    --speed-kmh 30 --with-positions -o "$work/walk$seed.jsonl" --truth "$work/walk$seed.truth.csv" > /dev/null
done
start=$(date +%s.%N)
"$zel" learn "$work"/walk?.jsonl -o "$work/sim.zel" --json > "$work/sim.json"
end=$(date +%s.%N)
python3 - "$work/sim.json" "$start" "$end" <<'PY'
import json, sys
r = json.load(open(sys.argv[1])); s = float(sys.argv[3]) - float(sys.argv[2])
print("learning throughput: %d observations of %d APs in %.2f s: %.0f observations/s"
      % (r["observations"], r["learned"] + r["left_out_moving"], s, r["observations"] / s))
PY
