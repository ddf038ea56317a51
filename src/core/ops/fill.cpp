// Constant fills and the creation functions built on them.
#include <cmath>

#include "core/ops/front.h"

namespace tramel {
namespace {

Tensor vector_of(int64_t n, int device, DType dtype, const char* op) {
  if (n < 0) fail(ErrorKind::Value, op, "the number of elements must not be negative, got " + std::to_string(n));
  int64_t dims[1] = {n};
  return Tensor::empty(Shape(dims, 1, op), dtype, device, op);
}

}  // namespace

void fill_(Tensor& t, const Scalar& value) {
  const char* op = "fill_";
  t.make_storage_unique();
  need(kernels_of(t).fill, t, op)(t, value);
}

Tensor full(const Shape& shape, const Scalar& value, int device, DType dtype, const char* op) {
  Tensor t = Tensor::empty(shape, dtype, device, op);
  if (value.kind != Scalar::Kind::Complex && value.re == 0 && value.i == 0 && t.numel())
    need(kernels_of(t).zero, t, op)(t);  // all-zero bits are zero in every dtype
  else
    fill_(t, value);
  return t;
}

Tensor uninitialized(const Shape& shape, DType dtype, int device, const char* op) {
  Tensor t = Tensor::empty(shape, dtype, device, op);
  if (dtype == DType::Bool && t.numel()) need(kernels_of(t).zero, t, op)(t);
  return t;
}

Tensor arange(double start, double end, double step, int device, DType dtype) {
  const char* op = "arange";
  if (step == 0 || !std::isfinite(step)) fail(ErrorKind::Value, op, "step must be finite and non-zero");
  if (!std::isfinite(start) || !std::isfinite(end)) fail(ErrorKind::Value, op, "start and end must be finite");
  // Finite bounds far apart can still overflow the quotient to infinity.
  double count = std::ceil((end - start) / step);
  if (!(count <= double(kMaxElements))) fail(ErrorKind::Value, op, "the range has too many elements");
  Tensor t = vector_of(count > 0 ? int64_t(count) : 0, device, dtype, op);
  require_types(kRangeTypes, dtype, op);
  need(kernels_of(t).arange, t, op)(t, start, step);
  return t;
}

Tensor linspace(double start, double end, int64_t num, int device, DType dtype) {
  const char* op = "linspace";
  Tensor t = vector_of(num, device, dtype, op);
  require_types(kRangeTypes, dtype, op);
  need(kernels_of(t).linspace, t, op)(t, start, end);
  return t;
}

Tensor logspace(double start, double end, int64_t num, double base, int device, DType dtype) {
  const char* op = "logspace";
  Tensor t = vector_of(num, device, dtype, op);
  require_types(kRangeTypes, dtype, op);
  need(kernels_of(t).logspace, t, op)(t, start, end, base);
  return t;
}

Tensor eye(int64_t size, int64_t offset, int device, DType dtype) {
  const char* op = "eye";
  if (size < 0) fail(ErrorKind::Value, op, "size must not be negative, got " + std::to_string(size));
  int64_t dims[2] = {size, size};
  Tensor t = Tensor::empty(Shape(dims, 2, op), dtype, device, op);
  need(kernels_of(t).eye, t, op)(t, offset);
  return t;
}

Tensor diag(const Tensor& t, int64_t k) {
  const char* op = "diag";
  Tensor out;
  if (t.ndim() == 2) {
    out = Tensor::empty(t.shape(), t.dtype(), t.device(), op);
  } else {
    if (t.ndim() != 1)
      fail(ErrorKind::Value, op, "expects a 1- or 2-dimensional tensor, got shape " + t.shape().str());
    // |k| + numel, without overflow for any k; Shape refuses a size too large.
    uint64_t offset = k < 0 ? uint64_t(0) - uint64_t(k) : uint64_t(k);
    if (offset > uint64_t(kMaxElements))
      fail(ErrorKind::Value, op, "the diagonal " + std::to_string(k) + " makes a matrix with too many elements");
    int64_t size = t.numel() + int64_t(offset);
    int64_t dims[2] = {size, size};
    out = Tensor::empty(Shape(dims, 2, op), t.dtype(), t.device(), op);
  }
  need(kernels_of(t).diag, t, op)(t, out, k);
  return out;
}

}  // namespace tramel
