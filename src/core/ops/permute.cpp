// Axis order: transposes and flips, as new contiguous tensors (the copies
// are kernels, kernels/permute.cpp); a transpose that keeps the element order
// shares its source's storage.
#include <vector>

#include "core/ops/front.h"

namespace tramel {
namespace {

std::string list_str(const std::vector<int64_t>& v) {
  std::string s = "[";
  for (size_t i = 0; i < v.size(); ++i) s += (i ? ", " : "") + std::to_string(v[i]);
  return s + "]";
}

}  // namespace

Tensor transpose(const Tensor& t, const std::vector<int64_t>& dims) {
  const char* op = "transpose";
  int ndim = t.ndim();
  if (dims.size() != size_t(ndim))
    fail(ErrorKind::Value, op, "dims " + list_str(dims) + " do not match the rank of shape " + t.shape().str());
  int perm[kMaxRank];
  bool seen[kMaxRank] = {};
  int64_t out_dims[kMaxRank];
  for (int i = 0; i < ndim; ++i) {
    int a = int(wrap_axis(dims[size_t(i)], ndim, op, t.shape()));
    if (seen[a]) fail(ErrorKind::Value, op, "axis " + std::to_string(dims[size_t(i)]) + " is repeated in dims " + list_str(dims));
    seen[a] = true;
    perm[i] = a;
    out_dims[i] = t.shape()[a];
  }
  TransposeKernel kernel = need(kernels_of(t).transpose, t, op);
  // A permutation that moves only axes of length one keeps the element
  // order: the result shares t's storage (copy-on-write) instead of copying.
  int last = -1;
  bool keeps_order = true;
  for (int i = 0; i < ndim && keeps_order; ++i)
    if (t.shape()[perm[i]] != 1) keeps_order = perm[i] > last, last = perm[i];
  if (keeps_order) return t.view_as(Shape(out_dims, ndim, op));
  Tensor out = Tensor::empty(Shape(out_dims, ndim, op), t.dtype(), t.device(), op);
  if (out.numel() != 0) kernel(t, out, perm);
  return out;
}

Tensor swapaxis(const Tensor& t, int64_t axis1, int64_t axis2) {
  const char* op = "swapaxis";
  int64_t a = wrap_axis(axis1, t.ndim(), op, t.shape()), b = wrap_axis(axis2, t.ndim(), op, t.shape());
  std::vector<int64_t> perm(size_t(t.ndim()));
  for (int i = 0; i < t.ndim(); ++i) perm[size_t(i)] = i;
  std::swap(perm[size_t(a)], perm[size_t(b)]);
  return transpose(t, perm);
}

Tensor flip(const Tensor& t, const std::vector<int64_t>& dims) {
  const char* op = "flip";
  int ndim = t.ndim();
  bool flipped[kMaxRank] = {};
  for (int64_t d : dims) {
    int64_t a = wrap_axis(d, ndim, op, t.shape());
    if (flipped[a]) fail(ErrorKind::Value, op, "axis " + std::to_string(d) + " is repeated in " + list_str(dims));
    flipped[a] = true;
  }
  FlipKernel kernel = need(kernels_of(t).flip, t, op);
  Tensor out = Tensor::empty(t.shape(), t.dtype(), t.device(), op);
  if (out.numel() != 0) kernel(t, out, flipped);
  return out;
}

}  // namespace tramel
