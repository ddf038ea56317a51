"""Core extrema, medians, spreads, running sums, axis order and shape views, against numpy."""
import itertools
import os
import re
import warnings

import numpy as np
import pytest

from pytramel import _core
from pytramel import dtype as D

from conftest import CORE_MSG, DEVICES, DTYPES, DTYPE_IDS, host, sample

T, tramel = _core.Tensor, _core.tramel
NP_OF = {const: nptype for const, nptype in DTYPES}
REAL = [(c, n) for c, n in DTYPES if not np.issubdtype(n, np.complexfloating)]
REAL_IDS = [np.dtype(n).name for _, n in REAL]

# Axes lists: one axis, negative, several adjacent, several apart (two runs),
# unordered, all.
AXES = [[0], [-1], [1], [0, 1], [2, 0], [-3, -1], [0, 1, 2]]


def core(a, device=0):
    return T(np.asarray(a), device, -1)


def floating(nptype, default):
    """The dtype of a median, var or std of `nptype` elements."""
    if np.issubdtype(nptype, np.complexfloating):
        return np.float32 if nptype is np.complex64 else np.float64
    return nptype if np.issubdtype(nptype, np.floating) else NP_OF[default]


def ref_median(a, axis=None, keepdims=False):
    return np.median(a.astype(np.float64) if a.dtype == np.bool_ else a, axis=axis, keepdims=keepdims)


# name, call(t, axes-or-None, keepdims), numpy reference, dtypes, result element type
REDUCTIONS = [
    ("min", lambda t, ax, k: T.min(t) if ax is None else T.min(t, ax, k), np.min, REAL, lambda n, d: n),
    ("max", lambda t, ax, k: T.max(t) if ax is None else T.max(t, ax, k), np.max, REAL, lambda n, d: n),
    ("median", lambda t, ax, k: T.median(t) if ax is None else T.median(t, ax, k), ref_median, REAL, floating),
    ("var", lambda t, ax, k: T.var(t, 0) if ax is None else T.var(t, ax, k, []), np.var, DTYPES, floating),
    ("var_unbiased", lambda t, ax, k: T.var(t, "yes") if ax is None else T.var(t, ax, k, 1),
     lambda a, axis=None, keepdims=False: np.var(a, axis=axis, keepdims=keepdims, ddof=1), DTYPES, floating),
    ("std", lambda t, ax, k: T.std(t, False) if ax is None else T.std(t, ax, k, None), np.std, DTYPES, floating),
    ("std_unbiased", lambda t, ax, k: T.std(t, True) if ax is None else T.std(t, ax, k, [0]),
     lambda a, axis=None, keepdims=False: np.std(a, axis=axis, keepdims=keepdims, ddof=1), DTYPES, floating),
]
CASES = [(name, call, ref, c, n, out) for name, call, ref, dts, out in REDUCTIONS for c, n in dts]
CASE_IDS = [f"{name}-{np.dtype(n).name}" for name, _, _, _, n, _ in CASES]


@pytest.mark.parametrize("name,call,ref,const,nptype,out", CASES, ids=CASE_IDS)
def test_reductions_match_numpy(name, call, ref, const, nptype, out, default_dtype):
    a = sample([3, 4, 5], nptype, seed=1)
    t = core(a)
    whole = call(t, None, False)
    assert whole.shape == [1] and whole.dtype == [c for c, n in DTYPES if n is out(nptype, default_dtype)][0]
    tol = 1e-5 if np.dtype(out(nptype, default_dtype)) == np.float32 else 1e-12
    np.testing.assert_allclose(host(whole)[0], ref(a), rtol=tol, atol=tol)
    for axes, keep in itertools.product(AXES, (False, True)):
        r = host(call(t, axes, keep))
        np.testing.assert_allclose(r, ref(a, axis=tuple(axes), keepdims=keep), rtol=tol, atol=tol)
        assert r.dtype == out(nptype, default_dtype)


@pytest.mark.parametrize("device", DEVICES)
@pytest.mark.parametrize("threads", [1, 2])
@pytest.mark.parametrize("shape,axes", [((301, 700), [0]), ((301, 700), [1]), ((7, 90, 130), [0, 2]),
                                        ((40000,), [0]), ((3, 70000), [1])])
def test_large_reductions_on_any_thread_count(shape, axes, threads, device):
    """The blocked and parallel paths (column blocks, split rows) against numpy."""
    a = np.random.default_rng(2).standard_normal(shape)
    t = core(a, device)
    old = _core.get_num_threads()
    _core.set_num_threads(threads)
    try:
        ax = tuple(axes)
        for got, want in [(T.sum(t, axes, False), a.sum(axis=ax)), (T.max(t, axes, True), a.max(ax, keepdims=True)),
                          (T.min(t, axes, False), a.min(ax)), (T.var(t, axes, False, True), a.var(ax, ddof=1)),
                          (T.median(t, axes, False), np.median(a, ax)), (T.mean(t, axes, False), a.mean(ax))]:
            assert got.device == device
            np.testing.assert_allclose(host(got), want, rtol=1e-10, atol=1e-10)
    finally:
        _core.set_num_threads(old)


def test_thread_counts_are_bounded_by_the_machine():
    old = _core.get_num_threads()
    try:
        for bad in (0, -3):
            with pytest.raises(ValueError, match=rf"^\[set_num_threads\] the number of threads must be at least 1, "
                                                 rf"got {bad}$"):
                _core.set_num_threads(bad)
        # Far more threads than processors: creating them would fail in the next large loop.
        with pytest.raises(ValueError) as info:
            _core.set_num_threads(100000)
        found = re.fullmatch(r"\[set_num_threads\] the number of threads must be at most (\d+) on this machine, "
                             r"got 100000", str(info.value))
        assert found and 4 <= int(found.group(1)) <= max(4 * os.cpu_count(), 1024)
        assert _core.get_num_threads() == old
        limit = int(found.group(1))
        _core.set_num_threads(limit)
        assert _core.get_num_threads() == limit
        a = np.arange(1 << 17, dtype=np.float64)
        assert host(T.sum(core(a)))[0] == a.sum()
    finally:
        _core.set_num_threads(old)


@pytest.mark.parametrize("op", [T.min, T.max])
@pytest.mark.parametrize("where", [0, 37, -1])
def test_extrema_let_nan_win(op, where):
    a = np.arange(200.0).reshape(2, 100)
    a.flat[where] = np.nan
    ref = np.min if op is T.min else np.max
    for axes in ([0], [1], [0, 1]):
        np.testing.assert_array_equal(host(op(core(a), axes, False)), ref(a, axis=tuple(axes)))
    assert np.isnan(host(op(core(a)))[0])
    assert np.isnan(host(T.median(core(a)))[0])


def test_median_of_even_counts_is_the_mean_of_the_middle_pair():
    a = np.array([[4, 1, 3, 2], [9, -1, 7, 7]], np.int64)
    np.testing.assert_array_equal(host(T.median(core(a), [1], False)), [2.5, 7.0])
    assert host(T.median(core(np.float32([1, 2]))))[0] == np.float32(1.5)


def test_spreads_of_complex_use_the_modulus():
    z = np.array([1 + 1j, -1 - 1j, 2j], np.complex64)
    v = T.var(core(z), False)
    assert v.dtype == D.kfloat32
    np.testing.assert_allclose(host(v), [np.var(z)], rtol=1e-6)
    np.testing.assert_allclose(host(T.std(core(z.astype(np.complex128)), [0], True, True)), [np.std(z, ddof=1)])


@pytest.mark.parametrize("shape", [(), (0,), (2, 0), (0, 3)], ids=str)
def test_rank_zero_and_empty_reductions(shape):
    a = np.ones(shape, np.float64)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        for axes in ([-1],) if shape else ([],):
            for op, ref in [(T.median, np.median), (lambda t, ax, k: T.var(t, ax, k, False), np.var)]:
                got = host(op(core(a), axes, True))
                np.testing.assert_array_equal(got, ref(a, axis=tuple(axes), keepdims=True))
        if a.size:
            assert host(T.max(core(a)))[0] == 1.0 and T.min(core(a)).shape == [1]
        else:
            with pytest.raises(ValueError, match=CORE_MSG):
                T.max(core(a))
        if shape == (0, 3):
            assert T.min(core(a), [1], False).shape == [0]


@pytest.mark.parametrize("call,exc,message", [
    (lambda t: T.max(t, [3], False), IndexError, "[max] axis 3 is out of range for shape [2, 3, 4]"),
    (lambda t: T.median(t, [-4], True), IndexError, "[median] axis -4 is out of range for shape [2, 3, 4]"),
    (lambda t: T.var(t, [0, -3], False, True), ValueError, "[var] axis -3 is repeated for shape [2, 3, 4]"),
    (lambda t: T.std(t, [1, 1], False, True), ValueError, "[std] axis 1 is repeated for shape [2, 3, 4]"),
    (lambda t: T.min(t.astype(D.kcomplex64)), ValueError, "[min] dtype complex64 is not supported"),
    (lambda t: T.max(t.astype(D.kcomplex128), [0], False), ValueError, "[max] dtype complex128 is not supported"),
    (lambda t: T.median(t.astype(D.kcomplex64)), ValueError, "[median] dtype complex64 is not supported"),
    (lambda t: tramel.cumsum(t, 3), IndexError, "[cumsum] axis 3 is out of range for shape [2, 3, 4]"),
    (lambda t: tramel.cumsumgrad(t, -4), IndexError, "[cumsumgrad] axis -4 is out of range for shape [2, 3, 4]"),
    (lambda t: t.transpose([0, 1]), ValueError, "[transpose] dims [0, 1] do not match the rank of shape [2, 3, 4]"),
    (lambda t: t.transpose([0, 2, -1]), ValueError, "[transpose] axis -1 is repeated in dims [0, 2, -1]"),
    (lambda t: t.transpose([0, 1, 3]), IndexError, "[transpose] axis 3 is out of range for shape [2, 3, 4]"),
    (lambda t: T.swapaxis(t, 0, 3), IndexError, "[swapaxis] axis 3 is out of range for shape [2, 3, 4]"),
    (lambda t: T.flip(t, [1, -2]), ValueError, "[flip] axis -2 is repeated in [1, -2]"),
    (lambda t: t.flatten(2, 1), ValueError, "[flatten] start axis 2 comes after end axis 1 for shape [2, 3, 4]"),
    (lambda t: t.squeeze(1), ValueError, "[squeeze] cannot squeeze axis 1 of length 3 in shape [2, 3, 4]"),
    (lambda t: t.unsqueeze(4), IndexError, "[unsqueeze] axis 4 is out of range for inserting into shape [2, 3, 4]"),
])
def test_errors_are_python_exceptions(call, exc, message):
    with pytest.raises(exc, match=re.escape(message)):
        call(core(np.zeros((2, 3, 4), np.float32)))


# ------------------------------------------------------------ running sums

@pytest.mark.parametrize("const,nptype", DTYPES, ids=DTYPE_IDS)
@pytest.mark.parametrize("shape", [(3, 4, 5), (9001,), (2, 4103)], ids=str)
def test_cumsum_and_its_gradient_match_numpy(const, nptype, shape):
    a = sample(shape, nptype, seed=3)
    t = core(a)
    expect_type = np.int64 if a.dtype.kind in "biu" else nptype
    for axis in range(-len(shape), len(shape)):
        got, grad = host(tramel.cumsum(t, axis)), host(tramel.cumsumgrad(t, axis))
        assert got.dtype == expect_type and grad.dtype == expect_type
        want = np.cumsum(a, axis=axis, dtype=expect_type)
        back = np.flip(np.cumsum(np.flip(a, axis), axis=axis, dtype=expect_type), axis)
        np.testing.assert_allclose(got, want, rtol=1e-5)
        np.testing.assert_allclose(grad, back, rtol=1e-5)


@pytest.mark.parametrize("shape,axis", [((10000,), 0), ((100, 7), 0), ((7, 5000), 1)], ids=str)
def test_integer_running_sums_wrap_in_int64(shape, axis):
    a = np.full(shape, np.iinfo(np.int64).max)
    with np.errstate(over="ignore"):
        want = np.cumsum(a, axis=axis, dtype=np.int64)
        back = np.flip(np.cumsum(np.flip(a, axis), axis=axis, dtype=np.int64), axis)
    np.testing.assert_array_equal(host(tramel.cumsum(core(a), axis)), want)
    np.testing.assert_array_equal(host(tramel.cumsumgrad(core(a), axis)), back)


def test_cumsum_of_rank_zero_and_empty():
    assert host(tramel.cumsum(core(np.float32(2.5)), -1)).tolist() == 2.5
    assert tramel.cumsumgrad(core(np.zeros((0, 3))), 0).shape == [0, 3]


# -------------------------------------------------------------- axis order

@pytest.mark.parametrize("const,nptype", DTYPES, ids=DTYPE_IDS)
@pytest.mark.parametrize("shape", [(5,), (70, 130), (3, 1, 40), (2, 3, 1, 4), (2, 17, 1, 33, 3)], ids=str)
def test_transpose_matches_numpy_for_every_permutation(const, nptype, shape):
    a = sample(shape, nptype, seed=6)
    t = core(a)
    for perm in itertools.permutations(range(len(shape))):
        dims = [p - len(shape) if i % 2 else p for i, p in enumerate(perm)]  # some negative
        np.testing.assert_array_equal(host(t.transpose(dims)), np.transpose(a, perm))
    # A result that keeps the element order shares storage until either side is written.
    u = t.transpose(list(range(len(shape))))
    u.fill_(1)
    np.testing.assert_array_equal(host(t), a)


@pytest.mark.parametrize("threads", [1, 2])
def test_large_transpose_and_flip(threads):
    a = np.random.default_rng(7).standard_normal((3, 257, 515)).astype(np.float32)
    old = _core.get_num_threads()
    _core.set_num_threads(threads)
    try:
        t = core(a)
        np.testing.assert_array_equal(host(T.transpose(t, [2, 0, 1])), a.transpose(2, 0, 1))
        np.testing.assert_array_equal(host(T.flip(t, [0, 2])), np.flip(a, (0, 2)))
    finally:
        _core.set_num_threads(old)


def test_transpose_in_place_keeps_the_object_and_swapaxis_twice_is_identity():
    a = np.arange(24).reshape(2, 3, 4)
    t = core(a)
    same = t
    T.transpose_(t, (2, 0, 1))
    assert same is t and t.shape == [4, 2, 3]
    np.testing.assert_array_equal(host(t), a.transpose(2, 0, 1))
    s = T.swapaxis(core(a), 0, -1)
    np.testing.assert_array_equal(host(s), np.swapaxes(a, 0, -1))
    np.testing.assert_array_equal(host(T.swapaxis(s, -1, 0)), a)


@pytest.mark.parametrize("const,nptype", DTYPES, ids=DTYPE_IDS)
@pytest.mark.parametrize("dims", [[], [0], [-1], [1, 2], [0, -1], [2, 0, 1]], ids=str)
def test_flip_matches_numpy_and_twice_is_identity(const, nptype, dims):
    a = sample((3, 1, 5, 4)[:3] if len(dims) < 3 else (3, 5, 4), nptype, seed=8)
    f = T.flip(core(a), dims)
    np.testing.assert_array_equal(host(f), np.flip(a, tuple(dims)) if dims else a)
    np.testing.assert_array_equal(host(T.flip(f, dims)), a)


@pytest.mark.parametrize("shape", [(), (0,), (4, 0, 2)], ids=str)
def test_axis_order_of_rank_zero_and_empty(shape):
    a = np.zeros(shape, np.int16)
    perm = list(range(len(shape)))[::-1]
    assert core(a).transpose(perm).shape == list(np.transpose(a, perm).shape)
    assert T.flip(core(a), perm).shape == list(shape)


# ------------------------------------------------------------ shape views

def storage_refs(t, capsys):
    capsys.readouterr()
    t.info()
    return int(re.search(r"storage_refs=(\d+)", capsys.readouterr().out).group(1))


@pytest.mark.parametrize("make,ref", [
    (lambda t: t.flatten(), lambda a: a.reshape(-1)),
    (lambda t: t.flatten(1, -1), lambda a: a.reshape(2, -1)),
    (lambda t: t.flatten(-3, 2), lambda a: a.reshape(2, 3, 1)),
    (lambda t: t.squeeze(), lambda a: a.reshape(2, 3)),
    (lambda t: t.squeeze(1), lambda a: a.reshape(2, 3, 1)),
    (lambda t: t.squeeze([-1, 1]), lambda a: a.reshape(2, 3)),
    (lambda t: t.unsqueeze(0), lambda a: a[None]),
    (lambda t: t.unsqueeze(-1), lambda a: a[..., None]),
    (lambda t: t.unsqueeze(2), lambda a: np.expand_dims(a, 2)),
])
def test_views_share_storage_until_written(make, ref, capsys):
    a = np.arange(6.0).reshape(2, 1, 3, 1)
    t = core(a)
    v = make(t)
    assert v.shape == list(ref(a).shape)
    np.testing.assert_array_equal(host(v), ref(a))
    assert storage_refs(t, capsys) == 2  # one buffer, no copy
    t.fill_(7.0)  # copy-on-write: the view keeps its values
    np.testing.assert_array_equal(host(v), ref(a))
    assert storage_refs(v, capsys) == 1


def test_in_place_squeeze_and_views_of_rank_zero():
    t = core(np.zeros((1, 3, 1)))
    same = t
    t.squeeze_(-1)
    assert same is t and t.shape == [1, 3]
    s = core(np.float64(4.0))
    assert s.flatten().shape == [1] and s.squeeze().shape == [] and s.squeeze(0).shape == []
    assert s.unsqueeze(-1).shape == [1] and s.unsqueeze(0).shape == [1]


def test_reshape_of_a_large_tensor_copies_nothing(capsys):
    t = T.zeros([10**7], 0, D.kfloat32)
    v = t.reshape([1000, 10000])
    assert storage_refs(v, capsys) == 2
