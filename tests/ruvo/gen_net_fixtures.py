#!/usr/bin/python3
"""Writes the small nets of the net and layer tests into tests/data/net/
(--check compares instead), with expected outputs computed here in numpy.
Output keys are the names of the layers that produce them; 4-d tensors are
channel-last."""

import os
import sys

import numpy as np

from fixture_lib import F32, IoFile, Params, SymbolGraph, input_step, save, write_or_check, write_params


io_of = IoFile.of


def fc(x, w, b=None):
    y = x.reshape(x.shape[0], -1).astype(np.float64) @ w.astype(np.float64).T
    return (y if b is None else y + b).astype(F32)


def f64(fn):
    """fn applied in float64 and rounded to float32."""
    return lambda x, *a: fn(x.astype(np.float64), *a).astype(F32)


relu = f64(lambda x: np.where(x > 0, x, 0))
sigmoid = f64(lambda x: 1.0 / (np.exp(np.clip(-x, -40, 40)) + 1.0))
tanh = f64(np.tanh)
softrelu = f64(lambda x: np.log1p(np.exp(x)))


@f64
def softmax(x, axis):
    e = np.exp(x - x.max(axis=axis, keepdims=True))
    return e / e.sum(axis=axis, keepdims=True)


def rows_softmax(x):
    return softmax(x.reshape(x.shape[0], -1), 1).reshape(x.shape)


def heads(g, x, table):
    """One head per (name, op, attr) row, each on input x."""
    g.heads = [g.node(op, name, [x], param=attr) for name, op, attr in table]


def mlp(rng, out):
    """data (8, 2, 3, 5) -> fc1 16 relu -> fc2 12 sigmoid -> fc3 10 tanh ->
    fc4 3 -> SoftmaxOutput.  Written in both graph styles."""
    params, weights = Params(), []
    g, h = params.g, params.data
    for i, (n_in, n_out, act, act_name) in enumerate(
            [(30, 16, "relu", "relu1"), (16, 12, "sigmoid", "act2"), (12, 10, "tanh", "act3"),
             (10, 3, None, None)], start=1):
        weights.append((rng.uniform(-0.6, 0.6, (n_out, n_in)).astype(F32),
                        rng.uniform(-0.3, 0.3, (n_out,)).astype(F32)))
        h = g.node("FullyConnected", "fc%d" % i, [h] + params.weights("fc%d" % i, *weights[-1]),
                   param={"num_hidden": str(n_out)})
        if act is not None:
            h = g.node("Activation", act_name, [h], attr={"act_type": act})
    g.heads = [g.node("SoftmaxOutput", "softmax", [h, g.variable("softmax_label")])]

    data = rng.normal(0, 1.5, (8, 2, 3, 5)).astype(F32)
    fc2 = fc(relu(fc(data, *weights[0])), *weights[1])
    soft = rows_softmax(fc(tanh(fc(sigmoid(fc2), *weights[2])), *weights[3]))
    io = io_of([("full", [("data", data)], [("softmax", soft), ("fc2", fc2), ("act2", sigmoid(fc2))])])
    save("mlp", g, params, io, out)
    save("mlp_old", g, params, io, out, version=None)

    # The same weights under other names: an "aux:" name the graph does not
    # declare as a state still binds an argument; an unknown "arg:" name and
    # a name without prefix are dropped.
    renamed = [("aux:" + n[4:] if n == "arg:fc1_weight" else n, a) for n, a in params]
    renamed += [("arg:not_in_graph", np.ones((2, 2), F32)), ("fc2_bias", np.zeros(12, F32))]
    write_params(os.path.join(out, "mlp_prefixes.params"), renamed)
    # One name fewer than arrays.
    write_params(os.path.join(out, "mlp_badcount.params"), params, names=[n for n, _ in params][:-1])


def activations(rng, out):
    """Four activations side by side on one (3, 8) input with extreme values."""
    g = SymbolGraph()
    x = g.variable("data")
    acts = [("relu", relu), ("sigmoid", sigmoid), ("tanh", tanh), ("softrelu", softrelu)]
    g.heads = [g.node("Activation", act, [x], attr={"act_type": act}) for act, _ in acts]
    data = rng.normal(0, 3, (3, 8)).astype(F32)
    data[0, :4] = [-100.0, -0.0, 0.0, 50.0]
    data[1, :3] = [40.0, -40.0, 30.0]
    save("activations", g, [], io_of([("full", [("data", data)], [(a, f(data)) for a, f in acts])]), out)


def softmaxes(rng, out):
    """SoftmaxActivation in both modes and SoftmaxOutput in its forms on one
    (2, 3, 4, 5) input."""
    g = SymbolGraph()
    x = g.variable("data")
    g.heads = [g.node("SoftmaxActivation", "sm_" + m[:4], [x], param={"mode": m}) for m in ("instance", "channel")]
    for name, attr in [("so_plain", {}), ("so_preserve", {"preserve_shape": "True"}),
                       ("so_multi", {"multi_output": "True"}),
                       ("so_both", {"multi_output": "True", "preserve_shape": "True"})]:
        g.heads.append(g.node("SoftmaxOutput", name, [x, g.variable(name + "_label")], attr=attr))
    data = rng.normal(0, 2, (2, 3, 4, 5)).astype(F32)
    multi = softmax(data.reshape(2, 3, 20), 1).reshape(data.shape)
    save("softmax", g, [], io_of([("full", [("data", data)], [
        ("sm_inst", rows_softmax(data)), ("sm_chan", softmax(data, 3)), ("so_plain", rows_softmax(data)),
        ("so_preserve", softmax(data, 3)), ("so_multi", multi), ("so_both", multi)])]), out)


def flatten(rng, out):
    g = SymbolGraph()
    x = g.variable("data")
    g.heads = [g.node("Flatten", "flat_sw", [x]),
               g.node("Flatten", "flat_plain", [x], attr={"auto_channel_switch": "False"})]
    data = rng.normal(0, 1, (2, 3, 4, 5)).astype(F32)
    # Axes 1 and 3 exchanged before the rows are flattened.
    save("flatten", g, [], io_of([("full", [("data", data)], [
        ("flat_sw", np.swapaxes(data, 1, 3).reshape(2, -1)), ("flat_plain", data.reshape(2, -1))])]), out)


def concat(rng, out):
    g = SymbolGraph()
    a, b, c, d = [g.variable(k) for k in "abcd"]
    cat = lambda name, ins, dim, **kw: g.node(  # noqa: E731
        "Concat", name, ins, param=dict({"num_args": str(len(ins)), "dim": str(dim)}, **kw))
    g.heads = [cat("cat3", [a, b], 3), cat("cat1", [a, c], 1), cat("cat2", [a, d, a], 2),
               cat("catsw", [a, b], 1, auto_channel_switch="True")]
    va, vb, vc, vd = (rng.normal(0, 1, s).astype(F32)
                      for s in ((2, 3, 4, 5), (2, 3, 4, 2), (2, 2, 4, 5), (2, 3, 1, 5)))
    # The trained channel axis is the engine's axis 3.
    save("concat", g, [], io_of([("full", [("a", va), ("b", vb), ("c", vc), ("d", vd)], [
        ("cat3", np.concatenate([va, vb], 3)), ("cat1", np.concatenate([va, vc], 1)),
        ("cat2", np.concatenate([va, vd, va], 2)), ("catsw", np.concatenate([va, vb], 3))])]), out, version=None)


def reshape(rng, out):
    g = SymbolGraph()
    x = g.variable("data")
    data = rng.normal(0, 1, (2, 3, 4, 5)).astype(F32)
    cases = [("r_keep_infer", {"shape": "(0,-1)"}, (2, 60)), ("r_merge_rest", {"shape": "(-3,-2)"}, (6, 4, 5)),
             ("r_split", {"shape": "(0,-4,1,-1,-2)"}, (2, 1, 3, 4, 5)), ("r_all", {"shape": "(-1,)"}, (120,)),
             ("r_merge_last", {"shape": "(0,0,-3)"}, (2, 3, 20)),
             ("r_split_right", {"shape": "(2,-4,-1,3,20)"}, (2, 1, 3, 20)),
             ("r_reverse", {"shape": "(-1,0)", "reverse": "True"}, (24, 5)),
             ("r_target", {"target_shape": "(4,0)"}, (4, 30)),
             ("r_keep_highest", {"target_shape": "(0,0)", "keep_highest": "True"}, (2, 60))]
    heads(g, x, [(name, "Reshape", attr) for name, attr, _ in cases])
    # A Reshape behind an activation that nothing else reads runs in place.
    act = g.node("Activation", "r_relu", [x], attr={"act_type": "relu"})
    g.heads.append(g.node("Reshape", "r_inplace", [act], param={"shape": "(0,-1)"}))
    outputs = [(name, data.reshape(shape)) for name, _, shape in cases]
    save("reshape", g, [], io_of([("full", [("data", data)],
                                   outputs + [("r_inplace", relu(data).reshape(2, 60))])]), out)


def slices(rng, out):
    g = SymbolGraph()
    data = rng.normal(0, 1, (2, 3, 4, 5)).astype(F32)
    N = "None"
    cases = [("sa_tail", "slice_axis", {"axis": "1", "begin": "1", "end": N}, data[:, 1:]),
             ("sa_neg", "slice_axis", {"axis": "-1", "begin": "-3", "end": "-1"}, data[..., -3:-1]),
             ("sa_mid", "slice_axis", {"axis": "2", "begin": "1", "end": "3"}, data[:, :, 1:3]),
             ("sl_axis1", "slice", {"begin": "(None,1)", "end": "(None,3)"}, data[:, 1:3]),
             ("sl_neg", "slice", {"begin": "(None,None,-2)", "end": "(None,None,None)"}, data[:, :, -2:]),
             ("sl_last", "slice", {"begin": "(None,None,None,1)", "end": "(None,None,None,None)"}, data[..., 1:])]
    heads(g, g.variable("data"), [c[:3] for c in cases])
    save("slice", g, [], io_of([("full", [("data", data)], [(c[0], c[3]) for c in cases])]), out)


def fc_quant(rng, out):
    """Float and online 8-bit FullyConnected on the same weights.  The
    bounds are the worst-case error of the 8-bit path: inputs are truncated
    to steps of range/254 and weights to steps of max|w|/127, each off by
    less than one step."""
    params = Params()
    g, x = params.g, params.data
    w1 = rng.uniform(-0.8, 0.8, (10, 20)).astype(F32)
    b1 = rng.uniform(-0.5, 0.5, (10,)).astype(F32)
    w2 = rng.uniform(-1.5, 1.0, (6, 20)).astype(F32)
    nb = {"num_hidden": "6", "no_bias": "True"}
    layers = [("fc_f", (w1, b1), {"num_hidden": "10"}),
              ("fc_q", (w1, b1), {"num_hidden": "10", "online_quanti": "True"}),
              ("fc_f2", (w2,), nb), ("fc_qt", (w2,), dict(nb, online_quanti="True", transpose_weight="False"))]
    inputs = {n: [x] + params.weights(n, *wb) for n, wb, _ in layers}
    g.heads = [g.node("FullyConnected", name, inputs[name], param=param) for name, _, param in layers]

    def bound(data, w):
        x2 = data.reshape(data.shape[0], -1).astype(np.float64)
        dx, dw = input_step(data), np.abs(w).max() / 127.0
        aw = np.abs(w.astype(np.float64))
        # Per output: sum over k of |x| dw + (|w| + dw) dx, plus float
        # rounding of the rescale.
        err = np.abs(x2) @ np.full(aw.T.shape, dw) + np.ones_like(x2) @ ((aw + dw).T * dx)
        return err + 1e-5 * (1.0 + np.abs(x2 @ w.astype(np.float64).T))

    io = IoFile()
    for case, data in [("mixed", rng.uniform(-2.0, 3.0, (4, 20)).astype(F32)),
                       ("all_equal", np.full((4, 20), 0.75, dtype=F32))]:
        io.case(case)
        io.input("data", data)
        for f, q, args in [("fc_f", "fc_q", (w1, b1)), ("fc_f2", "fc_qt", (w2,))]:
            io.output(f, fc(data, *args))
            io.output(q, fc(data, *args))
            io.bound(q, bound(data, args[0]))
    save("fc_quant", g, params, io, out)


def int8_relu(rng, out):
    """An 8-bit parameter through a relu: the planner sizes the slab of an
    int8 blob at one byte an element."""
    g = SymbolGraph()
    g.heads = [g.node("Activation", "relu", [g.variable("q")], attr={"act_type": "relu"})]
    save("int8_relu", g, [("arg:q", rng.integers(-128, 128, (1, 100)).astype(np.int8))], io_of([("full", [], [])]), out)


def generate(out):
    rng = np.random.default_rng(20261122)
    for make in (mlp, activations, softmaxes, flatten, concat, reshape, slices, fc_quant, int8_relu):
        make(rng, out)


if __name__ == "__main__":
    sys.exit(write_or_check(generate))
