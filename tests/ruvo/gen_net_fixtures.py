#!/usr/bin/python3
"""Writes the small nets of the net and layer tests under tests/data/net/
(NAME-symbol.json, NAME.params, NAME.io), with the expected outputs
computed here in numpy, independently of the engine, NAME.io in the form
of fixture_lib.py.  Output keys are the names of the layers that produce them; 4-d tensors are
channel-last.  Seeded: running it again writes the same bytes.

    /usr/bin/python3 tests/ruvo/gen_net_fixtures.py
"""

import os

import numpy as np

from fixture_lib import F32, NET_DIR as OUT_DIR, IoFile, SymbolGraph, block, write_params
from fixture_lib import save as save_files


def full(inputs, outputs):
    """The one case "full" of most nets: (key, array) inputs and outputs."""
    return [("full", [("input",) + kv for kv in inputs] + [("output",) + kv for kv in outputs])]


def save(name, graph, params, cases, version=10600):
    """cases: (case name, [(kind, key, array), ...]) in file order."""
    io = IoFile()
    for case, blocks in cases:
        io.case(case)
        for b in blocks:
            io.lines += block(*b)
    save_files(name, graph, params, io, OUT_DIR, version)


def fc(x, w, b=None):
    y = x.reshape(x.shape[0], -1).astype(np.float64) @ w.astype(np.float64).T
    if b is not None:
        y = y + b
    return y.astype(F32)


def relu(x):
    return np.where(x > 0, x, 0).astype(F32)


def sigmoid(x):
    e = np.clip(-x.astype(np.float64), -40, 40)
    return (1.0 / (np.exp(e) + 1.0)).astype(F32)


def tanh(x):
    return np.tanh(x.astype(np.float64)).astype(F32)


def softrelu(x):
    return np.log1p(np.exp(x.astype(np.float64))).astype(F32)


def softmax(x, axis):
    x = x.astype(np.float64)
    e = np.exp(x - x.max(axis=axis, keepdims=True))
    return (e / e.sum(axis=axis, keepdims=True)).astype(F32)


def rows_softmax(x):
    return softmax(x.reshape(x.shape[0], -1), 1).reshape(x.shape)


def mlp(rng):
    """data (8, 2, 3, 5) -> fc1 16 relu -> fc2 12 sigmoid -> fc3 10 tanh ->
    fc4 3 -> SoftmaxOutput.  Written in both graph styles."""
    g = SymbolGraph()
    x = g.variable("data")
    params = []
    widths = [(30, 16, "relu"), (16, 12, "sigmoid"), (12, 10, "tanh"), (10, 3, None)]
    names = ["relu1", "act2", "act3"]
    h = x
    weights = []
    for i, (n_in, n_out, act) in enumerate(widths, start=1):
        w = rng.uniform(-0.6, 0.6, (n_out, n_in)).astype(F32)
        b = rng.uniform(-0.3, 0.3, (n_out,)).astype(F32)
        weights.append((w, b))
        wn = g.variable("fc%d_weight" % i)
        bn = g.variable("fc%d_bias" % i)
        h = g.node("FullyConnected", "fc%d" % i, [h, wn, bn], param={"num_hidden": str(n_out)})
        params += [("arg:fc%d_weight" % i, w), ("arg:fc%d_bias" % i, b)]
        if act is not None:
            h = g.node("Activation", names[i - 1], [h], attr={"act_type": act})
    label = g.variable("softmax_label")
    sm = g.node("SoftmaxOutput", "softmax", [h, label])
    g.heads = [sm]

    data = rng.normal(0, 1.5, (8, 2, 3, 5)).astype(F32)
    fc1 = fc(data, *weights[0])
    fc2 = fc(relu(fc1), *weights[1])
    fc3 = fc(sigmoid(fc2), *weights[2])
    fc4 = fc(tanh(fc3), *weights[3])
    out = rows_softmax(fc4)

    io = full([("data", data)], [("softmax", out), ("fc2", fc2), ("act2", sigmoid(fc2))])
    save("mlp", g, params, io)
    save("mlp_old", g, params, io, version=None)

    # The same weights under other names: an "aux:" name the graph does not
    # declare as a state still binds an argument; an unknown "arg:" name and
    # a name without prefix are dropped.
    renamed = [("aux:" + n[4:] if n == "arg:fc1_weight" else n, a) for n, a in params]
    renamed += [("arg:not_in_graph", np.ones((2, 2), F32)), ("fc2_bias", np.zeros(12, F32))]
    write_params(os.path.join(OUT_DIR, "mlp_prefixes.params"), renamed)
    # One name fewer than arrays.
    write_params(os.path.join(OUT_DIR, "mlp_badcount.params"), params,
                 names=[n for n, _ in params][:-1])


def activations(rng):
    """Four activations side by side on one (3, 8) input, with the edge
    values -100, -0.0, NaN-free extremes."""
    g = SymbolGraph()
    x = g.variable("data")
    acts = [("relu", relu), ("sigmoid", sigmoid), ("tanh", tanh), ("softrelu", softrelu)]
    g.heads = [g.node("Activation", act, [x], attr={"act_type": act}) for act, _ in acts]
    data = rng.normal(0, 3, (3, 8)).astype(F32)
    data[0, :4] = [-100.0, -0.0, 0.0, 50.0]
    data[1, :3] = [40.0, -40.0, 30.0]
    save("activations", g, [], full([("data", data)], [(act, f(data)) for act, f in acts]))


def softmaxes(rng):
    """SoftmaxActivation in both modes and SoftmaxOutput in its three forms
    on one (2, 3, 4, 5) input."""
    g = SymbolGraph()
    x = g.variable("data")
    heads = [
        g.node("SoftmaxActivation", "sm_inst", [x], param={"mode": "instance"}),
        g.node("SoftmaxActivation", "sm_chan", [x], param={"mode": "channel"}),
    ]
    forms = [
        ("so_plain", {}),
        ("so_preserve", {"preserve_shape": "True"}),
        ("so_multi", {"multi_output": "True"}),
        ("so_both", {"multi_output": "True", "preserve_shape": "True"}),
    ]
    for name, attr in forms:
        label = g.variable(name + "_label")
        heads.append(g.node("SoftmaxOutput", name, [x, label], attr=attr))
    g.heads = heads
    data = rng.normal(0, 2, (2, 3, 4, 5)).astype(F32)
    multi = softmax(data.reshape(2, 3, 20), 1).reshape(data.shape)
    save("softmax", g, [], full([("data", data)], [("sm_inst", rows_softmax(data)), ("sm_chan", softmax(data, 3)),
                ("so_plain", rows_softmax(data)), ("so_preserve", softmax(data, 3)),
                ("so_multi", multi), ("so_both", multi)]))


def flatten(rng):
    g = SymbolGraph()
    x = g.variable("data")
    g.heads = [
        g.node("Flatten", "flat_sw", [x]),
        g.node("Flatten", "flat_plain", [x], attr={"auto_channel_switch": "False"}),
    ]
    data = rng.normal(0, 1, (2, 3, 4, 5)).astype(F32)
    # Axes 1 and 3 exchanged before the rows are flattened.
    save("flatten", g, [], full([("data", data)], [("flat_sw", np.swapaxes(data, 1, 3).reshape(2, -1)),
                                                   ("flat_plain", data.reshape(2, -1))]))


def concat(rng):
    g = SymbolGraph()
    a, b, c, d = [g.variable(k) for k in "abcd"]
    g.heads = [
        g.node("Concat", "cat3", [a, b], param={"num_args": "2", "dim": "3"}),
        g.node("Concat", "cat1", [a, c], param={"num_args": "2", "dim": "1"}),
        g.node("Concat", "cat2", [a, d, a], param={"num_args": "3", "dim": "2"}),
        g.node("Concat", "catsw", [a, b], param={"num_args": "2", "dim": "1",
                                                 "auto_channel_switch": "True"}),
    ]
    va = rng.normal(0, 1, (2, 3, 4, 5)).astype(F32)
    vb = rng.normal(0, 1, (2, 3, 4, 2)).astype(F32)
    vc = rng.normal(0, 1, (2, 2, 4, 5)).astype(F32)
    vd = rng.normal(0, 1, (2, 3, 1, 5)).astype(F32)
    # The trained channel axis is the engine's axis 3.
    io = full([("a", va), ("b", vb), ("c", vc), ("d", vd)],
              [("cat3", np.concatenate([va, vb], 3)), ("cat1", np.concatenate([va, vc], 1)),
               ("cat2", np.concatenate([va, vd, va], 2)), ("catsw", np.concatenate([va, vb], 3))])
    save("concat", g, [], io, version=None)


def reshape(rng):
    g = SymbolGraph()
    x = g.variable("data")
    data = rng.normal(0, 1, (2, 3, 4, 5)).astype(F32)
    cases = [
        ("r_keep_infer", {"shape": "(0,-1)"}, (2, 60)),
        ("r_merge_rest", {"shape": "(-3,-2)"}, (6, 4, 5)),
        ("r_split", {"shape": "(0,-4,1,-1,-2)"}, (2, 1, 3, 4, 5)),
        ("r_all", {"shape": "(-1,)"}, (120,)),
        ("r_merge_last", {"shape": "(0,0,-3)"}, (2, 3, 20)),
        ("r_split_right", {"shape": "(2,-4,-1,3,20)"}, (2, 1, 3, 20)),
        ("r_reverse", {"shape": "(-1,0)", "reverse": "True"}, (24, 5)),
        ("r_target", {"target_shape": "(4,0)"}, (4, 30)),
        ("r_keep_highest", {"target_shape": "(0,0)", "keep_highest": "True"}, (2, 60)),
    ]
    heads = [g.node("Reshape", name, [x], param=attr) for name, attr, _ in cases]
    # A Reshape behind an activation that nothing else reads runs in place.
    act = g.node("Activation", "r_relu", [x], attr={"act_type": "relu"})
    heads.append(g.node("Reshape", "r_inplace", [act], param={"shape": "(0,-1)"}))
    g.heads = heads
    outputs = [(name, data.reshape(shape)) for name, _, shape in cases]
    save("reshape", g, [], full([("data", data)], outputs + [("r_inplace", relu(data).reshape(2, 60))]))


def slices(rng):
    g = SymbolGraph()
    x = g.variable("data")
    data = rng.normal(0, 1, (2, 3, 4, 5)).astype(F32)
    cases = [
        ("sa_tail", "slice_axis", {"axis": "1", "begin": "1", "end": "None"}, data[:, 1:]),
        ("sa_neg", "slice_axis", {"axis": "-1", "begin": "-3", "end": "-1"}, data[..., -3:-1]),
        ("sa_mid", "slice_axis", {"axis": "2", "begin": "1", "end": "3"}, data[:, :, 1:3]),
        ("sl_axis1", "slice", {"begin": "(None,1)", "end": "(None,3)"}, data[:, 1:3]),
        ("sl_neg", "slice", {"begin": "(None,None,-2)", "end": "(None,None,None)"},
         data[:, :, -2:]),
        ("sl_last", "slice", {"begin": "(None,None,None,1)", "end": "(None,None,None,None)"},
         data[..., 1:]),
    ]
    g.heads = [g.node(op, name, [x], param=attr) for name, op, attr, _ in cases]
    save("slice", g, [], full([("data", data)], [(name, want) for name, _, _, want in cases]))


def fc_quant(rng):
    """Float and online 8-bit FullyConnected on the same weights.  The
    bounds are the worst-case error of the 8-bit path: inputs are truncated
    to steps of range/254 and weights to steps of max|w|/127, each off by
    less than one step."""
    g = SymbolGraph()
    x = g.variable("data")
    w1 = rng.uniform(-0.8, 0.8, (10, 20)).astype(F32)
    b1 = rng.uniform(-0.5, 0.5, (10,)).astype(F32)
    w2 = rng.uniform(-1.5, 1.0, (6, 20)).astype(F32)
    params = [("arg:fc_f_weight", w1), ("arg:fc_f_bias", b1),
              ("arg:fc_q_weight", w1), ("arg:fc_q_bias", b1),
              ("arg:fc_f2_weight", w2), ("arg:fc_qt_weight", w2)]
    layers = [("fc_f", {"num_hidden": "10"}),
              ("fc_q", {"num_hidden": "10", "online_quanti": "True"}),
              ("fc_f2", {"num_hidden": "6", "no_bias": "True"}),
              ("fc_qt", {"num_hidden": "6", "no_bias": "True", "online_quanti": "True",
                         "transpose_weight": "False"})]
    inputs = {}
    for name, param in layers:
        inputs[name] = [x, g.variable(name + "_weight")]
        if "no_bias" not in param:
            inputs[name].append(g.variable(name + "_bias"))
    g.heads = [g.node("FullyConnected", name, inputs[name], param=param) for name, param in layers]

    def bound(data, w):
        x2 = data.reshape(data.shape[0], -1).astype(np.float64)
        dx = (x2.max() - x2.min()) / 254.0
        if dx < 1e-6 / 254.0:
            dx = 0.0001 / 254.0
        dw = np.abs(w).max() / 127.0
        aw = np.abs(w.astype(np.float64))
        # Per output: sum over k of |x| dw + (|w| + dw) dx, plus float
        # rounding of the rescale.
        err = np.abs(x2) @ np.full(aw.T.shape, dw) + np.ones_like(x2) @ ((aw + dw).T * dx)
        y = np.abs(x2 @ w.astype(np.float64).T)
        return err + 1e-5 * (1.0 + y)

    io = []
    inputs = [
        ("mixed", rng.uniform(-2.0, 3.0, (4, 20)).astype(F32)),
        ("all_equal", np.full((4, 20), 0.75, dtype=F32)),
    ]
    for case, data in inputs:
        blocks = [("input", "data", data)]
        for f, q, args in [("fc_f", "fc_q", (w1, b1)), ("fc_f2", "fc_qt", (w2,))]:
            blocks += [("output", f, fc(data, *args)), ("output", q, fc(data, *args)),
                       ("bound", q, bound(data, args[0]))]
        io.append((case, blocks))
    save("fc_quant", g, params, io)


def int8_relu(rng):
    """An 8-bit parameter through a relu: the planner sizes the slab of an
    int8 blob at one byte an element."""
    g = SymbolGraph()
    q = g.variable("q")
    g.heads = [g.node("Activation", "relu", [q], attr={"act_type": "relu"})]
    values = rng.integers(-128, 128, (1, 100)).astype(np.int8)
    save("int8_relu", g, [("arg:q", values)], full([], []))


def main():
    os.makedirs(OUT_DIR, exist_ok=True)
    rng = np.random.default_rng(20261122)
    mlp(rng)
    activations(rng)
    softmaxes(rng)
    flatten(rng)
    concat(rng)
    reshape(rng)
    slices(rng)
    fc_quant(rng)
    int8_relu(rng)


if __name__ == "__main__":
    main()
