#!/usr/bin/python3
"""Writes the small dense model of the toolkit's integration tests (run it
from anywhere).  Input "data" is the PCEN window (1, 5, 3, 40), newest frame
last; p(voice) = softmax([0, K * (h - C)])[1], where h is how far banks 2..10
(a low harmonic voice) stand above banks 12..39 in the first channel, over
the window.  The meanvar table leaves the features as they are.
"""
import os
import sys

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "..", "tools"))
from model_writer import SymbolGraph, write_params  # noqa: E402

K, C = 40.0, 0.2


def main():
    g = SymbolGraph()
    # The window is already laid out as the weights expect: no channel move.
    x = g.node("Flatten", "flatten0", [g.variable("data")], attr={"auto_channel_switch": "False"})
    for name, hidden in (("fc1", "1"), ("fc2", "2")):
        x = g.node("FullyConnected", name,
                   [x, g.variable(name + "_weight"), g.variable(name + "_bias")],
                   attr={"num_hidden": hidden})
    g.heads = [g.node("SoftmaxActivation", "softmax", [x])]
    g.write(os.path.join(HERE, "tone_model.json"))
    w1 = np.zeros((1, 5, 3, 40), dtype=np.float32)
    w1[0, :, 0, 2:11] = 1.0 / (9 * 5)
    w1[0, :, 0, 12:40] = -1.0 / (28 * 5)
    write_params(os.path.join(HERE, "tone_model.params"),
                 [("arg:fc1_weight", w1.reshape(1, -1)), ("arg:fc1_bias", np.zeros(1, np.float32)),
                  ("arg:fc2_weight", np.array([[0.0], [K]], np.float32)),
                  ("arg:fc2_bias", np.array([0.0, -K * C], np.float32))])
    with open(os.path.join(HERE, "tone_meanvar.txt"), "w") as f:
        f.write(" ".join(["0"] * 120) + "\n" + " ".join(["1"] * 120) + "\n")


if __name__ == "__main__":
    main()
