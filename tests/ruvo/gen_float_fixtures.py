#!/usr/bin/python3
"""Writes the float layer nets of the layer tests (pooling, batch norm and
dropout, the element-wise family, upsampling, LSTM) and the 8-bit pooling
net into tests/data/net/ (--check compares instead), with expected outputs
from numpy in float64 (int64 for the 8-bit pools) and PyTorch's LSTM.  The
heads of every net are in name order, as the output keys of a case are."""

import math
import sys

import numpy as np

from fixture_lib import F32, IoFile, SymbolGraph, quanti_input, save, write_or_check


def build(out_dir, name, nodes, params, cases):
    """nodes: {head name: (op, input names, attrs)}; an input name that is
    no node is a variable.  cases: [(case, {input: array}, {head: array})]."""
    g = SymbolGraph()
    made = {}

    def get(n):
        if n not in made:
            made[n] = g.node(nodes[n][0], n, [get(i) for i in nodes[n][1]], attr=nodes[n][2]) \
                if n in nodes else g.variable(n)
        return made[n]

    g.heads = [get(n) for n in sorted(nodes)]
    save(name, g, params, IoFile.of([(case, inputs.items(), [(k, outputs[k].astype(F32)) for k in sorted(outputs)])
                                     for case, inputs, outputs in cases]), out_dir)


# -------------------------------------------------------------- pooling

def pool_out(n, k, s, p, conv):
    if conv == "legacy":
        return min(n + 2 * p - 1 - k + s, n + 2 * p - 1) // s + 1
    if conv == "full":
        return math.ceil((n + 2 * p - k) / s) + 1
    return (n + 2 * p - k) // s + 1


def pool_ref(x, kind, k, s, p, conv):
    """Windows over a zero (avg) or -inf (max) border wide enough for every
    window; the average divides by the whole kernel area.  Integer x is
    pooled in int64: the max border is the type's lowest value, and the
    average truncates toward zero."""
    integer = np.issubdtype(x.dtype, np.integer)
    n, h, w, c = x.shape
    oh, ow = pool_out(h, k[0], s[0], p[0], conv), pool_out(w, k[1], s[1], p[1], conv)
    fill = 0 if kind == "avg" else np.iinfo(x.dtype).min if integer else -np.inf
    big = np.full((n, h + 2 * p[0] + k[0] + s[0] * oh, w + 2 * p[1] + k[1] + s[1] * ow, c), fill,
                  dtype=np.int64 if integer else np.float64)
    big[:, p[0]:p[0] + h, p[1]:p[1] + w] = x
    out = np.zeros((n, oh, ow, c), dtype=big.dtype)
    area = k[0] * k[1]
    for y in range(oh):
        for z in range(ow):
            win = big[:, y * s[0]:y * s[0] + k[0], z * s[1]:z * s[1] + k[1]]
            if kind == "max":
                out[:, y, z] = win.max(axis=(1, 2))
            elif integer:
                t = win.sum(axis=(1, 2))
                out[:, y, z] = np.sign(t) * (np.abs(t) // area)
            else:
                out[:, y, z] = win.sum(axis=(1, 2)) / area
    return out


# name: type, kernel, stride, pad, convention ("legacy" sets legacy_shape)
POOLS = {
    "p_max_valid": ("max", (3, 3), (2, 2), (0, 0), "valid"),
    "p_max_full": ("max", (3, 3), (2, 2), (0, 0), "full"),
    "p_avg_pad": ("avg", (3, 2), (1, 2), (1, 1), "valid"),
    "p_avg_full_wide": ("avg", (2, 3), (3, 3), (0, 1), "full"),
    "p_max_stride_gt_k": ("max", (2, 2), (3, 3), (0, 0), "valid"),
    "p_legacy": ("avg", (3, 3), (2, 2), (1, 1), "legacy"),
}


def pool_nodes(src, prefix="", global_kinds=("max", "avg")):
    """Every pool of POOLS and the global ones, on src."""
    nodes = {}
    for name, (kind, k, s, p, conv) in POOLS.items():
        a = {"kernel": "(%d,%d)" % k, "stride": "(%d,%d)" % s, "pad": "(%d,%d)" % p, "pool_type": kind}
        a.update({"legacy_shape": "True"} if conv == "legacy" else {"pooling_convention": conv})
        nodes[prefix + name] = ("Pooling", [src], a)
    for kind in global_kinds:
        nodes[prefix + "p_global_" + kind] = ("Pooling", [src],
                                              {"kernel": "(1,1)", "global_pool": "True", "pool_type": kind})
    return nodes


def pool_net(rng, out_dir):
    nodes = pool_nodes("data")
    cases = []
    for case, shape in (("h7w8", (2, 7, 8, 5)), ("h8w7", (1, 8, 7, 19))):
        x = rng.uniform(-3, 2, shape).astype(F32)
        outs = {n: pool_ref(x.astype(np.float64), *v) for n, v in POOLS.items()}
        outs["p_global_max"] = x.max(axis=(1, 2), keepdims=True)
        outs["p_global_avg"] = x.astype(np.float64).mean(axis=(1, 2), keepdims=True)
        cases.append((case, {"data": x}, outs))
    build(out_dir, "pool", nodes, [], cases)


def pool8_net(rng, out_dir):
    """The pools above on 8-bit data: float -> QuantiInput (shift 4, floor)
    -> Pooling, in integer numpy; the range saturates some inputs."""
    params = [("aux:qin_input_shift_history", np.array([4], dtype=np.int8))]
    nodes = dict(pool_nodes("qin", "q", ["avg"]), qin=("QuantiInput", ["data", "qin_input_shift_history"], {}))
    x = rng.uniform(-9, 9, (2, 7, 8, 19)).astype(F32)
    q = quanti_input(x, 4, True)
    outs = {"q" + n: pool_ref(q, *v) for n, v in POOLS.items()}
    t = q.astype(np.int64).sum(axis=(1, 2), keepdims=True)
    outs["qp_global_avg"] = np.sign(t) * (np.abs(t) // (7 * 8))
    outs["qin"] = q
    outs.update({k + ".shift": np.array([4]) for k in list(outs)})  # pooling keeps the scale
    build(out_dir, "pool8", nodes, params, [("h7w8", {"data": x}, outs)])


# ---------------------------------------------------- batch norm, dropout

def bn_net(rng, out_dir):
    c = 6
    gamma, beta = rng.uniform(0.5, 2, c).astype(F32), rng.uniform(-1, 1, c).astype(F32)
    mean, var = rng.uniform(-1, 1, c).astype(F32), rng.uniform(0.1, 3, c).astype(F32)
    var[2] = 0.0  # 1 / sqrt(eps)
    params = []
    for n in ("bn", "bn_fixed"):
        params += [("arg:%s_gamma" % n, gamma if n == "bn" else np.full(c, 2.0, F32)),
                   ("arg:%s_beta" % n, beta), ("aux:%s_moving_mean" % n, mean),
                   ("aux:%s_moving_var" % n, var)]
    ins = lambda n: ["data", n + "_gamma", n + "_beta", n + "_moving_mean", n + "_moving_var"]  # noqa: E731
    nodes = {"bn": ("BatchNorm", ins("bn"), {"eps": "0.0001", "fix_gamma": "False"}),
             "bn_fixed": ("BatchNorm", ins("bn_fixed"), {}),
             "drop": ("Dropout", ["bn"], {"p": "0.9", "mode": "always"})}
    x = rng.uniform(-4, 4, (2, 3, 4, c)).astype(F32)
    x64 = x.astype(np.float64)
    bn = gamma * (x64 - mean) / np.sqrt(var + 1e-4) + beta
    outs = {"bn": bn, "bn_fixed": (x64 - mean) / np.sqrt(var + np.float64(F32(1e-3))) + beta, "drop": bn}
    build(out_dir, "bn", nodes, params, [("mixed", {"data": x}, outs)])


# ------------------------------------------------------- element-wise

def elemwise_net(rng, out_dir):
    a, b = (rng.uniform(-2, 2, (2, 3, 4)).astype(F32) for _ in range(2))
    col, row, lone = (rng.uniform(-2, 2, s).astype(F32) for s in ((3, 1), (1, 1, 4), (2, 3, 1)))
    A, B = a.astype(np.float64), b.astype(np.float64)
    table = {  # name: op, inputs, attributes, expected
        "plus": ("_Plus", ["a", "b"], None, A + B), "add": ("elemwise_add", ["a", "b"], None, A + B),
        "mul_s": ("_mul_scalar", ["a"], {"scalar": "2.5"}, A * 2.5),
        "mul_S": ("_MulScalar", ["a"], {"scalar": "-0.75"}, A * -0.75),
        "plus_s": ("_plus_scalar", ["a"], {"scalar": "-1.25"}, A - 1.25),
        "plus_S": ("_PlusScalar", ["a"], {"scalar": "3"}, A + 3),
        "add_n3": ("add_n", ["a", "b", "a"], {"num_args": "3"}, A + B + A),
        "ews1": ("ElementWiseSum", ["b"], {"num_args": "1"}, B),
        "bmul_mid": ("broadcast_mul", ["a", "col"], None, A * col),
        "bmul_row": ("broadcast_mul", ["row", "a"], None, row * A),
        "bmul_both": ("broadcast_mul", ["lone", "row"], None, lone.astype(np.float64) * row),
        "sum_all": ("sum", ["a"], {}, A.sum().reshape(1)), "sum_0": ("sum", ["a"], {"axis": "0"}, A.sum(0)),
        "sum_1": ("sum", ["a"], {"axis": "1"}, A.sum(1)), "sum_2": ("sum", ["a"], {"axis": "(2,)"}, A.sum(2)),
        "sum_neg": ("sum", ["a"], {"axis": "-2"}, A.sum(-2)),
        "sum_02": ("sum", ["a"], {"axis": "(0,2)"}, A.sum((0, 2))),
        "sum_keep1": ("sum", ["a"], {"axis": "1", "keepdims": "True"}, A.sum(1, keepdims=True)),
        "sum_excl1": ("sum", ["a"], {"axis": "1", "exclude": "True"}, A.sum((0, 2))),
    }
    build(out_dir, "elemwise", {n: t[:3] for n, t in table.items()}, [],
          [("mixed", {"a": a, "b": b, "col": col, "row": row, "lone": lone}, {n: t[3] for n, t in table.items()})])


# ------------------------------------------------------------ upsampling

def upsample_net(rng, out_dir):
    nodes = {"up%d" % s: ("UpSampling", ["data"], {"scale": str(s), "sample_type": "nearest"})
             for s in (1, 2, 3)}
    x = rng.uniform(-1, 1, (2, 3, 4, 5)).astype(F32)
    outs = {"up%d" % s: x.repeat(s, axis=1).repeat(s, axis=2) for s in (1, 2, 3)}
    build(out_dir, "upsample", nodes, [], [("mixed", {"data": x}, outs)])


# ------------------------------------------------------------------ LSTM

# name: layers, bidirectional, state outputs
LSTMS = {"l1": (1, False, True), "l2": (2, False, False), "l1_bi": (1, True, True),
         "l2_bi": (2, True, True), "l3_bi": (3, True, False)}


def lstm_net(rng, out_dir):
    """Each LSTM above on one (T, N, 5) input with its own non-zero initial
    states; expectations from torch.nn.LSTM in float64."""
    import torch
    t64 = lambda a: torch.from_numpy(a.astype(np.float64))  # noqa: E731
    I, H = 5, 4
    g = SymbolGraph()
    x = g.variable("data")
    params, heads, models = [], [], {}
    for name, (L, bi, so) in LSTMS.items():
        lstm = torch.nn.LSTM(I, H, num_layers=L, bidirectional=bi).double()
        flat = {}
        for pname, _ in lstm.named_parameters():
            flat[pname] = rng.uniform(-0.6, 0.6, getattr(lstm, pname).shape).astype(F32)
            getattr(lstm, pname).data = t64(flat[pname])
        sfx = ["", "_reverse"] if bi else [""]
        order = ["weight_ih_l%d%s", "weight_hh_l%d%s"], ["bias_ih_l%d%s", "bias_hh_l%d%s"]
        packed = np.concatenate([flat[k % (l, d)].ravel() for kinds in order
                                 for l in range(L) for d in sfx for k in kinds])
        params.append(("arg:%s_parameters" % name, packed))
        ins = [x, g.variable(name + "_parameters"), g.variable(name + "_h0"), g.variable(name + "_c0")]
        node = g.node("RNN", name, ins, attr={
            "state_size": str(H), "num_layers": str(L), "mode": "lstm", "state_inputs": "True",
            "bidirectional": str(bi), "state_outputs": str(so), "p": "0.2"})
        heads += [(name, node)] + ([(name + ".cy", (node, 2)), (name + ".hy", (node, 1))] if so else [])
        models[name] = (lstm, L * (2 if bi else 1), so)
    heads.sort()
    g.heads = [h for _, h in heads]
    io = IoFile()
    for case, (T, N) in (("t4n2", (4, 2)), ("t1n3", (1, 3))):
        io.case(case)
        data = rng.uniform(-1, 1, (T, N, I)).astype(F32)
        io.input("data", data)
        outs = {}
        for name, (lstm, S, so) in models.items():
            h0 = rng.uniform(-0.5, 0.5, (S, N, H)).astype(F32)
            c0 = rng.uniform(-0.5, 0.5, (S, N, H)).astype(F32)
            io.input(name + "_h0", h0)
            io.input(name + "_c0", c0)
            with torch.no_grad():
                y, (hy, cy) = lstm(t64(data), (t64(h0), t64(c0)))
            outs[name] = y.numpy()
            if so:
                outs[name + ".hy"], outs[name + ".cy"] = hy.numpy(), cy.numpy()
        for k in sorted(outs):
            io.output(k, outs[k].astype(F32))
    save("lstm", g, params, io, out_dir)


def generate(out_dir):
    rng = np.random.default_rng(20261124)
    pool_net(rng, out_dir)
    bn_net(rng, out_dir)
    elemwise_net(rng, out_dir)
    upsample_net(rng, out_dir)
    lstm_net(rng, out_dir)
    pool8_net(rng, out_dir)


if __name__ == "__main__":
    sys.exit(write_or_check(generate))
