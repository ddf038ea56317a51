// Host kernels of the matrix parts (Kronecker product, triangles, trace),
// the complex parts and the 2-norm along an axis. The LAPACK kernels are in
// spectral.cpp.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "core/kernels/functors.h"
#include "core/kernels/host_kernels.h"
#include "core/kernels/reduce_loops.h"
#include "core/parallel.h"

namespace tramel {
namespace {

// ---- Kronecker product ----

// Element (i_0, ..., i_k) of a factor of shape `s` lands in the product at
// sum_k i_k * mult[k] (plus the other factor's share): the flat offsets of
// all its elements, in row-major order.
std::vector<int64_t> placements(const Shape& s, const int64_t* mult) {
  std::vector<int64_t> off(size_t(s.numel()));
  int64_t idx[kMaxRank] = {}, cur = 0;
  for (size_t f = 0; f < off.size(); ++f) {
    off[f] = cur;
    for (int k = s.rank() - 1; k >= 0; --k) {
      if (++idx[k] < s[k]) {
        cur += mult[k];
        break;
      }
      cur -= (s[k] - 1) * mult[k];
      idx[k] = 0;
    }
  }
  return off;
}

// The offsets of a's and b's elements in their product `out` (one rank):
// axis k of out is a_k * b_k long, coordinate i_k * b_k + j_k.
void kron_placements(const Shape& a, const Shape& b, const Shape& out, std::vector<int64_t>& pa,
                     std::vector<int64_t>& pb) {
  int64_t stride[kMaxRank], mult_a[kMaxRank];
  for (int k = out.rank() - 1, s = 1; k >= 0; --k) {
    stride[k] = s;
    mult_a[k] = b[k] * s;
    s *= out[k];
  }
  pa = placements(a, mult_a);
  pb = placements(b, stride);
}

void kron(const Tensor& a, const Tensor& b, Tensor& out) {
  std::vector<int64_t> pa, pb;
  kron_placements(a.shape(), b.shape(), out.shape(), pa, pb);
  dispatch<kAllTypes>(out.dtype(), "kron", [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T *x = a.data<T>(), *y = b.data<T>();
    T* o = out.data<T>();
    int64_t nb = b.numel();
    parallel_for(a.numel(), std::max<int64_t>(1, kParallelGrain / nb), [&](int64_t lo, int64_t hi) {
      for (int64_t i = lo; i < hi; ++i) {
        T* base = o + pa[size_t(i)];
        for (int64_t j = 0; j < nb; ++j) base[pb[size_t(j)]] = fn::Mul{}(x[i], y[j]);
      }
    });
  });
}

// Each element of the factor `out` collects g over its block (left) or over
// its position in every block (right), times the conjugate of the partner.
void kron_grad(const Tensor& g, const Tensor& other, Tensor& out, bool left) {
  std::vector<int64_t> pa, pb;
  const Tensor& a = left ? out : other;
  const Tensor& b = left ? other : out;
  kron_placements(a.shape(), b.shape(), g.shape(), pa, pb);
  const std::vector<int64_t>& mine = left ? pa : pb;
  const std::vector<int64_t>& theirs = left ? pb : pa;
  dispatch<kAllTypes>(out.dtype(), left ? "kron_t1grad" : "kron_t2grad", [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T *gd = g.data<T>(), *y = other.data<T>();
    T* o = out.data<T>();
    int64_t n = other.numel();
    parallel_for(out.numel(), std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(n, 1)), [&](int64_t lo, int64_t hi) {
      for (int64_t i = lo; i < hi; ++i) {
        const T* base = gd + mine[size_t(i)];
        T s = T(0);
        for (int64_t j = 0; j < n; ++j) s = fn::Add{}(s, fn::Mul{}(base[theirs[size_t(j)]], fn::conj(y[j])));
        o[i] = s;
      }
    });
  });
}

// ---- triangles and diagonals ----

void triangle(const Tensor& in, Tensor& out, int64_t diagonal, bool upper) {
  const Shape& s = in.shape();
  int64_t rows = s[s.rank() - 2], cols = s[s.rank() - 1];
  size_t item = itemsize(in.dtype());
  // Past these bounds nothing or everything of a row is kept; clamped, row + d cannot overflow.
  int64_t d = std::clamp(diagonal, -rows, cols);
  const char* src = static_cast<const char*>(in.raw());
  char* dst = static_cast<char*>(out.raw());
  parallel_for(in.numel() / std::max<int64_t>(cols, 1), std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(cols, 1)),
               [&](int64_t lo, int64_t hi) {
                 for (int64_t row = lo; row < hi; ++row) {
                   int64_t r = row % rows;
                   // Kept: columns [begin, end) of this row.
                   int64_t begin = upper ? std::clamp(r + d, int64_t(0), cols) : 0;
                   int64_t end = upper ? cols : std::clamp(r + d + 1, int64_t(0), cols);
                   size_t at = size_t(row * cols) * item;
                   std::memset(dst + at, 0, size_t(begin) * item);
                   if (end > begin) std::memcpy(dst + at + begin * item, src + at + begin * item, size_t(end - begin) * item);
                   std::memset(dst + at + end * item, 0, size_t(cols - end) * item);
                 }
               });
}

void trace(const Tensor& in, Tensor& out, DiagonalRun run) {
  const Shape& s = in.shape();
  int64_t cols = s[s.rank() - 1], matrix = s[s.rank() - 2] * cols;
  dispatch<kAllTypes>(in.dtype(), "trace", [&](auto tag) {
    using In = typename decltype(tag)::type;
    using A = acc_t<In>;
    const In* x = in.data<In>();
    A* o = out.data<A>();
    for (int64_t b = 0; b < out.numel(); ++b) {
      const In* p = x + b * matrix + run.start;
      A sum = A(0);
      for (int64_t i = 0; i < run.count; ++i) sum = fn::Add{}(sum, cast_value<A>(p[i * (cols + 1)]));
      o[b] = sum;
    }
  });
}

void trace_grad(const Tensor& g, Tensor& out, DiagonalRun run) {
  const Shape& s = out.shape();
  int64_t cols = s[s.rank() - 1], matrix = s[s.rank() - 2] * cols;
  std::memset(out.raw(), 0, out.nbytes());
  dispatch<kAllTypes>(g.dtype(), "trace_grad", [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* gd = g.data<T>();
    T* o = out.data<T>();
    for (int64_t b = 0; b < g.numel(); ++b)
      for (int64_t i = 0; i < run.count; ++i) o[b * matrix + run.start + i * (cols + 1)] = gd[b];
  });
}

// ---- complex parts ----

template <bool Imag>
void complex_part(const Tensor& in, Tensor& out) {
  dispatch<kComplexTypes>(in.dtype(), Imag ? "imag" : "real", [&](auto tag) {
    using T = typename decltype(tag)::type;
    using R = decltype(std::abs(T()));
    const T* x = in.data<T>();
    R* o = out.data<R>();
    parallel_for(in.numel(), kParallelGrain, [&](int64_t lo, int64_t hi) {
      for (int64_t i = lo; i < hi; ++i) o[i] = Imag ? std::imag(x[i]) : std::real(x[i]);
    });
  });
}

// ---- the 2-norm along an axis ----

// Columns of `inner` are taken in blocks of this many, summed in double.
constexpr int64_t kNormBlock = 256;

template <typename T>
inline double squared(T v) {
  if constexpr (is_complex_v<T>) return double(v.real()) * double(v.real()) + double(v.imag()) * double(v.imag());
  else return double(v) * double(v);
}

// Calls body(o, c, len) for each block of columns c..c+len of each outer index o.
template <typename F>
void for_column_blocks(int64_t outer, int64_t r, int64_t inner, F&& body) {
  int64_t blocks = (inner + kNormBlock - 1) / kNormBlock;
  int64_t grain = std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(r * std::min(inner, kNormBlock), 1));
  parallel_for(outer * blocks, grain, [&](int64_t lo, int64_t hi) {
    for (int64_t w = lo; w < hi; ++w) {
      int64_t o = w / blocks, c = (w % blocks) * kNormBlock;
      body(o, c, std::min(kNormBlock, inner - c));
    }
  });
}

void norm_axis(const Tensor& in, Tensor& norm, Tensor& square_sum, int64_t outer, int64_t r, int64_t inner) {
  dispatch<kFloatingTypes | kComplexTypes>(in.dtype(), "l2_norm", [&](auto tag) {
    using T = typename decltype(tag)::type;
    using R = decltype(std::abs(T()));
    const T* x = in.data<T>();
    R *nd = norm.data<R>(), *sd = square_sum.data<R>();
    for_column_blocks(outer, r, inner, [&](int64_t o, int64_t c, int64_t len) {
      double acc[kNormBlock] = {};
      for (int64_t k = 0; k < r; ++k) {
        const T* row = x + (o * r + k) * inner + c;
        for (int64_t i = 0; i < len; ++i) acc[i] += squared(row[i]);
      }
      for (int64_t i = 0; i < len; ++i) {
        sd[o * inner + c + i] = R(acc[i]);
        nd[o * inner + c + i] = R(std::sqrt(acc[i]));
      }
    });
  });
}

void norm_axis_grad(const Tensor& x, const Tensor& square_sum, const Tensor& g, Tensor& out, int64_t outer,
                    int64_t r, int64_t inner) {
  dispatch<kFloatingTypes | kComplexTypes>(out.dtype(), "l2_norm_grad", [&](auto tag) {
    using T = typename decltype(tag)::type;
    using R = decltype(std::abs(T()));
    const T* xd = x.data<T>();
    const R *sd = square_sum.data<R>(), *gd = g.data<R>();
    T* o = out.data<T>();
    for_column_blocks(outer, r, inner, [&](int64_t ob, int64_t c, int64_t len) {
      R factor[kNormBlock];
      for (int64_t i = 0; i < len; ++i) {
        R ss = sd[ob * inner + c + i];
        factor[i] = ss > R(0) ? gd[ob * inner + c + i] / std::sqrt(ss) : R(0);
      }
      for (int64_t k = 0; k < r; ++k) {
        int64_t at = (ob * r + k) * inner + c;
        for (int64_t i = 0; i < len; ++i) o[at + i] = xd[at + i] * factor[i];
      }
    });
  });
}

}  // namespace

void add_linalg_kernels(Kernels& k) {
  k.kron = kron;
  k.kron_grad = kron_grad;
  k.triangle = triangle;
  k.trace = trace;
  k.trace_grad = trace_grad;
  k.real = complex_part<false>;
  k.imag = complex_part<true>;
  k.norm_axis = norm_axis;
  k.norm_axis_grad = norm_axis_grad;
}

}  // namespace tramel
