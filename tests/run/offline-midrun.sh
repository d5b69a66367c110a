#!/bin/bash
# pelicane-cli upload loses the network part way through a run: some files are
# in the library, then every new connection fails as "network unreachable".
# The run must stop as offline (exit 1, the offline message) within seconds,
# not retry for ever. Runs the service and the program in a network namespace
# of their own, where the loopback address can be taken away; skips (77)
# where no namespace can be made.
#
# Usage: offline-midrun.sh PELICANE_CLI LYRABOX_DEVSERVER
set -u
cli=$1
devserver=$2

if [ -z "${PELICANE_IN_NAMESPACE:-}" ]; then
    if ! command -v unshare >/dev/null || ! command -v ip >/dev/null || ! command -v curl >/dev/null; then
        echo "SKIP: needs unshare, ip and curl"
        exit 77
    fi
    if ! unshare -n true 2>/dev/null; then
        echo "SKIP: no network namespace here (needs root or user namespaces)"
        exit 77
    fi
    PELICANE_IN_NAMESPACE=1 exec unshare -n "$0" "$@"
fi

mkdir -p "${TMPDIR:-/tmp}"
work=$(mktemp -d)
trap 'kill $server 2>/dev/null; rm -rf "$work"' EXIT
mkdir -p "$work/data" "$work/music" "$work/home"
for i in $(seq -w 1 40); do
    head -c 20000 /dev/urandom >"$work/music/track$i.mp3"
done

ip link set lo up
"$devserver" --port 0 --data "$work/data" --quiet >"$work/server.out" &
server=$!
for _ in $(seq 100); do
    grep -q listening "$work/server.out" && break
    sleep 0.1
done
port=$(sed -n 's/^listening on http:\/\/127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/server.out")
[ -n "$port" ] || { echo "FAIL: the service did not start"; exit 1; }
base=http://127.0.0.1:$port
control() { curl -s -X POST "$base/control/faults" -d "$1" >/dev/null; }
stored() { curl -s "$base/control/library" | grep -o '"md5"' | wc -l; }

export HOME=$work/home XDG_DATA_HOME=$work/home/data XDG_CONFIG_HOME=$work/home/config XDG_CACHE_HOME=$work/home/cache
export PELICANE_API_URL=$base/s/JSON/ PELICANE_UPLOAD_URL=$base/upload/ PELICANE_DOWNLOAD_URL=$base/download/
export PELICANE_EMAIL=demo@lyrabox.test PELICANE_PASSWORD=demo

# Slow uploads, so the run is still going when the network goes.
control '{"endpoint": "upload", "latency_ms": 150, "count": 0}'
"$cli" upload "$work/music" </dev/null >"$work/out" 2>"$work/err" &
run=$!
for _ in $(seq 300); do
    [ "$(stored)" -ge 5 ] && break
    sleep 0.1
done
before=$(stored)
# Let the uploads under way end (cut off), so none is left waiting on a dead
# connection; then take the network away while they wait to retry.
control '{"endpoint": "upload", "drop_after_bytes": 100, "count": 0}'
sleep 1
ip addr flush dev lo
start=$(date +%s)
for _ in $(seq 600); do
    kill -0 $run 2>/dev/null || break
    sleep 0.1
done
if kill -0 $run 2>/dev/null; then
    kill $run
    echo "FAIL: the run went on 60 s after the network went away"
    tail -20 "$work/err"
    tail -20 "$work/home/data/com.lyrabox.pelicane/Pelicane.log"
    exit 1
fi
wait $run
status=$?
took=$(($(date +%s) - start))

fail=0
[ "$before" -ge 5 ] || { echo "FAIL: only $before files arrived before the network went"; fail=1; }
[ "$status" -eq 1 ] || { echo "FAIL: exit status $status, expected 1"; fail=1; }
grep -q "the run stopped: The internet connection appears to be offline." "$work/err" ||
    { echo "FAIL: no offline message"; fail=1; }
if [ $fail -ne 0 ]; then
    tail -20 "$work/err"
    exit 1
fi
echo "PASS: $before of 40 files sent, then offline: exit 1 after ${took} s"
