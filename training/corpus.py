#!/usr/bin/python3
"""Deterministic corpus for voice activity detection.

Speech comes from espeak-ng (random syllable text, many voices, languages,
speeds and pitches) and, in every other training clip, from recorded
speakers (real_audio.py).  It is mixed with white, pink and brown noise,
babble, mains hum, clicks, music or machine and ambient sound effects at
SNRs from clean to 0 dB.  Each clip gets frame labels (10 ms) from the
energy of its clean speech.  The held-out split uses voices, languages,
noise instances, noise files and seeds that training never sees; the
held-out real split is one recorded speaker whom training never hears.

Usage: corpus.py --out DIR [--train-clips N] [--heldout-clips N] [--real-clips N]
Writes DIR/{train,heldout,heldout_real}/NNNN.wav (16 kHz, 16-bit mono),
NNNN.labels (one 0/1 per 10 ms frame) and DIR/{split}/manifest.json.
"""

import argparse
import io
import json
import multiprocessing
import os
import subprocess
import sys
import wave

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import real_audio  # noqa: E402

RATE = 16000
FRAME = 160  # 10 ms

TRAIN_LANGS = ["en-us", "de", "fr-fr", "es", "it", "pt", "nl", "pl", "sv", "cs",
               "fi", "tr", "id", "sw", "ro", "hr", "sk", "af", "eo", "ca"]
HELDOUT_LANGS = ["hu", "da", "lt", "lv", "et", "sl", "nb", "ms", "cy", "is"]
TRAIN_VARIANTS = ["", "m1", "m2", "m3", "m4", "m6", "m7", "f1", "f2", "f3", "f5",
                  "klatt", "klatt2", "klatt3", "adam", "Alex", "Andy", "benjamin",
                  "david", "edward", "john", "linda", "max", "paul", "rob", "robert",
                  "steph", "zac"]
HELDOUT_VARIANTS = ["m5", "m8", "f4", "klatt4", "klatt5", "Annie", "belinda",
                    "michel", "quincy", "victor", "norbert", "grandma", "grandpa"]
NOISES = ["white", "pink", "brown", "babble", "hum", "clicks", "music", "effects"]
SNRS = [None, 20, 10, 5, 0]  # None: clean

SPLITS = {
    # Seeds of the two splits never meet: clip k of a split uses seed base + k.
    # Every other training clip is spoken by one of the recorded speakers.
    "train": dict(name="train", langs=TRAIN_LANGS, variants=TRAIN_VARIANTS, seed=1000,
                  hum_hz=50.0, speakers=real_audio.TRAIN_SPEAKERS, real_every=2),
    "heldout": dict(name="heldout", langs=HELDOUT_LANGS, variants=HELDOUT_VARIANTS,
                    seed=900000, hum_hz=60.0, speakers=[], real_every=0),
    "heldout_real": dict(name="heldout_real", langs=HELDOUT_LANGS, variants=HELDOUT_VARIANTS,
                         seed=950000, hum_hz=60.0, speakers=[real_audio.HELDOUT_SPEAKER],
                         real_every=1),
    # Noise that starts after digital silence or a very low level, or steps up
    # in level, while nobody speaks: muted streams and zero-padded files.
    "train_onset": dict(name="train", langs=TRAIN_LANGS, variants=TRAIN_VARIANTS, seed=500000,
                        hum_hz=50.0, speakers=real_audio.TRAIN_SPEAKERS, real_every=2,
                        onsets=True),
    "heldout_onset": dict(name="heldout", langs=HELDOUT_LANGS, variants=HELDOUT_VARIANTS,
                          seed=970000, hum_hz=60.0, speakers=[], real_every=0, onsets=True),
}

CONSONANTS = "bdfgklmnprstvz"
VOWELS = "aeiou"


def random_text(rng, n_words):
    words = []
    for _ in range(n_words):
        n_syl = int(rng.integers(1, 4))
        words.append("".join(rng.choice(list(CONSONANTS)) + rng.choice(list(VOWELS))
                             for _ in range(n_syl)))
    return " ".join(words)


def speak(text, voice, speed, pitch):
    """16 kHz float speech of `text`, peak-normalised to 1."""
    wav = subprocess.run(["espeak-ng", "-v", voice, "-s", str(speed), "-p", str(pitch),
                          "--stdout", text], check=True, capture_output=True).stdout
    # -D: no dither, -R: repeatable, so the corpus is the same on every run.
    raw = subprocess.run(["sox", "-D", "-R", "-t", "wav", "-", "-t", "raw", "-r", str(RATE),
                          "-e", "signed", "-b", "16", "-c", "1", "-"],
                         input=wav, check=True, capture_output=True).stdout
    x = np.frombuffer(raw, dtype="<i2").astype(np.float64) / 32768.0
    peak = np.max(np.abs(x)) if x.size else 0.0
    return x / peak if peak > 0 else x


def frame_energy(x):
    n = len(x) // FRAME
    return np.mean(x[: n * FRAME].reshape(n, FRAME) ** 2, axis=1)


def speech_labels(clean, merge_gap_frames=20, min_run_frames=3):
    """Frames whose clean energy lies within 40 dB of the loudest frame; runs
    shorter than 30 ms are dropped and gaps shorter than 200 ms are closed."""
    e = frame_energy(clean)
    if e.size == 0 or e.max() <= 0:
        return np.zeros(e.size, dtype=np.uint8)
    lab = (e > e.max() * 1e-4).astype(np.uint8)
    return close_gaps(drop_short_runs(lab, min_run_frames), merge_gap_frames)


def runs(lab):
    """(start, end) of the runs of ones, end exclusive."""
    d = np.diff(np.concatenate([[0], lab.astype(np.int8), [0]]))
    return list(zip(np.flatnonzero(d == 1), np.flatnonzero(d == -1)))


def drop_short_runs(lab, min_len):
    out = lab.copy()
    for a, b in runs(lab):
        if b - a < min_len:
            out[a:b] = 0
    return out


def close_gaps(lab, max_gap):
    out = lab.copy()
    r = runs(lab)
    for (_, b), (a, _) in zip(r, r[1:]):
        if a - b < max_gap:
            out[b:a] = 1
    return out


def quiet_before_onsets(rng, mix, labels, margin=5):
    """Digital silence, a very low level or a step down in level before a
    random point of the leading stretch without speech and of about a third
    of the later gaps, so that the noise starts or steps up there with no
    speech near it.  Returns the onset frames."""
    onsets = []
    for i, (a, b) in enumerate(runs(1 - labels)):
        if b <= len(labels) - 1:
            b -= margin  # keep clear of the speech that ends the gap
        if i > 0:
            a += margin
            if rng.random() > 0.35:
                continue
        if b - a < 20:
            continue
        cut = int(rng.integers(a + 10, b - 5))
        kind = rng.random()
        if kind < 0.4:
            gain = 0.0
        elif kind < 0.7:
            gain = 10 ** (-rng.uniform(35, 60) / 20)
        else:
            gain = 10 ** (-rng.uniform(10, 30) / 20)
        mix[a * FRAME:cut * FRAME] *= gain
        onsets.append(cut)
    return onsets


def colored_noise(rng, n, exponent):
    """Noise with power spectral density 1/f^exponent (0 white, 1 pink, 2 brown)."""
    spectrum = np.fft.rfft(rng.standard_normal(n))
    f = np.fft.rfftfreq(n, 1.0 / RATE)
    f[0] = f[1]
    spectrum *= f ** (-exponent / 2.0)
    y = np.fft.irfft(spectrum, n)
    return y / np.std(y)


def babble(rng, n, cfg):
    total = np.zeros(n)
    for _ in range(int(rng.integers(4, 8))):
        lang = rng.choice(cfg["langs"])
        var = rng.choice(cfg["variants"])
        voice = lang + ("+" + var if var else "")
        stream = np.zeros(0)
        while stream.size < n:
            stream = np.concatenate([stream, speak(random_text(rng, 12), voice,
                                                   int(rng.integers(130, 230)),
                                                   int(rng.integers(10, 90)))])
        start = int(rng.integers(0, stream.size - n + 1))
        total += stream[start:start + n] * rng.uniform(0.5, 1.0)
    return total / np.std(total)


def hum(rng, n, base_hz):
    t = np.arange(n) / RATE
    f0 = base_hz * rng.uniform(0.99, 1.01)
    y = sum(np.sin(2 * np.pi * f0 * k * t + rng.uniform(0, 2 * np.pi)) / k ** 1.5
            for k in range(1, 9))
    y = y + 0.05 * rng.standard_normal(n)
    return y / np.std(y)


def clicks(rng, n):
    y = 0.01 * rng.standard_normal(n)
    rate = rng.uniform(2.0, 12.0)
    for pos in np.flatnonzero(rng.random(n) < rate / RATE):
        length = int(rng.integers(16, 96))
        burst = rng.standard_normal(length) * np.exp(-np.arange(length) / (length / 4.0))
        end = min(n, pos + length)
        y[pos:end] += rng.uniform(0.3, 1.0) * burst[: end - pos] * rng.choice([-1, 1])
    return y / np.std(y)


def make_noise(rng, kind, n, cfg):
    if kind == "white":
        return colored_noise(rng, n, 0.0)
    if kind == "pink":
        return colored_noise(rng, n, rng.uniform(0.8, 1.2))
    if kind == "brown":
        return colored_noise(rng, n, rng.uniform(1.7, 2.0))
    if kind == "babble":
        return babble(rng, n, cfg)
    if kind == "hum":
        return hum(rng, n, cfg["hum_hz"])
    if kind == "clicks":
        return clicks(rng, n)
    if kind == "music":
        return real_audio.music(rng, n, cfg["name"])
    if kind == "effects":
        return real_audio.effects(rng, n, cfg["name"])
    raise ValueError(kind)


def make_clip(split, index, seconds=(9.0, 14.0), noise=None, snr="random"):
    """One clip: (pcm int16, labels uint8, metadata dict)."""
    cfg = SPLITS[split]
    seed = cfg["seed"] + index
    rng = np.random.default_rng(seed)
    lang = rng.choice(cfg["langs"])
    var = rng.choice(cfg["variants"])
    voice = lang + ("+" + var if var else "")
    speed = int(rng.integers(120, 230))
    pitch = int(rng.integers(15, 85))
    real = cfg["real_every"] and index % cfg["real_every"] == 0
    if real:
        voice = str(rng.choice(cfg["speakers"]))
    target = rng.uniform(*seconds)
    lead = (1.0, 3.0) if cfg.get("onsets") else (0.3, 2.0)
    parts = [np.zeros(int(rng.uniform(*lead) * RATE))]
    total = parts[0].size
    while total < target * RATE:
        text = random_text(rng, int(rng.integers(3, 12)))
        if real:
            utt = real_audio.speaker_utterance(rng, voice, text)
        else:
            utt = speak(text, voice, speed, pitch)
        utt *= 10 ** (rng.uniform(-6, 0) / 20)  # loudness varies per utterance
        gap = np.zeros(int(rng.uniform(0.3, 2.5) * RATE))
        parts += [utt, gap]
        total += utt.size + gap.size
    clean = np.concatenate(parts)
    clean = clean[: (clean.size // FRAME) * FRAME]
    labels = speech_labels(clean)
    if noise is None:
        noise = rng.choice(NOISES)
    if snr == "random":
        snr = SNRS[int(rng.integers(0, len(SNRS)))]
    mix = clean.copy()
    if snr is not None:
        nz = make_noise(rng, noise, clean.size, cfg)
        speech_power = np.mean(frame_energy(clean)[labels == 1]) if labels.any() else 1e-4
        mix += nz * np.sqrt(speech_power / 10 ** (snr / 10))
    else:
        noise = "none"
    onsets = quiet_before_onsets(rng, mix, labels) if cfg.get("onsets") else []
    level_db = rng.uniform(-30, -1)  # peak level of the clip in dBFS
    mix *= 10 ** (level_db / 20) / max(np.max(np.abs(mix)), 1e-9)
    pcm = np.clip(np.round(mix * 32768), -32768, 32767).astype("<i2")
    meta = dict(index=index, seed=seed, voice=voice, speed=speed, pitch=pitch,
                noise=noise, snr=snr, level_db=round(float(level_db), 2),
                seconds=round(pcm.size / RATE, 3))
    if onsets:
        meta["onset_frames"] = [int(o) for o in onsets]
    return pcm, labels, meta


def write_wav(path, pcm):
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(RATE)
        w.writeframes(pcm.astype("<i2").tobytes())


def read_wav(path):
    with wave.open(path, "rb") as w:
        assert w.getframerate() == RATE and w.getnchannels() == 1 and w.getsampwidth() == 2
        return np.frombuffer(w.readframes(w.getnframes()), dtype="<i2")


def write_labels(path, labels):
    with open(path, "w") as f:
        f.write("\n".join(str(int(v)) for v in labels) + "\n")


def read_frame_values(path):
    """One number per line (labels, decisions or scores)."""
    with open(path) as f:
        return np.array([float(line) for line in f if line.strip()])


def _write_clip(job):
    d, split, i = job
    pcm, labels, meta = make_clip(split, i)
    name = "%04d" % i
    write_wav(os.path.join(d, name + ".wav"), pcm)
    write_labels(os.path.join(d, name + ".labels"), labels)
    meta["name"] = name
    meta["speech_fraction"] = round(float(labels.mean()), 3)
    print("%s %s %-14s %-7s snr=%s %.1fs" % (split, name, meta["voice"], meta["noise"],
                                             meta["snr"], meta["seconds"]), flush=True)
    return meta


def build(out, split, n_clips, jobs=1):
    d = os.path.join(out, split)
    os.makedirs(d, exist_ok=True)
    work = [(d, split, i) for i in range(n_clips)]
    if jobs > 1:
        # Each clip depends on its own seed only, so the order of work is free.
        with multiprocessing.Pool(jobs) as pool:
            manifest = pool.map(_write_clip, work, chunksize=1)
    else:
        manifest = [_write_clip(w) for w in work]
    with open(os.path.join(d, "manifest.json"), "w") as f:
        json.dump(manifest, f, indent=1)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--out", required=True)
    ap.add_argument("--train-clips", type=int, default=240)
    ap.add_argument("--heldout-clips", type=int, default=60)
    ap.add_argument("--real-clips", type=int, default=40, help="clips of the held-out speaker")
    ap.add_argument("--onset-clips", type=int, default=120,
                    help="training clips with noise onsets (a third as many held out)")
    ap.add_argument("--splits", default="train,heldout,heldout_real,train_onset,heldout_onset")
    ap.add_argument("--jobs", type=int, default=1)
    a = ap.parse_args()
    counts = dict(train=a.train_clips, heldout=a.heldout_clips, heldout_real=a.real_clips,
                  train_onset=a.onset_clips, heldout_onset=a.onset_clips // 3)
    for split in a.splits.split(","):
        build(a.out, split, counts[split], a.jobs)


if __name__ == "__main__":
    main()
