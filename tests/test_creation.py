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


# ----------------------------------------------------------------- from a shape

@pytest.mark.parametrize("make,expected", [
    (lambda **kw: tt.empty([2, 3], **kw), None),
    (lambda **kw: tt.ones((2, 3), **kw), np.ones((2, 3))),
    (lambda **kw: tt.full([2, 3], 2, **kw), np.full((2, 3), 2)),
    (lambda **kw: tt.full([4], -1.5, **kw), np.full(4, -1.5)),
])
@pytest.mark.parametrize("device,dtype", [(0, None), (GPU0, None), (GPU0, D.kint32),
                                          (0, D.kcomplex128)])
def test_from_a_shape(default_dtype, make, expected, device, dtype):
    kw = {"dtype": dtype} if device == 0 else {"device": device, "dtype": dtype}
    r = make(**kw)
    want = default_dtype if dtype is None else dtype
    shape = (4,) if expected is None or expected.shape == (4,) else (2, 3)
    assert_leaf(r, want, device, shape if expected is None else expected.shape)
    assert (r.requires_grad, r.grad) == (False, None)
    if expected is not None:
        np.testing.assert_array_equal(val(r), expected.astype(D.dtype_map[want]))


@pytest.mark.parametrize("make,fill", [(lambda t, **kw: tt.empty_like(t, **kw), None),
                                       (lambda t, **kw: tt.full_like(t, 3.5, **kw), 3.5)])
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
    o = make(t, device=0, dtype=D.kfloat64)
    assert_leaf(o, D.kfloat64, 0, (2, 1))


# ----------------------------------------------------------------- ranges and patterns

@pytest.mark.parametrize("make,expected", [
    (lambda **kw: tt.arange(0, 5, 2, **kw), np.arange(0, 5, 2)),
    (lambda **kw: tt.arange(1, 2, 0.25, **kw), np.arange(1, 2, 0.25)),
    (lambda **kw: tt.arange(3, -1, -1, **kw), np.arange(3, -1, -1)),
    (lambda **kw: tt.linspace(0, 1, 5, **kw), np.linspace(0, 1, 5)),
    (lambda **kw: tt.linspace(2, -2, 1, **kw), np.linspace(2, -2, 1)),
    (lambda **kw: tt.logspace(0, 2, 3, 10.0, **kw), np.logspace(0, 2, 3, base=10.0)),
    (lambda **kw: tt.logspace(1, 3, 3, 2, **kw), np.logspace(1, 3, 3, base=2)),
    (lambda **kw: tt.eye(3, **kw), np.eye(3)),
    (lambda **kw: tt.eye(3, 1, **kw), np.eye(3, k=1)),
    (lambda **kw: tt.eye(4, -2, **kw), np.eye(4, k=-2)),
])
@pytest.mark.parametrize("device,dtype", [(0, None), (GPU0, None), (GPU0, D.kfloat64),
                                          (0, D.kint64)])
def test_ranges(default_dtype, make, expected, device, dtype):
    r = make(device=device, dtype=dtype)
    want = default_dtype if dtype is None else dtype
    assert_leaf(r, want, device, expected.shape)
    assert (r.requires_grad, r.grad) == (False, None)
    np.testing.assert_allclose(val(r), expected.astype(D.dtype_map[want]), rtol=1e-6)


RANDOM = [
    (lambda **kw: tt.randu([300, 40], **kw), lambda a: 0 <= a.min() and a.max() < 1),
    (lambda **kw: tt.randu([300, 40], -3.0, -1.0, **kw),
     lambda a: -3 <= a.min() and a.max() < -1 and abs(a.mean() + 2) < 0.05),
    (lambda **kw: tt.randn([300, 40], **kw), lambda a: abs(a.mean()) < 0.05 and abs(a.std() - 1) < 0.05),
    (lambda **kw: tt.randn([300, 40], 4.0, 0.1, **kw),
     lambda a: abs(a.mean() - 4) < 0.01 and abs(a.std() - 0.1) < 0.01),
]


@pytest.mark.parametrize("make,check", RANDOM)
@pytest.mark.parametrize("device,dtype", [(0, None), (GPU0, D.kfloat64)])
def test_random(default_dtype, make, check, device, dtype):
    _core.manual_seed(11)
    r = make(device=device, dtype=dtype)
    assert_leaf(r, default_dtype if dtype is None else dtype, device, (300, 40))
    a = val(r)
    assert check(a.astype(np.float64)) and np.unique(a).size > a.size // 2
    _core.manual_seed(11)
    np.testing.assert_array_equal(val(make(device=device, dtype=dtype)), a)
    assert not np.array_equal(val(make(device=device, dtype=dtype)), a)


KIND_C = [lambda **kw: tt.arange(0, 3, **kw), lambda **kw: tt.linspace(0, 1, 3, **kw),
          lambda **kw: tt.logspace(0, 1, 3, 2.0, **kw), lambda **kw: tt.eye(3, **kw),
          lambda **kw: tt.randu([3], **kw), lambda **kw: tt.randn([3], **kw),
          lambda **kw: tt.diag(QTensor([1.0, 2.0, 3.0], device=GPU0), **kw)]


@pytest.mark.parametrize("make", KIND_C)
@pytest.mark.parametrize("requires_grad", [True, 1, 0, False])
def test_requires_grad_is_stored_as_given(make, requires_grad):
    r = make(requires_grad=requires_grad)
    assert r.requires_grad is requires_grad and r.nodes == []
    if requires_grad is True:
        assert (r.grad.shape, r.grad.dtype, r.grad.data.device) == (r.shape, r.dtype, r.device)
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
    expected = np.diag(a, k)
    assert_leaf(r, t.dtype, device, expected.shape)
    assert (r.requires_grad, r.grad) == (False, None)
    np.testing.assert_array_equal(val(r), expected)
