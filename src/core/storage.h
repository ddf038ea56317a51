// Reference-counted element buffers.
//
// Note [copy-on-write storage]
// Several tensors may share one Storage (a same-dtype view, an exported DLPack
// buffer). Every operation that writes into a tensor first calls
// Tensor::make_storage_unique(), which copies the buffer when it is shared, so
// sharing is never visible to a user.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace tramel {

class Backend;

class Storage {
 public:
  // A new buffer of `nbytes` on `device`, contents undefined.
  static Storage* create(size_t nbytes, int device, const char* op);

  void* data() const { return data_; }
  size_t nbytes() const { return nbytes_; }
  int device() const { return device_; }
  // The backend that allocated the buffer; its kernels run on it.
  Backend& backend() const { return *backend_; }
  int64_t use_count() const { return refcount_.load(std::memory_order_acquire); }

  void retain() { refcount_.fetch_add(1, std::memory_order_relaxed); }
  void release();

 private:
  Storage(void* data, size_t nbytes, Backend* backend, int device, bool inline_block)
      : data_(data), nbytes_(nbytes), backend_(backend), device_(device), inline_block_(inline_block) {}
  ~Storage() = default;

  std::atomic<int64_t> refcount_{1};
  void* data_;
  size_t nbytes_;
  Backend* backend_;
  int device_;
  // Small buffers of host-addressable backends share one allocation with
  // this header.
  bool inline_block_;
};

// Owning handle of a Storage.
class StorageRef {
 public:
  StorageRef() = default;
  explicit StorageRef(Storage* adopted) : s_(adopted) {}
  StorageRef(const StorageRef& o) : s_(o.s_) { if (s_) s_->retain(); }
  StorageRef(StorageRef&& o) noexcept : s_(std::exchange(o.s_, nullptr)) {}
  StorageRef& operator=(StorageRef o) noexcept { std::swap(s_, o.s_); return *this; }
  ~StorageRef() { if (s_) s_->release(); }

  Storage* get() const { return s_; }
  Storage* operator->() const { return s_; }
  explicit operator bool() const { return s_ != nullptr; }

 private:
  Storage* s_ = nullptr;
};

}  // namespace tramel
