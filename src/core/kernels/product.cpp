// Host kernel of the matrix products.
//
// Note [product paths]
// Floating and complex products go to BLAS GEMM, the transposition flags
// becoming CBLAS's (CblasTrans, or CblasConjTrans for the conjugate
// transposes of the gradients: never a copy). OpenBLAS
// has small-matrix kernels of its own for float32 and float64, which a plain
// loop did not beat at any size on one thread, so every real product goes
// there. Its complex GEMM costs a fixed 50 to 90 ns even for a 2x2 product,
// and packs its operands, so two kinds of complex product skip it:
//  - matrices of at most kDirectVolume multiply-adds (m * n * k), the 2x2
//    to 8x8 matrices of a circuit or a batch of them;
//  - a product whose left matrix is small (m * k <= kDirectLeft) and whose
//    right one is stored untransposed: a gate on a long state, [2, 2] times
//    [2, 2^(n-1)]. Each row of the result is a short sum of scaled rows of b,
//    computed a block of columns at a time, which streams b at memory speed
//    (4x faster than zgemm for 2 x 32768).
// Both thresholds are where BLAS overtook the direct loop on one thread (see
// docs/performance.md). Integer products (bool computes as int64) always take
// the direct loop, with wrapping arithmetic; so does a product whose
// dimensions do not fit BLAS's 32-bit integers.
#include <climits>
#include <cstring>

#include "core/kernels/blas.h"
#include "core/kernels/loops.h"

namespace tramel {
namespace {

constexpr int64_t kDirectVolume = 8 * 8 * 8;
constexpr int64_t kDirectLeft = 8 * 8;
// Columns of the result computed together: a block of each row of b and c
// stays in L1 while the short sums run over it.
constexpr int64_t kColumnBlock = 256;

template <typename T> TRAMEL_HD inline T madd(T c, T a, T b) {
  if constexpr (fn::is_wrapping_v<T>) return T(fn::wrap_t<T>(c) + fn::wrap_t<T>(a) * fn::wrap_t<T>(b));
  else return c + fn::mul(a, b);
}

// c[0..m) x [j0, j1) of one product, see Note [product paths]. a(i, p) is
// a[i * ar + p * ac]; b is k x n (untransposed) or n x k (tb).
template <typename T>
TRAMEL_BODY void direct_block_body(const T* a, const T* b, T* c, int64_t m, int64_t n, int64_t k, int64_t ar,
                                   int64_t ac, bool tb, bool ca, bool cb, int64_t j0, int64_t j1) {
  if (!tb) {
    for (int64_t jb = j0; jb < j1; jb += kColumnBlock) {
      int64_t je = jb + kColumnBlock < j1 ? jb + kColumnBlock : j1;
      for (int64_t i = 0; i < m; ++i) {
        T* ci = c + i * n;
        for (int64_t p = 0; p < k; ++p) {
          const T s = ca ? fn::conj(a[i * ar + p * ac]) : a[i * ar + p * ac];
          const T* bp = b + p * n;
          if constexpr (is_complex_v<T>) {
            // On the real and imaginary parts: std::complex arrays do not vectorise.
            using R = typename T::value_type;
            const R sr = s.real(), si = s.imag();
            const R* br = reinterpret_cast<const R*>(bp + jb);
            R* cr = reinterpret_cast<R*>(ci + jb);
            const int64_t len = je - jb;
            if (p == 0) {
              for (int64_t j = 0; j < len; ++j) {
                const R x = br[2 * j], y = br[2 * j + 1];
                cr[2 * j] = sr * x - si * y;
                cr[2 * j + 1] = sr * y + si * x;
              }
            } else {
              for (int64_t j = 0; j < len; ++j) {
                const R x = br[2 * j], y = br[2 * j + 1];
                cr[2 * j] += sr * x - si * y;
                cr[2 * j + 1] += sr * y + si * x;
              }
            }
          } else if (p == 0) {
            for (int64_t j = jb; j < je; ++j) ci[j] = fn::mul(s, bp[j]);
          } else {
            for (int64_t j = jb; j < je; ++j) ci[j] = madd(ci[j], s, bp[j]);
          }
        }
      }
    }
    return;
  }
  // b stored n x k: entry (p, j) is b[j * k + p], and each entry of c is a
  // dot product of a row of a with a row of b.
  auto at = [&](int64_t i, int64_t p) { return ca ? fn::conj(a[i * ar + p * ac]) : a[i * ar + p * ac]; };
  for (int64_t i = 0; i < m; ++i)
    for (int64_t j = j0; j < j1; ++j) {
      const T* bj = b + j * k;
      auto bt = [&](int64_t p) { return cb ? fn::conj(bj[p]) : bj[p]; };
      T s = fn::mul(at(i, 0), bt(0));
      for (int64_t p = 1; p < k; ++p) s = madd(s, at(i, p), bt(p));
      c[i * n + j] = s;
    }
}
TRAMEL_VECTORIZE(direct_block)

// c (m x n) = a times b^T for a stored m x k and b stored n x k: each entry a
// dot product of two contiguous rows, the gradient of a gate (g times the
// state's conjugate transpose). The rows are read in chunks that stay in L1
// while all m * n sums take their part; the sums are SIMD reductions.
constexpr int64_t kDotChunk = 512;
template <typename T>
TRAMEL_BODY void dot_rows_body(const T* a, const T* b, T* c, int64_t m, int64_t n, int64_t k, bool cb) {
  for (int64_t i = 0; i < m * n; ++i) c[i] = T(0);
  for (int64_t p0 = 0; p0 < k; p0 += kDotChunk) {
    const int64_t len = p0 + kDotChunk < k ? kDotChunk : k - p0;
    for (int64_t i = 0; i < m; ++i)
      for (int64_t j = 0; j < n; ++j) {
        const T* x = a + i * k + p0;
        const T* y = b + j * k + p0;
        if constexpr (is_complex_v<T>) {
          using R = typename T::value_type;
          const R* xr = reinterpret_cast<const R*>(x);
          const R* yr = reinterpret_cast<const R*>(y);
          R re = 0, im = 0;
          const R sign = cb ? R(-1) : R(1);  // conj(y) flips y's imaginary part
#pragma omp simd reduction(+ : re, im)
          for (int64_t q = 0; q < len; ++q) {
            const R u = xr[2 * q], v = xr[2 * q + 1], w = yr[2 * q], z = sign * yr[2 * q + 1];
            re += u * w - v * z;
            im += u * z + v * w;
          }
          c[i * n + j] += T(re, im);
        } else {
          T sum = c[i * n + j];
          for (int64_t q = 0; q < len; ++q) sum = madd(sum, x[q], y[q]);
          c[i * n + j] = sum;
        }
      }
  }
}
TRAMEL_VECTORIZE(dot_rows)

template <typename T>
void direct_products(const T* a, const T* b, T* c, const ProductShape& p) {
  const int64_t m = p.m, n = p.n, k = p.k;
  if (p.tb && !p.ta) {  // both operands read along their rows
    parallel_for(p.batch, std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, m * n * k)),
                 [&](int64_t begin, int64_t end) {
                   for (int64_t i = begin; i < end; ++i)
                     dot_rows(a + i * m * k, b + i * n * k, c + i * m * n, m, n, k, p.cb);
                 });
    return;
  }
  const int64_t ar = p.ta ? 1 : k, ac = p.ta ? m : 1;
  const int64_t sa = m * k, sb = k * n, sc = m * n;
  // Work items: (matrix, block of columns), split across threads by volume.
  const int64_t blocks = (n + kColumnBlock - 1) / kColumnBlock, items = p.batch * blocks;
  const int64_t per_item = m * k * (n < kColumnBlock ? n : kColumnBlock);
  parallel_for(items, std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, per_item)),
               [&](int64_t begin, int64_t end) {
                 for (int64_t w = begin; w < end; ++w) {
                   int64_t i = w / blocks, j0 = (w % blocks) * kColumnBlock;
                   int64_t j1 = j0 + kColumnBlock < n ? j0 + kColumnBlock : n;
                   direct_block(a + i * sa, b + i * sb, c + i * sc, m, n, k, ar, ac, p.tb, p.ca, p.cb, j0, j1);
                 }
               });
}

// GEMM of one pair, row-major; the dimensions fit int.
void gemm(CBLAS_TRANSPOSE ta, CBLAS_TRANSPOSE tb, int m, int n, int k, const float* a, int lda, const float* b,
          int ldb, float* c) {
  scipy_cblas_sgemm(CblasRowMajor, ta, tb, m, n, k, 1.0f, a, lda, b, ldb, 0.0f, c, n);
}
void gemm(CBLAS_TRANSPOSE ta, CBLAS_TRANSPOSE tb, int m, int n, int k, const double* a, int lda, const double* b,
          int ldb, double* c) {
  scipy_cblas_dgemm(CblasRowMajor, ta, tb, m, n, k, 1.0, a, lda, b, ldb, 0.0, c, n);
}
void gemm(CBLAS_TRANSPOSE ta, CBLAS_TRANSPOSE tb, int m, int n, int k, const c64* a, int lda, const c64* b, int ldb,
          c64* c) {
  const c64 one(1), zero(0);
  scipy_cblas_cgemm(CblasRowMajor, ta, tb, m, n, k, &one, a, lda, b, ldb, &zero, c, n);
}
void gemm(CBLAS_TRANSPOSE ta, CBLAS_TRANSPOSE tb, int m, int n, int k, const c128* a, int lda, const c128* b,
          int ldb, c128* c) {
  const c128 one(1), zero(0);
  scipy_cblas_zgemm(CblasRowMajor, ta, tb, m, n, k, &one, a, lda, b, ldb, &zero, c, n);
}

bool fits_int(const ProductShape& p) { return p.m <= INT_MAX && p.n <= INT_MAX && p.k <= INT_MAX; }

// Whether a product of element type T takes the direct loop (see Note [product paths]).
template <typename T>
bool direct(const ProductShape& p) {
  if (!fits_int(p)) return true;
  if constexpr (!is_complex_v<T>) return false;
  if (p.m * p.n <= kDirectVolume / p.k) return true;  // m * n * k <= kDirectVolume, without overflow
  if (p.tb && !p.ta) return p.m * p.n <= kDirectLeft;  // a small result of long rows
  return !p.tb && p.m * p.k <= kDirectLeft;
}

void product(const Tensor& a, const Tensor& b, Tensor& out, const ProductShape& p) {
  if (p.k == 0) {  // sums of nothing
    std::memset(out.raw(), 0, out.nbytes());
    return;
  }
  dispatch<kIntegralTypes | kFloatingTypes | kComplexTypes>(out.dtype(), "product", [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* x = a.data<T>();
    const T* y = b.data<T>();
    T* z = out.data<T>();
    if constexpr (std::is_integral_v<T>) {
      direct_products(x, y, z, p);
    } else {
      if (direct<T>(p)) return direct_products(x, y, z, p);
      const int m = int(p.m), n = int(p.n), k = int(p.k);
      const int lda = p.ta ? m : k, ldb = p.tb ? k : n;
      const CBLAS_TRANSPOSE ta = p.ca ? CblasConjTrans : p.ta ? CblasTrans : CblasNoTrans;
      const CBLAS_TRANSPOSE tb = p.cb ? CblasConjTrans : p.tb ? CblasTrans : CblasNoTrans;
      for (int64_t i = 0; i < p.batch; ++i)
        gemm(ta, tb, m, n, k, x + i * p.m * p.k, lda, y + i * p.k * p.n, ldb, z + i * p.m * p.n);
    }
  });
}

}  // namespace

void add_product_kernels(Kernels& k) { k.product = product; }

}  // namespace tramel
