#!/usr/bin/env bash
# Two zel-server nodes behind HAProxy, sharing one PostgreSQL, all on loopback.
# Clients send a bounded load of location requests and registrations through
# HAProxy; half-way, one node is killed with SIGKILL. Passes when every request was
# answered (HAProxy retries what the dead node dropped on the other one) and every
# registration that was acknowledged is in the database afterwards.
#
#   cluster-test.sh BUILD_DIR SOURCE_DIR [REQUESTS_PER_CLIENT]
# Exit status 77: HAProxy or PostgreSQL's server programs are not installed.
set -euo pipefail
bin=$1/bin
source=$2
per_client=${3:-60}
clients=4

command -v haproxy >/dev/null || { echo "SKIP: haproxy is not installed (scripts/install-deps)"; exit 77; }
for tool in curl jq psql; do
    command -v $tool >/dev/null || { echo "SKIP: $tool is not installed (scripts/install-deps)"; exit 77; }
done
work=$(mktemp -d /tmp/zel_cluster_XXXXXX)
chmod 755 "$work"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do { kill -KILL "$pid" && wait "$pid"; } 2>/dev/null || true; done
    [ -z "${ZEL_KEEP:-}" ] && rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*"
    for log in "$work"/*.err; do echo "--- $log"; tail -n 20 "$log"; done
    exit 1
}

status=0
folder=$("$source/tests/support/postgresql.sh" $$) || status=$?
[ "$status" -ne 77 ] || { echo "SKIP: PostgreSQL's server programs are not installed"; exit 77; }
[ "$status" -eq 0 ] || fail "PostgreSQL did not start"
database="postgresql:///postgres?host=$folder&user=zel"

"$bin/zel" sim city --aps 2000 --size-km 2 --seed 11 -o "$work/city.csv" \
    --tiles "$work/city.zel" --realm acme >/dev/null
"$bin/zel" sim walk --city "$work/city.csv" --seed 3 --minutes 2 --speed-kmh 5 \
    -o "$work/scans.jsonl" --truth "$work/truth.csv" >/dev/null
ns="http://zelapi.net/zel/2005"
auth="<authentication version='2.0'><simple><username>alice</username><realm>acme</realm></simple></authentication>"
jq -r --arg ns "$ns" --arg auth "$auth" 'select((.aps | length) >= 3)
  | "<?xml version=\"1.0\"?><LocationRQ xmlns=\"\($ns)\">\($auth)"
    + ([.aps[:20][] | "<access-point><mac>\(.mac)</mac><signal-strength>\(.rss)</signal-strength></access-point>"] | join(""))
    + "</LocationRQ>"' "$work/scans.jsonl" > "$work/bodies.xml"
bodies=$(wc -l < "$work/bodies.xml")
[ "$bodies" -gt 0 ] || fail "the walk heard no access points"

# Both nodes start at once against the same new database.
for node in 1 2; do
    "$bin/zel-server" --tiles "$work/city.zel" --realm acme --database "$database" \
        --add-user alice --listen 127.0.0.1:0 --trust-proxy --threads 2 \
        --access-log "$work/node$node.log" >"$work/node$node.out" 2>"$work/node$node.err" &
    pids+=($!)
done
port=()
for node in 1 2; do
    for _ in $(seq 100); do
        grep -q "listening on" "$work/node$node.out" && break
        sleep 0.1
    done
    url=$(sed -n 's/^zel-server: listening on //p' "$work/node$node.out")
    [ -n "$url" ] || fail "node $node did not start"
    url=${url#http://127.0.0.1:}
    port[$node]=${url%%/*}
done

# A free port for HAProxy.
for front in $(shuf -i 20000-60000 -n 50); do
    (exec 3<>"/dev/tcp/127.0.0.1/$front") 2>/dev/null || break
done
sed -e "s/FRONT_PORT/$front/" -e "s/NODE1_PORT/${port[1]}/" -e "s/NODE2_PORT/${port[2]}/" \
    "$source/tests/cluster/haproxy.cfg" > "$work/haproxy.cfg"
haproxy -f "$work/haproxy.cfg" -db >"$work/haproxy.out" 2>"$work/haproxy.err" &
pids+=($!)
for _ in $(seq 100); do
    curl -sf "http://127.0.0.1:$front/health" >/dev/null && break
    sleep 0.1
done
curl -sf "http://127.0.0.1:$front/health" >/dev/null || fail "HAProxy does not answer"

# One client: alternately a location request and a registration of a new user,
# each on a new connection; one line per request: kind, HTTP status, verdict, user.
client() {
    local id=$1 n body code answer
    for n in $(seq "$per_client"); do
        sed -n "$(((id * per_client + n) % bodies + 1))p" "$work/bodies.xml" > "$work/body$id"
        code=$(curl -s -o "$work/answer$id" -w '%{http_code}' --max-time 20 \
            -H 'Content-Type: text/xml' --data-binary @"$work/body$id" \
            "http://127.0.0.1:$front/zel2/location") || true
        answer=$(grep -c "<location " "$work/answer$id" || true)
        echo "location $code $([ "$answer" = 1 ] && echo found || echo missing) -"
        body="<?xml version=\"1.0\"?><RegistrationRQ xmlns=\"$ns\">$auth<simple><username>c$id-$n</username><realm>acme</realm></simple></RegistrationRQ>"
        code=$(curl -s -o "$work/answer$id" -w '%{http_code}' --max-time 20 \
            -H 'Content-Type: text/xml' --data-binary "$body" \
            "http://127.0.0.1:$front/zel2/registration") || true
        answer=$(grep -c "<error" "$work/answer$id" || true)
        echo "registration $code $([ "$answer" = 0 ] && echo acknowledged || echo refused) c$id-$n"
    done
}
loaders=()
for id in $(seq "$clients"); do
    client "$id" > "$work/client$id.txt" &
    loaders+=($!)
done
half=$((clients * per_client))  # of 2 * clients * per_client requests
for _ in $(seq 600); do
    [ "$(cat "$work"/client*.txt | wc -l)" -ge "$half" ] && break
    sleep 0.05
done
{ kill -KILL "${pids[0]}" && wait "${pids[0]}"; } 2>/dev/null || true
before=$(cat "$work"/client*.txt | wc -l)
echo "node 1 killed after $before of $((2 * half)) requests"
for pid in "${loaders[@]}"; do wait "$pid"; done

cat "$work"/client*.txt > "$work/all.txt"
total=$(wc -l < "$work/all.txt")
[ "$total" -eq $((2 * half)) ] || fail "$total of $((2 * half)) requests ran"
answered='^(location 200 found|registration 200 (acknowledged|refused))'
unanswered=$(grep -cvE "$answered" "$work/all.txt" || true)
if [ "$unanswered" -ne 0 ]; then
    grep -vE "$answered" "$work/all.txt" | sort | uniq -c | head
    fail "$unanswered requests were not answered"
fi
after=$(grep -c '" 200 ' "$work/node2.log" || true)
[ "$after" -gt "$((total - before))" ] || fail "node 2 answered only $after requests"

# HAProxy's log: connection counts end in the retries, "+N" when redispatched.
retried=$(grep -cE ' [0-9]+/[0-9]+/[0-9]+/[0-9]+/\+?[1-9][0-9]* [0-9]+/[0-9]+ "' "$work/haproxy.out" || true)
[ "$retried" -gt 0 ] || fail "HAProxy retried no request: the kill did not hit the load"

# Every acknowledged registration is in the database.
psql -h "$folder" -U zel -d postgres -Atc "SELECT username FROM users WHERE realm = 'acme'" |
    sort > "$work/stored.txt"
awk '$1 == "registration" && $3 == "acknowledged" {print $4}' "$work/all.txt" | sort > "$work/acknowledged.txt"
lost=$(comm -23 "$work/acknowledged.txt" "$work/stored.txt" | wc -l)
[ "$lost" -eq 0 ] || fail "$lost acknowledged registrations are not in the database"
# A refusal is right only for a user that exists: one the killed node stored just
# before it died, whose retry on the other node then found it.
awk '$1 == "registration" && $3 == "refused" {print $4}' "$work/all.txt" | sort > "$work/refused.txt"
wrong=$(comm -23 "$work/refused.txt" "$work/stored.txt" | wc -l)
[ "$wrong" -eq 0 ] || fail "$wrong registrations were refused"
echo "PASS: $total requests answered through HAProxy ($((total - before)) after node 1 was killed," \
    "$retried of them retried on node 2);" \
    "$(wc -l < "$work/acknowledged.txt") acknowledged registrations, all in PostgreSQL"
