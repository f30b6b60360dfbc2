"""python3 -m tovadmod.plot FILE.wav -o out.png [--conf CONF]

Draws the waveform, the per-frame speech score and the segments, shaded.
The score comes from the library's posterior log (its debug recorder);
a library built without the recorder writes none, and then the lower panel
shows the detector's per-frame state instead (a segment open in the
library, with its opening delay and closing hangover)."""
import argparse
import glob
import os
import sys
import tempfile
import wave

import numpy as np

from tovadmod.detector import FRAME, RATE, Detector, default_conf, resample


def read_wav(path):
    with wave.open(path, "rb") as w:
        if w.getsampwidth() != 2:
            raise SystemExit(f"{path}: only 16-bit PCM WAV is read here")
        rate, ch = w.getframerate(), w.getnchannels()
        data = np.frombuffer(w.readframes(w.getnframes()), dtype="<i2")
    return (data.reshape(-1, ch) if ch > 1 else data), rate


def parse_target_class(text):
    """Classes and factors of the speech score: "1", "1v0.7,2v0.3"; a bare
    class takes the factor of the entry before it."""
    pairs, factor = [], 1.0
    for entry in text.split(","):
        cls, v, f = entry.strip().partition("v")
        if v:
            factor = float(f)
        pairs.append((int(cls or 0), factor))
    return pairs


def read_posterior_log(path, target):
    """Per-frame speech scores from a posterior log: one record per frame,
    "...: class is: C at prior = P, all priors: p0 p1 ...", and "RESET"
    lines, which carry no frame."""
    scores = []
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            _, mark, rest = line.partition("all priors:")
            if not mark:
                continue
            priors = [float(v) for v in rest.split()]
            scores.append(sum(priors[c] * k for c, k in target if c < len(priors)))
    return np.array(scores, dtype=np.float64)


def conf_text_value(conf, key, fallback):
    with open(conf, encoding="utf-8") as f:
        for line in f:
            k, eq, v = line.split("#", 1)[0].partition("=")
            if eq and k.strip() == key:
                return v.strip()
    return fallback


def draw(samples16k, segments, lower, out_path, title="", threshold=None):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    t = np.arange(len(samples16k)) / RATE
    fig, (ax1, ax2) = plt.subplots(2, 1, figsize=(10, 4), sharex=True,
                                   gridspec_kw={"height_ratios": [3, 1]})
    ax1.plot(t, samples16k / 32768.0, color="#1f4e79", linewidth=0.4)
    ax1.set_ylim(-1, 1)
    ax1.set_ylabel("amplitude")
    if title:
        ax1.set_title(title)
    label, track = lower
    ft = (np.arange(len(track)) * FRAME + FRAME) / RATE
    ax2.step(ft, track, where="post", color="#444444", linewidth=0.8)
    if threshold is not None:
        ax2.axhline(threshold, color="#c0392b", linewidth=0.6, linestyle="--")
    ax2.set_ylim(-0.1, 1.1)
    ax2.set_yticks([0, 1])
    ax2.set_ylabel(label)
    ax2.set_xlabel("seconds")
    for s in segments:
        for ax in (ax1, ax2):
            ax.axvspan(s.start, s.end, color="#f28e2b", alpha=0.35, linewidth=0)
    ax1.set_xlim(0, max(t[-1] if len(t) else 0.0, 0.01))
    fig.tight_layout()
    fig.savefig(out_path, dpi=100)
    plt.close(fig)


def main(argv=None):
    ap = argparse.ArgumentParser(prog="python3 -m tovadmod.plot", description=__doc__.split("\n")[2])
    ap.add_argument("file")
    ap.add_argument("-o", "--output", required=True)
    ap.add_argument("--conf")
    args = ap.parse_args(argv)
    samples, rate = read_wav(args.file)
    pcm = resample(samples, rate)
    conf = os.path.abspath(args.conf or default_conf())
    state = []
    with tempfile.TemporaryDirectory(prefix="tovadmod_plot_") as tmp:
        log = os.path.join(tmp, "posteriors.log")
        det = Detector(conf, extra_conf={"use_debug_function": "1", "softmax_log_path": log,
                                         "rt_log_path": "/dev/null",
                                         "save_vad_segment_dir": tmp})
        det.on_frame = lambda i, is_open: state.append(1 if is_open else 0)
        segs = det.segments(pcm, RATE)
        det.close()  # flushes and closes the log
        # The recorder names its files after the thread that opened them.
        logs = [p for p in glob.glob(log + "*") if os.path.getsize(p) > 0]
        scores = (read_posterior_log(logs[0], parse_target_class(
            conf_text_value(conf, "target_class", "1"))) if logs else None)
    if scores is not None and len(scores) > 0:
        threshold = float(conf_text_value(conf, "wakeup_threshold", "nan"))
        draw(pcm, segs, ("score", scores), args.output, args.file, threshold)
    else:
        draw(pcm, segs, ("open", np.array(state)), args.output, args.file)
    for s in segs:
        print(f"{s.start:.3f}\t{s.end:.3f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
