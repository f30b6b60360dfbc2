#!/usr/bin/python3
"""Writes the small dense model of the toolkit's integration tests.

    /usr/bin/python3 tests/data/toolkit/gen_toolkit_model.py

Input "data" is the PCEN window (1, 5, 3, 40): five frames of three
channels of 40 mel banks, newest last.  The net scores "voice" by how far
the banks of a low harmonic voice (2..10) stand above the rest (12..39) in
the first channel, averaged over the window:

    h = mean_t(mean(x[t, 0, 2:11]) - mean(x[t, 0, 12:40]))
    p(voice) = softmax([0, K * (h - C)])[1]

so tone bursts with harmonics score near 1 and noise or silence near 0.
The meanvar table leaves features as the extractor computes them
(offset 0, factor 1).
"""

import os
import sys

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "..", "tools"))

from model_writer import SymbolGraph, write_params  # noqa: E402

N_HEIGHT, N_CHAN, N_WIDTH = 5, 3, 40
K, C = 40.0, 0.2


def weights():
    w1 = np.zeros((1, N_HEIGHT, N_CHAN, N_WIDTH), dtype=np.float32)
    w1[0, :, 0, 2:11] = 1.0 / (9 * N_HEIGHT)
    w1[0, :, 0, 12:40] = -1.0 / (28 * N_HEIGHT)
    w1 = w1.reshape(1, -1)
    b1 = np.zeros((1,), dtype=np.float32)
    w2 = np.array([[0.0], [K]], dtype=np.float32)
    b2 = np.array([0.0, -K * C], dtype=np.float32)
    return w1, b1, w2, b2


def graph():
    g = SymbolGraph()
    data = g.variable("data")
    # The window is already laid out as the weights expect: no channel move.
    flat = g.node("Flatten", "flatten0", [data], attr={"auto_channel_switch": "False"})
    fc1 = g.node("FullyConnected", "fc1",
                 [flat, g.variable("fc1_weight"), g.variable("fc1_bias")],
                 attr={"num_hidden": "1"})
    fc2 = g.node("FullyConnected", "fc2",
                 [fc1, g.variable("fc2_weight"), g.variable("fc2_bias")],
                 attr={"num_hidden": "2"})
    out = g.node("SoftmaxActivation", "softmax", [fc2])
    g.heads = [out]
    return g


def main():
    w1, b1, w2, b2 = weights()
    graph().write(os.path.join(HERE, "tone_model.json"))
    write_params(os.path.join(HERE, "tone_model.params"),
                 [("arg:fc1_weight", w1), ("arg:fc1_bias", b1),
                  ("arg:fc2_weight", w2), ("arg:fc2_bias", b2)])
    with open(os.path.join(HERE, "tone_meanvar.txt"), "w") as f:
        n = N_CHAN * N_WIDTH
        f.write(" ".join(["0"] * n) + "\n")
        f.write(" ".join(["1"] * n) + "\n")


if __name__ == "__main__":
    main()
