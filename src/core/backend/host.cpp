// The processor's backend (device 0) and the table of host kernels.
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "core/backend.h"
#include "core/kernels/host_kernels.h"

namespace tramel {
namespace {

constexpr size_t kAlignment = 64;

// Note [large host buffers]
// A fresh multi-megabyte buffer from malloc is new mapped memory: the first
// write to each 4 KiB page faults, which costs as much as the arithmetic of an
// element-wise kernel. Buffers of 2 MiB and more therefore come in 2 MiB-aligned
// blocks marked for transparent huge pages (smaller ones from 1 MiB in 64 KiB
// steps, not to waste half a huge page), and freed blocks are kept in a cache and
// handed out again for requests of similar size (at most 1/4 smaller), the
// way a GPU caching allocator works. The cache holds at most kCacheLimit
// bytes (PYTRAMEL_HOST_CACHE_MB overrides it; 0 turns caching off) and
// returns the oldest blocks to the system first.
constexpr size_t kLargeBytes = size_t(1) << 20;
constexpr size_t kHugePage = size_t(2) << 20;
constexpr size_t kPage = size_t(4) << 10;
constexpr size_t kSmallStep = size_t(64) << 10;
constexpr size_t kCacheLimit = size_t(512) << 20;

size_t cache_limit() {
  const char* value = std::getenv("PYTRAMEL_HOST_CACHE_MB");
  if (!value) return kCacheLimit;
  long long mb = std::atoll(value);
  return mb <= 0 ? 0 : size_t(mb) << 20;
}

class BlockCache {
 public:
  void* take(size_t nbytes) {
    size_t want = round_up(nbytes);
    std::lock_guard<std::mutex> lock(mutex_);
    auto best = free_.end();
    for (auto it = free_.begin(); it != free_.end(); ++it)
      if (it->second >= want && it->second - it->second / 4 <= want &&
          (best == free_.end() || it->second < best->second))
        best = it;
    if (best != free_.end()) {
      void* p = best->first;
      cached_ -= best->second;
      live_[p] = best->second;
      free_.erase(best);
      return p;
    }
    bool huge = want >= kHugePage;
    void* p = std::aligned_alloc(huge ? kHugePage : kPage, want);
    if (!p) return nullptr;
#ifdef MADV_HUGEPAGE
    if (huge) madvise(p, want, MADV_HUGEPAGE);
#endif
    live_[p] = want;
    return p;
  }

  void give(void* p) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = live_.find(p);
    size_t size = it->second;
    live_.erase(it);
    if (size > limit_) {
      std::free(p);
      return;
    }
    free_.emplace_back(p, size);
    cached_ += size;
    while (cached_ > limit_) {
      cached_ -= free_.front().second;
      std::free(free_.front().first);
      free_.pop_front();
    }
  }

 private:
  // Whole huge pages from 2 MiB on; below, whole 64 KiB steps, so that a
  // 1 MiB buffer does not take a 2 MiB block.
  static size_t round_up(size_t n) {
    size_t step = n >= kHugePage ? kHugePage : kSmallStep;
    return (n + step - 1) / step * step;
  }

  std::mutex mutex_;
  std::unordered_map<void*, size_t> live_;    // block -> its size
  std::list<std::pair<void*, size_t>> free_;  // oldest first
  size_t cached_ = 0;
  size_t limit_ = cache_limit();
};

class HostBackend : public Backend {
 public:
  HostBackend() : Backend("cpu", true) { kernels_ = host_kernels(); }
  void* allocate(size_t nbytes, int) override {
    if (nbytes >= kLargeBytes) return cache_->take(nbytes);
    size_t rounded = (nbytes + kAlignment - 1) / kAlignment * kAlignment;
    return std::aligned_alloc(kAlignment, rounded ? rounded : kAlignment);
  }
  void deallocate(void* ptr, size_t nbytes, int) override {
    if (nbytes >= kLargeBytes) cache_->give(ptr);
    else std::free(ptr);
  }
  void copy_from_host(void* dst, int, const void* src, size_t nbytes) override { copy(dst, src, nbytes); }
  void copy_to_host(void* dst, const void* src, int, size_t nbytes) override { copy(dst, src, nbytes); }
  void copy_on_device(void* dst, int, const void* src, int, size_t nbytes) override { copy(dst, src, nbytes); }

 private:
  static void copy(void* dst, const void* src, size_t nbytes) {
    if (nbytes) std::memcpy(dst, src, nbytes);
  }
  // Never destroyed: tensors may be freed while the process exits.
  BlockCache* cache_ = new BlockCache();
};

}  // namespace

const Kernels& host_kernels() {
  static const Kernels table = [] {
    Kernels k;
    add_convert_kernels(k);
    add_fill_kernels(k);
    add_random_kernels(k);
    add_elementwise_kernels(k);
    add_unary_kernels(k);
    add_sum_kernels(k);
    add_stats_kernels(k);
    add_cumsum_kernels(k);
    add_reduce_kernels(k);
    add_shape_kernels(k);
    add_permute_kernels(k);
    add_index_kernels(k);
    add_product_kernels(k);
    add_linalg_kernels(k);
    add_spectral_kernels(k);
    add_sort_kernels(k);
    add_selection_kernels(k);
    add_join_kernels(k);
    add_sequence_kernels(k);
    return k;
  }();
  return table;
}

Backend& cpu_backend() {
  // Never destroyed, like the cache: tensors may be freed while the process exits.
  static HostBackend* cpu = new HostBackend();
  return *cpu;
}

}  // namespace tramel
