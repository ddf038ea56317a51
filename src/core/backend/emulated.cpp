// The emulated accelerators: host memory treated as a GPU's. See Note
// [backend seam] in backend.h.
#include "core/backend/emulated.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <type_traits>
#include <unordered_map>

namespace tramel::emulated {
namespace {

// Every buffer is followed by kGuardBytes bytes of a fixed pattern, salted
// with the buffer's address: a kernel that copies past the end of one buffer
// into the end of another would otherwise carry a valid guard across.
constexpr size_t kAlignment = 64;
constexpr size_t kGuardBytes = 64;

inline unsigned char guard_byte(const void* buffer, size_t i) {
  uint64_t salt = (uint64_t(reinterpret_cast<uintptr_t>(buffer)) >> 6) * 0x9E3779B97F4A7C15ull;
  return static_cast<unsigned char>((salt >> 56) ^ 0xA5 ^ (i * 29));
}

// ---- counting wrappers around the host kernels ----

// The entry of slot `Slot` (a pointer to a member of Kernels) at index I in
// `table`; I is 0 for the slots that hold one kernel.
template <auto Slot, size_t I, typename Table>
decltype(auto) entry(Table& table) {
  auto& field = table.*Slot;
  if constexpr (std::is_array_v<std::remove_reference_t<decltype(field)>>) return (field[I]);
  else return (field);
}

template <auto Slot, size_t I>
using kernel_t = std::remove_cv_t<std::remove_reference_t<decltype(entry<Slot, I>(std::declval<Kernels&>()))>>;

template <auto Slot, size_t I>
std::atomic<uint64_t> g_calls{0};

template <typename K> struct Counted;
template <typename R, typename... A>
struct Counted<R (*)(A...)> {
  template <auto Slot, size_t I>
  static R call(A... args) {
    g_calls<Slot, I>.fetch_add(1, std::memory_order_relaxed);
    return entry<Slot, I>(host_kernels())(static_cast<A>(args)...);
  }
};

struct SlotRef {
  std::string name;
  std::atomic<uint64_t>* calls;
  // Puts the counting wrapper (or nothing) into `table`'s slot.
  void (*set)(Kernels& table, bool enabled);
};

template <auto Slot, size_t I>
void set_slot(Kernels& table, bool enabled) {
  using K = kernel_t<Slot, I>;
  bool host_has = entry<Slot, I>(host_kernels()) != nullptr;
  entry<Slot, I>(table) = enabled && host_has ? &Counted<K>::template call<Slot, I> : K(nullptr);
}

template <auto Slot, size_t I>
SlotRef slot_ref(std::string name) {
  return SlotRef{std::move(name), &g_calls<Slot, I>, &set_slot<Slot, I>};
}

template <auto Slot, typename Info, size_t... I>
void add_many(std::vector<SlotRef>& out, const char* family, const Info& info, std::index_sequence<I...>) {
  (out.push_back(slot_ref<Slot, I>(std::string(family) + "." + info[I].name)), ...);
}

const std::vector<SlotRef>& slots() {
  static const std::vector<SlotRef> all = [] {
    std::vector<SlotRef> out;
#define TRAMEL_SLOT_ONE(name, type) out.push_back(slot_ref<&Kernels::name, 0>(#name));
#define TRAMEL_SLOT_MANY(name, type, count, info) \
  add_many<&Kernels::name>(out, #name, info, std::make_index_sequence<count>{});
    TRAMEL_KERNEL_SLOTS(TRAMEL_SLOT_ONE, TRAMEL_SLOT_MANY)
#undef TRAMEL_SLOT_ONE
#undef TRAMEL_SLOT_MANY
    return out;
  }();
  return all;
}

// ---- the backend ----

class EmulatedBackend : public Backend {
 public:
  EmulatedBackend() : Backend("emulated accelerator", false) {
    for (const SlotRef& s : slots()) s.set(kernels_, true);
  }

  void set_enabled(const SlotRef& s, bool enabled) { s.set(kernels_, enabled); }

  void* allocate(size_t nbytes, int device) override {
    size_t total = (nbytes + kGuardBytes + kAlignment - 1) / kAlignment * kAlignment;
    auto* p = static_cast<unsigned char*>(std::aligned_alloc(kAlignment, total));
    if (!p) return nullptr;
    for (size_t i = 0; i < kGuardBytes; ++i) p[nbytes + i] = guard_byte(p, i);
    std::lock_guard<std::mutex> lock(mutex_);
    live_[p] = Buffer{nbytes, device, false};
    return p;
  }

  void deallocate(void* ptr, size_t, int) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = live_.find(ptr);
      check(ptr, it->second);
      live_.erase(it);
    }
    std::free(ptr);
  }

  void copy_from_host(void* dst, int, const void* src, size_t nbytes) override { copy(dst, src, nbytes); }
  void copy_to_host(void* dst, const void* src, int, size_t nbytes) override { copy(dst, src, nbytes); }
  void copy_on_device(void* dst, int, const void* src, int, size_t nbytes) override { copy(dst, src, nbytes); }

  int64_t violations() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [ptr, buffer] : live_) check(ptr, buffer);
    return violations_;
  }

 private:
  struct Buffer {
    size_t nbytes;
    int device;
    bool reported;  // its damage is counted already
  };

  static void copy(void* dst, const void* src, size_t nbytes) {
    if (nbytes) std::memcpy(dst, src, nbytes);
  }

  // Counts and reports a damaged guard once per buffer. Called with mutex_ held.
  void check(const void* ptr, Buffer& b) {
    if (b.reported) return;
    const auto* guard = static_cast<const unsigned char*>(ptr) + b.nbytes;
    for (size_t i = 0; i < kGuardBytes; ++i)
      if (guard[i] != guard_byte(ptr, i)) {
        b.reported = true;
        ++violations_;
        std::fprintf(stderr, "pytramel: the guard bytes after a buffer of %zu bytes on device %d were overwritten\n",
                     b.nbytes, b.device);
        return;
      }
  }

  std::mutex mutex_;
  std::unordered_map<const void*, Buffer> live_;
  int64_t violations_ = 0;
};

EmulatedBackend& instance() {
  // Never destroyed: tensors may be freed while the process exits.
  static EmulatedBackend* b = new EmulatedBackend();
  return *b;
}

}  // namespace

Backend& backend() { return instance(); }

std::vector<std::string> kernel_slots() {
  std::vector<std::string> names;
  for (const SlotRef& s : slots()) names.push_back(s.name);
  return names;
}

std::vector<std::pair<std::string, uint64_t>> kernel_calls() {
  std::vector<std::pair<std::string, uint64_t>> out;
  for (const SlotRef& s : slots())
    if (uint64_t n = s.calls->load(std::memory_order_relaxed)) out.emplace_back(s.name, n);
  return out;
}

void reset_kernel_calls() {
  for (const SlotRef& s : slots()) s.calls->store(0, std::memory_order_relaxed);
}

void set_kernel_enabled(const std::string& slot, bool enabled, const char* op) {
  for (const SlotRef& s : slots())
    if (s.name == slot) return instance().set_enabled(s, enabled);
  fail(ErrorKind::Value, op, "no kernel slot is called '" + slot + "'");
}

int64_t guard_violations() { return instance().violations(); }

void write_past_end(const Tensor& t, size_t nbytes, const char* op) {
  if (&t.storage()->backend() != &instance())
    fail(ErrorKind::Value, op, "only buffers on emulated accelerators have guard bytes; the tensor is on device " +
                                   std::to_string(t.device()));
  if (nbytes > kGuardBytes)
    fail(ErrorKind::Value, op, "at most " + std::to_string(kGuardBytes) + " bytes fit in the guard, got " +
                                   std::to_string(nbytes));
  const Storage* s = t.storage();
  std::unique_ptr<unsigned char[]> junk(new unsigned char[nbytes ? nbytes : 1]);
  for (size_t i = 0; i < nbytes; ++i) junk[i] = static_cast<unsigned char>(~guard_byte(s->data(), i));
  instance().copy_from_host(static_cast<char*>(s->data()) + s->nbytes(), s->device(), junk.get(), nbytes);
}

}  // namespace tramel::emulated
