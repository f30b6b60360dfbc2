#!/usr/bin/python3
"""Recorded speech and noise from Debian packages, decoded to 16 kHz floats.

Every source is a file list of one installed package; training/README.md
names the package and licence of each.  Speakers are split whole: the
held-out speaker never appears in training.  Noise files are split by name
so that held-out clips mix in music and effects that training never hears.
"""

import glob
import os
import subprocess
import zlib

import numpy as np

RATE = 16000
SOUNDS = "/usr/share/asterisk/sounds"

# name: (package, glob patterns, ffmpeg input format or None for a container)
SPEAKERS = {
    "en_allison": ("asterisk-core-sounds-en-g722", [SOUNDS + "/en_US_f_Allison/**/*.g722"], "g722"),
    "es_allison": ("asterisk-core-sounds-es-g722", [SOUNDS + "/es_MX_f_Allison/**/*.g722"], "g722"),
    "fr_june": ("asterisk-core-sounds-fr-g722", [SOUNDS + "/fr_CA_f_June/**/*.g722"], "g722"),
    "it_carlo": ("asterisk-core-sounds-it-g722", [SOUNDS + "/it_IT_m_Carlo/**/*.g722"], "g722"),
    "ru_ivr": ("asterisk-core-sounds-ru-g722", [SOUNDS + "/ru_RU_f_IvrvoiceRU/**/*.g722"], "g722"),
    "fr_armelle": ("asterisk-prompt-fr-armelle", [SOUNDS + "/fr/**/*.gsm"], "gsm"),
    "es_co": ("asterisk-prompt-es-co", [SOUNDS + "/es/**/*.gsm"], "gsm"),
}
# Diphone voices of real speakers, spoken by the festival synthesiser.
FESTIVAL_VOICES = {"kal": ("festvox-kallpc16k", "voice_kal_diphone"),
                   "ked": ("festvox-kdlpc16k", "voice_ked_diphone")}
HELDOUT_SPEAKER = "it_carlo"  # the one real speaker of the real-speech check
TRAIN_SPEAKERS = [s for s in list(SPEAKERS) + list(FESTIVAL_VOICES) if s != HELDOUT_SPEAKER]

LINCITY = "/usr/share/games/lincity-ng"
MUSIC = {
    "asterisk-moh-opsound-wav": ["/usr/share/asterisk/moh/*.wav"],
    "extremetuxracer-data": ["/usr/share/games/etr/music/*.ogg"],
    "lincity-ng-data": [LINCITY + "/music/*/*.ogg"],
}
# Sound effects of buildings and machines.  Left out by name: every clip of
# places where people are heard (homes, schools, markets, crowds, clinics,
# communes, shanties, harbours, universities, monuments, farms).
EFFECT_EXCLUDE = ("Residential", "School", "SportsCroud", "Market", "Health", "University",
                  "Commune", "Shanty", "Harbor", "Monument", "Farm", "OrganicFarm")
EFFECTS = {"lincity-ng-data": [LINCITY + "/sounds/*.wav"]}


def _files(patterns):
    out = []
    for p in patterns:
        out += glob.glob(p, recursive=True)
    return sorted(out)


def _heldout_file(path):
    """About one file in five of each noise list, chosen by a hash of its name."""
    return zlib.crc32(os.path.basename(path).encode()) % 5 == 0


def speaker_files(name):
    return _files(SPEAKERS[name][1])


def music_files(split):
    files = [f for pats in MUSIC.values() for f in _files(pats)]
    return [f for f in files if _heldout_file(f) == (split != "train")]


def effect_files(split):
    files = [f for pats in EFFECTS.values() for f in _files(pats)
             if not os.path.basename(f).startswith(EFFECT_EXCLUDE)]
    return [f for f in files if _heldout_file(f) == (split != "train")]


_cache = {}


def decode(path, fmt=None):
    """Mono 16 kHz float samples of a file (ffmpeg decodes every format here)."""
    if path not in _cache:
        args = ["ffmpeg", "-nostdin", "-loglevel", "error"]
        if fmt:
            args += ["-f", fmt]
        args += ["-i", path, "-ac", "1", "-ar", str(RATE), "-f", "s16le", "-"]
        raw = subprocess.run(args, check=True, capture_output=True).stdout
        _cache[path] = np.frombuffer(raw, dtype="<i2").astype(np.float64) / 32768.0
    return _cache[path]


def festival_speech(voice, text):
    """16 kHz speech of `text` in a festival diphone voice."""
    fn = FESTIVAL_VOICES[voice][1]
    wav = subprocess.run(["text2wave", "-eval", "(%s)" % fn, "-otype", "raw", "-o", "-"],
                         input=text.encode(), check=True, capture_output=True).stdout
    return np.frombuffer(wav, dtype="<i2").astype(np.float64) / 32768.0


def speaker_utterance(rng, speaker, text):
    """One utterance of a real speaker, peak-normalised to 1."""
    if speaker in FESTIVAL_VOICES:
        x = festival_speech(speaker, text)
    else:
        files = speaker_files(speaker)
        x = decode(files[int(rng.integers(0, len(files)))], SPEAKERS[speaker][2])
    peak = np.max(np.abs(x)) if x.size else 0.0
    return x / peak if peak > 0 else x


def music(rng, n, split):
    files = music_files(split)
    x = decode(files[int(rng.integers(0, len(files)))])
    while x.size < n + 1:
        x = np.concatenate([x, x])
    start = int(rng.integers(0, x.size - n))
    y = x[start:start + n]
    return y / max(np.std(y), 1e-9)


def effects(rng, n, split):
    """Effects one after another with short pauses: sound that starts and stops."""
    files = effect_files(split)
    y = np.zeros(n)
    pos = int(rng.integers(0, RATE // 2))
    while pos < n:
        x = decode(files[int(rng.integers(0, len(files)))])
        x = x / max(np.max(np.abs(x)), 1e-9) * rng.uniform(0.3, 1.0)
        end = min(n, pos + x.size)
        y[pos:end] += x[: end - pos]
        pos = end + int(rng.uniform(0.0, 1.0) * RATE)
    return y / max(np.std(y), 1e-9)
