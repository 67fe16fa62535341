#!/usr/bin/env bash
# The agent's footprint and speed, as one table:
#   library  libzel.so stripped in Release and MinSizeRel, its exports (only
#            Zel*, else this fails) and NEEDED libraries
#   idle     CPU time and wake-ups per thread over a minute between polls,
#            threads per service
#   heap     peak heap (heaptrack) and max RSS (/usr/bin/time -v) while
#            synchronising, in a session, staging 64 MiB over the network and
#            1 GiB from a local payload file, and streaming
#   term     ZelTerm to Uninitialized in six states (TermBench)
#   http     CPU per da exchange, new and reused connection (HttpBench)
#
#   bench/footprint.sh BUILD_ROOT
#
# Installs what is missing (scripts/setup.sh --bench), builds Release into
# BUILD_ROOT/release and MinSizeRel into BUILD_ROOT/minsizerel with
# ZEL_JOBS (1) jobs under nice, then measures. ZEL_FOOTPRINT_PARTS ("library
# idle heap term http") picks parts; ZEL_BENCH_IDLE_SECONDS (60),
# ZEL_BENCH_LOCAL_MB (1024), ZEL_BENCH_NETWORK_MB (64) and ZEL_BENCH_FRAMES
# (300) size them. Needs about 2.2 GB free in TMPDIR (/tmp); takes about ten
# minutes besides the builds.
set -euo pipefail

[ $# -eq 1 ] || {
    echo "usage: $(basename "$0") BUILD_ROOT" >&2
    exit 2
}
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
parts=" ${ZEL_FOOTPRINT_PARTS:-library idle heap term http} "

"$root/scripts/setup.sh" --bench
mkdir -p "$1"
builds=$(cd "$1" && pwd)
release=$builds/release
minsize=$builds/minsizerel
export ZEL_JOBS=${ZEL_JOBS:-1}

echo "footprint: building Release in $release (load $(cut -d' ' -f1-3 /proc/loadavg))"
ZEL_TARGETS="zel zel-host zel-cloud zel_korvane_sample zel-bench-payload TermBench HttpBench" \
    nice -n 10 "$root/scripts/build.sh" "$release" -DCMAKE_BUILD_TYPE=Release \
    -DZEL_BUILD_TESTS=OFF
echo "footprint: building MinSizeRel in $minsize"
ZEL_TARGETS=zel nice -n 10 "$root/scripts/build.sh" "$minsize" -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_TOOLS=OFF -DZEL_BUILD_BENCH=OFF

work=$(mktemp -d "${TMPDIR:-/tmp}/zel-footprint.XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
figures=$work/figures.tsv
: >"$figures"
load() { cut -d' ' -f1 /proc/loadavg; }
started="$(date -u +%FT%TZ), load $(cut -d' ' -f1-3 /proc/loadavg)"

case $parts in *" library "*)
    "$here/footprint/library.sh" "$figures" "Release=$release/libzel.so" \
        "MinSizeRel=$minsize/libzel.so" ;;
esac
case $parts in *" idle "*) "$here/footprint/idle.sh" "$release" "$work" "$figures" ;; esac
case $parts in *" heap "*) "$here/footprint/heap.sh" "$release" "$work" "$figures" ;; esac
case $parts in *" term "*)
    echo "footprint: TermBench (load $(load))"
    at=$(load)
    timeout 900 "$release/bench/TermBench" --benchmark_out="$work/term.json" \
        --benchmark_out_format=json >"$work/term.out" 2>&1 ||
        echo "footprint: TermBench failed, see its figures" >&2
    python3 "$here/footprint/report.py" term "$work/term.json" "$figures" "$at" ;;
esac
case $parts in *" http "*)
    echo "footprint: HttpBench (load $(load))"
    at=$(load)
    timeout 600 "$release/bench/HttpBench" --benchmark_repetitions=5 \
        --benchmark_report_aggregates_only=true --benchmark_out="$work/http.json" \
        --benchmark_out_format=json >"$work/http.out" 2>&1 ||
        echo "footprint: HttpBench failed, see its figures" >&2
    python3 "$here/footprint/report.py" http "$work/http.json" "$figures" "$at" ;;
esac

echo
echo "## Footprint: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(nproc) cores, Linux $(uname -r)"
echo
echo "Started $started; ended $(date -u +%FT%TZ), load $(cut -d' ' -f1-3 /proc/loadavg)."
python3 "$here/footprint/report.py" table "$figures"
if [ -f "$work/idle.md" ]; then
    echo
    echo "### Idle, per thread"
    echo
    cat "$work/idle.md"
fi
