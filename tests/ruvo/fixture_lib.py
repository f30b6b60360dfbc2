"""What the fixture generators under tests/ruvo/ share: the .io text ("case
CASE", then blocks "input|output|bound KEY NDIM D0 D1 ..." each followed by
a line of values; a bound is the allowed absolute error), saving a net's
three files, the engine's 8-bit integer arithmetic, and --check."""

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


class IoFile(list):
    """The .io text, line by line: io.case(name), io.input / io.output /
    io.bound(key, array)."""

    def case(self, name):
        self.append("case %s" % name)

    def __getattr__(self, kind):
        if kind not in ("input", "output", "bound"):
            raise AttributeError(kind)
        return lambda key, a: self.extend(["%s %s %d %s" % (kind, key, np.ndim(a), " ".join(map(str, np.shape(a)))),
                                           " ".join("%.9g" % v for v in np.asarray(a, np.float64).ravel())])

    def write(self, path):
        with open(path, "w") as f:
            f.write("\n".join(self) + "\n")


def save(name, graph, params, io, out_dir, version=10600):
    graph.write(os.path.join(out_dir, name + "-symbol.json"), version=version)
    write_params(os.path.join(out_dir, name + ".params"), params)
    io.write(os.path.join(out_dir, name + ".io"))


class Params(list):
    """The named arrays of a net, each added with its graph variable."""

    def __init__(self, graph):
        super().__init__()
        self.g = graph

    def add(self, kind, name, value):
        self.append(("%s:%s" % (kind, name), value))
        return self.g.variable(name)

    def aux(self, name, values, dtype=I8):
        return self.add("aux", name, np.asarray(values, dtype=dtype))

    def weights(self, name, w, b=None):
        """NAME_weight and, unless b is None, NAME_bias; their variables."""
        return [self.add("arg", name + "_weight", w)] + ([] if b is None else [self.add("arg", name + "_bias", b)])

    def shift_tables(self, name, out_shift, wshift, vec, bias_shift=None, first="output_shift_history"):
        """The output, weight and (unless bias_shift is None) bias shift
        states of an 8-bit layer; a scalar table keeps the first entry."""
        key, one = ("vec_", lambda a: a) if vec else ("", lambda a: a[:1])
        refs = [self.aux("%s_%s" % (name, first), [out_shift]),
                self.aux("%s_weight_%sshift_history" % (name, key), one(wshift))]
        if bias_shift is not None:
            refs.append(self.aux("%s_bias_%sshift_history" % (name, key), one(np.asarray(bias_shift))))
        return refs

    def batchnorm(self, rng, name, n):
        """Random 8-bit batch normalisation states (weight, right shift,
        weight shift) and their variables."""
        bn = (rng.integers(-300, 300, (n,)).astype(I32), rng.integers(0, 4, (n,)).astype(I8),
              rng.integers(6, 10, (n,)).astype(I8))
        return bn, [self.aux(name + "_bn_" + k, v, v.dtype)
                    for k, v in zip(["weight", "right_shift", "weight_shift"], bn)]


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


def write_or_check(generate, out_dir=NET_DIR):
    """generate(out_dir) writes the files; with --check it writes them to a
    scratch directory instead and reports (exit status 1) any that differ
    from the committed ones."""
    if sys.argv[1:] != ["--check"]:
        return generate(out_dir)
    with tempfile.TemporaryDirectory() as tmp:
        generate(tmp)
        stale = [n for n in sorted(os.listdir(tmp)) if not os.path.exists(os.path.join(out_dir, n))
                 or open(os.path.join(tmp, n), "rb").read() != open(os.path.join(out_dir, n), "rb").read()]
    if stale:
        print("stale test data, rerun %s: %s" % (sys.argv[0], ", ".join(stale)))
        return 1
    return 0
