// Host kernels of the random fills: Philox 4x32-10 draws from the counters
// the front reserved (ops/random.cpp).
#include <cmath>

#include "core/kernels/host_kernels.h"
#include "core/parallel.h"

namespace tramel {
namespace {

struct Draw {
  uint32_t x[4];
};

inline Draw philox(uint64_t counter, uint64_t key) {
  uint32_t c0 = uint32_t(counter), c1 = uint32_t(counter >> 32), c2 = 0, c3 = 0;
  uint32_t k0 = uint32_t(key), k1 = uint32_t(key >> 32);
  for (int round = 0; round < 10; ++round) {
    uint64_t p0 = uint64_t(0xD2511F53u) * c0, p1 = uint64_t(0xCD9E8D57u) * c2;
    uint32_t n0 = uint32_t(p1 >> 32) ^ c1 ^ k0, n2 = uint32_t(p0 >> 32) ^ c3 ^ k1;
    c1 = uint32_t(p1);
    c3 = uint32_t(p0);
    c0 = n0;
    c2 = n2;
    k0 += 0x9E3779B9u;
    k1 += 0xBB67AE85u;
  }
  return Draw{{c0, c1, c2, c3}};
}

// Uniform in [0, 1) with 53 random bits.
inline double unit(uint32_t hi, uint32_t lo) {
  return double((uint64_t(hi) << 21) ^ (lo >> 11)) * (1.0 / 9007199254740992.0) ;
}

// Sets element i of t to per_element(TypeTag<T>, draw of counter base + i).
template <typename F>
void fill_random(Tensor& t, RandomStream stream, const char* op, F&& per_element) {
  uint64_t key = stream.key, base = stream.base;
  dispatch<kAllTypes>(t.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* d = t.data<T>();
    parallel_for(t.numel(), kParallelGrain / 4, [&](int64_t b, int64_t e) {
      for (int64_t i = b; i < e; ++i) {
        Draw r = philox(base + uint64_t(i), key);
        d[i] = per_element(TypeTag<T>{}, r);
      }
    });
  });
}

void uniform(Tensor& t, RandomStream stream, double low, double high) {
  double scale = high - low;
  fill_random(t, stream, "fill_rand_uniform_", [=](auto tag, const Draw& r) {
    using T = typename decltype(tag)::type;
    double re = low + scale * unit(r.x[0], r.x[1]);
    if constexpr (is_complex_v<T>)
      return T(typename T::value_type(re), typename T::value_type(low + scale * unit(r.x[2], r.x[3])));
    else
      return cast_value<T>(re);
  });
}

void normal(Tensor& t, RandomStream stream, double mean, double stddev, bool single) {
  constexpr double kTwoPi = 6.283185307179586;
  fill_random(t, stream, "fill_rand_normal_", [=](auto tag, const Draw& r) {
    using T = typename decltype(tag)::type;
    // Box-Muller: two uniforms give a pair of independent normal draws.
    double u1 = 1.0 - unit(r.x[0], r.x[1]), u2 = unit(r.x[2], r.x[3]);
    double radius, angle = kTwoPi * u2;
    if (single)
      radius = std::sqrt(-2.0f * std::log(float(u1)));
    else
      radius = std::sqrt(-2.0 * std::log(u1));
    if constexpr (is_complex_v<T>) {
      using R = typename T::value_type;
      return T(R(mean + stddev * radius * std::cos(angle)), R(mean + stddev * radius * std::sin(angle)));
    } else {
      return cast_value<T>(mean + stddev * radius * std::cos(angle));
    }
  });
}

void bernoulli(Tensor& t, RandomStream stream, double threshold) {
  fill_random(t, stream, "fill_rand_binary_", [=](auto tag, const Draw& r) {
    using T = typename decltype(tag)::type;
    return cast_value<T>(int(unit(r.x[0], r.x[1]) >= threshold));
  });
}

}  // namespace

void add_random_kernels(Kernels& k) {
  k.random_uniform = uniform;
  k.random_normal = normal;
  k.random_binary = bernoulli;
}

}  // namespace tramel
