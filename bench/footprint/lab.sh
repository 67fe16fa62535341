# shellcheck shell=bash
# Sourced by the footprint scripts: a local cloud and zel-host run against it,
# each in its own directory. Needs $build (a Release build dir), $root and
# $figures. Every wait is bounded; lab_cleanup stops whatever is still running.
# shellcheck disable=SC2154

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
procstat=$here/procstat.py

cloud_pid=
wrapper_pid=
host_pid=

fail() {
    echo "footprint: $*" >&2
    exit 1
}

load1() { cut -d' ' -f1 /proc/loadavg; }

# Appends one figure: section, figure, value, note; with the load average
# of $load (taken when the measurement began) or of now.
figure() {
    printf '%s\t%s\t%s\t%s\t%s\n' "$1" "$2" "$3" "${load:-$(load1)}" "${4:-}" >>"$figures"
}

control_get() { curl -sS --max-time 5 "http://127.0.0.1:$control/control/$1"; }
control_post() { curl -sS --max-time 30 -d "$2" "http://127.0.0.1:$control/control/$1"; }

# Runs "$@" every 0.2 s until it succeeds; false after $1 seconds.
poll() {
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$end" ] || return 1
        sleep 0.2
    done
}

# lab_start DIR SETTINGS_JSON [zel-cloud options]: a fresh PKI for a free
# port and zel-cloud on it; sets $port, $control, $relay.
lab_start() {
    lab=$1
    local settings=$2
    shift 2
    mkdir -p "$lab/data"
    port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
    "$root/tools/pki/make-pki.sh" "$lab/pki" "zel.localhost:$port" >"$lab/pki.out" 2>&1 ||
        fail "make-pki.sh failed: $(cat "$lab/pki.out")"
    printf '%s\n' "$settings" >"$lab/settings.json"
    # Errors only: a device's log is not what is measured.
    "$root/scripts/lab-config.sh" "$lab/data" error >"$lab/config.json"
    "$build/tools/cloud/zel-cloud" --pki "$lab/pki" --port "$port" --control-port 0 \
        --payload-port 0 --relay-port 0 --settings "$lab/settings.json" --quiet "$@" \
        >"$lab/cloud.out" 2>&1 &
    cloud_pid=$!
    control=
    relay=
    for _ in $(seq 100); do
        control=$(sed -n 's|.*control on http://127.0.0.1:\([0-9]*\).*|\1|p' "$lab/cloud.out")
        relay=$(sed -n 's|.*media relay on http://127.0.0.1:\([0-9]*\)/.*|\1|p' "$lab/cloud.out")
        [ -n "$control" ] && [ -n "$relay" ] && break
        sleep 0.1
    done
    if [ -z "$control" ] || [ -z "$relay" ]; then
        fail "zel-cloud did not start: $(cat "$lab/cloud.out")"
    fi
}

# host_start NAME WRAPPER... -- ZEL-HOST OPTIONS...: zel-host under the
# wrapper (/usr/bin/time, heaptrack), its output in $lab/NAME.out; sets
# $host_pid to zel-host itself, a child of the wrapper.
host_start() {
    local name=$1
    shift
    local wrapper=()
    while [ "$1" != "--" ]; do
        wrapper+=("$1")
        shift
    done
    shift
    "${wrapper[@]}" "$build/tools/host/zel-host" --identity "$lab/pki/identity.json" \
        --config "$lab/config.json" --device "$lab/pki/device.json" "$@" \
        </dev/null >"$lab/$name.out" 2>&1 &
    wrapper_pid=$!
    host_pid=
    for _ in $(seq 100); do
        host_pid=$(python3 "$procstat" child "$wrapper_pid" zel-host) && break
        sleep 0.1
    done
    [ -n "$host_pid" ] || fail "zel-host did not start: $(cat "$lab/$name.out")"
}

# Asks zel-host to stop the agent and waits for its wrapper (20 s at most).
host_stop() {
    [ -n "$wrapper_pid" ] || return 0
    kill -TERM "$host_pid" 2>/dev/null || true
    for _ in $(seq 200); do
        kill -0 "$wrapper_pid" 2>/dev/null || break
        sleep 0.1
    done
    if kill -0 "$wrapper_pid" 2>/dev/null; then
        kill -KILL "$host_pid" 2>/dev/null || true
        wait "$wrapper_pid" 2>/dev/null || true
        wrapper_pid=
        fail "zel-host did not stop within 20 s"
    fi
    wait "$wrapper_pid" 2>/dev/null || true
    wrapper_pid=
    host_pid=
}

lab_stop() {
    host_stop
    if [ -n "$cloud_pid" ]; then
        kill -TERM "$cloud_pid" 2>/dev/null || true
        wait "$cloud_pid" 2>/dev/null || true
        cloud_pid=
    fi
}

# Cleanup for an interrupted run: no waiting on a zel-host that hangs.
lab_cleanup() {
    [ -z "$host_pid" ] || kill -KILL "$host_pid" 2>/dev/null || true
    [ -z "$wrapper_pid" ] || wait "$wrapper_pid" 2>/dev/null || true
    [ -z "$cloud_pid" ] || kill -TERM "$cloud_pid" 2>/dev/null || true
    [ -z "$cloud_pid" ] || wait "$cloud_pid" 2>/dev/null || true
}

# The conditions the runs wait for, from the control interface.
synchronized() {
    control_get devices 2>/dev/null | python3 -c '
import json, sys
sys.exit(0 if any(d.get("synchronized") for d in json.load(sys.stdin)["devices"]) else 1)' \
        2>/dev/null
}
provisioned() {
    control_get drmp 2>/dev/null | python3 -c '
import json, sys
sys.exit(0 if any(d.get("workCalls", 0) > 0 for d in json.load(sys.stdin)["devices"]) else 1)' \
        2>/dev/null
}
session_active() {
    control_get sessions 2>/dev/null | python3 -c '
import json, sys
sys.exit(0 if any(s.get("state") == "active" for s in json.load(sys.stdin)) else 1)' 2>/dev/null
}
results_at_least() {
    control_get sessions 2>/dev/null | python3 -c '
import json, sys
sys.exit(0 if sum(len(s.get("results", [])) for s in json.load(sys.stdin)) >= int(sys.argv[1])
         else 1)' "$1" 2>/dev/null
}
frames_at_least() {
    control_get streams 2>/dev/null | python3 -c '
import json, sys
sys.exit(0 if any(s["name"] == sys.argv[1] and s["frames"] >= int(sys.argv[2])
                  for s in json.load(sys.stdin)) else 1)' "$1" "$2" 2>/dev/null
}
reports_at_least() {
    control_get update-reports 2>/dev/null | python3 -c '
import json, sys
sys.exit(0 if len(json.load(sys.stdin)) >= int(sys.argv[1]) else 1)' "$1" 2>/dev/null
}
host_said() { grep -q "$1" "$lab/$2.out"; }
requests_count() {
    control_get requests | python3 -c 'import json, sys; print(len(json.load(sys.stdin)))'
}

# Queues one command for the active session and waits for its answer.
run_command() {
    local name=$1 inputs=$2 before
    before=$(control_get sessions | python3 -c '
import json, sys
print(sum(len(s.get("results", [])) for s in json.load(sys.stdin)))')
    control_post tasks "{\"requests\": [{\"COMMAND\": {\"NAME\": \"$name\",
        \"OPERATION\": \"EXECUTE\", \"VERSION\": 0}, \"INPUTS\": $inputs}]}" >/dev/null ||
        fail "cannot queue $name"
    poll 30 results_at_least $((before + 1)) || fail "no answer to $name after 30 s"
}
