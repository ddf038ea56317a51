"""Fuzzing: every public callable of both extension modules, called with bad and odd arguments.

`discover` finds the callables: the functions of `pytramel.tensor.tensor` (its `_`-helpers
included), of `pytramel._core` and `_core.tramel` (whose `_`-names are test hooks and stay out),
and the constructors, methods, slots, static methods and properties of every class they define.

A child process (this file, run as a script) makes the calls, writing each to a pipe first as an
expression that rebuilds it: when the child dies (a signal, a sanitizer's abort, an exit status)
or writes nothing for PYTRAMEL_FUZZ_STALL_S seconds, the last call written is reported and a new
child goes on. Arguments come from a generator seeded by (seed, call number), so a run is
reproducible and resumes anywhere. A call also fails on SystemError or a pending Python error, an
exception outside ALLOWED_EXCEPTIONS, a new QTensor whose `device` disagrees with `data.device`,
or damaged guard bytes after an emulated accelerator's buffer. The child runs under an
address-space limit (PYTRAMEL_FUZZ_ADDRESS_SPACE_MB), so huge integers and shapes are fuzzed freely.

More calls, and one reported call alone in a fresh process (docs/fuzzing.md):
    PYTRAMEL_FUZZ_CALLS=1000000 PYTRAMEL_FUZZ_SEED=7 python -m pytest -q -s tests/test_fuzz.py -k every_public
    python tests/test_fuzz.py --replay "_core.Tensor(np.timedelta64(5))"
"""
import collections
import faulthandler
import functools
import inspect
import json
import math
import os
import queue
import random
import re
import select
import shlex
import signal
import subprocess
import sys
import tempfile
import threading
import time
import warnings

HERE = os.path.abspath(__file__)
ENV = os.environ.get
CALLS = int(ENV("PYTRAMEL_FUZZ_CALLS", "80000"))
SEED = int(ENV("PYTRAMEL_FUZZ_SEED", "20240611"))
START = int(ENV("PYTRAMEL_FUZZ_START", "0"))   # the number of the first call
STALL_S = float(ENV("PYTRAMEL_FUZZ_STALL_S", "20"))
ADDRESS_SPACE_MB = int(ENV("PYTRAMEL_FUZZ_ADDRESS_SPACE_MB", "3072"))
MAX_RESTARTS = int(ENV("PYTRAMEL_FUZZ_MAX_RESTARTS", "20"))   # children started after a crash or hang

# Ordinary refusals of a bad argument. MemoryError is an enormous size under the address-space
# limit, StopIteration an exhausted iterator, BufferError the buffer protocol's refusal.
ALLOWED_EXCEPTIONS = (TypeError, ValueError, IndexError, KeyError, AttributeError, RuntimeError,
                      AssertionError, OverflowError, ZeroDivisionError, MemoryError, StopIteration,
                      BufferError)
# CPython's and nanobind's reports of an error return without an exception, or a result with one
# set: a pending-error fault, whatever the exception's type.
PENDING_ERROR_MESSAGES = ("error return without exception set", "returned null without setting",
                          "returned a result with an exception set", "without setting an exception",
                          "with an exception set")

# ---------------------------------------------------------------------------------- discovery

# A benchmark probe whose argument is a loop count: any large value is a legitimate hang.
NOT_FUZZED = {"tensor._recording_step_ns"}
# Slots every class inherits or that only the interpreter calls.
SKIPPED_CLASS_NAMES = set(
    "__new__ __init_subclass__ __subclasshook__ __class__ __doc__ __module__ __dict__ __weakref__ __getattribute__ "
    "__setattr__ __delattr__ __dir__ __format__ __reduce__ __reduce_ex__ __getstate__ __sizeof__ __annotations__ "
    "__dataclass_fields__ __dataclass_params__ __match_args__ __slots__ __qualname__".split())

Param = collections.namedtuple("Param", "name annotation optional keyword_only", defaults=("", False, False))
# One callable: `expr` names it in a call line, `kind` is call, method, get or set; `signatures`
# holds one [Param] per overload, `self` left out.
Target = collections.namedtuple("Target", "expr fn kind signatures owner prop name", defaults=(None,) * 4)


def _signatures(fn, drop_self):
    """[[Param]] of every overload: from nanobind's 'def f(a: int, b: X = \\0) -> R' texts, else
    from inspect; three optional positional ones where neither knows."""
    if not getattr(fn, "__nb_signature__", None):
        try:
            params = list(inspect.signature(fn).parameters.values())[int(drop_self):]
        except (TypeError, ValueError):
            return [[Param(f"arg{i}", optional=True) for i in range(3)]]
        return [[Param(p.name, "" if p.annotation is p.empty else str(p.annotation), p.default is not p.empty,
                       p.kind == p.KEYWORD_ONLY) for p in params if p.kind not in (p.VAR_POSITIONAL, p.VAR_KEYWORD)]]
    out = []
    for sig, *_ in fn.__nb_signature__:
        parts, depth, cur = [], 0, ""
        for ch in sig[sig.index("(") + 1:]:
            if ch == ")" and depth == 0:
                break
            depth += (ch in "([{") - (ch in ")]}")
            parts, cur = (parts + [cur.strip()], "") if ch == "," and depth == 0 else (parts, cur + ch)
        params, keyword_only = [], False
        for part in filter(None, parts + [cur.strip()]):
            keyword_only = keyword_only or (part.startswith("*") and not part.startswith("**"))
            if part == "/" or part.startswith("*"):
                continue
            name, _, rest = part.partition(":")
            annotation, eq, _ = rest.partition("=")
            if not rest:
                name, eq, _ = part.partition("=")
            params.append(Param(name.strip(), annotation.strip(), bool(eq), keyword_only))
        out.append(params[1:] if drop_self and params and params[0].name == "self" else params)
    return out


def _own(obj):
    """Whether a module attribute belongs to pytramel (not numpy, builtins, ...)."""
    return type(obj).__name__.startswith("nb_") or (getattr(obj, "__module__", "") or "").startswith("pytramel")


def discover(modules):
    """Every fuzzed callable of the modules, given as [(short name, module)]: ("tensor", T), ..."""
    targets, seen, classes = [], set(), []

    def add(obj, expr, *args, **kw):
        if id(obj) not in seen:
            seen.add(id(obj))
            targets.append(Target(expr, obj, "call", *args, **kw))
            if inspect.isclass(obj):
                classes.append((obj, expr))

    def add_class(cls, expr):
        add(cls, expr, _signatures(cls.__init__, True) if "__init__" in vars(cls) else [[]])

    for short, mod in modules:
        for attr in sorted(dir(mod)):
            obj = getattr(mod, attr)
            if (attr.startswith("__") or inspect.ismodule(obj) or not callable(obj) or not _own(obj)
                    or (attr.startswith("_") and short != "tensor") or f"{short}.{attr}" in NOT_FUZZED):
                continue
            if inspect.isclass(obj):   # an alias goes by the class's own name
                add_class(obj, f"{short}.{obj.__name__ if getattr(mod, obj.__name__, None) is obj else attr}")
            else:
                add(obj, f"{short}.{attr}", _signatures(obj, False))
    for cls, cexpr in classes:   # nested classes join the list while it is walked
        for attr, raw in sorted(vars(cls).items()):
            expr = f"{cexpr}.{attr}"
            if attr in SKIPPED_CLASS_NAMES:
                continue
            if inspect.isclass(raw):
                if _own(raw):
                    add_class(raw, expr)
            elif isinstance(raw, property):
                targets += [Target(f"{cexpr}.__dict__[{attr!r}].f{kind}", fn, kind, owner=cls, prop=attr,
                                   name=f"{expr}.{kind}") for kind, fn in (("get", raw.fget), ("set", raw.fset)) if fn]
            elif isinstance(raw, (staticmethod, classmethod)):
                targets.append(Target(expr, getattr(cls, attr), "call", _signatures(getattr(cls, attr), False)))
            elif callable(raw):
                method = type(raw).__name__ != "nb_func"   # a bare nb_func in a class is a static method
                targets.append(Target(expr, raw, "method" if method else "call", _signatures(raw, method),
                                      owner=cls if method else None))
    return [t._replace(name=t.name or t.expr) for t in targets]


# ------------------------------------------------------------------- the values calls are made of
#
# Every argument is an expression over the names of `namespace()`; the call line is the target's
# expression applied to them, so a reported call can be run again as it stands. Tables are
# ';'-separated expressions.

def _throw(e):
    raise e


def _table(text):
    return [e.strip() for e in text.split(";")]


DTYPE_NAMES = "bool uint8 int8 int16 int32 int64 float32 float64 complex64 complex128".split()
SHAPES = [(), (0,), (1,), (2,), (3,), (5,), (2, 3), (3, 1), (1, 3), (2, 0), (0, 3), (3, 3),
          (2, 3, 4), (4, 1, 2, 1), (2, 1, 3, 1, 2), (1,) * 16, (1,) * 15 + (2,), (2,) * 16, (1, 70000)]
SHAPE_WEIGHTS = [6, 3, 5, 5, 6, 3, 8, 4, 4, 2, 2, 4, 4, 2, 1, 1, 1, 0.3, 0.3]
DEVICES = [0, 0, 0, 1000, 1000, 1001]
FILLS = ["seq", "seq", "seq", "special", "zeros", "ones"]

ODD_INTS = ("0 1 2 3 -1 -2 -3 5 16 17 1000 2**31-1 2**31 -2**31 -2**31-1 2**32 2**62 2**63-1 2**63 -2**63 "
            "-2**63-1 2**64 10**30 -10**30 True False").split()
SMALL_INTS = "0 1 2 -1 -2 3 -3 4".split()
ODD_FLOATS = "0.0 -0.0 1.0 -1.5 0.5 2.5 1e-300 5e-324 1e308 -1e308 nan inf -inf 2.0**63 1e20".split()
ODD_COMPLEX = _table("1j; (1+2j); (-0.5+0j); complex(nan, inf); complex(inf, 0); 0j")
NUMPY_SCALARS = _table("""np.int64(-1); np.int64(2**63-1); np.uint64(2**64-1); np.int8(-128); np.uint8(255);
    np.int32(3); np.uint16(7); np.float32(nan); np.float32(0.5); np.float64(-inf); np.float16(1.5); np.bool_(True);
    np.complex64(1j); np.complex128(complex(2, -1)); np.longdouble(1); np.str_('a'); np.datetime64('2020');
    np.timedelta64(5)""")
NUMPY_ARRAYS = _table("""np.array(2); np.array([1, 2]); np.array([]); np.zeros((2, 0)); np.array([1.5, -2.0]);
    np.array(['a', 'b']); np.array([None, 1], dtype=object); np.ones(3, dtype=np.float16);
    np.array([2**63], dtype=np.uint64); np.arange(12.0).reshape(3, 4).T; np.arange(10.0)[::-1];
    np.arange(4, dtype='>i4'); np.zeros(2, dtype=[('a', 'i4')]); np.broadcast_to(np.arange(3.0), (4, 3));
    np.array(['2020'], dtype='datetime64[D]'); np.array([3], dtype='timedelta64[s]'); np.array([nan, inf, -inf]);
    np.ones((1,) * 17); np.ones((2, 3), dtype=np.complex64); np.array([True, False]); np.array(5, dtype=np.int8);
    np.array([[1, 2], [3, 4]], order='F'); np.ones((3,), dtype=np.longdouble); np.array([1, 2], dtype=np.uint8)""")
LISTS = _table("""[]; [[]]; [[], []]; [1, [2]]; [[1, 2], [3]]; [1, 'a']; [None]; [1.5, 2]; [True, 2]; [1+1j, 2];
    [2**63]; [-1, -1]; [0, -1]; [1] * 17; (1, 2); (); (3,); [2, 3]; [-1]; [3, -1]; [1, 2, 3]; [0]; [2**31, 2**31];
    list(range(20)); [nan]; [inf, 1]; [[1, 2], [3, 4]]; [[[1.0]]]; [[1, 2], 3]; range(3); deep(17); deep(3000);
    [np.int64(2), np.int64(3)]; [np.float64(1.5)]; [np.array(1)]; [np.datetime64('2020')]; (2**63,); [-2**63];
    [1, None]""")
STRINGS = _table("""''; 'a'; 'float32'; 'kfloat32'; 'save_opinfo'; 'save_constant'; 'cpu'; '\\x00'; '\\u00e9';
    'x' * 10000; b'ab'; bytearray(b'ab'); memoryview(b'abcd')""")
OTHERS = _table("""None; None; None; Ellipsis; slice(None); slice(1, 2); object(); {}; {'a': 1}; set();
    frozenset([1]); int; float; QT; CT; len; abs; NotImplemented; OddIndex(); OddFloat(); BadLen()""")
CALLABLES = _table("f_none; f_ident; f_raise; f_tuple; f_args; len; abs; QT; gf('exp'); gf('mul'); gf('sums'); None; 1")
# Tensors and graph objects that operators meet least often: 0-d, empty, on an accelerator,
# rank 16, non-finite values, results with edges, edges whose derivative raises.
ODD_TENSORS = _table("""qt((), 'float64'); qt((0,), 'float32'); qt((2, 0), 'complex64', 1000);
    qt((3,), 'bool', 1001); qt((), 'int8', 1000, True); qt((1,) * 16, 'float32', 0, True);
    qt((3,), 'float32', 1000, True, 'special'); qt((2, 3), 'uint8', 0, 'yes');
    res('exp', qt((2, 3), 'float32', 1001, True)); res('sums', qt((), 'float64', 0, True)); ct((), 'int8');
    ct((0, 3), 'uint8', 1001); ct((2, 2), 'complex128', 1000, 'special'); gn(qt((2,), 'float32'), f_raise);
    gf('exp'); T.toposort(qt((2,), 'float32'))""")
# Every odd value once: a sweep gives each to each callable in turn.
ODD_VALUES = list(dict.fromkeys(ODD_INTS + ODD_FLOATS + ODD_COMPLEX + NUMPY_SCALARS + NUMPY_ARRAYS + LISTS
                                + STRINGS + OTHERS + CALLABLES + ODD_TENSORS))
# A typed generator's (well-formed, odd) values; no odd table: any value.
CHOICES = {k: (_table(good) if isinstance(good, str) else good, odd and _table(odd)) for k, (good, odd) in {
    "device": ("0; 0; 1000; 1001", "1002; -1; 999; 1; 2**31; 2**63; None; np.int64(1000); 'cpu'; 1000.0; True"),
    "dtype": ("0; 1; 2; 3; 4; 5; 6; 7; 8; 9",
              "-1; 10; 99; None; 2**63; np.float32; 'float32'; np.int64(6); True; 6.0; np.dtype('float64')"),
    "real": (ODD_FLOATS + SMALL_INTS, None),
    "scalar": (ODD_FLOATS + SMALL_INTS + ODD_COMPLEX + NUMPY_SCALARS + ["True", "False"] + ODD_INTS, None),
}.items()}
COUNTS = ["0", "1", "3", "5", "16"]
TRUTHY = _table("True; False; 0; 1; None; 'x'; []; np.bool_(True); np.array([1, 2]); qt((2,), 'float32')")
RESULT_OPS = "exp neg square sums mean tanh log_softmax abs".split()


def namespace():
    """The names call lines are written in."""
    import numpy as np
    from pytramel import _core as C
    from pytramel.tensor import tensor as T

    def arr(shape, dtype, fill="seq"):
        n, kind = math.prod(shape), np.dtype(dtype).kind
        if fill == "special" and kind in "iu":
            info = np.iinfo(dtype)
            return np.resize(np.array([0, info.max, info.min, 1, info.max - 1], dtype=dtype), n).reshape(shape)
        if fill == "special" and kind in "fc":
            base = np.resize(np.array([np.nan, np.inf, -np.inf, 0.0, -0.0, 1e30, -1e-30, 3.0]), n)
        else:
            base = {"zeros": np.zeros(n), "ones": np.ones(n)}.get(fill, (np.arange(n) % 11 - 5) * 0.25)
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

    def gf(op):
        x = qt((2, 3), "float32", 0, True)
        y = {"exp": lambda: T.exp(x), "mul": lambda: T.mul(x, qt((3,), "float32")), "sums": lambda: T.sums(x, 1)}[op]()
        return y.nodes[0].df

    def res(op, x):
        """op applied to x (a tensor with edges), or x where op refuses its dtype."""
        try:
            return getattr(T, op)(x)
        except (TypeError, ValueError, IndexError, RuntimeError):
            return x

    return {
        "np": np, "C": C, "T": T, "TR": C.tramel, "QT": T.QTensor, "CT": C.Tensor, "GN": T.QTensor.GraphNode,
        "nan": float("nan"), "inf": float("inf"), "qt": qt, "arr": arr, "gf": gf, "res": res,
        "deep": lambda n: functools.reduce(lambda v, _: [v], range(n), 1.0),
        "ct": lambda shape, dtype, device=0, fill="seq": C.Tensor(arr(shape, dtype, fill), device),
        "gn": lambda tensor, df=None, name="": T.QTensor.GraphNode(tensor, df, name),
        "OddIndex": type("OddIndex", (), {"__index__": lambda s: 2**63}),
        "OddFloat": type("OddFloat", (), {"__float__": lambda s: _throw(ValueError("no float"))}),
        # a sequence that lies about its length
        "BadLen": type("BadLen", (), {"__len__": lambda s: 5,
                                      "__getitem__": lambda s, i: _throw(IndexError(i)) if i >= 2 else i + 1}),
        "f_none": lambda *a, **k: None, "f_ident": lambda g, *a: g, "f_tuple": lambda *a: a,
        "f_raise": lambda *a, **k: _throw(ValueError("from a callback")), "f_args": lambda *a: list(a),
        "R": {}, "tensor": T, "tramel": C.tramel, "_core": C,
    }


class Gen:
    """Argument expressions, drawn from one random stream.

    `wild` is the chance that a typed generator (a device, an axis, a shape...) gives a value outside
    what its parameter takes. Random calls are wild; in sweep calls, where one argument is the odd
    value under test, the others are mostly well-formed, so that the call gets as far as that argument.
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

    def typed(self, kind):
        good, odd = CHOICES[kind]
        return (self.pick(odd) if odd else self.any()) if self.odd() else self.pick(good)

    def random_layout(self):
        return self.rng.choices(SHAPES, SHAPE_WEIGHTS)[0], self.pick(DTYPE_NAMES), self.pick(DEVICES)

    def layout(self):
        """Mostly the call's shared (shape, dtype, device) when it has one: operations of several
        tensors refuse most unrelated operands before they reach their kernels."""
        return self.shared if self.shared and self.chance(0.85) else self.random_layout()

    def pooled(self, kind, p):
        """Sometimes an earlier call's result, mostly of the kind asked for."""
        if self.pool and self.chance(p):
            keys = [k for k, v in self.pool.items() if v == kind or self.chance(0.1)]
            return f"R[{self.pick(keys)}]" if keys else None

    def qtensor(self):
        pooled = self.pooled("QTensor", 0.2)
        if pooled:
            return pooled
        shape, dtype, device = self.layout()
        rg = self.pick(["False", "True", "True", "1", "None", "'yes'", "0"]) if self.chance(0.5) else "False"
        fill = self.pick(FILLS)
        if self.chance(0.15):   # a graph result instead of a leaf
            return f"res({self.pick(RESULT_OPS)!r}, qt({shape!r}, {dtype!r}, {device}, True, {fill!r}))"
        return f"qt({shape!r}, {dtype!r}, {device}, {rg}, {fill!r})"

    def core(self):
        shape, dtype, device = self.layout()
        return self.pooled("Tensor", 0.1) or f"ct({shape!r}, {dtype!r}, {device}, {self.pick(FILLS)!r})"

    def tensor_like(self):
        r = self.rng.random()
        if r < 0.75:
            return self.core() if r < 0.55 else self.qtensor()
        shape, dtype, _ = self.layout()
        return f"arr({shape!r}, {dtype!r}, {self.pick(FILLS)!r})" if r < 0.9 else self.any()

    def listed(self, item, n):
        return f"[{', '.join(item() for _ in range(self.rng.randrange(n)))}]"

    def graph_node(self):
        return f"gn({self.qtensor()}, {self.pick(CALLABLES)}, {self.pick(STRINGS + ['1'])})"

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

    def int_list(self, items):
        n = self.rng.randrange(0, 4)
        text = ", ".join(items() for _ in range(n))
        return f"[{text}]" if self.chance(0.7) else f"({text}{',' if n == 1 else ''})"

    def axes(self):
        """Axes; with a shared shape, often one of its axes or a permutation of them."""
        if self.odd():
            return self.pick(LISTS + NUMPY_ARRAYS + ODD_INTS)
        ndim = len(self.shared[0]) if self.shared else 0
        if not self.shared or not self.chance(0.5):
            return self.small_int() if self.chance(0.4) else self.int_list(self.small_int)
        if ndim == 0 or self.chance(0.5):
            return str(self.rng.randrange(-ndim - 1, ndim + 1))
        order = list(range(ndim))
        self.rng.shuffle(order)
        return repr(order)

    def shape(self):
        """A shape; with a shared shape, often one of as many elements, or one more, or with a -1."""
        if self.odd():
            return self.pick(LISTS + NUMPY_ARRAYS + ODD_INTS)
        if self.shared and self.chance(0.4):
            s = list(self.shared[0])
            n = math.prod(s)
            return repr(self.pick([s, s[::-1], [n], [-1], [1, n], [n, -1], [-1, 1] + s[1:], s + [1], [n + 1], [0, -1],
                                   [2, -1]]))
        return self.int_list(lambda: self.pick("01234") if self.chance(0.9) else self.int_like())

    def any(self):
        if self.chance(0.2):
            return self.pick([self.qtensor, self.core, self.graph_node])()
        return self.pick(ODD_VALUES)

    def for_param(self, p):
        """A value for a parameter, chosen by PARAM_RULES."""
        if self.odd() and self.chance(0.5):
            return self.any()
        for pattern, names, make in PARAM_RULES:
            if (pattern and re.search(pattern, p.annotation)) or p.name in names.split():
                return make(self, p)
        return self.any()

    def self_for(self, cls, names):
        if self.odd() and self.chance(0.2):
            return self.any()
        if cls is names["T"].GradFn:
            return self.pick(["gf('exp')", "gf('mul')", "gf('sums')"])
        if cls.__name__ == "_TopoSortIterator":
            return f"T.toposort({self.qtensor()})"
        return {names["QT"]: self.qtensor, names["CT"]: self.core, names["GN"]: self.graph_node}.get(cls, self.any)()

    def call(self, target, names, forced=None):
        """(positional expressions, keyword expressions) for one call of target; `forced`, when
        given, is the expression of one argument (self included), at a place of the stream's choice."""
        self.shared = self.random_layout() if self.chance(0.6) else None
        if target.kind in ("get", "set"):
            args = [self.self_for(target.owner, names)] + [self.for_param(Param(target.prop))] * (target.kind == "set")
            kwargs = {}
        else:
            params = self.pick(target.signatures)
            positional = [p for p in params if not p.keyword_only]
            count = self.rng.randint(sum(not p.optional for p in positional), len(positional))
            if self.odd() and self.chance(0.1):
                count = max(0, count + self.pick([-1, 1, 2]))
            if forced and count == 0 and target.kind != "method":
                count = 1
            args = [self.for_param(positional[i]) if i < len(positional) else self.any() for i in range(count)]
            kwargs = {p.name: self.for_param(p) for p in params[count:]
                      if (p.keyword_only and not p.optional) or self.chance(0.15)}
            if self.odd() and self.chance(0.05):
                kwargs["bogus"] = self.any()
            if target.kind == "method":
                args.insert(0, self.self_for(target.owner, names))
        if forced:
            args[self.rng.randrange(len(args))] = forced
        return args, kwargs


# How a parameter's value is chosen: the first row whose pattern is found in the parameter's
# annotation, or which names the parameter, gives the generator.
PARAM_RULES = [
    (r"list\[QTensor\]", "tensor_list tensors inputs", lambda g, p: g.listed(lambda: g.any() if g.odd() else
                                                                                g.qtensor(), 4)),
    (r"QTensor", "", lambda g, p: g.qtensor()),
    (r"Tensor", "", lambda g, p: g.typed("scalar") if re.search("bool|float", p.annotation) and g.chance(0.4)
     else g.core()),
    (r"Sequence\[int\]", "", lambda g, p: g.shape() if p.name in ("shape", "new_shape", "ref", "reps") else g.axes()),
    (r"list\[int\]", "", lambda g, p: g.shape()),
    (None, "device", lambda g, p: g.typed("device")),
    (None, "dtype target_dtype", lambda g, p: g.typed("dtype")),
    (r"^int", "", lambda g, p: g.pick(COUNTS) if p.name in ("size", "nums", "n", "seed") and not g.odd()
     else g.int_like()),
    (r"^float", "rtol atol min_val max_val", lambda g, p: g.typed("real")),
    (r"^bool \| int", "value", lambda g, p: g.typed("scalar")),
    (r"^bool", "requires_grad keepdims unbiased if_new equal_nan wrap_scalar copy", lambda g, p: g.pick(TRUTHY)),
    (None, "nodes link_nodes", lambda g, p: g.any() if g.odd() else g.listed(g.graph_node, 3)),
    (None, "df parents", lambda g, p: g.pick(CALLABLES)),
    (None, "name key", lambda g, p: g.pick(STRINGS + ["1", "None"])),
    (None, "shape t_shape sa sb", lambda g, p: g.shape()),
    (None, "data array tensor x g src core_tensor param un_broadcast_grad broadcast_grad result grad other "
           "other_tensor end_node q y t", lambda g, p: g.tensor_like()),
]


# ------------------------------------------------------------------------------------ the child

MOVERS = ("toGPU", "toCPU", "to_gpu", "to_cpu")


def child_main(seed, start, stop, fd, probe):
    import gc
    import resource
    os.environ["PYTRAMEL_EMULATED_ACCELERATORS"] = "2"
    if ADDRESS_SPACE_MB > 0:
        resource.setrlimit(resource.RLIMIT_AS, (ADDRESS_SPACE_MB << 20,) * 2)
    warnings.simplefilter("ignore")
    faulthandler.enable()   # a crash's Python stack on stderr, which the report quotes
    sys.setrecursionlimit(3000)
    names = namespace()
    C, T, R = names["C"], names["T"], names["R"]
    targets = _probe_targets(probe, names) if probe else discover([("_core", C), ("tramel", C.tramel), ("tensor", T)])
    keep = (T.QTensor, C.Tensor, T.QTensor.GraphNode, T.GradFn)
    compiled, counts = {}, collections.Counter()
    tampered = set()      # ids of pooled objects whose fields a setter changed
    out = os.fdopen(fd, "w", buffering=1)

    def emit(kind, *fields):
        out.write("\t".join([kind, *(str(f).replace("\t", " ").replace("\n", "\\n") for f in fields)]) + "\n")

    def fault(i, e, what, line):
        """Reports an exception unless it is an ordinary refusal."""
        problem = ("SystemError" if isinstance(e, SystemError) else
                   "pending error" if any(m in str(e).lower() for m in PENDING_ERROR_MESSAGES) else
                   None if isinstance(e, ALLOWED_EXCEPTIONS) else "unexpected exception type")
        if problem:
            emit("F", i, problem + what, line, f"{type(e).__name__}: {str(e)[:300]}")

    def ev(expr):
        if expr not in compiled:
            if len(compiled) > 20000:
                compiled.clear()
            compiled[expr] = compile(expr, "<call>", "eval")
        return eval(compiled[expr], names)

    emit("T", len(targets), json.dumps(sorted(t.name for t in targets)))
    rng, guards = random.Random(), C._guard_violations()
    # Even calls sweep: call 2j goes to callable t = j % len(targets) with odd value
    # (j // len(targets) + 53 t) % len(ODD_VALUES) as one of its arguments, so that every callable
    # meets every odd value once in 2 * len(ODD_VALUES) * len(targets) calls, and a shorter run
    # gives each callable a different run of values. Odd calls draw everything at random.
    sweep = len(ODD_VALUES) * len(targets)
    for i in range(start, stop):
        rng.seed(seed * 1_000_003 + i)
        pool = {k: type(v).__name__ for k, v in R.items()}
        if i % 2 == 0:
            j = (i // 2) % sweep
            target = targets[j % len(targets)]
            forced = ODD_VALUES[(j // len(targets) + 53 * (j % len(targets))) % len(ODD_VALUES)]
            arg_exprs, kw_exprs = Gen(rng, pool, wild=0.05).call(target, names, forced=forced)
        else:
            target = targets[rng.randrange(len(targets))]
            arg_exprs, kw_exprs = Gen(rng, pool, wild=0.35).call(target, names)
        line = f"{target.expr}({', '.join(arg_exprs + [f'{k}={v}' for k, v in kw_exprs.items()])})"
        emit("C", i, target.name, line)
        try:
            args, kwargs = [ev(e) for e in arg_exprs], {k: ev(v) for k, v in kw_exprs.items()}
        except BaseException as e:  # noqa: BLE001
            fault(i, e, " building the arguments", line)
            counts["arguments refused"] += 1
            continue
        inputs = args + list(kwargs.values())
        try:
            result = target.fn(*args, **kwargs)
        except BaseException as e:  # noqa: BLE001
            fault(i, e, "", line)
            counts["raised " + type(e).__name__] += 1
            result = None
        else:
            counts["returned"] += 1
            # A setter changes fields; a move in place leaves its grad's device field behind.
            if (target.kind == "set" or target.name.rsplit(".", 1)[-1] in MOVERS) and arg_exprs[0].startswith("R["):
                tampered.add(id(args[0]))
            if isinstance(result, T.QTensor) and any(id(x) in tampered for x in inputs):
                tampered.add(id(result))
            # A new QTensor result must be where its data is (fields a setter changed are kept as given).
            for item in (result if isinstance(result, (tuple, list)) else (result,))[:8]:
                if isinstance(item, T.QTensor) and not any(item is x for x in inputs) and id(item) not in tampered:
                    try:
                        if isinstance(item.data, C.Tensor) and item.device != item.data.device:
                            emit("F", i, "device disagrees with data.device", line,
                                 f"device {item.device!r}, data.device {item.data.device!r}")
                    except Exception as e:  # noqa: BLE001 - any failure to read a result is reported
                        fault(i, e, " reading the result", line)
            if isinstance(result, keep) and not any(result is x for x in inputs):
                R[i] = result
        del args, kwargs, inputs, result
        # keep the last few results, for 100 calls at most, as arguments of later calls
        for k in [k for k in R if k < i - 100] + sorted(R)[:-12]:
            tampered.discard(id(R.pop(k, None)))
        if C._guard_violations() != guards:
            now = C._guard_violations()
            emit("F", i, "guard bytes damaged", line, f"{now - guards} guard violation(s), noticed after this call")
            guards = now
        if i % 5000 == 4999:
            emit("P", json.dumps(counts))   # the counts so far, in case this child dies
    R.clear()
    gc.collect()
    if C._guard_violations() != guards:
        emit("F", stop - 1, "guard bytes damaged", "(at the end of the run)",
             f"{C._guard_violations() - guards} violation(s)")
    emit("P", json.dumps(counts))
    emit("D")
    out.close()


def _probe_targets(probe, names):
    """A synthetic callable that misbehaves on purpose, to check that the harness sees it."""
    import ctypes

    def wrong_device(*a):
        x = names["QT"]([1.0, 2.0])
        x.device = 1000
        return x

    fn = {"crash": lambda *a: ctypes.string_at(0), "hang": lambda *a: time.sleep(3600), "wrong_device": wrong_device,
          "system_error": lambda *a: _throw(SystemError("error return without exception set"))}[probe]
    return [Target("probe", fn, "call", [[]], name="probe." + probe)]


# ----------------------------------------------------------------------------------- the parent

class Report:
    def __init__(self):
        self.targets, self.failures, self.counts = [], [], collections.Counter()   # failures: (kind, i, call, detail)
        self.calls = self.restarts = 0

    def text(self):
        return "\n".join([f"{len(self.failures)} failure(s) in {self.calls} calls:"] +
                         [f"- [{kind}] call #{i}: {call}\n    {detail}" for kind, i, call, detail in self.failures[:40]])


def run_fuzz(seed=SEED, calls=CALLS, start=START, probe=None, stall_s=STALL_S, max_restarts=MAX_RESTARTS):
    """Runs calls [start, start + calls) in children; returns a Report."""
    report, stop, t0, nxt = Report(), start + calls, time.monotonic(), start
    recent = collections.deque(maxlen=300)  # the last call lines, to name earlier calls a call used
    # Under the address-space limit: one malloc arena per thread would reserve 64 MiB each, and a
    # thread's stack takes the size of the main one; neither is what the limit is for.
    env = {"MALLOC_ARENA_MAX": "2", "OMP_STACKSIZE": "1M", **os.environ, "PYTRAMEL_EMULATED_ACCELERATORS": "2"}
    while nxt < stop:
        rfd, wfd = os.pipe()
        with tempfile.TemporaryFile() as err:
            proc = subprocess.Popen([sys.executable, HERE, "--child", str(seed), str(nxt), str(stop), str(wfd),
                                     probe or ""], pass_fds=(wfd,), stdin=subprocess.DEVNULL,
                                    stdout=subprocess.DEVNULL, stderr=err, env=env)
            os.close(wfd)
            lines = queue.Queue()   # the child's lines, then None at the end of the pipe
            threading.Thread(target=lambda: [*map(lines.put, os.fdopen(rfd, errors="replace")), lines.put(None)],
                             daemon=True).start()
            last, done, killed, counts = None, False, False, {}
            try:
                for raw in iter(functools.partial(lines.get, timeout=stall_s), None):
                    kind, *fields = raw.rstrip("\n").split("\t")
                    if kind == "C":
                        last = (int(fields[0]), fields[2])
                        recent.append(last)
                        report.calls = max(report.calls, last[0] - start + 1)
                    elif kind == "F":
                        report.failures.append((fields[1], int(fields[0]), fields[2], fields[3]))
                    elif kind == "T":
                        report.targets = json.loads(fields[1])
                    elif kind == "P":
                        counts = json.loads(fields[0])
                    done = done or kind == "D"
            except queue.Empty:   # nothing written for stall_s
                proc.kill()
                killed = True
            rc = proc.wait()
            err.seek(0)
            stderr_tail = err.read()[-1500:].decode("utf-8", "replace").strip()[-600:]
        report.counts.update(counts)
        if done and rc == 0:
            break
        # A crash (SIGSEGV; SIGABRT where a sanitizer catches it first), an exit status or a hang.
        i, call = last or (nxt, "(before the first call)")
        kind = (f"hang (no progress for {stall_s:g} s)" if killed else
                f"crash ({signal.Signals(-rc).name})" if rc < 0 else f"crash (exit status {rc})")
        used = {int(k) for k in re.findall(r"R\[(\d+)\]", call)}
        earlier = "; ".join(f"#{j}: {c}" for j, c in recent if j in used)
        first = max(start, i - 200)
        report.failures.append((kind, i, call, (f"earlier calls it used: {earlier}\n    " if earlier else "") +
                                f"stderr: {stderr_tail}\n    again: PYTRAMEL_FUZZ_SEED={seed} PYTRAMEL_FUZZ_START={first} "
                                f"PYTRAMEL_FUZZ_CALLS={i + 1 - first}, or alone: python {os.path.relpath(HERE)} "
                                f"--replay {shlex.quote(call)}"))
        report.restarts, nxt = report.restarts + 1, i + 1
        if report.restarts > max_restarts:
            break
    report.seconds = time.monotonic() - t0
    return report


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
    """A crash (SIGSEGV, or SIGABRT where a sanitizer catches it first), a hang, a SystemError and a
    result on the wrong device are each reported with the call that caused them."""
    for probe, kind in (("crash", "crash (SIG"), ("hang", "hang"), ("system_error", "SystemError"),
                        ("wrong_device", "device disagrees with data.device")):
        report = run_fuzz(seed=1, calls=3, probe=probe, stall_s=3, max_restarts=0)
        assert report.failures, probe
        got, i, call, _ = report.failures[0]
        assert got.startswith(kind), (probe, report.text())
        assert i == 0 and call.startswith("probe("), (probe, report.text())


if __name__ == "__main__":
    if sys.argv[1:2] == ["--child"]:
        child_main(*(int(a) for a in sys.argv[2:6]), sys.argv[6] if len(sys.argv) > 6 else "")
    elif sys.argv[1:2] == ["--replay"]:
        os.environ["PYTRAMEL_EMULATED_ACCELERATORS"] = "2"
        faulthandler.enable()
        print(repr(eval(sys.argv[2], namespace())))
