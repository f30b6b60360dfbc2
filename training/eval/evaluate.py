#!/usr/bin/python3
"""Scores tovad and the two public peers on the held-out corpus.

  evaluate.py --tovad BUILD/tools/tovad --corpus ../work/corpus --out ../work/eval
              [--conf ../../models/default/tovad.conf] [--model ../work/model]
              [--no-peers]

tovad's segments become per-frame decisions (NAME.tovad.dec).  With
--model, the trained net's posteriors after the median filter, computed in
PyTorch from the library's features, give tovad a score for ROC-AUC
(NAME.tovad.score).  The peers run through run_peers.mjs (npm install in
this directory first, with ONNXRUNTIME_NODE_INSTALL=skip).  Prints one
table per detector: all frames, then per noise type and per SNR.
"""

import argparse
import json
import os
import subprocess
import sys
import time

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, ".."))
import score  # noqa: E402

DETECTORS = [("tovad", ".tovad.dec"), ("tovad score", ".tovad.score"),
             ("webrtc mode 0", ".webrtc0.dec"), ("webrtc mode 1", ".webrtc1.dec"),
             ("webrtc mode 2", ".webrtc2.dec"), ("webrtc mode 3", ".webrtc3.dec"),
             ("silero segments", ".silero.dec"), ("silero score", ".silero.score")]


def run_tovad(tovad, conf, wavs, out):
    args = [tovad, "--quiet", "--format", "json"] + (["--conf", conf] if conf else []) + wavs
    t0 = time.time()
    res = subprocess.run(args, check=True, capture_output=True, text=True)
    wall = time.time() - t0
    for f in json.loads(res.stdout)["files"]:
        frames = int(round(f["duration"] * 100))
        dec = np.zeros(frames, np.uint8)
        for s in f["segments"]:
            dec[int(round(s["start"] * 100)):int(round(s["end"] * 100))] = 1
        name = os.path.basename(f["file"])[:-4]
        with open(os.path.join(out, name + ".tovad.dec"), "w") as fh:
            fh.write("\n".join(str(v) for v in dec) + "\n")
    return wall


def model_scores(model_dir, features_dir, names, out):
    import torch
    import train
    ckpt = torch.load(os.path.join(model_dir, "model.pt"))
    with open(os.path.join(model_dir, "train.json")) as f:
        info = json.load(f)
    net = train.DenseVad(info["n_height"], tuple(info["hidden"]))
    net.load_state_dict(ckpt["state"])
    net.eval()
    delay = info["score_delay_frames"]
    for n in names:
        f = np.fromfile(os.path.join(features_dir, n + ".f32"), dtype="<f4").reshape(-1, train.DIM)
        s = train.median7(train.clip_scores(net, f, ckpt["add"], ckpt["mul"], info["n_height"]))
        s = np.concatenate([s[delay:], np.zeros(delay)])  # back to the audio's frames
        with open(os.path.join(out, n + ".tovad.score"), "w") as fh:
            fh.write("\n".join("%.5f" % v for v in s) + "\n")


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--tovad", required=True)
    ap.add_argument("--conf")
    ap.add_argument("--corpus", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--model")
    ap.add_argument("--features", help="held-out features (default: CORPUS/../features/heldout)")
    ap.add_argument("--no-peers", action="store_true")
    a = ap.parse_args()
    held = os.path.join(a.corpus, "heldout")
    os.makedirs(a.out, exist_ok=True)
    names = sorted(n[:-4] for n in os.listdir(held) if n.endswith(".wav"))
    wavs = [os.path.join(held, n + ".wav") for n in names]
    audio = sum(len(score.read_values(os.path.join(held, n + ".labels"))) for n in names) / 100.0
    wall = run_tovad(a.tovad, a.conf, wavs, a.out)
    print("tovad: %.1f s of audio in %.2f s wall, real-time factor %.4f" % (audio, wall, wall / audio))
    if a.model:
        feats = a.features or os.path.join(a.corpus, "..", "features", "heldout")
        model_scores(a.model, feats, names, a.out)
    if not a.no_peers:
        res = subprocess.run(["node", os.path.join(HERE, "run_peers.mjs"), a.out] + wavs,
                             check=True, capture_output=True, text=True)
        t = json.loads(res.stdout)
        print("webrtc real-time factor %.4f, silero %.4f (one thread)" %
              (t["webrtc"] / t["audio"], t["silero"] / t["audio"]))
    manifest = os.path.join(held, "manifest.json")
    for title, suffix in DETECTORS:
        if not os.path.exists(os.path.join(a.out, names[0] + suffix)):
            continue
        res = score.score_dir(held, a.out, suffix, 0.5, manifest)
        print()
        print(score.format_table(res, "== " + title))


if __name__ == "__main__":
    main()
