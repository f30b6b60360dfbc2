#!/usr/bin/python3
"""Trains a tiny detector in PyTorch and exports it for the engine.

  tiny_model.py --feature-dump BUILD/tools/tovad_feature_dump \\
                --library BUILD/libtovadmod.so --tovad BUILD/tools/tovad --out DIR

Steps: features of the sample recording through the library's own front
end; a window of N_HEIGHT frames per decision; a dense net trained against
the sample's speech labels; export with tools/model_writer (graph,
parameters, meanvar, conf); then two checks: the engine, through the
prediction interface of libtovadmod.so, gives PyTorch's posteriors, and
`tovad --conf DIR/tovad.conf` finds the labelled speech.  It trains on one
ten-second recording, so it shows the path, not a model worth keeping.
"""
import argparse
import ctypes
import os
import subprocess
import sys

import numpy as np
import torch

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "tools"))
from model_writer import SymbolGraph, write_params  # noqa: E402

SAMPLE = os.path.join(ROOT, "tests", "data", "tovad_sample.wav")
LABELS = os.path.join(ROOT, "tests", "data", "tovad_sample.lab")
N_CHAN, N_WIDTH = 3, 40   # PCEN static, delta, delta-delta over 40 mel bands
N_HEIGHT = 10             # frames per window, oldest first
HIDDEN = 16
LABEL_DELAY = 8           # a window ending at frame t judges frame t - 8
WARMUP = 6                # rows the front end leaves unwritten at the start
MEDIAN_LAG = 3            # the decision stage's median filter of 7


def features(dump, tmp):
    out = os.path.join(tmp, "sample.f32")
    subprocess.run([dump, "--width", str(N_WIDTH), SAMPLE, out], check=True)
    return np.fromfile(out, dtype="<f4").reshape(-1, N_CHAN * N_WIDTH)


def frame_labels(n_frames):
    y = np.zeros(n_frames, dtype=np.int64)
    for line in open(LABELS):
        a, b = map(float, line.split())
        y[int(a * 100):int(b * 100)] = 1
    return y


def windows(x, y):
    """Every window of N_HEIGHT frames past the warm-up, with its label."""
    ends = np.arange(WARMUP + N_HEIGHT - 1, len(x))
    idx = ends[:, None] - np.arange(N_HEIGHT - 1, -1, -1)[None, :]
    return x[idx], y[np.maximum(ends - LABEL_DELAY, 0)]


def build_graph():
    g = SymbolGraph()
    data = g.variable("data")
    fc1 = g.node("FullyConnected", "fc1",
                 [data, g.variable("fc1_weight"), g.variable("fc1_bias")],
                 attr={"num_hidden": str(HIDDEN)})
    act = g.node("Activation", "relu1", [fc1], attr={"act_type": "relu"})
    fc2 = g.node("FullyConnected", "fc2",
                 [act, g.variable("fc2_weight"), g.variable("fc2_bias")],
                 attr={"num_hidden": "2"})
    g.heads = [g.node("SoftmaxActivation", "softmax", [fc2], attr={"mode": "instance"})]
    return g


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
sil_to_voice_hangover = 9
voice_to_sil_hangover = 29
extra_leading_sil = 20
wakeup_threshold = 0.5
cutoff_n_frame_max_vad_length = 0
score_delay_frames = {delay}
"""


def engine_posteriors(library, out, inputs):
    """Runs the exported files through the prediction interface."""
    lib = ctypes.CDLL(library)
    handle = ctypes.c_void_p()
    keys = (ctypes.c_char_p * 1)(b"data")
    indptr = (ctypes.c_uint32 * 2)(0, 4)
    shape = (ctypes.c_uint32 * 4)(1, N_HEIGHT, N_CHAN, N_WIDTH)
    sym = open(os.path.join(out, "tovad.json"), "rb").read()
    params = open(os.path.join(out, "tovad.params"), "rb").read()
    rc = lib.MXPredCreate(sym, params, len(params), 1, 0, 1, keys, indptr, shape,
                          ctypes.byref(handle))
    if rc != 0:
        raise SystemExit("the engine refused the graph")
    result = np.zeros((len(inputs), 2), dtype=np.float32)
    for i, x in enumerate(inputs):
        x = np.ascontiguousarray(x, dtype=np.float32)
        lib.MXPredSetInput(handle, b"data", x.ctypes.data_as(ctypes.POINTER(ctypes.c_float)),
                           ctypes.c_uint32(x.size))
        lib.MXPredForward(handle)
        lib.MXPredGetOutput(handle, 0, result[i].ctypes.data_as(ctypes.POINTER(ctypes.c_float)),
                            2)
    lib.MXPredFree(handle)
    return result


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--feature-dump", required=True)
    ap.add_argument("--library", required=True)
    ap.add_argument("--tovad", required=True)
    ap.add_argument("--out", required=True)
    a = ap.parse_args()
    os.makedirs(a.out, exist_ok=True)
    torch.manual_seed(0)

    raw = features(a.feature_dump, a.out)
    # The meanvar file holds negated means, then inverse deviations: the
    # front end computes (x + add) * mul.
    mean = raw[WARMUP:].mean(axis=0)
    std = raw[WARMUP:].std(axis=0) + 1e-3
    add, mul = (-mean).astype(np.float32), (1.0 / std).astype(np.float32)
    x, y = windows((raw + add) * mul, frame_labels(len(raw)))
    xt = torch.from_numpy(x.reshape(len(x), N_HEIGHT, N_CHAN, N_WIDTH).astype(np.float32))
    yt = torch.from_numpy(y)

    # Flattening (N_HEIGHT, N_CHAN, N_WIDTH) row-major is what the engine's
    # FullyConnected does with its "data" input.
    net = torch.nn.Sequential(torch.nn.Flatten(), torch.nn.Linear(N_HEIGHT * N_CHAN * N_WIDTH, HIDDEN),
                              torch.nn.ReLU(), torch.nn.Linear(HIDDEN, 2))
    opt = torch.optim.Adam(net.parameters(), lr=3e-3)
    for _ in range(300):
        opt.zero_grad()
        loss = torch.nn.functional.cross_entropy(net(xt), yt)
        loss.backward()
        opt.step()
    with torch.no_grad():
        torch_p = torch.softmax(net(xt), dim=1).numpy()
    print("training loss %.4f, frame accuracy %.3f"
          % (loss.item(), (torch_p.argmax(axis=1) == y).mean()))

    fc1, fc2 = net[1], net[3]
    build_graph().write(os.path.join(a.out, "tovad.json"))
    write_params(os.path.join(a.out, "tovad.params"), [
        ("arg:fc1_weight", fc1.weight.detach().numpy()),
        ("arg:fc1_bias", fc1.bias.detach().numpy()),
        ("arg:fc2_weight", fc2.weight.detach().numpy()),
        ("arg:fc2_bias", fc2.bias.detach().numpy()),
    ])
    with open(os.path.join(a.out, "tovad.meanvar"), "w") as f:
        f.write(" ".join("%.9g" % v for v in add) + "\n")
        f.write(" ".join("%.9g" % v for v in mul) + "\n")
    with open(os.path.join(a.out, "tovad.conf"), "w") as f:
        f.write(CONF.format(n_chan=N_CHAN, n_height=N_HEIGHT, n_width=N_WIDTH,
                            delay=LABEL_DELAY + MEDIAN_LAG))

    # Check 1: the engine computes what PyTorch computed.
    picks = np.linspace(0, len(x) - 1, 25).astype(int)
    got = engine_posteriors(a.library, a.out, xt[picks].numpy())
    worst = float(np.abs(got - torch_p[picks]).max())
    print("largest posterior difference, engine against PyTorch: %.2e" % worst)
    if worst > 1e-5:
        raise SystemExit("the engine's posteriors differ from PyTorch's")

    # Check 2: the program finds each labelled span with the new model.
    run = subprocess.run([a.tovad, "--conf", os.path.join(a.out, "tovad.conf"), SAMPLE],
                         capture_output=True, text=True, check=True)
    print(run.stdout, end="")
    found = [tuple(map(float, line.split())) for line in run.stdout.splitlines()]
    for line in open(LABELS):
        s, e = map(float, line.split())
        if not any(min(e, fe) - max(s, fs) > 0.5 * (e - s) for fs, fe in found):
            raise SystemExit("no segment covers the labelled speech at %.2f-%.2f s" % (s, e))
    print("every labelled span is found")


if __name__ == "__main__":
    main()
