"""Free functions of the core engine."""

from collections.abc import Sequence

import pytramel._core


def copyTensor(src: pytramel._core.Tensor, dst: pytramel._core.Tensor) -> None:
    """
    Copies the elements of src into dst, converting to dst's dtype, across devices if need be.

    Args:
        src: a core tensor.
        dst: a core tensor of the same shape, written in place.
    """

def all(x: pytramel._core.Tensor) -> bool:
    """
    Whether every element is nonzero.

    Args:
        x: a core tensor.

    Returns:
        A bool.
    """

def any(x: pytramel._core.Tensor) -> bool:
    """
    Whether some element is nonzero.

    Args:
        x: a core tensor.

    Returns:
        A bool.
    """

def mult_grad(g: pytramel._core.Tensor, other: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of a product for one factor: g * conj(other).

    Args:
        g: the gradient of the forward result.
        other: the other factor.

    Returns:
        A new core tensor.
    """

def div_dxgrad(g: pytramel._core.Tensor, den: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of a quotient for its numerator: g / conj(den).

    Args:
        g: the gradient of the forward result.
        den: the denominator.

    Returns:
        A new core tensor.
    """

def exp_grad(g: pytramel._core.Tensor, y: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of exp: g * conj(y).

    Args:
        g: the gradient of the forward result.
        y: the forward result exp(x).

    Returns:
        A new core tensor.
    """

def log_grad(g: pytramel._core.Tensor, x: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of log: g / conj(x).

    Args:
        g: the gradient of the forward result.
        x: the forward input.

    Returns:
        A new core tensor.
    """

def square_grad(g: pytramel._core.Tensor, x: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of square: 2 g conj(x).

    Args:
        g: the gradient of the forward result.
        x: the forward input.

    Returns:
        A new core tensor.
    """

def tanh_grad(g: pytramel._core.Tensor, y: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of tanh: g * conj(1 - y^2).

    Args:
        g: the gradient of the forward result.
        y: the forward result tanh(x).

    Returns:
        A new core tensor.
    """

def asin_grad(g: pytramel._core.Tensor, x: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of asin: g * conj(1 / sqrt(1 - x^2)).

    Args:
        g: the gradient of the forward result.
        x: the forward input.

    Returns:
        A new core tensor.
    """

def acos_grad(g: pytramel._core.Tensor, x: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of acos: -g * conj(1 / sqrt(1 - x^2)).

    Args:
        g: the gradient of the forward result.
        x: the forward input.

    Returns:
        A new core tensor.
    """

def atan_grad(g: pytramel._core.Tensor, x: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of atan: g * conj(1 / (1 + x^2)).

    Args:
        g: the gradient of the forward result.
        x: the forward input.

    Returns:
        A new core tensor.
    """

def div_dygrad(g: pytramel._core.Tensor, q: pytramel._core.Tensor, den: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of a quotient for its denominator: -g * conj(q / den).

    Args:
        g: the gradient of the forward result.
        q: the forward quotient.
        den: the denominator.

    Returns:
        A new core tensor.
    """

def power_grad_of_base(g: pytramel._core.Tensor, x: pytramel._core.Tensor, y: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of x ** y for the base: g * conj(y x^(y-1)).

    Args:
        g: the gradient of the forward result.
        x: the base.
        y: the exponent.

    Returns:
        A new core tensor.
    """

def power_grad_of_exp(g: pytramel._core.Tensor, x: pytramel._core.Tensor, y: pytramel._core.Tensor, out: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of x ** y for the exponent: g * conj(out ln x).

    Args:
        g: the gradient of the forward result.
        x: the base.
        y: the exponent.
        out: the forward result.

    Returns:
        A new core tensor.
    """

def log_softmax(x: pytramel._core.Tensor, dim: int) -> pytramel._core.Tensor:
    """
    log(softmax(x)) along one axis (floating dtypes).

    Args:
        x: a core tensor.
        dim: the axis; negative counts from the end.

    Returns:
        A new core tensor.
    """

def log_softmax_grad(g: pytramel._core.Tensor, out: pytramel._core.Tensor, dim: int) -> pytramel._core.Tensor:
    """
    The gradient of log_softmax.

    Args:
        g: the gradient of the forward result.
        out: the forward result.
        dim: the axis of the forward call.

    Returns:
        A new core tensor.
    """

def mean_all_grad(g: pytramel._core.Tensor, shape: int | Sequence[int]) -> pytramel._core.Tensor:
    """
    The gradient of the mean of all elements: g / n in every element of a shape of n elements.

    Args:
        g: a one-element core tensor.
        shape: the forward input's shape.

    Returns:
        A new core tensor.
    """

def tile(t: pytramel._core.Tensor, reps: int | Sequence[int]) -> pytramel._core.Tensor:
    """
    A tensor repeated along its axes, as numpy.tile.

    Args:
        t: a core tensor.
        reps: the repeats per axis.

    Returns:
        A new core tensor.
    """

def TileGrad(x: pytramel._core.Tensor, shape: int | Sequence[int], reps: int | Sequence[int]) -> pytramel._core.Tensor:
    """
    The gradient of tile: x summed over the repeats back to the source's shape.

    Args:
        x: the gradient of tile's result.
        shape: the shape of tile's input.
        reps: the repeats of tile.

    Returns:
        A new core tensor of that shape.
    """

def cumsum(data: pytramel._core.Tensor, axis: int) -> pytramel._core.Tensor:
    """
    Running sums along an axis.

    Args:
        data: a core tensor.
        axis: the axis; negative counts from the end.

    Returns:
        A new core tensor of data's shape.
    """

def cumsumgrad(g: pytramel._core.Tensor, axis: int) -> pytramel._core.Tensor:
    """
    The gradient of cumsum: the running sums of g from the end of the axis.

    Args:
        g: the gradient of cumsum's result.
        axis: the axis of the forward call.

    Returns:
        A new core tensor of g's shape.
    """

def kron(a: pytramel._core.Tensor, b: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The Kronecker product, numpy's kron: the operand of lower rank gets leading axes of length one.

    Args:
        a: a core tensor.
        b: a core tensor on a's device.

    Returns:
        A new core tensor of the promoted dtype; axis i is a.shape[i] * b.shape[i] long.
    """

def kron_t1grad(g: pytramel._core.Tensor, a: pytramel._core.Tensor, b: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of kron for its first factor: g over each block, times the conjugate of b, summed.

    Args:
        g: the gradient of the product, of its shape.
        a: the first factor of the forward call.
        b: the second factor of the forward call.

    Returns:
        A new core tensor of a's shape.
    """

def kron_t2grad(g: pytramel._core.Tensor, a: pytramel._core.Tensor, b: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of kron for its second factor: each block of g times the conjugate of its element of a,
    summed over the blocks.

    Args:
        g: the gradient of the product, of its shape.
        a: the first factor of the forward call.
        b: the second factor of the forward call.

    Returns:
        A new core tensor of b's shape.
    """

def real(data: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The real parts.

    Args:
        data: a core tensor.

    Returns:
        A new core tensor of the real dtype (a copy for a real tensor).
    """

def imag(data: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The imaginary parts.

    Args:
        data: a core tensor.

    Returns:
        A new core tensor of the real dtype (zeros of its dtype for a real tensor).
    """

def eigvalsh(data: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The eigenvalues of Hermitian matrices, ascending, through LAPACK ?syevd/?heevd.

    Args:
        data: a Hermitian (real symmetric) matrix or a batch of them on the last two axes; only the lower triangle
        is read. Integers and bools compute in the default float dtype.

    Returns:
        A new core tensor [..., n] of the real dtype.
    """

def eigvalsh_grad(g: pytramel._core.Tensor, data: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The gradient of eigvalsh: V diag(g) V^H, V the eigenvectors of data.

    Args:
        g: the gradient of the eigenvalues, [..., n].
        data: the input of the forward call.

    Returns:
        A new core tensor of data's shape and floating dtype.
    """

def eigh(data: pytramel._core.Tensor) -> pytramel._core.Tensor:
    """
    The eigen-decomposition of Hermitian matrices, packed in one tensor.

    Args:
        data: a Hermitian (real symmetric) matrix or a batch of them on the last two axes; only the lower triangle
        is read. Integers and bools compute in the default float dtype.

    Returns:
        A new core tensor [..., n + 1, n] of data's floating dtype: row 0 the eigenvalues, ascending;
        rows 1..n the matrix V whose columns are the eigenvectors (data = V diag(w) V^H).
    """
