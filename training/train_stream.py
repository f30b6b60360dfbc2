#!/usr/bin/python3
"""Trains the streaming 8-bit model: dilated causal convolutions over one
PCEN frame per step, in the engine's fixed-point arithmetic.

  train_stream.py --features work/features --corpus work/corpus --out work/stream

The net sees each frame once, as the library gives it ((mean + x) * factor
with the meanvar terms; zeros on the extractor's warm-up frames), and its
layers start from zeros as the engine's history does.  The output at frame
t is trained on the label of frame t - LABEL_DELAY: the features describe
audio about five frames back, and one more frame lets the net hear the
start of a word before it commits.  With the decision stage's median of
seven, a score describes audio LABEL_DELAY + 3 frames before it is reported.

Writes OUT/model.pt (state, shifts, normalisation) and OUT/train.json.
"""

import argparse
import json
import os
import sys
import time

import numpy as np
import torch
from torch import nn

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import fixed_point  # noqa: E402
import train  # noqa: E402

LABEL_DELAY = 6
# (filters, taps, dilation): 47 frames, 0.47 s of context.
LAYERS = ((32, 3, 1), (32, 3, 2), (32, 3, 4), (32, 3, 8), (32, 3, 8))


def normalised(f, add, mul):
    x = (add + f) * mul  # float32, the library's order
    x[: train.WARMUP_ROWS] = 0.0
    return x.astype(np.float32)


class Crops:
    """Random stretches of the clips with the context the net needs before
    them; the loss covers only outputs whose inputs all lie in the stretch,
    or all outputs when the stretch starts the clip (where the engine, too,
    starts from zeros)."""

    def __init__(self, feats, labels, add, mul, field, length, delay):
        self.x = [torch.from_numpy(normalised(f, add, mul)) for f in feats]
        self.y = []
        for lab in labels:
            y = np.full(len(lab), -100, np.int64)  # ignored by the loss
            y[delay:] = lab[: len(lab) - delay]
            self.y.append(torch.from_numpy(y))
        self.field, self.length = field, length

    def frames(self):
        return sum(len(x) for x in self.x)

    def batch(self, rng, n):
        span = self.field - 1 + self.length
        xs, ys = [], []
        for _ in range(n):
            i = int(rng.integers(0, len(self.x)))
            x, y = self.x[i], self.y[i]
            if len(x) < span:
                continue
            start = 0 if rng.random() < 0.2 else int(rng.integers(0, len(x) - span + 1))
            y = y[start:start + span].clone()
            if start > 0:
                y[: self.field - 1] = -100
            xs.append(x[start:start + span])
            ys.append(y)
        return torch.stack(xs), torch.stack(ys)


def clip_scores(model, x):
    with torch.no_grad():
        return torch.softmax(model(torch.from_numpy(x)[None]), dim=2)[0, :, 1].numpy()


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--features", required=True)
    ap.add_argument("--corpus", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--steps", type=int, default=4000)
    ap.add_argument("--batch", type=int, default=32)
    ap.add_argument("--length", type=int, default=400, help="frames scored per crop")
    ap.add_argument("--threads", type=int, default=1)
    ap.add_argument("--label-delay", type=int, default=LABEL_DELAY)
    ap.add_argument("--max-lr", type=float, default=3e-3)
    ap.add_argument("--init", help="a model.pt to go on training: its shifts and "
                    "normalisation stay as they are")
    ap.add_argument("--no-onsets", action="store_true", help="leave the noise-onset clips out")
    a = ap.parse_args()
    torch.manual_seed(0)
    rng = np.random.default_rng(0)
    torch.set_num_threads(a.threads)

    feats, labels, _ = train.load_split(a.features, a.corpus, "train")
    n_val = max(1, len(feats) // 10)  # the last clips choose the threshold
    init = torch.load(a.init) if a.init else None
    add, mul = (init["add"], init["mul"]) if init else train.norm_terms(feats[:-n_val])
    # Noise onsets train the net but leave the normalisation and the
    # threshold to ordinary clips.
    onset_feats, onset_labels = [], []
    if not a.no_onsets:
        onset_feats, onset_labels, _ = train.load_split(a.features, a.corpus, "train_onset")
    model = fixed_point.StreamingNet(train.DIM, LAYERS)
    if init:
        model.load_state_dict(init["state"])
    field = model.receptive_field()
    crops = Crops(feats[:-n_val] + onset_feats, labels[:-n_val] + onset_labels, add, mul, field,
                  a.length, a.label_delay)
    print("train frames: %d, receptive field %d frames" % (crops.frames(), field), flush=True)

    opt = torch.optim.Adam(model.parameters(), lr=2e-3)
    sched = torch.optim.lr_scheduler.OneCycleLR(opt, max_lr=a.max_lr, total_steps=a.steps,
                                                pct_start=0.1)
    loss_fn = nn.CrossEntropyLoss(ignore_index=-100)
    calib_x, _ = crops.batch(np.random.default_rng(1), 64)
    # Shifts follow the activations while the net finds its scale, then stay.
    calib_until = -1 if init else a.steps // 2
    t0, total, n = time.time(), 0.0, 0
    for step in range(a.steps):
        if step % 250 == 0 and step <= calib_until:
            model.calibrate(calib_x)
        x, y = crops.batch(rng, a.batch)
        logits = model(x)
        loss = loss_fn(logits.reshape(-1, 2), y.reshape(-1))
        opt.zero_grad()
        loss.backward()
        nn.utils.clip_grad_norm_(model.parameters(), 5.0)
        opt.step()
        sched.step()
        total, n = total + float(loss), n + 1
        if (step + 1) % 250 == 0:
            print("step %d loss %.4f shifts %d %s (%.0f s)" % (
                step + 1, total / n, int(model.in_shift), model.out_shifts.int().tolist(),
                time.time() - t0), flush=True)
            total, n = 0.0, 0

    model.eval()
    delay = a.label_delay + train.MEDIAN // 2
    scores = [clip_scores(model, normalised(f, add, mul)) for f in feats[-n_val:]]
    best = train.best_threshold(scores, labels[-n_val:], delay)
    print("validation frame F1 %.4f at threshold %.2f" % best)

    os.makedirs(a.out, exist_ok=True)
    torch.save({"state": model.state_dict(), "add": add, "mul": mul},
               os.path.join(a.out, "model.pt"))
    with open(os.path.join(a.out, "train.json"), "w") as f:
        json.dump(dict(layers=[list(l) for l in LAYERS], label_delay=a.label_delay,
                       steps=a.steps, init=a.init, validation_f1=best[0], threshold=best[1],
                       score_delay_frames=delay), f, indent=1)


if __name__ == "__main__":
    main()
