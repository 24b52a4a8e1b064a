#!/usr/bin/env bash
# The whole path on one machine: installs what is missing, builds the `telvo`
# tool and the example host, starts the local collector on a free loopback
# port with a throw-away data folder, runs the example host against it, prints
# what the collector received, and stops the collector (or, with --keep, keeps
# it running until Ctrl-C so that its inspector page can be opened).
#
#   scripts/demo.sh                 # build in ./build
#   scripts/demo.sh --keep          # keep the collector and its inspector running
#   TELVO_BUILD_DIR=/tmp/b scripts/demo.sh
#   TELVO_DEMO_PORT=8443 scripts/demo.sh
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${TELVO_BUILD_DIR:-$root/build}"
port="${TELVO_DEMO_PORT:-0}"
keep=0
for argument in "$@"; do
  case "$argument" in
    --keep) keep=1 ;;
    *) echo "usage: scripts/demo.sh [--keep]" >&2; exit 2 ;;
  esac
done

"$root/scripts/deps.sh"

# A fresh build folder skips the tests and benchmarks; an existing one keeps
# its own settings.
if [ -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" >/dev/null
else
  cmake -S "$root" -B "$build" -DTELVO_BUILD_TESTS=OFF -DTELVO_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" -j2 --target telvo_cli telvo_example_host
telvo="$build/tools/telvo"
host="$build/examples/telvo_example_host"

work="$(mktemp -d "${TMPDIR:-/tmp}/telvo-demo.XXXXXX")"
collector_pid=""
cleanup() {
  if [ -n "$collector_pid" ] && kill -0 "$collector_pid" 2>/dev/null; then
    kill -TERM "$collector_pid" 2>/dev/null || true
    for _ in $(seq 50); do
      kill -0 "$collector_pid" 2>/dev/null || break
      sleep 0.1
    done
    kill -KILL "$collector_pid" 2>/dev/null || true
    wait "$collector_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The client keeps its cookie and device identifier under TELVO_HOME: keep
# them in the throw-away folder too.
export TELVO_HOME="$work/home"

"$telvo" collector --port "$port" --data "$work/data" >"$work/collector.out" \
  2>"$work/collector.log" &
collector_pid=$!

# The start line names the URL (and so the port that was picked).
for _ in $(seq 100); do
  grep -q "listening on" "$work/collector.out" 2>/dev/null && break
  kill -0 "$collector_pid" 2>/dev/null || break
  sleep 0.1
done
if ! grep -q "listening on" "$work/collector.out" 2>/dev/null; then
  echo "demo: the collector did not start:" >&2
  cat "$work/collector.log" >&2
  exit 1
fi
cat "$work/collector.out"
base="$(sed -nE 's|.*listening on (https://127\.0\.0\.1:[0-9]+).*|\1|p' "$work/collector.out")"

echo
echo "== example host =="
"$host" --config-base "$base/mdrv/telvo/config/" --app demo --site lab \
  --cacert "$work/data/collector-cert.pem" --timeout 20

echo
echo "== what the collector received =="
"$telvo" events --data "$work/data"

echo
echo "Inspector: $base/  (certificate $work/data/collector-cert.pem, self-signed)"
if [ "$keep" -eq 1 ]; then
  echo "The collector keeps running; Ctrl-C stops it and removes its data."
  wait "$collector_pid" || true
fi
