// Element types of the engine and the one dispatch helper every kernel uses.
#pragma once
#include <complex>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "core/error.h"

namespace tramel {

// The numeric values are the dtype constants that Python sees.
enum class DType : int8_t {
  Bool = 0, UInt8 = 1, Int8 = 2, Int16 = 3, Int32 = 4, Int64 = 5,
  Float32 = 6, Float64 = 7, Complex64 = 8, Complex128 = 9,
};
constexpr int kNumDTypes = 10;

using c64 = std::complex<float>;
using c128 = std::complex<double>;

size_t itemsize(DType dtype);
const char* dtype_name(DType dtype);   // "float32", "complex128", ...
bool is_valid_dtype(int value);
inline bool is_complex(DType d) { return d == DType::Complex64 || d == DType::Complex128; }
inline bool is_floating(DType d) { return d == DType::Float32 || d == DType::Float64; }
inline bool is_integral(DType d) { return d >= DType::UInt8 && d <= DType::Int64; }

// Promotion by category (bool < integer < floating < complex), the wider type
// within a category; a floating operand keeps its width against an integer one,
// and complex64 meets float64 as complex128.
DType promote(DType a, DType b);

// The dtype a floating value gets when nothing else says so (float32 or float64).
DType default_dtype();
void set_default_dtype(DType dtype);
// The complex dtype that pairs with the default: complex64 for float32.
DType default_complex_dtype();

template <typename T> struct TypeTag { using type = T; };

template <DType D> struct CTypeOf;
template <> struct CTypeOf<DType::Bool> { using type = bool; };
template <> struct CTypeOf<DType::UInt8> { using type = uint8_t; };
template <> struct CTypeOf<DType::Int8> { using type = int8_t; };
template <> struct CTypeOf<DType::Int16> { using type = int16_t; };
template <> struct CTypeOf<DType::Int32> { using type = int32_t; };
template <> struct CTypeOf<DType::Int64> { using type = int64_t; };
template <> struct CTypeOf<DType::Float32> { using type = float; };
template <> struct CTypeOf<DType::Float64> { using type = double; };
template <> struct CTypeOf<DType::Complex64> { using type = c64; };
template <> struct CTypeOf<DType::Complex128> { using type = c128; };

template <typename T> struct is_complex_t : std::false_type {};
template <typename R> struct is_complex_t<std::complex<R>> : std::true_type {};
template <typename T> inline constexpr bool is_complex_v = is_complex_t<T>::value;

// Sets of dtypes an operation accepts, as bit masks over DType values.
using DTypeSet = uint16_t;
constexpr DTypeSet bit(DType d) { return DTypeSet(1u << int(d)); }
constexpr DTypeSet kIntegralTypes = bit(DType::UInt8) | bit(DType::Int8) | bit(DType::Int16) |
                                    bit(DType::Int32) | bit(DType::Int64);
constexpr DTypeSet kFloatingTypes = bit(DType::Float32) | bit(DType::Float64);
constexpr DTypeSet kComplexTypes = bit(DType::Complex64) | bit(DType::Complex128);
constexpr DTypeSet kRealTypes = bit(DType::Bool) | kIntegralTypes | kFloatingTypes;
constexpr DTypeSet kRealNumericTypes = kIntegralTypes | kFloatingTypes;
constexpr DTypeSet kAllTypes = kRealTypes | kComplexTypes;

[[noreturn]] void fail_dtype(const char* op, DType dtype);

// Calls fn(TypeTag<T>{}) with the C++ type of `dtype` when it is in the set
// `Allowed`, and fails naming the operation `op` otherwise. Types outside the
// set are never instantiated. This is the only switch over dtypes in the engine.
template <DTypeSet Allowed, typename F>
decltype(auto) dispatch(DType dtype, const char* op, F&& fn) {
  using R = decltype(fn(TypeTag<float>{}));
#define TRAMEL_DISPATCH_CASE(D, T)                              \
  case D:                                                       \
    if constexpr ((Allowed & bit(D)) != 0) return fn(TypeTag<T>{}); \
    break;
  switch (dtype) {
    TRAMEL_DISPATCH_CASE(DType::Bool, bool)
    TRAMEL_DISPATCH_CASE(DType::UInt8, uint8_t)
    TRAMEL_DISPATCH_CASE(DType::Int8, int8_t)
    TRAMEL_DISPATCH_CASE(DType::Int16, int16_t)
    TRAMEL_DISPATCH_CASE(DType::Int32, int32_t)
    TRAMEL_DISPATCH_CASE(DType::Int64, int64_t)
    TRAMEL_DISPATCH_CASE(DType::Float32, float)
    TRAMEL_DISPATCH_CASE(DType::Float64, double)
    TRAMEL_DISPATCH_CASE(DType::Complex64, c64)
    TRAMEL_DISPATCH_CASE(DType::Complex128, c128)
  }
#undef TRAMEL_DISPATCH_CASE
  fail_dtype(op, dtype);
  if constexpr (!std::is_void_v<R>) return R();
}

// Value conversion between element types: complex to real keeps the real part,
// anything to bool tests for non-zero.
template <typename To, typename From>
inline To cast_value(From v) {
  if constexpr (std::is_same_v<To, From>) {
    return v;
  } else if constexpr (std::is_same_v<To, bool>) {
    return v != From(0);
  } else if constexpr (is_complex_v<To>) {
    if constexpr (is_complex_v<From>)
      return To(typename To::value_type(v.real()), typename To::value_type(v.imag()));
    else
      return To(typename To::value_type(v), 0);
  } else if constexpr (is_complex_v<From>) {
    return cast_value<To>(v.real());
  } else if constexpr (std::is_floating_point_v<From> && std::is_integral_v<To>) {
    // Defined for every value (a plain cast out of range is undefined): through
    // int64, NaN and values beyond it giving its minimum as x86 does, then
    // wrapped to To's width.
    constexpr From lo = From(-9223372036854775808.0), hi = From(9223372036854775808.0);
    int64_t wide = (v >= lo && v < hi) ? static_cast<int64_t>(v) : std::numeric_limits<int64_t>::min();
    return static_cast<To>(static_cast<std::make_unsigned_t<To>>(static_cast<uint64_t>(wide)));
  } else {
    return static_cast<To>(v);
  }
}

// A host number handed in from Python (bool, int, float or complex).
struct Scalar {
  enum class Kind : int8_t { Bool, Int, Float, Complex } kind = Kind::Float;
  int64_t i = 0;
  double re = 0, im = 0;

  static Scalar from_bool(bool b) { Scalar s; s.kind = Kind::Bool; s.i = b; s.re = b; return s; }
  static Scalar from_int(int64_t v) { Scalar s; s.kind = Kind::Int; s.i = v; s.re = double(v); return s; }
  static Scalar from_double(double v) { Scalar s; s.kind = Kind::Float; s.re = v; return s; }
  static Scalar from_complex(double r, double m) { Scalar s; s.kind = Kind::Complex; s.re = r; s.im = m; return s; }

  template <typename T>
  T to() const {
    switch (kind) {
      case Kind::Bool: return cast_value<T>(bool(i));
      case Kind::Int: return cast_value<T>(i);
      case Kind::Float: return cast_value<T>(re);
      case Kind::Complex: break;
    }
    return cast_value<T>(c128(re, im));
  }
};

}  // namespace tramel
