#!/usr/bin/python3
"""Checks of the scorer on hand-counted cases: /usr/bin/python3 test_score.py"""

import json
import math
import os
import tempfile
import unittest

import numpy as np

import score


class ScoreTest(unittest.TestCase):
    def test_counts_and_rates(self):
        lab = np.array([1, 1, 1, 1, 0, 0, 0, 0, 0, 0])
        dec = np.array([1, 1, 1, 0, 1, 0, 0, 0, 0, 0])
        m = score.metrics(lab, dec)
        self.assertEqual(m["frames"], 10)
        self.assertAlmostEqual(m["precision"], 3 / 4)
        self.assertAlmostEqual(m["recall"], 3 / 4)
        self.assertAlmostEqual(m["f1"], 6 / 8)
        self.assertAlmostEqual(m["false_alarm"], 1 / 6)
        self.assertAlmostEqual(m["miss"], 1 / 4)
        self.assertNotIn("auc", m)

    def test_auc(self):
        lab = np.array([0, 0, 1, 1])
        self.assertEqual(score.roc_auc(lab, np.array([0.1, 0.2, 0.8, 0.9])), 1.0)
        self.assertEqual(score.roc_auc(lab, np.array([0.9, 0.8, 0.2, 0.1])), 0.0)
        # One tie between classes counts half: pairs (p, n) = 4, wins 3.5.
        self.assertEqual(score.roc_auc(lab, np.array([0.1, 0.5, 0.5, 0.9])), 0.875)
        self.assertEqual(score.roc_auc(lab, np.full(4, 0.3)), 0.5)
        self.assertTrue(math.isnan(score.roc_auc(np.ones(3), np.arange(3.0))))

    def test_auc_matches_pair_count(self):
        rng = np.random.default_rng(7)
        lab = rng.integers(0, 2, 300)
        s = np.round(rng.random(300) + 0.3 * lab, 1)  # rounding makes ties
        pos, neg = s[lab == 1], s[lab == 0]
        wins = sum((p > n) + 0.5 * (p == n) for p in pos for n in neg)
        self.assertAlmostEqual(score.roc_auc(lab, s), wins / (len(pos) * len(neg)))

    def test_no_speech_gives_nan_not_an_error(self):
        m = score.metrics(np.zeros(5), np.zeros(5))
        self.assertTrue(math.isnan(m["precision"]))
        self.assertEqual(m["false_alarm"], 0.0)

    def test_score_or_decision(self):
        self.assertFalse(score.is_score(np.array([0.0, 1.0, 1.0])))
        self.assertTrue(score.is_score(np.array([0.0, 0.4, 1.0])))
        lab, pred = score.align(np.arange(5), np.arange(3))
        self.assertEqual(len(lab), 3)
        self.assertEqual(len(pred), 3)

    def test_onset_group_covers_the_second_after_each_onset(self):
        lab = np.zeros(400, int)
        lab[250:290] = 1
        dec = np.zeros(400, int)
        dec[10:20] = 1  # before the onsets: counts in "all" only
        dec[120:130] = 1  # 10 of the 100 frames after the onset at 100
        dec[225:235] = 1  # after the onset at 215, but too close to speech
        with tempfile.TemporaryDirectory() as d:
            np.savetxt(os.path.join(d, "a.labels"), lab, fmt="%d")
            np.savetxt(os.path.join(d, "a.dec"), dec, fmt="%d")
            meta = [dict(name="a", noise="pink", snr=10, onset_frames=[100, 215, 235, 380])]
            with open(os.path.join(d, "m.json"), "w") as f:
                json.dump(meta, f)
            r = score.score_dir(d, d, ".dec", 0.5, os.path.join(d, "m.json"))
        # 100 frames after 100, 5 after 215 (speech at 250), none after
        # 235, and 20 after 380 where the clip ends.
        self.assertEqual(r["onset+1s"]["frames"], 125)
        self.assertAlmostEqual(r["onset+1s"]["false_alarm"], 10 / 125)
        self.assertAlmostEqual(r["all"]["false_alarm"], 30 / 360)


if __name__ == "__main__":
    unittest.main()
