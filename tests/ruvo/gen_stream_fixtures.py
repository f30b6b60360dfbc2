#!/usr/bin/python3
"""Writes the 8-bit nets of layer_test.cpp into tests/data/net/
(--check compares instead), with expected outputs in integer numpy: the
streaming net of temporal convolutions and 8-bit dense layers, and the
pooling, doubling and scale-override convolution nets.

The streaming net's batch axis is time.  For every head the .io file holds the
outputs over the whole sequence (KEY), over the sequence restarted from
silence at frame RESTART (KEY@reset), and over the sequence run one frame a
call with an UpdateInterBuff after each frame in UPDATES (KEY@update).
The first two come from a causal convolution over the whole sequence with
zeros before its start; the third from a frame-by-frame model of the
history window with the update's block moves.  Both agree where no update
happens, which is checked here.
"""

import sys

import numpy as np

from fixture_lib import (F32, I8, IoFile, Params, conv8, conv_attrs, dense8,
                         output_stage, quanti_input, save, write_or_check, wrap32)

FRAMES, WIDTH, CHANNELS = 12, 5, 3
RESTART = 5
UPDATES = (3, 4, 8)
IN_SHIFT = 4


def temporal_acc(seq, w, dilate):
    """Causal convolution over time of seq (T, 1, W, C) with w (F, taps, W,
    C): output t sees frames t - (taps - 1 - k) * dilate, zeros before 0."""
    lead = (w.shape[1] - 1) * dilate
    return conv8(seq.transpose(1, 0, 2, 3), w, (1, 1), (lead, 0), (dilate, 1))[0, :len(seq), 0]


def temporal_stream(seq, w, dilate, updates):
    """The same frame by frame through a window of (taps - 1) * dilate + 1
    frames, oldest first.  After each frame in `updates` the window's bytes
    move in blocks of (window frames * frame width) bytes, each block one
    block toward the start, as far as whole blocks fit."""
    taps = w.shape[1]
    frames = (taps - 1) * dilate + 1
    frame = seq[0].size
    window = np.zeros(frames * frame, np.int64)
    block = frames * seq.shape[2]
    acc = []
    for t in range(len(seq)):
        window = np.concatenate([window[frame:], seq[t].ravel().astype(np.int64)])
        row = np.concatenate([window[k * dilate * frame:(k * dilate + 1) * frame]
                              for k in range(taps)])
        acc.append(w.reshape(w.shape[0], -1).astype(np.int64) @ row)
        if t in updates:
            for i in range(frames - 1):
                if (i + 2) * block <= window.size:
                    window[i * block:(i + 1) * block] = window[(i + 1) * block:(i + 2) * block]
    return wrap32(np.array(acc))


def stream_net(rng, out_dir):
    params = Params()
    g, nodes = params.g, {"data": params.data}
    nodes["qin"] = params.quanti_input(nodes["data"], "qin", 0, fixed_output_shift=IN_SHIFT)
    layers = []  # (name, source, kind, weight, stage arguments, dilate)

    def layer(kind, name, src, shape, wmax=40, bias=True, vec=False, act=False, bn=False, float_out=False,
              tw=True, out_shift=3, dilate=1):
        """A temporal convolution or dense layer with random weights of the
        given shape (F, ...) in [-wmax, wmax]."""
        w = rng.integers(-wmax, wmax + 1, shape).astype(I8)
        nf = len(w)
        first = "out_shift_history" if kind == "temporal" and not bias else "output_shift_history"
        inputs, b, wshift, bnp = params.layer8(rng, name, w, bias, vec, out_shift, bn, first=first)
        inputs = [nodes[src]] + inputs
        flags = dict(no_bias=not bias, vector_quanti=vec, **({"use_activation": act} if kind == "temporal"
                                                          else {"use_batchnorm": bn}),
                     disable_output_quantization=float_out, transpose_weight=tw)
        if kind == "temporal":
            nodes[name] = g.node("QuantiTemporalConvolution", name, inputs,
                                 attr=conv_attrs(w.shape[1:3], dilate=(dilate, 1), nf=nf, **flags))
        else:
            attr = dict({"num_hidden": str(nf)}, **{k: ("True" if v else "False") for k, v in flags.items()})
            nodes[name] = g.node("QuantiFullyConnected", name, inputs, attr=attr)
        layers.append((name, src, kind, w, dict(bias=b, wshift=wshift, out_shift=out_shift, act=act, bn=bnp,
                                                float_out=float_out), dilate))

    # Every layer's window is at least three frames, so the net also runs
    # three frames a call.
    layer("temporal", "t1", "qin", (6, 3, WIDTH, CHANNELS), wmax=60)
    layer("temporal", "t2", "qin", (4, 3, WIDTH, CHANNELS), dilate=2, bias=False, vec=True, act=True, tw=False)
    layer("temporal", "t3", "t1", (4, 3, 1, 6), vec=True, act=True, float_out=True)
    layer("dense", "f1", "t1", (5, 6), wmax=50, out_shift=4)
    layer("dense", "f2", "t2", (3, 4), wmax=50, bias=False, vec=True, bn=True, float_out=True, tw=False)
    layer("dense", "f3", "f1", (2, 5), wmax=50, float_out=True)
    heads = ["t1", "t2", "t3", "f1", "f2", "f3"]
    g.heads = [nodes[h] for h in heads]

    def run(seq, updates=None):
        """All layers over the float sequence; updates None: the whole
        sequence at once, else frame by frame with those updates."""
        q = {"qin": (quanti_input(seq, IN_SHIFT, True), IN_SHIFT)}
        for name, src, kind, w, stage, dilate in layers:
            x, shift = q[src]
            if kind == "dense":
                acc = dense8(x, w)
            elif updates is None:
                acc = temporal_acc(x, w, dilate)
            else:
                acc = temporal_stream(x, w, dilate, updates)
            out, oshift = output_stage(acc, shift, **stage)
            q[name] = (out.reshape((len(x), 1, 1, -1)) if kind == "temporal" else out, oshift)
        return q

    io = IoFile()
    io.case("sequence")
    seq = rng.uniform(-10.0, 10.0, (FRAMES, 1, WIDTH, CHANNELS)).astype(F32)
    io.input("data", seq)
    io.output("restart_at", np.array([RESTART]))
    io.output("updates_after", np.array(UPDATES))
    whole, restarted, updated = run(seq), run(seq[RESTART:]), run(seq, set(UPDATES))
    plain = run(seq, set())
    for h in heads:
        assert np.array_equal(whole[h][0], plain[h][0]), h
        assert not np.array_equal(whole[h][0][UPDATES[0] + 1:], updated[h][0][UPDATES[0] + 1:]), h
        io.output(h, whole[h][0])
        io.output(h + "@reset", restarted[h][0])
        io.output(h + "@update", updated[h][0])
    # The narrowing is seen saturating at both ends.
    for h, lo in (("t1", -128), ("f1", -128), ("t2", 0)):
        assert lo in whole[h][0] and 127 in whole[h][0], h
    save("stream", g, params, io, out_dir)


# ------------------------------------------- pooling and upscale, 8-bit


def pool_ref(x, kernel, stride, pad, kind, full=False, global_pool=False):
    """Windows clipped to the image; the 8-bit average multiplies by
    trunc(512 / area) and shifts right by 9; the float one adds in the
    engine's order (rows, then columns) and divides by the area."""
    n, h, w, c = x.shape
    if global_pool:
        kernel, stride, pad = (h, w), (1, 1), (0, 0)
    out_hw = []
    for a in range(2):
        t = (h, w)[a] + 2 * pad[a] - kernel[a]
        out_hw.append(int(np.ceil(F32(t) / F32(stride[a]))) + 1 if full else t // stride[a] + 1)
    out = np.zeros((n,) + tuple(out_hw) + (c,), x.dtype)
    area = kernel[0] * kernel[1]
    mult = int(F32(512.0) / F32(area))
    for oy in range(out_hw[0]):
        for ox in range(out_hw[1]):
            y0, x0 = oy * stride[0] - pad[0], ox * stride[1] - pad[1]
            win = x[:, max(y0, 0):min(y0 + kernel[0], h), max(x0, 0):min(x0 + kernel[1], w)]
            if kind == "max":
                out[:, oy, ox] = win.max(axis=(1, 2))
            elif x.dtype == np.int8:
                s = win.astype(np.int64).sum(axis=(1, 2))
                out[:, oy, ox] = np.clip((s * mult) >> 9, -128, 127)
            else:
                acc = np.zeros((n, c), F32)
                for row in range(win.shape[1]):
                    for col in range(win.shape[2]):
                        acc = (acc + win[:, row, col]).astype(F32)
                out[:, oy, ox] = acc / F32(area)
    return out


def upscale_ref(x):
    """Bilinear doubling, weights out of 256, the last row and column
    repeated, every shift flooring."""
    n, h, w, c = x.shape
    r, j = np.arange(2 * h), np.arange(2 * w)
    fy, fx = np.where(r % 2, 128, 0)[None, :, None, None], np.where(j % 2, 128, 0)[None, None, :, None]
    y0, y1, x0, x1 = r // 2, np.minimum(r // 2 + 1, h - 1), j // 2, np.minimum(j // 2 + 1, w - 1)
    v = x.astype(np.int64)
    a, b, cc, d = v[:, y0][:, :, x0], v[:, y0][:, :, x1], v[:, y1][:, :, x0], v[:, y1][:, :, x1]
    t = a * (256 - fx) + b * fx
    inner = ((cc * (256 - fx) + d * fx) * fy + t * (256 - fy)) >> 16
    last_cols = ((cc * 256) * fy + (a * 256) * (256 - fy)) >> 16
    rows_end = (r >= 2 * h - 2)[None, :, None, None]
    cols_end = (j >= 2 * w - 2)[None, None, :, None]
    return np.where(rows_end, np.where(cols_end, a, t >> 8),
                    np.where(cols_end, last_cols, inner)).astype(np.int8)


def alpha_net(rng, out_dir):
    """float (2, 5, 7, 8) -> QuantiInput -> AlphaPooling in its forms (and
    on the float data), AlphaUpscale on the image and on a 1 x 1 pool."""
    params = Params()
    g, x = params.g, params.data
    qin = params.quanti_input(x, "qin", 0, fixed_output_shift=4)
    pools = [("p_max", qin, (3, 3), (2, 2), (1, 1), "max", False, False),
             ("p_avg_full", qin, (3, 3), (2, 2), (1, 1), "avg", True, False),
             ("p_avg_global", qin, (1, 1), (1, 1), (0, 0), "avg", False, True),
             ("p_float_avg", x, (2, 3), (1, 2), (0, 1), "avg", False, False),
             ("p_float_max", x, (2, 2), (2, 2), (0, 0), "max", True, False)]
    nodes = {}
    for name, src, k, s, p, kind, full, glob in pools:
        attr = {"kernel": "(%d,%d)" % k, "stride": "(%d,%d)" % s, "pad": "(%d,%d)" % p,
                "pool_type": kind, "global_pool": "True" if glob else "False"}
        full = {"pooling_convention": "full"} if full else {}
        nodes[name] = g.node("AlphaPooling", name, [src], attr=dict(attr, **full))
    nodes["up"] = g.node("AlphaUpscale", "up", [qin])
    nodes["up_1x1"] = g.node("AlphaUpscale", "up_1x1", [nodes["p_avg_global"]])
    heads = [n for n, *_ in pools] + ["up", "up_1x1"]
    g.heads = [nodes[h] for h in heads]

    io = IoFile()
    io.case("image")
    data = rng.uniform(-9.0, 9.0, (2, 5, 7, 8)).astype(F32)
    io.input("data", data)
    q = quanti_input(data, 4, True)
    got = {name: pool_ref(q if src == qin else data, *args) for name, src, *args in pools}
    got["up"] = upscale_ref(q)
    got["up_1x1"] = upscale_ref(got["p_avg_global"])
    assert 127 in got["p_max"] and -128 in got["up"] and 127 in got["up"]
    for h in heads:
        io.output8(h, got[h], 4)
    save("alpha", g, params, io, out_dir)


# ------------------------------------------------- convolution overrides


def alpha_plus_net(rng, out_dir):
    """float (2, 5, 6, 4) -> QuantiInput (shift 4) -> AlphaPlusConvolution
    with a forced input shift, 8-bit biases aligned by left and by
    (count mod 32) right shifts, a forced edata shift, and the float output
    on the coarsest channel's grid."""
    params = Params()
    g, x = params.g, params.data
    qin = params.quanti_input(x, "qin", 0, fixed_output_shift=4)
    refs, heads = [], []

    def plus(name, k, p, nf, wshift, out_shift, in_shift=None, bias_d=None, edata_shift=None,
             act=False, align=False):
        w = rng.integers(-128, 128, (nf,) + k + (4,)).astype(I8)
        b = None if bias_d is None else rng.integers(-128, 128, (nf,)).astype(I8)
        inputs = [qin] + params.weights(name, w, b) + ([qin] if edata_shift is not None else [])
        vec = len(wshift) > 1
        wshift = np.resize(np.asarray(wshift), nf).astype(I8)
        used_in = in_shift if in_shift else 4
        bias_al = bshift = None
        if b is not None:
            d = np.resize(np.asarray(bias_d), nf).astype(np.int64)
            bshift = (wshift.astype(np.int64) + used_in - d).astype(I8)
            bv = b.astype(np.int64)
            bias_al = wrap32(np.where(d >= 0, bv << np.maximum(d, 0), bv >> (d % 32)))
        inputs += params.shift_tables(name, out_shift, wshift, vec, bshift)
        attr = conv_attrs(k, pad=p, nf=nf, no_bias=b is None, vector_quanti=vec,
                          elementwise_input=edata_shift is not None, use_activation=act,
                          disable_output_quantization=align, align_output_shift=align)
        if in_shift:
            attr["input_shift"] = str(in_shift)
        if edata_shift:
            attr["elementwise_input_shift"] = str(edata_shift)
        heads.append(g.node("AlphaPlusConvolution", name, inputs, attr=attr))

        def ref(q):
            acc = conv8(q, w, (1, 1), p)
            if not align:
                edata = None if edata_shift is None else (q, edata_shift)
                return output_stage(acc, used_in, wshift, out_shift, bias=bias_al, edata=edata,
                                    act=act)[0]
            s = wshift.astype(np.int64) + used_in
            a = min(128, int(s.min()))
            v = np.where(act & (acc < 0), 0, acc)
            return (v >> ((s - a) % 32)).astype(F32) * F32(2.0 ** -a)
        refs.append((name, ref))

    plus("ap_in_shift", (3, 3), (1, 1), 4, [7], 3, in_shift=5, bias_d=3)
    plus("ap_bias_edata", (1, 1), (0, 0), 4, [6, 7, 5, 8], 3, bias_d=[2, 0, -1, -3],
         edata_shift=2, act=True)
    plus("ap_align", (3, 3), (0, 0), 6, [5, 8, 6, 7, 9, 6], 0, act=True, align=True)
    g.heads = heads

    io = IoFile()
    io.case("image")
    data = rng.uniform(-8.0, 8.0, (2, 5, 6, 4)).astype(F32)
    io.input("data", data)
    q = quanti_input(data, 4, True)
    for name, ref in refs:
        io.output8(name, ref(q), 3)
    save("alpha_plus", g, params, io, out_dir)


def generate(out_dir):
    stream_net(np.random.default_rng(20261124), out_dir)
    alpha_net(np.random.default_rng(20261126), out_dir)
    alpha_plus_net(np.random.default_rng(20261127), out_dir)


if __name__ == "__main__":
    sys.exit(write_or_check(generate))
