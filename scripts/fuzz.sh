#!/usr/bin/env bash
# Builds the libFuzzer harnesses (clang, address and undefined-behaviour
# checks), runs each over its committed corpus in tests/fuzz/<name>/, then
# fuzzes each for SECONDS (default 20).  New inputs go to a scratch corpus;
# a finding is written to build/fuzz/findings/ and fails the script.
#
#   scripts/fuzz.sh [SECONDS] [HARNESS...]
#
# FUZZ_RUNS=N bounds each harness to N inputs as well (in one process);
# FUZZ_SEED=N fixes the mutations.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-20}
shift || true
harnesses=("$@")
[ ${#harnesses[@]} -eq 0 ] && harnesses=(conf params symbol meanvar pred_create audio)

CC=clang CXX=clang++ cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=Debug -DTOVAD_FUZZ=ON \
  -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" -DCMAKE_C_FLAGS_DEBUG="-O1 -g" >/dev/null
cmake --build build/fuzz -j"$(nproc)" --target fuzzers

out=build/fuzz/findings
mkdir -p "$out"
# Gigabyte allocations and hangs are findings too.
limits=(-rss_limit_mb=2048 -malloc_limit_mb=256 -timeout=20)
# A fixed seed (FUZZ_SEED) makes a run repeat the same mutations; 0 draws one.
seed=(-seed="${FUZZ_SEED:-0}")
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
for h in "${harnesses[@]}"; do
  bin=build/fuzz/tests/fuzz/fuzz_$h
  n=$(find "tests/fuzz/$h" -type f | wc -l)
  echo "== fuzz_$h: corpus of $n inputs, leak checks on"
  # Inputs that end in a fatal report leave their allocations behind by
  # design; the harness hides exactly those from the leak checker.
  if ! "$bin" "${limits[@]}" -runs=0 -artifact_prefix="$out/$h-" "tests/fuzz/$h" \
      >"$out/$h-corpus.log" 2>&1; then
    tail -n 60 "$out/$h-corpus.log"
    echo "fuzz_$h: the corpus fails (log $out/$h-corpus.log)"
    exit 1
  fi
  echo "== fuzz_$h: ${seconds}s of fuzzing"
  scratch=$(mktemp -d)
  log="$out/$h.log"
  # A leak check after every input that aborts costs a hundredfold in
  # speed; leaks are covered by the corpus run above.
  # Loads that abort leave their memory behind, so a process grows as it
  # fuzzes (a few KB per input): a run bounded by FUZZ_RUNS inputs stays in
  # one process and repeats exactly with a fixed seed; a run bounded only
  # by time goes through short-lived children.
  if [ -n "${FUZZ_RUNS:-}" ]; then
    bound=(-runs="$FUZZ_RUNS")
  else
    bound=(-fork=1 -ignore_crashes=0)
  fi
  status=0
  "$bin" "${limits[@]}" "${seed[@]}" "${bound[@]}" -detect_leaks=0 -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix="$out/$h-" "$scratch" "tests/fuzz/$h" >"$log" 2>&1 || status=$?
  rm -rf "$scratch"
  grep -E '^(stat::number_of_executed_units|stat::new_units_added|#[0-9]+ +DONE)' "$log" || true
  if [ "$status" -ne 0 ]; then
    tail -n 60 "$log"
    echo "fuzz_$h: finding saved in $out (log $log)"
    exit 1
  fi
done
