#!/bin/sh
# A PostgreSQL server of test process PID's own: postgresql.sh PID
# makes a cluster (user "zel", no password) in a new temporary folder and starts the
# server on a Unix socket in that folder only (no TCP), then prints the folder. Once
# process PID has gone, however it ended, the server is stopped and the folder
# removed. initdb and the server refuse to run as root, so under root they run as
# "nobody", who is given the folder.
# Exit status 77: Debian's PostgreSQL server programs are not installed.
set -eu
bin=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -n 1)
[ -n "$bin" ] && [ -x "$bin/initdb" ] && [ -x "$bin/postgres" ] || exit 77
watched=$1
# In /tmp: a socket path must stay short, and nobody must reach the folder.
folder=$(mktemp -d /tmp/zel_pg_XXXXXX)
as=""
if [ "$(id -u)" -eq 0 ]; then
    chown nobody: "$folder"
    as="runuser -u nobody --"
fi
setsid sh -c "while kill -0 $watched 2>/dev/null; do sleep 0.2; done
    $as '$bin/pg_ctl' -D '$folder/data' -m immediate -w stop; rm -rf '$folder'" \
    </dev/null >/dev/null 2>&1 &
if ! $as "$bin/initdb" -D "$folder/data" -U zel -A trust --no-sync --no-locale -E UTF8 \
        >"$folder/initdb.log" 2>&1 ||
   ! $as "$bin/pg_ctl" -D "$folder/data" -l "$folder/server.log" -w \
        -o "-k $folder -c listen_addresses= -c fsync=off -c max_connections=200" start \
        >/dev/null; then
    cat "$folder"/*.log >&2
    exit 1
fi
echo "$folder"
