// Host kernels of the Hermitian eigen-decomposition, through LAPACK's
// divide-and-conquer drivers (?syevd, ?heevd).
//
// Note [row-major Hermitian matrices]
// LAPACK reads column-major storage, so it sees a row-major buffer holding A
// as A^T, which for a Hermitian A is conj(A). Its eigenvalues are A's; its
// eigenvectors are the conjugates of A's. So the buffer goes to LAPACK
// as it is, without a transposing copy:
//  - A's lower triangle (row >= col) is the upper triangle of what LAPACK
//    sees: uplo = 'U';
//  - LAPACK returns Z column-major, column j the eigenvector j of conj(A), so
//    V[i][j] = conj(Z[i + j n]): the packed V is Z transposed and
//    conjugated;
//  - V diag(g) V^H, read row-major, is (Z diag(g) Z^H) read column-major: one
//    GEMM on Z, no transpose (eigvalsh_grad).
// For real symmetric matrices the conjugates are no-ops.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/kernels/blas.h"
#include "core/kernels/functors.h"
#include "core/kernels/host_kernels.h"

namespace tramel {
namespace {

// One LAPACK/BLAS entry per element type.
template <typename T> struct Lapack;

template <> struct Lapack<float> {
  static void evd(char jobz, int n, float* a, float* w, float* work, int lwork, float*, int, int* iwork, int liwork,
                  int* info) {
    char uplo = 'U';
    scipy_LAPACK_ssyevd(&jobz, &uplo, &n, a, &n, w, work, &lwork, iwork, &liwork, info);
  }
  static void gemm_nh(int n, const float* a, const float* b, float* c) {
    scipy_cblas_sgemm(CblasColMajor, CblasNoTrans, CblasTrans, n, n, n, 1.0f, a, n, b, n, 0.0f, c, n);
  }
};
template <> struct Lapack<double> {
  static void evd(char jobz, int n, double* a, double* w, double* work, int lwork, double*, int, int* iwork,
                  int liwork, int* info) {
    char uplo = 'U';
    scipy_LAPACK_dsyevd(&jobz, &uplo, &n, a, &n, w, work, &lwork, iwork, &liwork, info);
  }
  static void gemm_nh(int n, const double* a, const double* b, double* c) {
    scipy_cblas_dgemm(CblasColMajor, CblasNoTrans, CblasTrans, n, n, n, 1.0, a, n, b, n, 0.0, c, n);
  }
};
template <> struct Lapack<c64> {
  static void evd(char jobz, int n, c64* a, float* w, c64* work, int lwork, float* rwork, int lrwork, int* iwork,
                  int liwork, int* info) {
    char uplo = 'U';
    scipy_LAPACK_cheevd(&jobz, &uplo, &n, a, &n, w, work, &lwork, rwork, &lrwork, iwork, &liwork, info);
  }
  static void gemm_nh(int n, const c64* a, const c64* b, c64* c) {
    const c64 one(1), zero(0);
    scipy_cblas_cgemm(CblasColMajor, CblasNoTrans, CblasConjTrans, n, n, n, &one, a, n, b, n, &zero, c, n);
  }
};
template <> struct Lapack<c128> {
  static void evd(char jobz, int n, c128* a, double* w, c128* work, int lwork, double* rwork, int lrwork,
                  int* iwork, int liwork, int* info) {
    char uplo = 'U';
    scipy_LAPACK_zheevd(&jobz, &uplo, &n, a, &n, w, work, &lwork, rwork, &lrwork, iwork, &liwork, info);
  }
  static void gemm_nh(int n, const c128* a, const c128* b, c128* c) {
    const c128 one(1), zero(0);
    scipy_cblas_zgemm(CblasColMajor, CblasNoTrans, CblasConjTrans, n, n, n, &one, a, n, b, n, &zero, c, n);
  }
};

// A workspace size LAPACK reported in a floating number, rounded up.
template <typename R>
int size_from(R v) {
  return int(double(v) * (1 + 1e-6)) + 1;
}

// The buffers of one decomposition of n x n matrices, sized by LAPACK's
// workspace query, reused for every matrix of a batch.
template <typename T>
class Solver {
 public:
  using R = decltype(std::abs(T()));

  Solver(int n, bool vectors) : n_(n), jobz_(vectors ? 'V' : 'N'), matrix_(size_t(n) * n), w_(size_t(n)) {
    T work = T(0);
    R rwork = R(0);
    int iwork = 0, info = 0;
    Lapack<T>::evd(jobz_, n_, matrix_.data(), w_.data(), &work, -1, &rwork, -1, &iwork, -1, &info);
    work_.resize(size_t(size_from(std::real(work))));
    rwork_.resize(size_t(is_complex_v<T> ? size_from(rwork) : 1));
    iwork_.resize(size_t(std::max(iwork, 1)));
  }

  // Decomposes the row-major matrix at `a`; the eigenvalues go to `values`
  // (or to values() when null), Z stays in matrix(). Returns LAPACK's info.
  int run(const T* a, R* values) {
    std::memcpy(matrix_.data(), a, matrix_.size() * sizeof(T));
    int info = 0;
    Lapack<T>::evd(jobz_, n_, matrix_.data(), values ? values : w_.data(), work_.data(), int(work_.size()),
                   rwork_.data(), int(rwork_.size()), iwork_.data(), int(iwork_.size()), &info);
    return info;
  }
  const R* values() const { return w_.data(); }
  T* matrix() { return matrix_.data(); }

 private:
  int n_;
  char jobz_;
  std::vector<T> matrix_, work_;
  std::vector<R> w_, rwork_;
  std::vector<int> iwork_;
};

int eigh(const Tensor& a, Tensor& out, bool vectors) {
  const Shape& s = a.shape();
  int n = int(s[s.rank() - 1]);
  int64_t matrix = int64_t(n) * n, batch = a.numel() / matrix;
  return dispatch<kFloatingTypes | kComplexTypes>(a.dtype(), vectors ? "eigh" : "eigvalsh", [&](auto tag) {
    using T = typename decltype(tag)::type;
    using R = typename Solver<T>::R;
    Solver<T> solver(n, vectors);
    const T* x = a.data<T>();
    for (int64_t b = 0; b < batch; ++b) {
      if (!vectors) {
        if (int info = solver.run(x + b * matrix, out.data<R>() + b * n)) return info;
        continue;
      }
      if (int info = solver.run(x + b * matrix, nullptr)) return info;
      T* packed = out.data<T>() + b * (matrix + n);
      for (int j = 0; j < n; ++j) packed[j] = T(solver.values()[j]);
      const T* z = solver.matrix();
      T* v = packed + n;
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) v[int64_t(i) * n + j] = fn::conj(z[i + int64_t(j) * n]);
    }
    return 0;
  });
}

int eigvalsh_grad(const Tensor& g, const Tensor& a, Tensor& out) {
  const Shape& s = a.shape();
  int n = int(s[s.rank() - 1]);
  int64_t matrix = int64_t(n) * n, batch = a.numel() / matrix;
  return dispatch<kFloatingTypes | kComplexTypes>(a.dtype(), "eigvalsh_grad", [&](auto tag) {
    using T = typename decltype(tag)::type;
    using R = typename Solver<T>::R;
    Solver<T> solver(n, true);
    std::vector<T> scaled(static_cast<size_t>(matrix));
    const T* x = a.data<T>();
    const R* gd = g.data<R>();
    for (int64_t b = 0; b < batch; ++b) {
      if (int info = solver.run(x + b * matrix, nullptr)) return info;
      const T* z = solver.matrix();
      for (int j = 0; j < n; ++j) {
        T gj = T(gd[b * n + j]);
        for (int i = 0; i < n; ++i) scaled[size_t(i + int64_t(j) * n)] = z[i + int64_t(j) * n] * gj;
      }
      Lapack<T>::gemm_nh(n, scaled.data(), z, out.data<T>() + b * matrix);
    }
    return 0;
  });
}

}  // namespace

void add_spectral_kernels(Kernels& k) {
  k.eigh = eigh;
  k.eigvalsh_grad = eigvalsh_grad;
}

}  // namespace tramel
