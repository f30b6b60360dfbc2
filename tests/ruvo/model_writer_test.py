"""Tests of tools/model_writer: what it writes reads back, and what the
engine could not read is refused at writing time.  The engine's side of the
same files (layout included) is tested in model_files_test.cpp."""

import os
import sys
import unittest

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))

import model_writer as mw  # noqa: E402


class ModelWriterTest(unittest.TestCase):
    def test_params_round_trip_in_both_shape_forms(self):
        arrays = [("arg:w", np.arange(12, dtype=np.float32).reshape(3, 4) - 5),
                  ("aux:m", np.array([-3, 7], dtype=">i4")),  # written little-endian
                  ("arg:q", np.arange(-4, 4, dtype=np.int8).reshape(2, 2, 2)),
                  ("arg:five", np.ones((1, 2, 1, 2, 3), dtype=np.float64)), ("", None),
                  ("arg:f16", mw.RawArray((2,), 2, bytes(range(32))))]
        for legacy in (False, True):
            back = mw.read_params(mw.params_bytes(arrays, legacy=legacy))
            self.assertEqual([n for n, _ in back], [n for n, _ in arrays])
            for (_, want), (_, got) in zip(arrays, back):
                if want is None:
                    self.assertIsNone(got)
                elif isinstance(want, mw.RawArray):
                    self.assertEqual(vars(got), vars(want))
                else:
                    self.assertEqual(got.dtype, want.dtype.newbyteorder("="))
                    np.testing.assert_array_equal(got, want)

    def test_refuses_what_would_not_read_back(self):
        good = mw.params_bytes([("arg:a", np.zeros(3, dtype=np.float32))])
        writes = [lambda: mw.array_record(np.zeros(2, dtype=np.float16)),  # flag 2 is 16 bytes
                  lambda: mw.array_record(np.float32(1.0)),  # 0-d reads back as empty
                  lambda: mw.array_record(np.zeros(2, dtype=np.uint16)),
                  lambda: mw.SymbolGraph().node("Activation", "a", [0]),  # no earlier node
                  lambda: mw.SymbolGraph().node("Activation", "a", [], attr={"act_type": 1})]
        reads = [good[:-1], good[:30], b"\x13\x01" + good[2:],
                 mw.params_bytes([("a", None)], names=["a", "b"])]
        for i, call in enumerate(writes + [lambda b=b: mw.read_params(b) for b in reads]):
            with self.subTest(i), self.assertRaises(ValueError):
                call()


if __name__ == "__main__":
    unittest.main()
