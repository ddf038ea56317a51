// Branch-free exp, sin and cos that gcc and clang vectorise inside plain loops.
//
// libm's scalar calls stop the vectoriser; these do not. exp is valid over the
// whole range (overflow to inf, gradual underflow, NaN in NaN out). The
// sin/cos reduction is exact only for |x| < kTrigFastLimit: callers check
// trig_fast_ok() and recompute the rest with libm (see map_fixup in loops.h).
// Accuracy is within 2 ulp of libm in the fast range.
#pragma once
#include <cstdint>
#include <cstring>

#if defined(__GNUC__)
#define TRAMEL_VMATH inline __attribute__((always_inline))
#else
#define TRAMEL_VMATH inline
#endif

namespace tramel::vmath {

template <typename To, typename From>
TRAMEL_VMATH To bits(From v) {
  static_assert(sizeof(To) == sizeof(From));
  To out;
  std::memcpy(&out, &v, sizeof(out));
  return out;
}

// ---- exp ----

// 2^n for n in [-150, 128] (float) without leaving the normal range: the
// scaling is split into two factors.
TRAMEL_VMATH float exp_f32(float x) {
  constexpr float kHi = 89.0f, kLo = -104.0f;
  x = x > kHi ? kHi : x;
  x = x < kLo ? kLo : x;  // NaN passes both tests unchanged
  constexpr float kMagic = 12582912.0f;  // 1.5 * 2^23: adding it rounds to an integer
  float t = x * 1.44269504088896341f + kMagic;
  int32_t n = bits<int32_t>(t) - bits<int32_t>(kMagic);
  float nf = t - kMagic;
  float r = x - nf * 0.693359375f;
  r = r - nf * -2.12194440e-4f;
  float z = r * r;
  float p = 1.9875691500e-4f;
  p = p * r + 1.3981999507e-3f;
  p = p * r + 8.3334519073e-3f;
  p = p * r + 4.1665795894e-2f;
  p = p * r + 1.6666665459e-1f;
  p = p * r + 5.0000001201e-1f;
  p = p * z + r + 1.0f;
  int32_t n1 = n >> 1, n2 = n - n1;
  // The exponent fields are shifted as unsigned values: for a NaN input n is
  // garbage, and a negative or too large signed value must not be shifted
  // (undefined behaviour); the NaN of p makes the result NaN in any case.
  float s1 = bits<float>(uint32_t(n1 + 127) << 23), s2 = bits<float>(uint32_t(n2 + 127) << 23);
  return p * s1 * s2;
}

TRAMEL_VMATH double exp_f64(double x) {
  constexpr double kHi = 710.0, kLo = -746.0;
  x = x > kHi ? kHi : x;
  x = x < kLo ? kLo : x;
  constexpr double kMagic = 6755399441055744.0;  // 1.5 * 2^52
  double t = x * 1.4426950408889634 + kMagic;
  int64_t n = bits<int64_t>(t) - bits<int64_t>(kMagic);
  double nf = t - kMagic;
  double r = x - nf * 6.93147180369123816490e-01;
  r = r - nf * 1.90821492927058770002e-10;
  // Taylor series to degree 13: |r| <= ln2/2 keeps the tail below 2^-53.
  double p = 1.0 / 6227020800.0;
  p = p * r + 1.0 / 479001600.0;
  p = p * r + 1.0 / 39916800.0;
  p = p * r + 1.0 / 3628800.0;
  p = p * r + 1.0 / 362880.0;
  p = p * r + 1.0 / 40320.0;
  p = p * r + 1.0 / 5040.0;
  p = p * r + 1.0 / 720.0;
  p = p * r + 1.0 / 120.0;
  p = p * r + 1.0 / 24.0;
  p = p * r + 1.0 / 6.0;
  p = p * r + 0.5;
  p = p * (r * r) + r + 1.0;
  int64_t n1 = n >> 1, n2 = n - n1;
  double s1 = bits<double>(uint64_t(n1 + 1023) << 52), s2 = bits<double>(uint64_t(n2 + 1023) << 52);  // as in exp_f32
  return p * s1 * s2;
}

TRAMEL_VMATH float exp_v(float x) { return exp_f32(x); }
TRAMEL_VMATH double exp_v(double x) { return exp_f64(x); }

// ---- sin and cos (double; float goes through double) ----

constexpr double kTrigFastLimit = 1e5;
TRAMEL_VMATH bool trig_fast_ok(double x) { return x > -kTrigFastLimit && x < kTrigFastLimit; }

struct SinCos {
  double s, c;
};

TRAMEL_VMATH SinCos sincos_f64(double x) {
  constexpr double kMagic = 6755399441055744.0;
  double t = x * 6.36619772367581382433e-01 + kMagic;  // x * 2/pi, rounded
  int64_t q = bits<int64_t>(t) - bits<int64_t>(kMagic);
  double qf = t - kMagic;
  // pi/2 in three parts (Cody-Waite); the first has 33 bits so qf * part is exact.
  double r = x - qf * 1.57079632673412561417e+00;
  r = r - qf * 6.07710050630396597660e-11;
  r = r - qf * 2.02226624871116645580e-21;
  double z = r * r;
  double ps = 1.58969099521155010221e-10;
  ps = ps * z + -2.50507602534068634195e-08;
  ps = ps * z + 2.75573137070700676789e-06;
  ps = ps * z + -1.98412698298579493134e-04;
  ps = ps * z + 8.33333333332248946124e-03;
  ps = ps * z + -1.66666666666666324348e-01;
  double s = r + r * z * ps;
  double pc = -1.13596475577881948265e-11;
  pc = pc * z + 2.08757232129817482790e-09;
  pc = pc * z + -2.75573143513906633035e-07;
  pc = pc * z + 2.48015872894767294178e-05;
  pc = pc * z + -1.38888888888741095749e-03;
  pc = pc * z + 4.16666666666666019037e-02;
  double c = 1.0 - 0.5 * z + z * z * pc;
  // Quadrant q: (sin, cos) = (s, c), (c, -s), (-s, -c), (-c, s).
  bool swap = (q & 1) != 0;
  double sin_v = swap ? c : s, cos_v = swap ? s : c;
  sin_v = (q & 2) ? -sin_v : sin_v;
  cos_v = ((q + 1) & 2) ? -cos_v : cos_v;
  return {sin_v, cos_v};
}

}  // namespace tramel::vmath
