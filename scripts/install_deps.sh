#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need.
# Runs as root (or through sudo); does nothing when all are present.
set -euo pipefail

packages=(
  cmake make g++ clang pkg-config
  libcjson-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  python3 python3-numpy python3-scipy python3-matplotlib python3-torch
  libfftw3-dev libopenblas-dev
  libsndfile1-dev libsoxr-dev
  # Fuzz harnesses: clang's libFuzzer and sanitizer runtimes.
  clang-14 libclang-rt-14-dev
)

# --- aarch64 cross build (begin) ---
# The cross compiler, the emulator the aarch64 tests run under, and the
# arm64 multiarch builds of the libraries the build links.
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  $( [ "$(id -u)" -ne 0 ] && echo sudo ) dpkg --add-architecture arm64
fi
packages+=(
  g++-aarch64-linux-gnu qemu-user
  libc6-dev:arm64 libstdc++6:arm64 libcjson-dev:arm64
  libgtest-dev:arm64 libgmock-dev:arm64 libsndfile1-dev:arm64 libsoxr-dev:arm64
)
# --- aarch64 cross build (end) ---

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "installing: ${missing[*]}"
$sudo apt-get update
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
