#!/usr/bin/env bash
# Installs what is missing, builds, makes a fresh throw-away PKI, starts the
# local cloud on loopback and runs zel-host against it for ZEL_RUN_SECONDS
# (default 30) or until Ctrl-C.
set -euo pipefail
root=$(cd "$(dirname "$0")" && pwd)
"$root/scripts/setup.sh"
echo "run: building (first time takes a few minutes)"
ZEL_TARGETS="zel zel-host zel-cloud" "$root/scripts/build.sh" "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo

seconds=${ZEL_RUN_SECONDS:-30}
port=${ZEL_CLOUD_PORT:-18443}
control=${ZEL_CONTROL_PORT:-18080}
lab=$(mktemp -d /tmp/zel-lab.XXXXXX)
cloud_pid=
cleanup() {
  [ -z "$cloud_pid" ] || kill "$cloud_pid" 2>/dev/null || true
  [ -z "$cloud_pid" ] || wait "$cloud_pid" 2>/dev/null || true
  rm -rf "$lab"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

"$root/tools/pki/make-pki.sh" "$lab/pki" "zel.localhost:$port"
mkdir -p "$lab/data"
"$root/scripts/lab-config.sh" "$lab/data" > "$lab/config.json"

"$root/build/tools/cloud/zel-cloud" --pki "$lab/pki" --port "$port" --control-port "$control" \
  --duration $((seconds + 30)) > >(sed -u 's/^/[cloud] /') 2>&1 &
cloud_pid=$!
# The cloud says when it listens; give it a few seconds at most.
for _ in $(seq 50); do
  if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then break; fi
  sleep 0.1
done

echo "run: zel-host for $seconds seconds against https://FFFFFF0ACC-da.zel.localhost:$port" \
  "(control interface on http://127.0.0.1:$control)"
"$root/build/tools/host/zel-host" --identity "$lab/pki/identity.json" --config "$lab/config.json" \
  --device "$lab/pki/device.json" --duration "$seconds"
