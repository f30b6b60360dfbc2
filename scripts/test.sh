#!/usr/bin/env bash
# The whole test suite: a Release build, then a Debug build under
# AddressSanitizer and UndefinedBehaviorSanitizer, then an aarch64 cross
# build run under qemu-user; CTest runs in each.
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

# --- aarch64 under qemu-user (begin) ---
# The whole suite runs once on the emulator's default CPU, which has the
# 8-bit dot product, so the SDOT int8 kernels are in use; the kernel tests
# run every variant the CPU supports, so the widening NEON kernels as well.
# Then only the tests whose results rest on the int8 variant the library
# picks by itself (the int8 kernels, the 8-bit layers and fixture nets,
# the bundled streaming model and the comparisons with the host build) run
# again on a CPU without it: a second whole run under emulation would not
# fit the CI time.
# The comparisons need the host Release build above.
run_aarch64() {
  local dir=build/aarch64
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
    -DTOVAD_HOST_BUILD_DIR="$PWD/build/release"
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest -j"$jobs" --output-on-failure --timeout 900)
  (cd "$dir" && QEMU_CPU=cortex-a72 ctest -j"$jobs" --output-on-failure --timeout 900 \
    -R '^(I8|Nets/FixtureNetTest|NetRunTest|ConvolutionTest|StreamingModelTest|QuantisedNetTest|QuantStreamTest|AlphaLayersTest|cross_)')
}
unset UBSAN_OPTIONS
run_aarch64
# --- aarch64 under qemu-user (end) ---
# --- Hardening: fuzz harnesses and ThreadSanitizer ---------------------------
# Every harness over its corpus plus a short bounded fuzzing run (clang):
# a fixed seed and a fixed number of inputs, so that a run can be repeated.
FUZZ_SEED=20261123 FUZZ_RUNS=20000 scripts/fuzz.sh 40
# Handles and predictors on eight threads under ThreadSanitizer; only the
# thread test and the library it links are built.
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=Debug -DTOVAD_TSAN=ON \
  -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" -DCMAKE_C_FLAGS_DEBUG="-O1 -g"
cmake --build build/tsan -j"$jobs" --target threads_test
(cd build/tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -R '^Threads\.')
# --- end of hardening --------------------------------------------------------
