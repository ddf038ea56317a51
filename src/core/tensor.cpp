#include "core/tensor.h"

#include <cstdlib>
#include <new>
#include <sstream>

#include "core/backend.h"

namespace tramel {

// ---- Shape ----

Shape::Shape(const int64_t* dims, int rank, const char* op) {
  if (rank > kMaxRank)
    fail(ErrorKind::Value, op,
         "rank " + std::to_string(rank) + " exceeds the largest supported rank " + std::to_string(kMaxRank));
  rank_ = rank;
  for (int i = 0; i < rank; ++i) dims_[i] = dims[i];
  // Keep numel * itemsize representable: larger shapes could never be
  // allocated. The bound is on the product of the non-zero dimensions, as in
  // numpy, so that the product of any of a shape's dimensions (what the
  // fronts and kernels compute: an axis plan's outer, reduced and inner
  // extents, merged axes) fits in int64 even when another one is zero.
  int64_t count = 1;
  for (int i = 0; i < rank; ++i) {
    if (dims[i] < 0) fail(ErrorKind::Value, op, "negative dimension in shape " + str());
    if (dims[i] != 0 && (__builtin_mul_overflow(count, dims[i], &count) || count > kMaxElements))
      fail(ErrorKind::Value, op, "shape " + str() + " has too many elements");
  }
}

int64_t Shape::numel() const {
  int64_t n = 1;
  for (int i = 0; i < rank_; ++i) n *= dims_[i];
  return n;
}

bool Shape::operator==(const Shape& o) const {
  if (rank_ != o.rank_) return false;
  for (int i = 0; i < rank_; ++i)
    if (dims_[i] != o.dims_[i]) return false;
  return true;
}

std::string Shape::str() const {
  std::string s = "[";
  for (int i = 0; i < rank_; ++i) {
    if (i) s += ", ";
    s += std::to_string(dims_[i]);
  }
  return s + "]";
}

// ---- Storage ----

namespace {
// Buffers up to this size live in the same allocation as their header: one
// malloc per tensor instead of two, which matters for the many tiny tensors
// of an autograd graph.
constexpr size_t kInlineBytes = 4096;
constexpr size_t kHeaderBytes = (sizeof(Storage) + 15) / 16 * 16;
}  // namespace

Storage* Storage::create(size_t nbytes, int device, const char* op) {
  Backend& backend = backend_for(device, op);
  if (backend.host_addressable() && nbytes <= kInlineBytes) {
    // malloc's 16-byte alignment is enough for buffers this small, and much
    // cheaper than an aligned allocation.
    void* block = std::malloc(kHeaderBytes + nbytes);
    if (!block) fail(ErrorKind::Runtime, op, "out of memory");
    return new (block) Storage(static_cast<char*>(block) + kHeaderBytes, nbytes, &backend, device, true);
  }
  void* data = backend.allocate(nbytes, device);
  if (!data && nbytes)
    fail(ErrorKind::Runtime, op, "out of memory allocating " + std::to_string(nbytes) + " bytes on device " +
                                     std::to_string(device));
  return new Storage(data, nbytes, &backend, device, false);
}

void Storage::release() {
  if (refcount_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  if (inline_block_) {
    this->~Storage();
    std::free(this);
  } else {
    backend_->deallocate(data_, nbytes_, device_);
    delete this;
  }
}

// ---- Tensor ----

Tensor Tensor::empty(const Shape& shape, DType dtype, int device, const char* op) {
  Tensor t;
  t.shape_ = shape;
  t.numel_ = shape.numel();
  t.dtype_ = dtype;
  t.storage_ = StorageRef(Storage::create(t.nbytes(), device, op));
  return t;
}

void Tensor::make_storage_unique() {
  if (storage_ && storage_->use_count() > 1) {
    StorageRef fresh(Storage::create(nbytes(), device(), "copy-on-write"));
    storage_->backend().copy_on_device(fresh->data(), device(), storage_->data(), device(), nbytes());
    storage_ = std::move(fresh);
  }
}

Tensor Tensor::view_as(const Shape& shape) const {
  if (shape.numel() != numel_)
    fail(ErrorKind::Value, "reshape", "cannot view shape " + shape_.str() + " as " + shape.str());
  Tensor t = *this;
  t.shape_ = shape;
  return t;
}

std::string Tensor::describe() const {
  std::ostringstream os;
  os << "Tensor shape=" << shape_.str() << " dtype=" << dtype_name(dtype_) << " device=" << device()
     << " numel=" << numel_ << " bytes=" << nbytes()
     << " storage_refs=" << (storage_ ? storage_->use_count() : 0);
  return os.str();
}

// ---- export flags ----

ExportFlags& export_flags() {
  static ExportFlags flags;
  return flags;
}

}  // namespace tramel
