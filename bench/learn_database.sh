#!/usr/bin/env bash
# Learning from a server's database at scale (not a test):
#   bench/learn_database.sh [BUILD_DIR] [sqlite|postgresql|both] [ACCESS_POINTS]
# fills a database with ACCESS_POINTS (default 1,000,000) access points, five
# observations each, in reports of ten observations, then times with `zel learn
# --database`:
#   full         the first run, folding in every observation (the anchor);
#   write only   a run with nothing new: reading the learned table and writing the
#                tile file, which every run that changed something also does;
#   incremental  a run after 10,000 new reports of ten observations each (100,000
#                observations of 100,000 access points, most of them known).
# Learning throughput: observations folded in per second of the full run, without
# its file writing. PostgreSQL runs on a server of the script's own
# (tests/support/postgresql.sh), with fsync off like the tests'.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
which=${2:-both}
aps=${3:-1000000}
zel=$build/bin/zel
folder=$(mktemp -d /tmp/zel_learn_bench_XXXXXX)
trap 'rm -rf "$folder"' EXIT
observations=$((aps * 5))

now() { date +%s.%N; }

# The SQL client of URL reading standard input.
client() {
    case "$1" in
        sqlite:*) sqlite3 -bail "${1#sqlite:}" ;;
        *) psql -XAtq -v ON_ERROR_STOP=1 "$1" ;;
    esac
}

# Rows 0..$2-1 of a numbers table named n(i), as a WITH clause.
numbers() {
    echo "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < $(($1 - 1)))"
}

# $1 URL. Reports of ten observations, an access point's five observations within
# 20 m of its place on a grid of 55 m by 54 m.
fill() {
    client "$1" <<SQL
$(numbers $((observations / 10)))
INSERT INTO reports (realm, api_key, nickname, received_ms)
SELECT 'bench', 'k', '', 1 FROM n;
$(numbers $observations)
INSERT INTO observations (report_id, realm, mac, latitude, longitude, accuracy, rss, time_ms)
SELECT i / 10 + 1, 'bench', 2199023255552 + i / 5,
       46 + (i / 5 / 1000) * 0.0005 + ((i % 5) * 7 % 9 - 4) * 0.00005,
       9 + (i / 5 % 1000) * 0.0007 + ((i % 5) * 5 % 9 - 4) * 0.00007,
       10, -50 - (i / 5 + (i % 5) * 13) % 40, 1700000000000 + i FROM n;
SQL
}

# $1 URL. 10,000 reports, each of ten access points spread over the whole grid.
report() {
    client "$1" <<SQL
$(numbers 10000)
INSERT INTO reports (realm, api_key, nickname, received_ms)
SELECT 'bench', 'k', '', 2 FROM n;
$(numbers 100000)
INSERT INTO observations (report_id, realm, mac, latitude, longitude, accuracy, rss, time_ms)
SELECT $((observations / 10)) + i / 10 + 1, 'bench', 2199023255552 + (i * 7919) % $aps,
       46 + ((i * 7919) % $aps / 1000) * 0.0005 + 0.0001,
       9 + ((i * 7919) % $aps % 1000) * 0.0007, 10, -60, 1800000000000 + i FROM n;
SQL
}

# $1 what, then the zel learn arguments: prints the seconds and zel's JSON line.
timed() {
    local what=$1 start end line
    shift
    start=$(now)
    line=$("$zel" learn "$@" --realm bench -o "$folder/bench.zel" --json)
    end=$(now)
    printf '%-12s %8.2f s  %s\n' "$what" "$(awk "BEGIN { print $end - $start }")" "$line"
    awk "BEGIN { print $end - $start }" >"$folder/last"
}

bench() {
    local name=$1 url=$2
    echo "== $name: $aps access points, $observations observations"
    "$zel" learn --database "$url" --realm bench -o "$folder/none.zel" >/dev/null 2>&1 || true
    local start
    start=$(now)
    fill "$url"
    printf '%-12s %8.2f s\n' "fill" "$(awk "BEGIN { print $(now) - $start }")"
    timed full --database "$url" --full
    local full
    full=$(cat "$folder/last")
    timed "write only" --database "$url"
    local write
    write=$(cat "$folder/last")
    report "$url"
    timed incremental --database "$url"
    printf 'learning throughput: %.0f observations/s (full run less its file writing)\n' \
        "$(awk "BEGIN { print $observations / ($full - $write) }")"
}

if [ "$which" != postgresql ]; then
    bench SQLite "sqlite:$folder/bench.db"
fi
if [ "$which" != sqlite ]; then
    server=$(tests/support/postgresql.sh $$)
    psql -XAtq "postgresql:///postgres?host=$server&user=zel" -c "CREATE DATABASE bench"
    bench PostgreSQL "postgresql:///bench?host=$server&user=zel"
fi
