// Host kernels of the whole-tensor queries and the arg-reductions.
#include <algorithm>
#include <cmath>

#include "core/kernels/host_kernels.h"

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
  return dispatch<kAllTypes>(t.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* d = t.data<T>();
    for (int64_t i = 0; i < t.numel(); ++i)
      if (pred(d[i])) return true;
    return false;
  });
}

bool all_nonzero(const Tensor& t) {
  return !find_any(t, "all", [](auto v) { return !nonzero(v); });
}

bool any_nonzero(const Tensor& t) {
  return find_any(t, "any", [](auto v) { return nonzero(v); });
}

double norm2(const Tensor& t) {
  return dispatch<kAllTypes>(t.dtype(), "l2_norm", [&](auto tag) {
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

// Which value wins: numpy's rule, the first NaN beats everything, else the
// first strict extremum.
template <bool Max, typename T>
bool better(T candidate, T best) {
  if (is_nan(best)) return false;
  if (is_nan(candidate)) return true;
  return Max ? candidate > best : candidate < best;
}

template <bool Max>
void arg_extremum(const Tensor& t, Tensor& out) {
  int64_t best_index = dispatch<kRealTypes>(t.dtype(), Max ? "argmax" : "argmin", [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* d = t.data<T>();
    int64_t best = 0;
    for (int64_t i = 1; i < t.numel(); ++i)
      if (better<Max>(d[i], d[best])) best = i;
    return best;
  });
  out.data<int64_t>()[0] = best_index;
}

template <bool Max>
void arg_extremum_axes(const Tensor& t, Tensor& out, const bool* reduced) {
  const Shape& shape = t.shape();
  int ndim = t.ndim();
  // The kept and reduced axes with their element strides.
  int64_t stride[kMaxRank];
  int kept[kMaxRank], nkept = 0, red[kMaxRank], nred = 0;
  int64_t block = 1, running = 1;
  for (int i = ndim - 1; i >= 0; --i) {
    stride[i] = running;
    running *= shape[i];
  }
  for (int i = 0; i < ndim; ++i) {
    if (reduced[i]) red[nred++] = i, block *= shape[i];
    else kept[nkept++] = i;
  }
  int64_t nout = out.numel();
  dispatch<kRealTypes>(t.dtype(), Max ? "argmax" : "argmin", [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* d = t.data<T>();
    int64_t* o = out.data<int64_t>();
    for (int64_t k = 0; k < nout; ++k) {
      // Offset of the block's first element from the kept coordinates of k.
      int64_t base = 0, rest = k;
      for (int j = nkept - 1; j >= 0; --j) {
        int ax = kept[j];
        base += (rest % shape[ax]) * stride[ax];
        rest /= shape[ax];
      }
      int64_t best = 0, best_offset = base;
      for (int64_t r = 1; r < block; ++r) {
        int64_t offset = base, rr = r;
        for (int j = nred - 1; j >= 0; --j) {
          int ax = red[j];
          offset += (rr % shape[ax]) * stride[ax];
          rr /= shape[ax];
        }
        if (better<Max>(d[offset], d[best_offset])) best = r, best_offset = offset;
      }
      o[k] = best;
    }
  });
}

}  // namespace

void add_reduce_kernels(Kernels& k) {
  k.all = all_nonzero;
  k.any = any_nonzero;
  k.l2_norm = norm2;
  k.argmax = arg_extremum<true>;
  k.argmin = arg_extremum<false>;
  k.argmax_axes = arg_extremum_axes<true>;
  k.argmin_axes = arg_extremum_axes<false>;
}

}  // namespace tramel
