// Dtype conversion and copies between buffers and devices.
#include <cstring>

#include "core/ops.h"
#include "core/parallel.h"

namespace tramel {
namespace {

// Converts n contiguous elements of `src_dtype` at src into `dst_dtype` at dst.
void convert_contiguous(const void* src, DType src_dtype, void* dst, DType dst_dtype, int64_t n,
                        const char* op) {
  if (src_dtype == dst_dtype) {
    size_t item = itemsize(src_dtype);
    parallel_for(n, kParallelGrain * 4, [&](int64_t b, int64_t e) {
      std::memcpy(static_cast<char*>(dst) + b * item, static_cast<const char*>(src) + b * item, (e - b) * item);
    });
    return;
  }
  dispatch<kAllTypes>(src_dtype, op, [&](auto src_tag) {
    using From = typename decltype(src_tag)::type;
    dispatch<kAllTypes>(dst_dtype, op, [&](auto dst_tag) {
      using To = typename decltype(dst_tag)::type;
      const From* s = static_cast<const From*>(src);
      To* d = static_cast<To*>(dst);
      parallel_for(n, kParallelGrain, [&](int64_t b, int64_t e) {
        for (int64_t i = b; i < e; ++i) d[i] = cast_value<To>(s[i]);
      });
    });
  });
}

bool is_row_major(const Shape& shape, const int64_t* byte_strides, size_t item) {
  int64_t expected = int64_t(item);
  for (int i = shape.rank() - 1; i >= 0; --i) {
    if (shape[i] != 1 && byte_strides[i] != expected) return false;
    expected *= shape[i];
  }
  return true;
}

void device_copy(const Tensor& src, Tensor& dst, const char* op) {
  // Host memory on at least one side: the other side's backend moves the bytes.
  Backend& src_backend = backend_for(src.device(), op);
  Backend& dst_backend = backend_for(dst.device(), op);
  if (src_backend.host_addressable())
    dst_backend.copy(dst.raw(), src.raw(), src.nbytes());
  else
    src_backend.copy(dst.raw(), src.raw(), src.nbytes());
}

}  // namespace

Tensor from_strided(const void* src, DType src_dtype, const Shape& shape, const int64_t* byte_strides,
                    DType dtype, int device) {
  const char* op = "Tensor";
  Tensor host = Tensor::empty(shape, dtype, kCpuDevice, op);
  if (host.numel() == 0) return device == kCpuDevice ? host : to_device(host, device, op);
  if (is_row_major(shape, byte_strides, itemsize(src_dtype))) {
    convert_contiguous(src, src_dtype, host.raw(), dtype, host.numel(), op);
  } else {
    // Odometer over all but the last axis; the last axis is a strided run.
    int rank = shape.rank();
    int64_t inner = shape[rank - 1], inner_stride = byte_strides[rank - 1];
    int64_t outer = host.numel() / inner;
    dispatch<kAllTypes>(src_dtype, op, [&](auto src_tag) {
      using From = typename decltype(src_tag)::type;
      dispatch<kAllTypes>(dtype, op, [&](auto dst_tag) {
        using To = typename decltype(dst_tag)::type;
        To* d = host.data<To>();
        int64_t index[kMaxRank] = {};
        const char* row = static_cast<const char*>(src);
        for (int64_t o = 0; o < outer; ++o) {
          for (int64_t j = 0; j < inner; ++j)
            d[o * inner + j] = cast_value<To>(*reinterpret_cast<const From*>(row + j * inner_stride));
          for (int ax = rank - 2; ax >= 0; --ax) {
            row += byte_strides[ax];
            if (++index[ax] < shape[ax]) break;
            row -= byte_strides[ax] * shape[ax];
            index[ax] = 0;
          }
        }
      });
    });
  }
  return device == kCpuDevice ? host : to_device(host, device, op);
}

Tensor to_device(const Tensor& t, int device, const char* op) {
  Tensor out = Tensor::empty(t.shape(), t.dtype(), device, op);
  device_copy(t, out, op);
  return out;
}

Tensor to_dtype(const Tensor& t, DType dtype, bool force_new) {
  const char* op = "toDtype";
  if (dtype == t.dtype()) {
    if (!force_new) return t;
    return to_device(t, t.device(), op);
  }
  require_host_addressable(t.device(), op);
  Tensor out = Tensor::empty(t.shape(), dtype, t.device(), op);
  convert_contiguous(t.raw(), t.dtype(), out.raw(), dtype, t.numel(), op);
  return out;
}

void copy_into(const Tensor& src, Tensor& dst) {
  const char* op = "copyTensor";
  if (src.shape() != dst.shape())
    fail(ErrorKind::Value, op, "shapes differ: " + src.shape().str() + " and " + dst.shape().str());
  dst.make_storage_unique();
  if (src.dtype() == dst.dtype()) {
    device_copy(src, dst, op);
    return;
  }
  Tensor converted = to_dtype(src, dst.dtype(), false);
  device_copy(converted, dst, op);
}

void copy_to_host(const Tensor& t, DType dtype, void* dst, const char* op) {
  if (t.device() != kCpuDevice)
    fail(ErrorKind::Runtime, op,
         "tensor is on device " + std::to_string(t.device()) + "; copy it to the processor first");
  convert_contiguous(t.raw(), t.dtype(), dst, dtype, t.numel(), op);
}

}  // namespace tramel
