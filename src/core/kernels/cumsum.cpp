// Host kernel of running sums along one axis (cumsum, and its gradient: the
// same sums taken from the other end). Rows are scanned as in the sums
// (Note [reduction layout]).
#include <algorithm>

#include "core/kernels/reduce_loops.h"

namespace tramel {
namespace {

template <typename A>
TRAMEL_BODY void add_constant_body(A* x, int64_t n, A v) {
  for (int64_t i = 0; i < n; ++i) x[i] = fn::Add{}(x[i], v);
}
TRAMEL_VECTORIZE(add_constant)

// Running sums of one contiguous row of n, from its end when Rev. A single
// chain of additions would wait on the adder's latency for every element, so
// each block is cut into K segments scanned side by side from zero; the
// segments' offsets are added afterwards, while the block is still in L1.
template <bool Rev, typename In, typename A>
void scan_row(const In* x, A* out, int64_t n) {
  constexpr int K = 8;
  constexpr int64_t kBlock = 4096;
  // Element p of the scan order lives at position at(p).
  auto at = [n](int64_t p) { return Rev ? n - 1 - p : p; };
  A carry = A(0);
  for (int64_t b = 0; b < n; b += kBlock) {
    int64_t len = std::min(kBlock, n - b), m = len / K;
    A acc[K] = {};
    for (int64_t i = 0; i < m; ++i)
      for (int j = 0; j < K; ++j) {
        int64_t q = at(b + j * m + i);
        acc[j] = fn::Add{}(acc[j], A(x[q]));
        out[q] = acc[j];
      }
    for (int j = 0; j < K && m > 0; ++j) {
      // Segment j covers scan positions [b + j m, b + (j + 1) m).
      int64_t lo = Rev ? at(b + (j + 1) * m - 1) : at(b + j * m);
      add_constant(out + lo, m, carry);
      carry = fn::Add{}(carry, acc[j]);
    }
    for (int64_t p = b + K * m; p < b + len; ++p) {
      carry = fn::Add{}(carry, A(x[at(p)]));
      out[at(p)] = carry;
    }
  }
}

// out[k, i] = running sum over rows up to k (from row r - 1 down when Rev),
// for i < n; rows `stride` apart. Each step adds a whole row: it vectorises.
template <bool Rev, typename In, typename A>
TRAMEL_BODY void scan_rows_body(std::bool_constant<Rev>, const In* x, A* out, int64_t r, int64_t stride, int64_t n) {
  for (int64_t s = 0; s < r; ++s) {
    int64_t k = Rev ? r - 1 - s : s;
    const In* src = x + k * stride;
    A* dst = out + k * stride;
    if (s == 0) {
      for (int64_t i = 0; i < n; ++i) dst[i] = A(src[i]);
    } else {
      const A* prev = dst + (Rev ? stride : -stride);
      for (int64_t i = 0; i < n; ++i) dst[i] = fn::Add{}(prev[i], A(src[i]));
    }
  }
}
TRAMEL_VECTORIZE(scan_rows)

template <bool Rev>
void scan(const Tensor& t, Tensor& out, int64_t outer, int64_t r, int64_t inner) {
  dispatch<kAllTypes>(t.dtype(), Rev ? "cumsumgrad" : "cumsum", [&](auto tag) {
    using In = typename decltype(tag)::type;
    using A = acc_t<In>;
    const In* x = t.data<In>();
    A* o = out.data<A>();
    if (inner == 1) {
      parallel_for(outer, std::max<int64_t>(1, kParallelGrain / r), [&](int64_t b, int64_t e) {
        for (int64_t k = b; k < e; ++k) scan_row<Rev>(x + k * r, o + k * r, r);
      });
      return;
    }
    int64_t cblocks = (inner + kColumnBlock - 1) / kColumnBlock;
    int64_t grain = std::max<int64_t>(1, kParallelGrain / (r * std::min(inner, kColumnBlock)));
    parallel_for(outer * cblocks, grain, [&](int64_t b, int64_t e) {
      for (int64_t w = b; w < e; ++w) {
        int64_t k = w / cblocks, c = (w % cblocks) * kColumnBlock;
        scan_rows(std::bool_constant<Rev>{}, x + k * r * inner + c, o + k * r * inner + c, r, inner,
                  std::min(kColumnBlock, inner - c));
      }
    });
  });
}

void cumsum(const Tensor& t, Tensor& out, int64_t outer, int64_t r, int64_t inner, bool reverse) {
  if (reverse) scan<true>(t, out, outer, r, inner);
  else scan<false>(t, out, outer, r, inner);
}

}  // namespace

void add_cumsum_kernels(Kernels& k) { k.cumsum = cumsum; }

}  // namespace tramel
