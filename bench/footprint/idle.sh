#!/usr/bin/env bash
# idle.sh BUILD WORK FIGURES: the idle agent between two polls. The cloud
# hands out poll delays of two minutes (da and drmp, nothing varied); once
# zel-host's agent has synchronised and provisioning has polled, and the
# cloud has seen no request for 3 s, every thread's CPU time (schedstat,
# and user/system ticks) and context switches are taken from /proc before
# and after ZEL_BENCH_IDLE_SECONDS (60). Voluntary switches are the thread's
# wake-ups; with nothing due in the window, the agent should have none.
# Appends to FIGURES; the per-thread table goes to WORK/idle.md.
set -euo pipefail
build=$1
work=$2
figures=$3
root=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source-path=SCRIPTDIR source=lab.sh
source "$(dirname "$0")/lab.sh"
trap lab_cleanup EXIT
trap 'exit 130' INT TERM

window=${ZEL_BENCH_IDLE_SECONDS:-60}
# The window must fall between two polls.
[ "$window" -le 100 ] || fail "ZEL_BENCH_IDLE_SECONDS must be at most 100"
settings='{"daPollDelayFixedMs": 120000, "daPollDelayVariedMs": 0,
  "drmpPollDelayFixedMs": 120000, "drmpPollDelayVariedMs": 0}'

lab_start "$work/idle" "$settings"
host_start idle /usr/bin/time -v -o "$lab/idle.time" --
poll 60 synchronized || fail "idle: not synchronised after 60 s"
poll 60 provisioned || fail "idle: no provisioning call after 60 s"
quiet=
for _ in $(seq 10); do
    before=$(requests_count)
    sleep 3
    if [ "$(requests_count)" = "$before" ]; then
        quiet=yes
        break
    fi
done
[ -n "$quiet" ] || fail "idle: the agent kept calling the cloud"

load=$(load1)
echo "footprint: idle for $window s (load $load)"
python3 "$procstat" snapshot "$host_pid" "$lab/before.json"
sleep "$window"
python3 "$procstat" snapshot "$host_pid" "$lab/after.json"
calls=$(($(requests_count) - before))
python3 "$procstat" services "$lab/before.json" >"$lab/threads.txt"
host_stop
lab_stop

python3 "$procstat" idle "$lab/before.json" "$lab/after.json" >"$lab/idle.txt"
grep -v '^TOTAL' "$lab/idle.txt" >"$work/idle.md"
read -r _ cpu voluntary involuntary < <(grep '^TOTAL' "$lab/idle.txt")
note="agent threads only; the cloud saw $calls calls in the window"
figure idle "agent CPU time in $window s" "$cpu ms" "$note"
figure idle "agent wake-ups (voluntary switches) in $window s" "$voluntary" "$note"
figure idle "agent involuntary switches in $window s" "$involuntary" "$note"
while IFS=$'\t' read -r service count names; do
    figure idle-threads "$service" "$count" "$names"
done <"$lab/threads.txt"
rss=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$lab/idle.time")
figure heap "idle (synchronised): max RSS (time -v)" "$rss KiB"
