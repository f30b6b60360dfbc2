#!/usr/bin/python3
"""Scores both bundled models and the two public peers on the held-out sets.

  evaluate.py --tovad BUILD/tools/tovad --corpus ../work/corpus --out ../work/eval
              [--models default,dense] [--no-peers]

For each held-out set (synthetic speech, the recorded speaker that
training never hears, and synthetic speech whose noise starts or steps up
after digital silence or a quieter level), tovad runs once per bundled model (--model NAME) and
its segments become per-frame decisions (NAME.tovad-MODEL.dec); the peers
run through run_peers.mjs (npm ci in this directory first, with
ONNXRUNTIME_NODE_INSTALL=skip).  Prints, per set, each detector's F1,
false-alarm and miss rates over all frames and by noise kind and SNR, the
real-time factors, and each model's decision latency (the conf's
score_delay_frames).  Writes OUT/results.json.
"""

import argparse
import json
import os
import subprocess
import sys
import time

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.join(HERE, "..", "..")
sys.path.insert(0, HERE)
import score  # noqa: E402

SETS = [("heldout", "synthetic held-out"), ("heldout_real", "held-out recorded speaker"),
        ("heldout_onset", "held-out noise onsets after silence or a quieter level")]
PEERS = [("webrtc mode 3", ".webrtc3.dec"), ("silero", ".silero.dec")]


def run_tovad(tovad, model, wavs, out):
    args = [tovad, "--quiet", "--format", "json", "--model", model] + wavs
    t0 = time.time()
    res = subprocess.run(args, check=True, capture_output=True, text=True)
    wall = time.time() - t0
    for f in json.loads(res.stdout)["files"]:
        frames = int(round(f["duration"] * 100))
        dec = np.zeros(frames, np.uint8)
        for s in f["segments"]:
            dec[int(round(s["start"] * 100)):int(round(s["end"] * 100))] = 1
        name = os.path.basename(f["file"])[:-4]
        with open(os.path.join(out, "%s.tovad-%s.dec" % (name, model)), "w") as fh:
            fh.write("\n".join(str(v) for v in dec) + "\n")
    return wall


def conf_value(model, key):
    with open(os.path.join(ROOT, "models", model, "tovad.conf")) as f:
        for line in f:
            k, _, v = line.split("#")[0].replace(" ", "").strip().partition("=")
            if k == key:
                return v
    return None


def table(results, detectors):
    """Rows: groups; per detector F1, false alarms and misses."""
    groups = sorted(results[detectors[0]], key=lambda k: (k != "all", k))
    head = "%-14s" % "group" + "".join("%27s" % d for d in detectors)
    sub = "%-14s" % "" + "".join("%9s%9s%9s" % ("F1", "FA", "miss") for _ in detectors)
    lines = [head, sub]
    for g in groups:
        row = "%-14s" % g
        for d in detectors:
            r = results[d].get(g)
            row += "%9.3f%9.3f%9.3f" % (r["f1"], r["false_alarm"], r["miss"]) if r else " " * 27
        lines.append(row)
    return "\n".join(lines)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--tovad", required=True)
    ap.add_argument("--corpus", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--models", default="default,dense")
    ap.add_argument("--no-peers", action="store_true")
    a = ap.parse_args()
    models = a.models.split(",")
    for m in models:
        delay = int(conf_value(m, "score_delay_frames"))
        print("model %s: decision latency %d ms (score_delay_frames %d)" % (m, 10 * delay, delay))
    all_results = {}
    for split, title in SETS:
        held = os.path.join(a.corpus, split)
        if not os.path.isdir(held):
            continue
        out = os.path.join(a.out, split)
        os.makedirs(out, exist_ok=True)
        names = sorted(n[:-4] for n in os.listdir(held) if n.endswith(".wav"))
        wavs = [os.path.join(held, n + ".wav") for n in names]
        audio = sum(len(score.read_values(os.path.join(held, n + ".labels")))
                    for n in names) / 100.0
        print("\n== %s: %d clips, %.0f s" % (title, len(names), audio))
        detectors = []
        for m in models:
            wall = run_tovad(a.tovad, m, wavs, out)
            print("tovad --model %s: real-time factor %.4f (whole program, wall)"
                  % (m, wall / audio))
            detectors.append(("tovad " + m, ".tovad-%s.dec" % m))
        if not a.no_peers:
            res = subprocess.run(["node", os.path.join(HERE, "run_peers.mjs"), out] + wavs,
                                 check=True, capture_output=True, text=True)
            t = json.loads(res.stdout)
            print("webrtc real-time factor %.4f, silero %.4f (one thread)" %
                  (t["webrtc"] / t["audio"], t["silero"] / t["audio"]))
            detectors += PEERS
        manifest = os.path.join(held, "manifest.json")
        results = {d: score.score_dir(held, out, suffix, 0.5, manifest) for d, suffix in detectors}
        print(table(results, [d for d, _ in detectors]))
        all_results[split] = results
    with open(os.path.join(a.out, "results.json"), "w") as f:
        json.dump(all_results, f, indent=1)


if __name__ == "__main__":
    main()
