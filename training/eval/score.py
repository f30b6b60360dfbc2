#!/usr/bin/python3
"""Scores per-frame voice decisions against frame labels.

A frame file holds one number per 10 ms frame and line: labels and
decisions are 0 or 1, scores lie in [0, 1] and are turned into decisions
at --threshold.  ROC-AUC is reported where there is a score.

  score.py LABELS PRED [--threshold T]
  score.py --labels-dir D --pred-dir P --suffix .silero.score [--manifest M]

The second form scores every NAME.labels of D against P/NAME<suffix> and
prints the totals, then one row per noise type and per SNR from the
corpus manifest.
"""

import argparse
import json
import os
import sys

import numpy as np


def read_values(path):
    with open(path) as f:
        return np.array([float(line) for line in f if line.strip()])


def roc_auc(labels, scores):
    """Probability that a random speech frame outscores a random non-speech
    frame, ties counting half (the Mann-Whitney statistic)."""
    labels = np.asarray(labels).astype(bool)
    n_pos, n_neg = int(labels.sum()), int((~labels).sum())
    if n_pos == 0 or n_neg == 0:
        return float("nan")
    order = np.argsort(scores, kind="mergesort")
    s = np.asarray(scores)[order]
    ranks = np.empty(len(s))
    i = 0
    while i < len(s):  # average ranks over ties
        j = i
        while j + 1 < len(s) and s[j + 1] == s[i]:
            j += 1
        ranks[i:j + 1] = (i + j) / 2.0 + 1.0
        i = j + 1
    r = np.empty(len(s))
    r[order] = ranks
    return float((r[labels].sum() - n_pos * (n_pos + 1) / 2.0) / (n_pos * n_neg))


def counts(labels, decisions):
    labels = np.asarray(labels).astype(bool)
    decisions = np.asarray(decisions).astype(bool)
    tp = int(np.sum(labels & decisions))
    fp = int(np.sum(~labels & decisions))
    fn = int(np.sum(labels & ~decisions))
    tn = int(np.sum(~labels & ~decisions))
    return tp, fp, fn, tn


def metrics(labels, decisions, scores=None):
    tp, fp, fn, tn = counts(labels, decisions)

    def ratio(a, b):
        return a / b if b else float("nan")

    precision, recall = ratio(tp, tp + fp), ratio(tp, tp + fn)
    out = dict(frames=tp + fp + fn + tn, precision=precision, recall=recall,
               f1=ratio(2 * tp, 2 * tp + fp + fn),
               false_alarm=ratio(fp, fp + tn), miss=ratio(fn, fn + tp))
    if scores is not None:
        out["auc"] = roc_auc(labels, scores)
    return out


def align(labels, pred):
    """Cuts both to the shorter length: detectors drop a partial last frame."""
    n = min(len(labels), len(pred))
    return labels[:n], pred[:n]


def is_score(values):
    return not np.all((values == 0) | (values == 1))


ONSET_FRAMES = 100  # the second after a noise onset
# Segment starts are padded back, by tovad and the peers alike: frames this
# close to the next speech are left out of the onset group.
ONSET_GUARD_FRAMES = 30


def onset_spans(lab, onsets):
    """Up to a second of non-speech after each onset, stopping short of the
    next speech."""
    spans = []
    for o in onsets:
        speech = np.flatnonzero(lab[o:o + ONSET_FRAMES + ONSET_GUARD_FRAMES] > 0)
        end = o + ONSET_FRAMES if not speech.size else o + speech[0] - ONSET_GUARD_FRAMES
        if end > o:
            spans.append(slice(o, min(end, o + ONSET_FRAMES)))
    return spans


def score_dir(labels_dir, pred_dir, suffix, threshold, manifest=None):
    """Totals and per-group metrics; groups come from the manifest.  Clips
    with noise onsets add the group "onset+1s" (onset_spans), where only the
    false-alarm rate means anything."""
    groups = {"all": ([], [], [])}
    meta = {}
    if manifest:
        with open(manifest) as f:
            meta = {m["name"]: m for m in json.load(f)}
    names = sorted(n[: -len(".labels")] for n in os.listdir(labels_dir) if n.endswith(".labels"))
    any_score = False
    for name in names:
        pred_path = os.path.join(pred_dir, name + suffix)
        if not os.path.exists(pred_path):
            raise SystemExit("missing prediction %s" % pred_path)
        lab, pred = align(read_values(os.path.join(labels_dir, name + ".labels")),
                          read_values(pred_path))
        score = is_score(pred)
        any_score |= score
        dec = pred > threshold if score else pred > 0.5
        keys = ["all"]
        if name in meta:
            keys += ["noise=%s" % meta[name]["noise"],
                     "snr=%s" % ("clean" if meta[name]["snr"] is None else meta[name]["snr"])]
        parts = [(k, slice(None)) for k in keys]
        for span in onset_spans(lab, meta.get(name, {}).get("onset_frames", [])):
            parts.append(("onset+1s", span))
        for k, span in parts:
            g = groups.setdefault(k, ([], [], []))
            g[0].append(lab[span])
            g[1].append(dec[span])
            g[2].append(pred[span])
    result = {}
    for k, (labs, decs, preds) in groups.items():
        if not labs:
            continue
        result[k] = metrics(np.concatenate(labs), np.concatenate(decs),
                            np.concatenate(preds) if any_score else None)
    return result


def format_table(results, title=""):
    cols = ["f1", "precision", "recall", "false_alarm", "miss", "auc"]
    lines = [title] if title else []
    lines.append("%-14s %8s " % ("group", "frames") + " ".join("%11s" % c for c in cols))
    for k in sorted(results, key=lambda k: (k != "all", k)):
        r = results[k]
        lines.append("%-14s %8d " % (k, r["frames"]) +
                     " ".join("%11.4f" % r[c] if c in r else "%11s" % "-" for c in cols))
    return "\n".join(lines)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("labels", nargs="?")
    ap.add_argument("pred", nargs="?")
    ap.add_argument("--labels-dir")
    ap.add_argument("--pred-dir")
    ap.add_argument("--suffix")
    ap.add_argument("--manifest")
    ap.add_argument("--threshold", type=float, default=0.5)
    ap.add_argument("--json", action="store_true", help="print JSON instead of a table")
    a = ap.parse_args()
    if a.labels_dir:
        if not a.pred_dir or not a.suffix:
            ap.error("--labels-dir needs --pred-dir and --suffix")
        res = score_dir(a.labels_dir, a.pred_dir, a.suffix, a.threshold, a.manifest)
    elif a.labels and a.pred:
        lab, pred = align(read_values(a.labels), read_values(a.pred))
        score = is_score(pred)
        res = {"all": metrics(lab, pred > a.threshold if score else pred > 0.5,
                              pred if score else None)}
    else:
        ap.error("give LABELS PRED or --labels-dir")
    print(json.dumps(res, indent=1) if a.json else format_table(res))


if __name__ == "__main__":
    main()
