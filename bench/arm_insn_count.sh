#!/bin/bash
# Instructions per multiply-add of the aarch64 matrix kernels at the nets'
# shapes, beside scalar plain loops, counted under qemu-aarch64 (emulation
# gives no timing), with the cycles they suggest for a Cortex-A55 and a
# Cortex-A76 under the issue limits assumed in bench/arm_insn_count.py.
#
#   bash bench/arm_insn_count.sh [BUILD_DIR]     (default build/aarch64)
#
# Uses the cross build scripts/test.sh makes (or makes one), adding only
# the driver to it.  About three minutes.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build/aarch64}
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake >/dev/null
fi
cmake -S . -B "$dir" -DTOVAD_BUILD_BENCH=ON >/dev/null
cmake --build "$dir" -j"$(nproc)" --target arm_insn_driver >/dev/null
driver=$dir/bench/arm_insn_driver

# The emulator's default processor has the 8-bit dot product (SDOT
# kernels); a Cortex-A72 has not (widening multiply-add kernels).  The
# float kernels are the same on both.
python3 bench/arm_insn_count.py "$driver"
echo
python3 bench/arm_insn_count.py "$driver" --cpu cortex-a72 --filter i8

# Cross-check of the block counting: with one instruction per block the
# emulator's log names every instruction executed.
check=i8/16x32x96
if ! diff <(python3 bench/arm_insn_count.py "$driver" --filter "$check" --totals) \
          <(python3 bench/arm_insn_count.py "$driver" --filter "$check" --totals --one-insn-per-tb)
then
  echo "block counts and one-instruction-per-block counts differ for $check" >&2
  exit 1
fi
echo
echo "$check: block counts equal one-instruction-per-block counts"
