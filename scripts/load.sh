#!/usr/bin/env bash
# Runs `faitra serve` on a scratch directory while `faitra gen` writes
# captures into it and faitra_load sends reads and deletions at its API on
# loopback; prints faitra_load's figures (requests per second, latency,
# errors, the daemon's resident memory) and the daemon's exit status.
#
#   scripts/load.sh [--seconds N] [--clients N] [--rate FILES_PER_S] [--size BYTES]
#
# Defaults: 60 s, 2 clients, 100 captures of 64K per second. A soak is the
# same with --seconds 600. The directory is a 256 MiB tmpfs when the script
# may mount one (so the automatic cleanup runs as well), a plain temporary
# directory otherwise. Builds build/default first. Exit status: faitra_load's
# (1 when any request failed), or 1 when the daemon did not stop cleanly.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60 clients=2 rate=100 size=64K
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds="$2"; shift 2 ;;
    --clients) clients="$2"; shift 2 ;;
    --rate) rate="$2"; shift 2 ;;
    --size) size="$2"; shift 2 ;;
    -h|--help) sed -n '2,14p' "$0"; exit 0 ;;
    *) echo "unknown argument: $1" >&2; exit 2 ;;
  esac
done

build=build/default
scripts/install-deps.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target faitra_cli faitra_load -j"$(nproc)" >/dev/null
faitra="$build/apps/faitra"
load="$build/tools/faitra_load"

scratch=$(mktemp -d /tmp/faitra-load-XXXXXX)
captures="$scratch/captures"
mkdir -p "$captures"
mounted=0
if mount -t tmpfs -o size=256m faitra-load "$captures" 2>/dev/null; then mounted=1; fi
daemon_pid="" gen_pid=""
cleanup() {
  [ -n "$gen_pid" ] && kill "$gen_pid" 2>/dev/null && wait "$gen_pid" 2>/dev/null || true
  [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null && wait "$daemon_pid" 2>/dev/null || true
  [ "$mounted" -eq 1 ] && umount "$captures" || true
  rm -rf "$scratch"
}
trap cleanup EXIT

"$faitra" serve --root "$captures" --listen 127.0.0.1:0 --log-stdout --trigger 0.8 --stop 0.6 \
  >"$scratch/daemon.log" 2>&1 &
daemon_pid=$!
port=""
for _ in $(seq 1 600); do
  port=$(sed -n 's/.*Listening on 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$scratch/daemon.log" | head -1)
  [ -n "$port" ] && break
  kill -0 "$daemon_pid" 2>/dev/null || { cat "$scratch/daemon.log" >&2; exit 1; }
  sleep 0.1
done
[ -n "$port" ] || { echo "the daemon did not start listening" >&2; exit 1; }

"$faitra" gen "$captures" --rate "$rate" --size "$size" --count 0 -q 2>"$scratch/gen.log" &
gen_pid=$!

echo "daemon pid $daemon_pid on 127.0.0.1:$port; $captures ($([ "$mounted" -eq 1 ] && echo tmpfs 256M || echo plain directory));" \
  "gen --rate $rate --size $size; $clients clients for $seconds s"
status=0
"$load" --listen "127.0.0.1:$port" --seconds "$seconds" --clients "$clients" --pid "$daemon_pid" || status=$?

kill "$gen_pid"; wait "$gen_pid" || true; gen_pid=""
echo "captures catalogued at the end: $(curl -s "http://127.0.0.1:$port/metrics" | sed -n 's/^faitra_captures \([0-9]*\).*/\1/p')"
kill "$daemon_pid"
daemon_status=0
wait "$daemon_pid" || daemon_status=$?
daemon_pid=""
echo "daemon exit status $daemon_status"
problems=$(grep -ciE 'error|crit|fail' "$scratch/daemon.log" || true)
echo "daemon log lines mentioning an error or failure: $problems"
grep -iE 'error|crit|fail' "$scratch/daemon.log" | head -5 || true
[ "$daemon_status" -eq 0 ] || status=1
exit "$status"
