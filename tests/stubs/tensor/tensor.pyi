from collections.abc import Sequence

import numpy

from pytramel._core import (
    Tensor as CoreTensor,
    get_default_dtype as get_default_dtype,
    get_readable_dtype_str as get_readable_dtype_str
)
from pytramel.onnx.export import (
    OPNodesInfo as OPNodesInfo,
    get_onnx_convert_config as get_onnx_convert_config
)


DEV_CPU: int = 0

DEV_GPU_0: int = 1000

DEV_GPU_1: int = 1001

DEV_GPU_2: int = 1002

DEV_GPU_3: int = 1003

DEV_GPU_4: int = 1004

DEV_GPU_5: int = 1005

DEV_GPU_6: int = 1006

DEV_GPU_7: int = 1007

kbool: int = 0

kuint8: int = 1

kint8: int = 2

kint16: int = 3

kint32: int = 4

kint64: int = 5

kfloat32: int = 6

kfloat64: int = 7

kcomplex64: int = 8

kcomplex128: int = 9

dtype_map: dict = ...

def get_opinfo(end_node: QTensor | None) -> object:
    """
    The export records of the graph below a tensor, read from each tensor's name where the exporter left one. The walk gives tensors their zero grad, as a backward pass does.

    Args:
        end_node: a QTensor.

    Returns:
        An OrderedDict from opid to OPNodesInfo, in the order of the walk, each opid once.
    """

class QTensor:
    """
    QTensor is basic data struct for quantum circuits and nerual networks.
    It supports multiple operations and implement their gradient function.
    """

    def __hash__(self, /):
        """Return hash(self)."""

    def __lt__(self, value, /):
        """Return self<value."""

    def __le__(self, value, /):
        """Return self<=value."""

    def __eq__(self, value, /):
        """Return self==value."""

    def __ne__(self, value, /):
        """Return self!=value."""

    def __gt__(self, value, /):
        """Return self>value."""

    def __ge__(self, value, /):
        """Return self>=value."""

    def __init__(self, data: object | None, requires_grad: object | None = False, nodes: object | None = None, device: int | None = 0, dtype: int | None = None, name: object | None = '') -> None:
        """
        A tensor of the given values.

        Args:
            data: a number, nested lists or tuples of numbers, or a numpy array, all copied; or a _core.Tensor, kept without a copy (and moved to device itself when it is elsewhere).
            requires_grad: whether gradients are wanted; any object, kept as given and read by its truth.
            nodes: the edges (GraphNode) to the inputs of the operation that made the tensor; None or an empty list for a leaf.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant; None keeps the dtype of an array or core tensor, and gives lists of floats the default dtype.
            name: a label; any object, kept as given.
        """

    def __add__(self, value, /):
        """Return self+value."""

    def __radd__(self, value, /):
        """Return value+self."""

    def __sub__(self, value, /):
        """Return self-value."""

    def __rsub__(self, value, /):
        """Return value-self."""

    def __mul__(self, value, /):
        """Return self*value."""

    def __rmul__(self, value, /):
        """Return value*self."""

    def __pow__(self, value, mod=None, /):
        """Return pow(self, value, mod)."""

    def __rpow__(self, value, mod=None, /):
        """Return pow(value, self, mod)."""

    def __neg__(self, /):
        """-self"""

    def __truediv__(self, value, /):
        """Return self/value."""

    def __rtruediv__(self, value, /):
        """Return value/self."""

    def __getitem__(self, key, /):
        """Return self[key]."""

    def __setitem__(self, key, value, /):
        """Set self[key] to value."""

    def __delitem__(self, key, /):
        """Delete self[key]."""

    class GraphNode:
        """
        Helper class which models a node in the computational graph.
        Stores tensor and derivative function of the primitive operation.
        """

        def __init__(self, tensor: QTensor | None, df: object | None, name: object | None = '') -> None:
            """
            An edge of the graph, from a result to one of its inputs.

            Args:
                tensor: the input; the edge keeps its device as it is now.
                df: the derivative function: called with the incoming gradient (a _core.Tensor), it returns the gradient for tensor (a _core.Tensor or a numpy array); None for an edge without one.
                name: a label; any object, kept as given.
            """

        @property
        def tensor(self) -> object:
            """The input the edge leads to, which receives its gradient."""

        @tensor.setter
        def tensor(self, arg: object | None, /) -> None: ...

        @property
        def name(self) -> object:
            """
            The edge's label: for a built-in operator, its name and operands. Not read by the backward pass.
            """

        @name.setter
        def name(self, arg: object | None, /) -> None: ...

        @property
        def df(self) -> object:
            """
            The derivative function (a GradFn for built-in operators), or None for an edge without gradient.
            """

        @df.setter
        def df(self, arg: object | None, /) -> None: ...

        @property
        def device(self) -> object:
            """
            The device of tensor when the edge was made; the backward pass brings the gradient to it.
            """

        @device.setter
        def device(self, arg: object | None, /) -> None: ...

    @property
    def data(self) -> object:
        """
        The values, a _core.Tensor: the same object on every read; assigning another replaces them.
        """

    @data.setter
    def data(self, arg: object | None, /) -> None: ...

    @property
    def requires_grad(self) -> object:
        """Whether gradients are wanted; any object, read by its truth."""

    @requires_grad.setter
    def requires_grad(self, arg: object | None, /) -> None: ...

    @property
    def nodes(self) -> object:
        """
        The edges (GraphNode) to the inputs of the operation that made the tensor, one per input that requires a gradient; empty for a leaf.
        """

    @nodes.setter
    def nodes(self, arg: object | None, /) -> None: ...

    @property
    def link_nodes(self) -> object:
        """
        The edges of the export graph (GraphNode without derivative); the backward pass does not read them.
        """

    @link_nodes.setter
    def link_nodes(self, arg: object | None, /) -> None: ...

    @property
    def grad(self) -> object:
        """The accumulated gradient, a QTensor, or None while there is none."""

    @grad.setter
    def grad(self, arg: object | None, /) -> None: ...

    @property
    def device(self) -> object:
        """The device number: 0 is the processor, 1000 and up are accelerators."""

    @device.setter
    def device(self, arg: object | None, /) -> None: ...

    @property
    def oplinkinfo(self) -> object:
        """
        The export record (OPNodesInfo) of the operation that made the tensor, or None.
        """

    @oplinkinfo.setter
    def oplinkinfo(self, arg: object | None, /) -> None: ...

    @property
    def save_onnx_constant(self) -> object:
        """
        A flag kept for the exporter; False unless set, and not read by this module.
        """

    @save_onnx_constant.setter
    def save_onnx_constant(self, arg: object | None, /) -> None: ...

    @property
    def name(self) -> object:
        """
        A label; any object. get_opinfo collects the export records (OPNodesInfo) found here.
        """

    @name.setter
    def name(self, arg: object | None, /) -> None: ...

    def zero_grad(self) -> None:
        """
        Zeros the gradient in place, or gives the tensor a zero gradient of its shape, dtype and device; refused when requires_grad is False.
        """

    def backward(self, grad: object | None = None) -> None:
        """
        Computes the gradient of this tensor with respect to every tensor of its graph that requires one, adding it to their grad; interior tensors' grad is released afterwards.

        Args:
            grad: the seed, of this tensor's shape and on its device: a QTensor, a _core.Tensor or a numpy array, complex for a complex tensor and real for a real one; None for ones.
        """

    def to_numpy(self) -> object:
        """
        A numpy copy of the values, from any device.

        Returns:
            A new numpy array.
        """

    def numpy(self) -> object:
        """
        A numpy copy of the values of a processor tensor; an accelerator tensor is refused.

        Returns:
            A new numpy array.
        """

    def copy_value_from(self, other_tensor: QTensor | None) -> None:
        """
        Copies another tensor's values into this one, in place; the other tensor's data is first converted to this one's dtype, and keeps it.

        Args:
            other_tensor: a QTensor of this tensor's shape.
        """

    def copy(self) -> QTensor:
        """
        A copy of the values on the same device, cut off from the graph.

        Returns:
            A new QTensor; requires_grad False.
        """

    def clone(self) -> QTensor:
        """
        A copy of the values that is a second result of the operation that made this tensor: while requires_grad is true, its edges lead to the same inputs, and this tensor gets no gradient from it.

        Returns:
            A new QTensor with this tensor's requires_grad.
        """

    @property
    def is_bool(self) -> bool:
        """Whether the dtype is kbool."""

    def GPU(self, device: int | None = 1000) -> QTensor:
        """
        A copy on an accelerator, cut off from the graph (with a warning when the tensor requires a gradient and has edges).

        Args:
            device: an accelerator, 1000 and up.

        Returns:
            A new QTensor, a leaf; it keeps requires_grad, with a copy of grad, only when the tensor has a grad.
        """

    def gpu(self, device: int | None = 1000) -> QTensor:
        """
        A copy on an accelerator, cut off from the graph (with a warning when the tensor requires a gradient and has edges).

        Args:
            device: an accelerator, 1000 and up.

        Returns:
            A new QTensor, a leaf; it keeps requires_grad, with a copy of grad, only when the tensor has a grad.
        """

    def CPU(self) -> QTensor:
        """
        A copy on the processor, cut off from the graph.

        Returns:
            A new QTensor, a leaf; it keeps requires_grad, with a copy of grad, only when the tensor has a grad.
        """

    def cpu(self) -> QTensor:
        """
        A copy on the processor, cut off from the graph.

        Returns:
            A new QTensor, a leaf; it keeps requires_grad, with a copy of grad, only when the tensor has a grad.
        """

    def toGPU(self, device: int | None = 1000) -> QTensor:
        """
        Moves the tensor itself, and its grad, to an accelerator; its edges stay.

        Args:
            device: an accelerator, 1000 and up.

        Returns:
            This tensor.
        """

    def to_gpu(self, device: int | None = 1000) -> QTensor:
        """
        Moves the tensor itself, and its grad, to an accelerator; its edges stay.

        Args:
            device: an accelerator, 1000 and up.

        Returns:
            This tensor.
        """

    def toCPU(self) -> QTensor:
        """
        Moves the tensor itself, and its grad, to the processor; its edges stay.

        Returns:
            This tensor.
        """

    def to_cpu(self) -> QTensor:
        """
        Moves the tensor itself, and its grad, to the processor; its edges stay.

        Returns:
            This tensor.
        """

    def to_device(self, device: int | None) -> object:
        """
        A copy on a device, as CPU() or GPU(device) make it.

        Args:
            device: 0 for the processor, or an accelerator (1000 and up).

        Returns:
            A new QTensor; None for any other device number.
        """

    def isCPU(self) -> bool:
        """
        Whether the tensor is on the processor (device 0).

        Returns:
            A bool.
        """

    def is_cpu(self) -> bool:
        """
        Whether the tensor is on the processor (device 0).

        Returns:
            A bool.
        """

    def isGPU(self) -> bool:
        """
        Whether the tensor is on an accelerator (device 1000 and up).

        Returns:
            A bool.
        """

    def is_gpu(self) -> bool:
        """
        Whether the tensor is on an accelerator (device 1000 and up).

        Returns:
            A bool.
        """

    def getdata(self) -> object:
        """
        A numpy copy of the values, from any device.

        Returns:
            A new numpy array.
        """

    def argmax(self, dim: int | Sequence[int] | None = None, keepdims: object | None = None) -> QTensor:
        """
        The index of the first largest element.

        Args:
            dim: None for all elements, or an axis or a list of axes (negative ones count from the end), given together with keepdims.
            keepdims: None when dim is None; else keep the reduced axes with length one.

        Returns:
            A new int64 QTensor outside the graph: a one-element one over all elements, else the indices within the block of the axes.
        """

    def argmin(self, dim: int | Sequence[int] | None = None, keepdims: object | None = None) -> QTensor:
        """
        The index of the first smallest element.

        Args:
            dim: None for all elements, or an axis or a list of axes (negative ones count from the end), given together with keepdims.
            keepdims: None when dim is None; else keep the reduced axes with length one.

        Returns:
            A new int64 QTensor outside the graph: a one-element one over all elements, else the indices within the block of the axes.
        """

    def all(self) -> bool:
        """
        Whether every element is nonzero.

        Returns:
            A bool.
        """

    def any(self) -> bool:
        """
        Whether any element is nonzero.

        Returns:
            A bool.
        """

    def l2_norm(self) -> QTensor:
        """
        The Euclidean norm of all elements.

        Returns:
            A one-element QTensor on the processor, outside the graph.
        """

    def __bool__(self) -> bool:
        """
        The truth of a one-element tensor.

        Returns:
            A bool; AssertionError for any other size.
        """

    @property
    def dtype(self) -> int:
        """The element type, a dtype constant."""

    @property
    def dtype_str(self) -> str:
        """The element type's numpy name, such as 'float32'."""

    @property
    def ndim(self) -> int:
        """The number of dimensions."""

    def dim(self) -> int:
        """
        The number of dimensions.

        Returns:
            An int.
        """

    @property
    def shape(self) -> list:
        """The dimensions, as a new list of ints."""

    @property
    def size(self) -> int:
        """The number of elements."""

    def numel(self) -> int:
        """
        The number of elements.

        Returns:
            An int.
        """

    @property
    def pdata(self) -> object:
        """A numpy copy of the values, from any device."""

    @property
    def print_prev_node(self) -> object:
        """The label of the first edge in nodes; the empty string for a leaf."""

    def info(self) -> None:
        """Prints the shape, dtype, device and storage of the values."""

    def item(self) -> object:
        """
        The value of a one-element tensor as a Python number.

        Returns:
            A bool, int, float or complex; RuntimeError for any other size.
        """

    def __repr__(self) -> object:
        """
        The values as numpy prints them, after setting numpy's print options (suppress=True, precision=7) for the process.

        Returns:
            A str.
        """

    __array_ufunc__: None = None

    def astype(self, dtype: int | None) -> QTensor:
        """
        A copy converted to a dtype (complex to real keeps the real part); the gradient returns in the tensor's own dtype.

        Args:
            dtype: a dtype constant.

        Returns:
            A new QTensor; differentiable.
        """

    def reshape(self, new_shape: int | Sequence[int] | None) -> QTensor:
        """
        The values in a new shape.

        Args:
            new_shape: the new dimensions, a list or tuple of non-negative ints with the tensor's number of elements.

        Returns:
            A new QTensor; differentiable.
        """

    def unsqueeze(self, axis: int | None) -> QTensor:
        """
        The tensor with an axis of length one inserted.

        Args:
            axis: where the new axis goes; a negative one counts from one past the end.

        Returns:
            A new QTensor; differentiable.
        """

    def flatten(self, start: int = 0, end: int = -1) -> QTensor:
        """
        The tensor with the axes from start to end merged into one.

        Args:
            start: the first axis to merge.
            end: the last axis to merge; negative ones count from the end.

        Returns:
            A new QTensor; differentiable.
        """

    def transpose(self, new_dims: int | Sequence[int] | None = None) -> QTensor:
        """
        The tensor with its axes in a new order.

        Args:
            new_dims: the new order, a list of an axis number for each place; None reverses the axes, in a new leaf outside the graph (with a zero grad when requires_grad is True).

        Returns:
            A new QTensor; differentiable when new_dims is given.
        """

numeric_types: tuple = (float, int, numpy.generic)

slice_none_Placeholder: int = 2147483646

def helper_function_to_cast_core_tensor_dtype(core_tensor: object | None, target_dtype: object | None, if_new: object | None = False) -> object:
    """
    A core tensor converted to a dtype, by its toDtype method.

    Args:
        core_tensor: a _core.Tensor.
        target_dtype: a dtype constant.
        if_new: a bool: copy even when the dtype is the tensor's own.

    Returns:
        A _core.Tensor: core_tensor itself when it has the dtype and if_new is false.
    """

def helper_function_copy_c_tensor(src: object | None) -> object:
    """
    A copy of a core tensor on its own device.

    Args:
        src: a _core.Tensor.

    Returns:
        A new _core.Tensor.
    """

def float2complex(param: object | None) -> object:
    """
    A real tensor converted to its complex partner: float32 to complex64, float64 to complex128.

    Args:
        param: a QTensor or a _core.Tensor of a float or complex dtype; other dtypes are refused.

    Returns:
        param.astype(the complex dtype), differentiable for a QTensor; param itself when it is complex already.
    """

def is_nonzero(t: QTensor | None) -> bool:
    """
    The truth of a one-element tensor.

    Args:
        t: a QTensor of one element.

    Returns:
        A bool; AssertionError for any other size.
    """

class GradFn:
    """The derivative of a built-in operator for one of its inputs."""

    def __call__(self, grad: object | None) -> object:
        """
        The gradient for the edge's input.

        Args:
            grad: the incoming gradient, a _core.Tensor.

        Returns:
            The gradient for the input, a _core.Tensor.
        """

def get_prev(q: QTensor | None) -> list:
    """
    The inputs of a tensor that require a gradient; those reached over a differentiable edge without a grad get a zero one first.

    Args:
        q: a QTensor.

    Returns:
        A new list of QTensors in the order of q.nodes, a tensor once for each edge to it.
    """

def free_grad(q: QTensor | None) -> list:
    """
    The inputs of a tensor that require a gradient, releasing the grad of those that are not leaves.

    Args:
        q: a QTensor.

    Returns:
        A new list of QTensors in the order of q.nodes, a tensor once for each edge to it.
    """

def toposort(end_node: object | None, parents: object | None = ...) -> _TopoSortIterator:
    """
    The nodes of a graph in backward order: end_node first, each node after all nodes made from it.

    Args:
        end_node: the node the walk starts from; any object that parents takes.
        parents: a function from a node to the list of its parents; get_prev by default. It runs twice per node, the second time after the node has been yielded.

    Returns:
        An iterator over the nodes, each once; nothing runs before the first is asked for.
    """

def just_valid_result_from_qvm(g: QTensor | None, end_node: QTensor | None) -> bool:
    """
    The first walk of a backward pass: whether no tensor that would receive a gradient has _if_normal_run_qvm False. It gives those tensors their zero grad.

    Args:
        g: the seed gradient, a QTensor of end_node's shape.
        end_node: the QTensor the pass starts from.

    Returns:
        A bool.
    """

def backprop_impl(g: QTensor | None, end_node: QTensor | None) -> None:
    """
    The gradient walk of a backward pass: each edge's derivative runs once and its result is added to the input's grad.

    Args:
        g: the seed gradient, a QTensor of end_node's shape.
        end_node: the QTensor the pass starts from.
    """

def free_backprop_grad(g: QTensor | None, end_node: QTensor | None) -> None:
    """
    The last walk of a backward pass: releases the grad of every interior tensor it reaches.

    Args:
        g: the seed gradient, a QTensor of end_node's shape.
        end_node: the QTensor the pass starts from.
    """

def backprop(g: QTensor | None, end_node: QTensor | None) -> None:
    """
    A backward pass from end_node: the three walks, stopping after the first when a result is not valid.

    Args:
        g: the seed gradient, a QTensor of end_node's shape.
        end_node: the QTensor the pass starts from.
    """

def to_tensor(x: object | None) -> QTensor:
    """
    A QTensor for any value.

    Args:
        x: a QTensor (returned itself), a number (a one-element tensor on the processor), a _core.Tensor (kept, on its own device) or anything else that QTensor() takes (on the processor).

    Returns:
        A QTensor; a new one has requires_grad False.
    """

def zeros(shape: list[int] | tuple[int, ...] | None, device: int | None = 0, dtype: int | None = None) -> QTensor:
    """
    A tensor of zeros.

    Args:
        shape: a list or tuple of dimensions.
        device: a device number; 0, the processor, by default.
        dtype: a dtype constant; None for the default dtype.

    Returns:
        A new QTensor; requires_grad False.
    """

def ones(shape: list[int] | tuple[int, ...] | None, device: int | None = 0, dtype: int | None = None) -> QTensor:
    """
    A tensor of ones.

    Args:
        shape: a list or tuple of dimensions.
        device: a device number; 0, the processor, by default.
        dtype: a dtype constant; None for the default dtype.

    Returns:
        A new QTensor; requires_grad False.
    """

def empty(shape: list[int] | tuple[int, ...] | None, device: int | None = 0, dtype: int | None = None) -> QTensor:
    """
    A tensor whose elements are not set.

    Args:
        shape: a list or tuple of dimensions.
        device: a device number; 0, the processor, by default.
        dtype: a dtype constant; None for the default dtype.

    Returns:
        A new QTensor; requires_grad False.
    """

def full(shape: list[int] | tuple[int, ...] | None, value: bool | int | float | complex | None, device: int | None = 0, dtype: int | None = None) -> QTensor:
    """
    A tensor with every element set to one value.

    Args:
        shape: a list or tuple of dimensions.
        value: a host number, converted to the dtype.
        device: a device number; 0, the processor, by default.
        dtype: a dtype constant; None for the default dtype.

    Returns:
        A new QTensor; requires_grad False.
    """

def zeros_like(t: QTensor | None, device: int | None = None, dtype: int | None = None) -> QTensor:
    """
    A tensor of zeros with the shape of another.

    Args:
        t: a QTensor whose shape the result takes.
        device: a device number; None for t's device.
        dtype: a dtype constant; None for t's dtype.

    Returns:
        A new QTensor, a leaf; when t.requires_grad is True, so is the result's, with a zero grad of its own.
    """

def ones_like(t: QTensor | None, device: int | None = None, dtype: int | None = None) -> QTensor:
    """
    A tensor of ones with the shape of another.

    Args:
        t: a QTensor whose shape the result takes.
        device: a device number; None for t's device.
        dtype: a dtype constant; None for t's dtype.

    Returns:
        A new QTensor, a leaf; when t.requires_grad is True, so is the result's, with a zero grad of its own.
    """

def empty_like(t: QTensor | None, device: int | None = None, dtype: int | None = None) -> QTensor:
    """
    A tensor with the shape of another, whose elements are not set.

    Args:
        t: a QTensor whose shape the result takes.
        device: a device number; None for t's device.
        dtype: a dtype constant; None for t's dtype.

    Returns:
        A new QTensor, a leaf; when t.requires_grad is True, so is the result's, with a zero grad of its own.
    """

def full_like(t: QTensor | None, value: bool | int | float | complex | None, device: int | None = None, dtype: int | None = None) -> QTensor:
    """
    A tensor with the shape of another and every element set to one value.

    Args:
        t: a QTensor whose shape the result takes.
        value: a host number, converted to the dtype.
        device: a device number; None for t's device.
        dtype: a dtype constant; None for t's dtype.

    Returns:
        A new QTensor, a leaf; when t.requires_grad is True, so is the result's, with a zero grad of its own.
    """

def arange(start: float, end: float, step: float = 1, device: int | None = 0, dtype: int | None = None, requires_grad: object | None = False) -> QTensor:
    """
    Evenly stepped values from start up to, not including, end.

    Args:
        start: the first value.
        end: the bound, not reached.
        step: the finite, non-zero step.
        device: a device number; 0, the processor, by default.
        dtype: a dtype constant; None for the default dtype.
        requires_grad: any object, kept as given; True also gives the result a zero grad at once.

    Returns:
        A new one-dimensional QTensor, a leaf.
    """

def linspace(start: float, end: float, nums: int, device: int | None = 0, dtype: int | None = None, requires_grad: object | None = False) -> QTensor:
    """
    nums evenly spaced values from start to end, both included.

    Args:
        start: the first value.
        end: the last value.
        nums: the number of values.
        device: a device number; 0, the processor, by default.
        dtype: a dtype constant; None for the default dtype.
        requires_grad: any object, kept as given; True also gives the result a zero grad at once.

    Returns:
        A new one-dimensional QTensor, a leaf.
    """

def logspace(start: float, end: float, nums: int, base: float, device: int | None = 0, dtype: int | None = None, requires_grad: object | None = False) -> QTensor:
    """
    base raised to nums evenly spaced exponents from start to end, both included.

    Args:
        start: the first exponent.
        end: the last exponent.
        nums: the number of values.
        base: the base.
        device: a device number; 0, the processor, by default.
        dtype: a dtype constant; None for the default dtype.
        requires_grad: any object, kept as given; True also gives the result a zero grad at once.

    Returns:
        A new one-dimensional QTensor, a leaf.
    """

def eye(size: int, offset: int = 0, device: int | None = 0, dtype: int | None = None, requires_grad: object | None = False) -> QTensor:
    """
    A square matrix with ones on one diagonal and zeros elsewhere.

    Args:
        size: the number of rows and columns.
        offset: the diagonal; positive above the main one.
        device: a device number; 0, the processor, by default.
        dtype: a dtype constant; None for the default dtype.
        requires_grad: any object, kept as given; True also gives the result a zero grad at once.

    Returns:
        A new QTensor, a leaf.
    """

def randu(shape: list[int] | tuple[int, ...] | None, min: float = 0.0, max: float = 1.0, device: int | None = 0, dtype: int | None = None, requires_grad: object | None = False) -> QTensor:
    """
    Uniform random draws in [min, max).

    Args:
        shape: a list or tuple of dimensions.
        min: the lower bound.
        max: the upper bound.
        device: a device number; 0, the processor, by default.
        dtype: a dtype constant; None for the default dtype.
        requires_grad: any object, kept as given; True also gives the result a zero grad at once.

    Returns:
        A new QTensor, a leaf.
    """

def randn(shape: list[int] | tuple[int, ...] | None, mean: float = 0.0, std: float = 1.0, device: int | None = 0, dtype: int | None = None, requires_grad: object | None = False) -> QTensor:
    """
    Normal random draws.

    Args:
        shape: a list or tuple of dimensions.
        mean: the mean.
        std: the standard deviation.
        device: a device number; 0, the processor, by default.
        dtype: a dtype constant; None for the default dtype.
        requires_grad: any object, kept as given; True also gives the result a zero grad at once.

    Returns:
        A new QTensor, a leaf.
    """

def diag(t: QTensor | None, k: int = 0, requires_grad: object | None = False) -> QTensor:
    """
    A diagonal matrix from a vector, or a matrix's diagonal kept with zeros elsewhere.

    Args:
        t: a one- or two-dimensional QTensor.
        k: the diagonal; positive above the main one.
        requires_grad: any object, kept as given; True also gives the result a zero grad at once.

    Returns:
        A new QTensor with t's dtype and device, a leaf: square from a vector, of t's shape from a matrix.
    """

def add(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise sum t1 + t2, the operands broadcast to one shape.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new QTensor; differentiable.
    """

def sub(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise difference t1 - t2, the operands broadcast to one shape.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new QTensor; differentiable.
    """

def mul(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise product t1 * t2, the operands broadcast to one shape.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new QTensor; differentiable.
    """

def divide(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise quotient t1 / t2, the operands broadcast to one shape; integers truncate and an integer x / 0 is 0.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new QTensor; differentiable.
    """

def accumulate(tensor_list: list[QTensor] | None) -> QTensor:
    """
    The sum of a list of tensors.

    Args:
        tensor_list: a list of at least two QTensors of one shape, dtype and device.

    Returns:
        A new QTensor; differentiable.
    """

def broadcast(t1: QTensor | None, t2: QTensor | None) -> tuple:
    """
    Two tensors expanded to their common broadcast shape.

    Args:
        t1: a QTensor.
        t2: a QTensor.

    Returns:
        A tuple of two new QTensors; differentiable, the gradient sums over the expansion.
    """

def infer_size_expand(sa: object | None, sb: object | None) -> list:
    """
    The common broadcast shape of two tensors.

    Args:
        sa: a QTensor or _core.Tensor (any object with shape and ndim).
        sb: likewise.

    Returns:
        A list of ints; ValueError when the shapes do not broadcast.
    """

def broadcast_to(t: QTensor | None, ref: int | Sequence[int] | None) -> QTensor:
    """
    The tensor expanded to a shape by broadcasting.

    Args:
        t: a QTensor.
        ref: the shape, a list of ints.

    Returns:
        A new QTensor of that shape; differentiable, the gradient sums over the expansion.
    """

def clip(t: QTensor | None, min_val: float | None, max_val: float | None) -> QTensor:
    """
    Each element limited to [min_val, max_val]; the gradient passes where the input lies within the bounds, and is zero elsewhere.

    Args:
        t: a QTensor.
        min_val: the lower bound, a real number.
        max_val: the upper bound, a real number.

    Returns:
        A new QTensor; differentiable.
    """

def equal(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise t1 == t2, the operands broadcast to one shape.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new kbool QTensor outside the graph: it passes requires_grad on, without edges.
    """

def not_equal(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise t1 != t2, the operands broadcast to one shape.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new kbool QTensor outside the graph: it passes requires_grad on, without edges.
    """

def greater(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise t1 > t2, the operands broadcast to one shape.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new kbool QTensor outside the graph: it passes requires_grad on, without edges.
    """

def greater_equal(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise t1 >= t2, the operands broadcast to one shape.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new kbool QTensor outside the graph: it passes requires_grad on, without edges.
    """

def less(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise t1 < t2, the operands broadcast to one shape.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new kbool QTensor outside the graph: it passes requires_grad on, without edges.
    """

def less_equal(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise t1 <= t2, the operands broadcast to one shape.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new kbool QTensor outside the graph: it passes requires_grad on, without edges.
    """

def logical_and(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise logical and, the operands broadcast to one shape; nonzero is true.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new kbool QTensor outside the graph: it passes requires_grad on, without edges.
    """

def logical_or(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise logical or, the operands broadcast to one shape; nonzero is true.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new kbool QTensor outside the graph: it passes requires_grad on, without edges.
    """

def logical_xor(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise logical exclusive or, the operands broadcast to one shape; nonzero is true.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new kbool QTensor outside the graph: it passes requires_grad on, without edges.
    """

def logical_not(t: QTensor | None) -> QTensor:
    """
    Element-wise logical not; nonzero is true.

    Args:
        t: a QTensor.

    Returns:
        A new kbool QTensor outside the graph: it passes requires_grad on, without edges.
    """

def isfinite(t: QTensor | None) -> QTensor:
    """
    Whether each element is finite.

    Args:
        t: a QTensor.

    Returns:
        A new kbool QTensor of t's shape; its gradient is zero.
    """

def isinf(t: QTensor | None) -> QTensor:
    """
    Whether each element is infinite.

    Args:
        t: a QTensor.

    Returns:
        A new kbool QTensor of t's shape; its gradient is zero.
    """

def isnan(t: QTensor | None) -> QTensor:
    """
    Whether each element is NaN.

    Args:
        t: a QTensor.

    Returns:
        A new kbool QTensor of t's shape; its gradient is zero.
    """

def isneginf(t: QTensor | None) -> QTensor:
    """
    Whether each element is negative infinity (real dtypes).

    Args:
        t: a QTensor.

    Returns:
        A new kbool QTensor of t's shape; its gradient is zero.
    """

def isposinf(t: QTensor | None) -> QTensor:
    """
    Whether each element is positive infinity (real dtypes).

    Args:
        t: a QTensor.

    Returns:
        A new kbool QTensor of t's shape; its gradient is zero.
    """

def allclose(t1: QTensor | None, t2: QTensor | None, rtol: object | None, atol: object | None, equal_nan: object | None) -> object:
    """
    Whether two tensors are equal within a tolerance, as numpy.allclose decides on their values.

    Args:
        t1: a QTensor (any object with to_numpy()).
        t2: likewise.
        rtol: the relative tolerance, as numpy.allclose takes it.
        atol: the absolute tolerance, as numpy.allclose takes it.
        equal_nan: whether NaNs in the same places count as equal, as numpy.allclose takes it.

    Returns:
        numpy.allclose's result, a bool.
    """

def conj(t: QTensor | None) -> QTensor:
    """
    The element-wise complex conjugate; a real tensor gives a copy.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's dtype; differentiable.
    """

def real(t: QTensor | None) -> QTensor:
    """
    The real parts.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of the real dtype (a copy for a real tensor); differentiable, the gradient returning in the
        complex dtype.
    """

def imag(t: QTensor | None) -> QTensor:
    """
    The imaginary parts.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of the real dtype (zeros for a real tensor); differentiable, the gradient being the incoming
        one times 1j.
    """

def adjoint(t: QTensor | None) -> QTensor | None:
    """
    The conjugate transpose of the last two axes, made of transpose and conj; a 1-d tensor is conjugated.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor, or None for a 0-d tensor.
    """

def eigvalsh(t: QTensor | None) -> QTensor:
    """
    The eigenvalues of Hermitian matrices, ascending.

    Args:
        t: a QTensor holding a Hermitian (real symmetric) matrix, or a batch of them on the last two axes; only the
        lower triangle is read. Integers and bools compute in the default float dtype.

    Returns:
        A new QTensor [..., n] of the real dtype. It copies t's requires_grad and is differentiable when
        that is True.
    """

def eigh(t: QTensor | None) -> QTensor:
    """
    The eigen-decomposition of Hermitian matrices, packed in one tensor.

    Args:
        t: a QTensor holding a Hermitian (real symmetric) matrix, or a batch of them on the last two axes; only the
        lower triangle is read. Integers and bools compute in the default float dtype.

    Returns:
        A new QTensor [..., n + 1, n] of t's floating dtype: row 0 the eigenvalues, ascending; rows 1..n
        the matrix V whose columns are the eigenvectors. It copies t's requires_grad; its gradient is
        zero (zeros of t's shape).
    """

def frobenius_norm(t: QTensor | None, axis: int | None = None, keepdims: object | None = False) -> QTensor:
    """
    The Frobenius (Euclidean) norm of all elements, or along one axis.

    Args:
        t: a QTensor.
        axis: None for all elements, or one axis; negative ones count from the end.
        keepdims: along an axis, keep it with length one; any object, read by its truth.

    Returns:
        A new QTensor of the real dtype; over all elements a 0-d tensor of the default dtype on
        t.device. Differentiable.
    """

def cumsum(t: QTensor | None, axis: int | None = -1) -> QTensor:
    """
    Running sums along one axis.

    Args:
        t: a QTensor.
        axis: the axis; negative ones count from the end.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def flip(t: QTensor | None, flip_dims: int | Sequence[int] | None) -> QTensor:
    """
    The tensor reversed along axes.

    Args:
        t: a QTensor.
        flip_dims: an axis or a list of axes; negative ones count from the end.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def helper_function_matmul2d(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    The product of two matrices (rank 2): the 2d path of matmul.

    Args:
        t1: a QTensor.
        t2: a QTensor of t1's rank, with t1's leading axes.

    Returns:
        A new QTensor; differentiable.
    """

def helper_function_bmm(t1: QTensor | None, t2: QTensor | None) -> QTensor | None:
    """
    The products of two batches of matrices (rank 3), pair by pair: the 3d path of matmul.

    Args:
        t1: a QTensor.
        t2: a QTensor of t1's rank, with t1's leading axes.

    Returns:
        A new QTensor; differentiable. None when either operand is not of rank 3.
    """

def helper_function_matmul4d(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    The products of two double batches of matrices (rank 4), pair by pair: the 4d path of matmul.

    Args:
        t1: a QTensor.
        t2: a QTensor of t1's rank, with t1's leading axes.

    Returns:
        A new QTensor; differentiable.
    """

def matmul(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    The matrix product on the last two axes of two tensors of rank 2, 3 or 4 (the same rank; batch axes equal).

    Args:
        t1: a QTensor.
        t2: a QTensor of t1's rank, with t1's leading axes.

    Returns:
        A new QTensor; differentiable.
    """

def tensordot(x: QTensor | None, y: QTensor | None, dim1: object, dim2: object) -> QTensor:
    """
    The contraction of two tensors over pairs of axes, as one 2d matmul of the flattened tensors.

    Args:
        x: a QTensor.
        y: a QTensor.
        dim1: an iterable of axes of x; negative ones count from the end.
        dim2: an iterable of axes of y, paired with dim1; the surplus of the longer list serves both.

    Returns:
        A new QTensor of x's free axes, then y's; differentiable.
    """

def maximum(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise maximum of two tensors of one shape; a NaN on either side wins.

    Args:
        t1: a QTensor.
        t2: a QTensor of t1's shape.

    Returns:
        A new QTensor; differentiable, tied elements share the gradient equally.
    """

def minimum(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise minimum of two tensors of one shape; a NaN on either side wins.

    Args:
        t1: a QTensor.
        t2: a QTensor of t1's shape.

    Returns:
        A new QTensor; differentiable, tied elements share the gradient equally.
    """

def median(t: QTensor | None, axis: int | None = None, keepdims: object | None = False) -> QTensor:
    """
    The median, of all elements or along one axis; an even count gives the mean of the middle two.

    Args:
        t: a QTensor of a real dtype.
        axis: None for all elements (a one-element result), or one axis; negative ones count from the end.
        keepdims: keep the reduced axis with length one; any object, read by its truth.

    Returns:
        A new QTensor outside the graph: it passes requires_grad on, without edges.
    """

def min(t: QTensor | None, axis: int | None = None, keepdims: object | None = False) -> QTensor:
    """
    The smallest value, of all elements or along one axis; NaN propagates.

    Args:
        t: a QTensor of a real dtype.
        axis: None for all elements (a one-element result), or one axis; negative ones count from the end.
        keepdims: keep the reduced axis with length one; any object, read by its truth.

    Returns:
        A new QTensor; differentiable: over all elements tied extremes share the gradient equally, along an axis each receives all of it.
    """

def max(t: QTensor | None, axis: int | None = None, keepdims: object | None = False) -> QTensor:
    """
    The largest value, of all elements or along one axis; NaN propagates.

    Args:
        t: a QTensor of a real dtype.
        axis: None for all elements (a one-element result), or one axis; negative ones count from the end.
        keepdims: keep the reduced axis with length one; any object, read by its truth.

    Returns:
        A new QTensor; differentiable: over all elements tied extremes share the gradient equally, along an axis each receives all of it.
    """

def kron(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    The Kronecker product; the operand of lower rank gets leading axes of length one.

    Args:
        t1: a QTensor.
        t2: a QTensor on t1's device.

    Returns:
        A new QTensor, axis i t1.shape[i] * t2.shape[i] long; differentiable in both operands.
    """

def triu(t: QTensor | None, diagonal: int | None = 0) -> QTensor:
    """
    The upper triangle of the last two axes: elements below the diagonal set to zero.

    Args:
        t: a QTensor of rank 2 or more: a matrix, or a batch of them on the last two axes.
        diagonal: the diagonal that bounds the triangle: 0 the main one, positive above it.

    Returns:
        A new QTensor; differentiable. ValueError for a tensor of rank below 2.
    """

def tril(t: QTensor | None, diagonal: int | None = 0) -> QTensor:
    """
    The lower triangle of the last two axes: elements above the diagonal set to zero.

    Args:
        t: a QTensor of rank 2 or more: a matrix, or a batch of them on the last two axes.
        diagonal: the diagonal that bounds the triangle: 0 the main one, positive above it.

    Returns:
        A new QTensor; differentiable. ValueError for a tensor of rank below 2.
    """

def trace(t: QTensor | None, k: int | None = 0) -> QTensor:
    """
    The sum along diagonal k of the last two axes, for each leading index.

    Args:
        t: a QTensor of rank 2 or more: a matrix, or a batch of them on the last two axes.
        k: the diagonal: 0 the main one, positive above it, negative below.

    Returns:
        A new QTensor of the leading shape (0-d for a matrix); differentiable.
    """

def get_bdshape_for_slice(key: object, data_shape: object) -> tuple:
    """
    Plans an advanced key: one integer array per indexed axis, all of one broadcast shape.

    Args:
        key: an expanded key (a tuple of entries, None entries included).
        data_shape: the shape of the indexed tensor.

    Returns:
        (bcast_idcs_short, new_axes_positions): the arrays in axis order, trailing whole axes left out, and where the None entries stand in the axes of a value for assignment.
    """

def power(t1: QTensor | None, t2: QTensor | None) -> QTensor:
    """
    Element-wise power t1 ** t2, the operands broadcast to one shape.

    Args:
        t1: a QTensor.
        t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.

    Returns:
        A new QTensor; differentiable in both operands.
    """

def reshape(t: QTensor | None, shape: int | Sequence[int] | None) -> QTensor:
    """
    The values in a new shape.

    Args:
        t: a QTensor.
        shape: the new dimensions, a list or tuple of ints; one may be -1, for the rest.

    Returns:
        A new QTensor; differentiable.
    """

def flatten(t: QTensor | None, start: int = 0, end: int = -1) -> QTensor:
    """
    The tensor with the axes from start to end merged into one.

    Args:
        t: a QTensor.
        start: the first axis to merge.
        end: the last axis to merge; negative ones count from the end.

    Returns:
        A new QTensor; differentiable.
    """

def swapaxis(t: QTensor | None, axis1: int | None, axis2: int | None) -> QTensor:
    """
    The tensor with two axes exchanged.

    Args:
        t: a QTensor.
        axis1: an axis.
        axis2: an axis.

    Returns:
        A new QTensor; differentiable.
    """

def transpose(t: QTensor | None, dim: int | Sequence[int] | None) -> QTensor:
    """
    The tensor with its axes in a new order.

    Args:
        t: a QTensor.
        dim: the new order, an axis number for each place.

    Returns:
        A new QTensor; differentiable.
    """

def permute(t: QTensor | None, dim: int | Sequence[int] | None) -> QTensor:
    """
    The tensor with its axes in a new order.

    Args:
        t: a QTensor.
        dim: the new order, a list of an axis number for each place.

    Returns:
        A new QTensor; differentiable.
    """

def select(t: QTensor | None, index: object | None) -> QTensor:
    """
    A region of a tensor, chosen per axis.

    Args:
        t: a QTensor.
        index: one entry per axis from axis 0 (fewer than the rank: the rest whole): an int (one position, the axis dropped), a text as the engine reads it ("-12:14:2", ":", "3", "0,2,"), or a QTensor of positions (the axis kept); entries of other types are skipped.

    Returns:
        A new QTensor; differentiable (the gradient is zero outside the region).
    """

def set_select(t: QTensor | None, index: object | None, set_tensor: QTensor | None) -> None:
    """
    Writes a tensor into a region of another, in place.

    Args:
        t: the QTensor written; it keeps its edges and gains one to set_tensor.
        index: one entry per axis from axis 0 (fewer than the rank: the rest whole): an int (one position, the axis dropped), a text as the engine reads it ("-12:14:2", ":", "3", "0,2,"), or a QTensor of positions (the axis kept); entries of other types are skipped.
        set_tensor: a QTensor of t's dtype that broadcasts to the region (one element fills it).
    """

def squeeze(t: QTensor | None, axis: int | Sequence[int] | None = None) -> QTensor:
    """
    The tensor without axes of length one.

    Args:
        t: a QTensor.
        axis: None for every axis of length one, or an int, list or tuple of ints naming such axes.

    Returns:
        A new QTensor; differentiable.
    """

def unsqueeze(t: QTensor | None, axis: int | None = 0) -> QTensor:
    """
    The tensor with an axis of length one inserted.

    Args:
        t: a QTensor.
        axis: where the new axis goes; a negative one counts from one past the end.

    Returns:
        A new QTensor; differentiable.
    """

def std(t: QTensor | None, axis: int | None = None, keepdims: object | None = False, unbiased: object | None = True) -> QTensor:
    """
    The standard deviation, of all elements or along one axis.

    Args:
        t: a QTensor.
        axis: None for all elements (a one-element result), or one axis; negative ones count from the end.
        keepdims: keep the reduced axis with length one; any object, read by its truth.
        unbiased: divide by n - 1 when true, else by n; any object, read by its truth (the gradient divides by n - 1 only for True itself).

    Returns:
        A new QTensor; differentiable.
    """

def var(t: QTensor | None, axis: int | None = None, keepdims: object | None = False, unbiased: object | None = True) -> QTensor:
    """
    The variance, of all elements or along one axis.

    Args:
        t: a QTensor.
        axis: None for all elements (a one-element result), or one axis; negative ones count from the end.
        keepdims: keep the reduced axis with length one; any object, read by its truth.
        unbiased: divide by n - 1 when true, else by n; any object, read by its truth (the gradient divides by n - 1 only for True itself).

    Returns:
        A new QTensor; differentiable.
    """

def var_match_shape(x: object | None, shape: int | Sequence[int] | None, axis: int) -> tuple:
    """
    A tensor reduced along one axis, spread back over a shape, and the length of that axis.

    Args:
        x: a _core.Tensor, reduced along axis.
        shape: the shape to spread over.
        axis: the reduced axis; negative counts from the end.

    Returns:
        A tuple: a new _core.Tensor of the shape, and the axis's length.
    """

def sums(t: QTensor | None, axis: int | Sequence[int] | None = None, keepdims: object | None = False) -> QTensor:
    """
    Sum of elements, over all of them or along axes.

    Args:
        t: a QTensor.
        axis: None for all elements (a one-element result), an int or a list of ints.
        keepdims: keep reduced axes as length one; any object, read by its truth.

    Returns:
        A new QTensor; differentiable.
    """

def mean(t: QTensor | None, axis: int | None = None, keepdims: object | None = False) -> QTensor:
    """
    The mean, of all elements or along one axis.

    Args:
        t: a QTensor.
        axis: None for all elements (a one-element result), or one axis; negative ones count from the end.
        keepdims: keep the reduced axis with length one; any object, read by its truth.

    Returns:
        A new QTensor; differentiable.
    """

def maybe_wrap_dim(dim: int, dim_post_expr: int, wrap_scalar: bool = True) -> int:
    """
    An axis of n dimensions made non-negative.

    Args:
        dim: the axis; negative ones count from the end.
        dim_post_expr: the number of dimensions, n.
        wrap_scalar: take no dimensions as one; if false, n = 0 is refused.

    Returns:
        An int in [0, n); AssertionError when dim is outside [-n, n - 1].
    """

def maybe_wrap_dim_unsqueeze(dim: int, dim_post_expr: int, wrap_scalar: bool = True) -> int:
    """
    The place to insert an axis into n dimensions, made non-negative.

    Args:
        dim: where the new axis goes; a negative one counts from one past the end.
        dim_post_expr: the number of dimensions, n.
        wrap_scalar: take no dimensions as one; if false, n = 0 is refused.

    Returns:
        An int; AssertionError when dim is outside [-n, n - 1].
    """

def tile(t: QTensor | None, reps: int | Sequence[int] | None) -> QTensor:
    """
    The tensor repeated along each axis, as numpy.tile repeats it.

    Args:
        t: a QTensor.
        reps: the number of repeats per axis, a list of ints.

    Returns:
        A new QTensor; differentiable, the gradient sums over the repeats.
    """

def floor(t: QTensor | None) -> QTensor:
    """
    Element-wise floor.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape, a leaf: it passes requires_grad on, without edges.
    """

def ceil(t: QTensor | None) -> QTensor:
    """
    Element-wise ceiling.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; its gradient is zero.
    """

def round(t: QTensor | None) -> QTensor:
    """
    Element-wise rounding, half to even.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; its gradient is zero.
    """

def sign(t: QTensor | None) -> QTensor:
    """
    Element-wise sign; z / |z| for complex elements, 0 at 0.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; its gradient is zero.
    """

def neg(t: QTensor | None) -> QTensor:
    """
    Element-wise negation.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def reciprocal(t: QTensor | None) -> QTensor:
    """
    Element-wise reciprocal, 1 / x; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def abs(t: QTensor | None) -> QTensor:
    """
    Element-wise absolute value; complex tensors give their real magnitudes.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def square(t: QTensor | None) -> QTensor:
    """
    Element-wise square.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def sqrt(t: QTensor | None) -> QTensor:
    """
    Element-wise square root; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def exp(t: QTensor | None) -> QTensor:
    """
    Element-wise exponential; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def log(t: QTensor | None) -> QTensor:
    """
    Element-wise natural logarithm; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def sin(t: QTensor | None) -> QTensor:
    """
    Element-wise sine; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def cos(t: QTensor | None) -> QTensor:
    """
    Element-wise cosine; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def tan(t: QTensor | None) -> QTensor:
    """
    Element-wise tangent; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def asin(t: QTensor | None) -> QTensor:
    """
    Element-wise inverse sine; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def acos(t: QTensor | None) -> QTensor:
    """
    Element-wise inverse cosine; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def atan(t: QTensor | None) -> QTensor:
    """
    Element-wise inverse tangent; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def sinh(t: QTensor | None) -> QTensor:
    """
    Element-wise hyperbolic sine; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def cosh(t: QTensor | None) -> QTensor:
    """
    Element-wise hyperbolic cosine; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def tanh(t: QTensor | None) -> QTensor:
    """
    Element-wise hyperbolic tangent; integers and bools give the default dtype.

    Args:
        t: a QTensor.

    Returns:
        A new QTensor of t's shape; differentiable.
    """

def log_softmax(t: QTensor | None, axis: int | None = -1) -> QTensor:
    """
    The logarithm of the softmax along one axis.

    Args:
        t: a QTensor.
        axis: the axis; negative ones count from the end.

    Returns:
        A new QTensor of t's shape; differentiable.
    """
