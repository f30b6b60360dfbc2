#!/usr/bin/env bash
# Installs what the build needs and builds libtovadmod in Release.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install_deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DTOVAD_BUILD_BENCH=ON
cmake --build build/release -j"$(nproc)"
echo "built: $(ls build/release/libtovadmod.so*)"
