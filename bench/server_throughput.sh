#!/usr/bin/env bash
# Throughput of zel-server answering /zel2/location and, with the same scans as JSON,
# /v1/geolocate: distinct 20-AP requests against
# a hashed tile file of 1,000,000 APs, over loopback only, measured with wrk at 16
# and 256 client connections, then at 16 while 1,000 slow clients hold connections
# open trickling their request heads. The anchor, measured in the same run under
# the same load: nginx answering every request with a fixed 200 of the same size
# (what the HTTP work alone costs on this machine). Prints requests/s, p50 and p99.
# Not part of ctest: it needs a Release build and a quiet machine.
#
# Usage: bench/server_throughput.sh [BUILD_DIR] [SECONDS_PER_RUN] [SERVER_THREADS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
seconds=${2:-5}
threads=${3:-$(nproc)}
zel=$build/bin/zel
server_bin=$build/bin/zel-server
slow=$build/bin/slow_clients
for tool in "$zel" "$server_bin" "$slow"; do
  [ -x "$tool" ] || { echo "server_throughput: build $tool first (scripts/build $build)" >&2; exit 1; }
done
command -v wrk >/dev/null || { echo "server_throughput: wrk missing (scripts/install-deps)" >&2; exit 1; }
command -v jq >/dev/null || { echo "server_throughput: jq missing" >&2; exit 1; }
nginx=$(command -v nginx || echo /usr/sbin/nginx)
[ -x "$nginx" ] || { echo "server_throughput: nginx missing (scripts/install-deps)" >&2; exit 1; }

work=$(mktemp -d)
chmod 755 "$work"  # nginx's workers run as nobody under root
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

echo "== data: 1,000,000 APs in a 20 km city, walks through it"
"$zel" sim city --aps 1000000 --size-km 20 --seed 77 -o "$work/city.csv" \
  --tiles "$work/city.zel" --realm bench | sed 's/^/   /'
"$zel" sim walk --city "$work/city.csv" --seed 5 --minutes 10 --speed-kmh 30 \
  -o "$work/scans.jsonl" --truth "$work/truth.csv" | sed 's/^/   /'

# One request document per line: the 20 strongest APs of each scan that heard 20.
ns="http://zelapi.net/zel/2005"
jq -r --arg ns "$ns" 'select((.aps | length) >= 20)
  | "<?xml version='"'"'1.0'"'"'?><LocationRQ xmlns='"'"'\($ns)'"'"' version='"'"'2.3'"'"' street-address-lookup='"'"'none'"'"'><authentication version='"'"'2.0'"'"'><simple><username>bench</username><realm>bench</realm></simple></authentication>"
    + ([.aps | sort_by(-.rss) | .[:20][] | "<access-point><mac>\(.mac)</mac><signal-strength>\(.rss)</signal-strength></access-point>"] | join(""))
    + "</LocationRQ>"' "$work/scans.jsonl" > "$work/bodies.xml"
# The same scans as JSON geolocate requests.
jq -c 'select((.aps | length) >= 20) | {considerIp: false, wifiAccessPoints: [.aps | sort_by(-.rss)
  | .[:20][] | {macAddress: (.mac | ascii_downcase | [scan("..")] | join(":")), signalStrength: .rss}]}' \
  "$work/scans.jsonl" > "$work/bodies.json"
count=$(wc -l < "$work/bodies.xml")
[ "$count" -gt 0 ] || { echo "server_throughput: no scan heard 20 APs" >&2; exit 1; }
echo "   $count distinct 20-AP requests"

cat > "$work/post.lua" <<'LUA'
local bodies = {}
for line in io.lines(os.getenv("ZEL_BODIES")) do bodies[#bodies + 1] = line end
local next_body = 0
wrk.method = "POST"
wrk.headers["Content-Type"] = os.getenv("ZEL_TYPE")
wrk.headers["User-Agent"] = "ZEL API"
request = function()
  next_body = next_body % #bodies + 1
  return wrk.format(nil, nil, nil, bodies[next_body])
end
LUA

# A registered user, so every request also passes the SQLite user check.
"$server_bin" --tiles "$work/city.zel" --realm bench --users "$work/users.db" --add-user bench \
  --add-api-key bench \
  --listen 127.0.0.1:0 \
  --threads "$threads" --access-log "$work/access.log" > "$work/server.out" 2> "$work/server.err" &
pids+=($!)
for _ in $(seq 100); do
  grep -q "listening on" "$work/server.out" 2>/dev/null && break
  sleep 0.1
done
url=$(sed -n 's/^zel-server: listening on //p' "$work/server.out")
[ -n "$url" ] || { echo "server_throughput: zel-server did not start" >&2; cat "$work/server.err" >&2; exit 1; }
echo "== zel-server on $url with $threads threads"

# Every request must be answered with a position, not an error document.
head -n 1 "$work/bodies.xml" | curl -sf --data-binary @- -H 'Content-Type: text/xml' \
  "$url/location" > "$work/answer.xml" || true
if ! grep -q "<location nap=" "$work/answer.xml"; then
  echo "server_throughput: the sample request got no position" >&2; exit 1
fi

if ! head -n 1 "$work/bodies.json" | curl -sf --data-binary @- -H 'Content-Type: application/json' \
     "${url%/zel2}/v1/geolocate?key=bench" | grep -q '"location"'; then
  echo "server_throughput: the sample geolocate request got no position" >&2; exit 1
fi

# The anchor: nginx with as many workers, answering that same document to every request.
for nginx_port in $(shuf -i 20000-60000 -n 50); do
  (exec 3<>"/dev/tcp/127.0.0.1/$nginx_port") 2>/dev/null || break
done
mkdir -p "$work/nginx"
cat > "$work/nginx.conf" <<NGINX
worker_processes $threads;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 4096; }
http {
  access_log off;
  client_body_temp_path $work/nginx/body;
  default_type text/xml;
  server {
    listen 127.0.0.1:$nginx_port;
    location / { return 200 '$(sed "s/'/\\\\'/g" "$work/answer.xml")'; }
  }
}
NGINX
"$nginx" -p "$work/nginx" -c "$work/nginx.conf" -g 'daemon off;' 2> "$work/nginx/start.err" &
pids+=($!)
for _ in $(seq 100); do
  curl -s -o /dev/null "http://127.0.0.1:$nginx_port/" && break
  sleep 0.1
done
anchor="http://127.0.0.1:$nginx_port/zel2"
curl -sf -o /dev/null "$anchor/location" -d x || { echo "server_throughput: nginx did not start" >&2; cat "$work/nginx/start.err" >&2; exit 1; }

run() {  # label base-url route connections [slow-connection-count]
  local name=$1 base=$2 route=$3 connections=$4 slow_count=${5:-0} slow_pid="" out rps p50 p99 errors
  local bodies=$work/bodies.xml type=text/xml
  if [ "$route" = geolocate ]; then bodies=$work/bodies.json type=application/json; fi
  if [ "$slow_count" -gt 0 ]; then
    local port=${base#http://127.0.0.1:}
    "$slow" 127.0.0.1 "${port%%/*}" "$slow_count" $((seconds + 3)) > "$work/slow.out" &
    slow_pid=$!
    sleep 2  # all of them connected and trickling
  fi
  local target=$base/location
  if [ "$route" = geolocate ]; then target=${base%/zel2}/v1/geolocate?key=bench; fi
  out=$(ZEL_BODIES="$bodies" ZEL_TYPE=$type wrk -t2 -c"$connections" -d"${seconds}s" --latency \
        -s "$work/post.lua" "$target")
  [ -z "$slow_pid" ] || wait "$slow_pid"
  rps=$(awk '/^Requests\/sec:/ {print $2}' <<<"$out")
  p50=$(awk '$1 == "50%" {print $2}' <<<"$out")
  p99=$(awk '$1 == "99%" {print $2}' <<<"$out")
  errors=$(awk '/Non-2xx/ {print $NF} /Socket errors/ {print "socket:" $0}' <<<"$out")
  printf "%-11s %-10s %6s %6s %12s %10s %10s %8s\n" "$name" "$route" "$connections" "$slow_count" "$rps" "$p50" "$p99" "${errors:-0}"
}

printf "%-11s %-10s %6s %6s %12s %10s %10s %8s\n" server route conns slow requests/s p50 p99 errors
for connections in 16 256; do
  run zel-server "$url" location "$connections"
  run zel-server "$url" geolocate "$connections"
  run nginx "$anchor" location "$connections"
done
run zel-server "$url" location 16 1000
run nginx "$anchor" location 16 1000
errors=$(grep -vc '" 200 ' "$work/access.log" || true)
echo "== $(wc -l < "$work/access.log") requests logged, $errors not answered 200"
