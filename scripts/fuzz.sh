#!/usr/bin/env bash
# fuzz.sh [SECONDS_PER_TARGET]: builds the libFuzzer targets of tests/fuzz into
# build-fuzz with clang, then runs each one for that many seconds (default 30)
# on a throw-away copy of its seed corpus. Exits non-zero when any target finds
# something; the input is kept under build-fuzz/findings/<target>/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-30}
if ! [[ "$seconds" =~ ^[1-9][0-9]*$ ]]; then
  echo "fuzz.sh: SECONDS_PER_TARGET must be a positive whole number, not '$seconds'" >&2
  exit 2
fi
dir=$root/build-fuzz

echo "== fuzz: building in $dir"
start=$(date +%s)
ZEL_TARGETS=fuzz "$root/scripts/build.sh" "$dir" \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZEL_BUILD_FUZZ=ON -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_TOOLS=OFF -DZEL_BUILD_BENCH=OFF
echo "== fuzz: built in $(($(date +%s) - start)) s"

# Findings must carry readable stacks; the symbolizer comes with llvm-14.
symbolizer=
for candidate in /usr/lib/llvm-14/bin/llvm-symbolizer "$(command -v llvm-symbolizer || true)"; do
  if [ -n "$candidate" ] && [ -x "$candidate" ]; then
    symbolizer=":external_symbolizer_path=$candidate"
    break
  fi
done
export ASAN_OPTIONS="detect_leaks=1$symbolizer"
# GLib keeps its first quark table alive on purpose (see tests/lsan.supp).
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1$symbolizer"

# The fuzzers write new inputs into their corpus and may look at their working
# directory: both live in a temporary directory, never in the repository.
work=$(mktemp -d "${TMPDIR:-/tmp}/zel-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$dir/fuzz-logs"

passed=0
failed=0
while read -r target; do
  [ -n "$target" ] || continue
  binary=$dir/tests/fuzz/$target
  findings=$dir/findings/$target
  log=$dir/fuzz-logs/$target.log
  rm -rf "$findings"
  mkdir -p "$findings" "$work/$target/corpus"
  cp -R "$root/tests/fuzz/corpus/$target/." "$work/$target/corpus/"
  seeds=$(find "$work/$target/corpus" -type f | wc -l)

  echo "== fuzz: $target for $seconds s on $seeds seeds"
  if (cd "$work/$target" && "$binary" -max_total_time="$seconds" -timeout=10 \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$findings/" corpus) \
    >"$log" 2>&1; then
    ok=1
  else
    ok=0
  fi

  speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 || true)
  corpus=$(find "$work/$target/corpus" -type f | wc -l)
  echo "   ${runs:-?} runs, ${speed:-?} exec/s, ${cov:-cov: ?}, corpus $seeds -> $corpus inputs"

  if [ "$ok" -eq 1 ]; then
    passed=$((passed + 1))
    continue
  fi
  failed=$((failed + 1))
  echo "   FAILED: the end of $log follows"
  tail -n 60 "$log" | sed 's/^/   | /'
  found=0
  for input in "$findings"/*; do
    [ -f "$input" ] || continue
    found=1
    echo "   input:     $input"
    echo "   reproduce: $binary $input"
  done
  if [ "$found" -eq 0 ]; then
    echo "   no input was saved: the full log is $log"
  fi
  echo "   once fixed, copy the input into tests/fuzz/corpus/$target/ as a regression seed"
done <"$dir/fuzz-targets.txt"

echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
