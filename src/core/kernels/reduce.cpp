// Whole-tensor queries and arg-reductions.
#include <algorithm>
#include <cmath>

#include "core/ops.h"
#include "core/parallel.h"

namespace tramel {
namespace {

template <typename T> bool nonzero(T v) {
  if constexpr (is_complex_v<T>) return v.real() != 0 || v.imag() != 0;
  else return v != T(0);
}

template <typename T> bool is_nan(T v) {
  if constexpr (std::is_floating_point_v<T>) return std::isnan(v);
  else return false;
}

// Whether any element satisfies pred, stopping at the first one.
template <typename Pred>
bool find_any(const Tensor& t, const char* op, Pred&& pred) {
  require_host_addressable(t.device(), op);
  return dispatch<kAllTypes>(t.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* d = t.data<T>();
    for (int64_t i = 0; i < t.numel(); ++i)
      if (pred(d[i])) return true;
    return false;
  });
}

// Which value wins: numpy's rule, the first NaN beats everything, else the
// first strict extremum.
template <bool Max, typename T>
bool better(T candidate, T best) {
  if (is_nan(best)) return false;
  if (is_nan(candidate)) return true;
  return Max ? candidate > best : candidate < best;
}

Tensor int64_vector(const Shape& shape, int device, const char* op) {
  return Tensor::empty(shape, DType::Int64, device, op);
}

template <bool Max>
Tensor arg_extremum(const Tensor& t) {
  const char* op = Max ? "argmax" : "argmin";
  require_host_addressable(t.device(), op);
  if (t.numel() == 0) fail(ErrorKind::Value, op, "attempt to get the index of an extremum of an empty tensor");
  int64_t best_index = dispatch<kRealTypes>(t.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* d = t.data<T>();
    int64_t best = 0;
    for (int64_t i = 1; i < t.numel(); ++i)
      if (better<Max>(d[i], d[best])) best = i;
    return best;
  });
  int64_t dims[1] = {1};
  Tensor host = int64_vector(Shape(dims, 1, op), kCpuDevice, op);
  host.data<int64_t>()[0] = best_index;
  return t.device() == kCpuDevice ? host : to_device(host, t.device(), op);
}

template <bool Max>
Tensor arg_extremum_axes(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  const char* op = Max ? "argmax" : "argmin";
  require_host_addressable(t.device(), op);
  const Shape& shape = t.shape();
  int ndim = t.ndim();
  bool reduced[kMaxRank] = {};
  for (int64_t axis : axes) {
    int64_t a = wrap_axis(axis, ndim, op, shape);
    if (reduced[a]) fail(ErrorKind::Value, op, "axis " + std::to_string(axis) + " is repeated in " + shape.str());
    reduced[a] = true;
  }
  // Output shape, and the kept / reduced axes with their element strides.
  int64_t out_dims[kMaxRank], stride[kMaxRank];
  int out_rank = 0, kept[kMaxRank], nkept = 0, red[kMaxRank], nred = 0;
  int64_t block = 1;
  int64_t running = 1;
  for (int i = ndim - 1; i >= 0; --i) {
    stride[i] = running;
    running *= shape[i];
  }
  for (int i = 0; i < ndim; ++i) {
    if (reduced[i]) {
      red[nred++] = i;
      block *= shape[i];
      if (keepdims) out_dims[out_rank++] = 1;
    } else {
      kept[nkept++] = i;
      out_dims[out_rank++] = shape[i];
    }
  }
  if (block == 0) fail(ErrorKind::Value, op, "attempt to get the index of an extremum over an empty axis of " + shape.str());
  Tensor host = int64_vector(Shape(out_dims, out_rank, op), kCpuDevice, op);
  int64_t nout = host.numel();
  dispatch<kRealTypes>(t.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* d = t.data<T>();
    int64_t* out = host.data<int64_t>();
    for (int64_t o = 0; o < nout; ++o) {
      // Offset of the block's first element from the kept coordinates of o.
      int64_t base = 0, rest = o;
      for (int k = nkept - 1; k >= 0; --k) {
        int ax = kept[k];
        base += (rest % shape[ax]) * stride[ax];
        rest /= shape[ax];
      }
      int64_t best = 0, best_offset = base;
      for (int64_t r = 1; r < block; ++r) {
        int64_t offset = base, rr = r;
        for (int k = nred - 1; k >= 0; --k) {
          int ax = red[k];
          offset += (rr % shape[ax]) * stride[ax];
          rr /= shape[ax];
        }
        if (better<Max>(d[offset], d[best_offset])) best = r, best_offset = offset;
      }
      out[o] = best;
    }
  });
  return t.device() == kCpuDevice ? host : to_device(host, t.device(), op);
}

}  // namespace

int64_t wrap_axis(int64_t axis, int ndim, const char* op, const Shape& shape) {
  if (axis < -ndim || axis >= ndim)
    fail(ErrorKind::Index, op, "axis " + std::to_string(axis) + " is out of range for shape " + shape.str());
  return axis < 0 ? axis + ndim : axis;
}

bool all(const Tensor& t) {
  return !find_any(t, "all", [](auto v) { return !nonzero(v); });
}

bool any(const Tensor& t) {
  return find_any(t, "any", [](auto v) { return nonzero(v); });
}

bool is_nonzero(const Tensor& t) {
  if (t.numel() != 1)
    fail(ErrorKind::Value, "is_nonzero", "expects a tensor of one element, got shape " + t.shape().str());
  return any(t);
}

double l2_norm(const Tensor& t) {
  const char* op = "l2_norm";
  require_host_addressable(t.device(), op);
  return dispatch<kAllTypes>(t.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* d = t.data<T>();
    double sum = 0;
    for (int64_t i = 0; i < t.numel(); ++i) {
      if constexpr (is_complex_v<T>) sum += double(std::norm(d[i]));
      else sum += double(d[i]) * double(d[i]);
    }
    return std::sqrt(sum);
  });
}

Tensor argmax(const Tensor& t) { return arg_extremum<true>(t); }
Tensor argmin(const Tensor& t) { return arg_extremum<false>(t); }
Tensor argmax(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  return arg_extremum_axes<true>(t, axes, keepdims);
}
Tensor argmin(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  return arg_extremum_axes<false>(t, axes, keepdims);
}

}  // namespace tramel
