"""What the fixture generators under tests/ruvo/ share: the .io text, saving
a net's three files, the 8-bit integer arithmetic of the engine, and the
write-or---check entry point.

A NAME.io file is text: "case CASE", then blocks "input|output|bound KEY
NDIM D0 D1 ..." each followed by a line of values (a bound is the allowed
absolute error).
"""

import os
import sys
import tempfile

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
NET_DIR = os.path.join(ROOT, "tests", "data", "net")
sys.path.insert(0, os.path.join(ROOT, "tools"))

from model_writer import SymbolGraph, read_params, write_params  # noqa: E402,F401

F32, I8, I32 = np.float32, np.int8, np.int32


def block(kind, key, array):
    array = np.asarray(array)
    return ["%s %s %d %s" % (kind, key, array.ndim, " ".join(str(d) for d in array.shape)),
            " ".join("%.9g" % v for v in np.asarray(array, dtype=np.float64).ravel())]


class IoFile:
    """The .io text, block by block."""

    def __init__(self):
        self.lines = []

    def case(self, name):
        self.lines.append("case %s" % name)

    def input(self, key, array):
        self.lines += block("input", key, array)

    def output(self, key, array):
        self.lines += block("output", key, array)

    def bound(self, key, array):
        self.lines += block("bound", key, array)

    def write(self, path):
        with open(path, "w") as f:
            f.write("\n".join(self.lines) + "\n")


def save(name, graph, params, io, out_dir, version=10600):
    graph.write(os.path.join(out_dir, name + "-symbol.json"), version=version)
    write_params(os.path.join(out_dir, name + ".params"), params)
    io.write(os.path.join(out_dir, name + ".io"))


def weight_args(g, params, name, w, b=None):
    """Adds NAME_weight and, unless b is None, NAME_bias to the parameters;
    returns their graph variables, weight first."""
    params.append(("arg:%s_weight" % name, w))
    args = [g.variable(name + "_weight")]
    if b is not None:
        params.append(("arg:%s_bias" % name, b))
        args.append(g.variable(name + "_bias"))
    return args


def conv_attrs(k, stride=(1, 1), pad=(0, 0), dilate=(1, 1), nf=1, groups=1, **flags):
    a = {"kernel": "(%d,%d)" % k, "stride": "(%d,%d)" % stride, "pad": "(%d,%d)" % pad,
         "dilate": "(%d,%d)" % dilate, "num_filter": str(nf), "num_group": str(groups)}
    a.update({key: ("True" if v else "False") for key, v in flags.items()})
    return a


# ------------------------------------------------- 8-bit integer arithmetic


def wrap32(v):
    return ((np.asarray(v, dtype=np.int64) + 2**31) % 2**32) - 2**31  # int32 wrap-around


def quanti_input(x, s, floor):
    scaled = F32(2.0**s) * x
    t = np.floor(scaled) if floor else np.trunc(scaled)
    return np.clip(t, -128, 127).astype(np.int8)


def output_stage(acc, in_shift, wshift, out_shift=0, bias=None, bn=None, edata=None, act=False,
                 float_out=False):
    """Bias, batch normalisation, edata and the narrowing of 32-bit
    accumulators acc (..., channels).  wshift: per-channel weight shifts;
    bn: (weight, right shift, weight shift); edata: (tensor, shift).
    Returns (output, shift)."""
    wt = wshift.astype(np.int64)
    if bias is not None:
        acc = wrap32(acc + bias)
    if bn is not None:
        bw, rs, ws = (a.astype(np.int64) for a in bn)
        acc = wrap32(np.clip(acc >> rs, -32768, 32767) * bw)
        wt = ((wt + ws - rs + 128) % 256) - 128
    m = 0
    if edata is not None:
        e, eshift = edata
        align = wt + in_shift - eshift
        m = min(0, int(align.min()))
        if m == 0:
            acc = wrap32(acc + (e.astype(np.int64) << (align % 32)))
    if float_out:
        v = np.where(act & (acc < 0), 0, acc)
        return (v.astype(F32) * (2.0 ** -(wt + in_shift - m))).astype(F32), out_shift
    r = acc >> ((wt + in_shift - out_shift - m) % 32)
    if act:
        q = np.where(acc < 0, 0, np.minimum(r, 127))
    else:
        q = np.clip(r, -128, 127)
    return q.astype(np.int8), out_shift


# ------------------------------------------------------------ entry point


def write_or_check(argv, generate, script, out_dir=NET_DIR):
    """generate(out_dir) writes the files; with --check it writes them to a
    scratch directory instead and reports (exit status 1) any that differ
    from the committed ones."""
    if argv[1:] != ["--check"]:
        return generate(out_dir)
    with tempfile.TemporaryDirectory() as tmp:
        generate(tmp)
        stale = [n for n in sorted(os.listdir(tmp))
                 if open(os.path.join(tmp, n), "rb").read() != open(os.path.join(out_dir, n), "rb").read()]
    if stale:
        print("stale test data, run tests/ruvo/%s: %s" % (script, ", ".join(stale)))
        return 1
    return 0
