#!/usr/bin/env bash
# Installs what training/ needs beyond the build: speech synthesis, audio
# conversion, PyTorch and Node.js for the comparison with public detectors.
# Not part of the build or the tests.  Runs as root (or through sudo).
set -euo pipefail

packages=(espeak-ng sox python3 python3-numpy python3-torch nodejs npm)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
# A Node.js that came with its own npm counts as having npm.
if command -v npm >/dev/null; then
  missing=("${missing[@]/npm/}")
fi
if [ -n "$(echo "${missing[@]}" | tr -d ' ')" ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  echo "installing: ${missing[*]}"
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends ${missing[@]}
fi

# The peers of the evaluation, from the lock file; the runtime package
# must not fetch extra binaries at install time.
cd "$(dirname "$0")/../training/eval"
ONNXRUNTIME_NODE_INSTALL=skip npm ci --no-audit --no-fund
