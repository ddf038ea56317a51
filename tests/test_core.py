"""The core engine's object model: construction, devices, dtypes, fills and queries."""
import gc
import re

import numpy as np
import pytest

from pytramel import _core
from pytramel import dtype as D
from conftest import CORE_MSG, DEVICES, DTYPE_IDS, DTYPES, GPU0, GPU1, host, sample

T = _core.Tensor
tramel = _core.tramel


@pytest.mark.parametrize("bad", [D.kint32, D.kcomplex64, D.kbool])
def test_default_dtype_accepts_only_real_floats(bad):
    with pytest.raises(ValueError):
        D.set_default_dtype(bad)
    assert D.get_default_dtype() == D.kfloat32


# ----------------------------------------------------------------- construction and host copies

@pytest.mark.parametrize("device", DEVICES)
@pytest.mark.parametrize("const,nptype", DTYPES, ids=DTYPE_IDS)
def test_round_trip_keeps_element_type(const, nptype, device):
    a = sample((2, 3), nptype)
    for t in (T(a, device, -1), T(a, device)):
        assert (t.dtype, t.device, D.get_readable_dtype_str(t.dtype)) == (const, device, np.dtype(nptype).name)
        back = host(t)
        assert back.dtype == np.dtype(nptype)
        np.testing.assert_array_equal(back, a)


@pytest.mark.parametrize("src,const,expected", [
    (np.array([1.7, -2.2, 3.0]), D.kint32, np.array([1, -2, 3], np.int32)),
    (np.array([1, 0, 3]), D.kfloat32, np.array([1.0, 0.0, 3.0], np.float32)),
    (np.array([True, False]), D.kfloat64, np.array([1.0, 0.0])),
    (np.array([2, -1]), D.kcomplex128, np.array([2 + 0j, -1 + 0j])),
    (np.array([0, 2, 0]), D.kbool, np.array([False, True, False])),
    (np.arange(24.0).reshape(4, 6)[::2, 1::2], D.kfloat64, np.arange(24.0).reshape(4, 6)[::2, 1::2]),
    (np.arange(6.0).reshape(2, 3).T, D.kfloat32, np.arange(6.0, dtype=np.float32).reshape(2, 3).T),
])
def test_construction_converts_and_reads_strided_arrays(src, const, expected):
    back = np.array(T(src, 0, const))
    assert back.dtype == expected.dtype
    np.testing.assert_array_equal(back, expected)


SHAPES = [(), (3,), (2, 0, 3), (2, 1, 3), (1, 2, 1, 2), (2,) * 5, (1, 2) * 3,
          (2, 1, 1, 2, 1, 1, 2), (1, 2, 1, 1, 2, 1, 1, 2)]


@pytest.mark.parametrize("shape", SHAPES, ids=str)
def test_ranks_zero_to_eight(shape):
    a = sample(shape, np.float64)
    t = T(a, 0, -1)
    assert (t.shape, t.getShape(), t.ndim, t.size) == (list(shape), list(shape), a.ndim, a.size)
    np.testing.assert_array_equal(np.array(t), a)
    z = T.zeros(list(shape), GPU0, D.kint16)
    assert (z.shape, z.ndim, z.size) == (list(shape), len(shape), a.size)


def test_shape_lists_are_fresh_and_host_copies_independent():
    a = np.arange(6.0).reshape(2, 3)
    t = T(a, 0, -1)
    for read in (lambda: t.shape, t.getShape):
        s1, s2 = read(), read()
        assert s1 == s2 == [2, 3] and s1 is not s2
        s1.insert(0, 7)
        assert read() == [2, 3] and s2 == [2, 3]
    a[0, 0] = 100.0
    out = np.array(t)
    out[0, 1] = -1.0
    np.testing.assert_array_equal(np.array(t), np.arange(6.0).reshape(2, 3))
    t2 = T(np.full((50, 50), 3.0), 0, -1)  # outlives its temporary source
    gc.collect()
    np.testing.assert_array_equal(np.array(t2), np.full((50, 50), 3.0))


@pytest.mark.parametrize("nptype", [np.uint8, np.int8, np.int64, np.float32, np.complex128])
def test_dlpack_export(nptype):
    a = sample((3, 4), nptype)
    t = T(a, 0, -1)
    d = np.from_dlpack(t)
    del t
    gc.collect()
    assert d.dtype == np.dtype(nptype)
    np.testing.assert_array_equal(d, a)


# Element types the engine has no type for, as arrays and as numpy scalars. numpy's
# datetime64 and timedelta64 scalars export a buffer without shape or strides.
FOREIGN = [
    np.datetime64("2020"), np.timedelta64(5), np.array(["2020-01", "2021-03"], "datetime64[M]"),
    np.array([1, 2], "timedelta64[s]"), np.float16(1.5), np.zeros((2, 2), np.float16), np.uint16(3),
    np.zeros(2, np.uint32), np.uint64(7), np.array([None, 1], object), np.str_("a"), np.array(["ab", "c"]),
    np.bytes_(b"a"), np.array([b"ab"]), np.zeros(2, "i4,f8"), np.zeros(2, "V3"), np.arange(3, dtype=">i4"),
    np.zeros(1, np.longdouble),
]


@pytest.mark.parametrize("value", FOREIGN, ids=lambda v: f"{type(v).__name__}-{np.asarray(v).dtype}")
@pytest.mark.parametrize("make", [lambda v: T(v), lambda v: _core.CoreTensor(v, GPU0, D.kfloat64)],
                         ids=["Tensor", "CoreTensor-converting"])
def test_foreign_element_types_are_refused_by_name(value, make):
    message = f"[Tensor] unsupported array element type ({np.asarray(value).dtype})"
    with pytest.raises(TypeError, match="^" + re.escape(message) + "$"):
        make(value)


# ----------------------------------------------------------------- creation

@pytest.mark.parametrize("device", DEVICES)
@pytest.mark.parametrize("const,nptype", DTYPES, ids=DTYPE_IDS)
def test_constant_creators_and_fill(const, nptype, device):
    shape = [2, 3]
    e = T.empty(shape, device, const)
    assert (e.dtype, e.device, e.shape) == (const, device, shape)
    e.fill_(1)
    for t, ref in ((T.zeros(shape, device, const), 0), (T.ones(shape, device, const), 1),
                   (T.full(shape, 1, device, const), 1), (e, 1)):
        assert (t.dtype, t.device, t.shape) == (const, device, shape)
        np.testing.assert_array_equal(host(t), np.full(shape, ref, nptype))
    T.fill_(e, 0)
    np.testing.assert_array_equal(host(e), np.zeros(shape, nptype))


def test_full_value_and_empty_default_dtype(default_dtype):
    np.testing.assert_array_equal(np.array(T.full([2], -2.5, 0, D.kfloat64)), [-2.5, -2.5])
    np.testing.assert_array_equal(np.array(T.full([1], 1 + 2j, 0, D.kcomplex64)), [1 + 2j])
    assert T.empty([4], GPU0).dtype == default_dtype


RANGES = [
    (lambda dev, d: T.arange(1, 61, 1, dev, d), np.arange(1, 61, 1)),
    (lambda dev, d: T.arange(10, 0, -3, dev, d), np.arange(10, 0, -3)),
    (lambda dev, d: T.linspace(0, 12, 5, dev, d), np.linspace(0, 12, 5)),
    (lambda dev, d: T.logspace(0, 3, 4, 2, dev, d), np.logspace(0, 3, 4, base=2)),
]
FRACTIONAL = [
    (lambda dev, d: T.arange(0, 1, 0.25, dev, d), np.arange(0, 1, 0.25)),
    (lambda dev, d: T.linspace(-1, 1, 7, dev, d), np.linspace(-1, 1, 7)),
    (lambda dev, d: T.logspace(-1, 2, 4, 10, dev, d), np.logspace(-1, 2, 4)),
]


@pytest.mark.parametrize("const,nptype", DTYPES[1:8], ids=DTYPE_IDS[1:8])
@pytest.mark.parametrize("device", DEVICES)
def test_ranges(const, nptype, device):
    cases = RANGES + (FRACTIONAL if const in (D.kfloat32, D.kfloat64) else [])
    for make, ref in cases:
        t = make(device, const)
        assert (t.dtype, t.device, t.ndim) == (const, device, 1)
        np.testing.assert_allclose(host(t), ref.astype(nptype), rtol=1e-6)


@pytest.mark.parametrize("size,offset", [(1, 0), (4, 0), (4, 2), (4, -1), (3, 5)])
@pytest.mark.parametrize("const,nptype", [DTYPES[0], DTYPES[4], DTYPES[7], DTYPES[9]])
def test_eye(size, offset, const, nptype):
    t = T.eye(size, offset, GPU0, const)
    assert (t.dtype, t.device) == (const, GPU0)
    np.testing.assert_array_equal(host(t), np.eye(size, k=offset, dtype=nptype))


# Sizes whose arithmetic would overflow int64 (or exceed any memory) are refused by name.
@pytest.mark.parametrize("call,message", [
    (lambda: T.diag(T(np.ones(2), 0, -1), 2**63 - 1),
     "[diag] the diagonal 9223372036854775807 makes a matrix with too many elements"),
    (lambda: T.diag(T(np.ones(2), 0, -1), -2**63),
     "[diag] the diagonal -9223372036854775808 makes a matrix with too many elements"),
    (lambda: T.diag(T(np.ones(2), 0, -1), 2**60),
     "[diag] the diagonal 1152921504606846976 makes a matrix with too many elements"),
    (lambda: T.diag(T(np.ones(2), 0, -1), -2**40), "[diag] shape [1099511627778, 1099511627778] has too many elements"),
    (lambda: T.arange(0, 1e300, 1e-300, 0, D.kfloat64), "[arange] the range has too many elements"),
    (lambda: T.arange(-1e308, 1e308, 1.0, 0, D.kfloat64), "[arange] the range has too many elements"),
    (lambda: T.arange(0, np.inf, 1.0, 0, D.kfloat64), "[arange] start and end must be finite"),
    (lambda: T.linspace(0, 1, 2**62, 0, D.kfloat64), "[linspace] shape [4611686018427387904] has too many elements"),
    (lambda: T.logspace(0, 1, 2**63 - 1, 10, 0, D.kfloat64),
     "[logspace] shape [9223372036854775807] has too many elements"),
    (lambda: T.eye(2**32, 0, 0, D.kfloat32), "[eye] shape [4294967296, 4294967296] has too many elements"),
    (lambda: T.eye(2**62, 3, 0, D.kfloat32),
     "[eye] shape [4611686018427387904, 4611686018427387904] has too many elements"),
    # a zero dimension does not make the others any smaller
    (lambda: T.zeros([0, 2**62, 2**62], 0, D.kfloat32),
     "[zeros] shape [0, 4611686018427387904, 4611686018427387904] has too many elements"),
])
def test_sizes_beyond_int64_are_refused(call, message):
    with pytest.raises(ValueError, match="^" + re.escape(message) + "$"):
        call()


# Each draw fills or creates a 100 x 50 tensor; `ok` judges the sample.
RANDOM = {
    "randu": (lambda dev, d: T.randu([100, 50], -2.0, 3.0, dev, d),
              lambda a: a.min() >= -2.0 and a.max() <= 3.0 and abs(a.mean() - 0.5) < 0.1),
    "randn": (lambda dev, d: T.randn([100, 50], 4.0, 0.5, dev, d),
              lambda a: abs(a.mean() - 4.0) < 0.03 and abs(a.std() - 0.5) < 0.03),
    "uniform": (lambda c: T.fill_rand_uniform_(c, 2.0),
                lambda a: a.min() >= 0 and a.max() <= 2.0 and a.max() > 1.5),
    "withbound": (lambda c: T.fill_rand_uniform_withbound_(c, -3.0, -1.0),
                  lambda a: a.min() >= -3.0 and a.max() <= -1.0 and np.ptp(a) > 1.5),
    "signed": (lambda c: T.fill_rand_signed_uniform_(c, 0.5),
               lambda a: a.min() >= -0.5 and a.max() <= 0.5 and a.min() < -0.4 and a.max() > 0.4),
    "normal": (lambda c: T.fill_rand_normal_(c, 1.0, 2.0, False),
               lambda a: abs(a.mean() - 1.0) < 0.15 and abs(a.std() - 2.0) < 0.1),
    "normal_fast": (lambda c: T.fill_rand_normal_(c, -1.0, 0.5, True),
                    lambda a: abs(a.mean() + 1.0) < 0.05 and abs(a.std() - 0.5) < 0.05),
    "binary": (lambda c: T.fill_rand_binary_(c, 0.3),
               lambda a: set(np.unique(a)) <= {0.0, 1.0} and abs(a.mean() - 0.7) < 0.03),
    "binary_all": (lambda c: T.fill_rand_binary_(c, 0.0), lambda a: (a == 1.0).all()),
    "binary_none": (lambda c: T.fill_rand_binary_(c, 1.5), lambda a: (a == 0.0).all()),
}


@pytest.mark.parametrize("name", RANDOM)
@pytest.mark.parametrize("device", DEVICES)
@pytest.mark.parametrize("const", [D.kfloat32, D.kfloat64])
def test_random_draws_are_distributed_and_reproducible(name, device, const):
    make, ok = RANDOM[name]

    def draw(seed):
        _core.manual_seed(seed)
        if name.startswith("rand"):
            c = make(device, const)
        else:
            c = T.zeros([100, 50], device, const)
            make(c)
        assert (c.shape, c.dtype, c.device) == ([100, 50], const, device)
        return host(c)

    a, b, other = draw(1234), draw(1234), draw(99)
    assert ok(a.astype(np.float64))
    np.testing.assert_array_equal(a, b)
    if not name.startswith("binary_"):
        assert not np.array_equal(a, other)


# ----------------------------------------------------------------- devices, copies, dtype changes

def test_copies_and_moves_between_devices():
    a = sample((2, 3), np.complex64)
    t = T(a, 0, -1)
    g0 = t.GPU(GPU0)
    g1 = g0.GPU(GPU1)
    c = g1.CPU(0)
    assert (t.device, g0.device, g1.device, c.device) == (0, GPU0, GPU1, 0)
    assert all(x.dtype == D.kcomplex64 and x.shape == [2, 3] for x in (g0, g1, c))
    np.testing.assert_array_equal(np.array(c), a)
    for dev, move in ((GPU0, lambda: t.toGPU(GPU0)), (GPU1, lambda: t.toGPU(GPU1)),
                      (0, lambda: t.toCPU()), (GPU0, lambda: t.toGPU(GPU0)), (0, lambda: t.toCPU(0))):
        move()
        assert (t.device, t.dtype, t.shape) == (dev, D.kcomplex64, [2, 3])
    np.testing.assert_array_equal(np.array(t), a)


@pytest.mark.parametrize("src_dev,dst_dev", [(0, 0), (0, GPU0), (GPU0, GPU1), (GPU1, 0)])
@pytest.mark.parametrize("src_t,dst_t,dst_np", [
    (D.kfloat64, D.kfloat64, np.float64), (D.kfloat64, D.kfloat32, np.float32),
    (D.kint32, D.kfloat64, np.float64), (D.kfloat32, D.kcomplex128, np.complex128)])
def test_copy_tensor(src_dev, dst_dev, src_t, dst_t, dst_np):
    src = T(np.array([[1.5, -2.0], [3.0, 0.0]]), src_dev, src_t)
    dst = T.zeros([2, 2], dst_dev, dst_t)
    tramel.copyTensor(src, dst)
    assert (dst.device, dst.dtype) == (dst_dev, dst_t)
    np.testing.assert_array_equal(host(dst), host(src).astype(dst_np))


@pytest.mark.parametrize("device", DEVICES)
def test_to_dtype(device):
    t = T(np.array([1.5, -2.5]), device, -1)
    assert t.toDtype(D.kfloat64).dtype == D.kfloat64
    fresh = t.toDtype(D.kfloat64, True)
    assert fresh is not t and fresh.dtype == D.kfloat64
    for conv in (t.toDtype(D.kint64), t.astype(D.kint64)):
        assert (conv.dtype, conv.device) == (D.kint64, device)
        np.testing.assert_array_equal(host(conv), [1, -2])
    assert t.astype(D.kfloat64) is not t


@pytest.mark.parametrize("derive", [
    lambda t: t.toDtype(t.dtype), lambda t: t.toDtype(t.dtype, True),
    lambda t: t.astype(t.dtype), lambda t: t.CPU(0), lambda t: t.GPU(GPU0).CPU(0)])
@pytest.mark.parametrize("write", [
    lambda c: c.fill_(7), lambda c: c.add_(T.ones([3], 0, D.kfloat64)),
    lambda c: T.fill_rand_normal_(c, 0.0, 1.0, False)])
def test_in_place_writes_never_show_through_a_derived_tensor(derive, write):
    t = T(np.array([1.0, 2.0, 3.0]), 0, -1)
    u = derive(t)
    if u is t:  # the same handle: nothing shared with anyone else
        return
    write(u)
    np.testing.assert_array_equal(np.array(t), [1.0, 2.0, 3.0])
    before = np.array(u)
    write(t)
    np.testing.assert_array_equal(np.array(u), before)


# ----------------------------------------------------------------- add_ and queries

@pytest.mark.parametrize("device", DEVICES)
@pytest.mark.parametrize("const,nptype", DTYPES[1:], ids=DTYPE_IDS[1:])
def test_add_in_place(const, nptype, device):
    a, b = sample((2, 3), nptype, 1), sample((2, 3), nptype, 2)
    t = T(a, device, -1)
    t.add_(T(b, device, -1))
    assert (t.dtype, t.device) == (const, device)
    np.testing.assert_array_equal(host(t), (a + b).astype(nptype))


@pytest.mark.parametrize("values", [
    [1, 2, 3], [0, 1], [0, 0], [], [0.0, -0.5], [True, False], [True], [0j, 1j], [0j],
    [[1, 1], [1, 0]]], ids=str)
@pytest.mark.parametrize("device", DEVICES)
def test_all_any(values, device):
    a = np.array(values, dtype=None if values else np.float32)
    t = T(a, device, -1)
    assert (tramel.all(t), tramel.any(t)) == (bool(np.all(a)), bool(np.any(a)))
    assert type(tramel.all(t)) is bool and type(tramel.any(t)) is bool


@pytest.mark.parametrize("values,norm", [([3.0, 4.0], 5.0), ([[1.0, 2.0], [2.0, 4.0]], 5.0),
                                         ([3 + 4j], 5.0), ([0.0], 0.0), ([-2.0], 2.0)])
def test_l2_norm(values, norm):
    r = T.l2_norm(T(np.array(values), GPU0, -1))
    assert isinstance(r, float) and r == pytest.approx(norm)


@pytest.mark.parametrize("values,expected", [
    ([0.0], False), ([2.5], True), ([[0]], False), ([[-1]], True), (1j, True), (False, False),
    ([1.0, 2.0], ValueError), ([], ValueError)])
def test_is_nonzero(values, expected):
    t = T(np.array(values, dtype=None if values != [] else np.float32), GPU0, -1)
    if expected is ValueError:
        with pytest.raises(ValueError, match=CORE_MSG):
            T.is_nonzero(t)
    else:
        assert T.is_nonzero(t) is expected


ARG_INPUT = np.array([[[3, 9, 1, 9], [7, 2, 2, 8], [0, 5, 6, 6]],
                      [[4, 4, 9, 1], [9, 0, 3, 3], [2, 8, 8, 0]]])


@pytest.mark.parametrize("fn,ref", [(T.argmax, np.argmax), (T.argmin, np.argmin)])
@pytest.mark.parametrize("nptype", [np.uint8, np.int32, np.float32, np.float64])
@pytest.mark.parametrize("device", DEVICES)
def test_arg_extrema(fn, ref, nptype, device):
    a = ARG_INPUT.astype(nptype)
    t = T(a, device, -1)
    flat = fn(t)
    assert (flat.shape, flat.dtype, flat.device) == ([1], D.kint64, device)
    assert host(flat)[0] == ref(a)
    for axis in (0, 1, 2, -1):
        for keep in (False, True):
            r = fn(t, [axis], keep)
            assert (r.dtype, r.device) == (D.kint64, device)
            np.testing.assert_array_equal(host(r), ref(a, axis=axis, keepdims=keep))


# ----------------------------------------------------------------- bad input

@pytest.mark.parametrize("call,exc", [
    (lambda: T.ones([2, 3], 0, D.kfloat32).add_(T.ones([3, 2], 0, D.kfloat32)), ValueError),
    (lambda: T.ones([2, 3], 0, D.kfloat32).add_(T.ones([3], 0, D.kfloat32)), ValueError),
    (lambda: T.zeros([2, -1], 0, D.kfloat32), ValueError),
    (lambda: T.empty([-3], 0, D.kfloat32), ValueError),
    (lambda: T.full([-1], 1.0, 0, D.kfloat32), ValueError),
    (lambda: T.zeros([1] * 17, 0, D.kfloat32), ValueError),
    # a size that fits int64 but could never be allocated
    (lambda: T.zeros([2**50], 0, D.kfloat64), RuntimeError),
    (lambda: T(np.zeros((1,) * 17), 0, -1), ValueError),
    (lambda: T.arange(0, 5, 1, 0, D.kbool), ValueError),
    (lambda: T.arange(0, 5, 1, 0, D.kcomplex64), ValueError),
    (lambda: T.linspace(0, 1, 3, 0, D.kbool), ValueError),
    (lambda: T.logspace(0, 1, 3, 10, 0, D.kcomplex128), ValueError),
    (lambda: tramel.copyTensor(T.ones([2], 0, D.kfloat32), T.ones([3], 0, D.kfloat32)), ValueError),
    (lambda: T(np.zeros(2, np.float16), 0, -1), (TypeError, ValueError)),
    (lambda: T(np.zeros(2, np.uint32), 0, -1), (TypeError, ValueError)),
    (lambda: T(np.array(["a"]), 0, -1), (TypeError, ValueError)),
    (lambda: T(np.ones(2), 0, 42), (TypeError, ValueError)),
    (lambda: T.zeros([2], 0, -7), (TypeError, ValueError)),
    (lambda: T("abc", 0, -1), (TypeError, ValueError)),
    (lambda: T.ones([2], 0, D.kfloat32).add_("x"), TypeError),
    # devices that nothing serves, and mixing devices
    (lambda: T.zeros([2], 5, D.kfloat32), RuntimeError),
    (lambda: T.zeros([2], 1007, D.kfloat32), RuntimeError),
    (lambda: T(np.ones(2), 1002, -1), RuntimeError),
    (lambda: T(np.ones(2), 0, -1).GPU(1007), RuntimeError),
    (lambda: T(np.ones(2), 0, -1).toGPU(5), (RuntimeError, ValueError)),
    (lambda: T(np.ones(2), 0, -1).add_(T(np.ones(2), GPU0, -1)), RuntimeError),
    (lambda: np.array(T(np.ones(2), GPU0, -1)), RuntimeError),
])
def test_bad_input_raises(call, exc):
    with pytest.raises(exc) as info:
        call()
    if not isinstance(info.value, TypeError):
        assert info.match(CORE_MSG)


def test_failed_move_leaves_tensor_usable():
    t = T(np.arange(3.0), 0, -1)
    with pytest.raises(RuntimeError):
        t.toGPU(1005)
    assert t.device == 0
    np.testing.assert_array_equal(np.array(t), [0.0, 1.0, 2.0])


def test_emulated_accelerators_are_the_devices_that_exist():
    # conftest asks for two emulated accelerators before the engine loads.
    assert _core.emulated_accelerator_count() == 2
    assert [d for d in (0, 5, 999, GPU0, GPU1, 1002, 1007) if _core.device_available(d)] == [0, GPU0, GPU1]
