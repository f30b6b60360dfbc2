#!/usr/bin/env bash
# Rebuilds the seed files of the fuzz corpora from the test fixtures.  Files
# that fuzzing found (named crash-*, regress-*) are kept.
set -euo pipefail
cd "$(dirname "$0")"
data=../data

for d in conf params symbol meanvar pred_create audio; do
  mkdir -p "$d"
  find "$d" -name 'seed-*' -delete
done

cp ../../models/default/tovad.conf conf/seed-default.conf
printf 'n_batch=1\nn_chan = 3 # note\n=x\nkey==v=w\n#=\n  \nlast=no_newline' > conf/seed-edges.conf
head -c 600 /dev/zero | tr '\0' 'k' > conf/seed-long-line.conf

# Larger fixtures only slow the fuzzer down: its inputs grow to the largest seed.
small() { [ "$(stat -c %s "$1")" -le 8192 ]; }

for f in "$data"/net/*.params "$data"/ruvo/*.params "$data"/toolkit/*.params; do
  small "$f" && cp "$f" "params/seed-$(basename "$f")"
done
for f in "$data"/net/*-symbol.json "$data"/ruvo/*.json "$data"/toolkit/*.json \
         ../../models/default/tovad.json; do
  cp "$f" "symbol/seed-$(basename "$f")"
done

cp "$data"/toolkit/tone_meanvar.txt meanvar/seed-tone.txt
head -n 1 "$data"/toolkit/tone_meanvar.txt > meanvar/seed-short.txt
{ cat "$data"/toolkit/tone_meanvar.txt; echo 1.5; } > meanvar/seed-long.txt
sed 's/ 1 / 1e39 x -nan /' "$data"/toolkit/tone_meanvar.txt > meanvar/seed-odd.txt

# "<input name> <dims>" from each case's io file, then symbol, NUL, params.
for io in "$data"/net/*.io; do
  base=${io%.io}
  head=$(grep -m1 '^input ' "$io" | cut -d' ' -f2,4-) || continue
  # A sequence goes in one frame a call.
  grep -q '^case sequence' "$io" && head=$(echo "$head" | awk '{ $2 = 1; print }')
  for p in "$base".params "$base"_*.params; do
    [ -f "$p" ] || continue
    out="pred_create/seed-$(basename "$p" .params)"
    { echo "$head"; cat "$base"-symbol.json; printf '\0'; cat "$p"; } > "$out"
    small "$out" || rm "$out"
  done
done
{ echo "data 1 5 3 40"; cat "$data"/toolkit/tone_model.json; printf '\0'; \
  cat "$data"/toolkit/tone_model.params; } > pred_create/seed-tone_model

/usr/bin/python3 - <<'PY'
import math, struct, wave
def write(name, rate, channels, width, frames):
    with wave.open("audio/seed-" + name, "wb") as w:
        w.setnchannels(channels); w.setsampwidth(width); w.setframerate(rate)
        out = bytearray()
        for i in range(frames):
            v = math.sin(2 * math.pi * 440 * i / rate) * 0.3
            for c in range(channels):
                if width == 1: out += struct.pack("<B", int(128 + v * 127))
                elif width == 2: out += struct.pack("<h", int(v * 32767))
                else: out += struct.pack("<i", int(v * 2147483647))[4 - width:]
        w.writeframes(bytes(out))
write("16k-mono-16.wav", 16000, 1, 2, 400)
write("8k-stereo-16.wav", 8000, 2, 2, 300)
write("44k-mono-8.wav", 44100, 1, 1, 500)
write("48k-3ch-24.wav", 48000, 3, 3, 200)
write("22k-mono-32.wav", 22050, 1, 4, 200)
write("16k-empty.wav", 16000, 1, 2, 0)
PY
head -c 300 audio/seed-16k-mono-16.wav > audio/seed-truncated.wav
