// The registry of backends by device number, and copies between backends.
#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "core/backend.h"
#include "core/backend/emulated.h"

namespace tramel {

Backend& cpu_backend();  // host.cpp

namespace {

int read_emulated_count() {
  const char* value = std::getenv("PYTRAMEL_EMULATED_ACCELERATORS");
  if (!value) return 0;
  int n = std::atoi(value);
  return n < 0 ? 0 : n;
}

// Device ranges and their backends. Entries are written once, before the
// count that publishes them, so lookups need no lock.
class Registry {
 public:
  Registry() : cpu_(&cpu_backend()), emulated_count_(read_emulated_count()) {
    add(kCpuDevice, 1, *cpu_);
    if (emulated_count_ > 0) add(kFirstAccelerator, emulated_count_, emulated::backend());
  }

  Backend* cpu() const { return cpu_; }
  int emulated_count() const { return emulated_count_; }

  Backend* find(int device) const {
    int n = size_.load(std::memory_order_acquire);
    for (int i = 0; i < n; ++i)
      if (device >= entries_[i].first && device - entries_[i].first < entries_[i].count) return entries_[i].backend;
    return nullptr;
  }

  void add(int first, int count, Backend& backend) {
    const char* op = "register_backend";
    std::lock_guard<std::mutex> lock(mutex_);
    if (count < 1) fail(ErrorKind::Value, op, "a backend must serve at least one device, got " + std::to_string(count));
    int n = size_.load(std::memory_order_relaxed);
    for (int i = 0; i < n; ++i) {
      const Entry& e = entries_[i];
      if (first < e.first + e.count && e.first < first + count)
        fail(ErrorKind::Runtime, op, "devices " + std::to_string(first) + ".." + std::to_string(first + count - 1) +
                                         " overlap those of the " + e.backend->name() + " backend");
    }
    if (n == kMaxBackends) fail(ErrorKind::Runtime, op, "too many backends");
    entries_[n] = Entry{first, count, &backend};
    size_.store(n + 1, std::memory_order_release);
  }

 private:
  static constexpr int kMaxBackends = 16;
  struct Entry {
    int first, count;
    Backend* backend;
  };
  Entry entries_[kMaxBackends] = {};
  std::atomic<int> size_{0};
  std::mutex mutex_;
  Backend* cpu_;
  int emulated_count_;
};

Registry& registry() {
  static Registry r;
  return r;
}

}  // namespace

void register_backend(int first_device, int count, Backend& backend) { registry().add(first_device, count, backend); }

int emulated_accelerator_count() { return registry().emulated_count(); }

bool device_available(int device) { return device == kCpuDevice || registry().find(device) != nullptr; }

Backend& backend_for(int device, const char* op) {
  Registry& r = registry();
  if (device == kCpuDevice) return *r.cpu();
  if (Backend* b = r.find(device)) return *b;
  if (device >= kFirstAccelerator)
    fail(ErrorKind::Runtime, op,
         "device " + std::to_string(device) +
             " is not available: no accelerator backend serves it (this build has no GPU support; "
             "set PYTRAMEL_EMULATED_ACCELERATORS=N for emulated ones)");
  fail(ErrorKind::Runtime, op,
       "device " + std::to_string(device) + " is not available: devices are 0 (processor) and 1000 and up");
}

void fail_no_kernel(const char* op, int device) {
  fail(ErrorKind::Runtime, op, "not available on device " + std::to_string(device));
}

void require_host_addressable(int device, const char* op) {
  if (!backend_for(device, op).host_addressable()) fail_no_kernel(op, device);
}

void copy_bytes(const Tensor& src, Tensor& dst) {
  size_t n = src.nbytes();
  if (n == 0) return;
  Backend& from = src.storage()->backend();
  Backend& to = dst.storage()->backend();
  if (&from == &to) {
    from.copy_on_device(dst.raw(), dst.device(), src.raw(), src.device(), n);
  } else if (from.host_addressable()) {
    to.copy_from_host(dst.raw(), dst.device(), src.raw(), n);
  } else if (to.host_addressable()) {
    from.copy_to_host(dst.raw(), src.raw(), src.device(), n);
  } else {  // two accelerator backends: through host memory
    std::unique_ptr<char[]> staging(new char[n]);
    from.copy_to_host(staging.get(), src.raw(), src.device(), n);
    to.copy_from_host(dst.raw(), dst.device(), staging.get(), n);
  }
}

}  // namespace tramel
