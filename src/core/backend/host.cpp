// Backends whose memory is host memory: the processor (device 0) and the
// emulated accelerators (see device.h).
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "core/device.h"
#include "core/error.h"

namespace tramel {
namespace {

constexpr size_t kAlignment = 64;

// Note [large host buffers]
// A fresh multi-megabyte buffer from malloc is new mapped memory: the first
// write to each 4 KiB page faults, which costs as much as the arithmetic of an
// element-wise kernel. Large buffers therefore come in 2 MiB-aligned blocks
// marked for transparent huge pages, and freed blocks are kept in a cache and
// handed out again for requests of similar size (at most 1/4 smaller), the
// way a GPU caching allocator works. The cache holds at most kCacheLimit
// bytes (PYTRAMEL_HOST_CACHE_MB overrides it; 0 turns caching off) and
// returns the oldest blocks to the system first.
constexpr size_t kLargeBytes = size_t(1) << 20;
constexpr size_t kHugePage = size_t(2) << 20;
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
    void* p = std::aligned_alloc(kHugePage, want);
    if (!p) return nullptr;
#ifdef MADV_HUGEPAGE
    madvise(p, want, MADV_HUGEPAGE);
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
  static size_t round_up(size_t n) { return (n + kHugePage - 1) / kHugePage * kHugePage; }

  std::mutex mutex_;
  std::unordered_map<void*, size_t> live_;    // block -> its size
  std::list<std::pair<void*, size_t>> free_;  // oldest first
  size_t cached_ = 0;
  size_t limit_ = cache_limit();
};

class HostBackend : public Backend {
 public:
  explicit HostBackend(const char* name) : name_(name) {}
  const char* name() const override { return name_; }
  bool host_addressable() const override { return true; }
  void* allocate(size_t nbytes) override {
    if (nbytes >= kLargeBytes) return cache_->take(nbytes);
    size_t rounded = (nbytes + kAlignment - 1) / kAlignment * kAlignment;
    return std::aligned_alloc(kAlignment, rounded ? rounded : kAlignment);
  }
  void deallocate(void* ptr, size_t nbytes) override {
    if (nbytes >= kLargeBytes) cache_->give(ptr);
    else std::free(ptr);
  }
  void copy(void* dst, const void* src, size_t nbytes) override {
    if (nbytes) std::memcpy(dst, src, nbytes);
  }

 private:
  const char* name_;
  // Never destroyed: tensors may be freed while the process exits.
  BlockCache* cache_ = new BlockCache();
};

int read_emulated_count() {
  const char* value = std::getenv("PYTRAMEL_EMULATED_ACCELERATORS");
  if (!value) return 0;
  int n = std::atoi(value);
  return n < 0 ? 0 : n;
}

struct Registry {
  HostBackend cpu{"cpu"};
  HostBackend emulated{"emulated accelerator"};
  int emulated_count = read_emulated_count();
};

Registry& registry() {
  static Registry r;
  return r;
}

}  // namespace

int emulated_accelerator_count() { return registry().emulated_count; }

bool device_available(int device) {
  if (device == kCpuDevice) return true;
  return device >= kFirstAccelerator && device < kFirstAccelerator + registry().emulated_count;
}

Backend& backend_for(int device, const char* op) {
  Registry& r = registry();
  if (device == kCpuDevice) return r.cpu;
  if (device_available(device)) return r.emulated;
  if (device >= kFirstAccelerator)
    fail(ErrorKind::Runtime, op,
         "device " + std::to_string(device) +
             " is not available: no accelerator backend serves it (this build has no GPU support; "
             "set PYTRAMEL_EMULATED_ACCELERATORS=N for emulated ones)");
  fail(ErrorKind::Runtime, op,
       "device " + std::to_string(device) + " is not available: devices are 0 (processor) and 1000 and up");
}

void require_host_addressable(int device, const char* op) {
  if (!backend_for(device, op).host_addressable())
    fail(ErrorKind::Runtime, op, "not available on device " + std::to_string(device));
}

}  // namespace tramel
