#!/usr/bin/env bash
# Installs what the build needs, builds libtovadmod and the tovad program in
# Release, and runs tovad on the bundled sample recording.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install_deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release
cmake --build build/release -j"$(nproc)"
echo "built: $(ls build/release/libtovadmod.so.*.*.*)"
echo "segments of tests/data/tovad_sample.wav (seconds):"
build/release/tools/tovad tests/data/tovad_sample.wav
