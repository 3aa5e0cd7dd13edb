#!/usr/bin/env bash
# A real TLS server on the loopback interface with a self-signed certificate, for
# the WinInet tests: openssl s_server answering "GET /ok" with a complete answer.
#   https_server.sh start DIR   writes DIR/port once it listens
#   https_server.sh stop DIR
set -euo pipefail
dir=$2
case "$1" in
start)
    rm -rf "$dir" && mkdir -p "$dir"
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
        -subj /CN=zel.test -keyout "$dir/key.pem" -out "$dir/certificate.pem" 2>/dev/null
    printf 'HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\n<ok/>' >"$dir/ok"
    # In a session of its own: the test runner ends this script's process group.
    (cd "$dir" && exec setsid openssl s_server -accept 127.0.0.1:0 -HTTP -cert certificate.pem \
        -key key.pem </dev/null >log 2>&1) &
    echo $! >"$dir/pid"  # the subshell execs setsid, which execs the server: one pid
    for _ in $(seq 50); do
        port=$(sed -n 's/^ACCEPT 127.0.0.1:\([0-9]*\)$/\1/p' "$dir/log")
        if [ -n "$port" ]; then
            echo "$port" >"$dir/port"
            exit 0
        fi
        sleep 0.1
    done
    echo "openssl s_server did not start: $(cat "$dir/log")"
    exit 1
    ;;
stop)
    kill "$(cat "$dir/pid")" 2>/dev/null || true
    ;;
esac
