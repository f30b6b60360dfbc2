#!/usr/bin/python3
"""Writes a streaming 8-bit VAD net made from the float dense model
(models/dense), for the streaming tests and the net bench (--check compares
instead).

The dense model's first layer sees 20 frames of 3 x 40 features at once.
Its weight, taken as one 120-wide row per (unit, frame), is split by SVD
into a per-frame projection to RANK values and a temporal kernel over 20
frames of those: one temporal convolution of width one frame, then one of
20 taps, each costing one row per new frame.  The second layer becomes a
one-tap temporal convolution, the last an 8-bit dense layer with float
output, then softmax.  Weights get per-channel power-of-two shifts.

Also writes stream_vad.io: a random feature sequence and the 8-bit net's
outputs for it, frame by frame from silence, computed in integer numpy.
"""

import os
import sys

import numpy as np

from fixture_lib import (F32, I8, I32, ROOT, IoFile, Params, dense8, output_stage, quanti_input,
                         read_params, save, write_or_check)
from gen_stream_fixtures import temporal_acc

RANK = 16
TAPS = 20
# Fractional bits of the features, the projection, and the two hidden
# layers' outputs: chosen by running the float factorised net on the
# features of tests/data/tovad_sample.wav, taking the largest shifts that
# never saturate (3, 2, 0, 1), then one more bit where rare saturated peaks
# kept the frame decisions closer to the float net's (98.0% agree at 0.2).
SHIFTS = {"in": 4, "proj": 3, "time": 1, "fc2": 1}


def float_model():
    params = dict(read_params(open(os.path.join(ROOT, "models", "dense", "tovad.params"), "rb").read()))
    return {k.split(":", 1)[1]: v.astype(np.float64) for k, v in params.items()}


def factorise(p):
    w1 = p["fc1_weight"]  # (64, 2400): 20 frames of (3, 40), oldest first
    units = w1.shape[0]
    rows = w1.reshape(units * TAPS, -1)
    u, s, vt = np.linalg.svd(rows, full_matrices=False)
    proj = vt[:RANK]  # (RANK, 120)
    time = (u[:, :RANK] * s[:RANK]).reshape(units, TAPS, RANK)
    return proj, time


def weight_shifts(w):
    """Per output channel: the most fractional bits that keep every weight
    of the channel within 8 bits."""
    peak = np.abs(w.reshape(len(w), -1)).max(axis=1)
    return np.floor(np.log2(127.0 / peak)).astype(np.int64)


def quantised():
    """The layers as (name, weight int8 (F, taps, x, c), per-channel shift,
    bias int32 or None, output shift, rectified)."""
    p = float_model()
    proj, time = factorise(p)
    layers = []
    in_shift = SHIFTS["in"]
    plan = [("proj", proj.reshape(RANK, 1, 3, 40), None, "proj", False),
            ("time", time.reshape(-1, TAPS, 1, RANK), p["fc1_bias"], "time", True),
            ("fc2", p["fc2_weight"].reshape(-1, 1, 1, 64), p["fc2_bias"], "fc2", True),
            ("fc3", p["fc3_weight"], p["fc3_bias"], None, False)]
    for name, w, b, out_key, act in plan:
        ws = weight_shifts(w)
        scale = 2.0 ** ws.reshape((-1,) + (1,) * (w.ndim - 1))
        wq = np.clip(np.trunc(w * scale), -127, 127).astype(I8)
        bq = None if b is None else np.round(b * 2.0 ** (ws + in_shift)).astype(I32)
        out_shift = SHIFTS[out_key] if out_key else 0
        layers.append((name, wq, ws.astype(I8), bq, out_shift, act))
        in_shift = out_shift
    return layers


def run_int8(layers, feats):
    """Features (T, 120), already through the meanvar terms, one frame a
    call from silence: the speech posteriors the engine must give."""
    x = quanti_input(feats.reshape(-1, 1, 3, 40).astype(F32), SHIFTS["in"], True)
    shift = SHIFTS["in"]
    for name, w, ws, b, out_shift, act in layers:
        if name == "fc3":
            logits, _ = output_stage(dense8(x, w), shift, ws, 0, bias=b, float_out=True)
            break
        acc = temporal_acc(x, w, 1)
        x, shift = output_stage(acc, shift, ws, out_shift, bias=b, act=act)
        x = x.reshape(len(x), 1, 1, -1)
    # The engine's softmax works in float; only the logits are exact.
    return logits


def write(out_dir):
    layers = quantised()
    params = Params()
    g = params.g
    src = params.quanti_input(params.data, "qin", SHIFTS["in"], fixed_output_shift=SHIFTS["in"])
    for name, w, ws, b, out_shift, act in layers:
        inputs = [src] + params.weights(name, w, b) + params.shift_tables(
            name, out_shift, ws, True, None if b is None else np.zeros(len(ws)),
            "output_shift_history" if b is not None else "out_shift_history")
        # Weights stay as stored, (outputs, inputs): one frame a call is a
        # matrix-vector product, which reads them in that order.
        flags = {"vector_quanti": "True", "no_bias": "True" if b is None else "False",
                 "transpose_weight": "False"}
        if name == "fc3":
            attr = dict(flags, num_hidden=str(len(w)), disable_output_quantization="True")
            src = g.node("QuantiFullyConnected", name, inputs, attr=attr)
        else:
            attr = dict(flags, kernel="(%d,%d)" % w.shape[1:3], num_filter=str(len(w)),
                        use_activation="True" if act else "False")
            src = g.node("QuantiTemporalConvolution", name, inputs, attr=attr)
    logits = src
    g.heads = [g.node("SoftmaxActivation", "softmax", [src], attr={"mode": "instance"}), logits]

    rng = np.random.default_rng(20261125)
    feats = rng.normal(0.0, 2.0, (30, 120)).astype(F32)
    io = IoFile()
    io.case("random_features")
    io.input("data", feats.reshape(-1, 1, 3, 40))
    io.output("fc3", run_int8(layers, feats))
    save("stream_vad", g, params, io, out_dir)


if __name__ == "__main__":
    sys.exit(write_or_check(write))
