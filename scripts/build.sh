#!/usr/bin/env bash
# build.sh DIR [cmake options...]: configures and builds the project into DIR;
# ZEL_TARGETS="a b" builds only those targets; ZEL_JOBS sets the parallel jobs
# (default: one per core).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$1
shift
jobs=${ZEL_JOBS:-$(nproc 2>/dev/null || echo 2)}
cmake -S "$root" -B "$dir" "$@" >/dev/null
targets=()
for target in ${ZEL_TARGETS:-}; do targets+=(--target "$target"); done
cmake --build "$dir" -j"$jobs" "${targets[@]}"
