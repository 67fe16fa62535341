#!/usr/bin/env bash
# console_lab.sh ZEL_CLOUD ZEL_HOST SCREENSHOT [console_test.py options...]
# Makes a throw-away lab (PKI, zel-cloud with its media relay, zel-host on the
# lab configuration) and runs console_test.py against its support console.
# Exits as the test does; the cloud's and the agent's output are printed when
# it fails. The agent streams the screen of the platform plug-in named by
# ZEL_KORVANE_PLUGIN (the build's tools/korvane/libzel_korvane_sample.so);
# without one, pass --skip-stream.
set -euo pipefail
if [ $# -lt 3 ]; then
  echo "usage: $0 ZEL_CLOUD ZEL_HOST SCREENSHOT [console_test.py options...]" >&2
  exit 2
fi
cloud_bin=$1
host_bin=$2
screenshot=$3
shift 3
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../../.." && pwd)
python=/usr/bin/python3

lab=$(mktemp -d "${TMPDIR:-/tmp}/zel-console-lab.XXXXXX")
cloud_pid=
host_pid=
status=1
cleanup() {
  [ -z "$host_pid" ] || kill "$host_pid" 2>/dev/null || true
  [ -z "$host_pid" ] || wait "$host_pid" 2>/dev/null || true
  [ -z "$cloud_pid" ] || kill "$cloud_pid" 2>/dev/null || true
  [ -z "$cloud_pid" ] || wait "$cloud_pid" 2>/dev/null || true
  if [ "$status" -ne 0 ]; then
    echo "== zel-cloud's output (last 80 lines)"
    tail -n 80 "$lab/cloud.log" 2>/dev/null || true
    echo "== zel-host's output (last 80 lines)"
    tail -n 80 "$lab/host.log" 2>/dev/null || true
  fi
  rm -rf "$lab"
}
trap cleanup EXIT

# The service port is part of the device's certificate, so it is chosen first.
port=$("$python" -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
"$root/tools/pki/make-pki.sh" "$lab/pki" "zel.localhost:$port"
mkdir -p "$lab/data"
"$root/scripts/lab-config.sh" "$lab/data" >"$lab/config.json"
# Quick polls, so that a session opens within a couple of seconds.
echo '{"daPollDelayFixedMs": 1000, "daPollDelayVariedMs": 0}' >"$lab/settings.json"

"$cloud_bin" --pki "$lab/pki" --port "$port" --control-port 0 --relay-port 0 \
  --settings "$lab/settings.json" --duration 900 >"$lab/cloud.log" 2>&1 &
cloud_pid=$!
control=
for _ in $(seq 100); do
  control=$(sed -n 's|.*control on \(http://127.0.0.1:[0-9]*\).*|\1|p' "$lab/cloud.log")
  [ -n "$control" ] && break
  kill -0 "$cloud_pid" 2>/dev/null || break
  sleep 0.1
done
if [ -z "$control" ]; then
  echo "console_lab: zel-cloud did not start" >&2
  exit 1
fi

"$host_bin" --identity "$lab/pki/identity.json" --config "$lab/config.json" \
  --device "$lab/pki/device.json" --duration 900 >"$lab/host.log" 2>&1 &
host_pid=$!

set +e
"$python" "$here/console_test.py" --control "$control" --screenshot "$screenshot" "$@"
status=$?
set -e
exit "$status"
