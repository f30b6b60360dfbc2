#!/usr/bin/python3
"""Dumps the library's PCEN features of every corpus clip.

  features.py --dump BUILD/tools/tovad_feature_dump --corpus work/corpus --out work/features

Writes OUT/{split}/NNNN.f32: one row of 120 float32 values per 10 ms frame
(static, delta, delta-delta of 40 mel banks), before mean and variance.
"""

import argparse
import os
import subprocess

DIM = 120


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--dump", required=True, help="the tovad_feature_dump program")
    ap.add_argument("--corpus", required=True)
    ap.add_argument("--out", required=True)
    a = ap.parse_args()
    for split in ("train", "heldout", "heldout_real", "train_onset", "heldout_onset"):
        src = os.path.join(a.corpus, split)
        if not os.path.isdir(src):
            continue
        dst = os.path.join(a.out, split)
        os.makedirs(dst, exist_ok=True)
        names = sorted(n[:-4] for n in os.listdir(src) if n.endswith(".wav"))
        args = [a.dump]
        for n in names:
            args += [os.path.join(src, n + ".wav"), os.path.join(dst, n + ".f32")]
        subprocess.run(args, check=True)
        print("%s: %d clips" % (split, len(names)))


if __name__ == "__main__":
    main()
