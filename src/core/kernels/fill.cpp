// Constant fills and the creation functions built on them.
#include <cmath>
#include <cstring>

#include "core/ops.h"
#include "core/parallel.h"

namespace tramel {
namespace {

constexpr DTypeSet kRangeTypes = kRealNumericTypes;  // bool and complex make no sense as a range

// Writes f(i) for every flat index i of a host-addressable tensor.
template <DTypeSet Allowed, typename F>
void generate(Tensor& t, const char* op, F&& f) {
  require_host_addressable(t.device(), op);
  t.make_storage_unique();
  dispatch<Allowed>(t.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* d = t.data<T>();
    parallel_for(t.numel(), kParallelGrain, [&](int64_t b, int64_t e) {
      for (int64_t i = b; i < e; ++i) d[i] = cast_value<T>(f(i));
    });
  });
}

Tensor vector_of(int64_t n, int device, DType dtype, const char* op) {
  if (n < 0) fail(ErrorKind::Value, op, "the number of elements must not be negative, got " + std::to_string(n));
  int64_t dims[1] = {n};
  return Tensor::empty(Shape(dims, 1, op), dtype, device, op);
}

}  // namespace

void fill_(Tensor& t, const Scalar& value) {
  const char* op = "fill_";
  require_host_addressable(t.device(), op);
  t.make_storage_unique();
  dispatch<kAllTypes>(t.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T v = value.to<T>();
    T* d = t.data<T>();
    parallel_for(t.numel(), kParallelGrain, [&](int64_t b, int64_t e) { std::fill(d + b, d + e, v); });
  });
}

Tensor full(const Shape& shape, const Scalar& value, int device, DType dtype, const char* op) {
  Tensor t = Tensor::empty(shape, dtype, device, op);
  if (value.kind != Scalar::Kind::Complex && value.re == 0 && value.i == 0 && t.numel()) {
    require_host_addressable(device, op);
    std::memset(t.raw(), 0, t.nbytes());  // all-zero bits are zero in every dtype
  } else {
    fill_(t, value);
  }
  return t;
}

Tensor arange(double start, double end, double step, int device, DType dtype) {
  const char* op = "arange";
  if (step == 0 || !std::isfinite(step)) fail(ErrorKind::Value, op, "step must be finite and non-zero");
  double count = std::ceil((end - start) / step);
  if (!std::isfinite(count)) fail(ErrorKind::Value, op, "start and end must be finite");
  if (count > double(kMaxElements)) fail(ErrorKind::Value, op, "the range has too many elements");
  Tensor t = vector_of(count > 0 ? int64_t(count) : 0, device, dtype, op);
  generate<kRangeTypes>(t, op, [&](int64_t i) { return start + double(i) * step; });
  return t;
}

Tensor linspace(double start, double end, int64_t num, int device, DType dtype) {
  const char* op = "linspace";
  Tensor t = vector_of(num, device, dtype, op);
  double step = num > 1 ? (end - start) / double(num - 1) : 0.0;
  generate<kRangeTypes>(t, op, [&](int64_t i) { return i == num - 1 && num > 1 ? end : start + double(i) * step; });
  return t;
}

Tensor logspace(double start, double end, int64_t num, double base, int device, DType dtype) {
  const char* op = "logspace";
  Tensor t = vector_of(num, device, dtype, op);
  double step = num > 1 ? (end - start) / double(num - 1) : 0.0;
  generate<kRangeTypes>(t, op, [&](int64_t i) {
    return std::pow(base, i == num - 1 && num > 1 ? end : start + double(i) * step);
  });
  return t;
}

Tensor eye(int64_t size, int64_t offset, int device, DType dtype) {
  const char* op = "eye";
  if (size < 0) fail(ErrorKind::Value, op, "size must not be negative, got " + std::to_string(size));
  int64_t dims[2] = {size, size};
  Tensor t = Tensor::empty(Shape(dims, 2, op), dtype, device, op);
  generate<kAllTypes>(t, op, [&](int64_t i) { return int(i % size - i / size == offset); });
  return t;
}

Tensor diag(const Tensor& t, int64_t k) {
  const char* op = "diag";
  require_host_addressable(t.device(), op);
  if (t.ndim() == 2) {
    int64_t cols = t.shape()[1];
    Tensor out = to_dtype(t, t.dtype(), true);
    dispatch<kAllTypes>(t.dtype(), op, [&](auto tag) {
      using T = typename decltype(tag)::type;
      T* d = out.data<T>();
      for (int64_t i = 0; i < out.numel(); ++i)
        if (i % cols - i / cols != k) d[i] = T(0);
    });
    return out;
  }
  if (t.ndim() != 1)
    fail(ErrorKind::Value, op, "expects a 1- or 2-dimensional tensor, got shape " + t.shape().str());
  int64_t n = t.numel(), size = n + (k < 0 ? -k : k);
  int64_t dims[2] = {size, size};
  Tensor out = full(Shape(dims, 2, op), Scalar::from_int(0), t.device(), t.dtype(), op);
  dispatch<kAllTypes>(t.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* s = t.data<T>();
    T* d = out.data<T>();
    int64_t row0 = k < 0 ? -k : 0, col0 = k > 0 ? k : 0;
    for (int64_t i = 0; i < n; ++i) d[(row0 + i) * size + col0 + i] = s[i];
  });
  return out;
}

}  // namespace tramel
