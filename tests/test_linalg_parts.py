"""Matrix parts (kron, triu, tril, trace), complex parts (conj, real, imag, adjoint), the Hermitian
eigen-decompositions (eigvalsh, eigh) and frobenius_norm: values against numpy, gradients against
central differences, labels, records and refusals."""
import numpy as np
import pytest

from pytramel import _core
from pytramel import dtype as D
from pytramel.onnx import export
from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor
from conftest import GPU0, numeric_grad

RNG = np.random.default_rng(5)
FLOATS = [np.float32, np.float64, np.complex64, np.complex128]
TOL = {np.float32: 1e-4, np.complex64: 1e-4, np.float64: 1e-10, np.complex128: 1e-10}


def random(shape, nptype=np.float64, scale=1):
    x = RNG.normal(size=shape) * scale
    if np.issubdtype(nptype, np.complexfloating):
        x = x + 1j * RNG.normal(size=shape) * scale
    return x.astype(nptype)


def hermitian(shape, nptype=np.complex128):
    a = random(shape, nptype)
    return ((a + np.conj(np.swapaxes(a, -1, -2))) / 2).astype(nptype)


def backward_against(op, ref, *xs, which=0):
    """Gradient of op for input `which`, seeded with random weights, against central differences."""
    ts = [QTensor(x, requires_grad=True) for x in xs]
    y = op(*ts)
    out = y.to_numpy()
    w = random(out.shape, out.dtype.type if np.iscomplexobj(out) else np.float64)
    y.backward(w)
    args = list(xs)

    def f(v):
        args[which] = v
        return ref(*args)
    np.testing.assert_allclose(ts[which].grad.to_numpy(), numeric_grad(f, xs[which], w), rtol=1e-6, atol=1e-7)
    return ts[which].grad.to_numpy()


# ---------------------------------------------------------------- values

@pytest.mark.parametrize("nptype", [np.bool_, np.int32, np.float32, np.complex128])
def test_kron_triangles_and_trace_match_numpy(nptype):
    a, b = random((2, 3), nptype, 3), random((3, 1, 2), nptype, 3)
    got = tt.kron(QTensor(a), QTensor(b)).to_numpy()  # a of lower rank gets a leading axis
    assert got.dtype == np.kron(a, b).dtype and np.allclose(got, np.kron(a, b))
    x = random((2, 3, 5), nptype, 3)
    for d in (-4, -1, 0, 2, 7):
        assert np.array_equal(tt.triu(QTensor(x), d).to_numpy(), np.triu(x, d))
        assert np.array_equal(tt.tril(QTensor(x), d).to_numpy(), np.tril(x, d))
        want = np.trace(x, d, axis1=-2, axis2=-1)
        got = tt.trace(QTensor(x), d).to_numpy()
        assert got.dtype == want.dtype and np.allclose(got, want)
    assert tt.trace(QTensor(x[0])).shape == []


def test_kron_mixed_dtypes_promote():
    got = tt.kron(QTensor(np.arange(4, dtype=np.int32).reshape(2, 2)), QTensor(np.array([1.5j, 2], np.complex64)))
    assert got.to_numpy().dtype == np.complex64
    np.testing.assert_allclose(got.to_numpy(), np.kron(np.arange(4).reshape(2, 2), [1.5j, 2]))


def test_kron_gradient_of_a_factor_whose_partner_is_empty_is_zero():
    g = _core.tramel.kron_t1grad(_core.Tensor(np.ones((0, 3))), _core.Tensor(np.full((), 2.0)),
                                 _core.Tensor(np.ones((0, 3))))
    assert g.shape == [] and np.array(g) == 0


@pytest.mark.parametrize("nptype", [np.complex64, np.complex128, np.float64, np.int16])
def test_complex_parts(nptype):
    x = random((2, 3), nptype, 4)
    for op, ref in ((tt.real, np.real), (tt.imag, np.imag), (tt.conj, np.conj)):
        got = op(QTensor(x)).to_numpy()
        assert got.dtype == ref(x).dtype and np.array_equal(got, ref(x))


@pytest.mark.parametrize("nptype", FLOATS)
def test_eigvalsh_and_eigh_match_numpy_and_read_the_lower_triangle(nptype):
    a = random((3, 6, 6), nptype)  # not Hermitian: only its lower triangle counts, as numpy's default
    w_ref = np.linalg.eigvalsh(a)
    w = tt.eigvalsh(QTensor(a)).to_numpy()
    assert w.dtype == w_ref.dtype and np.allclose(w, w_ref, atol=TOL[nptype] * 10)
    packed = tt.eigh(QTensor(a)).to_numpy()
    assert packed.dtype == np.dtype(nptype) and packed.shape == (3, 7, 6)
    _, v_ref = np.linalg.eigh(a)
    w, v = packed[:, 0].real, packed[:, 1:]
    assert np.allclose(w, w_ref, atol=TOL[nptype] * 10)
    # Eigenvectors as columns, equal to numpy's up to a phase each (the eigenvalues are distinct).
    overlap = np.abs(np.einsum("bij,bij->bj", np.conj(v_ref), v))
    np.testing.assert_allclose(overlap, 1, atol=TOL[nptype] * 100)
    h = np.tril(a, -1) + np.conj(np.swapaxes(np.tril(a, -1), -1, -2)) + np.real(np.einsum("bii->bi", a))[..., None] * np.eye(6)
    np.testing.assert_allclose(v @ (w[..., None] * np.conj(np.swapaxes(v, -1, -2))), h, atol=TOL[nptype] * 100)


def test_eig_of_integers_in_the_default_dtype_and_of_empty_batches(default_dtype):
    a = np.array([[2, 1], [1, 2]], np.int64)
    w = tt.eigvalsh(QTensor(a))
    assert w.dtype == default_dtype and np.allclose(w.to_numpy(), [1, 3])
    assert tt.eigh(QTensor(np.zeros((0, 3, 3)))).shape == [0, 4, 3]
    assert tt.eigvalsh(QTensor(np.zeros((2, 0, 0)))).shape == [2, 0]


@pytest.mark.parametrize("nptype", [np.float32, np.complex128, np.int32])
def test_frobenius_norm_values(nptype, default_dtype):
    x = random((3, 4, 2), nptype, 3)
    y = tt.frobenius_norm(QTensor(x))
    # A Python float made into a tensor: 0-d, of the default dtype.
    assert y.shape == [] and y.dtype == default_dtype
    np.testing.assert_allclose(y.to_numpy(), np.linalg.norm(x.ravel()), rtol=1e-6)
    for axis in (0, -1):
        for keepdims in (False, True):
            want = np.linalg.norm(x.astype(np.complex128), axis=axis, keepdims=keepdims)
            got = tt.frobenius_norm(QTensor(x), axis, keepdims).to_numpy()
            assert got.shape == want.shape
            np.testing.assert_allclose(got, want, rtol=1e-6)


# ---------------------------------------------------------------- gradients

@pytest.mark.parametrize("nptype", [np.float64, np.complex128])
def test_gradients_against_central_differences(nptype):
    a, b, m = random((2, 3), nptype), random((3, 1, 2), nptype), random((2, 3, 4), nptype)
    backward_against(tt.kron, np.kron, a, b, which=0)
    backward_against(tt.kron, np.kron, a, b, which=1)
    backward_against(lambda t: tt.triu(t, 1), lambda v: np.triu(v, 1), m)
    backward_against(lambda t: tt.tril(t, -1), lambda v: np.tril(v, -1), m)
    g = backward_against(lambda t: tt.trace(t, -1), lambda v: np.trace(v, -1, axis1=-2, axis2=-1), m)
    assert np.count_nonzero(g) == 2 * 2 and np.all(g[:, [1, 2], [0, 1]] != 0)
    backward_against(tt.adjoint, lambda v: np.conj(np.swapaxes(v, -1, -2)), m)
    backward_against(lambda t: tt.frobenius_norm(t, 1, True), lambda v: np.linalg.norm(v, axis=1, keepdims=True), m)
    D.set_default_dtype(D.kfloat64)  # the norm of all elements is a tensor of the default dtype
    backward_against(tt.frobenius_norm, lambda v: np.linalg.norm(v.ravel()), m)


@pytest.mark.parametrize("nptype", [np.float64, np.complex128])
def test_eigvalsh_gradient_is_v_diag_g_vh(nptype):
    a = hermitian((2, 4, 4), nptype)
    t = QTensor(a, requires_grad=True)
    w = random((2, 4))
    tt.eigvalsh(t).backward(w)
    g = t.grad.to_numpy()
    _, v = np.linalg.eigh(a)
    np.testing.assert_allclose(g, v @ (w[..., None] * np.conj(np.swapaxes(v, -1, -2))), atol=1e-10)
    # Moving one element of the lower triangle moves its mirror image too; the upper one is not read.
    fd = numeric_grad(lambda x: np.linalg.eigvalsh(x), a, w)
    diag = np.einsum("bii->bi", g).real
    want = np.tril(g + np.conj(np.swapaxes(g, -1, -2)), -1) + diag[..., None] * np.eye(4)
    np.testing.assert_allclose(fd, want, atol=1e-6)


def test_complex_part_gradients_return_in_the_complex_dtype():
    x = random((2, 2), np.complex64)
    t = QTensor(x, requires_grad=True)
    tt.real(t).backward(np.full((2, 2), 2, np.float32))
    assert t.grad.to_numpy().dtype == np.complex64 and np.array_equal(t.grad.to_numpy(), np.full((2, 2), 2))
    t = QTensor(x, requires_grad=True)
    tt.imag(t).backward(np.full((2, 2), 3, np.float32))  # dL/dIm(x) = 3: the gradient is 3j
    assert np.array_equal(t.grad.to_numpy(), np.full((2, 2), 3j))
    t = QTensor(hermitian((3, 3)), requires_grad=True)
    tt.eigh(t).backward(np.ones((4, 3), np.complex128))  # eigh passes zeros back
    assert t.grad.shape == [3, 3] and not t.grad.to_numpy().any()


# ---------------------------------------------------------------- graph, records, refusals

def test_node_names_and_who_gets_an_edge():
    a, b = QTensor(random((2, 3))), QTensor(random((3,)), requires_grad=True)
    (node,) = tt.kron(a, b).nodes
    assert node.tensor is b and node.name == "kron t2 [3] grad"
    m = QTensor(random((3, 3), np.complex128), requires_grad=True)
    assert [n.name for n in tt.kron(m, m).nodes] == ["kron t1 [3, 3] grad", "kron t2 [3, 3] grad"]
    named = [(tt.trace, f"trace grad of {id(m)}"), (tt.conj, f"conj grad of {id(m)}"),
             (tt.real, f"real of {id(m)}"), (tt.imag, f"imag of {id(m)}"),
             (tt.eigvalsh, f"t1 eigvalsh grad {id(m)}"), (tt.eigh, "t1 eigh grad [3, 3]"),
             (tt.triu, ""), (tt.tril, ""), (tt.frobenius_norm, ""), (lambda t: tt.frobenius_norm(t, 0), "")]
    for op, name in named:
        (node,) = op(m).nodes
        assert node.tensor is m and node.name == name
    # eigvalsh and eigh copy a truthy flag that is not True, and make no edge for it.
    one = QTensor(hermitian((3, 3)), requires_grad=1)
    for op in (tt.eigvalsh, tt.eigh):
        y = op(one)
        assert y.requires_grad == 1 and y.requires_grad is not True and y.nodes == []


def test_adjoint_is_transpose_then_conj():
    v = QTensor(random((3,), np.complex128), requires_grad=True)
    y = tt.adjoint(v)
    assert y.nodes[0].tensor is v and y.nodes[0].name == f"conj grad of {id(v)}"  # no transpose
    x = random((2, 3, 4), np.complex128)
    y = tt.adjoint(QTensor(x, requires_grad=True))
    assert np.array_equal(y.to_numpy(), np.conj(np.swapaxes(x, 1, 2)))
    assert y.nodes[0].tensor.nodes[0].name == "tranpose grad dim = [0, 2, 1]"
    assert tt.adjoint(QTensor(1.5j)) is None


def test_records():
    export.set_onnx_convert_config("save_constant", True)
    export.set_onnx_convert_config("save_opinfo", True)
    t = QTensor(random((3, 4)))
    cases = [
        (tt.triu(t, 1), "Triu", f"{id(t)}_triu_", {"k": 0}, " triu "),  # the call's diagonal is not recorded
        (tt.tril(t), "Tril", f"{id(t)}_tril_", {"k": 0}, " tril "),
        (tt.trace(t, 1), "Trace", f"{id(t)}_trace_", {}, " trace "),
        (tt.frobenius_norm(t), "Frobenius_Norm", f"{id(t)}_frobenius_norm_None_", {"axes": None, "keepdims": False},
         " frobenius_norm "),
        (tt.frobenius_norm(t, -1, 1), "Frobenius_Norm", f"{id(t)}_frobenius_norm_1_", {"axes": 1, "keepdims": 1},
         " frobenius_norm "),
    ]
    for y, opname, opid, attribute, link in cases:
        record = y.oplinkinfo
        assert (record.opname, record.opid, record.op_attribute) == (opname, opid + str(id(y)), attribute)
        assert [(n.tensor, n.name) for n in y.link_nodes] == [(t, link)]
    h = QTensor(hermitian((2, 2)))
    for y in (tt.kron(t, t), tt.conj(h), tt.real(h), tt.imag(h), tt.eigvalsh(h), tt.eigh(h)):
        assert y.oplinkinfo.opname == "Constant" and y.link_nodes == []


@pytest.mark.parametrize("call,exc,text", [
    (lambda: tt.triu(QTensor([1.0, 2.0])), ValueError, "Only support a matrix (2-D tensor) or batch of matrices input"),
    (lambda: tt.tril(QTensor(1.0)), ValueError, "Only support a matrix (2-D tensor) or batch of matrices input"),
    (lambda: tt.eigvalsh(QTensor(np.ones((2, 3)))), ValueError,
     "[eigvalsh] expected square matrices on the last two axes, got shape [2, 3]"),
    (lambda: tt.eigh(QTensor(np.ones(3))), ValueError,
     "[eigh] expected a matrix or a batch of matrices, got shape [3]"),
    (lambda: tt.trace(QTensor([1.0])), ValueError, "[trace] expected a matrix or a batch of matrices, got shape [1]"),
    (lambda: tt.frobenius_norm(QTensor(np.ones((2, 3))), 2), AssertionError, ""),
    (lambda: tt.real(QTensor([1.0], requires_grad=True)).nodes[0].df(_core.Tensor(np.ones(1, np.int64))),
     ValueError, "data type of complex or float is supported"),
    (lambda: _core.tramel.kron_t1grad(_core.Tensor(np.ones((2, 2))), _core.Tensor(np.ones(2)),
                                      _core.Tensor(np.ones(3))), ValueError,
     "[kron_t1grad] the gradient has shape [2, 2], the product of [2] and [3] has shape [6]"),
])
def test_messages(call, exc, text):
    with pytest.raises(exc) as info:
        call()
    assert str(info.value) == text


def test_a_lapack_failure_is_an_error_naming_the_operation():
    a = np.full((4, 4), np.nan)
    with pytest.raises(RuntimeError, match=r"^\[eigvalsh\] the eigenvalue algorithm did not converge"):
        tt.eigvalsh(QTensor(a))


def test_results_stay_on_the_accelerator():
    x = QTensor(hermitian((3, 3)), device=GPU0, requires_grad=True)
    for y in (tt.eigvalsh(x), tt.frobenius_norm(x), tt.real(x), tt.trace(x), tt.kron(x, x)):
        assert y.device == GPU0 and y.data.device == GPU0
    tt.frobenius_norm(tt.eigvalsh(x)).backward()
    assert x.grad.data.device == GPU0
