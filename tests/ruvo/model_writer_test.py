"""Tests of tools/model_writer: what it writes reads back, and what the
engine could not read is refused at writing time.  The engine's side of the
same files is tested in model_files_test.cpp."""

import json
import os
import struct
import sys
import unittest

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))

import model_writer as mw  # noqa: E402


class ParamsTest(unittest.TestCase):
    def test_round_trip_in_both_shape_forms(self):
        arrays = [
            ("arg:w", np.arange(12, dtype=np.float32).reshape(3, 4) - 5),
            ("aux:m", np.array([-3, 7], dtype=np.int32)),
            ("arg:q", np.arange(-4, 4, dtype=np.int8).reshape(2, 2, 2)),
            ("arg:five", np.ones((1, 2, 1, 2, 3), dtype=np.float64)),
            ("", None),
            ("arg:f16", mw.RawArray((2,), 2, bytes(range(32)))),
        ]
        for legacy in (False, True):
            back = mw.read_params(mw.params_bytes(arrays, legacy=legacy))
            self.assertEqual([n for n, _ in back], [n for n, _ in arrays])
            for (_, want), (_, got) in zip(arrays, back):
                if want is None:
                    self.assertIsNone(got)
                elif isinstance(want, mw.RawArray):
                    self.assertEqual((got.shape, got.type_flag, got.data),
                                     (want.shape, want.type_flag, want.data))
                else:
                    self.assertEqual(got.dtype, want.dtype)
                    np.testing.assert_array_equal(got, want)

    def test_record_layout(self):
        a = np.array([1.5], dtype=np.float32)
        modern = mw.array_record(a)
        self.assertEqual(modern, struct.pack("<IIqiii", 0xF993FAC8, 1, 1, 1, 0, 0)
                         + struct.pack("<f", 1.5))
        legacy = mw.array_record(a, legacy=True)
        self.assertEqual(legacy, struct.pack("<IIiii", 1, 1, 1, 0, 0) + struct.pack("<f", 1.5))
        self.assertEqual(mw.array_record(None), struct.pack("<II", 0xF993FAC8, 0))
        self.assertEqual(mw.array_record(None, legacy=True), struct.pack("<I", 0))
        # Big-endian input is written little-endian.
        self.assertEqual(mw.array_record(np.array([1], dtype=">i4"))[-4:], b"\x01\0\0\0")
        header = mw.params_bytes([])
        self.assertEqual(header, struct.pack("<QQQQ", 0x112, 0, 0, 0))

    def test_refuses_what_would_not_read_back(self):
        with self.assertRaises(ValueError):
            mw.array_record(np.zeros(2, dtype=np.float16))  # flag 2 is 16 bytes here
        with self.assertRaises(ValueError):
            mw.array_record(np.float32(1.0))  # 0-d reads back as an empty array
        with self.assertRaises(ValueError):
            mw.array_record(np.zeros(2, dtype=np.uint16))

    def test_reader_rejects_malformed_files(self):
        good = mw.params_bytes([("arg:a", np.zeros(3, dtype=np.float32))])
        for bad in (good[:-1], good[:30], b"\x13\x01" + good[2:],
                    mw.params_bytes([("a", None)], names=["a", "b"])):
            with self.assertRaises(ValueError):
                mw.read_params(bad)


class SymbolTest(unittest.TestCase):
    def build(self):
        g = mw.SymbolGraph()
        x = g.variable("data")
        w = g.variable("fc_weight")
        fc = g.node("FullyConnected", "fc", [x, w], attr={"num_hidden": "2"},
                    param={"num_hidden": "9", "no_bias": "True"})
        split = g.node("SliceChannel", "split", [fc])
        g.heads = [(split, 1), fc]
        return g

    def test_new_and_old_style(self):
        new = json.loads(self.build().to_json(version=901))
        self.assertEqual(new["attrs"], {"mxnet_version": ["int", 901]})
        self.assertEqual(new["arg_nodes"], [0, 1])
        self.assertEqual(new["nodes"][2]["inputs"], [[0, 0, 0], [1, 0, 0]])
        self.assertEqual(new["nodes"][2]["attr"], {"num_hidden": "2"})
        self.assertEqual(new["nodes"][2]["param"], {"num_hidden": "9", "no_bias": "True"})
        self.assertEqual(new["heads"], [[3, 1, 0], [2, 0, 0]])
        old = json.loads(self.build().to_json(version=None))
        self.assertNotIn("attrs", old)
        self.assertEqual(old["nodes"][3]["inputs"], [[2, 0]])
        self.assertEqual(old["heads"], [[3, 1], [2, 0]])

    def test_refuses_later_inputs_and_non_string_attributes(self):
        g = mw.SymbolGraph()
        x = g.variable("x")
        with self.assertRaises(ValueError):
            g.node("Activation", "a", [x + 1])
        with self.assertRaises(ValueError):
            g.node("Activation", "a", [x], attr={"act_type": 1})


if __name__ == "__main__":
    unittest.main()
