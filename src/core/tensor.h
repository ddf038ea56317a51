// core::Tensor: a dense, contiguous, row-major array on one device.
#pragma once
#include <string>

#include "core/device.h"
#include "core/dtype.h"
#include "core/shape.h"
#include "core/storage.h"

namespace tramel {

class Tensor {
 public:
  Tensor() = default;
  // Uninitialised tensor.
  static Tensor empty(const Shape& shape, DType dtype, int device, const char* op = "empty");

  const Shape& shape() const { return shape_; }
  int ndim() const { return shape_.rank(); }
  int64_t numel() const { return numel_; }
  DType dtype() const { return dtype_; }
  int device() const { return storage_ ? storage_->device() : kCpuDevice; }
  size_t nbytes() const { return size_t(numel_) * itemsize(dtype_); }
  const Storage* storage() const { return storage_.get(); }

  // Element memory, for kernels and backends; fronts never touch it (Note
  // [backend seam] in backend.h), and on an accelerator it is device memory.
  void* raw() const { return storage_->data(); }
  template <typename T> T* data() const { return static_cast<T*>(storage_->data()); }

  // See Note [copy-on-write storage].
  void make_storage_unique();
  // The same elements under another shape of equal size, sharing storage.
  Tensor view_as(const Shape& shape) const;
  // Replaces this tensor's contents (shape, dtype, device, storage) by `other`'s.
  void assign(Tensor other) { *this = std::move(other); }

  std::string describe() const;

 private:
  Shape shape_;
  int64_t numel_ = 0;
  DType dtype_ = DType::Float32;
  StorageRef storage_;
};

}  // namespace tramel
