// Host kernels of transposes and flips. Neither looks at element values, so
// both copy elements as raw bits of their width.
#include <cstring>
#include <vector>

#include "core/kernels/loops.h"

namespace tramel {
namespace {

// A permutation with axes of length one dropped and axes that stay adjacent
// and in order merged: in_dims are the merged input axes, and output axis i
// is input axis perm[i].
struct Coalesced {
  int rank = 0;
  int64_t in_dims[kMaxRank];
  int perm[kMaxRank];
};

Coalesced coalesce(const Shape& shape, const int* perm, int ndim) {
  int index[kMaxRank], kept = 0;  // input axis -> its index once ones are dropped
  int64_t dims[kMaxRank];
  for (int i = 0; i < ndim; ++i)
    if (shape[i] != 1) index[i] = kept, dims[kept++] = shape[i];
  int p[kMaxRank], n = 0;
  for (int i = 0; i < ndim; ++i)
    if (shape[perm[i]] != 1) p[n++] = index[perm[i]];
  // Groups of output axes whose input axes are consecutive.
  int start[kMaxRank], groups = 0;
  for (int i = 0; i < n; ++i)
    if (i == 0 || p[i] != p[i - 1] + 1) start[groups++] = i;
  Coalesced c;
  c.rank = groups;
  int first[kMaxRank];  // first input axis of each group
  for (int g = 0; g < groups; ++g) first[g] = p[start[g]];
  for (int g = 0; g < groups; ++g) {
    int end = g + 1 < groups ? start[g + 1] : n;
    int64_t size = 1;
    for (int i = start[g]; i < end; ++i) size *= dims[p[i]];
    int rank = 0;  // place of this group in input order
    for (int h = 0; h < groups; ++h) rank += first[h] < first[g];
    c.perm[g] = rank;
    c.in_dims[rank] = size;
  }
  return c;
}

// Tile edge of the blocked transpose: a tile of each side fits in L1.
template <typename U> constexpr int64_t tile_edge() {
  return sizeof(U) >= 16 ? 16 : sizeof(U) >= 8 ? 32 : 64;
}

template <typename U>
void transpose_copy(const U* in, U* out, const Coalesced& c) {
  int m = c.rank;
  int64_t numel = 1, in_stride[kMaxRank] = {}, od[kMaxRank] = {}, is[kMaxRank] = {}, os[kMaxRank] = {};
  for (int k = m - 1; k >= 0; --k) in_stride[k] = numel, numel *= c.in_dims[k];
  int64_t run = 1;
  for (int i = m - 1; i >= 0; --i) {
    od[i] = c.in_dims[c.perm[i]];
    is[i] = in_stride[c.perm[i]];
    os[i] = run;
    run *= od[i];
  }
  if (c.perm[m - 1] == m - 1) {
    // The input's last axis stays last: whole rows are copied.
    // Rows go in runs along output axis m - 2 (a tight loop: one stride), and
    // an odometer over the outer axes finds where the next run starts (a
    // division per axis only at the start of a thread's range). Short rows are
    // copied by a plain loop rather than a memcpy call.
    int64_t len = od[m - 1], rows = numel / len, inner = od[m - 2], step = is[m - 2];
    bool short_rows = len * int64_t(sizeof(U)) <= 64;
    parallel_for(rows, std::max<int64_t>(1, kParallelGrain / len), [&](int64_t b, int64_t e) {
      int64_t index[kMaxRank] = {}, src = 0, rest = b;
      for (int i = m - 2; i >= 0; --i) index[i] = rest % od[i], src += index[i] * is[i], rest /= od[i];
      for (int64_t w = b; w < e;) {
        int64_t run = std::min(inner - index[m - 2], e - w);
        U* d = out + w * len;
        const U* s = in + src;
        if (short_rows) {
          for (int64_t t = 0; t < run; ++t)
            for (int64_t k = 0; k < len; ++k) d[t * len + k] = s[t * step + k];
        } else {
          for (int64_t t = 0; t < run; ++t) std::memcpy(d + t * len, s + t * step, size_t(len) * sizeof(U));
        }
        w += run;
        src += run * step;
        index[m - 2] += run;
        if (index[m - 2] < inner) continue;
        src -= inner * step;
        index[m - 2] = 0;
        for (int i = m - 3; i >= 0; --i) {  // the next run's start
          src += is[i];
          if (++index[i] < od[i]) break;
          src -= index[i] * is[i];
          index[i] = 0;
        }
      }
    });
    return;
  }
  // Tiles over output axis q (the input's last axis, contiguous in the input)
  // and the output's last axis (contiguous in the output): reads and writes
  // both stay within a few cache lines per tile.
  int q = 0;
  while (c.perm[q] != m - 1) ++q;
  constexpr int64_t T = tile_edge<U>();
  int64_t na = od[q], nb = od[m - 1], sa = os[q], sb = is[m - 1];
  int64_t others = numel / (na * nb), atiles = (na + T - 1) / T;
  parallel_for(others * atiles, std::max<int64_t>(1, kParallelGrain / (T * nb)), [&](int64_t b, int64_t e) {
    for (int64_t w = b; w < e; ++w) {
      int64_t a0 = (w % atiles) * T, a1 = std::min(a0 + T, na);
      int64_t src = 0, dst = 0, rest = w / atiles;
      for (int i = m - 2; i >= 0; --i) {
        if (i == q) continue;
        int64_t ci = rest % od[i];
        rest /= od[i];
        src += ci * is[i];
        dst += ci * os[i];
      }
      for (int64_t b0 = 0; b0 < nb; b0 += T) {
        int64_t b1 = std::min(b0 + T, nb);
        for (int64_t a = a0; a < a1; ++a) {
          const U* s = in + src + a;
          U* d = out + dst + a * sa;
          for (int64_t j = b0; j < b1; ++j) d[j] = s[j * sb];
        }
      }
    }
  });
}

template <typename U>
TRAMEL_BODY void reverse_copy_body(const U* in, U* out, int64_t n) {
  for (int64_t i = 0; i < n; ++i) out[i] = in[n - 1 - i];
}
TRAMEL_VECTORIZE(reverse_copy)

// out (not empty) is in with its axes in the order perm.
void transpose(const Tensor& t, Tensor& out, const int* perm) {
  Coalesced c = coalesce(t.shape(), perm, t.ndim());
  if (c.rank <= 1) {  // the same element order
    std::memcpy(out.raw(), t.raw(), t.nbytes());
    return;
  }
  dispatch_bits(t.dtype(), "transpose", [&](auto tag) {
    using U = typename decltype(tag)::type;
    transpose_copy(static_cast<const U*>(t.raw()), static_cast<U*>(out.raw()), c);
  });
}

// out (not empty) is t reversed along the axes flagged in `flipped`.
void flip(const Tensor& t, Tensor& out, const bool* flipped) {
  // Axes of length one drop out; neighbours flipped alike merge, since
  // reversing both of two adjacent axes reverses their product.
  int64_t d[kMaxRank];
  bool f[kMaxRank];
  int m = 0;
  for (int i = 0; i < t.ndim(); ++i) {
    if (t.shape()[i] == 1) continue;
    if (m > 0 && f[m - 1] == flipped[i]) d[m - 1] *= t.shape()[i];
    else d[m] = t.shape()[i], f[m] = flipped[i], ++m;
  }
  bool any = false;
  for (int i = 0; i < m; ++i) any = any || f[i];
  if (!any) {
    std::memcpy(out.raw(), t.raw(), t.nbytes());
    return;
  }
  dispatch_bits(t.dtype(), "flip", [&](auto tag) {
    using U = typename decltype(tag)::type;
    const U* in = static_cast<const U*>(t.raw());
    U* o = static_cast<U*>(out.raw());
    int64_t len = d[m - 1], rows = out.numel() / len;
    int64_t stride[kMaxRank], run = 1;
    for (int i = m - 1; i >= 0; --i) stride[i] = run, run *= d[i];
    parallel_for(rows, std::max<int64_t>(1, kParallelGrain / len), [&](int64_t b, int64_t e) {
      for (int64_t w = b; w < e; ++w) {
        int64_t src = 0, rest = w;
        for (int i = m - 2; i >= 0; --i) {
          int64_t ci = rest % d[i];
          rest /= d[i];
          src += (f[i] ? d[i] - 1 - ci : ci) * stride[i];
        }
        if (f[m - 1]) reverse_copy(in + src, o + w * len, len);
        else std::memcpy(o + w * len, in + src, size_t(len) * sizeof(U));
      }
    });
  });
}

}  // namespace

void add_permute_kernels(Kernels& k) {
  k.transpose = transpose;
  k.flip = flip;
}

}  // namespace tramel
