#!/usr/bin/env bash
# soak.sh [MINUTES]: builds what it needs, makes a throw-away PKI, starts
# zel-cloud and runs zel-soak against it for MINUTES (default 10) after a
# warm-up. zel-soak runs the agent in its own process and goes round opening
# and closing remote-support sessions, running commands and a screen stream in
# them, downloading and confirming updates and provisioning secure objects;
# every minute it prints its threads, descriptors, RSS and heap, and it fails
# when they grew (see README.md, "Soak"). ZEL_SOAK_ARGS passes more options to
# zel-soak; ZEL_JOBS caps the build's parallel jobs.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
minutes=${1:-10}
if ! [[ "$minutes" =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: $(basename "$0") [MINUTES]" >&2
  exit 2
fi

"$root/scripts/setup.sh"
build=${ZEL_SOAK_BUILD_DIR:-$root/build-soak}
echo "soak: building into $build"
ZEL_TARGETS="zel zel-soak zel-cloud zel_korvane_sample" "$root/scripts/build.sh" "$build" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_BENCH=OFF

lab=$(mktemp -d /tmp/zel-soak.XXXXXX)
cloud_pid=
# Stops the cloud: SIGTERM, up to 10 s to go, then SIGKILL.
cleanup() {
  if [ -n "$cloud_pid" ]; then
    kill "$cloud_pid" 2>/dev/null || true
    for _ in $(seq 100); do
      kill -0 "$cloud_pid" 2>/dev/null || break
      sleep 0.1
    done
    kill -KILL "$cloud_pid" 2>/dev/null || true
    wait "$cloud_pid" 2>/dev/null || true
  fi
  rm -rf "$lab"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The PKI names the cloud's port, so it is picked first; the other ports are
# the cloud's own choice.
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
"$root/tools/pki/make-pki.sh" "$lab/pki" "zel.localhost:$port"
mkdir -p "$lab/data"
"$root/scripts/lab-config.sh" "$lab/data" warning > "$lab/config.json"
# Shorter polls than in the field: more rounds in the same time.
echo '{"daPollDelayFixedMs": 1000, "daPollDelayVariedMs": 500,
       "drmpPollDelayFixedMs": 1000, "drmpPollDelayVariedMs": 500}' > "$lab/settings.json"

"$build/tools/cloud/zel-cloud" --pki "$lab/pki" --port "$port" --control-port 0 \
  --settings "$lab/settings.json" --quiet > "$lab/cloud.log" 2>&1 &
cloud_pid=$!
control=
for _ in $(seq 100); do
  control=$(sed -n 's|.*control on http://127.0.0.1:\([0-9]*\).*|\1|p' "$lab/cloud.log")
  [ -z "$control" ] || break
  kill -0 "$cloud_pid" 2>/dev/null || break
  sleep 0.1
done
if [ -z "$control" ]; then
  echo "soak: zel-cloud did not start:" >&2
  cat "$lab/cloud.log" >&2
  exit 3
fi

# The lab device's unique key, so that the cloud checks its token call.
curl -sS --noproxy '*' --max-time 3 -d '{"index": 1, "key": "000102030405060708090a0b0c0d0e0f"}' \
  "http://127.0.0.1:$control/control/drmp/keys" >/dev/null

echo "soak: $minutes minutes against https://127.0.0.1:$port (control port $control)"
status=0
# The agent's own log (warnings and worse) goes to a file, the table to the
# terminal. zel-soak bounds every step itself; the time-out is a last resort,
# in the foreground so that Ctrl-C reaches zel-soak, which then stops cleanly.
# malloc's per-thread caches count as "in use" and fill up over minutes; off,
# the heap figure is what the process really holds. A fixed mmap threshold
# keeps malloc from holding freed screen frames in its arenas (see README.md),
# so RSS shows what the agent keeps rather than what malloc caches.
# shellcheck disable=SC2086
GLIBC_TUNABLES=glibc.malloc.tcache_count=0:glibc.malloc.mmap_threshold=131072 \
  ZEL_KORVANE_PLUGIN="$build/tools/korvane/libzel_korvane_sample.so" \
  timeout --foreground --kill-after=30 $((minutes * 60 + 900)) "$build/tools/soak/zel-soak" \
  --identity "$lab/pki/identity.json" --config "$lab/config.json" \
  --device "$lab/pki/device.json" --control-port "$control" --seconds $((minutes * 60)) \
  ${ZEL_SOAK_ARGS:-} > "$lab/agent.log" || status=$?
# 1 is growth, which the table shows; anything else is a failed run.
if [ "$status" -ne 0 ] && [ "$status" -ne 1 ] && [ "$status" -ne 130 ]; then
  echo "soak: zel-soak exited $status; the agent's last log lines:" >&2
  tail -n 40 "$lab/agent.log" >&2
fi
exit "$status"
