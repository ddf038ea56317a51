"""Fills, whole-tensor reductions and the read-only views of a tensor."""
import numpy as np
import pytest

from pytramel import _core
from pytramel import dtype as D
from pytramel.tensor import tensor as tt
from conftest import DTYPE_IDS, DTYPES, GPU0, host, sample

QTensor = tt.QTensor
Node = QTensor.GraphNode

ITEM_MSG = "Cannot call item() on QTensor has more than one element!"


def val(t):
    return host(t.data)


@pytest.fixture
def printoptions():
    saved = np.get_printoptions()
    yield
    np.set_printoptions(**saved)


# ----------------------------------------------------------------- fills

def in_range(lo, hi):
    return lambda a: lo <= a.min() and a.max() < hi and a.max() - a.min() > 0.9 * (hi - lo)


def normal(a):
    return abs(a.mean() - 5.0) < 0.05 and abs(a.std() - 0.5) < 0.05


@pytest.mark.parametrize("fill,args,check", [
    ("fill_", (2.5,), lambda a: np.all(a == 2.5)),
    ("fill_rand_uniform_with_bound_", (-2.0, 3.0), in_range(-2.0, 3.0)),
    ("fill_rand_uniform_", (), in_range(0.0, 1.0)),
    ("fill_rand_uniform_", (4.0,), in_range(0.0, 4.0)),
    ("fill_rand_signed_uniform_", (), in_range(-1.0, 1.0)),
    ("fill_rand_signed_uniform_", (3.0,), in_range(-3.0, 3.0)),
    ("fill_rand_normal_", (5.0, 0.5), normal),
    ("fill_rand_normal_", (5.0, 0.5, False), normal),
    ("fill_rand_binary_", (), lambda a: set(np.unique(a)) == {0.0, 1.0}),
    ("fill_rand_binary_", (0.2,), lambda a: set(np.unique(a)) == {0.0, 1.0}),
])
@pytest.mark.parametrize("device,dtype", [(0, D.kfloat32), (GPU0, D.kfloat64)])
def test_fills(fill, args, check, device, dtype):
    t = QTensor(np.zeros((100, 100)), requires_grad=True, device=device, dtype=dtype,
                nodes=[Node(QTensor([1.0], requires_grad=True), lambda g: g, "edge")])
    t.zero_grad()
    nodes, grad = t.nodes, t.grad
    _core.manual_seed(7)
    assert getattr(t, fill)(*args) is None
    first = val(t)
    assert first.dtype == D.dtype_map[dtype] and check(first.astype(np.float64))
    assert (t.requires_grad, t.nodes, t.grad, t.device) == (True, nodes, grad, device)
    np.testing.assert_array_equal(val(grad), 0)
    _core.manual_seed(7)
    getattr(t, fill)(*args)
    np.testing.assert_array_equal(val(t), first)
    getattr(t, fill)(*args)
    assert np.array_equal(val(t), first) == (fill == "fill_")


# ----------------------------------------------------------------- reductions

def np_arg(fn, a, dims, keepdims):
    """numpy's answer over one or several axes, the reduced ones taken as one flat block."""
    dims = sorted(d % a.ndim for d in ([dims] if isinstance(dims, int) else dims))
    kept = [d for d in range(a.ndim) if d not in dims]
    moved = np.transpose(a, kept + dims).reshape([a.shape[d] for d in kept] + [-1])
    r = fn(moved, axis=-1)
    return np.expand_dims(r, dims) if keepdims else r


@pytest.mark.parametrize("dims,keepdims", [
    (0, False), (1, True), (-1, False), ([2], True), ([0, 2], False), ([2, 0], True),
    ([0, 1, 2], False)])
@pytest.mark.parametrize("name", ["argmax", "argmin"])
@pytest.mark.parametrize("device", [0, GPU0])
def test_argmax_argmin(name, dims, keepdims, device):
    a = np.random.default_rng(3).permutation(24).reshape(2, 3, 4).astype(np.float32)
    t = QTensor(a, requires_grad=True, device=device)
    r = getattr(t, name)(dims, keepdims)
    expected = np_arg(getattr(np, name), a, dims, keepdims)
    assert (r.requires_grad, r.nodes, r.dtype, r.device) == (False, [], D.kint64, r.data.device)
    assert r.shape == list(expected.shape)
    np.testing.assert_array_equal(val(r), expected)
    whole = getattr(t, name)()
    assert (whole.shape, whole.dtype) == ([1], D.kint64)
    assert val(whole)[0] == getattr(np, name)(a)


@pytest.mark.parametrize("kwargs", [{"dim": 0}, {"keepdims": True}, {"keepdims": False},
                                    {"dim": [0], "keepdims": None}])
@pytest.mark.parametrize("name", ["argmax", "argmin"])
def test_argmax_argmin_need_both_arguments(name, kwargs):
    with pytest.raises(ValueError) as info:
        getattr(QTensor([[1.0, 2.0]]), name)(**kwargs)
    assert str(info.value) == (f"Not valid parameters, use {name}() or {name}(axis,keepdims).")


@pytest.mark.parametrize("values,all_,any_", [
    ([True, True], True, True), ([True, False], False, True), ([0.0, 0.0], False, False),
    ([[1, 2], [3, -1]], True, True), ([0j, 2j], False, True)])
def test_all_any(values, all_, any_):
    t = QTensor(values)
    assert (t.all(), t.any()) == (all_, any_)


@pytest.mark.parametrize("device", [0, GPU0])
def test_l2_norm(device):
    a = np.array([[3.0, -4.0], [1.0, 2.0]])
    r = QTensor(a, requires_grad=True, device=device).l2_norm()
    assert isinstance(r, QTensor) and (r.requires_grad, r.nodes, r.shape) == (False, [], [1])
    np.testing.assert_allclose(val(r), [np.linalg.norm(a)], rtol=1e-6)


@pytest.mark.parametrize("values,truth", [
    ([0.0], False), ([2.5], True), ([[0]], False), ([[[-1]]], True), (0.0, False), ([True], True),
    ([0j], False), ([1j], True), ([1.0, 0.0], None), ([[0.0], [0.0]], None), (np.zeros(0), None)])
def test_truth_value(values, truth):
    t = QTensor(values)
    for ask in (bool, tt.is_nonzero):
        if truth is None:  # the bare assertion of more or fewer than one element
            with pytest.raises(AssertionError) as info:
                ask(t)
            assert info.value.args == ()
        else:
            assert ask(t) is truth


# ----------------------------------------------------------------- views

@pytest.mark.parametrize("shape", [(), (3,), (2, 3, 4), (0, 2), (1, 1)])
@pytest.mark.parametrize("dt,nptype", DTYPES, ids=DTYPE_IDS)
def test_description(dt, nptype, shape):
    a = sample(shape, nptype)
    t = QTensor(a, device=GPU0)
    assert (t.dtype, t.dtype_str, t.ndim, t.dim(), t.shape) == (
        dt, np.dtype(nptype).name, len(shape), len(shape), list(shape))
    assert t.size == t.numel() == a.size


def test_print_prev_node_and_info(capsys):
    a, b = QTensor([1.0], requires_grad=True), QTensor([2.0], requires_grad=True)
    y = QTensor([2.0], requires_grad=True, nodes=[Node(a, None, "first"), Node(b, None, "second")])
    assert (a.print_prev_node, y.print_prev_node) == ("", "first")
    assert capsys.readouterr().out == ""
    assert QTensor(np.zeros((2, 3), np.float32), device=GPU0).info() is None
    lines = capsys.readouterr().out.splitlines()
    assert len(lines) == 1 and lines[0].startswith("Tensor shape=")


@pytest.mark.parametrize("values,device,expected", [
    ([2.5], 0, 2.5), ([[3]], 0, 3), (np.float64(-1.25), 0, -1.25), ([[[7.5]]], GPU0, 7.5),
    ([1 - 2j], GPU0, 1 - 2j), ([True], 0, True),
    ([1.0, 2.0], 0, None), (np.zeros((0, 1)), 0, None), ([[1], [2]], GPU0, None)])
def test_item(values, device, expected):
    t = QTensor(values, device=device)
    if expected is None:
        with pytest.raises(RuntimeError) as info:
            t.item()
        assert str(info.value) == ITEM_MSG
        return
    r = t.item()
    assert r == expected and type(r) is type(expected)


@pytest.mark.parametrize("a", [
    np.array([1e-9, 1.0, 123456.789], np.float32), np.array([[1 / 3, 2e8], [-0.5, 0.0]]),
    np.arange(1000, dtype=np.float32) / 7, np.array([1 + 2j, -0.5j], np.complex64),
    np.array([[1, -2], [3, 4]], np.int16), np.array([True, False]), np.array(2.5), np.zeros((0, 3))])
@pytest.mark.parametrize("device", [0, GPU0])
def test_repr(a, device, printoptions):
    np.set_printoptions(precision=2, suppress=False)
    text = repr(QTensor(a, device=device))
    assert (np.get_printoptions()["precision"], np.get_printoptions()["suppress"]) == (7, True)
    assert text == np.array2string(a, separator=" ", prefix="")
