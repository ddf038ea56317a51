// Random fills from one counter-based generator (Philox 4x32-10).
//
// Element i of a fill draws from counter (offset + i), so a fill gives the
// same values on one thread or many, and the process-wide offset advances by
// the number of elements after each fill. manual_seed resets both key and offset.
#include <atomic>
#include <cmath>

#include "core/ops.h"
#include "core/parallel.h"

namespace tramel {
namespace {

std::atomic<uint64_t> g_seed{0x853c49e6748fea9bULL};
std::atomic<uint64_t> g_offset{0};

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

// Reserves n counters and calls f(T*, counter_base, key) to fill a tensor.
template <typename F>
void fill_random(Tensor& t, const char* op, F&& per_element) {
  require_host_addressable(t.device(), op);
  t.make_storage_unique();
  uint64_t key = g_seed.load(std::memory_order_relaxed);
  uint64_t base = g_offset.fetch_add(uint64_t(t.numel()), std::memory_order_relaxed);
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

}  // namespace

void manual_seed(uint64_t seed) {
  g_seed.store(seed, std::memory_order_relaxed);
  g_offset.store(0, std::memory_order_relaxed);
}

void fill_uniform_(Tensor& t, double low, double high) {
  double scale = high - low;
  fill_random(t, "fill_rand_uniform_", [=](auto tag, const Draw& r) {
    using T = typename decltype(tag)::type;
    double re = low + scale * unit(r.x[0], r.x[1]);
    if constexpr (is_complex_v<T>)
      return T(typename T::value_type(re), typename T::value_type(low + scale * unit(r.x[2], r.x[3])));
    else
      return cast_value<T>(re);
  });
}

void fill_normal_(Tensor& t, double mean, double stddev, bool fast_math) {
  constexpr double kTwoPi = 6.283185307179586;
  bool single = fast_math && t.dtype() == DType::Float32;
  fill_random(t, "fill_rand_normal_", [=](auto tag, const Draw& r) {
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

void fill_binary_(Tensor& t, double threshold) {
  fill_random(t, "fill_rand_binary_", [=](auto tag, const Draw& r) {
    using T = typename decltype(tag)::type;
    return cast_value<T>(int(unit(r.x[0], r.x[1]) >= threshold));
  });
}

Tensor randu(const Shape& shape, double low, double high, int device, DType dtype) {
  Tensor t = Tensor::empty(shape, dtype, device, "randu");
  fill_uniform_(t, low, high);
  return t;
}

Tensor randn(const Shape& shape, double mean, double stddev, int device, DType dtype) {
  Tensor t = Tensor::empty(shape, dtype, device, "randn");
  fill_normal_(t, mean, stddev, false);
  return t;
}

}  // namespace tramel
