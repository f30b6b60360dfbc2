"""Voice activity detection over numpy arrays, through libtovadmod.so.

    from tovadmod import Detector
    det = Detector()                      # the bundled model
    for start, end in det.segments(samples, rate):
        print(start, end)                 # seconds

    live = Detector("my/model/tovad.conf")
    for chunk in chunks:                  # int16 or float arrays at 16 kHz
        for start, end in live.push(chunk):
            print(start, end)
    for start, end in live.flush():       # closes an open segment
        ...
"""
from tovadmod.detector import Detector, Segment, find_library, default_conf

__all__ = ["Detector", "Segment", "find_library", "default_conf"]
