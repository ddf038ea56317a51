"""sums, mean and the axis helpers."""
import numpy as np
import pytest

from pytramel import dtype as D
from pytramel.onnx import export
from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor

from conftest import sample

X = np.arange(24, dtype=np.float64).reshape(2, 3, 4) / 7


@pytest.mark.parametrize("axis,keepdims", [(None, False), (None, True), (0, False), (-1, True), ([0, 2], False),
                                           ((1, -1), True), (True, False)])
def test_sums_values_and_gradients(axis, keepdims):
    t = QTensor(X, requires_grad=True)
    y = tt.sums(t, axis, keepdims)
    np_axis = tuple(axis) if isinstance(axis, (list, tuple)) else (None if axis is None else int(axis))
    expected = X.sum() if axis is None else X.sum(axis=np_axis, keepdims=keepdims)
    assert np.allclose(y.to_numpy().reshape(np.shape(expected)), expected)
    if axis is None:
        assert y.shape == [1]
    seed = np.arange(y.size, dtype=np.float64).reshape(y.shape) + 1
    y.backward(seed)
    grad = np.broadcast_to(seed.reshape(np.sum(X, axis=np_axis, keepdims=True).shape), X.shape)
    assert np.allclose(t.grad.to_numpy(), grad)
    assert y.nodes[0].name == "sums grad [2, 3, 4]"


@pytest.mark.parametrize("dtype", [np.bool_, np.int32, np.float32, np.complex128])
def test_sums_and_mean_over_dtypes(dtype):
    x = sample([3, 4], dtype)
    assert np.allclose(tt.sums(QTensor(x), 1).to_numpy(), x.sum(axis=1))
    if dtype is not np.bool_:
        assert np.allclose(tt.mean(QTensor(x), 0).to_numpy(), x.mean(axis=0), rtol=1e-6)


@pytest.mark.parametrize("axis,keepdims", [(None, False), (1, False), (-1, True)])
def test_mean_values_and_gradients(axis, keepdims):
    t = QTensor(X, requires_grad=True)
    y = tt.mean(t, axis, keepdims)
    expected = X.mean() if axis is None else X.mean(axis=axis, keepdims=keepdims)
    assert np.allclose(y.to_numpy().reshape(np.shape(expected)), expected)
    y.backward()
    n = X.size if axis is None else X.shape[axis]
    assert np.allclose(t.grad.to_numpy(), 1 / n)
    assert y.nodes[0].name == "mean grad"


def test_mean_over_all_elements_wants_requires_grad_true():
    t = QTensor(X, requires_grad=1)
    assert tt.mean(t).requires_grad is False and tt.mean(t).nodes == []
    assert tt.mean(t, 0).requires_grad == 1


def test_records_keep_the_axis_as_given():
    export.set_onnx_convert_config("save_constant", True)
    export.set_onnx_convert_config("save_opinfo", True)
    t = QTensor(X)
    s, m = tt.sums(t, 0), tt.mean(t, -1, True)
    assert s.oplinkinfo.op_attribute == {"axes": [0], "keepdims": False}
    assert (s.oplinkinfo.opname, s.link_nodes[0].name) == ("Sum", " sums ")
    assert m.oplinkinfo.op_attribute == {"axes": -1, "keepdims": True}
    assert (m.oplinkinfo.opid, m.link_nodes[0].name) == (f"{id(t)}_mean_{id(m)}", " var ")


def test_axis_helpers():
    assert tt.maybe_wrap_dim(-1, 0) == 0 and tt.maybe_wrap_dim(-3, 3) == 0
    assert tt.maybe_wrap_dim_unsqueeze(-1, 3) == 3
    for call in [lambda: tt.maybe_wrap_dim(0, 0, wrap_scalar=False), lambda: tt.maybe_wrap_dim(3, 3),
                 lambda: tt.maybe_wrap_dim_unsqueeze(3, 3)]:
        with pytest.raises(AssertionError) as info:
            call()
        assert str(info.value) == ""
    assert tt._helper_func_parse_dims([-1, 0], 3) == [2, 0]
    assert tt._helper_func_fill_dims(3, 2, 4) == [0, 1, 3, 2]
    grad, n = tt._mean_match_shape(QTensor(np.ones([2, 1])).data, [2, 5], 1)
    assert n == 5 and grad.shape == [2, 5]


def test_sums_of_integers_and_the_scalar_gradient_path():
    y = tt.sums(QTensor([1, 2, 3]))
    assert y.dtype == D.kint64 and y.item() == 6
    t = QTensor(np.ones(3, np.float32), requires_grad=True)
    tt.sums(t).backward(np.array([2.5], np.float32))
    assert np.allclose(t.grad.to_numpy(), 2.5) and t.grad.dtype == D.kfloat32


# Over all elements the result has shape [1]: a 0-d input gets its gradient in
# shape [], and a seed of the other one-element shape is taken as well.
@pytest.mark.parametrize("op", [tt.sums, tt.mean])
def test_one_element_shapes_meet_in_backward(op):
    x = QTensor(np.array(1.5), requires_grad=True)
    op(x).backward()
    assert x.grad.shape == [] and x.grad.item() == 1.0
    op(x).backward(np.array([2.0]))
    assert x.grad.shape == [] and x.grad.item() == 3.0
    v = QTensor(np.array([1.0, 2.0]), requires_grad=True)
    op(v).backward(np.array(4.0))  # 0-d seed for the [1] result
    np.testing.assert_allclose(v.grad.to_numpy(), [4.0, 4.0] if op is tt.sums else [2.0, 2.0])


def test_var_match_shape_spreads_along_the_axis_and_counts_it():
    spread, n = tt.var_match_shape(QTensor(np.array([[1.0], [2.0]])).data, [2, 3], -1)
    assert n == 3
    np.testing.assert_array_equal(np.array(spread), [[1.0] * 3, [2.0] * 3])
