// Whole-tensor queries and arg-reductions.
#include "core/ops/front.h"

namespace tramel {
namespace {

template <bool Max>
Tensor arg_extremum(const Tensor& t) {
  const char* op = Max ? "argmax" : "argmin";
  if (t.numel() == 0) fail(ErrorKind::Value, op, "attempt to get the index of an extremum of an empty tensor");
  require_types(kRealTypes, t.dtype(), op);
  const Kernels& k = kernels_of(t);
  MapKernel kernel = need(Max ? k.argmax : k.argmin, t, op);
  int64_t dims[1] = {1};
  Tensor out = Tensor::empty(Shape(dims, 1, op), DType::Int64, t.device(), op);
  kernel(t, out);
  return out;
}

template <bool Max>
Tensor arg_extremum_axes(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  const char* op = Max ? "argmax" : "argmin";
  const Shape& shape = t.shape();
  int ndim = t.ndim();
  bool reduced[kMaxRank] = {};
  for (int64_t axis : axes) {
    int64_t a = wrap_axis(axis, ndim, op, shape);
    if (reduced[a]) fail(ErrorKind::Value, op, "axis " + std::to_string(axis) + " is repeated in " + shape.str());
    reduced[a] = true;
  }
  int64_t out_dims[kMaxRank];
  int out_rank = 0;
  int64_t block = 1;
  for (int i = 0; i < ndim; ++i) {
    if (reduced[i]) {
      block *= shape[i];
      if (keepdims) out_dims[out_rank++] = 1;
    } else {
      out_dims[out_rank++] = shape[i];
    }
  }
  if (block == 0) fail(ErrorKind::Value, op, "attempt to get the index of an extremum over an empty axis of " + shape.str());
  const Kernels& k = kernels_of(t);
  ArgAxesKernel kernel = need(Max ? k.argmax_axes : k.argmin_axes, t, op);
  Tensor out = Tensor::empty(Shape(out_dims, out_rank, op), DType::Int64, t.device(), op);
  require_types(kRealTypes, t.dtype(), op);
  kernel(t, out, reduced);
  return out;
}

}  // namespace

int64_t wrap_axis(int64_t axis, int ndim, const char* op, const Shape& shape) {
  if (axis < -ndim || axis >= ndim)
    fail(ErrorKind::Index, op, "axis " + std::to_string(axis) + " is out of range for shape " + shape.str());
  return axis < 0 ? axis + ndim : axis;
}

bool all(const Tensor& t) { return need(kernels_of(t).all, t, "all")(t); }

bool any(const Tensor& t) { return need(kernels_of(t).any, t, "any")(t); }

bool is_nonzero(const Tensor& t) {
  if (t.numel() != 1)
    fail(ErrorKind::Value, "is_nonzero", "expects a tensor of one element, got shape " + t.shape().str());
  return any(t);
}

double l2_norm(const Tensor& t) { return need(kernels_of(t).l2_norm, t, "l2_norm")(t); }

Tensor argmax(const Tensor& t) { return arg_extremum<true>(t); }
Tensor argmin(const Tensor& t) { return arg_extremum<false>(t); }
Tensor argmax(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  return arg_extremum_axes<true>(t, axes, keepdims);
}
Tensor argmin(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  return arg_extremum_axes<false>(t, axes, keepdims);
}

}  // namespace tramel
