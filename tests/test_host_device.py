"""Data out to numpy, copies of a tensor, and device placement."""
import numpy as np
import pytest

from pytramel import dtype as D
from pytramel.tensor import tensor as tt
from conftest import DTYPE_IDS, DTYPES, GPU0, GPU1, host, sample

QTensor = tt.QTensor
Node = QTensor.GraphNode

NUMPY_MSG = ("to_numpy can only use on CPU Tensor.Please use toCPU() to move data to CPU, "
             "or use CPU() to copy data to CPU.")
GPU_MSG = "device should be DEV_GPU_0,DEV_GPU_1,... for GPU"
TO_GPU_MSG = "device should be DEV_GPU,DEV_GPU_1,... for GPU"
WARN_MSG = "new Tensor will not keep current GraphNode"


def val(t):
    return host(t.data)


def derived(parent, values, name="edge", **kw):
    return QTensor(values, requires_grad=True, nodes=[Node(parent, lambda g: g, name)], **kw)


# ----------------------------------------------------------------- host arrays

@pytest.mark.parametrize("device", [0, GPU0])
@pytest.mark.parametrize("dt,nptype", DTYPES, ids=DTYPE_IDS)
def test_host_copies(dt, nptype, device):
    expected = sample((2, 3), nptype)
    t = QTensor(expected, device=device)
    assert t.is_bool is (dt == D.kbool)
    readers = [t.to_numpy, lambda: QTensor._to_numpy(t), t.getdata, t.pdata.copy]
    if device == 0:
        readers.append(t.numpy)
    else:
        with pytest.raises(RuntimeError) as info:
            t.numpy()
        assert str(info.value) == NUMPY_MSG
    for read in readers:
        a = read()
        assert isinstance(a, np.ndarray) and a.dtype == nptype
        np.testing.assert_array_equal(a, expected)
        a[...] = 0  # a copy, never a view of the tensor
    np.testing.assert_array_equal(val(t), expected)
    assert (t.device, t.data.device) == (device, device)


# ----------------------------------------------------------------- copies and clones

def test_copy_is_cut_off_from_the_graph():
    y = derived(QTensor([1.0, 2.0], requires_grad=True), [3.0, 4.0], device=GPU0, dtype=D.kfloat64)
    c = y.copy()
    assert (c.requires_grad, c.nodes, c.grad, c.device, c.data.device, c.dtype) == (
        False, [], None, GPU0, GPU0, D.kfloat64)
    c.fill_(0)
    np.testing.assert_array_equal(val(y), [3.0, 4.0])


@pytest.mark.parametrize("device", [0, GPU0])
def test_clone_is_a_second_result_of_the_same_operation(device):
    p = QTensor([1.0, 2.0], requires_grad=True, device=device)
    q = QTensor([5.0, 6.0], requires_grad=True, device=device)
    y = QTensor([3.0, 4.0], requires_grad=True, device=device,
                nodes=[Node(p, lambda g: g, "to p"), Node(q, lambda g: g.astype(D.kfloat32), "to q")])
    y.grad = QTensor([9.0, 9.0])
    c = y.clone()
    assert (c.requires_grad, c.device, c.grad, c.link_nodes) == (True, device, None, [])
    assert all(a is not b for a, b in zip(c.nodes, y.nodes))
    assert [(n.tensor, n.df, n.name) for n in c.nodes] == [(n.tensor, n.df, n.name) for n in y.nodes]
    c.fill_(2.0)
    np.testing.assert_array_equal(val(y), [3.0, 4.0])
    c.backward()
    np.testing.assert_array_equal(val(p.grad), [1.0, 1.0])
    np.testing.assert_array_equal(val(q.grad), [1.0, 1.0])
    np.testing.assert_array_equal(val(y.grad), [9.0, 9.0])  # self receives nothing


def test_clone_of_a_leaf_or_of_a_detached_result():
    p = QTensor([1.0], requires_grad=True)
    leaf_clone = p.clone()
    assert (leaf_clone.requires_grad, leaf_clone.nodes) == (True, [])
    leaf_clone.backward()
    assert p.grad is None
    off = derived(p, [2.0])
    off.requires_grad = False
    assert (off.clone().requires_grad, off.clone().nodes) == (False, [])


@pytest.mark.parametrize("src_dtype", [D.kfloat64, D.kint32, D.kfloat32])
def test_copy_value_from_converts_the_source(src_dtype):
    a = QTensor(np.zeros(3, np.float32))
    b = QTensor([1, 2, 3], dtype=src_dtype)
    a.copy_value_from(b)
    np.testing.assert_array_equal(val(a), [1, 2, 3])
    assert a.dtype == D.kfloat32 and b.dtype == D.kfloat32
    np.testing.assert_array_equal(val(b), [1, 2, 3])
    c = QTensor([7.0, 8.0, 9.0], device=GPU0)
    assert c._copy_c_data_from(QTensor([4.0, 5.0, 6.0], device=GPU0)) is None
    np.testing.assert_array_equal(val(c), [4.0, 5.0, 6.0])


# ----------------------------------------------------------------- core helpers, float2complex

@pytest.mark.parametrize("device", [0, GPU0])
def test_core_helpers(device):
    c = tt.CoreTensor(np.array([1.5, -2.5], np.float32), device, -1)
    cast = tt.helper_function_to_cast_core_tensor_dtype
    assert cast(c, D.kfloat32) is c
    own = cast(c, D.kfloat32, True)
    assert own is not c and (own.dtype, own.device) == (D.kfloat32, device)
    wide = cast(c, D.kfloat64)
    assert (wide.dtype, wide.device, c.dtype) == (D.kfloat64, device, D.kfloat32)
    np.testing.assert_array_equal(host(wide), [1.5, -2.5])
    dup = tt.helper_function_copy_c_tensor(c)
    assert dup is not c and (dup.shape, dup.device, dup.dtype) == ([2], device, D.kfloat32)
    c.fill_(0)
    np.testing.assert_array_equal(host(dup), [1.5, -2.5])


@pytest.mark.parametrize("src,dst", [(D.kfloat32, D.kcomplex64), (D.kfloat64, D.kcomplex128),
                                     (D.kcomplex64, "same"), (D.kcomplex128, "same"),
                                     *[(d, None) for d in (D.kbool, D.kuint8, D.kint16, D.kint64)]])
def test_float2complex(src, dst):
    t = QTensor([1, -2], requires_grad=dst is not None, dtype=src)
    if dst is None:
        with pytest.raises(ValueError) as info:
            tt.float2complex(t)
        assert str(info.value) == "data type of complex or float is supported"
        return
    r = tt.float2complex(t)
    if dst == "same":
        assert r is t
        return
    assert (r.dtype, r.requires_grad, r.nodes[0].tensor) == (dst, True, t)
    np.testing.assert_array_equal(val(r), [1, -2])


# ----------------------------------------------------------------- device placement

@pytest.mark.parametrize("src,call,dst", [
    (0, lambda t: t.GPU(), GPU0), (0, lambda t: t.gpu(GPU1), GPU1), (GPU0, lambda t: t.GPU(GPU1), GPU1),
    (0, lambda t: t.to_device(GPU0), GPU0), (GPU0, lambda t: t.CPU(), 0), (GPU1, lambda t: t.cpu(), 0),
    (GPU0, lambda t: t.to_device(0), 0), (0, lambda t: t.to_device(0), 0), (0, lambda t: t.CPU(), 0)])
@pytest.mark.parametrize("state", ["plain", "leaf", "leaf+grad", "result", "result+grad"])
def test_placed_copies(src, call, dst, state, recwarn):
    p = QTensor([0.0], requires_grad=True, device=src)
    values = np.array([[1 + 2j, -3j]], np.complex64)
    t = (derived(p, values, device=src) if state.startswith("result")
         else QTensor(values, requires_grad=state != "plain", device=src))
    if state.endswith("grad"):
        t.zero_grad()
        t.grad.fill_(4.0)
    r = call(t)
    assert r is not t and (r.device, r.data.device, r.dtype, r.nodes) == (dst, dst, D.kcomplex64, [])
    np.testing.assert_array_equal(val(r), values)
    assert (t.device, t.data.device) == (src, src)
    if state.endswith("grad"):
        assert r.requires_grad is True
        assert (r.grad.device, r.grad.data.device, r.grad.dtype) == (dst, dst, D.kcomplex64)
        np.testing.assert_array_equal(val(r.grad), np.full((1, 2), 4.0))
    else:
        assert (r.requires_grad, r.grad) == (False, None)
    warned = state.startswith("result") and dst != 0
    assert [(w.category, str(w.message)) for w in recwarn] == [(UserWarning, WARN_MSG)] * warned


@pytest.mark.parametrize("call,msg", [
    (lambda t: t.GPU(0), GPU_MSG), (lambda t: t.gpu(999), GPU_MSG), (lambda t: t.GPU(-1), GPU_MSG),
    (lambda t: t.toGPU(0), TO_GPU_MSG), (lambda t: t.to_gpu(999), TO_GPU_MSG),
    *[(lambda t, d=d: t.to_device(d), None) for d in (-1, 5, 999)]])
def test_refused_device_numbers(call, msg):
    t = QTensor([1.0])
    if msg is None:
        assert call(t) is None
    else:
        with pytest.raises(ValueError) as info:
            call(t)
        assert str(info.value) == msg
    assert (t.device, t.data.device) == (0, 0)


# A device number beyond the range of int is refused, never truncated to its low
# 32 bits: 2**32 + 1000 is not device 1000.
WIDE = 2**32 + GPU0
WIDE_MSG = f"device {WIDE} is out of range"


@pytest.mark.parametrize("call", [
    lambda: tt.CoreTensor(np.ones(2), WIDE), lambda: tt.CoreTensor(np.ones(2)).GPU(WIDE),
    lambda: tt.CoreTensor(np.ones(2)).toGPU(WIDE), lambda: QTensor(np.ones(2), device=WIDE),
    lambda: QTensor(tt.CoreTensor(np.ones(2)), device=WIDE), lambda: QTensor([1.0]).GPU(WIDE),
    lambda: QTensor([1.0]).toGPU(WIDE), lambda: QTensor([1.0]).to_device(WIDE),
    lambda: tt.zeros([2], device=WIDE), lambda: tt.zeros_like(QTensor([1.0]), device=WIDE),
])
def test_device_numbers_beyond_int_are_refused(call):
    with pytest.raises(ValueError, match=WIDE_MSG):
        call()


@pytest.mark.parametrize("read", [
    lambda q: q.isGPU(), lambda q: q.zero_grad(), lambda q: tt.zeros_like(q), lambda q: q * 2.0,
    lambda q: QTensor(q.data, device=q.device),
])
def test_device_fields_beyond_int_are_refused_where_read(read):
    q = QTensor([1.0, 2.0], requires_grad=True)
    q.device = WIDE
    with pytest.raises(ValueError, match=WIDE_MSG):
        read(q)


def test_a_graph_on_a_device_beyond_int_is_refused_in_backward():
    q = QTensor([1.0, 2.0], requires_grad=True)
    y = tt.sums(q)
    q.device = WIDE
    with pytest.raises(ValueError, match=WIDE_MSG):
        y.backward()


@pytest.mark.parametrize("to_gpu,to_cpu", [(lambda t: t.toGPU(), lambda t: t.toCPU()),
                                          (lambda t: t.to_gpu(GPU1), lambda t: t.to_cpu())])
def test_moves_in_place(to_gpu, to_cpu):
    p = QTensor([1.0, 2.0], requires_grad=True)
    p.zero_grad()
    p.grad.fill_(3.0)
    y = derived(p, [1.0, 2.0])
    nodes, edge, grad = y.nodes, y.nodes[0], p.grad
    assert p.isCPU() and p.is_cpu() and not p.isGPU() and not p.is_gpu()
    assert to_gpu(p) is p and to_gpu(y) is y
    assert p.device >= GPU0 and p.data.device == p.device and p.grad.data.device == p.device
    assert p.isGPU() is True and p.is_gpu() is True and p.isCPU() is False and p.is_cpu() is False
    assert y.nodes is nodes and y.nodes[0] is edge and edge.tensor is p and edge.device == 0
    assert p.grad is grad and grad.device == 0  # the grad object's own field stays behind
    np.testing.assert_array_equal(val(p), [1.0, 2.0])
    np.testing.assert_array_equal(val(p.grad), [3.0, 3.0])
    assert to_cpu(p) is p
    assert (p.device, p.data.device, p.grad.data.device, p.isCPU()) == (0, 0, 0, True)


def test_grad_moves_only_with_requires_grad():
    t = QTensor([1.0], requires_grad=True)
    t.zero_grad()
    t.requires_grad = False
    t.toGPU(GPU0)
    assert (t.data.device, t.grad.data.device) == (GPU0, 0)
    assert t.CPU().grad is None
