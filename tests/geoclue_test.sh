#!/usr/bin/env bash
# GeoClue as a client of zel-server, over HTTP and over HTTPS with a CA of the
# test's own: a private system bus, GeoClue pointed at zel-server on loopback, the
# demo agent and where-am-i, all in a network and mount namespace of the test's
# own, so nothing can leave the machine and the host's configuration is untouched.
# Without Wi-Fi on the bus GeoClue posts `{}` to /v1/geolocate, so where-am-i must
# print the position of the loopback range from --ip-ranges.
# Usage: geoclue_test.sh ZEL_SERVER ZEL
# Exit 77 (skipped, with the reason) where GeoClue or namespaces are not to be had.
set -euo pipefail
server=$1
zel=$2
skip() { echo "SKIPPED: $*"; exit 77; }

libexec=/usr/libexec
agent=$libexec/geoclue-2.0/demos/agent
whereami=$libexec/geoclue-2.0/demos/where-am-i
for program in "$libexec/geoclue" "$agent" "$whereami"; do
    [ -x "$program" ] || skip "$program is missing: install geoclue-2.0 geoclue-2-demo"
done
for command in dbus-daemon dbus-send unshare ip openssl mount; do
    command -v "$command" >/dev/null || skip "$command is missing"
done
[ -f /etc/geoclue/geoclue.conf ] || skip "/etc/geoclue/geoclue.conf is missing"

if [ -z "${ZEL_GEOCLUE_INSIDE:-}" ]; then
    # Root gets plain namespaces; anyone else a user namespace mapped to root.
    flags=(-n -m)
    if [ "$(id -u)" -ne 0 ]; then flags=(-r -n -m); fi
    unshare "${flags[@]}" true 2>/dev/null || skip "cannot make network and mount namespaces"
    exec unshare "${flags[@]}" env ZEL_GEOCLUE_INSIDE=1 "$0" "$@"
fi

# Inside the namespaces from here on.
ip link set lo up
ip route add default dev lo  # without a route GeoClue thinks it is offline and never asks
work=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# Two access points, so the server has a tile file; GeoClue hears none of them.
printf 'mac,latitude,longitude\n025A454C0001,46.0,8.9\n025A454C0002,46.001,8.9\n' >"$work/aps.csv"
"$zel" tiles build --realm zel-test -o "$work/tiles.zel" "$work/aps.csv" >/dev/null
printf 'first,last,latitude,longitude,city,country,country_code\n127.0.0.0,127.255.255.255,46.0043,8.9934,Loopback,Nowhere,NW\n' \
    >"$work/ranges.csv"
cat >"$work/bus.conf" <<EOF
<busconfig>
  <type>system</type>
  <listen>unix:path=$work/bus.sock</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="signal"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
  </policy>
</busconfig>
EOF
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/bus.sock"

# A CA and a certificate for 127.0.0.1 signed by it; GeoClue trusts only the CA.
ec=(-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes)
openssl req -x509 "${ec[@]}" -days 2 -subj /CN=zel-geoclue-test-ca -keyout "$work/ca.key" \
    -out "$work/ca.pem" 2>/dev/null
openssl req "${ec[@]}" -subj /CN=127.0.0.1 -keyout "$work/server.key" -out "$work/server.csr" 2>/dev/null
printf 'subjectAltName=IP:127.0.0.1\n' >"$work/san.ext"
openssl x509 -req -in "$work/server.csr" -CA "$work/ca.pem" -CAkey "$work/ca.key" -CAcreateserial \
    -days 2 -extfile "$work/san.ext" -out "$work/server.pem" 2>/dev/null
if [ -f /etc/ssl/certs/ca-certificates.crt ]; then
    mount --bind "$work/ca.pem" /etc/ssl/certs/ca-certificates.crt
else
    mkdir -p /etc/ssl/certs 2>/dev/null && mount -t tmpfs none /etc/ssl/certs &&
        cp "$work/ca.pem" /etc/ssl/certs/ca-certificates.crt || skip "cannot place the test's CA"
fi

# Waits up to $2 tenths of a second for file $1 to match $3.
await() {
    for _ in $(seq "$2"); do
        grep -q "$3" "$1" 2>/dev/null && return 0
        sleep 0.1
    done
    return 1
}

run() {  # scheme, then zel-server's TLS options
    local scheme=$1 name=$1
    shift
    "$server" --tiles "$work/tiles.zel" --realm zel-test --listen 127.0.0.1:0 --ip-ranges "$work/ranges.csv" \
        --add-api-key geoclue-key --access-log "$work/$name-access.log" "$@" \
        >"$work/$name-server.out" 2>&1 &
    pids+=($!)
    await "$work/$name-server.out" 100 "listening on" || { cat "$work/$name-server.out"; return 1; }
    local port
    port=$(sed -n 's/.*listening on [a-z]*:\/\/127.0.0.1:\([0-9]*\).*/\1/p' "$work/$name-server.out" | head -1)
    local url="$scheme://127.0.0.1:$port/v1/geolocate?key=geoclue-key"
    cat >"$work/geoclue.conf" <<EOF
[agent]
whitelist=geoclue-demo-agent
[network-nmea]
enable=false
[3g]
enable=false
[cdma]
enable=false
[modem-gps]
enable=false
[compass]
enable=false
[wifi]
enable=true
url=$url
submit-data=false
submission-url=$scheme://127.0.0.1:$port/v2/geosubmit?key=geoclue-key
submission-nick=zel-test
[geoclue-where-am-i]
allowed=true
system=true
users=
EOF
    mount --bind "$work/geoclue.conf" /etc/geoclue/geoclue.conf
    dbus-daemon --config-file="$work/bus.conf" --nofork >"$work/$name-bus.log" 2>&1 &
    pids+=($!)
    for _ in $(seq 50); do [ -S "$work/bus.sock" ] && break; sleep 0.1; done
    G_MESSAGES_DEBUG=Geoclue "$libexec/geoclue" -t 0 >"$work/$name-geoclue.log" 2>&1 &
    pids+=($!)
    local owned=0
    for _ in $(seq 100); do  # the agent and the client need GeoClue on the bus first
        dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
            org.freedesktop.DBus.NameHasOwner string:org.freedesktop.GeoClue2 2>/dev/null |
            grep -q true && { owned=1; break; }
        sleep 0.1
    done
    [ $owned -eq 1 ] || { echo "GeoClue did not take its bus name"; cat "$work/$name-geoclue.log"; return 1; }
    "$agent" >"$work/$name-agent.log" 2>&1 &
    pids+=($!)
    "$whereami" -t 20 -a 8 >"$work/$name-where.out" 2>&1 &
    local where=$!
    pids+=($where)
    local found=0
    for _ in $(seq 200); do  # where-am-i never exits on a fix: stop it once it printed one
        grep -q "^Longitude:" "$work/$name-where.out" && { found=1; break; }
        kill -0 "$where" 2>/dev/null || break
        sleep 0.1
    done
    kill "$where" 2>/dev/null || true
    umount /etc/geoclue/geoclue.conf
    echo "--- $scheme: where-am-i printed"
    cat "$work/$name-where.out"
    if [ $found -ne 1 ] || ! grep -q '^Latitude: *46\.004300' "$work/$name-where.out" ||
        ! grep -q '^Longitude: *8\.993400' "$work/$name-where.out" ||
        ! grep -q '^Accuracy: *25000\.0' "$work/$name-where.out"; then
        echo "--- $scheme: FAILED; GeoClue's log:"
        tail -30 "$work/$name-geoclue.log"
        echo "--- zel-server's access log:"
        cat "$work/$name-access.log" 2>/dev/null || true
        return 1
    fi
    grep -q '"POST /v1/geolocate HTTP/1.1" 200' "$work/$name-access.log" ||
        { echo "--- $scheme: zel-server logged no answered geolocate request"; return 1; }
    # The next run starts a bus and GeoClue of its own.
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    pids=()
    rm -f "$work/bus.sock"
}

run http
run https --tls-cert "$work/server.pem" --tls-key "$work/server.key"
echo "GeoClue located this machine from zel-server over HTTP and HTTPS"
