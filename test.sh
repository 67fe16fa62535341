#!/usr/bin/env bash
# Installs what is missing, checks the formatting, builds, and runs the whole
# test suite three times: plain, under AddressSanitizer+UndefinedBehaviorSanitizer,
# and under ThreadSanitizer; then runs every fuzz target for ZEL_FUZZ_SECONDS
# (default 30) each. Name configurations to run fewer: ./test.sh format plain asan
set -euo pipefail
root=$(cd "$(dirname "$0")" && pwd)
"$root/scripts/setup.sh" --tests

configs=("$@")
[ ${#configs[@]} -gt 0 ] || configs=(format plain asan tsan fuzz)
jobs=$(nproc 2>/dev/null || echo 2)

for config in "${configs[@]}"; do
  case "$config" in
    format)
      echo "== format: clang-format --dry-run --Werror"
      (cd "$root" && git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror)
      continue
      ;;
    fuzz)
      "$root/scripts/fuzz.sh" "${ZEL_FUZZ_SECONDS:-30}"
      continue
      ;;
    plain) dir=build; opts=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
    asan) dir=build-asan; opts=(-DCMAKE_BUILD_TYPE=Debug -DZEL_SANITIZE=address -DZEL_BUILD_BENCH=OFF) ;;
    tsan) dir=build-tsan; opts=(-DCMAKE_BUILD_TYPE=Debug -DZEL_SANITIZE=thread -DZEL_BUILD_BENCH=OFF) ;;
    *) echo "test.sh: unknown configuration '$config' (format, plain, asan, tsan, fuzz)" >&2; exit 2 ;;
  esac
  echo "== $config: building in $dir"
  "$root/scripts/build.sh" "$root/$dir" "${opts[@]}"
  echo "== $config: running the tests"
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp"
  export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$root/tests/tsan.supp"
  (cd "$root/$dir" && ctest --output-on-failure -j"$jobs" --timeout 600)
done
