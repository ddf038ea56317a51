// Host kernels of constant fills, ranges and diagonals.
#include <cmath>
#include <cstring>

#include "core/kernels/host_kernels.h"
#include "core/parallel.h"

namespace tramel {
namespace {

// Writes f(i) for every flat index i of t.
template <DTypeSet Allowed, typename F>
void generate(Tensor& t, const char* op, F&& f) {
  dispatch<Allowed>(t.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* d = t.data<T>();
    parallel_for(t.numel(), kParallelGrain, [&](int64_t b, int64_t e) {
      for (int64_t i = b; i < e; ++i) d[i] = cast_value<T>(f(i));
    });
  });
}

void fill(Tensor& t, const Scalar& value) {
  dispatch<kAllTypes>(t.dtype(), "fill_", [&](auto tag) {
    using T = typename decltype(tag)::type;
    T v = value.to<T>();
    T* d = t.data<T>();
    parallel_for(t.numel(), kParallelGrain, [&](int64_t b, int64_t e) { std::fill(d + b, d + e, v); });
  });
}

void zero(Tensor& t) { std::memset(t.raw(), 0, t.nbytes()); }

void arange(Tensor& t, double start, double step) {
  generate<kRangeTypes>(t, "arange", [&](int64_t i) { return start + double(i) * step; });
}

void linspace(Tensor& t, double start, double end) {
  int64_t num = t.numel();
  double step = num > 1 ? (end - start) / double(num - 1) : 0.0;
  generate<kRangeTypes>(t, "linspace",
                        [&](int64_t i) { return i == num - 1 && num > 1 ? end : start + double(i) * step; });
}

void logspace(Tensor& t, double start, double end, double base) {
  int64_t num = t.numel();
  double step = num > 1 ? (end - start) / double(num - 1) : 0.0;
  generate<kRangeTypes>(t, "logspace", [&](int64_t i) {
    return std::pow(base, i == num - 1 && num > 1 ? end : start + double(i) * step);
  });
}

void eye(Tensor& t, int64_t offset) {
  int64_t size = t.shape()[1];
  generate<kAllTypes>(t, "eye", [&](int64_t i) { return int(i % size - i / size == offset); });
}

void diag(const Tensor& src, Tensor& out, int64_t k) {
  dispatch<kAllTypes>(src.dtype(), "diag", [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* s = src.data<T>();
    T* d = out.data<T>();
    if (src.ndim() == 2) {
      int64_t cols = src.shape()[1];
      for (int64_t i = 0; i < out.numel(); ++i) d[i] = i % cols - i / cols == k ? s[i] : T(0);
      return;
    }
    int64_t n = src.numel(), size = out.shape()[0];
    std::fill(d, d + out.numel(), T(0));
    int64_t row0 = k < 0 ? -k : 0, col0 = k > 0 ? k : 0;
    for (int64_t i = 0; i < n; ++i) d[(row0 + i) * size + col0 + i] = s[i];
  });
}

}  // namespace

void add_fill_kernels(Kernels& k) {
  k.fill = fill;
  k.zero = zero;
  k.arange = arange;
  k.linspace = linspace;
  k.logspace = logspace;
  k.eye = eye;
  k.diag = diag;
}

}  // namespace tramel
