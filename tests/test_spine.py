"""QTensor, its graph nodes, and the backward walk."""
import gc
import time
import weakref

import numpy as np
import pytest

from pytramel import _core
from pytramel import dtype as D
from pytramel.onnx import export
from pytramel.tensor import tensor as tt
from conftest import GPU0, GPU1, INITIAL_CONFIG, host

QTensor = tt.QTensor
Node = QTensor.GraphNode
CoreTensor = tt.CoreTensor

TYPE_MSG = ("source_array dtype must be one of (np.int8,np.bool8,np.uint8,np.int16,np.int32,"
            "np.int64,np.float32,np.float64,np.complex128,np.complex64)")


def gpu_msg(device):
    return (f"Failed to move Create Tensor on GPU {device}. \\\n" + " " * 28
            + "Support GPU device is DEV_GPU,DEV_GPU_1,DEV_GPU_2,DEV_GPU_3,...")


def device_msg(device):
    return (f"Failed to move Create Tensor on device {device}.\\\n" + " " * 24
            + "Support CPU device is 0, GPU device is DEV_GPU,DEV_GPU_1,DEV_GPU_2,DEV_GPU_3,...")


FLOAT_ONLY = "Only Float or Complex tensor can calculate gradient."
COMPLEX_SEED = "Complex tensor output's gradient should be explicit defined as Complex."
NO_GRAD = "output requires_grad is False."


def devices_msg(a, b):
    return f"grads calculated in backward() stores in different devices {a} and {b}."


def val(t):
    return host(t.data)


def ids(tensors):
    return [id(t) for t in tensors]


def leaf(values, **kw):
    return QTensor(values, requires_grad=True, **kw)


def derived(parents_and_dfs, values, **kw):
    """A result built by hand: one edge per (parent, df) pair, in order."""
    return QTensor(values, requires_grad=True, nodes=[Node(p, df) for p, df in parents_and_dfs],
                   **kw)


def times(other):
    """Derivative of a product with respect to the factor that is not `other`."""
    return lambda g: CoreTensor(np.array(g) * np.array(other.data), g.device, g.dtype)


def ident(g):
    return g


def scaled(k):
    return lambda g: CoreTensor(np.array(g) * k, g.device, g.dtype)


# ----------------------------------------------------------------- module surface

def test_module_aliases():
    assert tt.CoreTensor is _core.Tensor and tt._tramel is _core.tramel and tt.np is np
    assert (tt.DEV_CPU, tt.DEV_GPU_0) == (0, 1000)
    assert INITIAL_CONFIG == {"save_constant": False, "save_opinfo": False}


# ----------------------------------------------------------------- construction

INT = {4: D.kint32, 8: D.kint64}[np.array([1]).itemsize]  # numpy's type for Python ints


F32, F64, C64, C128 = D.kfloat32, D.kfloat64, D.kcomplex64, D.kcomplex128


# (source, default dtype, dtype asked for, dtype made, shape): Python floats and complex numbers
# follow the default, numpy data keeps its own type, an explicit dtype wins.
@pytest.mark.parametrize("make,default,dtype,expected,shape", [
    (lambda: [1.0, 2.0], F32, None, F32, [2]), (lambda: [1.0, 2.0], F64, None, F64, [2]),
    (lambda: ((1.0,), (2.0,)), F64, None, F64, [2, 1]), (lambda: 3.5, F32, None, F32, []),
    (lambda: np.float64(3.5), F32, None, F32, []), (lambda: np.float32(2.0), F64, None, F32, []),
    (lambda: np.array([1.0, 2.0]), F32, None, F64, [2]), (lambda: np.array([1.0], np.float32), F64, None, F32, [1]),
    (lambda: [1, 2], F32, None, INT, [2]), (lambda: np.array([[1, 2]], np.int8), F32, None, D.kint8, [1, 2]),
    (lambda: np.array([1], np.uint8), F32, None, D.kuint8, [1]),
    (lambda: np.array([1], np.int16), F32, None, D.kint16, [1]), (lambda: [True, False], F32, None, D.kbool, [2]),
    (lambda: [1 + 2j], F32, None, C64, [1]), (lambda: [1 + 2j], F64, None, C128, [1]),
    (lambda: np.array([1 + 2j]), F32, None, C128, [1]), (lambda: np.array([1j], np.complex64), F64, None, C64, [1]),
    (lambda: [1, 2], F32, F64, F64, [2]), (lambda: np.array([1.5, 2.5]), F64, F32, F32, [2]),
    (lambda: np.array([1 + 2j]), F32, C64, C64, [1]), (lambda: [1.0], F32, C128, C128, [1]),
    (lambda: np.array([True]), F32, D.kint16, D.kint16, [1]),
])
def test_constructor_dtype(make, default, dtype, expected, shape):
    D.set_default_dtype(default)
    t = QTensor(data := make(), dtype=dtype)
    assert (t.dtype, t.data.dtype, t.data.shape) == (expected, expected, shape)
    np.testing.assert_array_equal(val(t), np.array(data).astype(D.dtype_map[expected]))


@pytest.mark.parametrize("data,dtype,exc,msg", [
    *[(np.array([1 + 2j]), d, ValueError, "Can not convert complex to non-complex.")
      for d in (F32, F64, D.kint32, D.kbool)],
    *[(a, None, TypeError, TYPE_MSG) for a in (
        np.zeros(2, np.float16), np.zeros(2, np.uint16), np.zeros(2, np.uint32),
        np.zeros(2, np.uint64), np.array([1, "a"], dtype=object), np.array(["ab"]), ["x", "y"],
        np.datetime64("2020"), np.timedelta64(5), np.array([3], "timedelta64[s]"), np.zeros(2, "i4,f8"))],
])
def test_constructor_refusals(data, dtype, exc, msg):
    with pytest.raises(exc) as info:
        QTensor(data, dtype=dtype)
    assert str(info.value) == msg


def test_fields_defaults_and_identity():
    t = QTensor([1.0])
    assert (t.requires_grad, t.nodes, t.link_nodes, t.grad, t.device, t.oplinkinfo,
            t.save_onnx_constant, t.name, t._if_normal_run_qvm) == (
        False, [], [], None, 0, None, False, "", True)
    label = object()
    u = QTensor([1], 1, None, GPU0, F64, label)  # positional order
    assert type(u.requires_grad) is int and u.requires_grad == 1
    assert (u.device, u.data.device, u.dtype) == (GPU0, GPU0, F64) and u.name is label
    v = QTensor([1.0, 2.0], device=GPU1)   # a list goes straight to an accelerator
    assert (v.device, v.data.device) == (GPU1, GPU1)
    with pytest.raises(RuntimeError):
        QTensor([1.0], device=1004)
    for field, value in (("name", 5), ("_if_normal_run_qvm", None), ("requires_grad", True)):
        setattr(t, field, value)
        assert getattr(t, field) is value
    # identity hash: equal contents are different keys
    assert hash(t) == id(t) and len({t: 1, QTensor([1.0]): 2}) == 2
    # the tensor owns a copy of its source
    a = np.array([1.0, 2.0])
    c = QTensor(a)
    a[0] = 50.0
    np.testing.assert_array_equal(val(c), [1.0, 2.0])


def test_nodes_and_graph_node():
    empty = []
    assert QTensor([1.0], nodes=empty).nodes is not empty
    p = QTensor([1.0], device=GPU0)
    n = Node(p, ident)
    assert (n.tensor, n.name, n.df, n.device) == (p, "", ident, GPU0)
    assert Node(p, None, "lbl").name == "lbl"
    given = [n]
    assert QTensor([1.0], nodes=given).nodes is given
    a, b = QTensor([1.0]), QTensor([1.0])
    a.nodes.append(n)
    a.link_nodes.append(n)
    assert (b.nodes, b.link_nodes) == ([], [])
    with pytest.raises(AttributeError):
        Node(object(), ident)


# ----------------------------------------------------------------- core tensors as input

@pytest.mark.parametrize("src_dev,dev", [(0, 0), (GPU0, 0), (0, GPU0), (GPU0, GPU1), (GPU1, GPU1)])
@pytest.mark.parametrize("dtype", [None, F64])
def test_core_tensor_input_moves_the_passed_object(src_dev, dev, dtype):
    c = CoreTensor(np.array([1.0, 2.0], np.float32), src_dev, -1)
    r = QTensor._to_coretensor_ndarray(c, dev, dtype)
    assert isinstance(r, CoreTensor)
    assert (r.device, c.device) == (dev, dev)
    assert r.dtype == (F32 if dtype is None else dtype)
    np.testing.assert_array_equal(host(r), [1.0, 2.0])
    q = QTensor(CoreTensor(np.array([3.0]), src_dev, -1), device=dev, dtype=dtype)
    assert (q.device, q.data.device, q.dtype) == (dev, dev, F64)


@pytest.mark.parametrize("dev,msg", [(d, gpu_msg(d)) for d in (1002, 1007)] + [(d, device_msg(d)) for d in (5, -1, 999)])
@pytest.mark.parametrize("src_dev", [0, GPU0])
def test_core_tensor_to_unserved_device(dev, msg, src_dev):
    c = CoreTensor(np.array([1.0]), src_dev, -1)
    with pytest.raises(ValueError) as info:
        QTensor._to_coretensor_ndarray(c, dev, None)
    assert str(info.value) == msg
    with pytest.raises(ValueError) as info:
        QTensor(c, device=dev)
    assert str(info.value) == msg
    np.testing.assert_array_equal(host(c), [1.0])


# ----------------------------------------------------------------- to_tensor, astype, creators

@pytest.mark.parametrize("x,dtype,shape,device", [
    (3, np.array([3]).dtype, [1], 0), (3.5, "default", [1], 0), (True, D.kbool, [1], 0),
    ([1.0, 2.0], "default", [2], 0), (np.array([[1.0]]), F64, [1, 1], 0),
    (lambda: CoreTensor(np.array([1], np.int16), GPU0, -1), D.kint16, [1], GPU0)])
def test_to_tensor(default_dtype, x, dtype, shape, device):
    x = x() if callable(x) else x  # a core tensor made now, not at collection
    if dtype == "default":
        dtype = default_dtype
    elif isinstance(dtype, np.dtype):
        dtype = {4: D.kint32, 8: D.kint64}[dtype.itemsize]
    for conv in (tt.to_tensor, QTensor._to_tensor):
        t = conv(x)
        assert (t.dtype, t.data.shape, t.device, t.requires_grad) == (dtype, shape, device, False)
    q = leaf([1.0])
    assert tt.to_tensor(q) is q and QTensor._to_tensor(q) is q and q.requires_grad is True


@pytest.mark.parametrize("src,dst", [(F32, F64), (F64, F32), (C64, C128), (F32, F32)])
@pytest.mark.parametrize("device", [0, GPU0])
def test_astype_carries_the_gradient_back(src, dst, device):
    t = QTensor([1.5, -2.0], requires_grad=True, device=device, dtype=src)
    y = t.astype(dst)
    assert (y.dtype, y.device, y.requires_grad, len(y.nodes)) == (dst, device, True, 1)
    n = y.nodes[0]
    assert n.tensor is t and n.device == device
    assert n.name == (f"{id(t)} {D.get_readable_dtype_str(src)} astype "
                      f"{D.get_readable_dtype_str(dst)}")
    y.backward(CoreTensor(np.array([2.0, 3.0]), device, dst))
    assert t.grad.dtype == src and t.grad.data.device == device
    np.testing.assert_array_equal(val(t.grad), [2.0, 3.0])
    plain = QTensor([1.0]).astype(F64)
    assert (plain.requires_grad, plain.nodes) == (False, [])


def test_zeros(default_dtype):
    z = tt.zeros([2, 3])
    assert (z.dtype, z.data.shape, z.requires_grad, z.device) == (default_dtype, [2, 3], False, 0)
    np.testing.assert_array_equal(val(z), np.zeros((2, 3)))
    g = tt.zeros((4,), GPU0, D.kint32)
    assert (g.device, g.data.device, g.dtype) == (GPU0, GPU0, D.kint32)


@pytest.mark.parametrize("like,fill", [(tt.zeros_like, 0), (tt.ones_like, 1)])
@pytest.mark.parametrize("requires_grad", [True, 1, False])
def test_zeros_like_ones_like(like, fill, requires_grad):
    t = QTensor(np.ones((2, 3), np.complex64), requires_grad=requires_grad, device=GPU0)
    r = like(t)
    assert (r.dtype, r.device, r.data.shape, r.nodes) == (C64, GPU0, [2, 3], [])
    np.testing.assert_array_equal(val(r), np.full((2, 3), fill, np.complex64))
    if requires_grad is True:
        assert r.requires_grad is True and r.grad.data.device == GPU0
        np.testing.assert_array_equal(val(r.grad), np.zeros((2, 3), np.complex64))
    else:
        assert not r.requires_grad and r.grad is None
    o = like(t, 0, F64)
    assert (o.device, o.dtype, o.data.shape) == (0, F64, [2, 3])


def test_zero_grad():
    with pytest.raises(ValueError) as info:
        QTensor([1.0]).zero_grad()
    assert str(info.value) == "Tensor's requires_grad is False "
    t = QTensor(np.ones((2, 2)), requires_grad=True, device=GPU0)
    assert t.zero_grad() is None
    g = t.grad
    assert (g.dtype, g.data.shape, g.data.device, g.requires_grad) == (F64, [2, 2], GPU0, False)
    g.data.fill_(3)
    t.zero_grad()
    assert t.grad is g
    np.testing.assert_array_equal(val(g), np.zeros((2, 2)))
    u = QTensor([1.0], requires_grad=None)  # only the value False is refused
    u.zero_grad()
    np.testing.assert_array_equal(val(u.grad), [0.0])


# ----------------------------------------------------------------- backward: checks and seeds

@pytest.mark.parametrize("make,seed,exc,msg", [
    (lambda: QTensor([1, 2]), None, ValueError, FLOAT_ONLY),
    (lambda: QTensor([True], requires_grad=True), None, ValueError, FLOAT_ONLY),
    (lambda: QTensor([1.0]), lambda: QTensor([1j]), ValueError, "Only Float input gradient is accepted by Float output."),
    (lambda: leaf([1j]), lambda: QTensor([1.0]), ValueError, COMPLEX_SEED),
    (lambda: QTensor([1j]), lambda: CoreTensor(np.array([1.0]), 0, -1), ValueError, COMPLEX_SEED),
    (lambda: QTensor([1.0]), None, RuntimeError, NO_GRAD),
    (lambda: QTensor([1.0], requires_grad=0), None, RuntimeError, NO_GRAD),
    (lambda: leaf([1.0], device=GPU0), np.array([1.0]), ValueError,
     " input grad should not be ndarray,if current Tensor is on GPU device."),
    (lambda: leaf([1.0]), lambda: CoreTensor(np.array([1.0]), GPU0, -1), RuntimeError, devices_msg(1000, 0)),
    (lambda: leaf([1.0], device=GPU0), lambda: QTensor([1.0], device=GPU1), RuntimeError, devices_msg(1001, 1000)),
    (lambda: leaf([1.0], device=GPU0), lambda: QTensor([1.0]), RuntimeError, devices_msg(0, 1000)),
    (lambda: leaf([1.0]), [1.0], AttributeError, None),   # a seed without a dtype, before any conversion
])
def test_backward_refusals(make, seed, exc, msg):
    t = make()
    with pytest.raises(exc) as info:
        t.backward(seed() if callable(seed) else seed)  # tensors made now, not at collection
    assert msg is None or str(info.value) == msg
    if msg and "device" in msg:  # refused after the gradient field was made
        np.testing.assert_array_equal(val(t.grad), [0.0])
    else:
        assert t.grad is None


@pytest.mark.parametrize("dtype,seed,expected", [
    (F32, None, [1.0, 1.0]), (C64, None, [1 + 0j, 1 + 0j]), (C128, lambda: QTensor([1j, 2.0], dtype=C64), [1j, 2.0]),
    (F32, lambda: QTensor([2.0, 3.0], dtype=F64), [2.0, 3.0]), (F64, np.array([4, 5]), [4.0, 5.0]),
    (F64, lambda: CoreTensor(np.array([True, False]), 0, -1), [1.0, 0.0])])
def test_backward_on_a_leaf_seeds_and_accumulates(dtype, seed, expected):
    t = leaf([0.5, 0.25], dtype=dtype)
    seed = seed() if callable(seed) else seed  # tensors made now, not at collection
    t.backward(seed)
    assert t.grad.dtype == dtype
    np.testing.assert_array_equal(val(t.grad), expected)
    first = t.grad
    t.backward(seed)
    assert t.grad is first
    np.testing.assert_array_equal(val(t.grad), 2 * np.array(expected))


def test_seed_is_cast_before_it_flows_into_the_graph():
    seen = []
    x = leaf([1.0, 2.0])
    z = derived([(x, lambda g: (seen.append(g.dtype), g)[1])], [0.0, 0.0])
    z.backward(np.array([1, 2]))
    assert seen == [F32]
    np.testing.assert_array_equal(val(x.grad), [1.0, 2.0])


# One element in shape [] or [1] (what a reduction over all elements gives): a seed or a
# derivative's result of either shape is added to a grad of the other.
def test_one_element_gradients_of_either_shape():
    x = leaf(np.array(0.5))
    y = tt.exp(x)
    y.backward(QTensor(np.array([2.0])))
    assert (x.grad.shape, y.grad.shape) == ([], [])
    assert np.isclose(x.grad.item(), 2.0 * np.exp(0.5)) and y.grad.item() == 2.0
    for returned in (lambda g: CoreTensor(np.array([3.0])), lambda g: np.array([[3.0]])):
        p = leaf(np.array(1.0))
        derived([(p, returned)], [1.0]).backward()
        assert p.grad.shape == [] and p.grad.item() == 3.0
    q = leaf([1.0])
    derived([(q, lambda g: CoreTensor(np.array(3.0)))], np.array(1.0)).backward(np.array(2.0))
    assert q.grad.shape == [1] and q.grad.item() == 3.0


# ----------------------------------------------------------------- the walk

def worked_example(log):
    x, y = leaf([2.0]), leaf([3.0])

    def rec(name, df):
        return lambda g: (log.append((name, isinstance(g, CoreTensor))), df(g))[1]
    a = derived([(x, rec("a->x", times(y))), (y, rec("a->y", times(x)))], [6.0])
    z = derived([(a, rec("z->a", ident)), (x, rec("z->x", ident))], [8.0])
    return x, y, a, z


def test_worked_example():
    log = []
    x, y, a, z = worked_example(log)
    assert ids(tt.toposort(z)) == ids([z, a, y, x])
    assert z.backward() is None
    assert log == [("z->a", True), ("z->x", True), ("a->x", True), ("a->y", True)]
    assert a.grad is None and [val(n.grad)[0] for n in (x, y, z)] == [4.0, 2.0, 1.0]
    z.backward()
    assert a.grad is None and [val(n.grad)[0] for n in (x, y, z)] == [8.0, 4.0, 2.0]
    for n in (x, y):
        n.zero_grad()
    z.backward()
    assert [val(n.grad)[0] for n in (x, y, z)] == [4.0, 2.0, 3.0]


def test_toposort_is_lazy_and_takes_any_parents():
    a, b, c, d = (QTensor([float(i)]) for i in range(4))
    graph = {d: [b, c], b: [a], c: [a], a: []}
    calls = []

    def parents(q):
        calls.append(q)
        return graph[q]
    walk = tt.toposort(d, parents)
    assert calls == []
    assert next(walk) is d and len(calls) == 4
    assert ids(walk) == ids([c, b, a])
    assert sorted(ids(calls)) == sorted(ids(graph) * 2)
    twice = {d: [a, a], a: []}
    assert ids(tt.toposort(d, lambda q: twice[q])) == ids([d, a])


def test_two_edges_and_diamond():
    x = leaf([3.0])
    sq = derived([(x, times(x)), (x, times(x))], [9.0])
    assert ids(tt.toposort(sq)) == ids([sq, x])
    sq.backward()
    assert val(x.grad)[0] == 6.0
    seen = []
    w = leaf([1.0])
    a = derived([(w, lambda g: (seen.append(np.array(g)[0]), scaled(10)(g))[1])], [1.0])
    b, c = derived([(a, scaled(2))], [2.0]), derived([(a, scaled(3))], [3.0])
    d = derived([(b, ident), (c, ident)], [5.0])
    assert ids(tt.toposort(d)) == ids([d, c, b, a, w])
    d.backward()
    assert seen == [5.0] and val(w.grad)[0] == 50.0


@pytest.mark.parametrize("where,flag,stops", [("a", False, True), ("x", False, True), ("a", 0, True),
                                              ("a", None, False), ("z", False, False), ("a", True, False)])
def test_validity_flag(where, flag, stops):
    called = []
    x = leaf([1.0])
    a = derived([(x, lambda g: (called.append(1), g)[1])], [1.0])
    z = derived([(a, ident)], [1.0])
    setattr({"x": x, "a": a, "z": z}[where], "_if_normal_run_qvm", flag)
    z.backward()
    assert val(z.grad)[0] == 1.0
    if stops:
        assert called == [] and val(x.grad)[0] == 0.0 and val(a.grad)[0] == 0.0
    else:
        assert called == [1] and val(x.grad)[0] == 1.0 and a.grad is None


def test_gradients_are_zeros_until_their_first_contribution_and_never_alias():
    # The first walk gives every reached tensor a gradient; read before anything was added
    # (from a derivative, or after a failed walk) it holds zeros.
    seen = []
    x, y = leaf([1.0, 2.0]), leaf([1.0])
    a = derived([(x, lambda g: (seen.append(val(x.grad).tolist()), g)[1]), (y, lambda g: 1 / 0)], [1.0, 1.0])
    z = derived([(a, ident)], [1.0, 1.0])
    with pytest.raises(ZeroDivisionError):
        z.backward()
    assert seen == [[0.0, 0.0]] and val(x.grad).tolist() == [1.0, 1.0] and val(y.grad)[0] == 0.0
    # A contribution passed on unchanged becomes the gradient without a copy; writing one
    # of the two afterwards leaves the other as it was.
    w = leaf([1.0])
    v = derived([(w, ident)], [1.0])
    v.backward()
    w.grad.data.fill_(7.0)
    assert val(v.grad)[0] == 1.0 and val(w.grad)[0] == 7.0
    v.backward()
    assert val(v.grad)[0] == 2.0 and val(w.grad)[0] == 8.0


@pytest.mark.parametrize("device", [0, GPU0])
@pytest.mark.parametrize("ret", [np.array([1.5, 2.5]), np.array([1, 2], np.int64)])
def test_derivative_returning_ndarray(device, ret):
    x = leaf([0.0, 0.0], device=device)
    z = derived([(x, lambda g: ret)], [0.0, 0.0], device=device)
    z.backward()
    assert x.grad.dtype == F32 and x.grad.data.device == device
    np.testing.assert_array_equal(val(x.grad), ret.astype(np.float32))


@pytest.mark.parametrize("parent_dev,out_dev,seen_dev", [(GPU0, 0, GPU0), (0, GPU0, 0), (GPU0, GPU0, GPU0),
                                                          (GPU1, GPU0, GPU0)])
def test_gradient_follows_the_edge_device(parent_dev, out_dev, seen_dev):
    seen = []

    def df(g):
        seen.append(g.device)
        return g if g.device == parent_dev else g.GPU(parent_dev)
    x = leaf([1.0, 2.0], device=parent_dev)
    z = derived([(x, df)], [0.0, 0.0], device=out_dev)
    z.backward(QTensor([3.0, 4.0], device=out_dev))
    assert seen == [seen_dev] and x.grad.data.device == parent_dev
    np.testing.assert_array_equal(val(x.grad), [3.0, 4.0])


def test_interior_grads_released_and_leftovers_flow_on():
    x = leaf([1.0])
    a = derived([(x, ident)], [1.0])
    b = derived([(a, scaled(2))], [2.0])
    z = derived([(b, ident)], [2.0])
    a.backward()
    assert val(a.grad)[0] == 1.0 and val(x.grad)[0] == 1.0
    z.backward()
    assert a.grad is None and b.grad is None
    assert val(x.grad)[0] == 4.0 and val(z.grad)[0] == 1.0
    assert ids(tt.free_grad(z)) == ids(tt.get_prev(z)) == ids([b])


def test_get_prev_and_free_grad():
    x, y, c = leaf([1.0]), QTensor([1.0]), leaf([1.0])
    m = derived([(c, ident)], [1.0])
    q = derived([(x, ident), (y, ident), (m, ident), (x, ident), (c, None)], [1.0])
    assert ids(tt.get_prev(q)) == ids([x, m, x, c])
    assert val(x.grad)[0] == 0.0 and val(m.grad)[0] == 0.0 and y.grad is None and c.grad is None
    assert ids(tt.free_grad(q)) == ids([x, m, x, c])
    assert m.grad is None and x.grad is not None


def test_check_nodes_not_empty_or_none():
    for nodes in (None, [1], [None, None], type("L", (list,), {})([0])):
        assert tt._check_nodes_not_empty_or_none(nodes) is True
    for nodes in ([], (1,), "ab", 0, {1: 2}):
        assert tt._check_nodes_not_empty_or_none(nodes) is False


def test_integer_parent_stops_the_pass():
    x = QTensor([1, 2], requires_grad=True, dtype=D.kint32)
    z = derived([(x, ident)], [1.0, 1.0])
    with pytest.raises(ValueError) as info:
        z.backward()
    assert str(info.value) == "Only float or double tensor can do gradient calculation."
    np.testing.assert_array_equal(val(z.grad), [1.0, 1.0])
    assert x.grad is None
    assert ids(tt.get_prev(derived([(x, None)], [1.0]))) == ids([x])


def test_long_chain_without_recursion():
    x = leaf([1.0])
    t = x
    for _ in range(100_000):
        t = QTensor([1.0], requires_grad=True, nodes=[Node(t, ident)])
    start = time.perf_counter()
    t.backward()
    assert time.perf_counter() - start < 20.0
    assert val(x.grad)[0] == 1.0 and t.nodes[0].tensor.grad is None
    del t
    gc.collect()
    assert x.grad is not None


def test_graph_dies_with_its_last_result():
    x, y, a, z = worked_example([])
    refs = [weakref.ref(o) for o in (x, y, a, z)]
    z.backward()
    del x, y, a
    gc.collect()
    assert all(r() is not None for r in refs)
    del z
    gc.collect()
    assert all(r() is None for r in refs)


# ----------------------------------------------------------------- export record at construction

def configure(save_constant, save_opinfo):
    export.set_onnx_convert_config("save_constant", save_constant)
    export.set_onnx_convert_config("save_opinfo", save_opinfo)
    assert export.get_onnx_convert_config("save_constant") is save_constant


# A record is kept when save_constant is the value True and save_opinfo is anything but False.
@pytest.mark.parametrize("save_constant,save_opinfo,records", [
    (True, True, True), (True, None, True), (True, 0, True), (True, False, False),
    (False, True, False), (1, True, False), (None, None, False)])
def test_constant_record_at_construction(save_constant, save_opinfo, records):
    configure(save_constant, save_opinfo)
    values = np.array([[1.0, 2.0], [3.0, 4.0]], np.float32)
    t = QTensor(values, device=GPU0)
    assert t.link_nodes == [] and t.device == GPU0 and t.data.device == GPU0
    if not records:
        assert t.oplinkinfo is None
        return
    r = t.oplinkinfo
    me, shape = str(id(t)), [2, 2]
    assert isinstance(r, export.OPNodesInfo)
    assert (r.opid, r.opname, r.op_input_id_lists, r.op_input_shape_lists, r.op_output_id_list,
            r.op_output_shape_list, r.op_para_buffer_id_lists, r.op_para_buffer_shape_lists,
            r.op_input_dtype_lists, r.op_output_dtype_lists) == (
        me + "_tensor_init_", "Constant", [me], [shape], [me], [shape], [], [],
        [F32], [F32])
    assert isinstance(r.op_attribute, list) and len(r.op_attribute) == 1
    attr = r.op_attribute[0]
    assert set(attr) == {"value", "shape"} and attr["shape"] == shape
    t.data.fill_(0)  # the record keeps the values of its moment
    assert isinstance(attr["value"], np.ndarray)
    np.testing.assert_array_equal(attr["value"], values)


@pytest.mark.parametrize("save_constant,save_opinfo", [(True, True), (True, False), (False, True)])
def test_astype_cast_record(save_constant, save_opinfo):
    configure(save_constant, save_opinfo)
    t = leaf([1.0, 2.0])
    y = t.astype(F64)
    if not (save_constant and save_opinfo):
        assert (y.oplinkinfo, y.link_nodes) == (None, [])
        return
    r = y.oplinkinfo
    assert (r.opid, r.opname, r.op_attribute) == (f"{id(t)}cast_to_{id(y)}", "Cast",
                                                  {"dtype", F64})
    assert (r.op_input_id_lists, r.op_output_id_list) == ([str(id(t))], [str(id(y))])
    assert [(n.tensor, n.name, n.df) for n in y.link_nodes] == [(t, "Cast", None)]


def test_the_walks_one_at_a_time_do_what_backprop_does():
    def setup():
        x = leaf([1.0])
        a = derived([(x, scaled(3))], [3.0])
        z = derived([(a, scaled(2))], [6.0])
        seed = QTensor([1.0])
        z.grad = QTensor([1.0])
        return x, a, z, seed

    x, a, z, seed = setup()
    assert tt.just_valid_result_from_qvm(seed, z) is True  # also allocates the zero grads
    assert val(x.grad)[0] == 0.0 and val(a.grad)[0] == 0.0
    tt.backprop_impl(seed, z)
    assert val(x.grad)[0] == 6.0 and val(a.grad)[0] == 2.0
    tt.free_backprop_grad(seed, z)
    assert a.grad is None and val(x.grad)[0] == 6.0

    x, a, z, seed = setup()
    tt.backprop(seed, z)
    assert a.grad is None and val(x.grad)[0] == 6.0
