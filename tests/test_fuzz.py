"""Fuzzing: every public callable of both extension modules, called with bad and odd arguments.

The callables are found by introspection (`discover`): the functions of `pytramel.tensor.tensor`
(its `_`-helpers included), of `pytramel._core` and of `_core.tramel` (their `_`-names are test
hooks and stay out), and the constructors, methods, slots, static methods and properties of every
class those modules define (`QTensor`, `QTensor.GraphNode`, `_core.Tensor`, `GradFn`, ...). A new
operator is fuzzed as soon as it is bound.

The calls run in a child process (this file, run as a script), so that a crash is caught: before
each call the child writes the call, as a Python expression that rebuilds it, to a pipe. The
parent reads the pipe; when the child dies by a signal or exits with a non-zero status, the last
call written is the one that killed it, and when no call is written for PYTRAMEL_FUZZ_STALL_S
seconds the child is killed and its last call reported as a hang. Either way a new child goes on
with the next call. Each call's arguments come from a generator seeded by (seed, call number), so
a run is reproducible and can resume anywhere.

A call fails the test when it
- kills the process (a signal, an abort, a non-zero exit) or hangs;
- raises SystemError, or any exception whose message is CPython's or nanobind's report of an
  error return without an exception (or a result with one set): a pending-error fault;
- raises an exception outside ALLOWED_EXCEPTIONS (a new error kind should be a decision, not an
  accident);
- returns a new QTensor whose `device` disagrees with its `data.device`;
- leaves the guard bytes after an emulated accelerator's buffer damaged.
Ordinary refusals (ALLOWED_EXCEPTIONS) are the expected answer to most of these calls.

The child runs under an address-space limit (PYTRAMEL_FUZZ_ADDRESS_SPACE_MB), so that a call that
asks for an enormous tensor fails with MemoryError or RuntimeError instead of taking the machine's
memory; huge integers and shapes are fuzzed freely.

More calls by hand (docs/fuzzing.md):
    PYTRAMEL_FUZZ_CALLS=1000000 PYTRAMEL_FUZZ_SEED=7 python -m pytest -q -s tests/test_fuzz.py -k every_public
and one reported call alone, in a fresh process:
    python tests/test_fuzz.py --replay "_core.Tensor(np.timedelta64(5))"
"""
import collections
import faulthandler
import json
import math
import os
import random
import select
import shlex
import signal
import subprocess
import sys
import tempfile
import time
import warnings

HERE = os.path.abspath(__file__)

CALLS = int(os.environ.get("PYTRAMEL_FUZZ_CALLS", "80000"))
SEED = int(os.environ.get("PYTRAMEL_FUZZ_SEED", "20240611"))
START = int(os.environ.get("PYTRAMEL_FUZZ_START", "0"))   # the number of the first call
STALL_S = float(os.environ.get("PYTRAMEL_FUZZ_STALL_S", "20"))
ADDRESS_SPACE_MB = int(os.environ.get("PYTRAMEL_FUZZ_ADDRESS_SPACE_MB", "3072"))
# A crash or a hang ends a child; a new one goes on after it, this many times at most.
MAX_RESTARTS = int(os.environ.get("PYTRAMEL_FUZZ_MAX_RESTARTS", "20"))

# Exceptions that are an ordinary refusal of a bad argument. MemoryError is what an enormous
# requested size gives under the address-space limit; StopIteration ends an iterator;
# BufferError is the buffer protocol's refusal. SystemError is never here.
ALLOWED_EXCEPTIONS = (TypeError, ValueError, IndexError, KeyError, AttributeError, RuntimeError,
                      AssertionError, OverflowError, ZeroDivisionError, MemoryError, StopIteration,
                      BufferError)

# Messages of a function that returned an error without setting an exception, or a result with
# one set: the symptoms of a pending Python error. Usually a SystemError, caught here whatever
# the exception's type.
PENDING_ERROR_MESSAGES = ("error return without exception set", "returned null without setting",
                          "returned a result with an exception set", "without setting an exception",
                          "with an exception set")

# ------------------------------------------------------------------------------- known faults
#
# Calls that still fail, skipped until their fixes land. Each name is a matcher below; a call a
# matcher accepts is counted as skipped and not made. When the fixes are in, empty the tuple:
KNOWN_FAULTS = ()


# name -> matcher(target, args, kwargs): whether a call is the known fault. None are known now.
KNOWN_FAULT_MATCHERS = {}


def known_fault(target, args, kwargs):
    for name in KNOWN_FAULTS:
        if KNOWN_FAULT_MATCHERS[name](target, args, kwargs):
            return name
    return None


# ---------------------------------------------------------------------------------- discovery

# Not fuzzed: benchmark probes whose integer argument is a loop count (any large value is a
# legitimate hang).
NOT_FUZZED = {"tensor._recording_step_ns"}

# Slots every class inherits or that only the interpreter calls.
SKIPPED_CLASS_NAMES = {
    "__new__", "__init_subclass__", "__subclasshook__", "__class__", "__doc__", "__module__",
    "__dict__", "__weakref__", "__getattribute__", "__setattr__", "__delattr__", "__dir__",
    "__format__", "__reduce__", "__reduce_ex__", "__getstate__", "__sizeof__", "__annotations__",
    "__dataclass_fields__", "__dataclass_params__", "__match_args__", "__slots__", "__qualname__",
}


class Target:
    """One callable: `expr` is how a call line names it, `kind` how it is called."""

    def __init__(self, name, expr, fn, kind, owner=None, signatures=None, prop=None):
        self.name, self.expr, self.fn, self.kind = name, expr, fn, kind
        self.owner = owner            # the class of `self` for methods and properties
        self.signatures = signatures  # [[Param]], one list per overload, `self` left out
        self.prop = prop

    def __repr__(self):
        return f"Target({self.name})"


class Param:
    def __init__(self, name, annotation="", optional=False, keyword_only=False):
        self.name, self.annotation, self.optional, self.keyword_only = name, annotation, optional, keyword_only


def _split_top(text):
    parts, depth, cur = [], 0, []
    for ch in text:
        if ch in "([{":
            depth += 1
        elif ch in ")]}":
            depth -= 1
        if ch == "," and depth == 0:
            parts.append("".join(cur).strip())
            cur = []
        else:
            cur.append(ch)
    if "".join(cur).strip():
        parts.append("".join(cur).strip())
    return parts


def _params_of_nb_signature(sig):
    """Params of one nanobind signature 'def f(a: int, b: X = \\0) -> R'."""
    head = sig[sig.index("(") + 1:]
    depth, end = 1, 0
    for end, ch in enumerate(head):
        depth += ch == "("
        depth -= ch == ")"
        if depth == 0:
            break
    params, keyword_only = [], False
    for part in _split_top(head[:end]):
        if part in ("/",):
            continue
        if part == "*":
            keyword_only = True
            continue
        if part.startswith("**"):
            continue
        if part.startswith("*"):
            keyword_only = True
            continue
        name, _, rest = part.partition(":")
        annotation, eq, _ = rest.partition("=")
        if not rest:
            name, eq, _ = part.partition("=")
        params.append(Param(name.strip(), annotation.strip(), bool(eq), keyword_only))
    return params


def _signatures(fn, drop_self):
    import inspect
    overloads = []
    nb = getattr(fn, "__nb_signature__", None)
    if nb:
        for entry in nb:
            params = _params_of_nb_signature(entry[0])
            if drop_self and params and params[0].name == "self":
                params = params[1:]
            overloads.append(params)
        return overloads
    try:
        sig = inspect.signature(fn)
    except (TypeError, ValueError):
        return [[Param(f"arg{i}", optional=True) for i in range(3)]]
    params = []
    for i, p in enumerate(sig.parameters.values()):
        if drop_self and i == 0:
            continue
        if p.kind in (p.VAR_POSITIONAL, p.VAR_KEYWORD):
            continue
        annotation = "" if p.annotation is p.empty else str(p.annotation)
        params.append(Param(p.name, annotation, p.default is not p.empty, p.kind == p.KEYWORD_ONLY))
    return [params]


def _own(obj):
    """Whether a module attribute belongs to pytramel (not numpy, builtins, ...)."""
    kind = type(obj).__name__
    if kind.startswith("nb_"):
        return True
    return (getattr(obj, "__module__", "") or "").startswith("pytramel")


def discover(modules):
    """Every fuzzed callable of the modules: [(short name, module)] as ("tensor", T), ..."""
    import inspect
    targets, seen, classes = [], set(), []

    def add_class(cls, expr, name):
        if id(cls) in seen:
            return
        seen.add(id(cls))
        classes.append((cls, expr, name))
        targets.append(Target(name, expr, cls, "call", signatures=_signatures(cls.__init__, True)
                              if "__init__" in vars(cls) else [[]]))

    for short, mod in modules:
        for attr in sorted(dir(mod)):
            obj = getattr(mod, attr)
            name = f"{short}.{attr}"
            if attr.startswith("__") or inspect.ismodule(obj) or not callable(obj) or not _own(obj):
                continue
            if attr.startswith("_") and short != "tensor":
                continue   # the engine's test hooks
            if name in NOT_FUZZED:
                continue
            if inspect.isclass(obj):
                if getattr(mod, obj.__name__, None) is obj:   # an alias goes by the class's own name
                    attr, name = obj.__name__, f"{short}.{obj.__name__}"
                add_class(obj, f"{short}.{attr}", name)
            elif id(obj) not in seen:
                seen.add(id(obj))
                targets.append(Target(name, f"{short}.{attr}", obj, "call", signatures=_signatures(obj, False)))
    i = 0
    while i < len(classes):
        cls, cexpr, cname = classes[i]
        i += 1
        for attr, raw in sorted(vars(cls).items()):
            if attr in SKIPPED_CLASS_NAMES:
                continue
            name = f"{cname}.{attr}"
            if inspect.isclass(raw):
                if _own(raw):
                    add_class(raw, f"{cexpr}.{attr}", name)
                continue
            if isinstance(raw, property):
                expr = f"{cexpr}.__dict__[{attr!r}]"
                targets.append(Target(name + ".get", expr + ".fget", raw.fget, "get", owner=cls, prop=attr))
                if raw.fset is not None:
                    targets.append(Target(name + ".set", expr + ".fset", raw.fset, "set", owner=cls, prop=attr))
                continue
            if isinstance(raw, (staticmethod, classmethod)):
                fn = getattr(cls, attr)
                targets.append(Target(name, f"{cexpr}.{attr}", fn, "call", signatures=_signatures(fn, False)))
                continue
            if not callable(raw):
                continue
            if type(raw).__name__ == "nb_func":   # a nanobind static method
                targets.append(Target(name, f"{cexpr}.{attr}", raw, "call", signatures=_signatures(raw, False)))
            else:
                targets.append(Target(name, f"{cexpr}.{attr}", raw, "method", owner=cls,
                                      signatures=_signatures(raw, True)))
    return targets


# ------------------------------------------------------------------- the values calls are made of
#
# Every argument is made from an expression over the names of `namespace()`; the call line is the
# target's expression applied to them, so a reported call can be run again as it stands.

DTYPE_NAMES = ["bool", "uint8", "int8", "int16", "int32", "int64", "float32", "float64",
               "complex64", "complex128"]

SHAPES = [(), (0,), (1,), (2,), (3,), (5,), (2, 3), (3, 1), (1, 3), (2, 0), (0, 3), (3, 3),
          (2, 3, 4), (4, 1, 2, 1), (2, 1, 3, 1, 2), (1,) * 16, (1,) * 15 + (2,), (2,) * 16, (1, 70000)]
SHAPE_WEIGHTS = [6, 3, 5, 5, 6, 3, 8, 4, 4, 2, 2, 4, 4, 2, 1, 1, 1, 0.3, 0.3]
DEVICES = [0, 0, 0, 1000, 1000, 1001]
FILLS = ["seq", "seq", "seq", "special", "zeros", "ones"]

ODD_INTS = ["0", "1", "2", "3", "-1", "-2", "-3", "5", "16", "17", "100", "1000", "2**31-1", "2**31",
            "-2**31", "-2**31-1", "2**32", "2**62", "2**63-1", "2**63", "-2**63", "-2**63-1", "2**64",
            "10**30", "-10**30", "True", "False"]
SMALL_INTS = ["0", "1", "2", "-1", "-2", "3", "-3", "4"]
ODD_FLOATS = ["0.0", "-0.0", "1.0", "-1.5", "0.5", "2.5", "1e-300", "5e-324", "1e308", "-1e308", "nan",
              "inf", "-inf", "2.0**63", "1e20", "3.0"]
ODD_COMPLEX = ["1j", "(1+2j)", "(-0.5+0j)", "complex(nan, inf)", "complex(inf, 0)", "0j"]
NUMPY_SCALARS = ["np.int64(-1)", "np.int64(2**63-1)", "np.uint64(2**64-1)", "np.int8(-128)", "np.uint8(255)",
                 "np.int32(3)", "np.float32(nan)", "np.float32(0.5)", "np.float64(-inf)", "np.float16(1.5)",
                 "np.bool_(True)", "np.bool_(False)", "np.complex64(1j)", "np.complex128(complex(2, -1))",
                 "np.longdouble(1)", "np.str_('a')", "np.datetime64('2020')", "np.timedelta64(5)",
                 "np.intc(1)", "np.uint16(7)"]
NUMPY_ARRAYS = ["np.array(2)", "np.array([1, 2])", "np.array([])", "np.array([[0, 1]])", "np.zeros((2, 0))",
                "np.array([1.5, -2.0])", "np.array(['a', 'b'])", "np.array([None, 1], dtype=object)",
                "np.ones(3, dtype=np.float16)", "np.array([1, 2], dtype=np.uint64)",
                "np.arange(12.0).reshape(3, 4).T", "np.arange(10)[::2]", "np.arange(10.0)[::-1]",
                "np.arange(4, dtype='>i4')", "np.zeros(2, dtype=[('a', 'i4')])",
                "np.broadcast_to(np.arange(3.0), (4, 3))", "np.array([2**63], dtype=np.uint64)",
                "np.array(['2020'], dtype='datetime64[D]')", "np.array([3], dtype='timedelta64[s]')",
                "np.array([nan, inf, -inf])", "np.ones((1,) * 17)", "np.ones((2, 3), dtype=np.complex64)",
                "np.array([True, False])", "np.array(5, dtype=np.int8)",
                "np.array([[1, 2], [3, 4]], order='F')", "np.ones((3,), dtype=np.longdouble)",
                "np.array([1, 2], dtype=np.uint8)"]
LISTS = ["[]", "[[]]", "[[], []]", "[1, [2]]", "[[1, 2], [3]]", "[1, 'a']", "[None]", "[1.5, 2]",
         "[True, 2]", "[1+1j, 2]", "[2**63]", "[-1, -1]", "[0, -1]", "[1] * 17", "(1, 2)", "()", "(3,)",
         "[2, 3]", "[-1]", "[3, -1]", "[1, 2, 3]", "[0]", "[1, 0]", "[2**31, 2**31]", "list(range(20))",
         "[nan]", "[inf, 1]", "[[1, 2], [3, 4]]", "[[[1.0]]]", "[[1, 2], 3]", "range(3)", "deep(17)",
         "deep(64)", "deep(3000)", "[np.int64(2), np.int64(3)]", "[np.float64(1.5)]", "[np.array(1)]",
         "[np.datetime64('2020')]", "(2**63,)", "[-2**63]", "[1, None]", "[[1], [2, 3]]", "[1.0] * 100"]
STRINGS = ["''", "'a'", "'float32'", "'kfloat32'", "'save_opinfo'", "'save_constant'", "'cpu'", "'\\x00'",
           "'\\u00e9'", "'x' * 10000", "b'ab'", "bytearray(b'ab')",
           "memoryview(b'abcd')"]
OTHERS = ["None", "None", "None", "Ellipsis", "slice(None)", "slice(1, 2)", "object()", "{}", "{'a': 1}",
          "set()", "frozenset([1])", "int", "float", "QT", "CT", "f_none", "f_ident", "f_raise", "len",
          "abs", "NotImplemented", "OddIndex()", "OddFloat()", "BadLen()"]
CALLABLES = ["f_none", "f_ident", "f_raise", "f_tuple", "f_args", "len", "abs", "QT", "gf('exp')",
             "gf('mul')", "gf('sums')", "None", "1"]


# Tensors and graph objects that operators meet least often: 0-d, empty, on an accelerator,
# rank 16, non-finite values, results with edges, edges whose derivative raises.
ODD_TENSORS = ["qt((), 'float64')", "qt((0,), 'float32')", "qt((2, 0), 'complex64', 1000)",
               "qt((3,), 'bool', 1001)", "qt((), 'int8', 1000, True)", "qt((1,) * 16, 'float32', 0, True)",
               "qt((3,), 'float32', 1000, True, 'special')", "qt((2, 3), 'uint8', 0, 'yes')",
               "res('exp', qt((2, 3), 'float32', 1001, True))", "res('sums', qt((), 'float64', 0, True))",
               "ct((), 'int8')", "ct((0, 3), 'uint8', 1001)", "ct((2, 2), 'complex128', 1000, 'special')",
               "gn(qt((2,), 'float32'), f_raise)", "gf('exp')", "T.toposort(qt((2,), 'float32'))"]

# Every odd value once: a sweep gives each to each callable (ODD_VALUES x callables, in turn).
ODD_VALUES = list(dict.fromkeys(ODD_INTS + ODD_FLOATS + ODD_COMPLEX + NUMPY_SCALARS + NUMPY_ARRAYS + LISTS
                                + STRINGS + OTHERS + CALLABLES + ODD_TENSORS))


def namespace():
    """The names call lines are written in."""
    import numpy as np
    from pytramel import _core as C
    from pytramel.tensor import tensor as T

    def arr(shape, dtype, fill="seq"):
        n = math.prod(shape)
        kind = np.dtype(dtype).kind
        if fill == "zeros":
            base = np.zeros(n)
        elif fill == "ones":
            base = np.ones(n)
        elif fill == "special" and kind in "fc":
            base = np.resize(np.array([np.nan, np.inf, -np.inf, 0.0, -0.0, 1e30, -1e-30, 3.0]), n)
        elif fill == "special" and kind in "iu":
            info = np.iinfo(dtype)
            return np.resize(np.array([0, info.max, info.min, 1, info.max - 1], dtype=dtype), n).reshape(shape)
        else:
            base = (np.arange(n) % 11 - 5) * 0.25
        if kind == "b":
            return (base != 0).reshape(shape)
        if kind in "iu":
            base = np.abs(np.rint(base * 4)) if kind == "u" else np.rint(base * 4)
        out = base.astype(dtype)
        if kind == "c" and fill == "seq":
            out = out + 0.5j * base[::-1].astype(dtype)
        return out.reshape(shape)

    def qt(shape, dtype, device=0, rg=False, fill="seq"):
        return T.QTensor(arr(shape, dtype, fill), requires_grad=rg, device=device)

    def ct(shape, dtype, device=0, fill="seq"):
        return C.Tensor(arr(shape, dtype, fill), device)

    def gn(tensor, df=None, name=""):
        return T.QTensor.GraphNode(tensor, df, name)

    def gf(op):
        x = qt((2, 3), "float32", 0, True)
        y = {"exp": lambda: T.exp(x), "mul": lambda: T.mul(x, qt((3,), "float32")),
             "sums": lambda: T.sums(x, 1)}[op]()
        return y.nodes[0].df

    def res(op, x):
        """A graph result: op applied to x (a tensor with edges), or x where op refuses its dtype."""
        try:
            return getattr(T, op)(x)
        except (TypeError, ValueError, IndexError, RuntimeError):
            return x

    def deep(n):
        v = 1.0
        for _ in range(n):
            v = [v]
        return v

    class OddIndex:
        """An object whose __index__ is 2**63."""
        def __index__(self):
            return 2**63

    class OddFloat:
        def __float__(self):
            raise ValueError("no float")

    class BadLen:
        """A sequence that lies about its length."""
        def __len__(self):
            return 5

        def __getitem__(self, i):
            if i >= 2:
                raise IndexError(i)
            return i + 1

    def f_raise(*a, **k):
        raise ValueError("from a callback")

    return {
        "np": np, "C": C, "T": T, "TR": C.tramel, "QT": T.QTensor, "CT": C.Tensor, "GN": T.QTensor.GraphNode,
        "nan": float("nan"), "inf": float("inf"), "qt": qt, "ct": ct, "arr": arr, "gn": gn, "gf": gf,
        "res": res, "deep": deep, "OddIndex": OddIndex, "OddFloat": OddFloat, "BadLen": BadLen,
        "f_none": lambda *a, **k: None, "f_ident": lambda g, *a: g, "f_raise": f_raise,
        "f_tuple": lambda *a: a, "f_args": lambda *a: list(a), "R": {},
        "tensor": T, "tramel": C.tramel, "_core": C,
    }


class Gen:
    """Argument expressions, drawn from one random stream.

    `wild` is the chance that a typed generator (a device, an axis, a shape...) gives a value
    outside what its parameter takes. Random calls are wild; in sweep calls, where one argument
    is the odd value under test, the others are mostly well-formed, so that the call gets as far
    as that argument.
    """

    def __init__(self, rng, pool, wild):
        self.rng, self.pool, self.wild = rng, pool, wild  # pool: {call number: kind} of results in R
        self.shared = None

    def pick(self, seq):
        return seq[self.rng.randrange(len(seq))]

    def chance(self, p):
        return self.rng.random() < p

    def odd(self):
        return self.rng.random() < self.wild

    # tensors
    def random_layout(self):
        shape = self.rng.choices(SHAPES, SHAPE_WEIGHTS)[0]
        return shape, self.pick(DTYPE_NAMES), self.pick(DEVICES)

    def layout(self):
        """Mostly the call's shared (shape, dtype, device) when it has one: operations of several
        tensors refuse most unrelated operands before they reach their kernels."""
        if self.shared and self.chance(0.85):
            return self.shared
        return self.random_layout()

    def pooled(self, kind):
        """An earlier call's result, mostly of the kind asked for."""
        keys = [k for k, v in self.pool.items() if v == kind or self.chance(0.1)]
        return f"R[{self.pick(keys)}]" if keys else None

    def qtensor(self):
        if self.pool and self.chance(0.2):
            pooled = self.pooled("QTensor")
            if pooled:
                return pooled
        shape, dtype, device = self.layout()
        rg = self.pick(["False", "True", "True", "1", "None", "'yes'", "0"]) if self.chance(0.5) else "False"
        fill = self.pick(FILLS)
        if self.chance(0.15):   # a graph result instead of a leaf
            op = self.pick(["exp", "neg", "square", "sums", "mean", "tanh", "log_softmax", "abs"])
            return f"res({op!r}, qt({shape!r}, {dtype!r}, {device}, True, {fill!r}))"
        return f"qt({shape!r}, {dtype!r}, {device}, {rg}, {fill!r})"

    def core(self):
        if self.pool and self.chance(0.1):
            pooled = self.pooled("Tensor")
            if pooled:
                return pooled
        shape, dtype, device = self.layout()
        return f"ct({shape!r}, {dtype!r}, {device}, {self.pick(FILLS)!r})"

    def tensor_like(self):
        r = self.rng.random()
        if r < 0.55:
            return self.core()
        if r < 0.75:
            return self.qtensor()
        if r < 0.9:
            shape, dtype, _ = self.layout()
            return f"arr({shape!r}, {dtype!r}, {self.pick(FILLS)!r})"
        return self.any()

    def graph_node(self):
        return f"gn({self.qtensor()}, {self.pick(CALLABLES)}, {self.pick(STRINGS + ['1'])})"

    # numbers and shapes
    def small_int(self):
        if self.odd():
            return self.pick(ODD_INTS)
        if self.shared and self.chance(0.4):
            ndim = len(self.shared[0])
            return str(self.rng.randrange(-ndim - 1, ndim + 1))
        return self.pick(SMALL_INTS)

    def int_like(self):
        if not self.odd():
            return self.small_int()
        return self.pick(self.pick([ODD_INTS, ODD_INTS, NUMPY_SCALARS, NUMPY_ARRAYS, ODD_FLOATS]))

    def related_axes(self):
        """An axis or a permutation of the shared shape's axes."""
        ndim = len(self.shared[0])
        if ndim == 0 or self.chance(0.5):
            return str(self.rng.randrange(-ndim - 1, ndim + 1))
        order = list(range(ndim))
        self.rng.shuffle(order)
        return repr(order)

    def related_shape(self):
        """A shape of as many elements as the shared one, or one more, or with a -1."""
        shape = list(self.shared[0])
        n = math.prod(shape)
        return repr(self.pick([shape, shape[::-1], [n], [-1], [1, n], [n, -1], [-1, 1] + shape[1:],
                               shape + [1], [n + 1], [0, -1], [2, -1]]))

    def int_list(self, items):
        n = self.rng.randrange(0, 4)
        text = ", ".join(items() for _ in range(n))
        return f"[{text}]" if self.chance(0.7) else f"({text}{',' if n == 1 else ''})"

    def axes(self):
        if self.odd():
            return self.pick(LISTS + NUMPY_ARRAYS + ODD_INTS)
        if self.shared and self.chance(0.5):
            return self.related_axes()
        return self.small_int() if self.chance(0.4) else self.int_list(self.small_int)

    def shape(self):
        if self.odd():
            return self.pick(LISTS + NUMPY_ARRAYS + ODD_INTS)
        if self.shared and self.chance(0.4):
            return self.related_shape()
        return self.int_list(lambda: self.pick(["0", "1", "2", "3", "4"]) if self.chance(0.9) else self.int_like())

    def device(self):
        if not self.odd():
            return self.pick(["0", "0", "1000", "1001"])
        return self.pick(["1002", "-1", "999", "1", "2**31", "2**63", "None", "np.int64(1000)", "'cpu'",
                          "1000.0", "True"])

    def dtype(self):
        if not self.odd():
            return str(self.rng.randrange(10))
        return self.pick(["-1", "10", "99", "None", "2**63", "np.float32", "'float32'", "np.int64(6)",
                          "True", "6.0", "np.dtype('float64')"])

    def real(self):
        return self.any() if self.odd() else self.pick(ODD_FLOATS + SMALL_INTS)

    def scalar(self):
        if self.odd():
            return self.any()
        return self.pick(ODD_FLOATS + SMALL_INTS + ODD_COMPLEX + NUMPY_SCALARS + ["True", "False"] + ODD_INTS)

    def truthy(self):
        return self.pick(["True", "False", "0", "1", "None", "'x'", "[]", "np.bool_(True)", "np.array([1, 2])",
                          "qt((2,), 'float32')"])

    def any(self):
        if self.chance(0.2):
            return self.pick([self.qtensor, self.core, self.graph_node])()
        return self.pick(ODD_VALUES)

    # by parameter
    def for_param(self, p):
        if self.odd() and self.chance(0.5):
            return self.any()
        a, n = p.annotation, p.name
        if "list[QTensor]" in a or n in ("tensor_list", "tensors", "inputs"):
            k = self.rng.randrange(0, 4)
            items = [self.qtensor() if not self.odd() else self.any() for _ in range(k)]
            return f"[{', '.join(items)}]"
        if "QTensor" in a:
            return self.qtensor()
        if "Tensor" in a and ("bool" in a or "float" in a):
            return self.core() if self.chance(0.6) else self.scalar()
        if "Tensor" in a:
            return self.core()
        if "Sequence[int]" in a:
            return self.axes() if n not in ("shape", "new_shape", "ref", "reps") else self.shape()
        if "list[int]" in a:
            return self.shape()
        if n == "device":
            return self.device()
        if n in ("dtype", "target_dtype"):
            return self.dtype()
        if a.startswith("int"):
            if n in ("size", "nums", "n", "seed"):
                return self.int_like() if self.odd() else self.pick(["0", "1", "3", "5", "16"])
            return self.int_like()
        if a.startswith("float"):
            return self.real()
        if a.startswith("bool | int"):
            return self.scalar()
        if a.startswith("bool"):
            return self.truthy()
        # `object` parameters: by their name
        if n in ("requires_grad", "keepdims", "unbiased", "if_new", "equal_nan", "wrap_scalar", "copy"):
            return self.truthy()
        if n in ("nodes", "link_nodes"):
            k = self.rng.randrange(0, 3)
            return self.any() if self.odd() else f"[{', '.join(self.graph_node() for _ in range(k))}]"
        if n in ("df", "parents"):
            return self.pick(CALLABLES)
        if n in ("name", "key"):
            return self.pick(STRINGS + ["1", "None"])
        if n in ("value",):
            return self.scalar()
        if n in ("rtol", "atol", "min_val", "max_val"):
            return self.real()
        if n in ("shape", "t_shape", "sa", "sb"):
            return self.shape()
        if n in ("data", "array", "tensor", "x", "g", "src", "core_tensor", "param", "un_broadcast_grad",
                 "broadcast_grad", "result", "grad", "other", "other_tensor", "end_node", "q", "y", "t"):
            return self.tensor_like()
        return self.any()

    def self_for(self, cls, names):
        if self.odd() and self.chance(0.2):
            return self.any()
        if cls is names["QT"]:
            return self.qtensor()
        if cls is names["CT"]:
            return self.core()
        if cls is names["GN"]:
            return self.graph_node()
        if cls is names["T"].GradFn:
            return self.pick(["gf('exp')", "gf('mul')", "gf('sums')"])
        if cls.__name__ == "_TopoSortIterator":
            return f"T.toposort({self.qtensor()})"
        return self.any()

    def call(self, target, names, forced=None):
        """(positional expressions, keyword expressions) for one call of target; `forced`, when
        given, is the expression of one argument (self included), at a place of the stream's choice."""
        self.shared = self.random_layout() if self.chance(0.6) else None
        if target.kind == "get":
            args, kwargs = [self.self_for(target.owner, names)], {}
        elif target.kind == "set":
            args, kwargs = [self.self_for(target.owner, names), self.for_param(Param(target.prop))], {}
        else:
            params = self.pick(target.signatures)
            positional = [p for p in params if not p.keyword_only]
            required = sum(not p.optional for p in positional)
            count = self.rng.randint(required, len(positional))
            if self.odd() and self.chance(0.1):
                count = max(0, count + self.pick([-1, 1, 2]))
            if forced and count == 0 and target.kind != "method":
                count = 1
            args = [self.for_param(positional[i]) if i < len(positional) else self.any() for i in range(count)]
            kwargs = {}
            for p in params[count:]:
                if (p.keyword_only and not p.optional) or self.chance(0.15):
                    kwargs[p.name] = self.for_param(p)
            if self.odd() and self.chance(0.05):
                kwargs["bogus"] = self.any()
            if target.kind == "method":
                args.insert(0, self.self_for(target.owner, names))
        if forced:
            args[self.rng.randrange(len(args))] = forced
        return args, kwargs


# ------------------------------------------------------------------------------------ the child

def _describe_exception(e):
    return f"{type(e).__name__}: {str(e)[:300]}"


def _problem(e):
    """Why an exception a call raised is a fault, or None when it is an ordinary refusal."""
    message = str(e).lower()
    if isinstance(e, SystemError):
        return "SystemError"
    if any(m in message for m in PENDING_ERROR_MESSAGES):
        return "pending error"
    if not isinstance(e, ALLOWED_EXCEPTIONS):
        return "unexpected exception type"
    return None


def child_main(seed, start, stop, fd, probe):
    import resource
    os.environ["PYTRAMEL_EMULATED_ACCELERATORS"] = "2"
    if ADDRESS_SPACE_MB > 0:
        limit = ADDRESS_SPACE_MB << 20
        resource.setrlimit(resource.RLIMIT_AS, (limit, limit))
    warnings.simplefilter("ignore")
    faulthandler.enable()   # a crash's Python stack on stderr, which the report quotes
    sys.setrecursionlimit(3000)
    names = namespace()
    from pytramel import _core as C
    from pytramel.tensor import tensor as T
    targets = discover([("_core", C), ("tramel", C.tramel), ("tensor", T)])
    if probe:
        targets = _probe_targets(probe, names)
    R = names["R"]
    qtensor, core_tensor = T.QTensor, C.Tensor
    keep = (T.QTensor, C.Tensor, T.QTensor.GraphNode, T.GradFn)
    compiled = {}
    counts = collections.Counter()
    tampered = set()      # ids of pooled objects whose fields a setter changed
    out = os.fdopen(fd, "w", buffering=1)

    def emit(kind, *fields):
        out.write("\t".join([kind, *(str(f).replace("\t", " ").replace("\n", "\\n") for f in fields)]) + "\n")
        out.flush()

    def ev(expr):
        code = compiled.get(expr)
        if code is None:
            if len(compiled) > 20000:
                compiled.clear()
            code = compiled[expr] = compile(expr, "<call>", "eval")
        return eval(code, names)

    def check_result(i, line, result, inputs):
        items = result if isinstance(result, (tuple, list)) else (result,)
        for item in items[:8]:
            if not isinstance(item, qtensor) or any(item is x for x in inputs) or id(item) in tampered:
                continue
            try:
                data = item.data
                if isinstance(data, core_tensor) and item.device != data.device:
                    emit("F", i, "device disagrees with data.device", line,
                         f"device {item.device!r}, data.device {data.device!r}")
            except Exception as e:  # noqa: BLE001 - any failure to read a result is reported
                problem = _problem(e)
                if problem:
                    emit("F", i, problem + " reading the result", line, _describe_exception(e))

    emit("T", len(targets), json.dumps(sorted(t.name for t in targets)))
    rng = random.Random()
    guards = C._guard_violations()
    # Even calls sweep: call 2j goes to callable t = j % len(targets) with odd value
    # (j // len(targets) + 53 t) % len(ODD_VALUES) as one of its arguments, so that every callable
    # meets every odd value once in 2 * len(ODD_VALUES) * len(targets) calls, and a shorter run
    # gives each callable a different run of values. Odd calls draw everything at random.
    sweep = len(ODD_VALUES) * len(targets)
    for i in range(start, stop):
        rng.seed(seed * 1_000_003 + i)
        pool = {k: type(v).__name__ for k, v in R.items()}
        if i % 2 == 0:
            gen = Gen(rng, pool, wild=0.05)
            j = (i // 2) % sweep
            t = j % len(targets)
            target = targets[t]
            value = ODD_VALUES[(j // len(targets) + 53 * t) % len(ODD_VALUES)]
            arg_exprs, kw_exprs = gen.call(target, names, forced=value)
        else:
            gen = Gen(rng, pool, wild=0.35)
            target = targets[rng.randrange(len(targets))]
            arg_exprs, kw_exprs = gen.call(target, names)
        text = ", ".join(arg_exprs + [f"{k}={v}" for k, v in kw_exprs.items()])
        line = f"{target.expr}({text})"
        emit("C", i, target.name, line)
        try:
            args = [ev(e) for e in arg_exprs]
            kwargs = {k: ev(v) for k, v in kw_exprs.items()}
        except BaseException as e:  # noqa: BLE001
            problem = _problem(e)
            if problem:
                emit("F", i, problem + " building the arguments", line, _describe_exception(e))
            counts["arguments refused"] += 1
            continue
        fault = known_fault(target, args, kwargs)
        if fault:
            counts["skipped: " + fault] += 1
            emit("S", i, fault)
            continue
        inputs = args + list(kwargs.values())
        try:
            result = target.fn(*args, **kwargs)
        except BaseException as e:  # noqa: BLE001
            problem = _problem(e)
            if problem:
                emit("F", i, problem, line, _describe_exception(e))
            counts["raised " + type(e).__name__] += 1
            result = None
        else:
            counts["returned"] += 1
            if target.kind == "set" and arg_exprs[0].startswith("R["):
                tampered.add(id(args[0]))
            if any(id(x) in tampered for x in inputs):
                if isinstance(result, qtensor):
                    tampered.add(id(result))
            check_result(i, line, result, inputs)
            if isinstance(result, keep) and not any(result is x for x in inputs):
                R[i] = result
        del args, kwargs, inputs, result
        # keep the last few results, for 100 calls at most, as arguments of later calls
        for k in [k for k in R if k < i - 100] + sorted(R)[:-12]:
            obj = R.pop(k, None)
            tampered.discard(id(obj))
        now = C._guard_violations()
        if now != guards:
            emit("F", i, "guard bytes damaged", line, f"{now - guards} guard violation(s), noticed after this call")
            guards = now
        if i % 5000 == 4999:
            emit("P", json.dumps(counts))   # the counts so far, in case this child dies
    R.clear()
    import gc
    gc.collect()
    now = C._guard_violations()
    if now != guards:
        emit("F", stop - 1, "guard bytes damaged", "(at the end of the run)", f"{now - guards} violation(s)")
    emit("P", json.dumps(counts))
    emit("D")
    out.close()


def _probe_targets(probe, names):
    """A synthetic callable that misbehaves on purpose, to check that the harness sees it."""
    import ctypes

    def crash(*a):
        ctypes.string_at(0)

    def hang(*a):
        time.sleep(3600)

    def system_error(*a):
        raise SystemError("error return without exception set")

    def wrong_device(*a):
        x = names["QT"]([1.0, 2.0])
        x.device = 1000
        return x

    fn = {"crash": crash, "hang": hang, "system_error": system_error, "wrong_device": wrong_device}[probe]
    return [Target("probe." + probe, "probe", fn, "call", signatures=[[]])]


# ----------------------------------------------------------------------------------- the parent

class Report:
    def __init__(self):
        self.targets = []
        self.failures = []     # (kind, call number, call, detail)
        self.counts = collections.Counter()
        self.calls = 0
        self.restarts = 0
        self.seconds = 0.0

    def text(self):
        lines = [f"{len(self.failures)} failure(s) in {self.calls} calls:"]
        for kind, i, call, detail in self.failures[:40]:
            lines.append(f"- [{kind}] call #{i}: {call}\n    {detail}")
        return "\n".join(lines)


def _child_env():
    env = dict(os.environ)
    env["PYTRAMEL_EMULATED_ACCELERATORS"] = "2"
    # Under the address-space limit: one malloc arena per thread would reserve 64 MiB each, and a
    # thread's stack takes the size of the main one; neither is what the limit is for.
    env.setdefault("MALLOC_ARENA_MAX", "2")
    env.setdefault("OMP_STACKSIZE", "1M")
    return env


def run_fuzz(seed=SEED, calls=CALLS, start=START, probe=None, stall_s=STALL_S, max_restarts=MAX_RESTARTS,
             log=None):
    """Runs calls [start, start + calls) in children; returns a Report."""
    report, stop, t0 = Report(), start + calls, time.monotonic()
    nxt = start
    recent = collections.deque(maxlen=300)  # the last call lines, to name earlier calls a call used
    while nxt < stop:
        rfd, wfd = os.pipe()
        err = tempfile.TemporaryFile()
        proc = subprocess.Popen(
            [sys.executable, HERE, "--child", str(seed), str(nxt), str(stop), str(wfd), probe or ""],
            pass_fds=(wfd,), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err, env=_child_env())
        os.close(wfd)
        buf, last, done, killed, counts = b"", None, False, False, {}
        last_time = time.monotonic()
        with os.fdopen(rfd, "rb", buffering=0) as pipe:
            while True:
                ready, _, _ = select.select([pipe], [], [], 1.0)
                if ready:
                    chunk = pipe.read(1 << 16)
                    if not chunk:
                        break
                    last_time = time.monotonic()
                    buf += chunk
                    *lines, buf = buf.split(b"\n")
                    for raw in lines:
                        fields = raw.decode("utf-8", "replace").split("\t")
                        kind = fields[0]
                        if kind == "C":
                            last = (int(fields[1]), fields[3])
                            recent.append(last)
                            report.calls = max(report.calls, int(fields[1]) - start + 1)
                        elif kind == "F":
                            report.failures.append((fields[2], int(fields[1]), fields[3], fields[4]))
                        elif kind == "T":
                            report.targets = json.loads(fields[2])
                        elif kind == "P":
                            counts = json.loads(fields[1])
                        elif kind == "D":
                            done = True
                elif time.monotonic() - last_time > stall_s:
                    proc.kill()
                    killed = True
                    break
            rc = proc.wait()
        report.counts.update(counts)
        err.seek(0)
        stderr_tail = err.read()[-1500:].decode("utf-8", "replace")
        err.close()
        if done and rc == 0:
            break
        i, call = last if last else (nxt, "(before the first call)")
        if killed:
            kind = f"hang (no progress for {stall_s:g} s)"
        elif rc < 0:
            kind = f"crash ({signal.Signals(-rc).name})"
        else:
            kind = f"crash (exit status {rc})"
        used = sorted({int(k) for k in _pool_refs(call)})
        earlier = [f"#{j}: {c}" for j, c in recent if j in used]
        detail = (f"earlier calls it used: {'; '.join(earlier)}\n    " if earlier else "") + \
            f"stderr: {stderr_tail.strip()[-600:]}\n    " + \
            f"again: PYTRAMEL_FUZZ_SEED={seed} PYTRAMEL_FUZZ_START={max(start, i - 200)} PYTRAMEL_FUZZ_CALLS=" + \
            f"{i + 1 - max(start, i - 200)}, or alone: python {os.path.relpath(HERE)} --replay {shlex.quote(call)}"
        report.failures.append((kind, i, call, detail))
        if log:
            log(f"{kind} at call #{i}: {call}")
        report.restarts += 1
        nxt = i + 1
        if report.restarts > max_restarts:
            break
    report.seconds = time.monotonic() - t0
    return report


def _pool_refs(call):
    import re
    return re.findall(r"R\[(\d+)\]", call)


# ------------------------------------------------------------------------------------- the tests

def test_fuzz_every_public_callable():
    report = run_fuzz()
    print(f"\nfuzz: {len(report.targets)} callables, {report.calls} calls from #{START}, seed {SEED}, "
          f"{report.seconds:.1f} s, {report.restarts} restart(s)")
    for key, value in sorted(report.counts.items()):
        print(f"  {key}: {value}")
    assert not report.failures, report.text()
    assert report.calls == CALLS
    # Discovery: the tensor module's helpers are in, the engine's test hooks are out, and classes
    # bring their methods, slots, static methods and properties.
    names = set(report.targets)
    for expected in ("tensor.exp", "tensor._broadcast", "tensor.QTensor", "tensor.QTensor.backward",
                     "tensor.QTensor.__add__", "tensor.QTensor.data.set", "tensor.QTensor.GraphNode.df.get",
                     "_core.Tensor.zeros", "_core.Tensor.sum", "_core.set_num_threads", "tramel.tile"):
        assert expected in names
    assert not [n for n in names if n.startswith(("_core._", "tramel._"))]


def test_fuzz_harness_reports_a_misbehaving_call():
    """The harness itself: a crash, a hang, a SystemError and a result on the wrong device are each
    reported with the call that caused them."""
    # A planted segfault is a SIGSEGV, or a SIGABRT where a sanitizer catches it first.
    for probe, kind in (("crash", "crash (SIG"), ("hang", "hang"), ("system_error", "SystemError"),
                        ("wrong_device", "device disagrees with data.device")):
        report = run_fuzz(seed=1, calls=3, probe=probe, stall_s=3, max_restarts=0)
        assert report.failures, probe
        got, i, call, _ = report.failures[0]
        assert got.startswith(kind), (probe, report.text())
        assert i == 0 and call.startswith("probe("), (probe, report.text())


if __name__ == "__main__":
    if sys.argv[1:2] == ["--child"]:
        seed_, start_, stop_, fd_ = (int(a) for a in sys.argv[2:6])
        child_main(seed_, start_, stop_, fd_, sys.argv[6] if len(sys.argv) > 6 else "")
    elif sys.argv[1:2] == ["--replay"]:
        os.environ["PYTRAMEL_EMULATED_ACCELERATORS"] = "2"
        faulthandler.enable()
        print(repr(eval(sys.argv[2], namespace())))
