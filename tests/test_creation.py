"""Creation functions: from a shape, a range, a value, or another tensor's description."""
import numpy as np
import pytest

from pytramel import _core
from pytramel import dtype as D
from pytramel.tensor import tensor as tt
from conftest import GPU0, host

QTensor = tt.QTensor


def val(t):
    return host(t.data)


def assert_leaf(r, dtype, device, shape):
    assert isinstance(r, QTensor) and r.nodes == [] and r.link_nodes == []
    assert (r.dtype, r.device, r.data.device, r.shape) == (dtype, device, device, list(shape))


# Positional calls: (device, dtype) follow the description; without them the defaults apply.
@pytest.mark.parametrize("make,shape,fill", [
    (lambda *a: tt.empty([2, 3], *a), (2, 3), None),
    (lambda *a: tt.empty((0, 5), *a), (0, 5), None),
    (lambda *a: tt.ones((2, 3), *a), (2, 3), 1),
    (lambda *a: tt.full([4], -1.5, *a), (4,), -1.5),
    (lambda *a: tt.full([], 7, *a), (), 7),
])
@pytest.mark.parametrize("args", [(), (GPU0, None), (GPU0, D.kint32), (0, D.kcomplex128)])
def test_from_a_shape(default_dtype, make, shape, fill, args):
    r = make(*args)
    device, dtype = args or (0, None)
    want = default_dtype if dtype is None else dtype
    assert_leaf(r, want, device, shape)
    assert (r.requires_grad, r.grad) == (False, None)
    if fill is not None:
        np.testing.assert_array_equal(val(r), np.full(shape, fill, D.dtype_map[want]))


@pytest.mark.parametrize("make,fill", [(lambda t, *a: tt.empty_like(t, *a), None),
                                       (lambda t, *a: tt.full_like(t, 3.5, *a), 3.5)])
@pytest.mark.parametrize("requires_grad", [True, 1, False])
def test_like(make, fill, requires_grad):
    t = QTensor(np.zeros((2, 1), np.complex64), requires_grad=requires_grad, device=GPU0)
    r = make(t)
    assert_leaf(r, D.kcomplex64, GPU0, (2, 1))
    if fill is not None:
        np.testing.assert_array_equal(val(r), np.full((2, 1), fill, np.complex64))
    if requires_grad is True:
        assert r.requires_grad is True and r.grad.data.device == GPU0
        np.testing.assert_array_equal(val(r.grad), np.zeros((2, 1), np.complex64))
    else:
        assert r.requires_grad is False and r.grad is None
    assert_leaf(make(t, 0, D.kfloat64), D.kfloat64, 0, (2, 1))


@pytest.mark.parametrize("device", [0, GPU0])
def test_empty_bools_are_false(device):
    # Any other byte in a bool is undefined behaviour for every kernel that reads it.
    for r in (tt.empty([3], device, D.kbool), tt.empty_like(QTensor([1.0, 2.0]), device, D.kbool),
              _core.Tensor.empty([2], device, D.kbool)):
        assert not np.asarray(val(r) if isinstance(r, QTensor) else host(r)).any()


# ----------------------------------------------------------------- ranges and patterns

@pytest.mark.parametrize("make,expected", [
    (lambda *a: tt.arange(0, 5, 2, *a), np.arange(0, 5, 2)),
    (lambda *a: tt.arange(1, 2, 0.25, *a), np.arange(1, 2, 0.25)),
    (lambda *a: tt.arange(3, -1, -1, *a), np.arange(3, -1, -1)),
    (lambda *a: tt.linspace(0, 1, 5, *a), np.linspace(0, 1, 5)),
    (lambda *a: tt.linspace(2, -2, 1, *a), np.linspace(2, -2, 1)),
    (lambda *a: tt.logspace(0, 2, 3, 10.0, *a), np.logspace(0, 2, 3, base=10.0)),
    (lambda *a: tt.logspace(1, 3, 3, 2, *a), np.logspace(1, 3, 3, base=2)),
    (lambda *a: tt.eye(3, 0, *a), np.eye(3)),
    (lambda *a: tt.eye(3, 1, *a), np.eye(3, k=1)),
    (lambda *a: tt.eye(4, -2, *a), np.eye(4, k=-2)),
])
@pytest.mark.parametrize("args", [(), (GPU0, None), (GPU0, D.kfloat64), (0, D.kint64)])
def test_ranges(default_dtype, make, expected, args):
    r = make(*args)
    device, dtype = args or (0, None)
    want = default_dtype if dtype is None else dtype
    assert_leaf(r, want, device, expected.shape)
    assert (r.requires_grad, r.grad) == (False, None)
    np.testing.assert_allclose(val(r), expected.astype(D.dtype_map[want]), rtol=1e-6)


@pytest.mark.parametrize("make,check", [
    (lambda *a: tt.randu([300, 40], 0.0, 1.0, *a), lambda a: 0 <= a.min() and a.max() < 1),
    (lambda *a: tt.randu([300, 40], -3.0, -1.0, *a),
     lambda a: -3 <= a.min() and a.max() < -1 and abs(a.mean() + 2) < 0.05),
    (lambda *a: tt.randn([300, 40], 0.0, 1.0, *a),
     lambda a: abs(a.mean()) < 0.05 and abs(a.std() - 1) < 0.05),
    (lambda *a: tt.randn([300, 40], 4.0, 0.1, *a),
     lambda a: abs(a.mean() - 4) < 0.01 and abs(a.std() - 0.1) < 0.01),
])
@pytest.mark.parametrize("args", [(), (GPU0, D.kfloat64)])
def test_random(default_dtype, make, check, args):
    _core.manual_seed(11)
    r = make(*args)
    device, dtype = args or (0, default_dtype)
    assert_leaf(r, dtype, device, (300, 40))
    a = val(r)
    assert check(a.astype(np.float64)) and np.unique(a).size > a.size // 2
    _core.manual_seed(11)
    np.testing.assert_array_equal(val(make(*args)), a)
    assert not np.array_equal(val(make(*args)), a)


@pytest.mark.parametrize("make", [
    lambda rg: tt.arange(0, 3, 1, GPU0, D.kfloat64, rg),
    lambda rg: tt.linspace(0, 1, 3, GPU0, None, rg),
    lambda rg: tt.logspace(0, 1, 3, 2.0, GPU0, D.kfloat64, rg),
    lambda rg: tt.eye(3, 0, GPU0, None, rg),
    lambda rg: tt.randu([3], 0.0, 1.0, GPU0, D.kfloat64, rg),
    lambda rg: tt.randn([3], 0.0, 1.0, GPU0, None, rg),
    lambda rg: tt.diag(QTensor([1.0, 2.0], requires_grad=True, device=GPU0), 0, rg),
    lambda rg: tt.arange(0, 3, device=GPU0, requires_grad=rg),
    lambda rg: tt.eye(2, device=GPU0, requires_grad=rg),
    lambda rg: tt.randn([3], std=2.0, device=GPU0, dtype=D.kfloat64, requires_grad=rg),
    lambda rg: tt.diag(QTensor([1.0, 2.0], device=GPU0), k=1, requires_grad=rg)])
@pytest.mark.parametrize("requires_grad", [True, 1, 0, False])
def test_requires_grad_is_stored_as_given(make, requires_grad):
    r = make(requires_grad)
    assert r.requires_grad is requires_grad and r.nodes == [] and r.device == GPU0
    if requires_grad is True:
        assert (r.grad.shape, r.grad.dtype, r.grad.data.device) == (r.shape, r.dtype, GPU0)
        np.testing.assert_array_equal(val(r.grad), 0)
    else:
        assert r.grad is None


@pytest.mark.parametrize("values,k,nptype", [
    ([1.0, 2.0, 3.0], 0, np.float64), ([1, 2], 1, np.int32), ([1 + 1j, 2j], -1, np.complex64),
    ([[1.0, 2.0, 3.0], [4.0, 5.0, 6.0], [7.0, 8.0, 9.0]], 0, np.float32),
    ([[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]], 1, np.float64),
    ([[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]], -1, np.float64)])
@pytest.mark.parametrize("device", [0, GPU0])
def test_diag_follows_its_input(values, k, nptype, device):
    a = np.array(values, nptype)
    t = QTensor(a, requires_grad=np.issubdtype(nptype, np.inexact), device=device)
    r = tt.diag(t, k)
    expected = np.diag(a, k) if a.ndim == 1 else np.where(np.eye(*a.shape, k=k, dtype=bool), a, 0)
    assert_leaf(r, t.dtype, device, expected.shape)
    assert (r.requires_grad, r.grad) == (False, None)
    np.testing.assert_array_equal(val(r), expected)
