#!/usr/bin/python3
"""Writes the convolution and 8-bit nets of the layer tests into
tests/data/net/ (--check compares instead), with expected outputs computed
here: float convolutions in float64, the 8-bit layers in integer numpy, so
their outputs (and the shift beside each, under KEY.shift) are exact."""

import os
import sys

import numpy as np

from fixture_lib import (F32, I8, IoFile, Params, conv8, conv_attrs, conv_sum,
                         input_step, output_stage, quanti_input, save, write_or_check, write_params)


# ------------------------------------------------------------ float conv

# name, kernel, stride, pad, dilate, filters, groups, bias, transpose_weight
CONVS = [
    ("c_basic", (3, 3), (1, 1), (0, 0), (1, 1), 4, 1, True, True),
    ("c_stride_pad", (3, 2), (2, 2), (2, 1), (1, 1), 3, 1, False, True),
    ("c_dilate", (2, 3), (1, 2), (1, 0), (2, 2), 5, 1, True, False),
    ("c_group", (3, 3), (1, 1), (1, 1), (1, 1), 4, 2, True, True),
    ("c_group_1x1", (1, 1), (1, 1), (0, 0), (1, 1), 9, 3, False, False),
    ("c_1x1", (1, 1), (1, 1), (0, 0), (2, 2), 7, 1, True, True),
    ("c_1x1_stride", (1, 1), (2, 2), (0, 0), (1, 1), 3, 1, True, True),
]


def conv_net(rng, out_dir):
    """Every float convolution above, and its online 8-bit twin (name
    suffix _q), side by side on one (2, 7, 9, 6) input."""
    params, heads, weights = Params(), [], {}
    g, x = params.g, params.data
    for name, k, s, p, d, nf, groups, bias, tw in CONVS:
        w = rng.uniform(-1.0, 1.0, (nf,) + k + (6 // groups,)).astype(F32)
        b = rng.uniform(-0.5, 0.5, (nf,)).astype(F32) if bias else None
        weights[name] = (w, b, s, p, d, groups)
        for suffix, quanti in (("", False), ("_q", True)):
            inputs = [x] + params.weights(name + suffix, w, b)
            heads.append(g.node("Convolution", name + suffix, inputs,
                                param=conv_attrs(k, s, p, d, nf, groups, no_bias=not bias,
                                                 online_quanti=quanti, transpose_weight=tw)))
    g.heads = heads

    io = IoFile()
    mixed = rng.uniform(-2.0, 3.0, (2, 7, 9, 6)).astype(F32)
    for case, data in (("mixed", mixed), ("all_equal", np.full((2, 7, 9, 6), 0.75, F32))):
        io.case(case)
        io.input("data", data)
        x64, dx = data.astype(np.float64), input_step(data)
        # Padding holds the quantised image of 0.0 clamped to 8 bits, which
        # is 0.0 only to within dx when 0.0 lies inside the data's range.
        lo, hi = F32(data.min()), F32(data.max())
        rng32 = F32(hi - lo)
        if rng32 < 1e-6:
            rng32 = F32(F32(lo + F32(0.0001)) - lo)
        a = F32(254.0) / rng32
        b = F32(F32(lo / rng32) + F32(0.5)) * F32(-254.0)
        pad_err = abs(np.clip(np.trunc(b), -127, 127) - float(b)) / float(a) + dx
        for name, (w, b_, s, p, d, groups) in weights.items():
            y = conv_sum(x64, w, s, p, d, groups)
            if b_ is not None:
                y = y + b_
            io.output(name, y.astype(F32))
            io.output(name + "_q", y.astype(F32))
            # Each input is off by less than dx, each padded value by
            # pad_err, each weight by less than dw; plus the float rounding
            # of the rescale.
            dw = np.abs(w).max() / 127.0
            aw = np.abs(w.astype(np.float64))
            err = (conv_sum(np.abs(x64), np.full(w.shape, dw), s, p, d, groups)
                   + conv_sum(np.ones_like(x64), aw + dw, s, p, d, groups) * dx
                   + conv_sum(np.zeros_like(x64), aw + dw, s, p, d, groups, pad_value=1.0) * pad_err)
            io.bound(name + "_q", err + 1e-5 * (1.0 + np.abs(y)))
    save("conv", g, params, io, out_dir)


# --------------------------------------------------------------- 8-bit


def quant_net(rng, out_dir):
    """float (2, 7, 9, 6) -> QuantiInput (both scale modes) -> eight-bit
    convolutions in every form, the small layers on top."""
    params = Params()
    g, x = params.g, params.data
    qin = params.quanti_input(x, "qin", 4, truncate="floor")
    nodes = {"qin": qin, "qin5": params.quanti_input(x, "qin5", 3, truncate="naive", fixed_output_shift=5)}
    refs = []  # (name, expected output from the tensors computed so far)

    def alpha(name, src, k, nf, groups=1, s=(1, 1), p=(0, 0), d=(1, 1), bias=True, vec=False,
              bn=False, edata=None, act=False, float_out=False, tw=True, out_shift=3,
              src_channels=6, scalar_shift=7):
        w = rng.integers(-128, 128, (nf,) + k + (src_channels // groups,)).astype(I8)
        inputs, b, wshift, bnp = params.layer8(rng, name, w, bias, vec, out_shift, bn,
                                               [nodes[edata]] if edata else [], scalar_shift)
        nodes[name] = g.node(
            "AlphaConvolution", name, [nodes[src]] + inputs,
            attr=conv_attrs(k, s, p, d, nf, groups, no_bias=not bias, vector_quanti=vec,
                            use_batchnorm=bn, elementwise_input=edata is not None,
                            use_activation=act, disable_output_quantization=float_out,
                            transpose_weight=tw))
        refs.append((name, lambda q: output_stage(conv8(q[src][0], w, s, p, d, groups), q[src][1], wshift,
                                                  out_shift, b, bnp, q.get(edata), act, float_out)))

    alpha("a1", "qin", (3, 3), 5, p=(1, 2))
    alpha("a2", "qin", (2, 3), 4, s=(2, 2), d=(2, 1), bias=False, vec=True, act=True, tw=False)
    alpha("a3", "qin", (3, 3), 6, groups=3, p=(1, 1), vec=True, bn=True, out_shift=2)
    alpha("a4", "qin5", (1, 1), 6, edata="qin", out_shift=4, act=True)
    # edata finer than the accumulator: it is skipped, and the output's
    # right shift grows by the gap.
    alpha("a5", "qin", (1, 1), 6, bias=False, edata="qin5", out_shift=2, scalar_shift=-2)
    alpha("a6", "a1", (3, 3), 3, p=(1, 1), act=True, float_out=True, src_channels=5)
    alpha("a7", "qin", (1, 1), 4, groups=2, float_out=True, vec=True)
    alpha("a8", "qin", (1, 1), 3, bn=True, act=True, out_shift=1)
    g.heads = [nodes[n] for n in ["qin", "qin5", "a1", "a2", "a3", "a4", "a5", "a6", "a7", "a8"]]
    g.heads += [g.node("QuantiFlatten", "qflat", [nodes["a1"]]),
                g.node("QuantiActivation", "qact", [nodes["a1"]], attr={"act_type": "relu"}),
                g.node("NHCW2Conv", "nhcw_f", [x]), g.node("NHCW2Conv", "nhcw_q", [qin])]

    io = IoFile()
    calm = rng.uniform(-2.0, 2.0, (2, 7, 9, 6)).astype(F32)
    wild = rng.normal(0, 6.0, (2, 7, 9, 6)).astype(F32)
    wild[0, 0, 0, :4] = [1e10, -1e10, -0.01, -1.5 / 16]
    for case, data in (("calm", calm), ("wild", wild)):
        io.case(case)
        io.input("data", data)
        q = {"qin": (quanti_input(data, 4, True), 4), "qin5": (quanti_input(data, 5, False), 5)}
        for name, ref in refs:
            q[name] = ref(q)
        a1q, a1s = q["a1"]
        q["qflat"] = (a1q.transpose(0, 3, 2, 1).reshape(2, -1), a1s)
        q["qact"] = (np.maximum(a1q, 0).astype(np.int8), a1s)
        q["nhcw_q"] = (q["qin"][0].transpose(0, 1, 3, 2), 255)
        io.output("nhcw_f", data.transpose(0, 1, 3, 2))
        for key, (values, shift) in q.items():
            io.output8(key, values, shift)
    save("quant", g, params, io, out_dir)

    # File errors: a per-channel shift table one entry short, and a weight
    # stored with a filter too few.
    for file, short in (("table", "aux:a2_weight_vec_shift_history"), ("weight", "arg:a1_weight")):
        write_params(os.path.join(out_dir, "quant_short_%s.params" % file),
                     [(n, a[:-1] if n == short else a) for n, a in params])


def generate(out_dir):
    rng = np.random.default_rng(20261123)
    conv_net(rng, out_dir)
    quant_net(rng, out_dir)


if __name__ == "__main__":
    sys.exit(write_or_check(generate))
