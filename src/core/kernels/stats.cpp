// Host kernels of extrema, medians and variances over axes.
// The loop layout is that of the sums (Note [reduction layout]).
#include <algorithm>
#include <memory>
#include <vector>

#include "core/kernels/reduce_loops.h"

namespace tramel {
namespace {

// ---- min and max ----

// numpy's rule, a NaN on either side wins (m keeps a NaN a, the second
// select a NaN b). Two plain selects: the vector clones of chains of these
// run near memory speed, those of fn::Maximum's `||` at half of it.
template <bool Max>
struct Extremum {
  template <typename T> TRAMEL_HD T operator()(T a, T b) const {
    T m = (Max ? b > a : b < a) ? b : a;
    return fn::isnan_v(b) ? b : m;
  }
};

// f folded over n >= 1 contiguous elements, in independent lanes so that
// the loop vectorises. Extremum lets a NaN win, so a NaN anywhere reaches
// the result.
template <typename T, typename F>
TRAMEL_BODY T fold_lanes_body(const T* x, int64_t n, F f) {
  constexpr int L = 128 / sizeof(T) > 0 ? 128 / sizeof(T) : 1;
  int64_t i = 0;
  T r = x[0];
  if (n >= L) {
    T acc[L];
    for (int j = 0; j < L; ++j) acc[j] = x[j];
    for (i = L; i + L <= n; i += L)
      for (int j = 0; j < L; ++j) acc[j] = f(acc[j], x[i + j]);
    for (int j = 0; j < L; ++j) r = f(r, acc[j]);
  }
  for (; i < n; ++i) r = f(r, x[i]);
  return r;
}
TRAMEL_VECTORIZE(fold_lanes)

template <typename T, typename F>
T fold_run(const T* x, int64_t n, F f) {
  if (n <= kParallelGrain) return fold_lanes(x, n, f);
  constexpr int64_t kChunk = kParallelGrain;
  int64_t chunks = (n + kChunk - 1) / kChunk;
  std::unique_ptr<T[]> part(new T[size_t(chunks)]);
  parallel_for(chunks, 1, [&](int64_t b, int64_t e) {
    for (int64_t k = b; k < e; ++k) part[k] = fold_lanes(x + k * kChunk, std::min(kChunk, n - k * kChunk), f);
  });
  return fold_lanes(part.get(), chunks, f);
}

template <typename T, typename F>
void extremum_block(const T* x, T* out, int64_t outer, int64_t r, int64_t inner, F f) {
  if (inner > 1) {
    fold_columns(x, out, outer, r, inner, f);
  } else if (outer == 1) {
    out[0] = fold_run(x, r, f);
  } else {
    parallel_for(outer, std::max<int64_t>(1, kParallelGrain / r), [&](int64_t b, int64_t e) {
      for (int64_t o = b; o < e; ++o) out[o] = fold_lanes(x + o * r, r, f);
    });
  }
}

template <bool Max>
void extremum_pass(const Tensor& in, Tensor& out, int64_t outer, int64_t r, int64_t inner) {
  dispatch<kRealTypes>(in.dtype(), Max ? "max" : "min", [&](auto tag) {
    using T = typename decltype(tag)::type;
    extremum_block(in.data<T>(), out.data<T>(), outer, r, inner, Extremum<Max>{});
  });
}

// ---- variance and standard deviation ----

// acc[i] = sum_k (x[k stride + i] - mean[i])^2 for i < n.
template <typename R>
TRAMEL_BODY void sq_dev_rows_body(const R* x, const R* mean, R* acc, int64_t r, int64_t stride, int64_t n) {
  for (int64_t i = 0; i < n; ++i) acc[i] = R(0);
  for (int64_t k = 0; k < r; ++k) {
    const R* s = x + k * stride;
    for (int64_t i = 0; i < n; ++i) {
      R d = s[i] - mean[i];
      acc[i] += d * d;
    }
  }
}
TRAMEL_VECTORIZE(sq_dev_rows)

// Squared deviations summed per output element, divided by `divisor`, for an
// [outer, r, inner] block of T with r >= 1. Complex elements are pairs of
// reals: |z - m|^2 is the sum of both parts' squared deviations.
template <bool Sqrt, typename T, typename R = fn::real_of_t<T>>
void spread_pass(const T* x, R* out, int64_t outer, int64_t r, int64_t inner, double divisor) {
  auto finish = [divisor](double sq) { return R(Sqrt ? std::sqrt(sq / divisor) : sq / divisor); };
  if (inner == 1) {
    auto row = [&](int64_t o, bool parallel) {
      T m = sum_run(x + o * r, r, parallel);
      if constexpr (is_complex_v<T>) m = T(m.real() / R(r), m.imag() / R(r));
      else m = T(m / T(r));
      out[o] = finish(sq_dev_run(x + o * r, r, m, parallel));
    };
    if (outer == 1) row(0, true);
    else
      parallel_for(outer, std::max<int64_t>(1, kParallelGrain / r), [&](int64_t b, int64_t e) {
        for (int64_t o = b; o < e; ++o) row(o, false);
      });
    return;
  }
  constexpr int64_t per = is_complex_v<T> ? 2 : 1;
  const R* xr = reinterpret_cast<const R*>(x);
  int64_t width = inner * per, cblocks = (width + kColumnBlock - 1) / kColumnBlock;
  int64_t grain = std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(r * std::min(width, kColumnBlock), 1));
  parallel_for(outer * cblocks, grain, [&](int64_t b, int64_t e) {
    std::vector<R> mean(static_cast<size_t>(kColumnBlock)), acc(static_cast<size_t>(kColumnBlock));
    for (int64_t w = b; w < e; ++w) {
      int64_t o = w / cblocks, c = (w % cblocks) * kColumnBlock, n = std::min(kColumnBlock, width - c);
      const R* base = xr + o * r * width + c;
      fold_rows(base, mean.data(), r, width, n, fn::Add{});
      for (int64_t i = 0; i < n; ++i) mean[size_t(i)] /= R(r);
      sq_dev_rows(base, mean.data(), acc.data(), r, width, n);
      R* dst = out + (o * width + c) / per;
      for (int64_t i = 0; i < n / per; ++i)
        dst[i] = finish(per == 2 ? double(acc[size_t(2 * i)]) + double(acc[size_t(2 * i + 1)]) : double(acc[size_t(i)]));
    }
  });
}

void spread(const Tensor& x, Tensor& out, int64_t outer, int64_t r, int64_t inner, double divisor, bool sqrt) {
  dispatch<kFloatingTypes | kComplexTypes>(x.dtype(), sqrt ? "std" : "var", [&](auto tag) {
    using T = typename decltype(tag)::type;
    if (sqrt) spread_pass<true>(x.data<T>(), out.data<fn::real_of_t<T>>(), outer, r, inner, divisor);
    else spread_pass<false>(x.data<T>(), out.data<fn::real_of_t<T>>(), outer, r, inner, divisor);
  });
}

// ---- median ----

// The median of a row of n >= 1 elements, reordering it: the middle element,
// or for an even count the mean of the two middle ones; NaN when a NaN is
// present. Integers and bools average in double.
template <typename T>
auto row_median(T* row, int64_t n) {
  using V = std::conditional_t<std::is_floating_point_v<T>, T, double>;
  if constexpr (std::is_floating_point_v<T>)
    for (int64_t i = 0; i < n; ++i)
      if (row[i] != row[i]) return row[i];
  int64_t k = (n - 1) / 2;
  std::nth_element(row, row + k, row + n);
  V lo = V(row[k]);
  if (n % 2) return lo;
  V hi = V(*std::min_element(row + k + 1, row + n));
  return V((lo + hi) / V(2));
}

void median(Tensor& work, Tensor& out, int64_t outer, int64_t r) {
  const char* op = "median";
  dispatch<kRealTypes>(work.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* w = work.data<T>();
    dispatch<kFloatingTypes>(out.dtype(), op, [&](auto otag) {
      using O = typename decltype(otag)::type;
      O* o = out.data<O>();
      parallel_for(outer, std::max<int64_t>(1, kParallelGrain / r), [&](int64_t b, int64_t e) {
        for (int64_t i = b; i < e; ++i) o[i] = O(row_median(w + i * r, r));
      });
    });
  });
}

}  // namespace

void add_stats_kernels(Kernels& k) {
  k.min_pass = extremum_pass<false>;
  k.max_pass = extremum_pass<true>;
  k.spread_pass = spread;
  k.median = median;
}

}  // namespace tramel
