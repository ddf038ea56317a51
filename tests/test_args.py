"""Reading of arguments, one group per kind: the forms each kind takes, and how a
refused form reads ("[op] what must be ..., got type"). Then the regression of
readers that left a Python error behind a value."""
import re

import numpy as np
import pytest

import pytramel._core as C
from pytramel import dtype as D
from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor

from conftest import GPU0, host

T, tramel = C.Tensor, C.tramel


def core(shape=(2, 3)):
    return T(np.arange(float(np.prod(shape))).reshape(shape), 0, -1)


def qt(shape=(2, 3)):
    return QTensor(np.arange(float(np.prod(shape))).reshape(shape))


def refused(exc, message, call):
    with pytest.raises(exc) as info:
        call()
    assert str(info.value) == message


# ---------------------------------------------------------------- one integer

@pytest.mark.parametrize("axis", [1, np.int64(1), np.int32(1), np.uint8(1), np.array(1)],
                         ids=["int", "int64", "int32", "uint8", "0-d array"])
def test_axis_takes_integers(axis):
    assert tt.unsqueeze(qt(), axis).shape == [2, 1, 3]
    assert host(tramel.cumsum(core(), axis)).tolist() == [[0, 1, 3], [3, 7, 12]]
    assert T.swapaxis(core(), axis, 0).shape == [3, 2]
    assert tt.log_softmax(qt(), axis).shape == [2, 3]


@pytest.mark.parametrize("given,name", [(1.0, "float"), (np.float64(1), "float64"), (np.ones(2), "ndarray"),
                                        (True, "bool"), ("1", "str")])
def test_axis_refusals_name_the_operation_and_the_type(given, name):
    refused(TypeError, f"[unsqueeze] axis must be an integer, got {name}", lambda: tt.unsqueeze(qt(), given))
    refused(TypeError, f"[cumsum] axis must be an integer, got {name}", lambda: tt.cumsum(qt(), given))
    refused(TypeError, f"[swapaxis] axis2 must be an integer, got {name}", lambda: T.swapaxis(core(), 0, given))
    refused(TypeError, f"[flatten] start must be an integer, got {name}", lambda: T.flatten(core(), given, 1))


def test_none_as_an_axis():
    # The tensor module takes None where Python would and refuses it in the reader.
    refused(TypeError, "[unsqueeze] axis must be an integer, got NoneType", lambda: tt.unsqueeze(qt(), None))
    assert tt.min(qt(), None).shape == [1]
    with pytest.raises(TypeError, match="incompatible function arguments"):
        T.swapaxis(core(), 0, None)


def test_axis_beyond_64_bits():
    refused(ValueError, "[median] axis does not fit in 64 bits", lambda: tt.median(qt(), 2**64))
    refused(ValueError, "[unsqueeze] axis does not fit in 64 bits", lambda: T.unsqueeze(core(), -2**70))


# ----------------------------------------------------- axes and integer lists

@pytest.mark.parametrize("axes", [1, np.int64(1), [1], (1,), np.array([1]), range(1, 2), [np.int32(1)]],
                         ids=["int", "int64", "list", "tuple", "array", "range", "list of int32"])
def test_axes_take_an_integer_or_a_sequence(axes):
    assert host(T.sum(core(), axes, False)).tolist() == [3, 12]
    assert tt.sums(qt(), axes).to_numpy().tolist() == [3, 12]
    assert host(T.argmax(core(), axes, False)).tolist() == [2, 2]
    assert qt().argmax(axes, False).to_numpy().tolist() == [2, 2]


def test_integer_lists_take_the_same_forms():
    for shape in ([3, 2], (3, 2), np.array([3, 2]), range(3, 1, -1)):
        assert core().reshape(shape).shape == [3, 2] and tt.reshape(qt(), shape).shape == [3, 2]
    assert tt.reshape(qt(), (d for d in (3, 2))).shape == [3, 2]
    assert core().reshape(6).shape == [6] and tt.reshape(qt(), 6).shape == [6]
    assert tt.broadcast_to(qt((3,)), (2, 3)).shape == [2, 3] and T.broadcast_to(core((3,)), 3).shape == [3]
    assert tt.flip(qt(), 0).to_numpy()[0].tolist() == [3, 4, 5]


def test_axes_refusals():
    refused(TypeError, "[sum] axes must be an integer or a sequence of integers, got float",
            lambda: T.sum(core(), 1.5, False))
    refused(TypeError, "[sum] axes must be an integer or a sequence of integers, got str",
            lambda: T.sum(core(), "0", False))
    refused(TypeError, "[sum] axes must be an integer, got float", lambda: T.sum(core(), [0, 1.5], False))
    refused(TypeError, "[argmax] axis must be an integer or a sequence of integers, got float",
            lambda: qt().argmax(1.5, True))
    refused(TypeError, "[reshape] shape must be an integer, got float64", lambda: tt.reshape(qt(), np.ones(2)))
    refused(TypeError, "[transpose] dim must be an integer or a sequence of integers, got NoneType",
            lambda: tt.transpose(qt(), None))


def test_bools_among_axes_count_where_they_always_have():
    # sums takes bools as 0 and 1, alone or in a list; squeeze only alone.
    assert tt.sums(qt(), True).shape == [2] and tt.sums(qt(), [False]).shape == [3]
    assert tt.squeeze(qt((2, 1)), True).shape == [2]
    refused(TypeError, "[squeeze] axis must be an integer, got bool", lambda: tt.squeeze(qt((2, 1)), [True]))
    refused(TypeError, "[argmax] axis must be an integer or a sequence of integers, got bool",
            lambda: qt().argmax(True, True))
    refused(TypeError, "[sum] axes must be an integer, got bool", lambda: T.sum(core(), [True], False))
    refused(TypeError, "[mean] axis must be an integer, got bool", lambda: tt.mean(qt(), True))


def test_forms_that_keep_their_own_refusals():
    refused(TypeError, "Argument 'reps' has incorrect type (expected list, got tuple)", lambda: tt.tile(qt(), (1, 2)))
    refused(TypeError, "Argument 'dim' has incorrect type (expected list, got tuple)",
            lambda: tt.permute(qt(), (1, 0)))
    for axis in (1.0, np.int64(0), np.array([0])):
        refused(ValueError, "Not supported input parameter for squeeze()'s axis", lambda: tt.squeeze(qt(), axis))


# ---------------------------------------------------------------- shapes

def test_shapes_are_lists_or_tuples_of_integers():
    assert T.zeros((2, np.int64(3)), 0, D.kfloat32).shape == [2, 3]
    assert tt.ones([2, 3]).shape == [2, 3] and tt.empty(()).shape == []
    refused(TypeError, "[zeros] shape must be a list or tuple of ints, got int", lambda: tt.zeros(3))
    refused(TypeError, "[zeros] shape must be a list or tuple of ints, got ndarray", lambda: T.zeros(np.array([2])))
    refused(TypeError, "[full] a dimension must be an integer, got float", lambda: tt.full([2.0], 1))
    refused(ValueError, "[randn] rank 17 exceeds the largest supported rank 16", lambda: tt.randn([1] * 17))
    refused(ValueError, "[empty] negative dimension in shape [2, -1]", lambda: T.empty([2, -1]))


# ---------------------------------------------------------------- lists of texts

def test_texts_are_lists_or_tuples_of_str():
    assert core().select(["1"]).shape == [3] and core().select(("0", "::2")).shape == [2]
    assert core().select([]).shape == [2, 3]
    refused(TypeError, "[select] index_list must be a list of str, got str", lambda: core().select("1"))
    refused(TypeError, "[select_bp] index_list must be a list of str, got int",
            lambda: T.select_bp(core(), 3, core()))
    refused(TypeError, "[set_select] index_list must hold only str, got bytes at position 0",
            lambda: core().set_select([b"1"], core((3,))))


# ---------------------------------------------------------------- dtypes and devices

def test_dtypes():
    assert T.zeros([1], 0, np.int64(D.kint16)).dtype == D.kint16
    assert tt.zeros([1], dtype=None).dtype == D.get_default_dtype()
    assert T(np.ones(1, np.int8), 0, -1).dtype == D.kint8  # the marker: the array's own type
    assert tt.zeros_like(QTensor(np.ones(1, np.int32))).dtype == D.kint32
    refused(ValueError, "[zeros] unknown dtype 42", lambda: tt.zeros([1], dtype=42))
    refused(ValueError, "[astype] unknown dtype 4294967303", lambda: core().astype(2**32 + D.kfloat64))
    refused(ValueError, "[astype] unknown dtype -1", lambda: qt().astype(-1))
    refused(TypeError, "[toDtype] dtype must be an integer, got NoneType", lambda: core().toDtype(None))
    refused(TypeError, "[get_readable_dtype_str] dtype must be an integer, got float",
            lambda: D.get_readable_dtype_str(7.0))


def test_devices():
    assert tt.zeros([1], np.int64(GPU0)).device == GPU0 and T.ones([1], np.int32(0)).device == 0
    assert tt.ones_like(QTensor([1.0], device=GPU0)).data.device == GPU0
    refused(ValueError, "[zeros] device 4294967296 is out of range", lambda: T.zeros([1], 2**32))
    refused(TypeError, "[GPU] device must be an integer, got float", lambda: qt().GPU(1000.0))
    refused(TypeError, "[QTensor] device must be an integer, got str", lambda: QTensor([1.0], device="cpu"))


# ---------------------------------------------------------------- numbers

@pytest.mark.parametrize("value,expected", [
    (True, 1), (3, 3), (2**70, 2.0**70), (2.5, 2.5), (1 + 2j, 1 + 2j), (np.float32(2.5), 2.5), (np.bool_(True), 1),
    (np.uint64(2**63 + 2**11), 2.0**63 + 2**11), (np.complex64(1j), 1j), (np.array(4), 4), (np.array(0.5), 0.5),
    (np.array(True), 1), (np.array(2j), 2j),
], ids=repr)
def test_host_numbers(value, expected):
    t = T.zeros([1], 0, D.kcomplex128)
    t.fill_(value)
    assert host(t)[0] == expected
    assert host(T.full([1], value, 0, D.kcomplex128))[0] == expected


def test_host_number_refusals():
    refused(TypeError, "[add] expected a number, got str", lambda: core().add("x"))
    refused(TypeError, "[add] expected a number, got ndarray", lambda: core().add(np.ones(3)))
    refused(TypeError, "[fill_] expected a number, got ndarray", lambda: qt().fill_(np.array([1])))
    refused(TypeError, "[full_like] expected a number, got list", lambda: tt.full_like(qt(), [1]))
    with pytest.raises(OverflowError):
        core().mult(10**400)


def test_real_numbers():
    assert tt.clip(qt(), np.float32(1), True).to_numpy().max() == 1
    assert host(core().clamp(None, 2)).max() == 2 and host(core().clamp(4, None)).min() == 4
    refused(TypeError, "[clip] min_val must be a real number, got str", lambda: tt.clip(qt(), "0", 1))
    refused(TypeError, "[clamp] max_val must be a real number, got complex", lambda: core().clamp(0, 1j))


# ---------------------------------------------------------------- tensors

OPERATORS = sorted(name for names in tt._operator_tables.values() for name in names)


@pytest.mark.parametrize("given,type_name", [(None, "NoneType"), (1.5, "float"), (core, "pytramel._core.Tensor")],
                         ids=["None", "float", "core tensor"])
@pytest.mark.parametrize("name", OPERATORS)
def test_a_tensor_parameter_lets_anything_through_to_the_operators_refusal(name, given, type_name):
    # Signatures say `QTensor`, but nanobind refuses nothing there: the refusal is
    # the operator's own, for either operand, and names what was given.
    op = getattr(tt, name)
    given = given() if callable(given) else given  # a core tensor made now, not at collection
    binary = "t2" in op.__nb_signature__[0][0]
    for args in ([given, qt()], [qt(), given]) if binary else ([given],):
        with pytest.raises(TypeError) as info:
            op(*args)
        text = str(info.value)
        assert re.fullmatch(rf"\[\w+\] expected a QTensor, got {re.escape(type_name)}", text), text


def test_tensor_parameters_of_other_shapes_keep_their_own_refusals():
    refused(TypeError, "object of type 'NoneType' has no len()", lambda: tt.accumulate(None))
    refused(TypeError, "accumulate expects a list of QTensor", lambda: tt.accumulate((qt(), qt())))
    refused(TypeError, "[accumulate] expected a QTensor, got float", lambda: tt.accumulate([qt(), 1.0]))
    refused(TypeError, "[copy_value_from] expected a QTensor, got ndarray", lambda: qt().copy_value_from(np.ones(6)))
    refused(TypeError, "[zeros_like] expected a QTensor, got list", lambda: tt.zeros_like([1.0]))
    refused(TypeError, "[backward] expected a QTensor, got NoneType", lambda: tt.get_prev(None))
    refused(AttributeError, "'NoneType' object has no attribute 'device'", lambda: QTensor.GraphNode(None, None))


# ---------------------------------------------------------------- no error left behind

A = np.ones(3)  # where an integer, axis, shape or dtype is expected


def X():  # made when a call runs, not at collection
    return qt()


def CT():
    return core()


CALLS = [
    lambda: T.zeros([A], 0, D.kfloat32), lambda: T.zeros([2], A, D.kfloat32), lambda: T.zeros([2], 0, A),
    lambda: T.full([2], A, 0, D.kfloat32), lambda: T(np.ones(2), A, -1), lambda: T(np.ones(2), 0, A),
    lambda: CT().add(A), lambda: CT().add_(A), lambda: CT().greater(A), lambda: CT().fill_(A), lambda: CT().clamp(A, None),
    lambda: CT().sum(A, False), lambda: CT().var(A, False, True), lambda: CT().argmax(A, False), lambda: CT().reshape(A),
    lambda: CT().reshape_(A), lambda: CT().squeeze(A), lambda: CT().squeeze_(A), lambda: CT().unsqueeze(A),
    lambda: CT().transpose(A), lambda: CT().swapaxis(A, 0), lambda: CT().flip(A), lambda: CT().flatten(A, 1),
    lambda: CT().broadcast_to(A), lambda: tramel.tile(CT(), A), lambda: tramel.TileGrad(CT(), A, [1]),
    lambda: tramel.cumsum(CT(), A), lambda: tramel.mean_all_grad(CT(), A), lambda: CT().toDtype(A), lambda: CT().astype(A),
    lambda: CT().CPU(A), lambda: CT().GPU(A), lambda: CT().toGPU(A), lambda: C.set_default_dtype(A),
    lambda: C.get_readable_dtype_str(A), lambda: T.eye(A), lambda: tramel.log_softmax(CT(), A),
    lambda: tt.zeros([A]), lambda: tt.zeros(A), lambda: tt.ones([2], A), lambda: tt.full([2], A),
    lambda: tt.zeros_like(X(), A), lambda: tt.ones_like(X(), None, A), lambda: tt.arange(0, 3, 1, A),
    lambda: tt.randu([A]), lambda: tt.unsqueeze(X(), A), lambda: tt.squeeze(X(), [A]), lambda: tt.sums(X(), A),
    lambda: tt.mean(X(), A), lambda: tt.min(X(), A), lambda: tt.max(X(), A), lambda: tt.std(X(), A), lambda: tt.var(X(), A),
    lambda: tt.median(X(), A), lambda: tt.cumsum(X(), A), lambda: tt.log_softmax(X(), A), lambda: tt.reshape(X(), A),
    lambda: tt.transpose(X(), A), lambda: tt.swapaxis(X(), A, 0), lambda: tt.broadcast_to(X(), A),
    lambda: tt.flip(X(), A), lambda: tt.tile(X(), [A]), lambda: tt.clip(X(), A, 1), lambda: tt.flatten(X(), A),
    lambda: tt._min_max_match_shape(CT(), A, None), lambda: tt.var_match_shape(CT(), A, 0),
    lambda: tt._helper_func_parse_dims(A, 2), lambda: tt.maybe_wrap_dim(A, 2),
    lambda: X().argmax(A, True), lambda: X().fill_(A), lambda: X().astype(A), lambda: X().GPU(A), lambda: X().to_device(A),
    lambda: X().reshape(A), lambda: X().reshape_(A), lambda: X().transpose(A), lambda: X().unsqueeze(A),
    lambda: QTensor([1.0], dtype=A), lambda: QTensor([1.0], device=A), lambda: QTensor(np.ones(2), device=A),
]


@pytest.mark.parametrize("call", CALLS, ids=range(len(CALLS)))
def test_an_array_where_an_integer_is_expected_raises_cleanly(call):
    with pytest.raises((TypeError, AssertionError)) as info:
        call()
    text = str(info.value)
    if isinstance(info.value, TypeError):  # the assertions of QTensor.reshape_ and .transpose come first
        assert re.match(r"^\[\w+\] .*, got (ndarray|float64)$", text) or "incompatible function arguments" in text, text
    # Nothing was left pending: unrelated calls of both modules still work.
    assert host(T.ones([2], 0, D.kfloat32).add(1.0)).tolist() == [2.0, 2.0]
    assert tt.unsqueeze(qt(), 0).shape == [1, 2, 3]
