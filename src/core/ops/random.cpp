// Random fills from one counter-based generator (Philox 4x32-10).
//
// Element i of a fill draws from counter (offset + i), so a fill gives the
// same values on one thread or many, and on any device; the process-wide
// offset advances by the number of elements after each fill. manual_seed
// resets both key and offset. The draws themselves are kernels
// (kernels/random.cpp).
#include <atomic>

#include "core/ops/front.h"

namespace tramel {
namespace {

std::atomic<uint64_t> g_seed{0x853c49e6748fea9bULL};
std::atomic<uint64_t> g_offset{0};

// Makes t's storage its own and reserves one counter per element.
RandomStream reserve(Tensor& t) {
  t.make_storage_unique();
  uint64_t key = g_seed.load(std::memory_order_relaxed);
  uint64_t base = g_offset.fetch_add(uint64_t(t.numel()), std::memory_order_relaxed);
  return RandomStream{key, base};
}

}  // namespace

void manual_seed(uint64_t seed) {
  g_seed.store(seed, std::memory_order_relaxed);
  g_offset.store(0, std::memory_order_relaxed);
}

void fill_uniform_(Tensor& t, double low, double high) {
  const char* op = "fill_rand_uniform_";
  UniformKernel kernel = need(kernels_of(t).random_uniform, t, op);
  kernel(t, reserve(t), low, high);
}

void fill_normal_(Tensor& t, double mean, double stddev, bool fast_math) {
  const char* op = "fill_rand_normal_";
  NormalKernel kernel = need(kernels_of(t).random_normal, t, op);
  kernel(t, reserve(t), mean, stddev, fast_math && t.dtype() == DType::Float32);
}

void fill_binary_(Tensor& t, double threshold) {
  const char* op = "fill_rand_binary_";
  BernoulliKernel kernel = need(kernels_of(t).random_binary, t, op);
  kernel(t, reserve(t), threshold);
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
