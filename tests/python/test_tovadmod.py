"""The Python package over libtovadmod.so: whole arrays, streaming, plot."""
import os
import subprocess
import sys
import tempfile
import unittest
import wave

import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "python"))
from tovadmod import Detector  # noqa: E402

SAMPLE = os.path.join(ROOT, "tests", "data", "tovad_sample.wav")
# The float dense model: its boundaries on the sample move little when the
# top band is lost at 8 kHz (the streaming default's first start moves 0.3 s).
DENSE = os.path.join(ROOT, "models", "dense", "tovad.conf")
TOVAD = os.environ.get("TOVAD_PROGRAM", "")


with wave.open(SAMPLE, "rb") as w:
    PCM = np.frombuffer(w.readframes(w.getnframes()), dtype="<i2")


class DetectorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.pcm = PCM
        cls.det = Detector(DENSE)
        cls.whole = cls.det.segments(cls.pcm, 16000)

    def test_whole_array_matches_the_program(self):
        self.assertTrue(TOVAD, "TOVAD_PROGRAM is not set")
        out = subprocess.run([TOVAD, "--model", "dense", SAMPLE], capture_output=True, text=True,
                             check=True)
        self.assertEqual(out.stderr, "")
        lines = [f"{s.start:.3f}\t{s.end:.3f}" for s in self.whole]
        self.assertEqual(lines, out.stdout.splitlines())

    def test_other_rates_and_layouts_find_the_same_segments(self):
        from scipy.signal import resample_poly
        f = self.pcm.astype(np.float64) / 32768.0
        # 8 kHz loses the band above 4 kHz, so its boundaries may move more.
        cases = {
            "float 16 kHz": (f.astype(np.float32), 16000, 0.0),
            "8 kHz": (resample_poly(f, 1, 2), 8000, 0.1),
            "44.1 kHz stereo": (np.stack([resample_poly(f, 441, 160)] * 2, axis=1), 44100, 0.021),
        }
        for name, (audio, rate, tol) in cases.items():
            with self.subTest(name):
                got = [(s.start, s.end) for s in self.det.segments(audio, rate)]
                self.assertEqual(len(got), len(self.whole))
                np.testing.assert_allclose(got, [(s.start, s.end) for s in self.whole],
                                           rtol=0, atol=tol + 1e-9)

    def test_push_yields_segments_as_they_close(self):
        rng = np.random.default_rng(7)
        cuts = np.sort(rng.integers(0, len(self.pcm), 40))
        live = Detector(DENSE)
        seen, pushed = [], 0  # (seconds pushed when it came out, segment)
        for chunk in np.split(self.pcm, cuts):
            pushed += len(chunk)
            seen += [(pushed / 16000, s) for s in live.push(chunk)]
        self.assertEqual([s for _, s in seen] + live.flush(), self.whole)
        # Each came out in the push after its close: hangover and score
        # delay (0.45 s) plus one chunk.
        self.assertEqual(len(seen), len(self.whole))
        longest = np.diff(np.concatenate([[0], cuts, [len(self.pcm)]])).max() / 16000
        for when, s in seen:
            self.assertLess(when - s.end, 0.46 + longest)

    def test_end_of_input_closes_an_open_segment(self):
        cut = int(8.0 * 16000)  # inside the last segment
        got = self.det.segments(self.pcm[:cut], 16000)
        self.assertEqual(got[:-1], self.whole[:-1])
        self.assertAlmostEqual(got[-1].start, self.whole[-1].start)
        self.assertAlmostEqual(got[-1].end, 8.0)


class PlotTest(unittest.TestCase):
    def test_png_shades_the_segments(self):
        import matplotlib.image as mpimg
        with tempfile.TemporaryDirectory() as tmp:
            png = os.path.join(tmp, "out.png")
            env = dict(os.environ, PYTHONPATH=os.path.join(ROOT, "python"))
            out = subprocess.run([sys.executable, "-m", "tovadmod.plot", SAMPLE, "-o", png],
                                 capture_output=True, text=True, env=env, check=True)
            img = mpimg.imread(png)[:, :, :3]
        self.assertEqual(img.shape[:2], (400, 1000))
        segs = [tuple(map(float, line.split("\t"))) for line in out.stdout.splitlines()]
        self.assertEqual(len(segs), 3)
        dark = img.sum(axis=2) < 0.5
        top = int(np.argmax(dark.mean(axis=1) > 0.5))  # the waveform's top spine
        row = img[top + 4]
        spines = np.flatnonzero(dark[top:top + 40].all(axis=0))  # left and right
        x0, x1 = spines[0], spines[-1]
        shaded = (row[:, 0] > 0.9) & (row[:, 2] < 0.85) & (row[:, 1] < 0.95)
        runs = np.flatnonzero(np.diff(np.concatenate([[0], shaded.astype(int), [0]])))
        spans = list(zip(runs[::2], runs[1::2]))
        duration = len(PCM) / 16000
        self.assertEqual(len(spans), len(segs), spans)
        for (a, b), (s, e) in zip(spans, segs):
            self.assertAlmostEqual(a, x0 + s / duration * (x1 - x0), delta=3)
            self.assertAlmostEqual(b, x0 + e / duration * (x1 - x0), delta=3)


class PosteriorLogTest(unittest.TestCase):
    LOG = ("INFO[20261123-101010-000000001 thread:12]: class is: 1 at prior = 0.900000,"
           " all priors: 0.100000 0.900000\n"
           "INFO[20261123-101010-000000002 thread:12]: RESET\n"
           "INFO[20261123-101010-000000003 thread:12]: class is: 0 at prior = 0.700000,"
           " all priors: 0.700000 0.300000\n")

    def test_scores_follow_target_class(self):
        from tovadmod.plot import parse_target_class, read_posterior_log
        with tempfile.NamedTemporaryFile("w", suffix=".log") as f:
            f.write(self.LOG)
            f.flush()
            # A bare class takes the factor of the entry before it.
            for target, want in {"1": [0.9, 0.3], "0": [0.1, 0.7],
                                 "1v0.5,0": [0.5, 0.5], "0v2": [0.2, 1.4]}.items():
                with self.subTest(target):
                    got = read_posterior_log(f.name, parse_target_class(target))
                    np.testing.assert_allclose(got, want, rtol=1e-6)


if __name__ == "__main__":
    unittest.main()
