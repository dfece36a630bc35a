#!/usr/bin/env bash
# The whole faitra loop, live, on two small file systems of its own, one
# daemon serving both as two capture roots:
#
#   1. two tmpfs (mounted directly as root; otherwise inside a private user
#      and mount namespace made with `unshare`): root a, 64 MiB, 45 % full
#      with 58 captures from an hour ago; root b, 32 MiB, 47 % full with 30;
#   2. `faitra serve` with both roots, each with its own thresholds (a
#      [[root]] table each in a configuration file); the first line printed
#      is the address of its status page. `faitra gen` writes a 512 KiB
#      capture every second into each root, the way a capture writer does;
#   3. one status line per second from GET /v1/status, per root: captures,
#      usage against its trigger and stop fractions, the cleaner's state,
#      cleanup runs and deletions;
#   4. once a root's usage reaches its trigger, its cleanup deletes its
#      oldest captures until its usage is below its stop fraction; the other
#      root is not touched;
#   5. at the end, one analyst's query across both roots: the large UDP
#      packets of the last 20 seconds as one pcap, with `faitra extract`.
#
# The cleaner waits 15 s before deleting and 15 s after, by design, so a run
# takes about 30 s. The demo watches until each root's cleanup has deleted
# captures and DEMO_SECONDS (default 45) have passed (at most 150 s); then
# it stops everything (SIGTERM, wait, unmount; a run still under way ends
# after the capture it is deleting) and prints a summary. Exit status 0 when each cleanup deleted exactly the
# oldest captures of its own root and the extraction wrote its file. Ctrl-C
# stops and cleans up too.
#
# Usage: scripts/demo.sh   (after a build; `make demo` does both)
# Environment: FAITRA (the binary, default build/default/apps/faitra),
# DEMO_SECONDS, DEMO_PORT (default: a free port).
set -euo pipefail
cd "$(dirname "$0")/.."

FAITRA=${FAITRA:-build/default/apps/faitra}
DEMO_SECONDS=${DEMO_SECONDS:-45}
MAX_SECONDS=150
FILE_SIZE=512K
RATE=1
# Per root: size, captures already there, trigger, stop.
ROOTS=(a b)
declare -A FS_SIZE=([a]=64m [b]=32m) PREFILL=([a]=58 [b]=30) TRIGGER=([a]=0.5 [b]=0.6) STOP=([a]=0.25 [b]=0.4)

if [ ! -x "$FAITRA" ]; then
  echo "demo: $FAITRA not found; build first (make build)" >&2
  exit 1
fi
FAITRA=$(realpath "$FAITRA")
for tool in curl python3 tcpdump; do
  command -v "$tool" >/dev/null || { echo "demo: $tool is needed (scripts/install-deps.sh)" >&2; exit 1; }
done

# Not root: continue inside a private user and mount namespace, where this
# script is root for its own mounts only.
if [ "$(id -u)" -ne 0 ]; then
  if [ -n "${FAITRA_DEMO_IN_NAMESPACE:-}" ]; then
    echo "demo: still not root inside the namespace" >&2
    exit 1
  fi
  export FAITRA_DEMO_IN_NAMESPACE=1
  exec unshare --user --map-root-user --mount bash "$0" "$@"
fi

say() { printf '%s\n' "$*"; }

WORK=$(mktemp -d "${TMPDIR:-/tmp}/faitra-demo.XXXXXX")
declare -A CAPTURES GEN_PID
for r in "${ROOTS[@]}"; do
  CAPTURES[$r]=$WORK/captures-$r
  mkdir "${CAPTURES[$r]}"
done
MOUNTED=()
SERVE_PID=
WATCH_PID=

stop_process() {  # pid name
  local pid=$1 name=$2 waited=0
  [ -n "$pid" ] || return 0
  kill -0 "$pid" 2>/dev/null || { wait "$pid" 2>/dev/null || true; return 0; }
  kill -TERM "$pid" 2>/dev/null || true
  while kill -0 "$pid" 2>/dev/null; do
    if [ $waited -ge 450 ]; then
      say "demo: $name did not stop within 45 s; killing it"
      kill -KILL "$pid" 2>/dev/null || true
      break
    fi
    sleep 0.1
    waited=$((waited + 1))
  done
  wait "$pid" 2>/dev/null || true
}

cleanup() {
  [ -z "$WATCH_PID" ] || kill "$WATCH_PID" 2>/dev/null || true
  for r in "${ROOTS[@]}"; do
    stop_process "${GEN_PID[$r]:-}" "faitra gen"
    GEN_PID[$r]=
  done
  stop_process "$SERVE_PID" "faitra serve"
  SERVE_PID=
  for dir in "${MOUNTED[@]}"; do
    umount "$dir" 2>/dev/null || umount -l "$dir" 2>/dev/null || true
  done
  MOUNTED=()
  rm -rf "$WORK"
}
trap cleanup EXIT
trap 'say ""; say "demo: interrupted; stopping"; exit 130' INT TERM

# 1. The file systems.
for r in "${ROOTS[@]}"; do
  if ! mount -t tmpfs -o "size=${FS_SIZE[$r]},mode=0755" "faitra-demo-$r" "${CAPTURES[$r]}" 2>"$WORK/mount.err"; then
    say "demo: cannot mount a tmpfs: $(cat "$WORK/mount.err")" >&2
    exit 1
  fi
  MOUNTED+=("${CAPTURES[$r]}")
done
# The port is chosen first, so that the demo opens with the page's address.
PORT=${DEMO_PORT:-$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')}
say "http://127.0.0.1:$PORT/ is the status page of this faitra demo: open it in a browser to watch both roots"
CONFIG=$WORK/faitra.toml
for r in "${ROOTS[@]}"; do
  say "root $r: tmpfs of ${FS_SIZE[$r]} on ${CAPTURES[$r]}; trigger ${TRIGGER[$r]}, stop ${STOP[$r]}"
  printf '[[root]]\npath = "%s"\ntrigger = %s\nstop = %s\n\n' "${CAPTURES[$r]}" "${TRIGGER[$r]}" "${STOP[$r]}" >>"$CONFIG"
done
say "writers: one $FILE_SIZE capture per ${RATE}s into each root"

# Captures from an hour ago, already there when the daemon starts.
hour_ago=$(( $(date +%s) - 3600 ))
for r in "${ROOTS[@]}"; do
  "$FAITRA" gen "${CAPTURES[$r]}" --count "${PREFILL[$r]}" --size "$FILE_SIZE" --rate 0 --start-time "${hour_ago}s" \
    --quiet
  say "pre-filled root $r: ${PREFILL[$r]} captures from an hour ago"
done

# 2. The daemon (a free port, read back from its log) and the writer.
"$FAITRA" serve --config "$CONFIG" --listen "127.0.0.1:$PORT" --log-stdout >"$WORK/serve.log" 2>&1 &
SERVE_PID=$!
URL=
for _ in $(seq 1 300); do
  if ! kill -0 "$SERVE_PID" 2>/dev/null; then
    say "demo: faitra serve exited:"; cat "$WORK/serve.log"; exit 1
  fi
  port=$(sed -n 's/.*Listening on 127\.0\.0\.1:\([0-9][0-9]*\).*/\1/p' "$WORK/serve.log" | head -n 1)
  if [ -n "$port" ] && curl -sf "http://127.0.0.1:$port/v1/status" >/dev/null 2>&1; then
    URL=http://127.0.0.1:$port
    break
  fi
  sleep 0.1
done
if [ -z "$URL" ]; then
  say "demo: faitra serve did not answer within 30 s:"; cat "$WORK/serve.log"; exit 1
fi
say "daemon: listening on $URL (log: --log-stdout)"

for r in "${ROOTS[@]}"; do
  "$FAITRA" gen "${CAPTURES[$r]}" --count 0 --size "$FILE_SIZE" --rate "$RATE" >"$WORK/gen-$r.log" 2>&1 &
  GEN_PID[$r]=$!
done
say "writers: faitra gen started on each root"
say ""

# 3. One status line per second until each root's cleanup has deleted
# captures and DEMO_SECONDS have passed.
# The watcher runs in the background so that SIGINT and SIGTERM reach this
# script's trap at once (`wait` returns on a trapped signal).
python3 - "$URL" "$SERVE_PID" "$DEMO_SECONDS" "$MAX_SECONDS" <<'PYTHON' &
import json, os, sys, time, urllib.request

url, serve_pid, want, cap = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
mib = lambda b: b / 1048576.0
start = time.monotonic()
tick = 0
try:
    while True:
        elapsed = time.monotonic() - start
        try:
            os.kill(serve_pid, 0)
        except OSError:
            print("demo: faitra serve stopped unexpectedly", flush=True)
            sys.exit(2)
        try:
            with urllib.request.urlopen(url + "/v1/status", timeout=2) as answer:
                s = json.load(answer)
        except Exception as e:
            print("[%3ds] status not available: %s" % (elapsed, e), flush=True)
            s = None
        if s is not None:
            parts, done = [], True
            for i, r in enumerate(s.get("roots", [s])):
                u, c = r.get("usage", {}), r.get("cleanup", {})
                frac, trig, stop = u.get("fraction", 0.0), r.get("trigger", 0.0), r.get("stop", 0.0)
                if r.get("cleanup_in_progress", False):
                    state = "running"
                elif frac >= trig:
                    state = "due"
                else:
                    state = "idle"
                deleted = c.get("deleted_by_cleanup", 0)
                parts.append("%s: %3d captures, %4.1f/%4.1f MiB %3.0f%% (trigger %2.0f%% stop %2.0f%%) %-7s "
                             "runs %d deleted %3d"
                             % ("ab"[i] if i < 2 else str(i), r.get("captures", 0), mib(u.get("used", 0)),
                                mib(u.get("total", 0)), frac * 100, trig * 100, stop * 100, state,
                                c.get("runs", 0), deleted))
                # Each root's cleaner runs on its own rhythm, so both are
                # seldom idle at once: what counts is that each has deleted.
                done = done and deleted > 0
            print("[%3ds] %s" % (elapsed, " | ".join(parts)), flush=True)
            if elapsed >= want and done:
                sys.exit(0)
        if elapsed >= cap:
            sys.exit(1)
        tick += 1
        time.sleep(max(0.0, start + tick - time.monotonic()))
except KeyboardInterrupt:
    sys.exit(130)
PYTHON
WATCH_PID=$!
watched=0
wait "$WATCH_PID" || watched=$?
WATCH_PID=
case "$watched" in
  130) exit 130 ;;
  2) tail -n 20 "$WORK/serve.log"; exit 1 ;;
  1) say "demo: no cleanup run completed within $MAX_SECONDS s" ;;
esac
final_status=$(curl -sf --max-time 2 "$URL/v1/status" || echo '{}')
final_df=$(for r in "${ROOTS[@]}"; do printf '%s: %s; ' "$r" "$(df -h --output=used,size,pcent "${CAPTURES[$r]}" | tail -n 1 | xargs)"; done)

# 5. One extraction: every packet of the last 20 s larger than 1000 bytes,
# from whichever captures of either root hold them, as one file.
say ""
say "\$ faitra extract --listen ${URL#http://} --start -20s --end now --filter 'udp and greater 1000' -w window.pcap"
extracted=no
if "$FAITRA" extract --listen "${URL#http://}" --start -20s --end now --filter 'udp and greater 1000' \
     -w "$WORK/window.pcap" 2>"$WORK/extract.err"; then
  packets=$(tcpdump -r "$WORK/window.pcap" -n 2>/dev/null | wc -l)
  say "window.pcap: $(stat -c %s "$WORK/window.pcap") bytes, $packets packets; the first and last:"
  tcpdump -r "$WORK/window.pcap" -n --time-stamp-precision=nano 2>/dev/null | sed -n '1p;$p' | sed 's/^/  /'
  extracted=yes
else
  say "demo: faitra extract failed: $(cat "$WORK/extract.err")"
fi

# 4. Stop everything, then the summary.
say ""
say "stopping: faitra gen, then faitra serve (SIGTERM; a cleanup check that is waiting may hold it up to 15 s),"
say "then unmounting"
for r in "${ROOTS[@]}"; do stop_process "${GEN_PID[$r]}" "faitra gen"; GEN_PID[$r]=; done
stop_process "$SERVE_PID" "faitra serve"; SERVE_PID=

runs=$(grep -c 'Filesystem cleanup has finished' "$WORK/serve.log" || true)
say ""
say "== summary"
say "cleanup runs:       $runs finished (daemon log)"
grep 'Filesystem cleanup has' "$WORK/serve.log" | sed 's/^.* - cleaner (\(.*\)) - Filesystem/  \1: Filesystem/' || true
failed=
for r in "${ROOTS[@]}"; do
  dir=${CAPTURES[$r]}
  written=$(grep -c '^wrote ' "$WORK/gen-$r.log" || true)
  dropped=$(grep -c '^faitra gen: dropped ' "$WORK/gen-$r.log" || true)
  sed -n "s|.* - Deleting \($dir/.*\)\.\.\.\$|\1|p" "$WORK/serve.log" >"$WORK/deleted-$r"
  deleted=$(wc -l <"$WORK/deleted-$r")
  ls "$dir" | sed "s|^|$dir/|" >"$WORK/remaining-$r"
  remaining=$(wc -l <"$WORK/remaining-$r")
  oldest_first=no
  newest_deleted=
  oldest_remaining=
  if [ "$deleted" -gt 0 ]; then
    newest_deleted=$(sort "$WORK/deleted-$r" | tail -n 1)
    oldest_remaining=$(sort "$WORK/remaining-$r" | head -n 1)
    if [ -z "$oldest_remaining" ] || [[ "$newest_deleted" < "$oldest_remaining" ]]; then oldest_first=yes; fi
  fi
  say "root $r ($dir):"
  say "  captures written:   ${PREFILL[$r]} pre-filled + $written live ($dropped dropped for lack of space)"
  say "  captures deleted:   $deleted by its cleanup"
  if [ "$deleted" -gt 0 ]; then
    say "    oldest deleted:   $(basename "$(sort "$WORK/deleted-$r" | head -n 1)")"
    say "    newest deleted:   $(basename "$newest_deleted")"
    say "    oldest remaining: $(basename "${oldest_remaining:-none}")"
    say "    oldest first:     $oldest_first"
  fi
  say "  captures remaining: $remaining"
  if [ "$deleted" -eq 0 ] || [ "$oldest_first" != yes ]; then failed="$failed $r"; fi
done
say "final usage:        $final_df(used size use%)"
say "extraction:         $extracted (the last 20 s of both roots, 'udp and greater 1000')"
say "final status:       $(printf '%s' "$final_status" | python3 -c 'import json,sys; s=json.load(sys.stdin); print(json.dumps([{k: r[k] for k in ("root", "captures", "usage", "cleanup") if k in r} for r in s.get("roots", [])]))' 2>/dev/null || echo unavailable)"

if [ -n "$failed" ]; then
  say "demo: FAILED: the cleanup did not delete the oldest captures of root(s)$failed"
  exit 1
fi
if [ "$extracted" != yes ]; then
  say "demo: FAILED: the extraction did not complete"
  exit 1
fi
say "demo: OK"
