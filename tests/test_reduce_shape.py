"""Reductions with extrema, spreads and running sums; shape changes. Values against
numpy, gradients against finite differences, ties, labels, records and messages."""
import warnings

import numpy as np
import pytest

from pytramel.onnx import export
from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor

from conftest import numeric_grad

RNG = np.random.default_rng(3)
X = RNG.normal(size=(3, 4, 2))
XC = X + 1j * RNG.normal(size=X.shape)
AXES = [None, 0, 1, -1]


def grad_close(actual, expected):
    np.testing.assert_allclose(actual, expected, rtol=1e-6, atol=1e-7)


def backward_against(op, ref, x):
    """Gradient of op at x, seeded with random weights, against central differences of ref."""
    t = QTensor(x, requires_grad=True)
    y = op(t)
    out = y.to_numpy()
    w = RNG.normal(size=out.shape)
    if np.iscomplexobj(out):
        w = w + 1j * RNG.normal(size=out.shape)
    y.backward(w)
    grad_close(t.grad.to_numpy(), numeric_grad(ref, x, w))
    return y


# name: numpy reference taking (x, axis, keepdims)
EXTREMES = {"min": np.min, "max": np.max}
SPREAD = {"std": lambda x, axis, keepdims, ddof: np.std(x, axis=axis, keepdims=keepdims, ddof=ddof),
          "var": lambda x, axis, keepdims, ddof: np.var(x, axis=axis, keepdims=keepdims, ddof=ddof)}


@pytest.mark.parametrize("name", list(EXTREMES) + ["median"])
@pytest.mark.parametrize("axis", AXES)
@pytest.mark.parametrize("keepdims", [False, True])
@pytest.mark.parametrize("dtype", [np.float64, np.float32, np.int32])
def test_extremes_and_median_values(name, axis, keepdims, dtype):
    x = (X * 4).astype(dtype)
    y = getattr(tt, name)(QTensor(x), axis, keepdims)
    ref = {"median": np.median, **EXTREMES}[name](x, axis=axis, keepdims=keepdims and axis is not None)
    np.testing.assert_allclose(y.to_numpy().reshape(np.shape(ref)), ref, rtol=1e-6)


@pytest.mark.parametrize("name", list(SPREAD))
@pytest.mark.parametrize("axis", AXES)
@pytest.mark.parametrize("unbiased", [True, False])
@pytest.mark.parametrize("x", [X, XC], ids=["float64", "complex128"])
def test_spread_values_and_gradients(name, axis, unbiased, x):
    ref = SPREAD[name]
    op = tt.std if name == "std" else tt.var
    out = backward_against(lambda t: op(t, axis, False, unbiased), lambda v: ref(v, axis, False, int(unbiased)), x)
    expected = ref(x, axis, False, int(unbiased))
    np.testing.assert_allclose(out.to_numpy().reshape(np.shape(expected)), expected)
    assert out.nodes[0].name == ""


def test_unbiased_one_counts_as_true_for_the_value_only():
    # The value divides by n - 1 (1 is true); the gradient by n (only True means n - 1).
    x = np.array([1.0, 2.0, 4.0])
    t = QTensor(x, requires_grad=True)
    s = tt.std(t, unbiased=1)
    assert np.isclose(s.item(), np.std(x, ddof=1))
    s.backward()
    assert np.allclose(t.grad.to_numpy(), (x - x.mean()) / np.std(x, ddof=1) / 3)


def test_worked_spread_values():
    t = QTensor(np.array([1.0, 2.0, 3.0]), requires_grad=True)
    s = tt.std(t)
    assert np.isclose(s.item(), 1.0)
    s.backward()
    assert np.allclose(t.grad.to_numpy(), [-0.5, 0, 0.5])
    t.zero_grad()
    tt.var(t, unbiased=False).backward()
    assert np.allclose(t.grad.to_numpy(), 2 * (t.to_numpy() - 2) / 3)


def test_extreme_gradients_and_ties():
    t = QTensor(np.array([3.0, 1.0, 1.0, 2.0]), requires_grad=True)
    tt.min(t).backward()
    assert np.allclose(t.grad.to_numpy(), [0, 0.5, 0.5, 0])
    m = QTensor(np.array([[1.0, 2.0], [1.0, 0.0]]), requires_grad=True)
    for keepdims in (False, True):
        m.grad = None
        y = tt.max(m, 0, keepdims)
        y.backward(np.ones(y.shape))
        assert np.allclose(m.grad.to_numpy(), [[1, 1], [1, 0]])
    assert tt.max(m, -1).nodes[0].name == "[2, 2] max grad"
    # min asks for the object True, max for any true value.
    flagged = QTensor(np.ones(2), requires_grad=1)
    assert tt.min(flagged).nodes == [] and tt.max(flagged).nodes != []
    backward_against(lambda q: tt.max(q, 1), lambda v: v.max(axis=1), X)


# A reduction over all elements has shape [1]; of a 0-d tensor, its gradient comes
# back in shape [], through every path that spreads the result over the input.
@pytest.mark.parametrize("op,ref", [
    (tt.min, np.min), (tt.max, np.max),
    (lambda t: tt.std(t, unbiased=False), np.std), (lambda t: tt.var(t, unbiased=False), np.var),
    (lambda t: tt.std(t, unbiased=True), lambda v: np.std(v, ddof=1)),
    (lambda t: tt.var(t, unbiased=True), lambda v: np.var(v, ddof=1)),
    (lambda t: tt.cumsum(t, 0), lambda v: np.cumsum(v, 0)), (lambda t: tt.cumsum(t), np.cumsum),
], ids=["min", "max", "std", "var", "std-unbiased", "var-unbiased", "cumsum", "cumsum-default-axis"])
@pytest.mark.parametrize("x", [np.array(1.75), np.array([1.75]), np.array([[1.75]])], ids=["0-d", "[1]", "[1, 1]"])
def test_reductions_of_one_element(op, ref, x):
    with np.errstate(all="ignore"), warnings.catch_warnings():
        warnings.simplefilter("ignore", RuntimeWarning)  # numpy's ddof=1 of one element
        y = backward_against(op, ref, x)
        np.testing.assert_allclose(y.to_numpy().reshape(np.shape(ref(x))), ref(x))
    t = QTensor(x, requires_grad=True)
    op(t).backward()
    assert t.grad.shape == list(x.shape)


def test_worked_gradients_of_0d_extremes_and_spreads():
    x = QTensor(np.array(2.0), requires_grad=True)
    tt.max(x).backward()
    tt.min(x).backward()
    assert x.grad.shape == [] and x.grad.item() == 2.0
    for op, expected in [(tt.std, np.nan), (tt.var, np.nan), (lambda t: tt.std(t, unbiased=False), 0.0),
                         (lambda t: tt.var(t, unbiased=False), 0.0)]:
        x.zero_grad()
        op(x).backward()
        np.testing.assert_array_equal(x.grad.to_numpy(), np.array(expected))
    t = QTensor(np.array([1.0, 2.0, 3.0]), requires_grad=True)
    tt.std(t).backward()
    np.testing.assert_allclose(t.grad.to_numpy(), [-0.5, 0.0, 0.5])


def test_median_has_no_gradient():
    t = QTensor(X, requires_grad=True)
    y = tt.median(t)
    assert y.requires_grad is True and y.nodes == [] and y.oplinkinfo is None


@pytest.mark.parametrize("axis", [0, 1, -1])
@pytest.mark.parametrize("x", [X, XC], ids=["float64", "complex128"])
def test_cumsum(axis, x):
    y = backward_against(lambda t: tt.cumsum(t, axis), lambda v: np.cumsum(v, axis=axis), x)
    assert np.allclose(y.to_numpy(), np.cumsum(x, axis=axis))
    assert y.nodes[0].name == "input grad [3, 4, 2] cumsumgrad [3, 4, 2]"


# name: (operator, numpy reference) for the linear shape operators
SHAPE_OPS = {
    "reshape": (lambda t: tt.reshape(t, [4, 6]), lambda v: v.reshape(4, 6)),
    "QTensor.reshape": (lambda t: t.reshape([2, 12]), lambda v: v.reshape(2, 12)),
    "flatten": (lambda t: tt.flatten(t, 1), lambda v: v.reshape(3, 8)),
    "QTensor.flatten": (lambda t: t.flatten(), lambda v: v.reshape(-1)),
    "swapaxis": (lambda t: tt.swapaxis(t, 0, 2), lambda v: np.swapaxes(v, 0, 2)),
    "transpose": (lambda t: tt.transpose(t, [2, 0, 1]), lambda v: np.transpose(v, [2, 0, 1])),
    "QTensor.transpose": (lambda t: t.transpose([1, 2, 0]), lambda v: np.transpose(v, [1, 2, 0])),
    "permute": (lambda t: tt.permute(t, [1, 0, 2]), lambda v: np.transpose(v, [1, 0, 2])),
    "tile": (lambda t: tt.tile(t, [1, 2, 3]), lambda v: np.tile(v, [1, 2, 3])),
    "squeeze": (lambda t: tt.squeeze(tt.unsqueeze(t, 1)), lambda v: v),
    "unsqueeze": (lambda t: tt.unsqueeze(t, -1), lambda v: v[..., None]),
    "broadcast_to": (lambda t: tt.broadcast_to(t, [2, 3, 4, 2]), lambda v: np.broadcast_to(v, (2, 3, 4, 2))),
    "flip": (lambda t: tt.flip(t, [0, -1]), lambda v: np.flip(v, (0, 2))),
}


@pytest.mark.parametrize("name", list(SHAPE_OPS))
@pytest.mark.parametrize("x", [X, XC], ids=["float64", "complex128"])
def test_shape_operators(name, x):
    op, ref = SHAPE_OPS[name]
    y = backward_against(op, ref, x)
    assert np.array_equal(y.to_numpy(), ref(x))


def test_labels_and_graph_cuts():
    t = QTensor(X, requires_grad=True)
    assert tt.reshape(t, [4, 6]).nodes[0].name == "[3, 4, 2] reshape [4, 6]"
    assert t.reshape((4, 6)).nodes[0].name == "[3, 4, 2] reshape (4, 6)"
    assert t.flatten().nodes[0].name == f"{id(t)} flatten " and tt.flatten(t).nodes[0].name == ""
    assert tt.transpose(t, (2, 0, 1)).nodes[0].name == "tranpose grad dim = (2, 0, 1)"
    assert tt.swapaxis(t, 0, 1).nodes[0].name == "swapaxis of tensor [3, 4, 2]"
    assert tt.tile(t, [1, 1, 2]).nodes[0].name == "tile grad dim = [3, 4, 2]"
    assert tt.squeeze(t).nodes[0].name == "squeeze grad of tensor [3, 4, 2]"
    assert tt.unsqueeze(t).nodes[0].name == "unsqueeze grad tensor of [3, 4, 2]"
    assert tt.broadcast_to(t, [1, 3, 4, 2]).nodes[0].name == "A grad [3, 4, 2] broadcast_to [1, 3, 4, 2]"
    assert tt.flip(t, [0]).nodes[0].name == "input grad [3, 4, 2] flip grad [3, 4, 2]"
    # All axes reversed: a new leaf with a zero grad, cut off from t.
    r = t.transpose()
    assert r.shape == [2, 4, 3] and r.nodes == [] and r.requires_grad is True
    assert not r.grad.to_numpy().any()


def test_in_place_forms_keep_the_object():
    t = QTensor(np.arange(6.0), requires_grad=True)
    data = t.data
    t.reshape_([2, 3])
    assert t.shape == [2, 3] and t.data is data and t.nodes == []
    t.reshape_(t.shape)
    t.transpose_()
    assert t.shape == [3, 2] and np.array_equal(t.to_numpy(), np.arange(6.0).reshape(2, 3).T)


@pytest.mark.parametrize("call,exc,text", [
    (lambda t: t.transpose((1, 0, 2)), AssertionError, "second para should be list"),
    (lambda t: t.transpose([0, 0, 1]), AssertionError, "repeat dim in second para is not valid "),
    (lambda t: t.transpose([0]), AssertionError, "second para dim not equal to tensor shape"),
    (lambda t: t.reshape([5, 5]), AssertionError, "new size 25 not equal to old size 24"),
    # products beyond int64 are reported whole, as Python computes them
    (lambda t: t.reshape([2**62, 4]), AssertionError, "new size 18446744073709551616 not equal to old size 24"),
    (lambda t: t.reshape_([2**40, 2**40, 3]), AssertionError, f"new size {3 * 2**80} not equal to old size 24"),
    (lambda t: t.reshape([2**62, 4, 0]), AssertionError, "new size 0 not equal to old size 24"),
    (lambda t: t.reshape([-1, 24]), AssertionError, "dim should > 0"),
    (lambda t: t.reshape_(5), AssertionError, "second para should be list or tuple"),
    (lambda t: tt.permute(t, (1, 0, 2)), TypeError, "Argument 'dim' has incorrect type (expected list, got tuple)"),
    (lambda t: tt.tile(t, (1, 2)), TypeError, "Argument 'reps' has incorrect type (expected list, got tuple)"),
    (lambda t: tt.squeeze(t, 1.0), ValueError, "Not supported input parameter for squeeze()'s axis"),
    (lambda t: tt.unsqueeze(t, 3), AssertionError, ""),
    (lambda t: tt.flip(t, [5]), AssertionError, ""),
])
def test_messages(call, exc, text):
    with pytest.raises(exc) as info:
        call(QTensor(X))
    assert str(info.value) == text


@pytest.mark.parametrize("call", [lambda t: tt.reshape(t, [5, 5]), lambda t: tt.min(t, 3),
                                  lambda t: tt.reshape(t, [-1, 2**62, 4]), lambda t: tt.tile(t, [2**62]),
                                  lambda t: tt.swapaxis(t, 0, 3), lambda t: tt.transpose(t, [0, 1]),
                                  lambda t: tt.broadcast_to(t, [2, 3]), lambda t: tt.cumsum(t, 5)])
def test_core_refusals_name_the_operation(call):
    with pytest.raises((ValueError, IndexError)) as info:
        call(QTensor(X))
    assert str(info.value).startswith("[")


def test_records():
    export.set_onnx_convert_config("save_constant", True)
    export.set_onnx_convert_config("save_opinfo", True)
    t = QTensor(X)
    cases = [
        (tt.max(t, 1), "Max", f"{id(t)}_max_1_", {"axis": 1, "keepdims": False}, " max "),
        (tt.min(t), "Min", f"{id(t)}_min_None_", {"axis": None, "keepdims": False}, " min "),
        (tt.std(t, 0), "Std", f"{id(t)}_std_", {"axes": 0, "keepdims": False, "unbiased": True}, " var "),
        (tt.cumsum(t), "CumSum", f"{id(t)}_cumsum__", {"axis": -1}, " cumsum "),
        (t.reshape([24]), "Reshape", f"{id(t)}_reshape_to_", {"shape": [24]}, " reshape "),
        (tt.reshape(t, [24]), "Reshape", f"{id(t)}_reshape_", {"shape": [24]}, " reshape "),
        (tt.flatten(t, 0, 1), "flatten", f"{id(t)}_flat_", [0, 1], ""),
        (tt.transpose(t, [1, 0, 2]), "Transpose", f"{id(t)}_transpose__", {"dim": [1, 0, 2]},
         "tranpose link dim = [1, 0, 2]"),
        (tt.squeeze(tt.unsqueeze(t, -1), -1), "Squeeze", None, {"axis": 3}, "_squeeze_ link dim = -1"),
        (tt.unsqueeze(t, -1), "Unsqueeze", f"{id(t)}_unsqueeze_", {"axis": 3}, "_unsqueeze_ link dim = -1"),
        (tt.flip(t, [-1]), "Flip", f"{id(t)}_flip__", {"dims": [-1]}, " flip "),
        (tt.broadcast_to(t, [2, 3, 4, 2]), "Broadcast", f"{id(t)}_broadcast_to_+", [],
         "link [3, 4, 2] broadcast_to [2, 3, 4, 2]"),
    ]
    for y, opname, opid, attribute, link in cases:
        record = y.oplinkinfo
        source = y.link_nodes[-1].tensor
        assert (record.opname, record.op_attribute, y.link_nodes[-1].name) == (opname, attribute, link)
        if opid is not None:  # a squeeze of an unsqueezed t links to that intermediate
            assert record.opid == opid + str(id(y)) and source is t
    assert tt.median(t).oplinkinfo.opname == "Constant"


def test_reshape_shares_storage(capsys):
    big = QTensor(np.zeros(10**6, np.float32))
    y = tt.reshape(big, [1000, 1000])
    y.data.info()
    assert "storage_refs=2" in capsys.readouterr().out
    big.fill_(1.0)  # copy-on-write: the view keeps its values
    assert not y.to_numpy().any()
