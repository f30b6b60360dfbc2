#!/usr/bin/python3
"""Makes the bundled sample recording and its speech spans.

Three short English sentences from espeak-ng with pauses between them, in pink
noise at 15 dB SNR.  Writes tests/data/tovad_sample.wav (16 kHz mono) and
tests/data/tovad_sample.lab: one "start end" line per speech span, in
seconds, with pauses shorter than the default model's closing hangover
(300 ms) inside a span.
"""

import os

import numpy as np

import corpus

SENTENCES = [
    "Hello, this is a test of the voice detector.",
    "It finds where people speak.",
    "Thank you for listening.",
]


def main():
    root = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "data")
    rng = np.random.default_rng(20240611)
    parts = [np.zeros(int(0.8 * corpus.RATE))]
    for i, text in enumerate(SENTENCES):
        parts.append(0.7 * corpus.speak(text, "en-us", 170, 50))
        parts.append(np.zeros(int((1.0 if i + 1 < len(SENTENCES) else 0.9) * corpus.RATE)))
    clean = np.concatenate(parts)
    clean = clean[: (clean.size // corpus.FRAME) * corpus.FRAME]
    lab = corpus.speech_labels(clean, merge_gap_frames=30)
    speech_power = np.mean(corpus.frame_energy(clean)[lab == 1])
    noise = corpus.colored_noise(rng, clean.size, 1.0)
    mix = clean + noise * np.sqrt(speech_power / 10 ** (15 / 10))
    mix *= 10 ** (-6 / 20) / np.max(np.abs(mix))
    pcm = np.clip(np.round(mix * 32768), -32768, 32767).astype("<i2")
    corpus.write_wav(os.path.join(root, "tovad_sample.wav"), pcm)
    with open(os.path.join(root, "tovad_sample.lab"), "w") as f:
        for a, b in corpus.runs(lab):
            f.write("%.2f %.2f\n" % (a * 0.01, b * 0.01))


if __name__ == "__main__":
    main()
