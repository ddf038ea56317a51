// The loops the axis reductions share: contiguous sums of runs and folds of
// whole rows. Included by kernel files only; the plan of an axes list and
// the pass driver are the fronts' (ops/reduce_plan.h).
//
// Note [reduction layout]
// An axis reduction never strides through memory in its innermost loop. A
// run of adjacent reduced axes makes the tensor an [outer, r, inner] block:
// with inner == 1 each output element reduces one contiguous row of r
// (lanes of independent accumulators, so the loop vectorises); with
// inner > 1 whole rows of `inner` are folded into an output row, four input
// rows at a time, in column blocks of at most 64 KiB of output. Several runs are reduced one after another when
// the operation is associative (sum, min, max); otherwise the reduced axes
// are first moved to the end by a blocked transpose (var, median).
#pragma once
#include <algorithm>
#include <vector>

#include "core/kernels/loops.h"

namespace tramel {
namespace {

template <typename T> using acc_t = std::conditional_t<std::is_integral_v<T>, int64_t, T>;

// Columns per block of the passes that keep per-column scratch (var, cumsum).
constexpr int64_t kColumnBlock = 2048;

// ---- contiguous sums ----

// Sum of a contiguous run, in blocks: each block sums into many independent
// lanes (vectorised, no reassociation needed), and the block totals add up in
// double, which keeps float32 sums accurate to a few ulp of the exact sum.
constexpr int64_t kSumBlock = 4096;

template <typename R>
TRAMEL_BODY void block_sum_real_body(const R* x, int64_t n, double* even, double* odd) {
  constexpr int L = 128 / sizeof(R);  // four 256-bit registers of lanes
  R acc[L] = {};
  int64_t i = 0;
  for (; i + L <= n; i += L)
    for (int j = 0; j < L; ++j) acc[j] += x[i + j];
  double e = 0, o = 0;
  for (int j = 0; j < L; j += 2) e += double(acc[j]), o += double(acc[j + 1]);
  // The lane count is even, so lane parity is element parity: complex
  // numbers keep their real parts in even lanes and imaginary parts in odd.
  for (; i < n; ++i) ((i & 1) ? o : e) += double(x[i]);
  *even = e;
  *odd = o;
}
TRAMEL_VECTORIZE(block_sum_real)

// Sum of (x[i] - m[i % 2])^2 over a run of reals: the squared deviations of
// real elements (m[0] == m[1]) or of complex ones seen as pairs of reals.
template <typename R>
TRAMEL_BODY double block_sq_dev_body(const R* x, int64_t n, R m_even, R m_odd) {
  constexpr int L = 128 / sizeof(R);
  R acc[L] = {}, m[L];
  for (int j = 0; j < L; ++j) m[j] = (j & 1) ? m_odd : m_even;
  int64_t i = 0;
  for (; i + L <= n; i += L)
    for (int j = 0; j < L; ++j) {
      R d = x[i + j] - m[j];
      acc[j] += d * d;
    }
  double s = 0;
  for (int j = 0; j < L; ++j) s += double(acc[j]);
  for (; i < n; ++i) {
    double d = double(x[i]) - double((i & 1) ? m_odd : m_even);
    s += d * d;
  }
  return s;
}
TRAMEL_VECTORIZE(block_sq_dev)

// Integer sums wrap around in int64, as numpy's do: they are kept in uint64,
// where wrapping is defined (see fn::wrap_t).
template <typename T>
TRAMEL_BODY uint64_t block_sum_int_body(const T* x, int64_t n) {
  uint64_t s = 0;
  for (int64_t i = 0; i < n; ++i) s += uint64_t(int64_t(x[i]));
  return s;
}
TRAMEL_VECTORIZE(block_sum_int)

// Calls body(k, block_begin, block_len) for the kSumBlock-sized blocks of
// [0, n), over threads when `parallel`; `part` gets one slot per block.
template <typename P, typename F>
void for_blocks(int64_t n, int64_t block, bool parallel, std::vector<P>& heap, P* stack, size_t stack_len,
                P** part, F&& body) {
  int64_t blocks = (n + block - 1) / block;
  size_t need = size_t(blocks ? blocks : 1) * 2;
  if (need <= stack_len) {
    *part = stack;
  } else {
    heap.assign(need, P());
    *part = heap.data();
  }
  std::fill(*part, *part + need, P());
  auto run = [&](int64_t b, int64_t e) {
    for (int64_t k = b; k < e; ++k) body(k, k * block, std::min(block, n - k * block));
  };
  if (parallel) parallel_for(blocks, 16, run);
  else run(0, blocks);
}

// Sum of n contiguous elements of T, as acc_t<T>; parallel when `parallel`.
template <typename T>
acc_t<T> sum_run(const T* x, int64_t n, bool parallel) {
  using A = acc_t<T>;
  if constexpr (std::is_integral_v<T>) {
    uint64_t stack[64], *part;
    std::vector<uint64_t> heap;
    for_blocks(n, kSumBlock, parallel, heap, stack, 64, &part,
               [&](int64_t k, int64_t b, int64_t len) { part[k] = block_sum_int(x + b, len); });
    uint64_t s = 0;
    for (int64_t k = 0; k * kSumBlock < n; ++k) s += part[k];
    return A(s);
  } else {
    using R = fn::real_of_t<T>;
    constexpr int64_t per = is_complex_v<T> ? 2 : 1;
    const R* r = reinterpret_cast<const R*>(x);
    double stack[64], *part;
    std::vector<double> heap;
    int64_t nr = n * per;
    for_blocks(nr, kSumBlock * per, parallel, heap, stack, 64, &part, [&](int64_t k, int64_t b, int64_t len) {
      block_sum_real(r + b, len, &part[2 * k], &part[2 * k + 1]);
    });
    double e = 0, o = 0;
    for (int64_t k = 0; k * kSumBlock * per < nr; ++k) e += part[2 * k], o += part[2 * k + 1];
    if constexpr (is_complex_v<T>) return T(R(e), R(o));
    else return T(e + o);
  }
}

// Sum of |x[i] - m|^2 over n contiguous floating or complex elements.
template <typename T>
double sq_dev_run(const T* x, int64_t n, T m, bool parallel) {
  using R = fn::real_of_t<T>;
  constexpr int64_t per = is_complex_v<T> ? 2 : 1;
  const R* r = reinterpret_cast<const R*>(x);
  R me, mo;
  if constexpr (is_complex_v<T>) me = m.real(), mo = m.imag();
  else me = mo = m;
  double stack[64], *part;
  std::vector<double> heap;
  int64_t nr = n * per;
  for_blocks(nr, kSumBlock * per, parallel, heap, stack, 64, &part,
             [&](int64_t k, int64_t b, int64_t len) { part[k] = block_sq_dev(r + b, len, me, mo); });
  double s = 0;
  for (int64_t k = 0; k * kSumBlock * per < nr; ++k) s += part[k];
  return s;
}

// ---- folds of whole rows (inner > 1) ----

// dst[i] = f(...f(A(x[i]), A(x[stride + i]))..., A(x[(r-1) stride + i])) for
// i < n; r >= 1. The loops run along rows, so they vectorise; four rows at a
// time keep the loads and stores of dst to a quarter.
template <typename In, typename A, typename F>
TRAMEL_BODY void fold_rows_body(const In* x, A* dst, int64_t r, int64_t stride, int64_t n, F f) {
  for (int64_t i = 0; i < n; ++i) dst[i] = A(x[i]);
  int64_t k = 1;
  for (; k + 4 <= r; k += 4) {
    const In *s0 = x + k * stride, *s1 = s0 + stride, *s2 = s1 + stride, *s3 = s2 + stride;
    for (int64_t i = 0; i < n; ++i) dst[i] = f(f(f(f(dst[i], A(s0[i])), A(s1[i])), A(s2[i])), A(s3[i]));
  }
  for (; k < r; ++k) {
    const In* s = x + k * stride;
    for (int64_t i = 0; i < n; ++i) dst[i] = f(dst[i], A(s[i]));
  }
}
TRAMEL_VECTORIZE(fold_rows)

// Columns per block of an [outer, r, inner] fold: long rows stream best, so
// blocks are as wide as 64 KiB of output allows, but narrower when there
// are too few of them to share among the threads.
template <typename A>
int64_t column_block(int64_t outer, int64_t r, int64_t inner) {
  int64_t block = std::min<int64_t>(inner, (int64_t(64) << 10) / int64_t(sizeof(A)));
  int64_t threads = get_num_threads();
  if (threads > 1 && r * inner > kParallelGrain && outer * ((inner + block - 1) / block) < 2 * threads)
    block = std::max<int64_t>(256, (inner + 2 * threads - 1) / (2 * threads));
  return block;
}

// out[o, i] = fold over k of x[o, k, i] for an [outer, r, inner] block with
// inner > 1 and r >= 1, split over threads by outer rows and column blocks.
template <typename In, typename A, typename F>
void fold_columns(const In* x, A* out, int64_t outer, int64_t r, int64_t inner, F f) {
  int64_t block = column_block<A>(outer, r, inner), cblocks = (inner + block - 1) / block;
  int64_t grain = std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(r * block, 1));
  parallel_for(outer * cblocks, grain, [&](int64_t b, int64_t e) {
    for (int64_t w = b; w < e; ++w) {
      int64_t o = w / cblocks, c = (w % cblocks) * block;
      fold_rows(x + o * r * inner + c, out + o * inner + c, r, inner, std::min(block, inner - c), f);
    }
  });
}

}  // namespace
}  // namespace tramel
