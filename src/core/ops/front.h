// What the fronts of ops.h share: operand checks, dtype rules of the
// element-wise operations, and the kernel lookup. Included by src/core/ops
// files only; fronts read no elements (Note [backend seam] in backend.h).
#pragma once
#include <string>

#include "core/backend.h"

namespace tramel {

inline void require_types(DTypeSet allowed, DType dtype, const char* op) {
  if ((allowed & bit(dtype)) == 0) fail_dtype(op, dtype);
}

inline std::string device_pair(const Tensor& a, const Tensor& b) {
  return std::to_string(a.device()) + " and " + std::to_string(b.device());
}

// Operands of an element-wise operation: one shape and one device.
inline void check_operands(const char*, const Tensor&) {}
template <typename... Rest>
void check_operands(const char* op, const Tensor& first, const Tensor& second, const Rest&... rest) {
  if (first.shape() != second.shape())
    fail(ErrorKind::Value, op, "shapes differ: " + first.shape().str() + " and " + second.shape().str());
  if (first.device() != second.device())
    fail(ErrorKind::Runtime, op, "tensors are on different devices: " + device_pair(first, second));
  check_operands(op, first, rest...);
}

// t in `dtype`: t itself when it has it already, else a converted copy kept in `holder`.
inline const Tensor& as_dtype(const Tensor& t, DType dtype, Tensor& holder) {
  if (t.dtype() == dtype) return t;
  holder = to_dtype(t, dtype, false);
  return holder;
}

inline int category(DType d) { return d == DType::Bool ? 0 : is_integral(d) ? 1 : is_floating(d) ? 2 : 3; }

// The dtype of t combined with a weak host number: the tensor's, unless the
// number is of a higher category (see ops.h).
inline DType weak_promote(DType t, const Scalar& s) {
  switch (s.kind) {
    case Scalar::Kind::Bool: return t;
    case Scalar::Kind::Int: return t == DType::Bool ? DType::Int64 : t;
    case Scalar::Kind::Float: return is_floating(t) || is_complex(t) ? t : default_dtype();
    case Scalar::Kind::Complex: break;
  }
  if (is_complex(t)) return t;
  if (t == DType::Float32) return DType::Complex64;
  if (t == DType::Float64) return DType::Complex128;
  return default_complex_dtype();
}

// Functions defined only on floating and complex numbers take integers and
// bools in the default floating dtype.
inline DType floating_compute(DType d) { return is_floating(d) || is_complex(d) ? d : default_dtype(); }

inline DType real_dtype(DType d) {
  return d == DType::Complex64 ? DType::Float32 : d == DType::Complex128 ? DType::Float64 : d;
}

// Sums of integers and bools are int64.
inline DType sum_dtype(DType d) { return is_integral(d) || d == DType::Bool ? DType::Int64 : d; }

}  // namespace tramel
