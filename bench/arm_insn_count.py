#!/usr/bin/python3
"""Counts the aarch64 instructions each marked call of arm_insn_driver executes.

qemu-aarch64 logs every translated block (-d in_asm: its instructions) and,
with chaining off, every execution of a block (-d exec,nochain).  Between
the driver's InsnRegionBegin and InsnRegionEnd calls, the instructions of
each executed block are added up by class.  The log is read through a pipe,
never stored.  Emulation gives no timing, so the cycles printed are a model:
the instruction mix against the issue limits assumed in CORES below.

The hot loop, the instructions run about as often as the block doing
most multiplies, is listed from `objdump -d` of the driver (its length
per pass and the multiplies it holds) as a cross-check of the dynamic
count.

Columns, per call: multiply-adds (MACs); executed instructions, in all and
per MAC; SIMD/FP instructions and loads/stores per MAC; "lanes", MACs per
multiply executed (below 1 where vector lanes multiply padding); the hot
loop's function, static instructions, multiplies and their ratio; cycles
per MAC under the assumed limits.

  arm_insn_count.py DRIVER [--cpu NAME] [--filter SUBSTRING] [--functions]
                           [--totals] [--one-insn-per-tb]
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
import threading
from collections import Counter

# Multiplies done by one instruction: sdot does four per 32-bit lane; the
# others one per lane of the destination; scalar forms one.
MUL_LANES = {"sdot": 4, "udot": 4}
MUL_OPS = {"mul", "mla", "mls", "smlal", "smlal2", "smull", "smull2", "umlal", "umlal2",
           "umull", "umull2", "sqdmlal", "fmla", "fmls", "fmul", "fmadd", "fmsub", "madd",
           "msub", "smaddl", "umaddl", "sdot", "udot"}
LANES = {"16b": 16, "8b": 8, "8h": 8, "4h": 4, "4s": 4, "2s": 2, "2d": 2}

# Issue limits per cycle assumed for the prediction (README.md says where
# they come from); assumptions, not measurements.  Each core has an
# optimistic and a pessimistic set, printed as a range.  "any": all
# instructions; "simd": all Advanced SIMD and FP instructions; "vmul":
# vector integer multiplies (SMLAL, MLA, MUL); "dot": SDOT; "mem": loads
# and stores.  A missing key is no limit beyond "any"/"simd".
CORES = {
    # In order, dual issue, one 128-bit SIMD instruction per cycle; or no
    # pairing and 128-bit forms at one per two cycles.
    "A55": ({"any": 2, "simd": 1, "mem": 1}, {"any": 1, "simd": 0.5, "mem": 1}),
    # Out of order, four per cycle, two 128-bit SIMD pipes of which one
    # multiplies integers; SDOT on both pipes, or on one.
    "A76": ({"any": 4, "simd": 2, "vmul": 1, "mem": 2},
            {"any": 4, "simd": 2, "vmul": 1, "dot": 1, "mem": 2}),
}
VMUL = {"mul", "mla", "mls", "smlal", "smlal2", "smull", "smull2", "umlal", "umlal2", "umull",
        "umull2"}


# Products of one 10 ms frame of each net, with their counts.
NETS = {
    # The convolutions narrow to 8 bits in the product; the output layer
    # keeps the sums.
    "streaming net": {"i8p/1x32x360/narrow": 1, "i8p/1x32x96/narrow": 4, "i8p/1x2x32/ours": 1},
    "dense net": {"f32/1x64x2400/ours": 1, "f32/1x32x64/ours": 1, "f32/1x2x32/ours": 1},
    "11x3x40 net": {"f32/1x128x1320/ours": 1, "f32/1x128x128/ours": 1, "f32/1x2x128/ours": 1},
}


def classify(mnemonic, operands):
    """Returns (class, multiplies) of one instruction."""
    first = operands.split(",")[0].strip()
    branch = mnemonic in ("b", "bl", "br", "blr", "ret", "cbz", "cbnz", "tbz", "tbnz") or \
        mnemonic.startswith("b.")
    vector = not branch and (
        re.fullmatch(r"\{?([vq]\d+(\.\w+)?|[bhsd]\d+)", first.split(" ")[0]) is not None or
        re.search(r"\bv\d+\.", operands) is not None)
    muls = 0
    if mnemonic in MUL_OPS:
        m = re.match(r"v\d+\.(\w+)", first)
        lanes = LANES.get(m.group(1), 1) if m else 1
        muls = lanes * MUL_LANES.get(mnemonic, 1)
    if mnemonic.startswith(("ld", "st")):
        cls = "mem"
    elif mnemonic in ("sdot", "udot"):
        cls = "dot"
    elif vector and mnemonic in VMUL:
        cls = "vmul"
    elif vector:
        cls = "vec"
    else:
        cls = "int"
    return cls, muls


INSN_RE = re.compile(r"^0x([0-9a-f]+):\s+[0-9a-f]{8}\s+(\S+)\s*(.*)$")


class Region:
    def __init__(self, label, macs):
        self.label = label
        self.macs = macs
        self.execs = Counter()  # block pc -> executions
        self.blocks = {}        # block pc -> its instructions at the time


class Regions(list):
    begin_pc = None  # where the emulator loaded InsnRegionBegin


def parse_log(stream, regions_out):
    """Reads the qemu log; appends a Region per marked call."""
    blocks = {}  # pc -> [(pc, mnemonic, operands)]
    cur_insns = None
    active = None
    for line in stream:
        if line.startswith("Trace "):
            cur_insns = None
            pc = int(line.split("[", 1)[1].split("/", 2)[1], 16)
            sym = line.rsplit("] ", 1)[-1].strip()
            if sym == "InsnRegionBegin":
                regions_out.begin_pc = pc
                active = Region(None, None)
                regions_out.append(active)
                continue
            if sym == "InsnRegionEnd":
                active = None
                continue
            if active is not None:
                active.execs[pc] += 1
                if pc not in active.blocks:
                    active.blocks[pc] = (blocks[pc], sym)
            continue
        if line.startswith("IN:"):
            cur_insns = []
            continue
        if cur_insns is not None:
            m = INSN_RE.match(line)
            if m:
                pc = int(m.group(1), 16)
                if not cur_insns:
                    blocks[pc] = cur_insns
                cur_insns.append((pc, m.group(2), m.group(3)))
            elif line.strip() == "" or line.startswith("---"):
                cur_insns = None


def run_qemu(driver, cpu, filt, one_insn):
    with tempfile.TemporaryDirectory() as tmp:
        fifo = os.path.join(tmp, "log")
        os.mkfifo(fifo)
        cmd = ["qemu-aarch64", "-d", "in_asm,exec,nochain", "-D", fifo]
        if one_insn:
            cmd.append("-singlestep")
        if cpu:
            cmd += ["-cpu", cpu]
        cmd += [driver] + ([filt] if filt else [])
        env = dict(os.environ)
        env.pop("QEMU_CPU", None)
        proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, text=True, env=env)
        out = []
        reader = threading.Thread(target=lambda: out.extend(proc.stdout.read().splitlines()))
        reader.start()
        regions = Regions()
        with open(fifo, errors="replace") as log:
            parse_log(log, regions)
        reader.join()
        if proc.wait() != 0:
            sys.exit("%s failed (exit %d)" % (" ".join(cmd), proc.returncode))
    variant = None
    labels = []
    for line in out:
        if line.startswith("variant "):
            variant = line.split()[1]
        else:
            label, macs = line.split()
            labels.append((label, int(macs)))
    if len(labels) != len(regions):
        sys.exit("%d labels but %d marked regions" % (len(labels), len(regions)))
    for r, (label, macs) in zip(regions, labels):
        r.label, r.macs = label, macs
    return variant, regions


def totals(region, dis, run_begin):
    """Executed instructions by class, and multiplies.  The emulator's own
    disassembler does not know every instruction (SDOT shows as bytes), so
    the driver's instructions are named from objdump."""
    cls = Counter()
    muls = 0
    for pc, n in region.execs.items():
        insns, _ = region.blocks[pc]
        for ipc, mn, ops in insns:
            known = dis.at(ipc, run_begin)
            if known:
                mn, ops = known
            c, m = classify(mn, ops)
            cls[c] += n
            muls += m * n
    return cls, muls


class Disassembly:
    """Functions and loops of the driver, from objdump."""

    def __init__(self, path):
        text = subprocess.run(["aarch64-linux-gnu-objdump", "-d", "--no-show-raw-insn", "-C",
                               path], check=True, capture_output=True, text=True).stdout
        self.insns = []  # (addr, mnemonic, operands, function)
        func = None
        for line in text.splitlines():
            m = re.match(r"^([0-9a-f]+) <(.*)>:$", line)
            if m:
                func = m.group(2)
                continue
            m = re.match(r"^\s+([0-9a-f]+):\s+(\S+)\s*(.*)$", line)
            if m and func:
                ops = m.group(3).split("//")[0].strip()
                self.insns.append((int(m.group(1), 16), m.group(2), ops, func))
        self.index = {a: i for i, (a, _, _, _) in enumerate(self.insns)}
        self.begin = next(a for a, _, _, f in self.insns if f == "InsnRegionBegin")

    def at(self, run_pc, run_begin):
        """(mnemonic, operands) of the driver's instruction at run_pc."""
        i = self.index.get(run_pc - run_begin + self.begin)
        return None if i is None else self.insns[i][1:3]

    def function(self, run_pc, run_begin):
        i = self.index.get(run_pc - run_begin + self.begin)
        return None if i is None else self.insns[i][3]


def hot_path(region, dis, run_begin):
    """The hot loop as objdump lists it: in the function of the block that
    does most multiplies, the instructions executed at least half as often
    as that block (so a loop's rare paths and the outer loops drop out).
    Returns (function, instructions, multiplies), or None."""
    hot = max(region.execs,
              key=lambda pc: region.execs[pc] * block_weight(region, pc, dis, run_begin))
    func = dis.function(hot, run_begin)
    if func is None:
        return None
    runs = Counter()
    for pc, n in region.execs.items():
        for ipc, _, _ in region.blocks[pc][0]:
            runs[ipc] += n
    path = [ipc for ipc, n in runs.items()
            if 2 * n >= region.execs[hot] and dis.function(ipc, run_begin) == func]
    return func, len(path), sum(classify(*dis.at(ipc, run_begin))[1] for ipc in path)


def block_weight(region, pc, dis, run_begin):
    """Multiplies of a block (instructions when it has none, scaled down so
    that any block with multiplies weighs more): picks the loop to show."""
    insns = region.blocks[pc][0]
    muls = 0
    for ipc, mn, ops in insns:
        known = dis.at(ipc, run_begin)
        muls += classify(*(known or (mn, ops)))[1]
    return muls if muls else len(insns) * 1e-6


def by_function(region, dis, run_begin):
    """Executed instructions per function (name without its arguments)."""
    out = Counter()
    for pc, n in region.execs.items():
        insns, sym = region.blocks[pc]
        i = dis.index.get(pc - run_begin + dis.begin)
        name = dis.insns[i][3] if i is not None else sym
        out[re.sub(r"\(.*", "", name.replace("(anonymous namespace)::", ""))] += n * len(insns)
    return out


def predict(cls, macs, limits):
    """Cycles per multiply-add if the busiest resource limits the call."""
    simd = cls["vec"] + cls["vmul"] + cls["dot"]
    use = {"any": sum(cls.values()), "simd": simd, "vmul": cls["vmul"], "dot": cls["dot"],
           "mem": cls["mem"]}
    return max(use[k] / v for k, v in limits.items()) / macs


def cycle_range(cls, macs, core):
    lo, hi = (predict(cls, macs, limits) for limits in CORES[core])
    return "%.2f-%.2f" % (lo, hi) if "%.2f" % lo != "%.2f" % hi else "%.2f" % lo


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("driver")
    ap.add_argument("--cpu", default="", help="qemu -cpu (default: qemu's, with SDOT)")
    ap.add_argument("--filter", default="", help="only shapes whose label holds this")
    ap.add_argument("--one-insn-per-tb", action="store_true",
                    help="one instruction per block: the slow cross-check of the block counts")
    ap.add_argument("--totals", action="store_true", help="print only label and instructions")
    ap.add_argument("--functions", action="store_true",
                    help="also the instructions per function of each call")
    args = ap.parse_args()
    variant, regions = run_qemu(args.driver, args.cpu, args.filter, args.one_insn_per_tb)
    dis = Disassembly(args.driver)
    begin = regions.begin_pc
    base = sum(totals(regions[0], dis, begin)[0].values())  # the markers' own call
    if args.totals:
        for r in regions[1:]:
            print(r.label, sum(totals(r, dis, begin)[0].values()) - base)
        return
    print("cpu %s, int8 kernels: %s; marker cost %d instructions subtracted"
          % (args.cpu or "default", variant, base))
    print("%-22s %7s %8s %7s %5s %5s %5s | %-22s %5s %5s %7s | %-9s %-9s"
          % ("call", "MACs", "insns", "ins/MAC", "simd", "mem", "lanes", "hot loop", "insns",
             "muls", "ins/MAC", "A55 cyc", "A76 cyc"))
    counts = {}
    for r in regions[1:]:
        cls, muls = totals(r, dis, begin)
        total = sum(cls.values()) - base
        cls["int"] -= base
        loop = hot_path(r, dis, begin)
        if loop:
            func, n, m = loop
            name = re.sub(r"\(.*", "", func.replace("(anonymous namespace)::", ""))
            name = re.sub(r"<.*", "", name.replace("orvik_blas_kernels::", ""))
            name = name.replace("void ", "")[:22]
            loop_s = "%-22s %5d %5d %7s" % (name, n, m, "%.2f" % (n / m) if m else "-")
        else:
            loop_s = "%-22s %5s %5s %7s" % ("(none)", "-", "-", "-")
        simd = cls["vec"] + cls["vmul"] + cls["dot"]
        print("%-22s %7d %8d %7.2f %5.2f %5.2f %5.2f | %s | %-9s %-9s"
              % (r.label, r.macs, total, total / r.macs, simd / r.macs, cls["mem"] / r.macs,
                 r.macs / muls if muls else 0.0, loop_s, cycle_range(cls, r.macs, "A55"),
                 cycle_range(cls, r.macs, "A76")))
        if args.functions:
            for name, n in by_function(r, dis, begin).most_common(5):
                print("    %9d  %s" % (n, name))
        counts[r.label] = total
    for net, products in NETS.items():
        if all(p in counts for p in products):
            ours = sum(n * counts[p] for p, n in products.items())
            plain = sum(n * counts[p.rsplit("/", 1)[0] + "/plain"] for p, n in products.items())
            print("per frame, %s: %d instructions (plain loops %d)" % (net, ours, plain))


if __name__ == "__main__":
    main()
