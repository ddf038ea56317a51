"""The core engine's element-wise operations, gradient kernels, sums and shape changes."""
import numpy as np
import pytest

from pytramel import _core
from pytramel import dtype as D
from conftest import CORE_MSG, DEVICES, GPU0, host, sample

T = _core.Tensor
tramel = _core.tramel

NP = {D.kbool: np.bool_, D.kuint8: np.uint8, D.kint8: np.int8, D.kint16: np.int16, D.kint32: np.int32,
      D.kint64: np.int64, D.kfloat32: np.float32, D.kfloat64: np.float64, D.kcomplex64: np.complex64,
      D.kcomplex128: np.complex128}
ALL = list(NP)
INTS = [D.kuint8, D.kint8, D.kint16, D.kint32, D.kint64]
FLOATS = [D.kfloat32, D.kfloat64]
COMPLEX = [D.kcomplex64, D.kcomplex128]
REAL_NUM = INTS + FLOATS
INEXACT = FLOATS + COMPLEX


def core(a, device=0):
    return T(np.asarray(a), device, -1)


def tol(nptype):
    single = np.dtype(nptype) in (np.dtype(np.float32), np.dtype(np.complex64))
    return dict(rtol=2e-6 if single else 1e-13, atol=1e-6 if single else 1e-13)


def domain(kind, nptype, shape=(3, 4), seed=0):
    """Inputs of an element type inside a function's domain."""
    rng = np.random.default_rng(seed)
    if kind == "unit":  # |x| < 1 for asin, acos
        a = rng.uniform(-0.9, 0.9, shape) + (0.3j * rng.uniform(-0.9, 0.9, shape) if np.dtype(nptype).kind == "c" else 0)
        return a.astype(nptype)
    if kind == "pos":
        a = rng.uniform(0.2, 3.0, shape) + (0.5j * rng.uniform(-1, 1, shape) if np.dtype(nptype).kind == "c" else 0)
        return a.astype(nptype)
    if kind == "trig":  # wide enough to reach every quadrant, and the libm fallback
        a = rng.uniform(-20, 20, shape)
        a.flat[0], a.flat[1] = 3e5, -1e6
        return (a + (0.5j * rng.uniform(-1, 1, shape) if np.dtype(nptype).kind == "c" else 0)).astype(nptype)
    if kind == "exp":
        a = rng.uniform(-30, 30, shape)
        return (a + (1j * rng.uniform(-10, 10, shape) if np.dtype(nptype).kind == "c" else 0)).astype(nptype)
    return sample(shape, nptype, seed)


# ----------------------------------------------------------------- one-input operations

# name, numpy reference, supported dtypes, input domain, dtypes lifted to the default float
UNARY = [
    ("neg", np.negative, REAL_NUM + COMPLEX, "any"),
    ("abs", np.abs, ALL, "any"),
    ("square", np.square, REAL_NUM + COMPLEX, "any"),
    ("sqrt", np.sqrt, INEXACT, "pos"),
    ("exp", np.exp, INEXACT, "exp"),
    ("log", np.log, INEXACT, "pos"),
    ("sin", np.sin, INEXACT, "trig"),
    ("cos", np.cos, INEXACT, "trig"),
    ("tan", np.tan, INEXACT, "any"),
    ("asin", np.arcsin, INEXACT, "unit"),
    ("acos", np.arccos, INEXACT, "unit"),
    ("atan", np.arctan, INEXACT, "any"),
    ("sinh", np.sinh, INEXACT, "any"),
    ("cosh", np.cosh, INEXACT, "any"),
    ("tanh", np.tanh, INEXACT, "any"),
    ("sign", lambda a: np.where(a == 0, 0, a / np.where(a == 0, 1, np.abs(a))).astype(a.dtype), REAL_NUM + COMPLEX, "any"),
    ("conj", lambda a: np.conj(a).astype(a.dtype), ALL, "any"),
    ("floor", np.floor, REAL_NUM, "any"),
    ("ceil", np.ceil, REAL_NUM, "any"),
    ("round", np.round, REAL_NUM, "any"),
    ("reciprocal", lambda a: 1 / a, INEXACT, "pos"),
]
LIFTED = {"sqrt", "exp", "log", "sin", "cos", "tan", "asin", "acos", "atan", "sinh", "cosh", "tanh", "reciprocal"}


@pytest.mark.parametrize("name,ref,dtypes,kind", UNARY, ids=[u[0] for u in UNARY])
@pytest.mark.parametrize("dt", ALL, ids=[np.dtype(NP[d]).name for d in ALL])
def test_unary_against_numpy(name, ref, dtypes, kind, dt):
    nptype = NP[dt]
    if dt not in dtypes and not (name in LIFTED and dt not in COMPLEX):
        with pytest.raises(ValueError, match=rf"^\[{name}\] dtype {np.dtype(nptype).name} is not supported"):
            getattr(T, name)(core(sample((2,), nptype)))
        return
    a = domain(kind if dt in INEXACT else "any", nptype)
    r = getattr(T, name)(core(a, GPU0))
    if dt not in dtypes:  # integers and bools computed in the default float dtype
        assert r.dtype == D.get_default_dtype()
        a = a.astype(np.float32)
    with np.errstate(all="ignore"):
        expected = ref(a)
    got = host(r)
    assert got.dtype == expected.dtype and r.device == GPU0
    np.testing.assert_allclose(got, expected, **tol(expected.dtype))


@pytest.mark.parametrize("name,values,expected", [
    ("round", [0.5, 1.5, 2.5, -0.5, -2.5, 2.4999], [0.0, 2.0, 2.0, -0.0, -2.0, 2.0]),
    ("sign", [np.nan, -0.0, 3.0, -np.inf], [np.nan, 0.0, 1.0, -1.0]),
    ("exp", [1000.0, -1000.0, np.inf, -np.inf, np.nan, -np.nan, 88.7, -103.0, -740.0], None),
    ("abs", [-np.inf, np.nan, -0.0], [np.inf, np.nan, 0.0]),
])
@pytest.mark.parametrize("nptype", [np.float32, np.float64])
def test_unary_special_values(name, values, expected, nptype):
    with np.errstate(all="ignore"):
        exp = np.exp(np.asarray(values, nptype)) if expected is None else np.asarray(expected, nptype)
    got = host(getattr(T, name)(core(np.asarray(values, nptype))))
    # float32 denormals keep few significant bits
    np.testing.assert_allclose(got, exp, rtol=2e-6, atol=1e-44 if nptype is np.float32 else 0, equal_nan=True)


def test_complex_special_values():
    z = np.array([0j, 3 + 4j, 800 + 0j, complex(np.inf, 0), complex(-np.inf, 1)])
    np.testing.assert_allclose(host(core(z).sign()), [0, 0.6 + 0.8j, 1, 1, -1])
    with np.errstate(all="ignore"):
        np.testing.assert_allclose(host(core(z).exp()), np.exp(z), rtol=1e-13)
    r = core(z.astype(np.complex64)).abs()
    assert r.dtype == D.kfloat32 and host(r)[1] == 5


# ----------------------------------------------------------------- two-input operations

BINARY = [
    ("add", np.add, ALL),
    ("sub", np.subtract, REAL_NUM + COMPLEX),
    ("mult", np.multiply, ALL),
    ("div", None, REAL_NUM + COMPLEX),
    ("element_pow", None, REAL_NUM + COMPLEX),
    ("maximum", np.maximum, [D.kbool] + REAL_NUM),
    ("minimum", np.minimum, [D.kbool] + REAL_NUM),
    ("equal", np.equal, ALL),
    ("not_equal", np.not_equal, ALL),
    ("greater", np.greater, [D.kbool] + REAL_NUM),
    ("greater_equal", np.greater_equal, [D.kbool] + REAL_NUM),
    ("less", np.less, [D.kbool] + REAL_NUM),
    ("less_equal", np.less_equal, [D.kbool] + REAL_NUM),
    ("logical_and", np.logical_and, ALL),
    ("logical_or", np.logical_or, ALL),
    ("logical_xor", np.logical_xor, ALL),
]


def reference_binary(name, ref, a, b):
    if name == "div":
        if a.dtype.kind in "iu":  # truncating, and x / 0 is 0
            q = np.trunc(a.astype(np.float64) / np.where(b == 0, 1, b))
            return np.where(b == 0, 0, q).astype(a.dtype)
        return a / b
    if name == "element_pow":
        if a.dtype.kind in "iu":
            return np.power(a, np.abs(b)) * np.where(b < 0, 0, 1).astype(a.dtype) + \
                np.where((b < 0) & (a == 1), 1, 0).astype(a.dtype) + \
                np.where((b < 0) & (a.astype(np.int64) == -1), np.where(b % 2 == 0, 1, -1), 0).astype(a.dtype)
        return np.power(a, b)
    return ref(a, b)


@pytest.mark.parametrize("name,ref,dtypes", BINARY, ids=[b[0] for b in BINARY])
@pytest.mark.parametrize("dt", ALL, ids=[np.dtype(NP[d]).name for d in ALL])
def test_binary_against_numpy(name, ref, dtypes, dt):
    nptype = NP[dt]
    a, b = sample((3, 4), nptype, 1), sample((3, 4), nptype, 2)
    if name == "element_pow" and dt in INEXACT:
        a = domain("pos", nptype)
    if dt not in dtypes:
        with pytest.raises(ValueError, match=rf"^\[{name}\] dtype {np.dtype(nptype).name} is not supported"):
            getattr(T, name)(core(a), core(b))
        return
    got = getattr(T, name)(core(a, GPU0), core(b, GPU0))
    with np.errstate(all="ignore"):
        expected = reference_binary(name, ref, a, b)
    assert got.device == GPU0 and host(got).dtype == expected.dtype
    np.testing.assert_allclose(host(got), expected, **tol(expected.dtype))


@pytest.mark.parametrize("a,b,expected", [
    ([1.0, np.nan, 2.0], [np.nan, 1.0, 3.0], [np.nan, np.nan, 3.0]),
    ([-0.0, np.inf], [0.0, 7.0], [-0.0, np.inf]),
])
def test_maximum_lets_nan_win(a, b, expected):
    got = host(T.maximum(core(np.array(a)), core(np.array(b))))
    np.testing.assert_array_equal(got, np.maximum(a, b))
    np.testing.assert_array_equal(host(T.minimum(core(np.array(a)), core(np.array(b)))), np.minimum(a, b))


def test_integer_division_edge_cases_do_not_crash():
    a = np.array([7, -7, np.iinfo(np.int64).min, 5], np.int64)
    b = np.array([2, 2, -1, 0], np.int64)
    np.testing.assert_array_equal(host(core(a).div(core(b))), [3, -3, np.iinfo(np.int64).min, 0])
    np.testing.assert_array_equal(host(core(a.astype(np.int8)[:2]).div(0)), [0, 0])
    np.testing.assert_array_equal(host(core(np.array([1.0, -1.0, 0.0])).div(0.0)), [np.inf, -np.inf, np.nan])


# Integers wrap around in their own type, as numpy's do (the arithmetic is defined
# at the extremes: the sanitizer build runs these).
@pytest.mark.parametrize("nptype", [np.int8, np.int16, np.int32, np.int64, np.uint8])
def test_integer_arithmetic_wraps_as_numpy_does(nptype):
    lo, hi = np.iinfo(nptype).min, np.iinfo(nptype).max
    a = np.array([lo, hi, lo, hi, lo, -3 if lo else 253, 7], nptype)
    b = np.array([lo, hi, hi, 1, 3, 3, 21], nptype)
    powers = np.array([2, 2, 3, 5, 7, 5, 21], nptype)
    with np.errstate(over="ignore"):
        for name, ref in [("add", np.add), ("sub", np.subtract), ("mult", np.multiply)]:
            np.testing.assert_array_equal(host(getattr(core(a), name)(core(b))), ref(a, b), err_msg=name)
        np.testing.assert_array_equal(host(core(a).element_pow(core(powers))), a ** powers)
        np.testing.assert_array_equal(host(core(a).add(int(hi))), a + b[1], err_msg="add a number")
        for name, ref in [("neg", np.negative), ("abs", np.abs), ("square", np.square)]:
            if name == "neg" and not lo:
                continue  # no negation of unsigned integers
            np.testing.assert_array_equal(host(getattr(core(a), name)()), ref(a), err_msg=name)
        in_place = core(a)
        in_place.mult_(core(b))
        np.testing.assert_array_equal(host(in_place), a * b)


# Sums of integers are int64 and wrap around there, on every path: one run, runs over
# threads, whole rows folded together.
def test_integer_sums_wrap_in_int64():
    top = np.iinfo(np.int64).max
    for a, axes in [(np.full(70001, top), []), (np.full((3, 70001), top), [1]), (np.full((70001, 3), top), [0]),
                    (np.full((5, 4, 3), top), [0, 2])]:
        with np.errstate(over="ignore"):
            want = np.sum(a, axis=tuple(axes) or None, dtype=np.int64)
        got = host(T.sum(core(a), axes, False)) if axes else host(T.sum(core(a)))[0]
        np.testing.assert_array_equal(got, want)


# (left dtype, right operand, result dtype) under the float32 default
PROMOTION = [
    (D.kint32, np.float64, D.kfloat64),
    (D.kfloat32, np.int64, D.kfloat32),
    (D.kfloat64, np.complex64, D.kcomplex128),
    (D.kuint8, np.int8, D.kint16),
    (D.kbool, np.int16, D.kint16),
    (D.kint32, 2, D.kint32),
    (D.kint32, 1.5, D.kfloat32),
    (D.kbool, 3, D.kint64),
    (D.kbool, True, D.kbool),
    (D.kfloat32, 1j, D.kcomplex64),
    (D.kfloat64, 1j, D.kcomplex128),
    (D.kint64, 2j, D.kcomplex64),
    (D.kuint8, 1000, D.kuint8),
    (D.kcomplex64, 2.5, D.kcomplex64),
]


@pytest.mark.parametrize("left,right,result", PROMOTION)
def test_promotion(left, right, result):
    a = sample((4,), NP[left], 3)
    t = core(a)
    other = core(sample((4,), right, 4)) if isinstance(right, type) else right
    r = t.mult(other)
    assert r.dtype == result
    rhs = host(other) if isinstance(right, type) else right
    with np.errstate(all="ignore"):
        expected = (a.astype(NP[result]) * np.asarray(rhs).astype(NP[result]))
    np.testing.assert_allclose(host(r), expected, rtol=1e-6)
    assert t.equal(other).dtype == D.kbool


def test_in_place_keeps_dtype_and_object():
    t = core(np.array([1.0, 2.0, 3.0], np.float32))
    ident = id(t)
    t.div_(3)
    t.mult_(core(np.array([3, 3, 3])))
    t.add_(0.5)
    assert id(t) == ident and t.dtype == D.kfloat32
    np.testing.assert_allclose(host(t), [1.5, 2.5, 3.5])
    i = core(np.array([3, 4, 5], np.int32))
    i.mult_(1.5)
    assert i.dtype == D.kint32
    np.testing.assert_array_equal(host(i), [4, 6, 7])
    shared = i.reshape([3])
    i.add_(1)
    np.testing.assert_array_equal(host(shared), [4, 6, 7])


def test_add_tensor_list_adds_first_once():
    a, b, c = (core(np.array([1.0, 2.0]) * k) for k in (1, 10, 100))
    np.testing.assert_array_equal(host(T.add_tensor_list(a, [a, b, c])), [111.0, 222.0])
    np.testing.assert_array_equal(host(T.add_tensor_list(a, [a, b])), [11.0, 22.0])
    np.testing.assert_array_equal(host(a), [1.0, 2.0])


@pytest.mark.parametrize("name,ref", [
    ("isfinite", np.isfinite), ("isinf", np.isinf), ("isnan", np.isnan),
    ("isneginf", np.isneginf), ("isposinf", np.isposinf), ("logical_not", np.logical_not)])
@pytest.mark.parametrize("nptype", [np.float32, np.float64, np.int16, np.bool_, np.complex128])
def test_classify(name, ref, nptype):
    a = np.array([0, 1, -2, 3, 5], nptype)
    if np.dtype(nptype).kind in "fc":
        a = np.array([0, np.inf, -np.inf, np.nan, 2.5]).astype(nptype)
    if nptype is np.complex128 and name in ("isneginf", "isposinf"):
        with pytest.raises(ValueError, match=CORE_MSG):
            getattr(T, name)(core(a))
        return
    got = getattr(T, name)(core(a))
    assert got.dtype == D.kbool
    np.testing.assert_array_equal(host(got), ref(a))


@pytest.mark.parametrize("nptype,lo,hi", [(np.float64, -1.0, 2.0), (np.float32, None, 0.5), (np.int32, -2, 3),
                                          (np.int8, -1000, 1000), (np.float64, 1.0, None)])
def test_clamp_and_its_gradient(nptype, lo, hi):
    a = np.array([-3, -1, 0, 1, 2, 5, np.nan if nptype != np.int32 and nptype != np.int8 else 4]).astype(nptype)
    r = core(a).clamp(lo, hi)
    np.testing.assert_array_equal(host(r), np.clip(a, lo, hi))
    g = core(np.arange(1.0, 8.0))
    inside = (a >= (-np.inf if lo is None else lo)) & (a <= (np.inf if hi is None else hi))
    np.testing.assert_array_equal(host(core(a).clamp_grad(g, lo, hi)), np.where(inside, np.arange(1.0, 8.0), 0))


# ----------------------------------------------------------------- log_softmax

def test_log_softmax_and_gradient():
    x = np.random.default_rng(0).normal(size=(3, 4, 5)) * 4
    for axis in (0, 1, 2, -1):
        ref = x - np.max(x, axis, keepdims=True)
        ref = ref - np.log(np.exp(ref).sum(axis, keepdims=True))
        out = tramel.log_softmax(core(x), axis)
        np.testing.assert_allclose(host(out), ref, rtol=1e-12, atol=1e-12)
        g = np.random.default_rng(1).normal(size=x.shape)
        # d/dx of sum(g * log_softmax(x)), by central differences on a few elements
        got = host(tramel.log_softmax_grad(core(g), out, axis))
        for idx in [(0, 0, 0), (2, 3, 4), (1, 2, 0)]:
            e = np.zeros_like(x)
            e[idx] = 1e-6
            ls = lambda v: np.sum(g * host(tramel.log_softmax(core(v), axis)))
            assert got[idx] == pytest.approx((ls(x + e) - ls(x - e)) / 2e-6, rel=1e-5, abs=1e-7)
    with pytest.raises(ValueError, match=r"^\[log_softmax\] dtype complex128 is not supported"):
        tramel.log_softmax(core(x + 1j), 0)


# ----------------------------------------------------------------- sums and means

@pytest.mark.parametrize("axes", [[0], [-1], [1, 2], [0, 2], [2, 0], [-3, -2, -1], []], ids=str)
@pytest.mark.parametrize("keepdims", [False, True])
@pytest.mark.parametrize("nptype", [np.bool_, np.int8, np.uint8, np.int32, np.float32, np.float64, np.complex64])
def test_sum_mean_over_axes(axes, keepdims, nptype):
    a = sample((3, 4, 5), nptype, 5)
    t = core(a, GPU0)
    s, m = T.sum(t, axes, keepdims), T.mean(t, axes, keepdims)
    ax = tuple(axes)
    want_s = np.sum(a, axis=ax, keepdims=keepdims, dtype=np.int64 if a.dtype.kind in "biu" else None)
    want_m = np.mean(a, axis=ax, keepdims=keepdims, dtype=np.float32 if a.dtype.kind in "biu" else None)
    assert (s.device, host(s).dtype, host(m).dtype) == (GPU0, want_s.dtype, want_m.dtype)
    np.testing.assert_allclose(host(s), want_s, rtol=1e-6)
    np.testing.assert_allclose(host(m), want_m, rtol=1e-6)


@pytest.mark.parametrize("n", [0, 1, 7, 4096, 4097, 300001])
@pytest.mark.parametrize("nptype", [np.float32, np.float64, np.complex128, np.int16, np.bool_])
def test_sum_all_has_shape_one(n, nptype):
    a = sample((n,), nptype, 6) if n < 1000 else np.random.default_rng(0).uniform(-1, 1, n).astype(nptype)
    s = T.sum(core(a))
    assert s.shape == [1]
    exact = np.sum(a.astype(np.complex128 if a.dtype.kind == "c" else np.float64))
    np.testing.assert_allclose(host(s)[0], exact, rtol=1e-6, atol=1e-4)
    m = T.mean(core(a.reshape(1, -1)))
    assert m.shape == [1]
    if n:
        np.testing.assert_allclose(host(m)[0], exact / n, rtol=1e-5, atol=1e-6)


def test_mean_all_grad():
    g = core(np.array([6.0 - 3j]))
    r = tramel.mean_all_grad(g, [2, 3])
    assert r.shape == [2, 3]
    np.testing.assert_allclose(host(r), np.full((2, 3), 1.0 - 0.5j))
    with pytest.raises(ValueError, match=CORE_MSG):
        tramel.mean_all_grad(core(np.ones(2)), [2])


@pytest.mark.parametrize("bad", [[3], [0, 0], [-4]], ids=str)
def test_sum_rejects_bad_axes(bad):
    with pytest.raises((ValueError, IndexError), match=r"^\[sum\]"):
        T.sum(core(np.ones((2, 3, 4))), bad, False)


# ----------------------------------------------------------------- shapes

@pytest.mark.parametrize("sa,sb", [((2, 3), (3,)), ((4, 1, 3), (2, 1)), ((1,), (2, 2)), ((), (3,)), ((2, 0), (1,))],
                         ids=str)
def test_broadcast_pairs(sa, sb):
    a, b = sample(sa, np.float32, 1), sample(sb, np.int32, 2)
    x, y = T.broadcast(core(a), core(b))
    ea, eb = np.broadcast_arrays(a, b)
    np.testing.assert_array_equal(host(x), ea)
    np.testing.assert_array_equal(host(y), eb)
    assert (x.dtype, y.dtype) == (D.kfloat32, D.kint32)
    np.testing.assert_array_equal(host(T.broadcast_to(core(a, GPU0), list(ea.shape))), ea)


@pytest.mark.parametrize("shape,reps", [((3,), [2]), ((2, 3), [2, 1]), ((2, 3), [3]), ((2,), [2, 2, 3]),
                                        ((1, 2, 1), (3, 1, 4)), ((2, 2), [0, 2]), ((2, 3), [1, 1])], ids=str)
def test_tile_and_its_gradient(shape, reps):
    a = sample(shape, np.float64, 3)
    t = tramel.tile(core(a), reps)
    tiled = np.tile(a, reps)
    np.testing.assert_array_equal(host(t), tiled)
    g = np.random.default_rng(0).normal(size=tiled.shape)
    # The gradient of tile is the adjoint: <tile(a), g> == <a, TileGrad(g)>.
    back = host(tramel.TileGrad(core(g), list(shape), list(reps)))
    assert back.shape == shape
    assert np.sum(tiled * g) == pytest.approx(np.sum(a * back))


def test_reshape_shares_and_reshape_in_place_keeps_identity():
    t = core(np.arange(6.0))
    for shape in ([2, 3], (3, 2), np.array([1, 6]), [-1, 2]):
        r = t.reshape(shape)
        assert r is not t and r.shape == list(np.arange(6).reshape(tuple(shape)).shape)
    r = t.reshape([2, 3])
    t.add_(1.0)  # copy-on-write: the reshaped tensor keeps its values
    np.testing.assert_array_equal(host(r), np.arange(6.0).reshape(2, 3))
    same = t
    T.reshape_(t, [3, 2])
    t.reshape_((6, 1))
    assert same is t and t.shape == [6, 1]
    with pytest.raises(ValueError, match=r"^\[reshape"):
        t.reshape([4, 2])


# ----------------------------------------------------------------- bad input

@pytest.mark.parametrize("call,exc,message", [
    (lambda: core(np.ones((2, 3))).add(core(np.ones(3))), ValueError, r"^\[add\] shapes differ: \[2, 3\] and \[3\]"),
    (lambda: core(np.ones(2)).mult(core(np.ones(2), GPU0)), RuntimeError,
     r"^\[mult\] tensors are on different devices: 0 and 1000"),
    (lambda: core(np.ones(2), GPU0).div_(core(np.ones(2), 1001)), RuntimeError, "different devices: 1000 and 1001"),
    (lambda: tramel.exp_grad(core(np.ones(2)), core(np.ones(3))), ValueError, r"^\[exp_grad\] shapes differ"),
    (lambda: core(np.ones(2, np.complex64)).greater(core(np.ones(2))), ValueError,
     r"^\[greater\] dtype complex128 is not supported"),
    (lambda: T.floor(core(np.ones(2, np.complex64))), ValueError, r"^\[floor\] dtype complex64 is not supported"),
    (lambda: core(np.ones(2, bool)).sub(core(np.ones(2, bool))), ValueError, r"^\[sub\] dtype bool is not supported"),
    (lambda: core(np.ones(2)).add("x"), TypeError, None),
    (lambda: T.broadcast(core(np.ones((2, 3))), core(np.ones(4))), ValueError, r"^\[broadcast\] shapes \[2, 3\] and \[4\]"),
    (lambda: T.broadcast_to(core(np.ones(3)), [2, 4]), ValueError, r"^\[broadcast_to\]"),
    (lambda: tramel.tile(core(np.ones(3)), [-1]), ValueError, r"^\[tile\]"),
    (lambda: tramel.TileGrad(core(np.ones(5)), [3], [2]), ValueError, r"^\[TileGrad\]"),
    (lambda: core(np.ones(2)).reshape([-1, -1]), ValueError, r"^\[reshape\]"),
    # sizes beyond int64, on the way to the -1 and to the tiled shape
    (lambda: core(np.ones(4)).reshape([-1, 2**62]), ValueError,
     r"^\[reshape\] shape \[-1, 4611686018427387904\] has too many elements$"),
    (lambda: core(np.ones(0)).reshape([2**62, -1, 2**62, 0]), ValueError,
     r"^\[reshape\] shape \[4611686018427387904, -1, 4611686018427387904, 0\] has too many elements$"),
    (lambda: core(np.ones(4)).reshape([-1, 2**63 - 1, 2]), ValueError, r"^\[reshape\] shape .* has too many elements$"),
    (lambda: tramel.tile(core(np.ones(4)), [2**62]), ValueError,
     r"^\[tile\] tiling shape \[4\] by \[4611686018427387904\] gives too many elements$"),
    (lambda: tramel.tile(core(np.ones((0, 3))), [2**62]), ValueError,
     r"^\[tile\] tiling shape \[0, 3\] by \[4611686018427387904\] gives too many elements$"),
    (lambda: tramel.tile(core(np.ones(4)), [0, 2**63 - 1]), ValueError,
     r"^\[tile\] tiling shape .* too many elements$"),
    (lambda: tramel.TileGrad(core(np.ones(4)), [4], [2**62]), ValueError, r"^\[TileGrad\] tiling shape \[4\] by"),
    (lambda: T.add_tensor_list(core(np.ones(2)), [core(np.ones(2)), 3]), TypeError, None),
])
def test_errors(call, exc, message):
    with pytest.raises(exc) as info:
        call()
    if message:
        assert info.match(message)
