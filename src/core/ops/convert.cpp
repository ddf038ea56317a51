// Dtype conversion and copies between buffers and devices.
#include "core/ops/front.h"

namespace tramel {

Tensor from_strided(const void* src, DType src_dtype, const Shape& shape, const int64_t* byte_strides,
                    DType dtype, int device) {
  const char* op = "Tensor";
  // The source is host memory: the processor reads it, then the bytes move.
  Tensor host = Tensor::empty(shape, dtype, kCpuDevice, op);
  if (host.numel() != 0) need(kernels_of(host).import_strided, host, op)(src, src_dtype, byte_strides, host);
  return device == kCpuDevice ? host : to_device(host, device, op);
}

Tensor to_device(const Tensor& t, int device, const char* op) {
  Tensor out = Tensor::empty(t.shape(), t.dtype(), device, op);
  copy_bytes(t, out);
  return out;
}

Tensor to_dtype(const Tensor& t, DType dtype, bool force_new) {
  const char* op = "toDtype";
  if (dtype == t.dtype()) {
    if (!force_new) return t;
    return to_device(t, t.device(), op);
  }
  Tensor out = Tensor::empty(t.shape(), dtype, t.device(), op);
  need(kernels_of(t).convert, t, op)(t, out);
  return out;
}

void copy_into(const Tensor& src, Tensor& dst) {
  const char* op = "copyTensor";
  if (src.shape() != dst.shape())
    fail(ErrorKind::Value, op, "shapes differ: " + src.shape().str() + " and " + dst.shape().str());
  dst.make_storage_unique();
  if (src.dtype() == dst.dtype()) {
    copy_bytes(src, dst);
    return;
  }
  Tensor converted = to_dtype(src, dst.dtype(), false);
  copy_bytes(converted, dst);
}

void copy_to_host(const Tensor& t, DType dtype, void* dst, const char* op) {
  if (t.device() != kCpuDevice)
    fail(ErrorKind::Runtime, op,
         "tensor is on device " + std::to_string(t.device()) + "; copy it to the processor first");
  need(kernels_of(t).export_host, t, op)(t, dtype, dst);
}

}  // namespace tramel
