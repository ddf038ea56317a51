// Matrix parts (Kronecker product, triangles, trace), complex parts, spectra
// and the 2-norm along one axis: the fronts. Kernels in kernels/linalg.cpp
// and kernels/spectral.cpp.
#include <algorithm>
#include <climits>
#include <initializer_list>

#include "core/ops/front.h"

namespace tramel {
namespace {

void same_device(const char* op, const Tensor& a, const Tensor& b) {
  if (a.device() != b.device())
    fail(ErrorKind::Runtime, op, "tensors are on different devices: " + device_pair(a, b));
}

// The last two axes of t as a batch of matrices.
struct Matrices {
  int64_t batch = 1, rows = 0, cols = 0;
};
Matrices matrices_of(const Shape& s, const char* op) {
  if (s.rank() < 2) fail(ErrorKind::Value, op, "expected a matrix or a batch of matrices, got shape " + s.str());
  Matrices m;
  for (int i = 0; i + 2 < s.rank(); ++i) m.batch *= s[i];
  m.rows = s[s.rank() - 2];
  m.cols = s[s.rank() - 1];
  return m;
}

// Shape s without its last `drop` axes, then `extra` appended.
Shape leading(const Shape& s, int drop, std::initializer_list<int64_t> extra, const char* op) {
  int64_t dims[kMaxRank];
  int rank = 0;
  for (int i = 0; i + drop < s.rank(); ++i) dims[rank++] = s[i];
  for (int64_t d : extra) dims[rank++] = d;
  return Shape(dims, rank, op);
}

// Diagonal number k of a rows x cols matrix, as a run of the kernels.
DiagonalRun diagonal_run(int64_t rows, int64_t cols, int64_t k) {
  DiagonalRun run{0, 0};
  if (k >= 0) {
    if (k < cols) run = {k, std::min(rows, cols - k)};
  } else if (k > -rows) {  // -rows < k < 0, so -k does not overflow
    run = {-k * cols, std::min(rows + k, cols)};
  }
  return run;
}

// ---- Kronecker product ----

// a with leading axes of length one up to `rank`, as a view.
Tensor with_rank(const Tensor& a, int rank, const char* op) {
  int64_t dims[kMaxRank];
  int pad = rank - a.ndim();
  for (int i = 0; i < rank; ++i) dims[i] = i < pad ? 1 : a.shape()[i - pad];
  return a.view_as(Shape(dims, rank, op));
}

Shape kron_shape(const Tensor& a, const Tensor& b, const char* op) {
  int rank = std::max(a.ndim(), b.ndim());
  Tensor pa = with_rank(a, rank, op), pb = with_rank(b, rank, op);
  int64_t dims[kMaxRank];
  for (int i = 0; i < rank; ++i)
    if (__builtin_mul_overflow(pa.shape()[i], pb.shape()[i], &dims[i]))
      fail(ErrorKind::Value, op, "the product of shapes " + a.shape().str() + " and " + b.shape().str() + " is too large");
  return Shape(dims, rank, op);  // checks the number of elements
}

Tensor kron_grad(const Tensor& g, const Tensor& a, const Tensor& b, bool left, const char* op) {
  same_device(op, g, a);
  same_device(op, g, b);
  Shape product = kron_shape(a, b, op);
  if (g.shape() != product)
    fail(ErrorKind::Value, op, "the gradient has shape " + g.shape().str() + ", the product of " + a.shape().str() +
                                   " and " + b.shape().str() + " has shape " + product.str());
  const Tensor& own = left ? a : b;
  const Tensor& other = left ? b : a;
  KronGradKernel kernel = need(kernels_of(g).kron_grad, g, op);
  DType dtype = promote(g.dtype(), other.dtype());
  Tensor out = Tensor::empty(own.shape(), dtype, g.device(), op);
  if (out.numel() == 0) return out;
  Tensor hg, ho;
  int rank = product.rank();
  Tensor o = out.view_as(with_rank(own, rank, op).shape());
  kernel(as_dtype(g, dtype, hg), with_rank(as_dtype(other, dtype, ho), rank, op), o, left);
  return out;
}

// ---- spectra ----

// The checked input of an eigen-decomposition, in its computing dtype.
const Tensor& square_input(const Tensor& a, const char* op, Tensor& holder) {
  Matrices m = matrices_of(a.shape(), op);
  if (m.rows != m.cols)
    fail(ErrorKind::Value, op, "expected square matrices on the last two axes, got shape " + a.shape().str());
  if (m.rows > INT_MAX / 2)
    fail(ErrorKind::Value, op, "matrices of shape " + a.shape().str() + " are too large for LAPACK");
  return as_dtype(a, floating_compute(a.dtype()), holder);
}

void check_lapack(int info, const char* op, const Tensor& a) {
  if (info != 0)
    fail(ErrorKind::Runtime, op,
         "the eigenvalue algorithm did not converge for a matrix of shape " + a.shape().str() + " (LAPACK info " +
             std::to_string(info) + ")");
}

Tensor decompose(const Tensor& a, bool vectors, const char* op) {
  Tensor holder;
  const Tensor& x = square_input(a, op, holder);
  int64_t n = a.shape()[a.ndim() - 1];
  EighKernel kernel = need(kernels_of(a).eigh, a, op);
  Shape shape = vectors ? leading(a.shape(), 2, {n + 1, n}, op) : leading(a.shape(), 1, {}, op);
  Tensor out = Tensor::empty(shape, vectors ? x.dtype() : real_dtype(x.dtype()), a.device(), op);
  if (out.numel() == 0 || n == 0) return out;
  check_lapack(kernel(x, out, vectors), op, a);
  return out;
}

// ---- norms along an axis ----

struct AxisBlock {
  int64_t outer = 1, r = 1, inner = 1;
  int64_t axis = 0;
};
// t as [outer, r, inner] around one wrapped axis (a 0-d tensor has the one
// implicit axis of its element).
AxisBlock axis_block(const Tensor& t, int64_t axis, const char* op) {
  AxisBlock b;
  b.axis = wrap_axis(axis, std::max(t.ndim(), 1), op, t.shape());
  if (t.ndim() == 0) return b;
  b.r = t.shape()[int(b.axis)];
  for (int i = 0; i < b.axis; ++i) b.outer *= t.shape()[i];
  for (int i = int(b.axis) + 1; i < t.ndim(); ++i) b.inner *= t.shape()[i];
  return b;
}

}  // namespace

Tensor kron(const Tensor& a, const Tensor& b) {
  const char* op = "kron";
  same_device(op, a, b);
  Shape shape = kron_shape(a, b, op);
  KronKernel kernel = need(kernels_of(a).kron, a, op);
  DType dtype = promote(a.dtype(), b.dtype());
  Tensor out = Tensor::empty(shape, dtype, a.device(), op);
  if (out.numel() == 0) return out;
  Tensor ha, hb;
  kernel(with_rank(as_dtype(a, dtype, ha), shape.rank(), op), with_rank(as_dtype(b, dtype, hb), shape.rank(), op),
         out);
  return out;
}

Tensor kron_grad_a(const Tensor& g, const Tensor& a, const Tensor& b) { return kron_grad(g, a, b, true, "kron_t1grad"); }
Tensor kron_grad_b(const Tensor& g, const Tensor& a, const Tensor& b) {
  return kron_grad(g, a, b, false, "kron_t2grad");
}

namespace {
Tensor triangle(const Tensor& t, int64_t diagonal, bool upper) {
  const char* op = upper ? "triu" : "tril";
  matrices_of(t.shape(), op);
  TriangleKernel kernel = need(kernels_of(t).triangle, t, op);
  Tensor out = Tensor::empty(t.shape(), t.dtype(), t.device(), op);
  if (out.numel()) kernel(t, out, diagonal, upper);
  return out;
}
}  // namespace

Tensor triu(const Tensor& t, int64_t diagonal) { return triangle(t, diagonal, true); }
Tensor tril(const Tensor& t, int64_t diagonal) { return triangle(t, diagonal, false); }

Tensor trace(const Tensor& t, int64_t k) {
  const char* op = "trace";
  Matrices m = matrices_of(t.shape(), op);
  TraceKernel kernel = need(kernels_of(t).trace, t, op);
  Tensor out = Tensor::empty(leading(t.shape(), 2, {}, op), sum_dtype(t.dtype()), t.device(), op);
  if (out.numel()) kernel(t, out, diagonal_run(m.rows, m.cols, k));
  return out;
}

Tensor trace_grad(const Tensor& g, const Shape& shape, int64_t offset) {
  const char* op = "trace_grad";
  Matrices m = matrices_of(shape, op);
  if (g.numel() != m.batch)
    fail(ErrorKind::Value, op,
         "a gradient of shape " + g.shape().str() + " does not fit the traces of shape " + shape.str());
  TraceGradKernel kernel = need(kernels_of(g).trace_grad, g, op);
  Tensor out = Tensor::empty(shape, g.dtype(), g.device(), op);
  if (out.numel()) kernel(g, out, diagonal_run(m.rows, m.cols, offset));
  return out;
}

namespace {
Tensor complex_part(const Tensor& t, bool imaginary) {
  const char* op = imaginary ? "imag" : "real";
  if (!is_complex(t.dtype()))
    return imaginary ? full(t.shape(), Scalar::from_int(0), t.device(), t.dtype(), op) : to_dtype(t, t.dtype(), true);
  const Kernels& k = kernels_of(t);
  MapKernel kernel = need(imaginary ? k.imag : k.real, t, op);
  Tensor out = Tensor::empty(t.shape(), real_dtype(t.dtype()), t.device(), op);
  if (out.numel()) kernel(t, out);
  return out;
}
}  // namespace

Tensor real(const Tensor& t) { return complex_part(t, false); }
Tensor imag(const Tensor& t) { return complex_part(t, true); }

Tensor eigvalsh(const Tensor& a) { return decompose(a, false, "eigvalsh"); }
Tensor eigh(const Tensor& a) { return decompose(a, true, "eigh"); }

Tensor eigvalsh_grad(const Tensor& g, const Tensor& a) {
  const char* op = "eigvalsh_grad";
  same_device(op, g, a);
  Tensor holder, gh;
  const Tensor& x = square_input(a, op, holder);
  Shape values = leading(a.shape(), 1, {}, op);
  if (g.shape() != values)
    fail(ErrorKind::Value, op,
         "a gradient of shape " + g.shape().str() + " does not fit the eigenvalues of shape " + a.shape().str() +
             ", which have shape " + values.str());
  EigvalshGradKernel kernel = need(kernels_of(a).eigvalsh_grad, a, op);
  Tensor out = Tensor::empty(a.shape(), x.dtype(), a.device(), op);
  if (out.numel() == 0) return out;
  check_lapack(kernel(as_dtype(g, real_dtype(x.dtype()), gh), x, out), op, a);
  return out;
}

NormAlongAxis l2_norm(const Tensor& t, int64_t axis, bool keepdims) {
  const char* op = "l2_norm";
  AxisBlock b = axis_block(t, axis, op);
  NormAxisKernel kernel = need(kernels_of(t).norm_axis, t, op);
  int64_t dims[kMaxRank];
  int rank = 0;
  for (int i = 0; i < t.ndim(); ++i)
    if (i != b.axis) dims[rank++] = t.shape()[i];
    else if (keepdims) dims[rank++] = 1;
  Shape shape(dims, rank, op);
  Tensor holder;
  const Tensor& x = as_dtype(t, floating_compute(t.dtype()), holder);
  DType dtype = real_dtype(x.dtype());
  NormAlongAxis out{Tensor::empty(shape, dtype, t.device(), op), Tensor::empty(shape, dtype, t.device(), op)};
  if (out.norm.numel()) kernel(x, out.norm, out.square_sum, b.outer, b.r, b.inner);
  return out;
}

Tensor l2_norm_grad(const Tensor& x, const Tensor& square_sum, const Tensor& g, int64_t axis) {
  const char* op = "l2_norm_grad";
  same_device(op, x, square_sum);
  same_device(op, x, g);
  AxisBlock b = axis_block(x, axis, op);
  if (square_sum.numel() != b.outer * b.inner || g.numel() != b.outer * b.inner)
    fail(ErrorKind::Value, op,
         "the sums of squares (shape " + square_sum.shape().str() + ") and the gradient (shape " + g.shape().str() +
             ") do not fit the norms along axis " + std::to_string(axis) + " of shape " + x.shape().str());
  NormGradKernel kernel = need(kernels_of(x).norm_axis_grad, x, op);
  DType dtype = floating_compute(x.dtype());
  Tensor out = Tensor::empty(x.shape(), dtype, x.device(), op);
  if (out.numel() == 0) return out;
  Tensor hx, hs, hg;
  kernel(as_dtype(x, dtype, hx), as_dtype(square_sum, real_dtype(dtype), hs), as_dtype(g, real_dtype(dtype), hg), out,
         b.outer, b.r, b.inner);
  return out;
}

}  // namespace tramel
