"""Runs one program of the host build and the same program of the aarch64
build (under the emulator) on the same arguments and compares what they
write: bit for bit, or, with --within, hexadecimal floats within a relative
tolerance except on lines whose label ends in one of --exact.

    compare_builds.py [--within TOL] [--exact SUFFIX]... --emulator EMU
                      HOST_PROGRAM TARGET_PROGRAM -- ARGS...

An argument {out} stands for a fresh file per run, compared instead of the
standard output."""
import argparse
import os
import subprocess
import sys
import tempfile


def run(command, args, workdir, tag):
    out = os.path.join(workdir, tag + ".out")
    args = [out if a == "{out}" else a for a in args]
    done = subprocess.run(command + args, capture_output=True, check=False)
    if done.returncode != 0:
        sys.exit(f"{tag}: exit {done.returncode}: {done.stderr.decode(errors='replace')}")
    if "{out}" in args or out in args:
        with open(out, "rb") as f:
            return f.read()
    return done.stdout


def compare_near(host, target, tol, exact):
    host_lines, target_lines = host.decode().splitlines(), target.decode().splitlines()
    if len(host_lines) != len(target_lines):
        return [f"{len(host_lines)} lines against {len(target_lines)}"]
    faults, same, values, worst = [], 0, 0, 0.0
    for h, t in zip(host_lines, target_lines):
        hw, tw = h.split(), t.split()
        if len(hw) != len(tw) or hw[:1] != tw[:1]:
            faults.append(f"line differs in shape: {hw[:1]}")
            continue
        strict = any(hw[0].endswith(s) for s in exact)
        for a, b in zip(hw[1:], tw[1:]):
            values += 1
            same += a == b
            x, y = float.fromhex(a), float.fromhex(b)
            gap = abs(x - y) / max(1.0, abs(x))
            worst = max(worst, gap)
            if (strict and a != b) or gap > tol:
                faults.append(f"{hw[0]}: {x!r} against {y!r}")
    print(f"{values} values, {same} bit-identical, largest relative gap {worst:.3g}")
    return faults


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--within", type=float)
    parser.add_argument("--exact", action="append", default=[])
    parser.add_argument("--emulator", required=True)
    parser.add_argument("host")
    parser.add_argument("target")
    parser.add_argument("args", nargs=argparse.REMAINDER)
    opts = parser.parse_args()
    args = opts.args[1:] if opts.args[:1] == ["--"] else opts.args
    with tempfile.TemporaryDirectory() as workdir:
        host = run([opts.host], args, workdir, "host")
        target = run([opts.emulator, opts.target], args, workdir, "target")
    if opts.within is None:
        faults = [] if host == target else [f"outputs differ ({len(host)} and {len(target)} bytes)"]
        print(f"{len(host)} bytes compared")
    else:
        faults = compare_near(host, target, opts.within, opts.exact)
    if not host:
        faults.append("nothing was written")
    for f in faults[:20]:
        print(f)
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
