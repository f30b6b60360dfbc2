"""Writer (and a small reader) of the engine's two model file formats.

Parameter file: a list of named arrays.  All numbers little-endian:

    uint64 magic 0x112, uint64 reserved, uint64 array count,
    array records, uint64 name count, names (uint64 length + bytes).

An array record starts with its shape, in one of two forms:

    modern: uint32 0xF993FAC8, uint32 ndim, ndim x int64 dimensions
    legacy: uint32 ndim, ndim x uint32 dimensions

and, unless ndim is 0 (an empty array), goes on with int32 dev_type,
int32 dev_id, int32 type flag and the row-major data.

Symbol file: a JSON graph of nodes ("op", "name", "inputs" and the
attributes under "attr" and/or "param"), "arg_nodes", "heads" and, for the
new style, "attrs" with "mxnet_version".  In the new style (version above
900) the inputs of a node list its auxiliary states behind its ordinary
inputs; the old style has no "attrs" at all.

Usage from training code:

    from model_writer import SymbolGraph, write_params
    g = SymbolGraph()
    x = g.variable("data")
    w = g.variable("fc1_weight")
    fc = g.node("FullyConnected", "fc1", [x, w], attr={"num_hidden": "4",
                                                      "no_bias": "True"})
    g.heads = [fc]
    open("net.json", "w").write(g.to_json())
    write_params("net.params", [("arg:fc1_weight", weight)])
"""

import json
import struct

import numpy as np

NDARRAY_LIST_MAGIC = 0x112
MODERN_SHAPE_MAGIC = 0xF993FAC8

# Element type flags and the bytes per element the engine reads for them.
# Flag 2 is read with 16 bytes per element, so float16 data can only be
# written raw (RawArray) in the engine's own record size.
TYPE_SIZE = {0: 4, 1: 8, 2: 16, 3: 1, 4: 4, 5: 1, 6: 8}
_FLAG_OF_DTYPE = {
    np.dtype(np.float32): 0,
    np.dtype(np.float64): 1,
    np.dtype(np.uint8): 3,
    np.dtype(np.int32): 4,
    np.dtype(np.int8): 5,
    np.dtype(np.int64): 6,
}
_DTYPE_OF_FLAG = {flag: dtype for dtype, flag in _FLAG_OF_DTYPE.items()}

CPU_DEV_TYPE = 1


class RawArray:
    """An array given as a type flag, a shape and its data bytes as they are.

    For the flags numpy can't express in the engine's record size (2), and
    for files that are malformed on purpose.
    """

    def __init__(self, shape, type_flag, data):
        self.shape = tuple(int(d) for d in shape)
        self.type_flag = int(type_flag)
        self.data = bytes(data)


def type_flag_of(array):
    """Type flag of a numpy array; raises ValueError for other types."""
    try:
        return _FLAG_OF_DTYPE[np.dtype(array.dtype).newbyteorder("=")]
    except KeyError:
        raise ValueError("no parameter type for numpy dtype %s" % array.dtype)


def _shape_bytes(shape, legacy):
    if legacy:
        return struct.pack("<I", len(shape)) + struct.pack("<%dI" % len(shape), *shape)
    return struct.pack("<II", MODERN_SHAPE_MAGIC, len(shape)) + struct.pack(
        "<%dq" % len(shape), *shape)


def array_record(array, legacy=False):
    """Bytes of one array record.  `array` is a numpy array, a RawArray, or
    None for an empty array (a record of ndim 0)."""
    if array is None:
        return _shape_bytes((), legacy)
    if isinstance(array, RawArray):
        shape, flag, data = array.shape, array.type_flag, array.data
    else:
        array = np.asarray(array)
        if array.ndim == 0:
            raise ValueError("a 0-d array would read back as an empty array; use shape (1,)")
        flag = type_flag_of(array)
        shape = array.shape
        data = np.ascontiguousarray(array, dtype=array.dtype.newbyteorder("<")).tobytes()
    if len(shape) == 0:
        return _shape_bytes((), legacy)
    head = _shape_bytes(shape, legacy) + struct.pack("<iii", CPU_DEV_TYPE, 0, flag)
    return head + data


def params_bytes(named_arrays, legacy=False, names=None):
    """Bytes of a parameter file.

    named_arrays: a dict or a list of (name, array) pairs, in file order.
    Names carry the prefix "arg:" (weights, biases) or "aux:" (auxiliary
    states such as moving averages).  legacy: write the legacy shape form.
    names: write these names instead of the arrays' own (a count that
    differs from the arrays' makes a file the engine rejects when it builds
    a net).
    """
    items = list(named_arrays.items()) if isinstance(named_arrays, dict) else list(named_arrays)
    out = [struct.pack("<QQQ", NDARRAY_LIST_MAGIC, 0, len(items))]
    out += [array_record(a, legacy) for _, a in items]
    if names is None:
        names = [n for n, _ in items]
    out.append(struct.pack("<Q", len(names)))
    for name in names:
        raw = name.encode("utf-8")
        out.append(struct.pack("<Q", len(raw)) + raw)
    return b"".join(out)


def write_params(path, named_arrays, legacy=False, names=None):
    data = params_bytes(named_arrays, legacy, names)
    with open(path, "wb") as f:
        f.write(data)
    return data


def read_params(data):
    """Reads parameter file bytes back: a list of (name, array) pairs, with
    None for an empty array and a RawArray for flag 2.  For checking files
    and for the command line; raises ValueError on a malformed file."""
    pos = 0

    def take(fmt):
        nonlocal pos
        size = struct.calcsize(fmt)
        if pos + size > len(data):
            raise ValueError("truncated at byte %d" % pos)
        values = struct.unpack_from(fmt, data, pos)
        pos += size
        return values

    magic, _, count = take("<QQQ")
    if magic != NDARRAY_LIST_MAGIC:
        raise ValueError("not a parameter file (magic 0x%x)" % magic)
    arrays = []
    for _ in range(count):
        (first,) = take("<I")
        if first == MODERN_SHAPE_MAGIC:
            (ndim,) = take("<I")
            shape = tuple(d & 0xFFFFFFFF for d in take("<%dq" % ndim))
        else:
            shape = take("<%dI" % first)
        if len(shape) == 0:
            arrays.append(None)
            continue
        _, _, flag = take("<iii")
        if flag not in TYPE_SIZE:
            raise ValueError("unknown type flag %d" % flag)
        nbytes = int(np.prod(shape, dtype=np.uint64)) * TYPE_SIZE[flag]
        if pos + nbytes > len(data):
            raise ValueError("truncated array data at byte %d" % pos)
        raw = data[pos:pos + nbytes]
        pos += nbytes
        if flag in _DTYPE_OF_FLAG:
            arrays.append(np.frombuffer(raw, _DTYPE_OF_FLAG[flag].newbyteorder("<")).reshape(shape))
        else:
            arrays.append(RawArray(shape, flag, raw))
    (nnames,) = take("<Q")
    names = []
    for _ in range(nnames):
        (size,) = take("<Q")
        if pos + size > len(data):
            raise ValueError("truncated name at byte %d" % pos)
        names.append(data[pos:pos + size].decode("utf-8"))
        pos += size
    if len(names) != len(arrays):
        raise ValueError("%d arrays but %d names" % (len(arrays), len(names)))
    return list(zip(names, arrays))


def _entry(ref):
    """(node, output) from a node id or a (node, output) pair."""
    if isinstance(ref, tuple):
        return int(ref[0]), int(ref[1])
    return int(ref), 0


class SymbolGraph:
    """Builds a symbol file node by node; nodes are kept in the order they
    are added, which must be a topological order."""

    def __init__(self):
        self.nodes = []
        self.heads = []

    def variable(self, name, attr=None):
        """A variable ("null" node): an input of the net or a parameter."""
        return self.node("null", name, [], attr=attr)

    def node(self, op, name, inputs, attr=None, param=None):
        """Adds an operator node; returns its id.  inputs: node ids or
        (node id, output index) pairs; in the new style the auxiliary states
        follow the ordinary inputs.  Attribute values are strings; attr and
        param are written under the keys "attr" and "param"."""
        for ref in inputs:
            if _entry(ref)[0] >= len(self.nodes):
                raise ValueError("node %s: input %r is not an earlier node" % (name, ref))
        node = {"op": op, "name": name, "inputs": [_entry(r) for r in inputs]}
        for key, values in (("attr", attr), ("param", param)):
            if values is not None:
                bad = [k for k, v in values.items() if not isinstance(v, str)]
                if bad:
                    raise ValueError("node %s: attribute values must be strings: %s" % (name, bad))
                node[key] = dict(values)
        self.nodes.append(node)
        return len(self.nodes) - 1

    def to_dict(self, version=10600):
        """The graph as a JSON object.  version: the "mxnet_version" of a
        new-style file; None writes an old-style file without "attrs"."""
        new_style = version is not None
        nodes = []
        for n in self.nodes:
            node = dict(n)
            # New-style entries carry a third element (a version), which the
            # engine ignores.
            node["inputs"] = [[i, j, 0] if new_style else [i, j] for i, j in n["inputs"]]
            nodes.append(node)
        graph = {
            "nodes": nodes,
            "arg_nodes": [i for i, n in enumerate(self.nodes) if n["op"] == "null"],
            "node_row_ptr": list(range(len(self.nodes) + 1)),
            "heads": [[i, j, 0] if new_style else [i, j] for i, j in (_entry(h) for h in self.heads)],
        }
        if new_style:
            graph["attrs"] = {"mxnet_version": ["int", int(version)]}
        return graph

    def to_json(self, version=10600):
        """The file's text: one line per node and per top-level key."""
        graph = self.to_dict(version)
        lines = ["{", '  "nodes": [']
        lines += ["    %s%s" % (json.dumps(n), "," if i + 1 < len(graph["nodes"]) else "")
                  for i, n in enumerate(graph["nodes"])]
        lines.append("  ],")
        rest = [k for k in graph if k != "nodes"]
        for i, key in enumerate(rest):
            sep = "," if i + 1 < len(rest) else ""
            lines.append("  %s: %s%s" % (json.dumps(key), json.dumps(graph[key]), sep))
        lines.append("}")
        return "\n".join(lines) + "\n"

    def write(self, path, version=10600):
        text = self.to_json(version)
        with open(path, "w") as f:
            f.write(text)
        return text
