"""python3 -m tovadmod.plot FILE.wav -o out.png [--conf CONF]

Draws the waveform, the detector's per-frame state (a segment open in the
library, which includes its opening delay and closing hangover) and the
segments it prints, shaded."""
import argparse
import sys
import wave

import numpy as np

from tovadmod.detector import FRAME, RATE, Detector, resample


def read_wav(path):
    with wave.open(path, "rb") as w:
        if w.getsampwidth() != 2:
            raise SystemExit(f"{path}: only 16-bit PCM WAV is read here")
        rate, ch = w.getframerate(), w.getnchannels()
        data = np.frombuffer(w.readframes(w.getnframes()), dtype="<i2")
    return (data.reshape(-1, ch) if ch > 1 else data), rate


def draw(samples16k, segments, state, out_path, title=""):
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
    ft = (np.arange(len(state)) * FRAME + FRAME) / RATE
    ax2.step(ft, state, where="post", color="#444444", linewidth=0.8)
    ax2.set_ylim(-0.1, 1.1)
    ax2.set_yticks([0, 1])
    ax2.set_ylabel("open")
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
    state = []
    with Detector(args.conf) as det:
        det.on_frame = lambda i, is_open: state.append(1 if is_open else 0)
        segs = det.segments(pcm, RATE)
    draw(pcm, segs, np.array(state), args.output, args.file)
    for s in segs:
        print(f"{s.start:.3f}\t{s.end:.3f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
