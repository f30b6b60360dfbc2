#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, builds a consumer
# program there with find_package and with pkg-config, and runs both and
# the installed tovad on the sample recording.
# Usage: check_install.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
sample=$src/tests/data/tovad_sample.wav

cmake --install "$build" --prefix "$prefix" >/dev/null
model=$prefix/share/tovadmod/models/default
for f in include/tovadmod/tovad_api.h bin/tovad share/tovadmod/models/{default,dense}/tovad.conf; do
  [ -e "$prefix/$f" ] || { echo "not installed: $f"; exit 1; }
done

cmake -S "$src/tests/install/consumer" -B "$tmp/by_cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$tmp/by_cmake" >/dev/null

pcdir=$(dirname "$(find "$prefix" -name tovadmod.pc)")
flags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs tovadmod)
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir tovadmod)
# shellcheck disable=SC2086
c++ -std=c++17 -o "$tmp/by_pc" "$src/tests/install/consumer/consumer.cpp" $flags \
  -Wl,-rpath,"$libdir"

a=$("$tmp/by_cmake/consumer" "$model" tovad.conf "$sample" 2>/dev/null)
b=$("$tmp/by_pc" "$model" tovad.conf "$sample" 2>/dev/null)
[ -n "$a" ] || { echo "consumer found no segment"; exit 1; }
[ "$a" = "$b" ] || { echo "find_package and pkg-config builds differ"; exit 1; }
echo "consumer segments (frames):"
echo "$a"

# The installed tool finds the installed model and says nothing else.
out=$("$prefix/bin/tovad" "$sample" 2>"$tmp/err")
[ -s "$tmp/err" ] && { echo "tovad wrote to stderr:"; cat "$tmp/err"; exit 1; }
[ "$(echo "$out" | wc -l)" -eq "$(echo "$a" | wc -l)" ] ||
  { echo "tovad and the consumer disagree on the segment count"; exit 1; }
echo "installed tovad:"
echo "$out"
