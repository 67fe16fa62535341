#!/usr/bin/env bash
# Screen-streaming figures on one core: starts zel-cloud's media relay on one
# core, runs StreamingBench (the agent's pipeline, gst-launch-1.0 paced and
# unpaced, the sample plug-in's fill, videotestsrc alone) on another, then
# whole unpaced gst-launch-1.0 runs under /usr/bin/time -v, and prints a
# table. Builds nothing: build StreamingBench in BUILD_DIR first.
#
#   bench/streaming.sh BUILD_DIR [StreamingBench options...]
#
# ZEL_BENCH_CORE (0) and ZEL_BENCH_RELAY_CORE (1) choose the cores,
# ZEL_BENCH_STREAM_SECONDS (3) the measured window of each run,
# ZEL_BENCH_TIMED_FRAMES (300) the frames of each /usr/bin/time run.
set -euo pipefail

[ $# -ge 1 ] || {
    echo "usage: $(basename "$0") BUILD_DIR [StreamingBench options...]" >&2
    exit 2
}
build=$(cd "$1" && pwd)
shift
root=$(cd "$(dirname "$0")/.." && pwd)
core=${ZEL_BENCH_CORE:-0}
relay_core=${ZEL_BENCH_RELAY_CORE:-1}
timed_frames=${ZEL_BENCH_TIMED_FRAMES:-300}
bench=$build/bench/StreamingBench
cloud=$build/tools/cloud/zel-cloud
plugin=$build/tools/korvane/libzel_korvane_sample.so

for file in "$bench" "$cloud" "$plugin"; do
    [ -e "$file" ] || {
        echo "streaming: $file is missing; build StreamingBench in $build" >&2
        exit 1
    }
done
for tool in gst-launch-1.0 taskset python3 curl; do
    command -v "$tool" >/dev/null || {
        echo "streaming: $tool not found" >&2
        exit 1
    }
done
[ -x /usr/bin/time ] || {
    echo "streaming: /usr/bin/time not found (Debian package 'time')" >&2
    exit 1
}

work=$(mktemp -d "${TMPDIR:-/tmp}/zel-streaming.XXXXXX")
cloud_pid=
cleanup() {
    if [ -n "$cloud_pid" ]; then
        kill "$cloud_pid" 2>/dev/null || true
        wait "$cloud_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

echo "streaming: load average $(cut -d' ' -f1-3 /proc/loadavg), $(nproc) cores"
"$root/tools/pki/make-pki.sh" "$work/pki" zel.localhost >/dev/null 2>&1 || {
    echo "streaming: make-pki.sh failed" >&2
    exit 1
}
taskset -c "$relay_core" "$cloud" --pki "$work/pki" --payload-port -1 --quiet \
    >"$work/cloud.out" 2>&1 &
cloud_pid=$!
relay=
control=
for _ in $(seq 50); do
    relay=$(sed -n 's|.*media relay on http://127.0.0.1:\([0-9]*\)/.*|\1|p' "$work/cloud.out")
    control=$(sed -n 's|.*control on http://127.0.0.1:\([0-9]*\).*|\1|p' "$work/cloud.out")
    [ -n "$relay" ] && [ -n "$control" ] && break
    sleep 0.1
done
if [ -z "$relay" ] || [ -z "$control" ]; then
    echo "streaming: zel-cloud did not start:" >&2
    cat "$work/cloud.out" >&2
    exit 1
fi
echo "streaming: relay on port $relay (core $relay_core), measured process on core $core"

ZEL_BENCH_CONTROL_PORT=$control ZEL_BENCH_RELAY_PORT=$relay ZEL_KORVANE_PLUGIN=$plugin \
    taskset -c "$core" "$bench" --benchmark_out="$work/bench.json" \
    --benchmark_out_format=json "$@"

# Whole unpaced runs, start-up included, as /usr/bin/time -v sees them.
timed() {
    local width=$1 height=$2 name=$3
    /usr/bin/time -v -o "$work/$name.time" taskset -c "$core" gst-launch-1.0 -q \
        videotestsrc num-buffers="$timed_frames" pattern=smpte \
        ! video/x-raw,format=RGBA,width=1280,height=720,framerate=60/1 \
        ! videocrop right=40 ! video/x-raw,format=RGBA,width=1240,height=720 \
        ! videoscale method=1 ! video/x-raw,format=RGBA,width="$width",height="$height" \
        ! videoconvert ! video/x-raw,format=YUY2,width="$width",height="$height",framerate=60/1 \
        ! jpegenc quality=75 ! multipartmux boundary=zelframe \
        ! curlhttpsink timeout=5 sync=false \
        location="http://127.0.0.1:$relay/streams/$name?producerid=1&action=publish" \
        content-type="multipart/x-mixed-replace; boundary=zelframe"
}
for size in 1280x720 640x360; do
    for run in 1 2 3; do
        timed "${size%x*}" "${size#*x}" "timed-$size-$run"
    done
done

curl -sS --max-time 5 "http://127.0.0.1:$control/control/streams" >"$work/streams.json"
curl -sS --max-time 5 "http://127.0.0.1:$control/control/requests" >"$work/requests.json"

python3 - "$work" "$timed_frames" <<'PYTHON'
import glob, json, os, re, sys

work, timed_frames = sys.argv[1], int(sys.argv[2])
runs = {}
for b in json.load(open(os.path.join(work, "bench.json")))["benchmarks"]:
    if b.get("run_type") != "iteration" or b.get("error_occurred"):
        continue
    runs.setdefault(b["run_name"], []).append(b)

def spread(values, digits):
    values = sorted(values)
    if not values:
        return "-"
    median = values[len(values) // 2]
    text = f"{median:.{digits}f}"
    if len(values) > 1:
        text += f" ({values[0]:.{digits}f}-{values[-1]:.{digits}f})"
    return text

def counter(name, key):
    return [b[key] for b in runs.get(name, []) if key in b]

rows = [
    ("agent, 60/1", "BM_AgentStream/{w}/{h}"),
    ("gst-launch, paced", "BM_GstLaunch/w:{w}/h:{h}/paced:1"),
    ("gst-launch, unpaced", "BM_GstLaunch/w:{w}/h:{h}/paced:0"),
]
print()
print("Median (min-max) of %s runs each; CPU per frame of the whole process on one core."
      % max([len(v) for v in runs.values()] or [0]))
print()
print("| Output | Producer | fps at the relay | CPU ms/frame | max fps on one core | KB/frame |")
print("|---|---|---|---|---|---|")
for w, h in ((1280, 720), (640, 360)):
    for label, pattern in rows:
        name = pattern.format(w=w, h=h)
        name = next((n for n in runs if n.startswith(name + "/")), None)
        if name is None:
            print(f"| {w}x{h} | {label} | failed | | | |")
            continue
        print(f"| {w}x{h} | {label} | {spread(counter(name, 'fps'), 1)} | "
              f"{spread(counter(name, 'CpuMs/frame'), 2)} | {spread(counter(name, 'MaxFps'), 0)} | "
              f"{spread(counter(name, 'KB/frame'), 1)} |")

streams = {s["name"]: s for s in json.load(open(os.path.join(work, "streams.json")))}
print()
print(f"Whole unpaced gst-launch-1.0 runs of {timed_frames} frames, start-up included "
      "(/usr/bin/time -v):")
print()
print("| Output | frames at the relay | elapsed s | CPU s | fps | CPU ms/frame |")
print("|---|---|---|---|---|---|")
for size in ("1280x720", "640x360"):
    frames, elapsed, cpu = [], [], []
    for path in sorted(glob.glob(os.path.join(work, f"timed-{size}-*.time"))):
        text = open(path).read()
        name = os.path.basename(path)[:-5]
        user = float(re.search(r"User time \(seconds\): ([\d.]+)", text).group(1))
        system = float(re.search(r"System time \(seconds\): ([\d.]+)", text).group(1))
        clock = re.search(r"Elapsed \(wall clock\) time.*: (?:(\d+):)?(\d+):([\d.]+)", text)
        seconds = int(clock.group(1) or 0) * 3600 + int(clock.group(2)) * 60 + float(clock.group(3))
        frames.append(streams.get(name, {}).get("frames", 0))
        elapsed.append(seconds)
        cpu.append(user + system)
    fps = [f / e for f, e in zip(frames, elapsed) if e > 0]
    per = [1000 * c / f for c, f in zip(cpu, frames) if f > 0]
    print(f"| {size} | {spread(frames, 0)} | {spread(elapsed, 2)} | {spread(cpu, 2)} | "
          f"{spread(fps, 1)} | {spread(per, 2)} |")

print()
fill = counter(next((n for n in runs if n.startswith("BM_SampleFill")), ""), "cpu_time")
print(f"Sample plug-in fill, 1280x720 RGBA: {spread(fill, 2)} ms/frame")
source = counter(next((n for n in runs if n.startswith("BM_TestSource")), ""), "CpuMs/frame")
print(f"videotestsrc smpte alone, 1280x720 RGBA: {spread(source, 2)} ms/frame")

# Uploads the relay did not end as a finished body.
bad = [r for r in json.load(open(os.path.join(work, "requests.json")))
       if r.get("path", "").startswith("/relay/") and r.get("status") != 200]
short = [n for n in sorted(streams)
         if n.startswith("timed-") and streams[n]["frames"] != timed_frames]
print()
print("Relay: %d uploads, %s" % (
    len(streams),
    "all ended normally" if not bad else "not ended normally: " + "; ".join(
        f"{r['path']} {r['status']} {r.get('note', '')}" for r in bad)))
if short:
    print("Frames lost in the timed runs: " + ", ".join(
        f"{n} {streams[n]['frames']}/{timed_frames}" for n in short))
PYTHON
