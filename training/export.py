#!/usr/bin/python3
"""Exports a trained model as the library's model files.

  export.py --model work/model --out ../models/dense

Writes OUT/tovad.json (symbol graph), OUT/tovad.params (parameters),
OUT/tovad.meanvar (negated means, then inverse deviations) and
OUT/tovad.conf through the engine's model-file writer (tools/model_writer).

With --check-features F.f32 --check-out DIR it also writes the check of the
export: DIR/default_model_input.f32, a few input windows of the net taken
from those features (already normalised, float32, 20 x 120 each), and
DIR/default_model_posteriors.txt, PyTorch's two posteriors per window,
which the engine must reproduce.
"""

import argparse
import json
import os
import sys

import numpy as np
import torch

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "..", "tools"))
import train  # noqa: E402
from model_writer import SymbolGraph, write_params  # noqa: E402

CONF = """\
path_to_json = tovad.json
path_to_param = tovad.params
path_to_meanvar = tovad.meanvar
feature_type = pcen
n_batch = 1
n_chan = {n_chan}
n_height = {n_height}
n_width = {n_width}
n_classes = 2
target_class = 1
am_skip_num = 0
# Decisions: 10 voice frames (100 ms) open a segment, 30 silent frames
# (300 ms) close it, and the start is moved 20 frames (200 ms) back.
sil_to_voice_hangover = 9
voice_to_sil_hangover = 29
extra_leading_sil = 20
wakeup_threshold = {threshold}
# No forced cutoff; the segment history then holds 51 s.
cutoff_n_frame_max_vad_length = 0
# Read by the tovad program only: frames between the audio a score
# describes and the frame it is reported at (label delay + median filter).
score_delay_frames = {score_delay}
"""


def write_meanvar(out_dir, add, mul):
    with open(os.path.join(out_dir, "tovad.meanvar"), "w") as f:
        for terms in (add, mul):
            # Nine significant digits give back the float32 exactly.
            for row in np.asarray(terms, np.float32).reshape(-1, train.N_WIDTH):
                f.write(" ".join("%.9g" % v for v in row) + "\n")


def write_conf(out_dir, title, n_height, threshold, score_delay):
    """The conf of a model over PCEN features; `title` may span lines."""
    with open(os.path.join(out_dir, "tovad.conf"), "w") as f:
        f.write("".join("# %s\n" % line for line in title.split("\n")))
        f.write(CONF.format(n_chan=train.N_CHAN, n_width=train.N_WIDTH, n_height=n_height,
                            threshold=threshold, score_delay=score_delay))


def build_graph(widths):
    """Dense layers of the given output widths, ReLU between them, and a
    softmax over the last layer's two outputs."""
    g = SymbolGraph()
    x = g.variable("data")
    for i, width in enumerate(widths):
        name = "fc%d" % (i + 1)
        w, b = g.variable(name + "_weight"), g.variable(name + "_bias")
        x = g.node("FullyConnected", name, [x, w, b], attr={"num_hidden": str(width)})
        if i + 1 < len(widths):
            x = g.node("Activation", "relu%d" % (i + 1), [x], attr={"act_type": "relu"})
    g.heads = [g.node("SoftmaxActivation", "softmax", [x], attr={"mode": "instance"})]
    return g


def write_check(model, ckpt, info, features_path, out_dir):
    """Windows with low, middle and high speech posteriors, and those posteriors."""
    f = np.fromfile(features_path, dtype="<f4").reshape(-1, train.DIM)
    w = train.Windows([f], [np.zeros(len(f), np.int64)], ckpt["add"], ckpt["mul"],
                      info["n_height"], delay=0)
    x, _ = w.batch(torch.arange(len(w)))
    with torch.no_grad():
        p = torch.softmax(model(x), dim=1).numpy()
    picks = [int(np.argmin(np.abs(p[:, 1] - t))) for t in (0.001, 0.1, 0.3, 0.5, 0.7, 0.9, 0.999)]
    os.makedirs(out_dir, exist_ok=True)
    x[picks].numpy().astype("<f4").tofile(os.path.join(out_dir, "default_model_input.f32"))
    with open(os.path.join(out_dir, "default_model_posteriors.txt"), "w") as fh:
        for i in picks:
            fh.write("%.9g %.9g\n" % (p[i, 0], p[i, 1]))


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--model", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--check-features")
    ap.add_argument("--check-out")
    a = ap.parse_args()
    ckpt = torch.load(os.path.join(a.model, "model.pt"))
    with open(os.path.join(a.model, "train.json")) as f:
        info = json.load(f)
    model = train.DenseVad(info["n_height"], tuple(info["hidden"]))
    model.load_state_dict(ckpt["state"])
    linears = [m for m in model.net if isinstance(m, torch.nn.Linear)]

    os.makedirs(a.out, exist_ok=True)
    build_graph([m.out_features for m in linears]).write(os.path.join(a.out, "tovad.json"))
    arrays = []
    for i, m in enumerate(linears):
        arrays.append(("arg:fc%d_weight" % (i + 1), m.weight.detach().numpy().astype(np.float32)))
        arrays.append(("arg:fc%d_bias" % (i + 1), m.bias.detach().numpy().astype(np.float32)))
    write_params(os.path.join(a.out, "tovad.params"), arrays)
    write_meanvar(a.out, ckpt["add"], ckpt["mul"])
    write_conf(a.out, "Default model of tovad: a dense net over %d frames of PCEN features."
               % info["n_height"], info["n_height"], info["threshold"], info["score_delay_frames"])
    if a.check_features and a.check_out:
        write_check(model, ckpt, info, a.check_features, a.check_out)
    total = sum(os.path.getsize(os.path.join(a.out, n)) for n in os.listdir(a.out))
    print("wrote %s: %d bytes in all" % (a.out, total))


if __name__ == "__main__":
    main()
