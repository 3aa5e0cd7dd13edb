#!/usr/bin/env python3
"""Helpers of bench/learn_accuracy.sh: turns the real data sets into what `zel learn`
and `zel determine` read, and sums up the replay. Writes only into the given folder.

  learn_accuracy.py uji-train DATA OUT.csv        observations CSV (mac,lat,lon,rss,time)
  learn_accuracy.py uji-test DATA OUT.jsonl TRUTH.csv
  learn_accuracy.py wigle-test LOG.csv OUT.jsonl TRUTH.csv [WINDOW_S]
  learn_accuracy.py centroid OUT.csv INPUT...     the baseline: each AP at the mean of its
                                                  observations weighted by 10^(RSS/10)
  learn_accuracy.py summary RESULTS.jsonl...      fixes, median, mean, p90, within HPE
"""
import csv
import datetime
import gzip
import json
import math
import statistics
import sys

R = 6378137.0
# UJI lies 5 km west of the prime meridian; a tile's longitude base may not be 0, so
# every position is shifted east by one degree, which keeps every distance.
SHIFT = 1.0


def uji_rows(path):
    with gzip.open(path, "rt") as f:
        reader = csv.reader(f)
        header = next(reader)
        waps = [i for i, name in enumerate(header) if name.startswith("WAP")]
        x, y, t = header.index("LONGITUDE"), header.index("LATITUDE"), header.index("TIMESTAMP")
        for row in reader:
            lon = float(row[x]) / R * 180 / math.pi + SHIFT
            lat = (2 * math.atan(math.exp(float(row[y]) / R)) - math.pi / 2) * 180 / math.pi
            heard = [(int(header[i][3:]), int(row[i])) for i in waps
                     if row[i] != "100" and int(row[i]) < 0]
            yield lat, lon, int(row[t]), heard


def uji_mac(number):
    return "00554A49%04X" % number


def uji_train(data, out):
    with open(out, "w") as f:
        f.write("bssid,lat,lon,level,seconds\n")
        for lat, lon, t, heard in uji_rows(data + "/trainingData.csv.gz"):
            for wap, rss in heard:
                f.write("%s,%.9f,%.9f,%d,%d\n" % (uji_mac(wap), lat, lon, rss, t))


def write_scans(scans, out, truth):
    """scans: [(lat, lon, [(mac, rss)])]; one minute apart so times never collide."""
    with open(out, "w") as f, open(truth, "w") as g:
        g.write("t_ms,latitude,longitude,speed_kmh\n")
        for i, (lat, lon, aps) in enumerate(scans):
            t = 1_500_000_000_000 + i * 60_000
            f.write(json.dumps({"t_ms": t, "aps": [{"mac": m, "rss": r} for m, r in aps]}) + "\n")
            g.write("%d,%.9f,%.9f,0\n" % (t, lat, lon))


def uji_test(data, out, truth):
    scans = [(lat, lon, [(uji_mac(w), r) for w, r in heard])
             for lat, lon, _, heard in uji_rows(data + "/validationData.csv.gz") if heard]
    write_scans(scans, out, truth)


def wigle_test(log, out, truth, window="0"):
    """One scan per second of the log (WiGLE writes partial scans): the rows within
    `window` seconds of it, each MAC at its strongest; the truth the median fix of
    that second."""
    seconds = {}
    with open(log, newline="", errors="replace") as f:
        next(f)
        for row in csv.DictReader(f):
            if row.get("Type") != "WIFI" or row["FirstSeen"].startswith("1970"):
                continue
            lat, lon = float(row["CurrentLatitude"]), float(row["CurrentLongitude"])
            if lat == 0 and lon == 0:
                continue
            t = datetime.datetime.strptime(row["FirstSeen"], "%Y-%m-%d %H:%M:%S").timestamp()
            entry = seconds.setdefault(t, ([], [], {}))
            entry[0].append(lat)
            entry[1].append(lon)
            mac = row["MAC"].replace(":", "").upper()
            entry[2][mac] = max(entry[2].get(mac, -200), int(row["RSSI"]))
    scans = []
    for t, (la, lo, _) in sorted(seconds.items()):
        aps = {}
        for near in range(-int(window), int(window) + 1):
            for mac, rss in seconds.get(t + near, ([], [], {}))[2].items():
                aps[mac] = max(aps.get(mac, -200), rss)
        scans.append((statistics.median(la), statistics.median(lo), sorted(aps.items())))
    write_scans(scans, out, truth)


def observations(path):
    """(mac, lat, lon, rss) of a WiGLE log or of the CSV uji-train writes."""
    with open(path, newline="", errors="replace") as f:
        wigle = f.readline().startswith("WigleWifi-")
        if not wigle:
            f.seek(0)
        for row in csv.DictReader(f):
            if wigle:
                if row.get("Type") != "WIFI" or row["FirstSeen"].startswith("1970"):
                    continue
                mac, lat, lon = row["MAC"], row["CurrentLatitude"], row["CurrentLongitude"]
                rss = row["RSSI"]
            else:
                mac, lat, lon, rss = row["bssid"], row["lat"], row["lon"], row["level"]
            lat, lon, rss = float(lat), float(lon), float(rss)
            if lat != 0 or lon != 0:
                yield mac.replace(":", "").upper(), lat, lon, rss if rss < 0 else -100


def centroid(out, *paths):
    sums = {}
    for path in paths:
        for mac, lat, lon, rss in observations(path):
            w = 10 ** (rss / 10)
            s = sums.setdefault(mac, [0.0, 0.0, 0.0])
            s[0] += w
            s[1] += w * lat
            s[2] += w * lon
    with open(out, "w") as f:
        f.write("mac,latitude,longitude\n")
        for mac, (w, lat, lon) in sorted(sums.items()):
            f.write("%s,%.9f,%.9f\n" % (mac, lat / w, lon / w))


def summary(paths):
    scans, errors, within = 0, [], 0
    for path in paths:
        with open(path) as f:
            for line in f:
                record = json.loads(line)
                if "summary" in record:
                    continue
                scans += 1
                if "error_m" in record:
                    errors.append(record["error_m"])
                    within += record["error_m"] <= record["hpe"]
    errors.sort()
    if not errors:
        print("%d scans, no fix" % scans)
        return
    p90 = errors[max(0, math.ceil(0.9 * len(errors)) - 1)]
    print("%d scans, %d fixes (%.0f%%); error median %.1f m, mean %.1f m, p90 %.1f m; "
          "truth within HPE %.0f%%" % (scans, len(errors), 100 * len(errors) / scans,
                                       statistics.median(errors), statistics.mean(errors), p90,
                                       100 * within / len(errors)))


if __name__ == "__main__":
    command, args = sys.argv[1], sys.argv[2:]
    {"uji-train": uji_train, "uji-test": uji_test, "wigle-test": wigle_test,
     "centroid": centroid}.get(
        command, lambda *a: summary(a))(*args)
