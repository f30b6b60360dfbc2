#!/usr/bin/env bash
# The whole run that makes the bundled streaming model: corpus, features,
# training in the engine's fixed-point arithmetic, export and the export's
# check data.  About ten minutes on two idle cores.
#
#   training/make_streaming_model.sh BUILD [WORK]
#
# BUILD is a build tree with tools/tovad_feature_dump; WORK (default
# training/work) receives the corpus, the features and the trained model.
# Writes models/default/ and tests/data/streaming_model_*.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(dirname "$here")"
build="$(cd "$1" && pwd)"
work="${2:-$here/work}"
py=/usr/bin/python3
run() { echo "== $*" >&2; nice -n 19 "$@"; }

[ -f "$work/corpus/heldout_onset/manifest.json" ] ||
  run $py "$here/corpus.py" --out "$work/corpus" --train-clips 480 --heldout-clips 80 \
    --real-clips 40 --onset-clips 120 --jobs 2
[ -f "$work/features/heldout_onset/0000.f32" ] ||
  run $py "$here/features.py" --dump "$build/tools/tovad_feature_dump" \
    --corpus "$work/corpus" --out "$work/features"
# The net learns speech on the ordinary clips first, then a short run with
# the noise-onset clips teaches it that noise starting is not speech without
# undoing that: trained on both from the start, it opens early on a
# recording that starts in noise.
run $py "$here/train_stream.py" --features "$work/features" --corpus "$work/corpus" \
  --out "$work/stream_base" --no-onsets
run $py "$here/train_stream.py" --features "$work/features" --corpus "$work/corpus" \
  --out "$work/stream" --init "$work/stream_base/model.pt" --steps 300 --max-lr 1e-3
run $py "$here/export_stream.py" --model "$work/stream" --out "$root/models/default" \
  --check-features "$work/features/heldout_real/0000.f32" --check-out "$root/tests/data"
