#!/usr/bin/env bash
# heap.sh BUILD WORK FIGURES: the agent's memory through five runs of
# zel-host against a fresh local cloud each: synchronising, a remote-support
# session with three commands, a 64 MiB network update published through the
# control interface, a 1 GiB local payload file, and streaming the sample
# plug-in's screen to the relay. Each run is made twice: under heaptrack for
# the peak heap, and under /usr/bin/time -v for the peak resident set and
# the threads (counted once the commands or the staging are done, and while
# streaming). Appends to FIGURES.
set -euo pipefail
build=$1
work=$2
figures=$3
root=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source-path=SCRIPTDIR source=lab.sh
source "$(dirname "$0")/lab.sh"
trap lab_cleanup EXIT
trap 'exit 130' INT TERM

local_mib=${ZEL_BENCH_LOCAL_MB:-1024}
network_mib=${ZEL_BENCH_NETWORK_MB:-64}
frames=${ZEL_BENCH_FRAMES:-300}
settings='{}'
export ZEL_KORVANE_PLUGIN=$build/tools/korvane/libzel_korvane_sample.so

threads_now() {
    [ "$tool" = time ] || return 0
    python3 "$procstat" snapshot "$host_pid" "$lab/threads.json"
    python3 "$procstat" services "$lab/threads.json" >"$lab/threads.txt"
}

scenario_sync() {
    host_start sync "${wrapper[@]}" --
    poll 60 synchronized || fail "sync: not synchronised after 60 s"
    poll 60 provisioned || fail "sync: no provisioning call after 60 s"
    threads_now
    sleep 1
}

scenario_session() {
    host_start session "${wrapper[@]}" -- --session
    poll 60 session_active || fail "session: no active session after 60 s"
    run_command FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO '{}'
    run_command FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS '{}'
    run_command FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON '{"BUTTONS": ["HOME", "UP", "ENTER"]}'
    threads_now
}

scenario_network() {
    control_post updates "{\"version\": \"5.0.0\", \"sizeBytes\": $((network_mib << 20))}" \
        >"$lab/published.json" || fail "network: cannot publish the update"
    grep -q '"url"' "$lab/published.json" || fail "network: $(cat "$lab/published.json")"
    host_start network "${wrapper[@]}" -- --update-permission download
    poll 600 reports_at_least 1 || fail "network: no report after 600 s"
    threads_now
    control_get update-reports | grep -q '"suStatus" *: *true' ||
        fail "network: the update failed: $(control_get update-reports)"
}

scenario_local() {
    "$build/bench/zel-bench-payload" "$lab/pki" "$lab/payload.bin" "$local_mib" >/dev/null ||
        fail "local: cannot make the payload file"
    host_start local "${wrapper[@]}" -- --update-permission download --update-file "$lab/payload.bin"
    poll 600 host_said "update Downloaded" local || fail "local: not staged after 600 s"
    threads_now
}

scenario_streaming() {
    host_start streaming "${wrapper[@]}" -- --session
    poll 60 session_active || fail "streaming: no active session after 60 s"
    run_command FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL "{\"ACTION\": \"RUNNING\",
        \"RELAY_SERVER_ADDRESS\": \"127.0.0.1\", \"RELAY_SERVER_PORT\": $relay,
        \"RELAY_SERVER_URI\": \"/streams/footprint\"}"
    poll 120 frames_at_least footprint "$frames" || fail "streaming: not $frames frames after 120 s"
    threads_now
    run_command FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL '{"ACTION": "SHUT_DOWN"}'
}

# heaptrack prints sizes with 1000-based units ("292.44K").
to_kib() {
    python3 -c '
import sys
text = sys.argv[1]
scale = {"B": 1, "K": 1e3, "M": 1e6, "G": 1e9}
unit = text[-1] if text[-1] in scale else "B"
number = float(text[:-1] if text[-1] in scale else text)
print("%d" % round(number * scale[unit] / 1024))' "$1"
}

for name in sync session network local streaming; do
    for tool in heaptrack time; do
        echo "footprint: heap, $name under $tool (load $(load1))"
        load=$(load1)  # noted with the figures
        lab_start "$work/$name-$tool" "$settings"
        if [ "$tool" = heaptrack ]; then
            wrapper=(heaptrack -o "$lab/$name")
        else
            wrapper=(/usr/bin/time -v -o "$lab/$name.time")
        fi
        "scenario_$name"
        host_stop
        lab_stop
        if [ "$tool" = heaptrack ]; then
            data=
            for file in "$lab/$name".zst "$lab/$name".gz; do
                [ -f "$file" ] && data=$file
            done
            [ -n "$data" ] || fail "$name: no heaptrack data ($lab/$name.out)"
            heaptrack_print -f "$data" >"$lab/$name.heap.txt" 2>/dev/null || true
            peak=$(sed -n 's/^peak heap memory consumption: //p' "$lab/$name.heap.txt")
            calls=$(sed -n 's/^calls to allocation functions: \([0-9]*\).*/\1/p' "$lab/$name.heap.txt")
            [ -n "$peak" ] || fail "$name: heaptrack recorded nothing ($lab/$name.out)"
            figure heap "$name: peak heap (heaptrack)" "$(to_kib "$peak") KiB" "$calls allocation calls"
        else
            rss=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$lab/$name.time")
            figure heap "$name: max RSS (time -v)" "$rss KiB"
            figure threads "$name" "$(awk -F'\t' '{n += $2} END {print n}' "$lab/threads.txt")" \
                "$(awk -F'\t' '{printf "%s%s %d (%s)", sep, $1, $2, $3; sep = "; "}' "$lab/threads.txt")"
        fi
        # The payloads and staging files are large; keep only the outputs.
        rm -f "$lab/payload.bin" "$lab/data/staging.raw" "$lab/$name".zst "$lab/$name".gz
    done
done
