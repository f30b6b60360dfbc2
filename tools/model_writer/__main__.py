"""Command line of the model writer.

    python3 -m model_writer pack IN.npz OUT.params [--legacy]
        Writes the arrays of a numpy .npz archive as a parameter file; the
        archive's keys are the names ("arg:fc1_weight", "aux:bn_moving_var").
    python3 -m model_writer dump FILE.params
        Lists the names, shapes and types of a parameter file.

Run from tools/ (or with tools/ on PYTHONPATH).
"""

import argparse
import sys

import numpy as np

from model_writer import RawArray, read_params, write_params


def _pack(args):
    with np.load(args.npz) as archive:
        arrays = [(name, archive[name]) for name in archive.files]
    write_params(args.out, arrays, legacy=args.legacy)
    print("%s: %d arrays" % (args.out, len(arrays)))


def _dump(args):
    with open(args.params, "rb") as f:
        data = f.read()
    for name, array in read_params(data):
        if array is None:
            print("%-40s none" % name)
        elif isinstance(array, RawArray):
            print("%-40s %-20s flag %d" % (name, array.shape, array.type_flag))
        else:
            print("%-40s %-20s %s" % (name, array.shape, array.dtype))


def main(argv=None):
    parser = argparse.ArgumentParser(prog="model_writer")
    sub = parser.add_subparsers(dest="command", required=True)
    p = sub.add_parser("pack", help="npz archive to parameter file")
    p.add_argument("npz")
    p.add_argument("out")
    p.add_argument("--legacy", action="store_true", help="legacy shape form")
    p.set_defaults(func=_pack)
    d = sub.add_parser("dump", help="list a parameter file")
    d.add_argument("params")
    d.set_defaults(func=_dump)
    args = parser.parse_args(argv)
    try:
        args.func(args)
    except ValueError as e:
        print("model_writer: %s" % e, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
