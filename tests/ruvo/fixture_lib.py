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

from model_writer import SymbolGraph, write_params  # noqa: E402,F401

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

    @classmethod
    def of(cls, cases):
        """cases: (case name, inputs, outputs, bounds), each [(key, array)]."""
        io = cls()
        for case, *blocks in cases:
            io.case(case)
            for kind, pairs in zip(("input", "output", "bound"), blocks):
                for key, array in pairs:
                    getattr(io, kind)(key, array)
        return io

    def output8(self, key, values, shift):
        """An output, and beside an 8-bit one its shift (KEY.shift)."""
        self.output(key, values)
        if values.dtype == np.int8:
            self.output(key + ".shift", np.array([shift]))

    def write(self, path):
        with open(path, "w") as f:
            f.write("\n".join(self) + "\n")


def save(name, graph, params, io, out_dir, version=10600):
    graph.write(os.path.join(out_dir, name + "-symbol.json"), version=version)
    write_params(os.path.join(out_dir, name + ".params"), params)
    io.write(os.path.join(out_dir, name + ".io"))


class Params(list):
    """The named arrays of a net, each added with its graph variable, on a
    graph of its own (g) whose first node is the input "data" (data)."""

    def __init__(self):
        super().__init__()
        self.g = SymbolGraph()
        self.data = self.g.variable("data")

    def add(self, kind, name, value):
        self.append(("%s:%s" % (kind, name), value))
        return self.g.variable(name)

    def quanti_input(self, src, name, history, **attr):
        """A QuantiInput node with its shift history."""
        return self.g.node("QuantiInput", name, [src, self.aux(name + "_input_shift_history", [history])],
                           attr={k: str(v) for k, v in attr.items()})

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

    def layer8(self, rng, name, w, bias, vec, out_shift, bn=False, edata=(), scalar_shift=7,
               first="output_shift_history"):
        """An 8-bit layer's random bias (unless not bias), weight shifts
        (per channel if vec) and batch normalisation (if bn), and its input
        variables after the data (edata, if any, after the weight).
        Returns (inputs, bias, weight shifts, batch norm states)."""
        nf = len(w)
        b = rng.integers(-3000, 3000, (nf,)).astype(I32) if bias else None
        inputs = self.weights(name, w, b) + list(edata)
        wshift = (rng.integers(5, 9, (nf,)) if vec else np.full(nf, scalar_shift)).astype(I8)
        inputs += self.shift_tables(name, out_shift, wshift, vec, np.zeros(nf) if bias else None, first)
        bnp, bn_states = self.batchnorm(rng, name, nf) if bn else (None, [])
        return inputs + bn_states, b, wshift, bnp

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


def conv_sum(x, w, stride, pad, dilate, groups, pad_value=0, dtype=np.float64):
    """Direct convolution of channel-last x (N, H, W, C) with w (F, kh, kw,
    C / groups), summed in `dtype`, one kernel tap at a time."""
    n, h, wd, c = x.shape
    f, kh, kw, cg = w.shape
    (sh, sw), (ph, pw), (dh, dw) = stride, pad, dilate
    xp = np.full((n, h + 2 * ph, wd + 2 * pw, c), pad_value, dtype=dtype)
    xp[:, ph:ph + h, pw:pw + wd, :] = x
    oh = (h + 2 * ph - (dh * (kh - 1) + 1)) // sh + 1
    ow = (wd + 2 * pw - (dw * (kw - 1) + 1)) // sw + 1
    out = np.zeros((n, oh, ow, f), dtype=dtype)
    oc = f // groups
    for g in range(groups):
        for ky in range(kh):
            for kx in range(kw):
                patch = xp[:, ky * dh:ky * dh + sh * (oh - 1) + 1:sh,
                           kx * dw:kx * dw + sw * (ow - 1) + 1:sw, g * cg:(g + 1) * cg]
                out[..., g * oc:(g + 1) * oc] += patch @ w[g * oc:(g + 1) * oc, ky, kx, :].astype(dtype).T
    return out


def conv8(x, w, stride, pad, dilate=(1, 1), groups=1):
    """The 8-bit convolution's 32-bit accumulators."""
    return wrap32(conv_sum(x.astype(np.int64), w.astype(np.int64), stride, pad, dilate, groups, dtype=np.int64))


def dense8(x, w):
    """The 8-bit dense layer's 32-bit accumulators, one row per item of x."""
    return wrap32(x.reshape(len(x), -1).astype(np.int64) @ w.astype(np.int64).T)


def input_step(x):
    """The online quantiser's step over x's range (range / 254, floored)."""
    dx = (float(x.max()) - float(x.min())) / 254.0
    return 0.0001 / 254.0 if dx < 1e-6 / 254.0 else dx


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
