#!/usr/bin/env bash
# build.sh DIR [cmake options...]: configures and builds the project into DIR;
# ZEL_TARGETS="a b" builds only those targets.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$1
shift
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$root" -B "$dir" "$@" >/dev/null
targets=()
for target in ${ZEL_TARGETS:-}; do targets+=(--target "$target"); done
cmake --build "$dir" -j"$jobs" "${targets[@]}"
