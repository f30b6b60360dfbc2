#!/usr/bin/python3
"""Trains the default model: a small dense net on windows of PCEN features.

  train.py --features work/features --corpus work/corpus --out work/model

The net sees what the library gives it: a window of N_HEIGHT frames of
3 x 40 features, each normalised as (mean + x) * factor with the meanvar
terms, oldest frame first.  The window ending at frame t is trained on the
label of frame t - LABEL_DELAY: the features of frame t describe audio
about five frames back (four for the deltas, one for the analysis window),
and seven more frames let the net look past the frame it judges, which
carries a segment through the closure before a final plosive.

Writes OUT/model.pt (state dict and normalisation) and OUT/train.json
(settings and validation figures).
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
import corpus  # noqa: E402

N_CHAN, N_WIDTH = 3, 40
DIM = N_CHAN * N_WIDTH
N_HEIGHT = 20
LABEL_DELAY = 12
HIDDEN = (64, 32)
WARMUP_ROWS = 6  # rows the extractor leaves unwritten at the start
MEDIAN = 7       # the decision stage's median filter


class DenseVad(nn.Module):
    def __init__(self, n_height=N_HEIGHT, hidden=HIDDEN):
        super().__init__()
        layers, width = [], n_height * DIM
        for h in hidden:
            layers += [nn.Linear(width, h), nn.ReLU()]
            width = h
        layers.append(nn.Linear(width, 2))
        self.net = nn.Sequential(*layers)

    def forward(self, x):  # x: (batch, n_height, 120) normalised
        return self.net(x.reshape(x.shape[0], -1))


def load_split(features_dir, corpus_dir, split):
    feats, labels, names = [], [], []
    d = os.path.join(corpus_dir, split)
    for n in sorted(x[:-7] for x in os.listdir(d) if x.endswith(".labels")):
        f = np.fromfile(os.path.join(features_dir, split, n + ".f32"), dtype="<f4").reshape(-1, DIM)
        lab = corpus.read_frame_values(os.path.join(d, n + ".labels")).astype(np.int64)
        t = min(len(f), len(lab))
        feats.append(f[:t])
        labels.append(lab[:t])
        names.append(n)
    return feats, labels, names


def norm_terms(feats):
    """Negated means and inverse deviations, as the meanvar file holds them."""
    x = np.concatenate([f[WARMUP_ROWS:] for f in feats]).astype(np.float64)
    mean, std = x.mean(axis=0), x.std(axis=0)
    return (-mean).astype(np.float32), (1.0 / np.maximum(std, 1e-4)).astype(np.float32)


class Windows:
    """All windows of a set of clips, gathered on demand from one array."""

    def __init__(self, feats, labels, add, mul, n_height=N_HEIGHT, delay=LABEL_DELAY):
        rows, targets, ends = [], [], []
        offset = 0
        for f, lab in zip(feats, labels):
            # The library starts from a zeroed window: n_height - 1 zero rows.
            pad = np.zeros((n_height - 1, DIM), np.float32)
            rows += [pad, (add + f) * mul]  # float32, the library's order
            t = np.arange(delay, len(f))
            ends.append(offset + n_height - 1 + t)
            targets.append(lab[t - delay])
            offset += n_height - 1 + len(f)
        self.rows = torch.from_numpy(np.concatenate(rows))
        self.ends = torch.from_numpy(np.concatenate(ends))
        self.targets = torch.from_numpy(np.concatenate(targets))
        self.span = torch.arange(-(n_height - 1), 1)

    def __len__(self):
        return len(self.ends)

    def batch(self, idx):
        return self.rows[self.ends[idx, None] + self.span], self.targets[idx]


def clip_scores(model, f, add, mul, n_height=N_HEIGHT):
    """Speech posterior at every frame of one clip, as the library scores it."""
    w = Windows([f], [np.zeros(len(f), np.int64)], add, mul, n_height, delay=0)
    with torch.no_grad():
        x, _ = w.batch(torch.arange(len(w)))
        return torch.softmax(model(x), dim=1)[:, 1].numpy()


def median7(s):
    """Running median of the last seven values, as the decision stage."""
    pad = np.concatenate([np.zeros(MEDIAN - 1, s.dtype), s])
    return np.median(np.lib.stride_tricks.sliding_window_view(pad, MEDIAN), axis=1)


def best_threshold(scores, labels, delay):
    """(frame F1, threshold) of the threshold that best separates the
    validation clips after the decision stage's median filter, on labels
    shifted by the score delay."""
    s_all = np.concatenate([median7(s)[delay:] for s in scores])
    l_all = np.concatenate([lab[: len(lab) - delay] for lab in labels]).astype(bool)
    best = (0.0, 0.5)
    for thr in np.arange(0.1, 0.91, 0.05):
        d = s_all > thr
        tp, fp, fn = np.sum(d & l_all), np.sum(d & ~l_all), np.sum(~d & l_all)
        best = max(best, (float(2 * tp / max(1, 2 * tp + fp + fn)), round(float(thr), 2)))
    return best


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--features", required=True)
    ap.add_argument("--corpus", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--epochs", type=int, default=12)
    ap.add_argument("--threads", type=int, default=1)
    ap.add_argument("--label-delay", type=int, default=LABEL_DELAY)
    a = ap.parse_args()
    torch.manual_seed(0)
    np.random.seed(0)
    torch.set_num_threads(a.threads)

    feats, labels, names = load_split(a.features, a.corpus, "train")
    n_val = max(1, len(feats) // 10)  # the last clips check the threshold
    add, mul = norm_terms(feats[:-n_val])
    train = Windows(feats[:-n_val], labels[:-n_val], add, mul, delay=a.label_delay)
    print("train windows: %d, speech %.3f" % (len(train), train.targets.float().mean()))

    model = DenseVad()
    opt = torch.optim.Adam(model.parameters(), lr=1e-3, weight_decay=1e-5)
    sched = torch.optim.lr_scheduler.CosineAnnealingLR(opt, a.epochs)
    loss_fn = nn.CrossEntropyLoss()
    gen = torch.Generator().manual_seed(0)
    for epoch in range(a.epochs):
        t0, total, n = time.time(), 0.0, 0
        model.train()
        for idx in torch.randperm(len(train), generator=gen).split(512):
            x, y = train.batch(idx)
            loss = loss_fn(model(x), y)
            opt.zero_grad()
            loss.backward()
            opt.step()
            total += float(loss) * len(idx)
            n += len(idx)
        sched.step()
        print("epoch %d loss %.4f (%.0f s)" % (epoch, total / n, time.time() - t0), flush=True)

    model.eval()
    delay = a.label_delay + MEDIAN // 2
    best = best_threshold([clip_scores(model, f, add, mul) for f in feats[-n_val:]],
                          labels[-n_val:], delay)
    print("validation frame F1 %.4f at threshold %.2f" % best)

    os.makedirs(a.out, exist_ok=True)
    torch.save({"state": model.state_dict(), "add": add, "mul": mul}, os.path.join(a.out, "model.pt"))
    with open(os.path.join(a.out, "train.json"), "w") as f:
        json.dump(dict(n_height=N_HEIGHT, label_delay=a.label_delay, hidden=list(HIDDEN),
                       epochs=a.epochs, validation_f1=best[0], threshold=best[1],
                       score_delay_frames=delay), f, indent=1)


if __name__ == "__main__":
    main()
