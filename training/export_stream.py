#!/usr/bin/python3
"""Exports the trained streaming model as the library's model files.

  export_stream.py --model work/stream --out ../models/default \
      [--check-features F.f32 --check-out DIR]

Writes OUT/tovad.json (QuantiInput, the 8-bit temporal convolutions, the
8-bit dense layer and a softmax), OUT/tovad.params (int8 weights, int32
biases, the shift tables), OUT/tovad.meanvar and OUT/tovad.conf.

With --check-features it also writes the check of the export:
DIR/streaming_model_input.f32, the normalised features of a stretch of
held-out speech from its first frame (float32, one row of 120 per frame),
and DIR/streaming_model_outputs.bin, the integer simulation's outputs for
every frame: the 8-bit outputs of each convolution in turn, then the two
float32 logits of the dense layer.  The engine, fed one frame per call,
must reproduce them bit for bit.
"""

import argparse
import json
import os
import sys

import numpy as np
import torch

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "..", "tools"))
import export  # noqa: E402
import fixed_point  # noqa: E402
import train  # noqa: E402
import train_stream  # noqa: E402
from model_writer import SymbolGraph, write_params  # noqa: E402

def layer_names(n_convs):
    return ["tconv%d" % (i + 1) for i in range(n_convs)] + ["fc"]


def build(model_layers, integers):
    """Symbol graph and named parameter arrays of the exported net."""
    g = SymbolGraph()
    params = []

    def aux(name, values):
        params.append(("aux:" + name, np.asarray(values)))
        return g.variable(name)

    x = g.variable("data")
    in_shift = np.array([integers[0]["in_shift"]], np.int8)
    x = g.node("QuantiInput", "quant_in", [x, aux("quant_in_input_shift_history", in_shift)],
               attr={"truncate": "floor"})
    names = layer_names(len(model_layers))
    frame_rows = train.N_CHAN  # rows of a frame: the kernel spans all of them
    for name, (filters, taps, dil), q in zip(names, model_layers, integers):
        params.append(("arg:%s_weight" % name,
                       q["weight"].reshape(filters, taps, frame_rows, -1)))
        params.append(("arg:%s_bias" % name, q["bias"]))
        inputs = [x, g.variable(name + "_weight"), g.variable(name + "_bias"),
                  aux(name + "_output_shift_history", np.array([q["out_shift"]], np.int8)),
                  aux(name + "_weight_vec_shift_history", q["weight_shift"]),
                  aux(name + "_bias_vec_shift_history", np.zeros(filters, np.int8))]
        x = g.node("QuantiTemporalConvolution", name, inputs, attr={
            "kernel": "(%d,%d)" % (taps, frame_rows), "dilate": "(%d,1)" % dil,
            "num_filter": str(filters), "use_activation": "True", "vector_quanti": "True"})
        frame_rows = 1
    q = integers[-1]
    params.append(("arg:fc_weight", q["weight"]))
    params.append(("arg:fc_bias", q["bias"]))
    # The dense layer's output is float: its output shift is never read.
    x = g.node("QuantiFullyConnected", "fc", [
        x, g.variable("fc_weight"), g.variable("fc_bias"),
        aux("fc_output_shift_history", np.array([q["in_shift"]], np.int8)),
        aux("fc_weight_vec_shift_history", q["weight_shift"]),
        aux("fc_bias_vec_shift_history", np.zeros(len(q["bias"]), np.int8))],
        attr={"num_hidden": str(len(q["bias"])), "vector_quanti": "True",
              "disable_output_quantization": "True"})
    g.heads = [g.node("SoftmaxActivation", "softmax", [x], attr={"mode": "instance"})]
    return g, params


def load(model_dir):
    ckpt = torch.load(os.path.join(model_dir, "model.pt"))
    with open(os.path.join(model_dir, "train.json")) as f:
        info = json.load(f)
    layers = [tuple(l) for l in info["layers"]]
    model = fixed_point.StreamingNet(train.DIM, layers)
    model.load_state_dict(ckpt["state"])
    model.eval()
    return model, ckpt, info, layers


def write_check(model, ckpt, layers, features_path, out_dir, frames):
    f = np.fromfile(features_path, dtype="<f4").reshape(-1, train.DIM)[:frames]
    x = train_stream.normalised(f, ckpt["add"], ckpt["mul"])
    integers = model.integer_layers()
    outs, logits = fixed_point.run_integers(integers, [d for _, _, d in layers],
                                            integers[0]["in_shift"], x)
    with torch.no_grad():
        trained = model(torch.from_numpy(x)[None])[0].numpy()
    # The training graph and the integer simulation are one arithmetic.
    assert np.array_equal(trained, logits), "training forward differs from the integers"
    os.makedirs(out_dir, exist_ok=True)
    x.astype("<f4").tofile(os.path.join(out_dir, "streaming_model_input.f32"))
    with open(os.path.join(out_dir, "streaming_model_outputs.bin"), "wb") as fh:
        for t in range(len(x)):
            for o in outs:
                fh.write(o[t].astype(np.int8).tobytes())
            fh.write(logits[t].astype("<f4").tobytes())


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--model", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--check-features")
    ap.add_argument("--check-out")
    ap.add_argument("--check-frames", type=int, default=600)
    a = ap.parse_args()
    model, ckpt, info, layers = load(a.model)
    graph, params = build(layers, model.integer_layers())
    os.makedirs(a.out, exist_ok=True)
    graph.write(os.path.join(a.out, "tovad.json"))
    write_params(os.path.join(a.out, "tovad.params"), params)
    export.write_meanvar(a.out, ckpt["add"], ckpt["mul"])
    title = ("Default model of tovad: 8-bit dilated temporal convolutions that see one\n"
             "PCEN frame per step and keep their own history (%d frames)."
             % model.receptive_field())
    export.write_conf(a.out, title, 1, info["threshold"], info["score_delay_frames"])
    if a.check_features and a.check_out:
        write_check(model, ckpt, layers, a.check_features, a.check_out, a.check_frames)
    total = sum(os.path.getsize(os.path.join(a.out, n)) for n in os.listdir(a.out))
    print("wrote %s: %d bytes in all" % (a.out, total))


if __name__ == "__main__":
    main()
