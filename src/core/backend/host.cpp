// Backends whose memory is host memory: the processor (device 0) and the
// emulated accelerators (see device.h).
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "core/device.h"
#include "core/error.h"

namespace tramel {
namespace {

constexpr size_t kAlignment = 64;

class HostBackend : public Backend {
 public:
  explicit HostBackend(const char* name) : name_(name) {}
  const char* name() const override { return name_; }
  bool host_addressable() const override { return true; }
  void* allocate(size_t nbytes) override {
    size_t rounded = (nbytes + kAlignment - 1) / kAlignment * kAlignment;
    return std::aligned_alloc(kAlignment, rounded ? rounded : kAlignment);
  }
  void deallocate(void* ptr, size_t) override { std::free(ptr); }
  void copy(void* dst, const void* src, size_t nbytes) override {
    if (nbytes) std::memcpy(dst, src, nbytes);
  }

 private:
  const char* name_;
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
