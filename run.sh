#!/usr/bin/env bash
# Installs what is missing, builds, makes a fresh throw-away PKI, starts the
# local cloud on loopback and runs zel-host against it for ZEL_RUN_SECONDS
# (default 30) or until Ctrl-C. zel-host opens a remote-support session; a
# demo in the background runs a few commands in it through the cloud's
# control interface, prints their answers, streams the screen to the cloud's
# media relay for a moment, runs the network diagnostics and closes the
# session again, then publishes an update that zel-host downloads, showing
# its progress, and provisions one secure object. The support console, on the
# control interface, shows all of it in a browser.
set -euo pipefail
root=$(cd "$(dirname "$0")" && pwd)
"$root/scripts/setup.sh"
echo "run: building (first time takes a few minutes)"
ZEL_TARGETS="zel zel-host zel-cloud zel_korvane_sample" "$root/scripts/build.sh" "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo

seconds=${ZEL_RUN_SECONDS:-30}
port=${ZEL_CLOUD_PORT:-18443}
control=${ZEL_CONTROL_PORT:-18080}
lab=$(mktemp -d /tmp/zel-lab.XXXXXX)
cloud_pid=
demo_pid=
cleanup() {
  [ -z "$demo_pid" ] || kill "$demo_pid" 2>/dev/null || true
  [ -z "$demo_pid" ] || wait "$demo_pid" 2>/dev/null || true
  [ -z "$cloud_pid" ] || kill "$cloud_pid" 2>/dev/null || true
  [ -z "$cloud_pid" ] || wait "$cloud_pid" 2>/dev/null || true
  rm -rf "$lab"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Prints a task's answer from GET /control/sessions (stdin), one block written
# at once so that the agent's log lines do not cut through it. Exits 1 while
# the session (argv[1], its code) has no result for the task (argv[2]) yet.
read -r -d '' show_result <<'PYTHON' || true
import json, os, sys
code, seq = sys.argv[1], int(sys.argv[2])
results = [r for s in json.load(sys.stdin) if s.get("code") == code
           for r in s.get("results", []) if r.get("taskSeqNum") == seq]
if not results:
    sys.exit(1)
# The device's own text keeps its members in the order it wrote them.
try:
    document = json.loads(results[-1].get("taskResponse", ""))
except ValueError:
    document = results[-1].get("document")
if not isinstance(document, dict):
    lines = ["task %d: not a JSON answer: %s" % (seq, results[-1].get("taskResponse"))]
else:
    lines = []
    for response in document.get("TASK_OUTPUT", {}).get("RESPONSES", []):
        name = response.get("COMMAND", {}).get("NAME", "?")
        result = response.get("RESULT")
        lines.append("%s: RESULT %s%s" % (name, result, " (success)" if result == 0 else ""))
        for output in response.get("OUTPUTS", []):
            data = output.get("DATA")
            if isinstance(data, list) and name.endswith("GET_AVAILABLE_COMMANDS"):
                for command in data:
                    lines.append("  %-52s version %-3s %s" % (
                        command.get("ID"), command.get("VERSION"),
                        ", ".join(command.get("OPERATIONS", []))))
            elif isinstance(data, dict) and data:
                for key in data:
                    value = data[key]
                    lines.append("  %s: %s" % (key, value if isinstance(value, (str, int, float))
                                               else json.dumps(value)))
            elif data not in (None, {}, []):
                lines.append("  " + json.dumps(data))
os.write(1, "".join("[demo] %s\n" % line for line in lines).encode())
PYTHON

# The demo, in the background: every wait is bounded and every failure said.
say() { printf '[demo] %s\n' "$*"; }
sessions() { curl -sS --max-time 3 "http://127.0.0.1:$control/control/sessions"; }
# Polls every 0.2 s until "$2 ..." succeeds; false after about $1 seconds.
poll() {
  local end=$((SECONDS + $1))
  shift
  while [ "$SECONDS" -lt "$end" ]; do
    if "$@"; then return 0; fi
    sleep 0.2
  done
  return 1
}
active_code() {
  code=$(sessions 2>/dev/null | python3 -c '
import json, sys
codes = [s["code"] for s in json.load(sys.stdin) if s.get("state") == "active"]
print(codes[-1] if codes else "")' 2>/dev/null) && [ -n "$code" ]
}
retired() {
  sessions 2>/dev/null | python3 -c '
import json, sys
sys.exit(0 if any(s.get("code") == sys.argv[1] and s.get("state") == "retired"
                  for s in json.load(sys.stdin)) else 1)' "$code" 2>/dev/null
}
show() { sessions 2>/dev/null | python3 -c "$show_result" "$code" "$1" 2>/dev/null; }
run_command() {
  local name=$1 inputs=$2 answer seq
  say "running $name"
  answer=$(curl -sS --max-time 3 -d "{\"requests\": [{\"COMMAND\": {\"NAME\": \"$name\",
      \"OPERATION\": \"EXECUTE\", \"VERSION\": 0}, \"INPUTS\": $inputs}]}" \
      "http://127.0.0.1:$control/control/tasks" 2>&1) || { say "cannot queue it: $answer"; return 1; }
  seq=$(python3 -c 'import json, sys; print(json.load(sys.stdin)["seqNum"])' <<<"$answer" 2>/dev/null) ||
    { say "the cloud did not queue it: $answer"; return 1; }
  poll 20 show "$seq" || { say "no answer to task $seq after 20 s"; return 1; }
}
demo() {
  say "waiting for zel-host's session (GET /control/sessions)"
  if ! poll 20 active_code; then
    say "no active session after 20 s; the agent's log above says why (lines with 'sv')"
    return 0
  fi
  say "session $code is open; running commands in it"
  run_command FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO '{}' &&
    run_command FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS '{}' &&
    run_command FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON '{"BUTTONS": ["HOME", "UP", "ENTER"]}' ||
    return 0
  stream
  run_command FFFFFF_LIVE_SUPPORT_NETWORK_DIAGNOSTICS '{}' || true
  local host
  host=$(cat "$lab/zel-host.pid" 2>/dev/null) && kill -0 "$host" 2>/dev/null ||
    { say "zel-host is gone; not closing the session"; return 0; }
  say "closing the session: SIGUSR1 to zel-host"
  kill -USR1 "$host" 2>/dev/null || { say "zel-host is gone; not closing the session"; return 0; }
  if poll 20 retired; then
    say "session $code is closed"
  else
    say "session $code still open after 20 s"
  fi
  update
}

relay=
streamed() {
  frames=$(curl -sS --max-time 3 "http://127.0.0.1:$control/control/streams" 2>/dev/null |
    python3 -c '
import json, sys
for s in json.load(sys.stdin):
    if s["name"] == "demo" and s["frames"] >= 30:
        print("%d frames, %d KiB" % (s["frames"], s["bytes"] // 1024))
' 2>/dev/null) && [ -n "$frames" ]
}
# Starts the screen stream to the cloud's media relay, waits for 30 frames
# and stops it; the console shows it live meanwhile.
stream() {
  relay=$(curl -sS --max-time 3 "http://127.0.0.1:$control/control/relay" 2>/dev/null |
    python3 -c 'import json, sys; print(json.load(sys.stdin)["port"])' 2>/dev/null) ||
    { say "the cloud has no media relay"; return 0; }
  run_command FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL "{\"ACTION\": \"RUNNING\",
      \"RELAY_SERVER_ADDRESS\": \"127.0.0.1\", \"RELAY_SERVER_PORT\": $relay,
      \"RELAY_SERVER_URI\": \"/streams/demo\"}" || return 0
  if poll 20 streamed; then
    say "the relay has $frames of the screen; watch it at http://127.0.0.1:$control/"
  else
    say "no frames at the relay after 20 s"
  fi
  run_command FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL '{"ACTION": "SHUT_DOWN"}' || true
}

reported() {
  report=$(curl -sS --max-time 3 "http://127.0.0.1:$control/control/update-reports" 2>/dev/null |
    python3 -c '
import json, sys
reports = json.load(sys.stdin)
last = reports[-1] if reports else None
print("" if last is None else "success" if last["suStatus"] else "failure: " + last["suDetails"])
' 2>/dev/null) && [ -n "$report" ]
}
# Publishes an update; zel-host answers it with --update-permission and shows
# the download's progress.
update() {
  local answer
  say "publishing a 4 MiB update 5.0.0 for the device (POST /control/updates)"
  answer=$(curl -sS --max-time 10 -d '{"version": "5.0.0", "sizeBytes": 4194304,
      "displayText": "Sharper pictures"}' "http://127.0.0.1:$control/control/updates" 2>&1) ||
    { say "cannot publish it: $answer"; return 0; }
  say "$(python3 -c 'import json, sys; u = json.load(sys.stdin)
print("update %s: %s blocks at %s, sha256 %s" % (u["version"], u["blocks"], u["url"], u["hash"]))' \
    <<<"$answer" 2>/dev/null || echo "$answer")"
  say "the cloud offers it with the device's next poll; waiting for its report"
  if poll 30 reported; then
    say "the device reported: $report"
  else
    say "no report after 30 s"
  fi
  provision
}

provisioned() {
  outcome=$(curl -sS --max-time 3 "http://127.0.0.1:$control/control/drmp" 2>/dev/null |
    python3 -c '
import json, sys
for device in json.load(sys.stdin)["devices"]:
    states = {o["name"]: o["state"] for o in device["objects"]}
    for r in device["results"]:
        print("%s %s: %s, now %s" % (r["name"], r["operation"],
              "success" if r["success"] else "failure", states.get(r["name"], "gone")))
' 2>/dev/null) && [ -n "$outcome" ]
}
# Queues one object for the emulated secure core; the agent installs it at
# its next work call and reports it at the one after.
provision() {
  local answer
  say "queueing the object \"widevine\" for the device (POST /control/drmp/operations)"
  answer=$(curl -sS --max-time 3 -d '{"operations": [{"name": "widevine", "operation": "install",
      "encryptionType": "aes", "valueText": "a provisioned secret", "id": "wv-1"}]}' \
      "http://127.0.0.1:$control/control/drmp/operations" 2>&1) ||
    { say "cannot queue it: $answer"; return 0; }
  if poll 30 provisioned; then
    say "the device reported: $outcome; zel-host runs on until its time is up"
  else
    say "no provisioning result after 30 s"
  fi
}

"$root/tools/pki/make-pki.sh" "$lab/pki" "zel.localhost:$port"
mkdir -p "$lab/data"
"$root/scripts/lab-config.sh" "$lab/data" > "$lab/config.json"

# Provisioning polls a little faster than in the field, for the demo's sake.
echo '{"drmpPollDelayFixedMs": 2000, "drmpPollDelayVariedMs": 500}' > "$lab/settings.json"
"$root/build/tools/cloud/zel-cloud" --pki "$lab/pki" --port "$port" --control-port "$control" \
  --settings "$lab/settings.json" \
  --duration $((seconds + 30)) > >(sed -u 's/^/[cloud] /') 2>&1 &
cloud_pid=$!
# The cloud says when it listens; give it a few seconds at most.
for _ in $(seq 50); do
  if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then break; fi
  sleep 0.1
done

# The lab device's unique key, so that the cloud checks its token call.
curl -sS --max-time 3 -d '{"index": 1, "key": "000102030405060708090a0b0c0d0e0f"}' \
  "http://127.0.0.1:$control/control/drmp/keys" >/dev/null ||
  echo "run: the cloud did not take the device key"

demo &
demo_pid=$!

echo "run: zel-host for $seconds seconds against https://FFFFFF0ACC-da.zel.localhost:$port"
echo "run: the support console is at http://127.0.0.1:$control/ - open it in a browser while this runs"
# In the foreground, so that it keeps the terminal ("s" + Enter toggles the
# session); the wrapper leaves its pid for the demo's SIGUSR1.
host_status=0
# The sample vendor plug-in gives the agent a screen to stream.
ZEL_KORVANE_PLUGIN="$root/build/tools/korvane/libzel_korvane_sample.so" \
  sh -c 'echo $$ > "$0"; exec "$@"' "$lab/zel-host.pid" "$root/build/tools/host/zel-host" \
  --identity "$lab/pki/identity.json" --config "$lab/config.json" \
  --device "$lab/pki/device.json" --duration "$seconds" --session \
  --update-permission download || host_status=$?
if kill -0 "$demo_pid" 2>/dev/null; then
  echo "run: zel-host stopped before the demo was done"
fi
exit "$host_status"
