"""Element-wise operators: values, gradients, broadcasting, labels and records.

Operators are tested from the tables below: one row per operator, with its numpy
reference, the dtypes it supports, an input domain, and what its gradient is.
"""
import pathlib
import re

import numpy as np
import pytest

from pytramel import dtype as D
from pytramel.onnx import export
from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor

from conftest import GPU0, numeric_grad
from test_reduce_shape import EXTREMES, SPREAD

F32, F64, C128, I64 = np.float32, np.float64, np.complex128, np.int64
REAL, ALL_FLOAT = (F32, F64), (F32, F64, C128)


def real_domain(shape, rng):
    return rng.uniform(-2, 2, shape)


def positive(shape, rng):
    return rng.uniform(0.5, 2, shape)


def unit(shape, rng):
    return rng.uniform(-0.8, 0.8, shape)


def away_from_half(shape, rng):
    # Rounding is discontinuous at .5: keep finite differences away from it.
    return rng.integers(-4, 4, shape) + rng.uniform(0.1, 0.4, shape)


def make(shape, dtype, domain, seed=0):
    rng = np.random.default_rng(seed)
    values = domain(shape, rng)
    if np.issubdtype(dtype, np.complexfloating):
        values = values + 1j * domain(shape, rng) * 0.5
    return values.astype(dtype)


# name: (numpy reference, dtypes, domain, gradient: "numeric", "zero" or None)
UNARY = {
    "floor": (np.floor, REAL, away_from_half, None),
    "ceil": (np.ceil, REAL, away_from_half, "zero"),
    "round": (np.round, REAL, away_from_half, "zero"),
    "sign": (np.sign, ALL_FLOAT + (I64,), real_domain, "zero"),
    "neg": (np.negative, ALL_FLOAT + (I64,), real_domain, "numeric"),
    "reciprocal": (np.reciprocal, ALL_FLOAT, positive, "numeric"),
    "abs": (np.abs, ALL_FLOAT + (I64,), positive, "numeric"),
    "square": (np.square, ALL_FLOAT + (I64,), real_domain, "numeric"),
    "sqrt": (np.sqrt, ALL_FLOAT, positive, "numeric"),
    "exp": (np.exp, ALL_FLOAT, real_domain, "numeric"),
    "log": (np.log, ALL_FLOAT, positive, "numeric"),
    "sin": (np.sin, ALL_FLOAT, real_domain, "numeric"),
    "cos": (np.cos, ALL_FLOAT, real_domain, "numeric"),
    "tan": (np.tan, ALL_FLOAT, unit, "numeric"),
    "asin": (np.arcsin, ALL_FLOAT, unit, "numeric"),
    "acos": (np.arccos, ALL_FLOAT, unit, "numeric"),
    "atan": (np.arctan, ALL_FLOAT, unit, "numeric"),
    "sinh": (np.sinh, ALL_FLOAT, real_domain, "numeric"),
    "cosh": (np.cosh, ALL_FLOAT, real_domain, "numeric"),
    "tanh": (np.tanh, ALL_FLOAT, real_domain, "numeric"),
}
ARITHMETIC = {
    "add": (np.add, ALL_FLOAT + (I64,), real_domain),
    "sub": (np.subtract, ALL_FLOAT + (I64,), real_domain),
    "mul": (np.multiply, ALL_FLOAT + (I64,), real_domain),
    "divide": (np.true_divide, ALL_FLOAT, positive),
}
EXTREMA = {"maximum": np.maximum, "minimum": np.minimum}
COMPARE = {
    "equal": np.equal, "not_equal": np.not_equal, "greater": np.greater,
    "greater_equal": np.greater_equal, "less": np.less, "less_equal": np.less_equal,
    "logical_and": np.logical_and, "logical_or": np.logical_or, "logical_xor": np.logical_xor,
}
CLASSIFY = {"isfinite": np.isfinite, "isinf": np.isinf, "isnan": np.isnan,
            "isneginf": np.isneginf, "isposinf": np.isposinf}
TOLERANCE = {F32: 1e-5, F64: 1e-12, C128: 1e-12, I64: 0}


def close(actual, expected, dtype):
    np.testing.assert_allclose(actual, expected, rtol=TOLERANCE[dtype] * 10, atol=TOLERANCE[dtype] * 10)


def grad_close(actual, expected):
    """Against central differences, whose own error is about h^2 and rounding / h."""
    np.testing.assert_allclose(actual, expected, rtol=1e-6, atol=1e-7)


def test_every_table_row_has_a_test_entry():
    tested = {"arithmetic": ARITHMETIC, "unary": UNARY, "compare": COMPARE,
              "classify": CLASSIFY, "extrema": EXTREMA, "extremes": EXTREMES, "spread": SPREAD}
    for family, names in tt._operator_tables.items():
        assert set(names) == set(tested[family]), family


def unary_cases(kind=None):
    return [(name, dtype) for name, (_, dtypes, _, grad) in UNARY.items() for dtype in dtypes
            if kind is None or grad == kind]


@pytest.mark.parametrize("name,dtype", unary_cases())
def test_unary_values(name, dtype):
    ref, _, domain, _ = UNARY[name]
    x = make([2, 3], dtype, domain)
    y = getattr(tt, name)(QTensor(x))
    assert y.shape == [2, 3]
    close(y.to_numpy(), ref(x), dtype)


@pytest.mark.parametrize("name,dtype", [(n, d) for n, d in unary_cases("numeric") if d in (F64, C128)])
def test_unary_gradients_match_finite_differences(name, dtype):
    ref, _, domain, _ = UNARY[name]
    x = make([3], dtype, domain)
    t = QTensor(x, requires_grad=True)
    y = getattr(tt, name)(t)
    w = make([3], y.to_numpy().dtype.type, real_domain, seed=1)
    y.backward(w)
    grad_close(t.grad.to_numpy(), numeric_grad(ref, x, w))


@pytest.mark.parametrize("name", ["ceil", "round", "sign", "floor"])
def test_zero_derivatives(name):
    t = QTensor(np.array([0.3, -1.2, 2.2]), requires_grad=True)
    y = getattr(tt, name)(t)
    assert y.requires_grad is True
    if name == "floor":
        # No edge: the result is a leaf and the pass never reaches t.
        assert y.nodes == []
        y.backward()
        assert t.grad is None
    else:
        y.backward()
        assert t.grad.dtype == D.kfloat64 and t.grad.shape == [3]
        assert not t.grad.to_numpy().any()


@pytest.mark.parametrize("name,dtype", [(n, d) for n, (_, ds, _) in ARITHMETIC.items() for d in ds])
def test_arithmetic_values_and_operators(name, dtype):
    ref, _, domain = ARITHMETIC[name]
    a, b = make([2, 3], dtype, domain), make([2, 3], dtype, domain, seed=1)
    close(getattr(tt, name)(QTensor(a), QTensor(b)).to_numpy(), ref(a, b), dtype)
    left, right = {"add": ("__add__", "__radd__"), "sub": ("__sub__", "__rsub__"),
                   "mul": ("__mul__", "__rmul__"), "divide": ("__truediv__", "__rtruediv__")}[name]
    assert np.allclose(getattr(QTensor(a), left)(QTensor(b)).to_numpy(), ref(a, b))
    assert np.allclose(getattr(QTensor(a), right)(QTensor(b)).to_numpy(), ref(b, a))


@pytest.mark.parametrize("name", list(ARITHMETIC) + ["power"])
@pytest.mark.parametrize("dtype", [F64, C128])
@pytest.mark.parametrize("shapes", [([2, 3], [2, 3]), ([3], [2, 3]), ([2, 1], [1, 3]), ([1], [4, 2])])
def test_binary_gradients_reduce_to_each_operand(name, dtype, shapes):
    ref = np.power if name == "power" else ARITHMETIC[name][0]
    a, b = make(shapes[0], dtype, positive), make(shapes[1], dtype, positive, seed=1)
    t1, t2 = QTensor(a, requires_grad=True), QTensor(b, requires_grad=True)
    y = getattr(tt, name)(t1, t2)
    w = make(list(np.broadcast_shapes(a.shape, b.shape)), dtype, real_domain, seed=2)
    y.backward(w)
    grad_close(t1.grad.to_numpy(), numeric_grad(lambda v: ref(v, b), a, w))
    grad_close(t2.grad.to_numpy(), numeric_grad(lambda v: ref(a, v), b, w))
    assert t1.grad.shape == shapes[0] and t2.grad.shape == shapes[1]


def test_real_operand_gets_a_real_gradient_from_a_complex_result():
    r = QTensor(np.array([1.0, 2.0]), requires_grad=True)
    c = QTensor(np.array([1 + 1j, 2 - 1j]), requires_grad=True)
    (r * c).backward(np.array([1 + 0j, 1 + 0j]))
    assert r.grad.dtype == D.kfloat64
    assert np.allclose(r.grad.to_numpy(), [1, 2])  # Re(conj(c))
    assert np.allclose(c.grad.to_numpy(), [1, 2])


def test_worked_example_gradients_order_and_records():
    export.set_onnx_convert_config("save_opinfo", True)
    x = QTensor([2.0], requires_grad=True)
    y = QTensor([3.0], requires_grad=True)
    a = x * y
    z = a + x
    assert [t is o for t, o in zip(tt.toposort(z), [z, a, y, x])] == [True] * 4
    z.backward()
    assert (x.grad.item(), y.grad.item(), z.grad.item(), a.grad) == (4.0, 2.0, 1.0, None)
    z.backward()
    assert (x.grad.item(), y.grad.item()) == (8.0, 4.0)
    assert [n.name for n in a.nodes] == ["t1 grad [1] mul [1]", "t2 grad [1] mul [1]"]
    assert [n.tensor for n in z.link_nodes] == [a, x]
    assert [n.name for n in z.link_nodes] == ["t1 no grad [1] add [1]", "t2 no grad [1] add [1]"]
    record = z.oplinkinfo
    assert (record.opname, record.opid) == ("Add", f"{id(a)}_add_{id(x)}_{id(z)}")
    assert record.op_attribute == [] and record.op_input_id_lists == [str(id(a)), str(id(x))]


def test_scalar_operands_and_broadcast_records():
    export.set_onnx_convert_config("save_opinfo", True)
    t = QTensor(np.ones([2, 2]), requires_grad=True)
    for y, first in [(t + 1.5, "t1 grad "), (1.5 + t, "t2 grad ")]:
        assert len(y.nodes) == 1 and y.nodes[0].name.startswith(first)
    y = 2 - t
    y.backward()
    assert np.allclose(t.grad.to_numpy(), -1)
    y = t * 2.0
    # Both operands went through broadcast: one Broadcast record per operand,
    # and the node names show the shapes after broadcasting.
    assert y.nodes[0].name == "t1 grad [2, 2] mul [2, 2]"
    broadcast_t = y.link_nodes[0].tensor
    assert broadcast_t.oplinkinfo.opname == "Broadcast"
    assert broadcast_t.link_nodes[0].tensor is t
    assert broadcast_t.link_nodes[0].name == "link [2, 2] broadcast [1]"
    assert y.link_nodes[1].tensor.link_nodes[0].name == "link [1] broadcast [1]"


def test_one_element_processor_operand_follows_the_accelerator():
    g = QTensor(np.ones(3), device=GPU0)
    s = QTensor([2.0])
    y = g * s
    assert y.device == GPU0 and s.device == GPU0
    with pytest.raises(RuntimeError):
        g * QTensor([1.0, 2.0, 3.0])


def test_accumulate():
    a, b = QTensor([1.0, 2.0], requires_grad=True), QTensor([3.0, 4.0])
    y = tt.accumulate([a, b, a])
    assert np.allclose(y.to_numpy(), [5, 8])
    assert [n.name for n in y.nodes] == [f"accumulate grad {id(a)}"] * 2
    y.backward()
    assert np.allclose(a.grad.to_numpy(), 2)
    assert y.link_nodes == [] and y.oplinkinfo is None
    for bad, exc, msg in [((a, b), TypeError, None), ([a], AssertionError, "tensor_list length should >1 "),
                          ([a, QTensor([1.0])], ValueError, "tensor_list elements should have same shape "),
                          ([a, QTensor([1.0, 2.0], device=GPU0)], ValueError,
                           "tensor_list elements should have same device "),
                          ([a, QTensor(np.ones(2))], ValueError, "tensor_list elements should have same dtype ")]:
        with pytest.raises(exc) as info:
            tt.accumulate(bad)
        if msg:
            assert str(info.value) == msg


@pytest.mark.parametrize("name", list(EXTREMA))
def test_extrema_split_ties(name):
    a = QTensor(np.array([1.0, 5.0, 3.0]), requires_grad=True)
    b = QTensor(np.array([2.0, 4.0, 3.0]), requires_grad=True)
    y = getattr(tt, name)(a, b)
    assert np.allclose(y.to_numpy(), EXTREMA[name](a.to_numpy(), b.to_numpy()))
    y.backward()
    wins = [0, 1, 0.5] if name == "maximum" else [1, 0, 0.5]
    assert np.allclose(a.grad.to_numpy(), wins)
    assert np.allclose(b.grad.to_numpy(), 1 - np.array(wins))
    same = QTensor(np.array([1.0, 2.0]), requires_grad=True)
    getattr(tt, name)(same, same).backward()
    assert np.allclose(same.grad.to_numpy(), 1)
    with pytest.raises(ValueError, match="^t1 and t2 shape should be equal$"):
        getattr(tt, name)(QTensor(np.ones([2, 3])), QTensor(np.ones(3)))


# What the README says broadcasts does; the two-operand functions it names there are
# called on shapes [2, 3] and [3].
SYMBOLS = {"+": lambda a, b: a + b, "-": lambda a, b: a - b, "*": lambda a, b: a * b, "/": lambda a, b: a / b,
           "**": lambda a, b: a ** b}


def test_the_readme_claims_broadcasting_only_where_it_happens():
    text = " ".join((pathlib.Path(__file__).resolve().parents[1] / "README.md").read_text().split())
    clause = re.search(r"with numpy broadcasting:? (.*?);", text).group(1)
    named = [n for quoted in re.findall(r"`([^`]*)`", clause) for n in quoted.split()]
    assert set(SYMBOLS) <= set(named)
    a, b = QTensor(np.full([2, 3], 2.0)), QTensor(np.array([1.0, 2.0, 3.0]))
    for name in named:
        call = SYMBOLS.get(name) or getattr(tt, name)
        try:
            y = call(a, b)
        except TypeError:
            continue  # not a function of two tensors
        assert y.shape == [2, 3], name


def test_extrema_clip_power_labels():
    a = QTensor(np.array([0.5, 2.0]), requires_grad=True)
    b = QTensor(np.array([1.5, 1.0]), requires_grad=True)
    assert [n.name for n in tt.maximum(a, b).nodes] == [f"maximum t1 grad of tensor {id(a)}",
                                                         f"maximum t2 grad of tensor {id(b)}"]
    assert [n.name for n in tt.minimum(a, b).nodes] == ["", ""]
    c = tt.clip(a, 0, 1)
    assert np.allclose(c.to_numpy(), [0.5, 1.0]) and [n.name for n in c.nodes] == [""]
    with pytest.raises(TypeError, match=r"^\[clip\] min_val"):
        tt.clip(a, "low", 1)
    c.backward()
    assert np.allclose(a.grad.to_numpy(), [1, 0])
    p = a ** 2
    assert [n.name for n in p.nodes] == [" x^a grad: input shape [2] power shape [2]"]
    q = 2 ** a
    assert [n.name for n in q.nodes] == ["a^x grad: input shape [2] power shape [2]"]
    assert np.allclose(q.to_numpy(), 2 ** a.to_numpy())


@pytest.mark.parametrize("name", list(COMPARE))
def test_comparisons_make_no_edge(name):
    a, b = np.array([1.0, 2.0, 3.0]), np.array([2.0, 2.0, 0.0])
    t = QTensor(a, requires_grad=True)
    y = getattr(tt, name)(t, QTensor(b))
    assert y.dtype == D.kbool and np.array_equal(y.to_numpy(), COMPARE[name](a, b))
    assert y.requires_grad is True and y.nodes == []


@pytest.mark.parametrize("method,ref", [("__eq__", np.equal), ("__ne__", np.not_equal), ("__lt__", np.less),
                                        ("__gt__", np.greater), ("__le__", np.less_equal),
                                        ("__ge__", np.greater_equal)])
def test_rich_comparisons(method, ref):
    a = np.array([1.0, 2.0, 3.0])
    t = QTensor(a)
    assert np.array_equal(getattr(t, method)(2).to_numpy(), ref(a, 2))
    assert np.array_equal(getattr(t, method)(QTensor(a[::-1].copy())).to_numpy(), ref(a, a[::-1]))
    with pytest.raises(RuntimeError) as info:
        getattr(t, method)(None)
    assert str(info.value) == method + " not implmented for type None"
    assert {t: 1}[t] == 1  # the hash stays the identity


@pytest.mark.parametrize("name", list(CLASSIFY))
def test_classifications_carry_zero_gradients(name):
    x = np.array([1.0, np.inf, -np.inf, np.nan])
    t = QTensor(x, requires_grad=True)
    y = getattr(tt, name)(t)
    assert np.array_equal(y.to_numpy(), CLASSIFY[name](x))
    assert y.nodes[0].name == f"t {name} grad [4]"
    zeros = np.array(y.nodes[0].df(y.data))  # a core tensor comes back
    assert not zeros.any() and zeros.dtype == np.float64 and zeros.shape == (4,)


def test_logical_not_and_allclose():
    t = QTensor(np.array([0.0, 2.0]))
    assert np.array_equal(tt.logical_not(t).to_numpy(), [True, False])
    assert tt.allclose(t, QTensor(np.array([0.0, 2.0 + 1e-9]), device=GPU0), 1e-5, 1e-8, False) is True
    with pytest.raises(TypeError):
        tt.allclose(t, t, 1e-5, 1e-8)


def test_broadcast_helpers():
    a, b = QTensor(np.ones([3]), requires_grad=True), QTensor(np.ones([2, 3]))
    e1, e2 = tt.broadcast(a, b)
    assert e1.shape == e2.shape == [2, 3] and e1.requires_grad is True and e2.requires_grad is False
    assert e1.nodes[0].name == "t1 grad [3] broadcast [2, 3]"
    grad = tt._broadcast(a.data, QTensor(np.ones([2, 3])).data)
    assert grad.shape == [3] and np.allclose(np.array(grad), 2)
    same = QTensor(np.ones(2)).data
    assert tt._broadcast(same, same) is not same
    assert tt.infer_size_expand(QTensor(3.0), QTensor(np.ones(4))) == [4]
    with pytest.raises(ValueError, match="^Can not broadcast.$"):
        tt.infer_size_expand(QTensor(np.ones(2)), QTensor(np.ones(3)))
    with pytest.raises(ValueError, match=r"^\[broadcast\]"):
        a + QTensor(np.ones(4))


@pytest.mark.parametrize("save_constant,save_opinfo", [(False, False), (False, True), (True, True), (True, False)])
def test_recording_forms(save_constant, save_opinfo):
    export.set_onnx_convert_config("save_constant", save_constant)
    export.set_onnx_convert_config("save_opinfo", save_opinfo)
    t = QTensor(np.array([1.0, 2.0]))
    gated = tt.exp(t)
    always = tt.floor(t)
    assert [n.name for n in always.link_nodes] == ["t1 floor [2]"]
    assert (always.oplinkinfo is not None) == save_opinfo
    if save_constant and save_opinfo:
        assert gated.oplinkinfo.opname == "Exp" and gated.oplinkinfo.op_attribute == {}
        assert gated.oplinkinfo.opid == f"{id(t)}_exp_{id(gated)}"
        assert [(n.tensor, n.name, n.df) for n in gated.link_nodes] == [(t, " exp ", None)]
        assert always.oplinkinfo.opid == f"{id(t)}_floor{id(always)}"
    else:
        assert gated.link_nodes == [] and gated.oplinkinfo is None


def test_unary_labels():
    t = QTensor(np.array([0.5, 0.25]), requires_grad=True)
    expected = {"neg": f"neg grad input {id(t)}", "abs": f"abs grad input {id(t)}", "exp": f"exp grad of {id(t)}",
                "sin": f"sin grad of tensor {id(t)}", "ceil": "t1 ceil grad [2]", "round": "t1 round grad [2]",
                "reciprocal": "reciprocal [2] grad", "square": "square grad", "sqrt": "", "log": "", "sign": ""}
    for name, label in expected.items():
        assert getattr(tt, name)(t).nodes[0].name == label
    assert tt.log_softmax(t).nodes[0].name == "log_softmax grad tensor of [2]"


def test_log_softmax():
    x = np.arange(1, 13, dtype=np.float64).reshape([3, 2, 2])
    y = tt.log_softmax(QTensor(x), 1)
    assert np.allclose(y.to_numpy()[0, :, 0], [-2.1269281, -0.1269280])
    t = QTensor(x[0], requires_grad=True)
    out = tt.log_softmax(t)
    w = np.array([[1.0, 0.5], [-1.0, 2.0]])
    out.backward(w)

    def ref(v):
        return v - np.log(np.exp(v).sum(axis=-1, keepdims=True))
    assert np.allclose(t.grad.to_numpy(), numeric_grad(ref, x[0], w))


@pytest.mark.parametrize("offset", [1e3, 1e5, -1e5, 3e7])
def test_log_softmax_keeps_the_digits_of_large_float32_inputs(offset):
    # Near a large maximum, x - max is exact; max + log(sum) would round the log away.
    x = np.float32(offset) + np.array([[0.0, 0.0, -1.0], [-2.0, 0.5, 0.25]], np.float32)
    shifted = x.astype(np.float64) - x.max(axis=1, keepdims=True)
    ref = shifted - np.log(np.exp(shifted).sum(axis=1, keepdims=True))
    got = tt.log_softmax(QTensor(x)).to_numpy()
    assert got.dtype == np.float32
    np.testing.assert_allclose(got, ref, rtol=1e-6, atol=1e-6)


def test_complex_parameters_train_by_gradient_descent():
    rng = np.random.default_rng(0)
    target = QTensor(rng.normal(size=4) + 1j * rng.normal(size=4))
    w = QTensor(np.zeros(4, np.complex128), requires_grad=True)
    losses = []
    for _ in range(60):
        diff = w - target
        loss = tt.sums(tt.abs(diff) * tt.abs(diff))
        losses.append(loss.item())
        w.zero_grad()
        loss.backward()
        w = QTensor(w.to_numpy() - 0.1 * w.grad.to_numpy(), requires_grad=True)
    assert losses[-1] < losses[0] / 100


def test_result_data_behaves_as_a_plain_attribute():
    y = QTensor(np.array([1.0, 2.0])) * 2.0
    first = y.data
    assert y.data is first
    first.fill_(3.0)  # an in-place core call through it changes the tensor
    assert np.array_equal(y.to_numpy(), [3.0, 3.0])
    y.data = QTensor(np.array([5.0])).data
    assert y.shape == [1] and y.item() == 5.0
