// Scalar maths: one small struct per mathematical function, generic over the
// element type. Kernels are loops over these (loops.h); nothing here touches a
// Tensor, so the same structs can serve device kernels later (TRAMEL_HD).
//
// Complex products and quotients are written out rather than taken from
// std::complex, whose operators call out-of-line NaN repair and stop the
// vectoriser (numpy does the same arithmetic).
//
// Calls between helpers here are qualified (fn::conj, fn::mul): unqualified,
// conj(z) of a std::complex finds std::conj by argument-dependent lookup,
// which is the better match and a host function.
//
// Note [host-only functors]
// Written for a device compiler, the functors need a complex type it knows
// (std::complex is host code) and real maths it provides (std::sqrt,
// std::exp and the like on float and double, std::hypot, std::fabs,
// std::copysign, std::nearbyint are all there). What still needs the host:
//  - the std:: functions called on std::complex: Pow, Sqrt, Log, Tan, Asin,
//    Acos, Atan, Sinh, Cosh, Tanh, Sin and Cos of complex numbers, and the
//    gradients built on them, PowBaseGrad, PowExpGrad (std::log), AsinGrad and
//    AcosGrad (std::sqrt);
//  - the `exact` members of Exp, Sin and Cos, the libm fallbacks of the
//    fixup pass (map_fixup in loops.h), which a device kernel would replace
//    by its own exact functions;
//  - Pow of reals calls std::pow, which a device library has, but the
//    integer and complex special cases were written for the host only.
// The rest (arithmetic, comparisons, classification, Abs and Sign through
// std::hypot, the vectorised Exp and the real Sin and Cos of vmath.h, the
// gradients of mult, div, exp, log, square, tanh, atan, sqrt and tan, Clamp)
// is plain arithmetic on its element type.
#pragma once
#include <cmath>
#include <cstdlib>
#include <complex>
#include <limits>
#include <type_traits>

#include "core/dtype.h"
#include "core/kernels/vmath.h"

// Always inlined: gcc inlines nothing into the AVX2 clone of a loop (see
// Note [vector clones]) unless told to, and a call stops the vectoriser.
#ifndef TRAMEL_HD
#if defined(__GNUC__)
#define TRAMEL_HD __attribute__((always_inline))
#else
#define TRAMEL_HD
#endif
#endif

namespace tramel::fn {

template <typename T> using real_of_t = typename std::conditional_t<is_complex_v<T>, T, std::complex<T>>::value_type;

template <typename T> TRAMEL_HD inline bool nz(T v) {
  if constexpr (is_complex_v<T>) return v.real() != 0 || v.imag() != 0;
  else return v != T(0);
}
template <typename T> TRAMEL_HD inline bool isnan_v(T v) {
  if constexpr (std::is_floating_point_v<T>) return v != v;
  else if constexpr (is_complex_v<T>) return v.real() != v.real() || v.imag() != v.imag();
  else return false;
}
template <typename T> TRAMEL_HD inline T conj(T v) {
  if constexpr (is_complex_v<T>) return T(v.real(), -v.imag());
  else return v;
}

// Integer arithmetic wraps around, as numpy's does. Signed overflow is
// undefined in C++ (the compiler may assume it never happens), so integer
// sums, differences, products and negations are computed in the unsigned
// type of the promoted operands, where they wrap by definition, and converted
// back. The code generated is the same.
template <typename T> using wrap_t = std::make_unsigned_t<decltype(+T())>;
template <typename T> inline constexpr bool is_wrapping_v = std::is_integral_v<T> && !std::is_same_v<T, bool>;
template <typename T> TRAMEL_HD inline T negate(T v) {
  if constexpr (is_wrapping_v<T>) return T(wrap_t<T>(0) - wrap_t<T>(v));
  else return T(-v);
}

template <typename T> TRAMEL_HD inline T mul(T a, T b) {
  if constexpr (is_complex_v<T>)
    return T(a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real());
  else if constexpr (std::is_same_v<T, bool>) return a && b;
  else if constexpr (is_wrapping_v<T>) return T(wrap_t<T>(a) * wrap_t<T>(b));
  else return T(a * b);
}
// Smith's algorithm for complex quotients; integers truncate, and since a
// division never raises, x / 0 is 0 and MIN / -1 wraps.
template <typename T> TRAMEL_HD inline T div(T a, T b) {
  if constexpr (is_complex_v<T>) {
    using R = typename T::value_type;
    R br = b.real(), bi = b.imag();
    if (std::fabs(br) >= std::fabs(bi)) {
      if (br == 0 && bi == 0) return T(a.real() / std::fabs(br), a.imag() / std::fabs(bi));
      R r = bi / br, d = br + bi * r;
      return T((a.real() + a.imag() * r) / d, (a.imag() - a.real() * r) / d);
    }
    R r = br / bi, d = bi + br * r;
    return T((a.real() * r + a.imag()) / d, (a.imag() * r - a.real()) / d);
  } else if constexpr (std::is_integral_v<T>) {
    using U = std::make_unsigned_t<T>;
    if (b == 0) return T(0);
    if constexpr (std::is_signed_v<T>)
      if (b == T(-1)) return T(U(0) - U(a));
    return T(a / b);
  } else {
    return a / b;
  }
}

// ---- binary arithmetic ----

struct Add {
  template <typename T> TRAMEL_HD T operator()(T a, T b) const {
    if constexpr (std::is_same_v<T, bool>) return a || b;
    else if constexpr (is_wrapping_v<T>) return T(wrap_t<T>(a) + wrap_t<T>(b));
    else return T(a + b);
  }
};
struct Sub {
  template <typename T> TRAMEL_HD T operator()(T a, T b) const {
    if constexpr (is_wrapping_v<T>) return T(wrap_t<T>(a) - wrap_t<T>(b));
    else return T(a - b);
  }
};
struct Mul {
  template <typename T> TRAMEL_HD T operator()(T a, T b) const { return fn::mul(a, b); }
};
struct Div {
  template <typename T> TRAMEL_HD T operator()(T a, T b) const { return fn::div(a, b); }
};
struct Pow {
  template <typename T> TRAMEL_HD T operator()(T a, T b) const {
    if constexpr (std::is_integral_v<T>) {
      if constexpr (std::is_signed_v<T>) {
        // Negative exponents have integer results only for bases 1 and -1.
        if (b < 0) return a == 1 ? T(1) : a == T(-1) ? T((b & 1) ? -1 : 1) : T(0);
      }
      // Products in the promoted unsigned type (two uint16 promote to int,
      // whose product can overflow).
      using U = std::make_unsigned_t<T>;
      using W = wrap_t<T>;
      U result = 1, base = U(a);
      for (U e = U(b); e; e >>= 1) {
        if (e & 1) result = U(W(result) * W(base));
        base = U(W(base) * W(base));
      }
      return T(result);
    } else if constexpr (is_complex_v<T>) {
      if (b == T(0)) return T(1);
      if (a == T(0)) return b.imag() == 0 && b.real() > 0 ? T(0) : std::pow(a, b);
      return std::pow(a, b);
    } else {
      return std::pow(a, b);
    }
  }
};
// numpy's maximum/minimum: a NaN on either side wins.
struct Maximum {
  template <typename T> TRAMEL_HD T operator()(T a, T b) const { return (a >= b || fn::isnan_v(a)) ? a : b; }
};
struct Minimum {
  template <typename T> TRAMEL_HD T operator()(T a, T b) const { return (a <= b || fn::isnan_v(a)) ? a : b; }
};

// ---- comparison and logic (bool results) ----

struct Equal { template <typename T> TRAMEL_HD bool operator()(T a, T b) const { return a == b; } };
struct NotEqual { template <typename T> TRAMEL_HD bool operator()(T a, T b) const { return a != b; } };
struct Greater { template <typename T> TRAMEL_HD bool operator()(T a, T b) const { return a > b; } };
struct GreaterEqual { template <typename T> TRAMEL_HD bool operator()(T a, T b) const { return a >= b; } };
struct Less { template <typename T> TRAMEL_HD bool operator()(T a, T b) const { return a < b; } };
struct LessEqual { template <typename T> TRAMEL_HD bool operator()(T a, T b) const { return a <= b; } };
struct And { template <typename T> TRAMEL_HD bool operator()(T a, T b) const { return fn::nz(a) && fn::nz(b); } };
struct Or { template <typename T> TRAMEL_HD bool operator()(T a, T b) const { return fn::nz(a) || fn::nz(b); } };
struct Xor { template <typename T> TRAMEL_HD bool operator()(T a, T b) const { return fn::nz(a) != fn::nz(b); } };
struct Not { template <typename T> TRAMEL_HD bool operator()(T a) const { return !fn::nz(a); } };

template <typename T> TRAMEL_HD inline bool isinf_v(T v) {
  if constexpr (std::is_floating_point_v<T>) return std::isinf(v);
  else if constexpr (is_complex_v<T>) return std::isinf(v.real()) || std::isinf(v.imag());
  else return false;
}
struct IsFinite {
  template <typename T> TRAMEL_HD bool operator()(T v) const { return !fn::isnan_v(v) && !fn::isinf_v(v); }
};
struct IsInf { template <typename T> TRAMEL_HD bool operator()(T v) const { return fn::isinf_v(v); } };
struct IsNan { template <typename T> TRAMEL_HD bool operator()(T v) const { return fn::isnan_v(v); } };
struct IsPosInf { template <typename T> TRAMEL_HD bool operator()(T v) const { return fn::isinf_v(v) && v > T(0); } };
struct IsNegInf { template <typename T> TRAMEL_HD bool operator()(T v) const { return fn::isinf_v(v) && v < T(0); } };

// ---- one-input maths ----
//
// A functor whose fast form is exact only on part of the domain declares
// fixup<T> and supplies fast_ok(x) and exact(x); the loop recomputes the
// elements outside with exact (see map_fixup in loops.h).
struct Neg { template <typename T> TRAMEL_HD T operator()(T v) const { return fn::negate(v); } };
struct Abs {  // of the most negative integer: itself, as in numpy
  template <typename T> TRAMEL_HD auto operator()(T v) const {
    if constexpr (is_complex_v<T>) {
      return std::hypot(v.real(), v.imag());
    } else if constexpr (std::is_floating_point_v<T>) {
      return std::fabs(v);
    } else if constexpr (std::is_signed_v<T> && sizeof(T) < sizeof(long long)) {
      return T(std::llabs(v));  // exact in long long; vectorises as an abs instruction
    } else if constexpr (std::is_signed_v<T>) {
      using U = std::make_unsigned_t<T>;
      U sign = U(v >> (sizeof(T) * 8 - 1));  // all ones for a negative v
      return T((U(v) ^ sign) - sign);
    } else {
      return v;
    }
  }
};
struct Square { template <typename T> TRAMEL_HD T operator()(T v) const { return fn::mul(v, v); } };
struct Sqrt { template <typename T> TRAMEL_HD T operator()(T v) const { return std::sqrt(v); } };
struct Log { template <typename T> TRAMEL_HD T operator()(T v) const { return std::log(v); } };
struct Tan { template <typename T> TRAMEL_HD T operator()(T v) const { return std::tan(v); } };
struct Asin { template <typename T> TRAMEL_HD T operator()(T v) const { return std::asin(v); } };
struct Acos { template <typename T> TRAMEL_HD T operator()(T v) const { return std::acos(v); } };
struct Atan { template <typename T> TRAMEL_HD T operator()(T v) const { return std::atan(v); } };
struct Sinh { template <typename T> TRAMEL_HD T operator()(T v) const { return std::sinh(v); } };
struct Cosh { template <typename T> TRAMEL_HD T operator()(T v) const { return std::cosh(v); } };
struct Tanh { template <typename T> TRAMEL_HD T operator()(T v) const { return std::tanh(v); } };
struct Conj { template <typename T> TRAMEL_HD T operator()(T v) const { return fn::conj(v); } };
struct Reciprocal { template <typename T> TRAMEL_HD T operator()(T v) const { return fn::div(T(1), v); } };
struct Sign {
  template <typename T> TRAMEL_HD T operator()(T v) const {
    if constexpr (is_complex_v<T>) {
      using R = typename T::value_type;
      R m = std::hypot(v.real(), v.imag());
      if (std::isinf(m))  // an infinite part alone sets the direction
        return T(std::isinf(v.real()) ? std::copysign(R(1), v.real()) : R(0),
                 std::isinf(v.imag()) ? std::copysign(R(1), v.imag()) : R(0));
      return m == 0 ? T(0) : T(v.real() / m, v.imag() / m);
    } else if constexpr (std::is_floating_point_v<T>) {
      return v > 0 ? T(1) : v < 0 ? T(-1) : v;  // keeps 0, -0 and NaN
    } else {
      return T((v > 0) - (v < 0));
    }
  }
};
// Integers are already whole: these copy them.
struct Floor {
  template <typename T> TRAMEL_HD T operator()(T v) const {
    if constexpr (std::is_floating_point_v<T>) return std::floor(v);
    else return v;
  }
};
struct Ceil {
  template <typename T> TRAMEL_HD T operator()(T v) const {
    if constexpr (std::is_floating_point_v<T>) return std::ceil(v);
    else return v;
  }
};
struct Round {  // half to even, the default rounding mode
  template <typename T> TRAMEL_HD T operator()(T v) const {
    if constexpr (std::is_floating_point_v<T>) return std::nearbyint(v);
    else return v;
  }
};

struct Exp {
  template <typename T> static constexpr bool fixup = is_complex_v<T>;
  template <typename T> TRAMEL_HD T operator()(T v) const {
    if constexpr (is_complex_v<T>) {
      using R = typename T::value_type;
      double m = vmath::exp_f64(double(v.real()));
      vmath::SinCos sc = vmath::sincos_f64(double(v.imag()));
      return T(R(m * sc.c), R(m * sc.s));
    } else {
      return vmath::exp_v(v);
    }
  }
  // Overflow, infinities and NaN follow libm's special cases.
  template <typename T> TRAMEL_HD static bool fast_ok(T v) { return v.real() < 700 && vmath::trig_fast_ok(v.imag()); }
  template <typename T> static T exact(T v) { return std::exp(v); }
};
template <bool IsSin>
struct SinCosOf {
  template <typename T> static constexpr bool fixup = std::is_floating_point_v<T>;
  template <typename T> TRAMEL_HD T operator()(T v) const {
    if constexpr (is_complex_v<T>) {
      return IsSin ? std::sin(v) : std::cos(v);
    } else {
      vmath::SinCos sc = vmath::sincos_f64(double(v));
      return T(IsSin ? sc.s : sc.c);
    }
  }
  template <typename T> TRAMEL_HD static bool fast_ok(T v) { return vmath::trig_fast_ok(double(v)); }
  template <typename T> static T exact(T v) { return IsSin ? std::sin(v) : std::cos(v); }
};
using Sin = SinCosOf<true>;
using Cos = SinCosOf<false>;

// ---- gradient kernels: g times the conjugate of the local derivative ----

struct MultGrad {
  template <typename T> TRAMEL_HD T operator()(T g, T other) const { return fn::mul(g, fn::conj(other)); }
};
struct DivDxGrad {
  template <typename T> TRAMEL_HD T operator()(T g, T den) const { return fn::div(g, fn::conj(den)); }
};
struct DivDyGrad {
  template <typename T> TRAMEL_HD T operator()(T g, T q, T den) const {
    return T(-fn::mul(g, fn::conj(fn::div(q, den))));
  }
};
struct PowBaseGrad {
  template <typename T> TRAMEL_HD T operator()(T g, T x, T y) const {
    return fn::mul(g, fn::conj(fn::mul(y, Pow{}(x, T(y - T(1))))));
  }
};
// Where the power is 0 (0^y, y > 0) the limit of out * ln x is 0.
struct PowExpGrad {
  template <typename T> TRAMEL_HD T operator()(T g, T x, T, T out) const {
    return out == T(0) ? T(0) : fn::mul(g, fn::conj(fn::mul(out, T(std::log(x)))));
  }
};
struct ExpGrad { template <typename T> TRAMEL_HD T operator()(T g, T y) const { return fn::mul(g, fn::conj(y)); } };
struct LogGrad { template <typename T> TRAMEL_HD T operator()(T g, T x) const { return fn::div(g, fn::conj(x)); } };
struct SquareGrad {
  template <typename T> TRAMEL_HD T operator()(T g, T x) const { return fn::mul(T(2), fn::mul(g, fn::conj(x))); }
};
struct TanhGrad {
  template <typename T> TRAMEL_HD T operator()(T g, T y) const { return fn::mul(g, fn::conj(T(T(1) - fn::mul(y, y)))); }
};
struct AsinGrad {
  template <typename T> TRAMEL_HD T operator()(T g, T x) const {
    return fn::mul(g, fn::conj(fn::div(T(1), T(std::sqrt(T(T(1) - fn::mul(x, x)))))));
  }
};
struct AcosGrad {
  template <typename T> TRAMEL_HD T operator()(T g, T x) const { return T(-AsinGrad{}(g, x)); }
};
struct AtanGrad {
  template <typename T> TRAMEL_HD T operator()(T g, T x) const {
    return fn::mul(g, fn::conj(fn::div(T(1), T(T(1) + fn::mul(x, x)))));
  }
};
struct SqrtGrad {  // from the forward result y
  template <typename T> TRAMEL_HD T operator()(T y, T g) const { return fn::div(g, fn::conj(T(y + y))); }
};
struct TanGrad {  // from the forward result y
  template <typename T> TRAMEL_HD T operator()(T y, T g) const { return fn::mul(g, fn::conj(T(T(1) + fn::mul(y, y)))); }
};
// g where low <= x <= high, else 0.
template <typename T>
struct ClampGrad {
  T low, high;
  TRAMEL_HD T operator()(T x, T g) const { return (x >= low && x <= high) ? g : T(0); }
};
template <typename T>
struct Clamp {
  T low, high;
  TRAMEL_HD T operator()(T v) const {
    v = v < low ? low : v;  // NaN stays NaN
    return v > high ? high : v;
  }
};

}  // namespace tramel::fn
