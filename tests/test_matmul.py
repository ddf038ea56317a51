"""Matrix products: the engine's mult2D, bmm and matmul, the module's matmul with its three paths by
rank, its gradients and records, and tensordot."""
import re

import numpy as np
import pytest

from pytramel import _core
from pytramel.onnx import export
from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor
from conftest import GPU0, host, numeric_grad, sample

T = _core.Tensor
ENGINE = {2: T.mult2D, 3: T.bmm, 4: T.matmul}


def swapped(x):
    return np.ascontiguousarray(np.swapaxes(x, -1, -2))


@pytest.mark.parametrize("nptype", [np.float32, np.float64, np.complex64, np.complex128, np.int8, np.bool_])
@pytest.mark.parametrize("lead,m,k,n", [((), 3, 4, 5), ((), 2, 2, 700), ((), 40, 33, 20), ((3,), 2, 2, 2),
                                        ((5,), 16, 16, 16), ((2, 3), 4, 6, 4), ((), 1, 300, 2)])
def test_engine_products_agree_with_numpy_under_every_flag(nptype, lead, m, k, n):
    # Sizes cover the direct loop (tiny, and a tiny left matrix on long rows) and BLAS.
    product = ENGINE[len(lead) + 2]
    a_ref, b_ref = sample(lead + (m, k), nptype, 1), sample(lead + (k, n), nptype, 2)
    wide = np.int64 if nptype in (np.int8, np.bool_) else nptype  # int8 wraps; bool counts in int64
    expected = (a_ref.astype(wide) @ b_ref.astype(wide)).astype(np.int8 if nptype is np.int8 else wide)
    for ta in (0, 1):
        for tb in (0, 1):
            a, b = T(swapped(a_ref) if ta else a_ref), T(swapped(b_ref) if tb else b_ref)
            got = np.array(product(a, b, ta, tb))
            assert got.dtype == expected.dtype
            np.testing.assert_allclose(got, expected, rtol=1e-5)


def test_engine_mixed_dtypes_promote_and_empty_dimensions_give_zeros():
    got = T.mult2D(T(np.ones((2, 3), np.float32)), T(np.ones((3, 2), np.complex128)))
    assert np.array(got).dtype == np.complex128
    for a, b, shape in [((3, 0), (0, 2), (3, 2)), ((0, 4), (4, 2), (0, 2)), ((2, 4), (4, 0), (2, 0))]:
        got = np.array(T.mult2D(T(np.ones(a)), T(np.ones(b))))
        np.testing.assert_array_equal(got, np.zeros(shape))
    np.testing.assert_array_equal(np.array(T.bmm(T(np.ones((2, 3, 0))), T(np.ones((2, 0, 4))), 0, 0)),
                                  np.zeros((2, 3, 4)))


@pytest.mark.parametrize("call,exc,text", [
    (lambda: T.mult2D(T(np.ones((2, 3))), T(np.ones((4, 5)))), ValueError,
     "[mult2D] inner dimensions differ: [2, 3] and [4, 5]"),
    (lambda: T.bmm(T(np.ones((2, 3, 4))), T(np.ones((5, 4, 2)))), ValueError,
     "[bmm] batch dimensions differ: [2, 3, 4] and [5, 4, 2]"),
    (lambda: T.matmul(T(np.ones((2, 3, 4, 5))), T(np.ones((2, 3, 4, 5))), 0, 0), ValueError,
     "[matmul] inner dimensions differ: [2, 3, 4, 5] and [2, 3, 4, 5]"),
    (lambda: T.mult2D(T(np.ones((2, 3))), T(np.ones(3))), ValueError,
     "[mult2D] expected two rank-2 tensors, got [2, 3] and [3]"),
    (lambda: T.matmul(T(np.ones((2, 3))), T(np.ones((3, 2)))), ValueError,
     "[matmul] expected two rank-4 tensors, got [2, 3] and [3, 2]"),
    (lambda: T.mult2D(T(np.ones((2, 2))), T(np.ones((2, 2))), 2, 0), ValueError, "[mult2D] ta must be 0 or 1, got 2"),
    (lambda: T.bmm(T(np.ones((1, 2, 2))), T(np.ones((1, 2, 2))), 0, 1.0), TypeError,
     "[bmm] tb must be an integer, got float"),
    (lambda: T.mult2D(T(np.ones((2, 2))), T(np.ones((2, 2)), GPU0)), RuntimeError,
     f"[mult2D] tensors are on different devices: 0 and {GPU0}"),
    (lambda: tt.matmul(QTensor(np.ones((2, 3))), QTensor(np.ones((1, 3, 2)))), RuntimeError,
     "Matmul only supports 2d matrix product or 4d batch matrix product."),
    (lambda: tt.matmul(QTensor(np.ones(3)), QTensor(np.ones(3))), RuntimeError,
     "Matmul only supports 2d matrix product or 4d batch matrix product."),
    (lambda: tt.matmul(QTensor(np.ones((1,) * 5)), QTensor(np.ones((1,) * 5))), RuntimeError,
     "Matmul only supports 2d matrix product or 4d batch matrix product."),
    (lambda: tt.tensordot(QTensor(np.ones((2, 3))), QTensor(np.ones((5, 3))), [0], [0]), AssertionError,
     "The dimensional size for 'x' and 'y' in  should match each other, but 'x' has size 2 in dim 0 while "
     "'y' has size 5 in dim 0."),
])
def test_refusals(call, exc, text):
    with pytest.raises(exc, match="^" + re.escape(text) + "$"):
        call()


@pytest.mark.parametrize("shapes,word,path", [
    (((2, 3), (3, 4)), "dot", "helper_function_matmul2d"), (((2, 2, 3), (2, 3, 1)), "bmm", "helper_function_bmm"),
    (((2, 1, 2, 3), (2, 1, 3, 2)), "mm", "helper_function_matmul4d")])
def test_paths_by_rank_name_their_edges_and_record_a_matmul(shapes, word, path):
    export.set_onnx_convert_config("save_constant", True)
    export.set_onnx_convert_config("save_opinfo", True)
    a, b = QTensor(np.ones(shapes[0]), requires_grad=True), QTensor(np.ones(shapes[1]), requires_grad=True)
    y = tt.matmul(a, b)
    assert [n.name for n in y.nodes] == [f"{word} t1 {a.shape} grad", f"{word} t2 {b.shape} grad"]
    assert [n.tensor for n in y.nodes] == [a, b]
    assert [n.name for n in getattr(tt, path)(a, b).nodes] == [n.name for n in y.nodes]
    record = y.oplinkinfo
    assert (record.opname, record.opid, record.op_attribute) == ("MatMul", f"{id(a)}_matmul_{id(b)}_{id(y)}", {})
    assert [(n.tensor, n.name) for n in y.link_nodes] == [(a, " matmul "), (b, " matmul ")]
    # Only inputs that need a gradient get an edge.
    c = QTensor(np.ones(shapes[0]))
    assert [n.tensor for n in tt.matmul(c, b).nodes] == [b]
    assert tt.matmul(c, QTensor(np.ones(shapes[1]))).requires_grad is False


def test_bmm_path_gives_none_for_other_ranks():
    assert tt.helper_function_bmm(QTensor(np.ones((2, 2))), QTensor(np.ones((2, 2)))) is None


@pytest.mark.parametrize("nptype", [np.float64, np.complex128])
# Small matrices take the direct loop, (12, 10) x (10, 9) BLAS: both conjugate-transpose the partner.
@pytest.mark.parametrize("shapes", [((3, 4), (4, 2)), ((2, 3, 2), (2, 2, 4)), ((2, 1, 2, 3), (2, 1, 3, 3)),
                                    ((12, 10), (10, 9))])
def test_gradients_match_finite_differences(nptype, shapes):
    a, b = sample(shapes[0], nptype, 3), sample(shapes[1], nptype, 4)
    w = sample(shapes[0][:-1] + shapes[1][-1:], nptype, 5)  # L = sum(Re(conj(w) * y))
    qa, qb = QTensor(a, requires_grad=True), QTensor(b, requires_grad=True)
    y = tt.matmul(qa, qb)
    tt.sums(tt.mul(QTensor(np.conj(w)), y)).backward()  # a seed of one: y's gradient is w
    np.testing.assert_allclose(qa.grad.to_numpy(), numeric_grad(lambda v: v @ b, a, w), rtol=1e-6, atol=1e-7)
    np.testing.assert_allclose(qb.grad.to_numpy(), numeric_grad(lambda v: a @ v, b, w), rtol=1e-6, atol=1e-7)


def test_gradients_read_the_inputs_when_backward_runs():
    a, b = QTensor(np.eye(2), requires_grad=True), QTensor(np.ones((2, 2)), requires_grad=True)
    y = tt.matmul(a, b)
    b.data.fill_(3.0)
    tt.sums(y).backward()
    np.testing.assert_array_equal(a.grad.to_numpy(), np.full((2, 2), 6.0))


def test_products_run_on_the_accelerator():
    a = QTensor(np.arange(6.0).reshape(2, 3), requires_grad=True).toGPU(GPU0)
    b = QTensor(np.ones((3, 2)) * 1j, requires_grad=True).toGPU(GPU0)
    y = tt.matmul(a, b)
    assert y.device == GPU0
    tt.sums(y).backward()
    assert a.grad.device == GPU0
    np.testing.assert_allclose(host(y.data), np.arange(6.0).reshape(2, 3) @ (np.ones((3, 2)) * 1j))


@pytest.mark.parametrize("xs,ys,d1,d2,ref", [
    ((2, 3), (3, 4), [1], [0], lambda x, y: x @ y),
    ((2, 3), (3, 2), [0, 1], [1, 0], lambda x, y: np.tensordot(x, y, ([0, 1], [1, 0]))),
    ((1, 3), (5, 2), [0], [0], lambda x, y: np.outer(x.sum(0), y.sum(0))),
    ((2, 3, 4), (4, 3, 5), [-1, 1], [0, 1], lambda x, y: np.tensordot(x, y, ([2, 1], [0, 1]))),
    ((3, 2, 4), (3, 2), [0, 1], [0], lambda x, y: np.tensordot(x, y, ([0, 1], [0, 1]))),
    ((2, 3), (2,), [], [], lambda x, y: np.multiply.outer(x, y)),
])
def test_tensordot(xs, ys, d1, d2, ref):
    x, y = sample(xs, np.float64, 6), sample(ys, np.float64, 7)
    qx, qy = QTensor(x, requires_grad=True), QTensor(y, requires_grad=True)
    out = tt.tensordot(qx, qy, d1, d2)
    expected = ref(x, y)
    assert out.shape == list(expected.shape)
    np.testing.assert_allclose(out.to_numpy(), expected)
    tt.sums(out).backward()
    np.testing.assert_allclose(qx.grad.to_numpy(), numeric_grad(lambda v: ref(v, y), x, np.ones_like(expected)),
                               rtol=1e-6, atol=1e-7)


def test_gradient_descent_on_a_complex_matrix_finds_the_least_squares_solution():
    rng = np.random.default_rng(0)
    x = rng.normal(size=(3, 40)) + 1j * rng.normal(size=(3, 40))
    y = rng.normal(size=(2, 40)) + 1j * rng.normal(size=(2, 40))
    w = QTensor(np.zeros((2, 3), np.complex128), requires_grad=True)
    qx, qy = QTensor(x), QTensor(y)
    for _ in range(300):
        w.zero_grad()
        tt.sums(tt.abs(tt.matmul(w, qx) - qy) ** 2).backward()
        w.data.add_(w.grad.data.mult(-0.005))
    best = np.linalg.lstsq(x.T, y.T, rcond=None)[0].T
    np.testing.assert_allclose(w.to_numpy(), best, atol=1e-6)
