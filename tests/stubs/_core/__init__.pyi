"""
The pytramel core engine: dense tensors on the processor and accelerators.
"""

from collections.abc import Sequence
from typing import TypeAlias, overload

from pytramel._core import tramel as tramel


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

def get_default_dtype() -> int:
    """
    The dtype of new floating tensors when none is given.

    Returns:
        kfloat32 or kfloat64.
    """

def set_default_dtype(dtype: int) -> None:
    """
    Sets the dtype of new floating tensors when none is given.

    Args:
        dtype: kfloat32 or kfloat64.
    """

def get_readable_dtype_str(dtype: int) -> str:
    """
    The numpy name of a dtype.

    Args:
        dtype: a dtype constant (kbool ... kcomplex128).

    Returns:
        The name, such as 'float32'.
    """

def manual_seed(seed: int) -> None:
    """
    Seeds the one random generator behind every random fill.

    Args:
        seed: a non-negative integer. A seed gives the same draws on one thread or many.
    """

def set_num_threads(n: int) -> None:
    """
    Sets the number of threads that large loops split across.

    Args:
        n: the number of threads, from 1 to four per processor (or the number the process started with, if more).
    """

def get_num_threads() -> int:
    """
    The number of threads that large loops split across.

    Returns:
        An int.
    """

def emulated_accelerator_count() -> int:
    """
    The number of emulated accelerators, devices 1000 and up, made at import when
    PYTRAMEL_EMULATED_ACCELERATORS is set.

    Returns:
        An int, 0 when there are none.
    """

def device_available(device: int) -> bool:
    """
    Whether something serves a device.

    Args:
        device: a device number (0 is the processor, 1000 and up are accelerators).

    Returns:
        A bool.
    """

class Tensor:
    """A dense row-major array on one device."""

    def __init__(self, array: object, device: int | None = 0, dtype: int | None = -1) -> None:
        """
        A copy of an array on a device.

        Args:
            array: a numpy array, or anything numpy.asarray takes.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant to convert to; -1 keeps the array's own element type.
        """

    @property
    def shape(self) -> list:
        """The dimensions, as a new list of ints."""

    def getShape(self) -> list:
        """
        The dimensions.

        Returns:
            A new list of ints.
        """

    @property
    def ndim(self) -> int:
        """The number of dimensions."""

    @property
    def size(self) -> int:
        """The number of elements."""

    @property
    def dtype(self) -> int:
        """The element type, a dtype constant."""

    @property
    def device(self) -> int:
        """The device number; 0 is the processor."""

    def __repr__(self) -> str:
        """
        Shape, dtype and device, for display.

        Returns:
            A str.
        """

    def info(self) -> None:
        """Prints shape, dtype, device and storage of the tensor."""

    def __array__(self, dtype: object | None = None, copy: object | None = None) -> object:
        """
        A numpy copy of a processor tensor (numpy.array(t)).

        Args:
            dtype: a numpy dtype to convert to, or None.
            copy: None or True; False is refused.

        Returns:
            A new numpy array.
        """

    def __dlpack__(self, **kwargs) -> object:
        """
        A DLPack capsule sharing the storage of a processor tensor.

        Args:
            kwargs: the DLPack protocol's keywords, ignored.

        Returns:
            A 'dltensor' capsule.
        """

    def __dlpack_device__(self) -> tuple:
        """
        The DLPack device of a processor tensor.

        Returns:
            (1, 0): host memory.
        """

    @staticmethod
    def empty(shape: list[int] | tuple[int, ...], device: int | None = 0, dtype: int | None = None) -> Tensor:
        """
        A tensor whose elements are not set.

        Args:
            shape: a list or tuple of dimensions.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant; None for the default dtype.

        Returns:
            A new core tensor.
        """

    @staticmethod
    def zeros(shape: list[int] | tuple[int, ...], device: int | None = 0, dtype: int | None = None) -> Tensor:
        """
        A tensor of zeros.

        Args:
            shape: a list or tuple of dimensions.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant; None for the default dtype.

        Returns:
            A new core tensor.
        """

    @staticmethod
    def ones(shape: list[int] | tuple[int, ...], device: int | None = 0, dtype: int | None = None) -> Tensor:
        """
        A tensor of ones.

        Args:
            shape: a list or tuple of dimensions.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant; None for the default dtype.

        Returns:
            A new core tensor.
        """

    @staticmethod
    def full(shape: list[int] | tuple[int, ...], value: bool | int | float | complex, device: int | None = 0, dtype: int | None = None) -> Tensor:
        """
        A tensor with every element set to one value.

        Args:
            shape: a list or tuple of dimensions.
            value: a host number, converted to the dtype.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant; None for the default dtype.

        Returns:
            A new core tensor.
        """

    @staticmethod
    def arange(start: float, end: float, step: float = 1.0, device: int | None = 0, dtype: int | None = None) -> Tensor:
        """
        Evenly stepped values from start up to, not including, end.

        Args:
            start: the first value.
            end: the bound, not reached.
            step: the finite, non-zero step.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant; None for the default dtype.

        Returns:
            A new one-dimensional core tensor.
        """

    @staticmethod
    def linspace(start: float, end: float, nums: int, device: int | None = 0, dtype: int | None = None) -> Tensor:
        """
        nums evenly spaced values from start to end, both included.

        Args:
            start: the first value.
            end: the last value.
            nums: the number of values.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant; None for the default dtype.

        Returns:
            A new one-dimensional core tensor.
        """

    @staticmethod
    def logspace(start: float, end: float, nums: int, base: float = 10.0, device: int | None = 0, dtype: int | None = None) -> Tensor:
        """
        base raised to nums evenly spaced exponents from start to end, both included.

        Args:
            start: the first exponent.
            end: the last exponent.
            nums: the number of values.
            base: the base.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant; None for the default dtype.

        Returns:
            A new one-dimensional core tensor.
        """

    @staticmethod
    def eye(size: int, offset: int = 0, device: int | None = 0, dtype: int | None = None) -> Tensor:
        """
        A square matrix with ones on one diagonal and zeros elsewhere.

        Args:
            size: the number of rows and columns.
            offset: the diagonal; positive above the main one.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant; None for the default dtype.

        Returns:
            A new core tensor.
        """

    @staticmethod
    def diag(data: Tensor, k: int = 0) -> Tensor:
        """
        A diagonal matrix from a vector, or a matrix's diagonal kept with zeros elsewhere.

        Args:
            data: a one- or two-dimensional processor tensor.
            k: the diagonal; positive above the main one.

        Returns:
            A new square (from a vector) or same-shaped (from a matrix) core tensor.
        """

    @staticmethod
    def randu(shape: list[int] | tuple[int, ...], min: float = 0.0, max: float = 1.0, device: int | None = 0, dtype: int | None = None) -> Tensor:
        """
        Uniform random draws in [min, max).

        Args:
            shape: a list or tuple of dimensions.
            min: the lower bound.
            max: the upper bound.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant; None for the default dtype.

        Returns:
            A new core tensor.
        """

    @staticmethod
    def randn(shape: list[int] | tuple[int, ...], mean: float = 0.0, std: float = 1.0, device: int | None = 0, dtype: int | None = None) -> Tensor:
        """
        Normal random draws.

        Args:
            shape: a list or tuple of dimensions.
            mean: the mean.
            std: the standard deviation.
            device: a device number; 0, the processor, by default.
            dtype: a dtype constant; None for the default dtype.

        Returns:
            A new core tensor.
        """

    def CPU(self, device: int | None = 0) -> Tensor:
        """
        A copy on the processor.

        Args:
            device: 0, the processor.

        Returns:
            A new core tensor.
        """

    def GPU(self, device: int | None = 1000) -> Tensor:
        """
        A copy on an accelerator.

        Args:
            device: an accelerator, 1000 and up.

        Returns:
            A new core tensor.
        """

    def toCPU(self, device: int | None = 0) -> None:
        """
        Moves the tensor itself to the processor; every reference to it sees the move.

        Args:
            device: 0, the processor.
        """

    def toGPU(self, device: int | None = 1000) -> None:
        """
        Moves the tensor itself to an accelerator; every reference to it sees the move.

        Args:
            device: an accelerator, 1000 and up.
        """

    def toDtype(self, dtype: int | None, if_new: bool = False) -> object:
        """
        The tensor converted to a dtype.

        Args:
            dtype: a dtype constant.
            if_new: copy even when the dtype is the tensor's own.

        Returns:
            A new core tensor, or this one when it has the dtype and if_new is false.
        """

    def astype(self, dtype: int | None) -> Tensor:
        """
        A copy converted to a dtype (complex to real keeps the real part).

        Args:
            dtype: a dtype constant.

        Returns:
            A new core tensor.
        """

    @overload
    def l2_norm(self) -> float:
        """
        The Euclidean norm of all elements of a processor tensor.

        Returns:
            A float.
        """

    @overload
    def l2_norm(self, axis: int, keepdims: bool) -> tuple[Tensor, Tensor]:
        """
        The Euclidean norm along one axis, with the sum of squared magnitudes it was taken from.

        Args:
            axis: the axis; negative counts from the end.
            keepdims: keep the axis with length one.

        Returns:
            A tuple (norm, square_sum) of new core tensors of the real dtype; integers and bools compute in the
            default float dtype.
        """

    def is_nonzero(self) -> bool:
        """
        The truth of a one-element tensor.

        Returns:
            A bool; ValueError for any other size.
        """

    @overload
    def argmax(self) -> Tensor:
        """
        The flat index of the first largest element.

        Returns:
            A one-element int64 core tensor on the tensor's device.
        """

    @overload
    def argmax(self, dim: int | Sequence[int], keepdims: bool) -> Tensor:
        """
        The index of the first largest element within the block of the given axes.

        Args:
            dim: an axis or a sequence of axes; negative ones count from the end.
            keepdims: keep the reduced axes with length one.

        Returns:
            A new int64 core tensor (row-major indices within the block).
        """

    @overload
    def argmin(self) -> Tensor:
        """
        The flat index of the first smallest element.

        Returns:
            A one-element int64 core tensor on the tensor's device.
        """

    @overload
    def argmin(self, dim: int | Sequence[int], keepdims: bool) -> Tensor:
        """
        The index of the first smallest element within the block of the given axes.

        Args:
            dim: an axis or a sequence of axes; negative ones count from the end.
            keepdims: keep the reduced axes with length one.

        Returns:
            A new int64 core tensor (row-major indices within the block).
        """

    def add(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise sum.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new core tensor of the promoted dtype.
        """

    def sub(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise difference.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new core tensor of the promoted dtype.
        """

    def mult(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise product.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new core tensor of the promoted dtype.
        """

    def div(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise quotient; integers truncate and x / 0 is 0.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new core tensor of the promoted dtype.
        """

    def element_pow(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise power, self ** other.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new core tensor of the promoted dtype.
        """

    def maximum(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise maximum; a NaN on either side wins.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new core tensor of the promoted dtype.
        """

    def minimum(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise minimum; a NaN on either side wins.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new core tensor of the promoted dtype.
        """

    def neg(self) -> Tensor:
        """
        Element-wise negation.

        Returns:
            A new core tensor.
        """

    def abs(self) -> Tensor:
        """
        Element-wise absolute value; complex tensors give their real magnitudes.

        Returns:
            A new core tensor.
        """

    def square(self) -> Tensor:
        """
        Element-wise square.

        Returns:
            A new core tensor.
        """

    def sqrt(self) -> Tensor:
        """
        Element-wise square root; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def exp(self) -> Tensor:
        """
        Element-wise exponential; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def log(self) -> Tensor:
        """
        Element-wise natural logarithm; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def sin(self) -> Tensor:
        """
        Element-wise sine; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def cos(self) -> Tensor:
        """
        Element-wise cosine; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def tan(self) -> Tensor:
        """
        Element-wise tangent; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def asin(self) -> Tensor:
        """
        Element-wise inverse sine; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def acos(self) -> Tensor:
        """
        Element-wise inverse cosine; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def atan(self) -> Tensor:
        """
        Element-wise inverse tangent; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def sinh(self) -> Tensor:
        """
        Element-wise hyperbolic sine; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def cosh(self) -> Tensor:
        """
        Element-wise hyperbolic cosine; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def tanh(self) -> Tensor:
        """
        Element-wise hyperbolic tangent; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def sign(self) -> Tensor:
        """
        Element-wise sign; z / |z| for complex elements, 0 at 0.

        Returns:
            A new core tensor.
        """

    def conj(self) -> Tensor:
        """
        Element-wise complex conjugate; real tensors give a copy.

        Returns:
            A new core tensor.
        """

    def floor(self) -> Tensor:
        """
        Element-wise floor.

        Returns:
            A new core tensor.
        """

    def ceil(self) -> Tensor:
        """
        Element-wise ceiling.

        Returns:
            A new core tensor.
        """

    def round(self) -> Tensor:
        """
        Element-wise rounding, half to even.

        Returns:
            A new core tensor.
        """

    def reciprocal(self) -> Tensor:
        """
        Element-wise reciprocal, 1 / x; integers and bools give the default dtype.

        Returns:
            A new core tensor.
        """

    def equal(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise self == other.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new kbool core tensor.
        """

    def not_equal(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise self != other.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new kbool core tensor.
        """

    def greater(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise self > other.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new kbool core tensor.
        """

    def greater_equal(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise self >= other.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new kbool core tensor.
        """

    def less(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise self < other.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new kbool core tensor.
        """

    def less_equal(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise self <= other.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new kbool core tensor.
        """

    def logical_and(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise logical and; nonzero is true.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new kbool core tensor.
        """

    def logical_or(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise logical or; nonzero is true.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new kbool core tensor.
        """

    def logical_xor(self, other: Tensor | bool | int | float | complex) -> Tensor:
        """
        Element-wise logical exclusive or; nonzero is true.

        Args:
            other: a core tensor of the same shape and device, or a host number.

        Returns:
            A new kbool core tensor.
        """

    def isfinite(self) -> Tensor:
        """
        Whether each element is finite.

        Returns:
            A new kbool core tensor.
        """

    def isinf(self) -> Tensor:
        """
        Whether each element is infinite.

        Returns:
            A new kbool core tensor.
        """

    def isnan(self) -> Tensor:
        """
        Whether each element is NaN.

        Returns:
            A new kbool core tensor.
        """

    def isneginf(self) -> Tensor:
        """
        Whether each element is negative infinity (real dtypes).

        Returns:
            A new kbool core tensor.
        """

    def isposinf(self) -> Tensor:
        """
        Whether each element is positive infinity (real dtypes).

        Returns:
            A new kbool core tensor.
        """

    def logical_not(self) -> Tensor:
        """
        Element-wise logical not; nonzero is true.

        Returns:
            A new kbool core tensor.
        """

    def add_tensor_list(self, tensors: object) -> Tensor:
        """
        The sum of a list of tensors; the tensor it is called on is not added unless listed.

        Args:
            tensors: core tensors of one shape, dtype and device.

        Returns:
            A new core tensor.
        """

    def clamp(self, min_val: float | None, max_val: float | None) -> Tensor:
        """
        Each element limited to [min_val, max_val].

        Args:
            min_val: the lower bound, or None for none.
            max_val: the upper bound, or None for none.

        Returns:
            A new core tensor.
        """

    def clamp_grad(self, g: Tensor, min_val: float | None, max_val: float | None) -> Tensor:
        """
        The gradient of clamp, called on its input: g where min_val <= x <= max_val, else 0.

        Args:
            g: the gradient of the forward result.
            min_val: the lower bound, or None.
            max_val: the upper bound, or None.

        Returns:
            A new core tensor.
        """

    def sqrt_grad(self, g: Tensor) -> Tensor:
        """
        The gradient of sqrt, called on its result y: g / conj(2 y).

        Args:
            g: the gradient of the forward result.

        Returns:
            A new core tensor.
        """

    def tan_grad(self, g: Tensor) -> Tensor:
        """
        The gradient of tan, called on its result y: g * conj(1 + y^2).

        Args:
            g: the gradient of the forward result.

        Returns:
            A new core tensor.
        """

    def reshape(self, shape: int | Sequence[int]) -> Tensor:
        """
        The same elements in a new shape, sharing storage.

        Args:
            shape: the dimensions; one of them may be -1, inferred from the others.

        Returns:
            A new core tensor.
        """

    @overload
    def flatten(self) -> Tensor:
        """
        All elements in one dimension, sharing storage.

        Returns:
            A new one-dimensional core tensor.
        """

    @overload
    def flatten(self, start: int, end: int) -> Tensor:
        """
        Axes start to end merged into one, sharing storage.

        Args:
            start: the first axis merged.
            end: the last axis merged; -1 for the last.

        Returns:
            A new core tensor.
        """

    @overload
    def squeeze(self) -> Tensor:
        """
        Every axis of length one dropped, sharing storage.

        Returns:
            A new core tensor.
        """

    @overload
    def squeeze(self, axis: int | Sequence[int]) -> Tensor:
        """
        The given axes dropped, sharing storage; each must have length one.

        Args:
            axis: an axis or a sequence of axes.

        Returns:
            A new core tensor.
        """

    def unsqueeze(self, axis: int) -> Tensor:
        """
        An axis of length one inserted, sharing storage.

        Args:
            axis: its position, 0 to ndim; negative counts from the end.

        Returns:
            A new core tensor.
        """

    def transpose(self, dims: int | Sequence[int]) -> Tensor:
        """
        A copy with its axes permuted: axis i of the result is axis dims[i].

        Args:
            dims: a permutation of the axes; negative entries count from the end.

        Returns:
            A new core tensor.
        """

    def swapaxis(self, axis1: int, axis2: int) -> Tensor:
        """
        A copy with two axes exchanged.

        Args:
            axis1: one axis.
            axis2: the other axis.

        Returns:
            A new core tensor.
        """

    def flip(self, flip_dims: int | Sequence[int]) -> Tensor:
        """
        A copy reversed along the given axes.

        Args:
            flip_dims: an axis or a sequence of axes.

        Returns:
            A new core tensor.
        """

    def broadcast(self, other: Tensor) -> tuple[Tensor, Tensor]:
        """
        Both tensors expanded to their common shape by numpy's rule.

        Args:
            other: a core tensor.

        Returns:
            A tuple of two new core tensors.
        """

    def broadcast_to(self, shape: int | Sequence[int]) -> Tensor:
        """
        A copy expanded to a shape by numpy's rule.

        Args:
            shape: the target dimensions.

        Returns:
            A new core tensor.
        """

    @overload
    def sum(self) -> Tensor:
        """
        The sum of all elements. Integers and bools sum to int64.

        Returns:
            A new one-element core tensor of shape [1].
        """

    @overload
    def sum(self, axes: int | Sequence[int], keepdims: bool = False) -> Tensor:
        """
        The sum along axes. Integers and bools sum to int64.

        Args:
            axes: an axis or a sequence of axes; negative ones count from the end.
            keepdims: keep the reduced axes with length one.

        Returns:
            A new core tensor.
        """

    @overload
    def mean(self) -> Tensor:
        """
        The mean of all elements.

        Returns:
            A new one-element core tensor of shape [1].
        """

    @overload
    def mean(self, axes: int | Sequence[int], keepdims: bool = False) -> Tensor:
        """
        The mean along axes.

        Args:
            axes: an axis or a sequence of axes; negative ones count from the end.
            keepdims: keep the reduced axes with length one.

        Returns:
            A new core tensor.
        """

    @overload
    def min(self) -> Tensor:
        """
        The smallest value of all elements. Real dtypes; NaN propagates.

        Returns:
            A new one-element core tensor of shape [1].
        """

    @overload
    def min(self, axes: int | Sequence[int], keepdims: bool = False) -> Tensor:
        """
        The smallest value along axes. Real dtypes; NaN propagates.

        Args:
            axes: an axis or a sequence of axes; negative ones count from the end.
            keepdims: keep the reduced axes with length one.

        Returns:
            A new core tensor.
        """

    @overload
    def max(self) -> Tensor:
        """
        The largest value of all elements. Real dtypes; NaN propagates.

        Returns:
            A new one-element core tensor of shape [1].
        """

    @overload
    def max(self, axes: int | Sequence[int], keepdims: bool = False) -> Tensor:
        """
        The largest value along axes. Real dtypes; NaN propagates.

        Args:
            axes: an axis or a sequence of axes; negative ones count from the end.
            keepdims: keep the reduced axes with length one.

        Returns:
            A new core tensor.
        """

    @overload
    def median(self) -> Tensor:
        """
        The median of all elements. Real dtypes; an even count gives the mean of the middle two.

        Returns:
            A new one-element core tensor of shape [1].
        """

    @overload
    def median(self, axes: int | Sequence[int], keepdims: bool = False) -> Tensor:
        """
        The median along axes. Real dtypes; an even count gives the mean of the middle two.

        Args:
            axes: an axis or a sequence of axes; negative ones count from the end.
            keepdims: keep the reduced axes with length one.

        Returns:
            A new core tensor.
        """

    @overload
    def var(self, unbiased: object | None) -> Tensor:
        """
        The variance of all elements.

        Args:
            unbiased: divide by n - 1 when true (Python truth), else by n.

        Returns:
            A new one-element real core tensor of shape [1].
        """

    @overload
    def var(self, axes: int | Sequence[int], keepdims: bool, unbiased: object | None) -> Tensor:
        """
        The variance along axes.

        Args:
            axes: an axis or a sequence of axes; negative ones count from the end.
            keepdims: keep the reduced axes with length one.
            unbiased: divide by n - 1 when true (Python truth), else by n.

        Returns:
            A new real core tensor.
        """

    @overload
    def std(self, unbiased: object | None) -> Tensor:
        """
        The standard deviation of all elements.

        Args:
            unbiased: divide by n - 1 when true (Python truth), else by n.

        Returns:
            A new one-element real core tensor of shape [1].
        """

    @overload
    def std(self, axes: int | Sequence[int], keepdims: bool, unbiased: object | None) -> Tensor:
        """
        The standard deviation along axes.

        Args:
            axes: an axis or a sequence of axes; negative ones count from the end.
            keepdims: keep the reduced axes with length one.
            unbiased: divide by n - 1 when true (Python truth), else by n.

        Returns:
            A new real core tensor.
        """

    def select(self, index_list: list[str]) -> Tensor:
        """
        A copy of the region that index texts pick; axes picked by one position are dropped.

        Args:
            index_list: one index text per leading axis: a position ('2', '-1'), a range ('1:5:2', '::-1') or a list of positions ('0,3,'); axes past the list are taken whole.

        Returns:
            A new core tensor on the same device.
        """

    def set_select(self, index_list: list[str], value: Tensor) -> None:
        """
        Writes a value into the region that index texts pick, in place.

        Args:
            index_list: one index text per leading axis: a position ('2', '-1'), a range ('1:5:2', '::-1') or a list of positions ('0,3,'); axes past the list are taken whole.
            value: a core tensor on the same device that broadcasts to the region (or has one element); converted to the tensor's dtype.
        """

    def select_bp(self, index_list: list[str], x: Tensor) -> Tensor:
        """
        The gradient of select: x placed at the region in zeros of the tensor's shape.

        Args:
            index_list: one index text per leading axis: a position ('2', '-1'), a range ('1:5:2', '::-1') or a list of positions ('0,3,'); axes past the list are taken whole.
            x: the gradient of select's result; positions picked twice sum.

        Returns:
            A new core tensor of the tensor's shape, with x's dtype and device.
        """

    def set_select_bp(self, index_list: list[str], x: Tensor) -> Tensor:
        """
        The gradient of set_select's value: the region of x.

        Args:
            index_list: one index text per leading axis: a position ('2', '-1'), a range ('1:5:2', '::-1') or a list of positions ('0,3,'); axes past the list are taken whole.
            x: the gradient of the written tensor, of its shape.

        Returns:
            A new core tensor.
        """

    def adv_indexing(self, n: int, m: int, k: int, mshape: int | Sequence[int], strides: int | Sequence[int], c_indice: Tensor, oshape: list[int] | tuple[int, ...]) -> Tensor:
        """
        Gathers the runs of k elements that n coordinate columns pick (advanced indexing).

        Args:
            n: the number of coordinate columns (runs).
            m: the number of leading axes the coordinates address.
            k: the number of elements of each run, the size of the remaining axes.
            mshape: the m leading dimensions.
            strides: the element strides of the m leading axes.
            c_indice: a core tensor of an integer dtype holding m * n coordinates, row j for axis j; negative ones count from the end.
            oshape: the result's shape, of n * k elements.

        Returns:
            A new core tensor on the same device.
        """

    def adv_indexing_grad(self, n: int, m: int, k: int, mshape: int | Sequence[int], strides: int | Sequence[int], c_indice: Tensor, inputshape: list[int] | tuple[int, ...]) -> Tensor:
        """
        The gradient of adv_indexing: the runs of this tensor added at their coordinates into zeros;
        repeated coordinates sum, in column order, the same on any number of threads.

        Args:
            n: the number of coordinate columns (runs).
            m: the number of leading axes the coordinates address.
            k: the number of elements of each run, the size of the remaining axes.
            mshape: the m leading dimensions.
            strides: the element strides of the m leading axes.
            c_indice: a core tensor of an integer dtype holding m * n coordinates, row j for axis j; negative ones count from the end.
            inputshape: the shape of adv_indexing's input.

        Returns:
            A new core tensor of that shape.
        """

    def set_adv_indexing(self, n: int, m: int, k: int, mshape: int | Sequence[int], strides: int | Sequence[int], c_indice: Tensor, value: Tensor) -> None:
        """
        Writes the runs that n coordinate columns pick, in place; for repeated coordinates the last wins.

        Args:
            n: the number of coordinate columns (runs).
            m: the number of leading axes the coordinates address.
            k: the number of elements of each run, the size of the remaining axes.
            mshape: the m leading dimensions.
            strides: the element strides of the m leading axes.
            c_indice: a core tensor of an integer dtype holding m * n coordinates, row j for axis j; negative ones count from the end.
            value: a core tensor on the same device of n * k elements, or one element for all; converted to the tensor's dtype.
        """

    def set_adv_indexing_grad(self, n: int, m: int, k: int, mshape: int | Sequence[int], strides: int | Sequence[int], c_indice: Tensor, out_shape: list[int] | tuple[int, ...]) -> Tensor:
        """
        The gradient of set_adv_indexing's value: the runs of this tensor (of the written tensor's shape).

        Args:
            n: the number of coordinate columns (runs).
            m: the number of leading axes the coordinates address.
            k: the number of elements of each run, the size of the remaining axes.
            mshape: the m leading dimensions.
            strides: the element strides of the m leading axes.
            c_indice: a core tensor of an integer dtype holding m * n coordinates, row j for axis j; negative ones count from the end.
            out_shape: the value's shape, of n * k elements.

        Returns:
            A new core tensor.
        """

    def nonzero(self) -> Tensor:
        """
        The coordinates of the nonzero elements, numpy.nonzero's arrays stacked.

        Returns:
            A new int64 core tensor of shape (ndim, count) on the same device.
        """

    @overload
    @staticmethod
    def mult2D(a: Tensor, b: Tensor) -> Tensor:
        """
        The product of two matrices.

        Args:
            a: a core tensor; the matrices are its last two axes.
            b: a core tensor of the same rank and leading axes.

        Returns:
            A new core tensor of the promoted dtype (int64 for bools).
        """

    @overload
    @staticmethod
    def mult2D(a: Tensor, b: Tensor, ta: int, tb: int) -> Tensor:
        """
        The product of two matrices.

        Args:
            a: a core tensor; the matrices are its last two axes.
            b: a core tensor of the same rank and leading axes.
            ta: 1 to take a with its last two axes exchanged (no conjugate), 0 as it is.
            tb: the same for b.

        Returns:
            A new core tensor of the promoted dtype (int64 for bools).
        """

    @overload
    @staticmethod
    def bmm(a: Tensor, b: Tensor) -> Tensor:
        """
        The products of two batches of matrices (rank 3), pair by pair; batch sizes must be equal.

        Args:
            a: a core tensor; the matrices are its last two axes.
            b: a core tensor of the same rank and leading axes.

        Returns:
            A new core tensor of the promoted dtype (int64 for bools).
        """

    @overload
    @staticmethod
    def bmm(a: Tensor, b: Tensor, ta: int, tb: int) -> Tensor:
        """
        The products of two batches of matrices (rank 3), pair by pair; batch sizes must be equal.

        Args:
            a: a core tensor; the matrices are its last two axes.
            b: a core tensor of the same rank and leading axes.
            ta: 1 to take a with its last two axes exchanged (no conjugate), 0 as it is.
            tb: the same for b.

        Returns:
            A new core tensor of the promoted dtype (int64 for bools).
        """

    @overload
    @staticmethod
    def matmul(a: Tensor, b: Tensor) -> Tensor:
        """
        The products of two double batches of matrices (rank 4), pair by pair; the batch axes must be equal.

        Args:
            a: a core tensor; the matrices are its last two axes.
            b: a core tensor of the same rank and leading axes.

        Returns:
            A new core tensor of the promoted dtype (int64 for bools).
        """

    @overload
    @staticmethod
    def matmul(a: Tensor, b: Tensor, ta: int, tb: int) -> Tensor:
        """
        The products of two double batches of matrices (rank 4), pair by pair; the batch axes must be equal.

        Args:
            a: a core tensor; the matrices are its last two axes.
            b: a core tensor of the same rank and leading axes.
            ta: 1 to take a with its last two axes exchanged (no conjugate), 0 as it is.
            tb: the same for b.

        Returns:
            A new core tensor of the promoted dtype (int64 for bools).
        """

    def triu(self, diagonal: int = 0) -> Tensor:
        """
        The upper triangle of the last two axes: elements below diagonal number `diagonal` set to zero.

        Args:
            diagonal: 0 the main diagonal, positive above it, negative below.

        Returns:
            A new core tensor.
        """

    def tril(self, diagonal: int = 0) -> Tensor:
        """
        The lower triangle of the last two axes: elements above diagonal number `diagonal` set to zero.

        Args:
            diagonal: 0 the main diagonal, positive above it, negative below.

        Returns:
            A new core tensor.
        """

    def trace(self, k: int = 0) -> Tensor:
        """
        The sum of diagonal number k of the last two axes, for each leading index.

        Args:
            k: 0 the main diagonal, positive above it, negative below; past the matrix the sum is zero.

        Returns:
            A new core tensor of the leading shape (0-d for a matrix); integers and bools sum in int64.
        """

    def trace_grad(self, shape: int | Sequence[int], offset: int) -> Tensor:
        """
        The gradient of trace, called on the incoming gradient: zeros of `shape` with g's values on diagonal
        number `offset` of each matrix.

        Args:
            shape: the shape of trace's input.
            offset: the diagonal that trace summed.

        Returns:
            A new core tensor of g's dtype.
        """

    def l2_norm_grad(self, reduce_square_sum: Tensor, g: Tensor, axis: int) -> Tensor:
        """
        The gradient of the norm along an axis, called on its input x: g * x / norm, spread along the axis
        (zero where the norm is zero).

        Args:
            reduce_square_sum: the sums of squares that l2_norm(x, axis, keepdims) returned.
            g: the gradient of the norm, of the norm's shape.
            axis: the axis of the forward call.

        Returns:
            A new core tensor of x's shape and floating dtype.
        """

CoreTensor: TypeAlias = Tensor
