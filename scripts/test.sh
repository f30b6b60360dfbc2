#!/usr/bin/env bash
# The whole test suite: a Release build, then a Debug build under
# AddressSanitizer and UndefinedBehaviorSanitizer; CTest runs in both.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install_deps.sh
jobs=$(nproc)

run_config() {
  local dir=$1
  shift
  cmake -S . -B "$dir" "$@"
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest -j"$jobs" --output-on-failure --timeout 600)
}

run_config build/release -DCMAKE_BUILD_TYPE=Release
# Halt on the first UBSan report; leaks count as failures too.
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
run_config build/sanitize -DCMAKE_BUILD_TYPE=Debug -DTOVAD_SANITIZE=ON
