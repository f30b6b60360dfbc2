#!/usr/bin/python3
"""Writes the model files of the engine's reader tests into this folder
(--check compares instead).  The array contents follow formulas that
tests/ruvo/model_files_test.cpp restates; change both together."""

import os
import sys

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "ruvo"))

from fixture_lib import SymbolGraph, write_or_check, write_params  # noqa: E402
from model_writer import RawArray  # noqa: E402


def ramp(shape, dtype, scale, offset):
    """Element i (row-major) is i * scale + offset, converted to dtype."""
    return (np.arange(np.prod(shape), dtype=np.float64) * scale + offset).astype(dtype).reshape(shape)


ARRAYS = [
    ("arg:fc1_weight", ramp((4, 3), np.float32, 0.25, -1.0)),
    ("arg:fc1_bias", ramp((4,), np.float32, 1.0, 0.5)),
    ("aux:bn1_moving_mean", ramp((4,), np.float32, -0.5, 0.0)),
    ("arg:conv_weight", ramp((2, 3, 3, 1), np.int8, 7, -64)),  # all within range
    ("arg:table", ramp((3, 2), np.int32, -100000, 7)),
    ("", None),  # an empty array under an empty name
    ("arg:deep", ramp((1, 2, 1, 2, 2), np.float64, 1.0 / 3.0, 0.0)),  # shape on the heap
    ("arg:u8", ramp((5,), np.uint8, 50, 3)),
    ("arg:i64", ramp((2,), np.int64, 1 << 40, -5)),
    ("arg:f16", RawArray((2,), 2, bytes(range(32)))),  # flag 2: 16 bytes an element
    ("arg:nothing", ramp((2, 0), np.float32, 0, 0)),  # no elements, no data bytes
]


def graph_new_style():
    """data -> fc1 -> bn1 -> relu1 -> softmax; bn1 lists its two moving
    averages behind its three inputs, as new-style files do."""
    g = SymbolGraph()
    fc1 = g.node("FullyConnected", "fc1", [g.variable(n) for n in ("data", "fc1_weight", "fc1_bias")],
                 attr={"num_hidden": "4", "no_bias": "False"})
    stats = [g.variable("bn1_" + n) for n in ("gamma", "beta", "moving_mean", "moving_var")]
    bn1 = g.node("BatchNorm", "bn1", [fc1] + stats, attr={"eps": "0.001", "fix_gamma": "False"},
                 param={"eps": "0.5", "momentum": "0.9"})
    relu = g.node("Activation", "relu1", [bn1], attr={"act_type": "relu", "__op_type_str__": "Pooling"})
    g.heads = [g.node("SoftmaxOutput", "softmax", [relu, g.variable("softmax_label")])]
    return g


def graph_old_style():
    """data -> fc1 -> (relu1, fc2 output 0 of a two-output slice): heads
    with output indices, attributes under "param" only."""
    g = SymbolGraph()
    fc1 = g.node("FullyConnected", "fc1", [g.variable("data"), g.variable("fc1_weight")],
                 param={"num_hidden": "6", "no_bias": "True"})
    parts = g.node("SliceChannel", "split", [fc1], param={"num_outputs": "2"})
    g.heads = [(parts, 0), g.node("Activation", "relu1", [(parts, 1)], param={"act_type": "tanh"})]
    return g


def write_all(folder):
    out = lambda name: os.path.join(folder, name)  # noqa: E731
    write_params(out("params_modern.params"), ARRAYS)
    write_params(out("params_legacy.params"), ARRAYS, legacy=True)
    write_params(out("params_empty.params"), [])
    ten = [("arg:p%d" % i, ramp((1,), np.float32, 0, i)) for i in range(10)]
    write_params(out("params_ten_nine.params"), ten, names=[n for n, _ in ten[:9]])
    graph_new_style().write(out("symbol_new.json"), version=10600)
    graph_old_style().write(out("symbol_old.json"), version=None)


if __name__ == "__main__":
    sys.exit(write_or_check(write_all, HERE))
