#!/usr/bin/python3
"""Expected vectors of the composite front end by an independent float64
model (numpy's FFT, a Toeplitz solve, plain medians; only the log2 and
square-root approximations and the warp table are shared), and the small
model of the handle test.  Run by composite_features_test.cpp:
    /usr/bin/python3 tests/src/gen_composite_expect.py OUT_DIR"""
import os
import sys
import wave

import numpy as np

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
sys.path.insert(0, os.path.join(ROOT, "tools"))
from model_writer import SymbolGraph, write_params  # noqa: E402


def f32(bits):
    return np.asarray(bits, np.int64).astype(np.uint32).view(np.float32).astype(float)


def fast_log2(x):
    b = np.asarray(x, np.float32).view(np.uint32).astype(np.int64)
    m = f32((b & 0x807FFFFF) | 0x3F000000)
    return ((b >> 23) & 255) - 126 + (m * (m * -1.3333334 + 4.0) - 0.6666666) - 2.0


def fast_sqrt(x):
    y = f32(0x5F375A86 - (np.asarray(x, np.float32).view(np.int32) >> 1))  # arithmetic shift
    for _ in range(2):
        y = y * (1.5 - y * (0.5 * x * y))
    return y * x


INC = open(os.path.join(ROOT, "src", "mfcc_warp_table.inc")).read().replace("f", "").split("{")[1:]
IDX, FRAC = [np.array(t.split("}")[0].replace(",", " ").split()[:256], np.float32) for t in INC]
IDX, FRAC = IDX.astype(int), FRAC.astype(float)
WINDOW = 0.42 - 0.5 * np.cos(np.arange(480) * 2 * np.pi / 479) + 0.08 * np.cos(
    np.arange(480) * 4 * np.pi / 479)


def cepstra(X):
    mag = fast_sqrt(np.abs(X) ** 2)
    warped = np.append(mag[IDX] + FRAC * (mag[IDX + 1] - mag[IDX]), mag[256])
    cep = np.fft.irfft(fast_log2(warped) * 0.6931472, 512)
    return np.concatenate(([cep[0]], 2 * cep[1:12]))


def sad_cues(X):
    p = np.abs(X) ** 2
    r = np.fft.irfft(p, 512)
    lags = np.append(np.arange(31, 255), 256)
    rmax = r[lags].max()
    d = 0.8 * fast_sqrt(2 * np.abs(r[0] - r[lags]))
    rs = r[:13] / 480.0
    err = np.nan  # silence: no predictor exists
    if rs[0] > 0:
        a = np.linalg.solve(rs[np.abs(np.subtract.outer(np.arange(12), np.arange(12)))], -rs[1:])
        err = rs[0] + a @ rs[1:]
    err = err if err > 0 else 1e-08
    db = fast_log2(p[:128]) * 0.30103 * 10.0
    return np.array([fast_log2(abs(rmax / (r[0] - rmax + 1e-08))) * 0.30103,
                     1.0 - d.min() / (d.max() + 1e-08),
                     fast_log2(r[0] / (err + 1e-08) + 1e-08) * 0.6931472,
                     max(sum(db[h * b - 1] for h in range(1, 9)) for b in range(2, 17))])


def features(pcm, capacity, meanvar, reset_after):
    """The front end over int16 `pcm`, reset after frame `reset_after` if not
    0; the table, if any, seeds the running mean and is applied."""
    frames = np.vstack((np.zeros((2, 160)), pcm.reshape(-1, 160) / 32768.0))
    out = []
    for t in range(frames.shape[0] - 2):
        if t == 0 or t == reset_after:  # the wave history stays
            medians, ring, pos = np.zeros((16, 11)), np.zeros((10, 32)), 0
            seed = np.zeros(12) if meanvar is None else meanvar[:12]
            means = np.tile(seed, (max(capacity, 1), 1))
        w = frames[t:t + 3].reshape(-1)
        x = np.zeros(512)  # pre-emphasis with no history at the left edge
        x[1:480] = (w[1:] - float(np.float32(0.97)) * w[:-1]) * WINDOW[1:]
        X = np.fft.rfft(x)
        c = cepstra(X)
        if capacity:
            means[pos % capacity], pos = c, pos + 1
            c = c - means.mean(axis=0)  # the current frame counts
        medians = np.column_stack((medians[:, 1:], np.concatenate((c, sad_cues(X)))))
        v = np.median(medians, axis=1)
        d1 = 10 * v - ring[:, :16].sum(axis=0)
        d2 = 10 * d1 - ring[:, 16:].sum(axis=0)
        ring = np.vstack((ring[1:], np.concatenate((v, d1))))
        v = np.concatenate((v, d1, d2))
        out.append(v if meanvar is None else (v + meanvar[:48]) * meanvar[48:])
    return np.array(out)


def write_model(out_dir):
    """(1, 5, 1, 48) in; p(voice) = softmax([0, 40 * (mean clarity - 0.16)]),
    clarity being value 13: most speech of the sample recording reads as
    voice, and the zeros the medians start from as no voice."""
    g = SymbolGraph()
    x = g.node("Flatten", "flat", [g.variable("data")], attr={"auto_channel_switch": "False"})
    x = g.node("FullyConnected", "fc", [x, g.variable("w"), g.variable("b")],
               attr={"num_hidden": "2"})
    g.heads = [g.node("SoftmaxActivation", "softmax", [x])]
    g.write(os.path.join(out_dir, "vad_model.json"))
    w = np.zeros((2, 5, 48), np.float32)
    w[1, :, 13] = 40.0 / 5
    write_params(os.path.join(out_dir, "vad_model.params"),
                 [("arg:w", w.reshape(2, -1)), ("arg:b", np.array([0, -40 * 0.16], np.float32))])
    with open(os.path.join(out_dir, "vad_meanvar.txt"), "w") as f:
        f.write("0 " * 48 + "\n" + "1 " * 48 + "\n")


def main(out_dir):
    rng = np.random.default_rng(17)
    with wave.open(os.path.join(ROOT, "tests", "data", "tovad_sample.wav")) as w:
        speech = np.frombuffer(w.readframes(w.getnframes()), dtype="<i2")[70 * 160:310 * 160]
    pulses = rng.normal(0, 100, 40 * 160)
    pulses[::255] += 20000  # peaks at the one lag the pitch range leaves out
    sig = {
        "speech": speech,
        # A pure tone leaves the order-12 predictor so ill-conditioned that
        # float rounding decides its error: the tone carries some noise.
        "tone": 12000 * np.sin(np.arange(9600) * 2 * np.pi / 80) + rng.normal(0, 200, 9600),
        "noise": np.clip(rng.normal(0, 3000, 9600), -32768, 32767),
        "silence": np.zeros(30 * 160),
        "square": np.where((np.arange(40 * 160) // 32) % 2 == 0, 32767, -32768),
        "pulses": pulses,
    }
    meanvar = np.concatenate((rng.normal(0, 2, 48), rng.uniform(0.2, 2, 48))).astype(np.float32)
    meanvar.tofile(os.path.join(out_dir, "meanvar.f32"))
    cases = [(k, k, 0, 0, 0) for k in sig] + [
        ("speech_mean", "speech", 30, 0, 0), ("speech_table", "speech", 30, 1, 0),
        ("speech_reset", "speech", 30, 1, 100)]
    with open(os.path.join(out_dir, "cases.txt"), "w") as f:
        for name, key, capacity, table, reset_after in cases:
            pcm = np.round(sig[key]).astype("<i2")
            pcm.tofile(os.path.join(out_dir, key + ".s16"))
            mv = meanvar.astype(np.float64) if table else None
            features(pcm, capacity, mv, reset_after).tofile(os.path.join(out_dir, name + ".f64"))
            f.write("%s %s %d %d %d\n" % (name, key, capacity, table, reset_after))
    write_model(out_dir)


if __name__ == "__main__":
    main(sys.argv[1])
