"""The detector object: a toolkit handle driven frame by frame."""
import ctypes
import math
import os
import sys
import tempfile
from fractions import Fraction
from typing import Iterator, List, NamedTuple, Optional

import numpy as np

RATE = 16000
FRAME = 160  # samples per 10 ms frame
_HERE = os.path.dirname(os.path.abspath(__file__))
_ROOT = os.path.dirname(os.path.dirname(_HERE))


class Segment(NamedTuple):
    start: float  # seconds from the start of the input
    end: float


def find_library() -> str:
    """libtovadmod.so: $TOVADMOD_LIBRARY, the source tree's build, or the
    system's loader path."""
    env = os.environ.get("TOVADMOD_LIBRARY")
    if env:
        return env
    for build in ("build/release", "build"):
        path = os.path.join(_ROOT, build, "libtovadmod.so")
        if os.path.exists(path):
            return path
    return "libtovadmod.so.0"


def default_conf() -> str:
    """The bundled model's conf, in the source tree or where it is installed."""
    for path in (os.path.join(_ROOT, "models", "default", "tovad.conf"),
                 "/usr/local/share/tovadmod/models/default/tovad.conf",
                 "/usr/share/tovadmod/models/default/tovad.conf"):
        if os.path.exists(path):
            return path
    raise FileNotFoundError("no bundled model found; pass a conf path")


def _conf_with(conf: str, extra: dict, folder: str) -> str:
    """A copy of `conf` in `folder` with its model paths made absolute and
    the keys of `extra` set; returns its path."""
    base = os.path.dirname(conf)
    lines = []
    with open(conf, encoding="utf-8") as f:
        for line in f:
            key, eq, value = line.split("#", 1)[0].partition("=")
            key, value = key.strip(), value.strip()
            if not eq or key in extra:
                continue
            if key.startswith("path_to_") and value and not os.path.isabs(value):
                value = os.path.join(base, value)
            lines.append(f"{key} = {value}")
    lines += [f"{k} = {v}" for k, v in extra.items()]
    path = os.path.join(folder, os.path.basename(conf))
    with open(path, "w", encoding="utf-8") as f:
        f.write("\n".join(lines) + "\n")
    return path


def _conf_value(conf: str, key: str, fallback: int) -> int:
    # Same grammar as the library: key=value, '#' starts a comment.
    with open(conf, encoding="utf-8") as f:
        for line in f:
            line = line.split("#", 1)[0].replace(" ", "").replace("\t", "").strip()
            if line.startswith(key + "="):
                return int(line.split("=", 1)[1])
    return fallback


_lib = None


# The toolkit functions have C++ linkage; these are their linker names.
_SYMBOLS = {
    "init": "_Z18Tovad_toolkit_initPKcS0_",
    "predict": "_Z21Tovad_toolkit_predictPviPKsPiS2_",
    "reset": "_Z19Tovad_toolkit_resetPvb",
    "destroy": "_Z21Tovad_toolkit_destoryPv",
    "voice_to_sil": "_Z33Tovad_toolkit_get_voice_to_sil_thPv",
    "sil_to_voice": "_Z33Tovad_toolkit_get_sil_to_voice_thPv",
}


class _Api:
    def __init__(self, path):
        lib = ctypes.CDLL(path)
        vp, ip = ctypes.c_void_p, ctypes.POINTER(ctypes.c_int)
        sig = {
            "init": (vp, [ctypes.c_char_p, ctypes.c_char_p]),
            "predict": (ctypes.c_int, [vp, ctypes.c_int, ctypes.POINTER(ctypes.c_short), ip, ip]),
            "reset": (ctypes.c_int, [vp, ctypes.c_bool]),
            "destroy": (ctypes.c_int, [vp]),
            "voice_to_sil": (ctypes.c_int, [vp]),
            "sil_to_voice": (ctypes.c_int, [vp]),
        }
        for name, (res, args) in sig.items():
            f = getattr(lib, _SYMBOLS[name])
            f.restype, f.argtypes = res, args
            setattr(self, name, f)


_api = {}


def _load(path: Optional[str]) -> _Api:
    path = path or find_library()
    if path not in _api:
        _api[path] = _Api(path)
    return _api[path]


class _QuietStderr:
    """Holds back what the library writes to fd 2 while it starts (a line
    per conf key); shows it when `show` is set."""

    def __init__(self, show: bool):
        self.show = show

    def __enter__(self):
        import tempfile
        sys.stderr.flush()
        self.held = tempfile.TemporaryFile()
        self.saved = os.dup(2)
        os.dup2(self.held.fileno(), 2)

    def __exit__(self, *exc):
        os.dup2(self.saved, 2)
        os.close(self.saved)
        if self.show:
            self.held.seek(0)
            sys.stderr.write(self.held.read().decode(errors="replace"))
        self.held.close()


def to_pcm16(samples) -> np.ndarray:
    """int16 passes; floats in [-1, 1) are scaled, rounded and clipped."""
    a = np.asarray(samples)
    if a.dtype == np.int16:
        return np.ascontiguousarray(a)
    if np.issubdtype(a.dtype, np.floating):
        return np.clip(np.rint(a * 32768.0), -32768, 32767).astype(np.int16)
    return np.clip(a, -32768, 32767).astype(np.int16)


def resample(samples, rate: int) -> np.ndarray:
    """Mono audio at `rate` to 16 kHz (polyphase filter)."""
    a = np.asarray(samples)
    if a.ndim == 2:  # frames x channels
        a = a.astype(np.float64).mean(axis=1)
    if rate == RATE:
        return to_pcm16(a)
    from scipy.signal import resample_poly
    ratio = Fraction(RATE, int(rate))
    if np.issubdtype(a.dtype, np.integer):
        a = a.astype(np.float64) / 32768.0
    return to_pcm16(resample_poly(a, ratio.numerator, ratio.denominator))


class Detector:
    """One toolkit handle.  `conf` names a model conf (default: the bundled
    model); its relative model paths are taken from the conf's folder."""

    _h = None

    def __init__(self, conf: Optional[str] = None, library: Optional[str] = None,
                 verbose: bool = False, extra_conf: Optional[dict] = None):
        conf = os.path.abspath(conf or default_conf())
        if not os.path.exists(conf):
            raise FileNotFoundError(conf)  # the library would abort
        self._lib = _load(library)
        self._delay = _conf_value(conf, "score_delay_frames", 7)
        self._verbose = verbose
        self._tmp = None
        if extra_conf:
            self._tmp = tempfile.TemporaryDirectory(prefix="tovadmod_")
            self._init_args = (_conf_with(conf, extra_conf, self._tmp.name).encode(), None)
        else:
            self._init_args = (os.path.basename(conf).encode(), os.path.dirname(conf).encode())
        # Called as on_frame(frame_index, segment_open) after every frame.
        self.on_frame = None
        self._start = ctypes.c_int(-1)
        self._end = ctypes.c_int(-1)
        self.reset()
        self._start_handle()

    def close(self) -> None:
        """Ends the handle (the next push starts a fresh one)."""
        if self._h:
            self._lib.destroy(self._h)
            self._h = None

    def __del__(self):
        self.close()
        if self._tmp is not None:
            self._tmp.cleanup()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def _start_handle(self) -> None:
        with _QuietStderr(self._verbose):
            handle = self._lib.init(*self._init_args)
        if not handle:
            raise RuntimeError("libtovadmod could not start")
        self._h = ctypes.c_void_p(handle)

    def reset(self) -> None:
        """Starts a new input.  The next push gets a fresh handle: a reset
        handle keeps some state of the last input, and results must not
        depend on it."""
        self.close()
        self._pending = np.zeros(0, dtype=np.int16)
        self._fed = 0          # samples pushed
        self._base = 0         # frames before the last reset
        self._clock = 0        # frames since the last reset
        self._open = -1        # frame at which the open segment was reported
        self._start.value = self._end.value = -1

    def _seconds(self, frame: int) -> float:
        return max(0.0, (frame - self._delay) * FRAME / RATE)

    def _close(self, last_voice: int, at_end: bool) -> Segment:
        first = self._open - self._lib.sil_to_voice(self._h)
        start = self._seconds(self._base + first)
        duration = self._fed / RATE
        end = duration if at_end else self._seconds(self._base + max(last_voice, first) + 1)
        return Segment(start, min(max(end, start), duration))

    def push(self, chunk) -> List[Segment]:
        """Feeds 16 kHz samples (any count); returns the segments that closed."""
        if self._h is None:
            self._start_handle()
        pcm = np.concatenate([self._pending, to_pcm16(chunk)])
        n_frames = len(pcm) // FRAME
        out = []
        buf = pcm[:n_frames * FRAME]
        ptr_type = ctypes.POINTER(ctypes.c_short)
        for i in range(n_frames):
            frame = buf[i * FRAME:(i + 1) * FRAME]
            self._fed += FRAME
            index = self._clock
            self._clock += 1
            self._lib.predict(self._h, FRAME, frame.ctypes.data_as(ptr_type),
                                            ctypes.byref(self._start), ctypes.byref(self._end))
            s, e = self._start.value, self._end.value
            if s >= 0 and self._open < 0:
                self._open = index
            if self.on_frame is not None:
                self.on_frame(self._base + index, s >= 0)
            if s < 0 or e < 0:
                continue
            # A hangover close keeps the hangover tail; a forced cut has none.
            tail = self._lib.voice_to_sil(self._h) if e == index - 1 else 0
            out.append(self._close(e - tail, False))
            self._lib.reset(self._h, False)
            self._base += index + 1
            self._clock = 0
            self._open = -1
            self._start.value = self._end.value = -1
        self._pending = pcm[n_frames * FRAME:].copy()
        return out

    def flush(self) -> List[Segment]:
        """Ends the input: a segment still open ends there.  Then resets."""
        self._fed += len(self._pending)
        out = []
        if self._start.value >= 0 and self._end.value < 0:
            if self._open < 0:
                self._open = self._clock - 1
            out.append(self._close(self._clock - 1, True))
        self.reset()
        return out

    def segments(self, samples, rate: int = RATE) -> List[Segment]:
        """Whole input at once: mono (or frames x channels) at any rate."""
        self.reset()
        pcm = resample(samples, rate)
        out = self.push(pcm)
        return out + self.flush()

    def stream(self, chunks) -> Iterator[Segment]:
        """Segments of an iterable of 16 kHz chunks, each as it closes."""
        for chunk in chunks:
            yield from self.push(chunk)
        yield from self.flush()
