// Host kernels of dtype conversion: between tensors, from external strided
// host buffers, and out to host memory.
#include <cstring>

#include "core/kernels/host_kernels.h"
#include "core/parallel.h"

namespace tramel {
namespace {

// Converts n contiguous elements of `src_dtype` at src into `dst_dtype` at dst.
void convert_contiguous(const void* src, DType src_dtype, void* dst, DType dst_dtype, int64_t n) {
  const char* op = "convert";
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

void convert(const Tensor& src, Tensor& dst) {
  convert_contiguous(src.raw(), src.dtype(), dst.raw(), dst.dtype(), src.numel());
}

void export_host(const Tensor& src, DType dtype, void* dst) {
  convert_contiguous(src.raw(), src.dtype(), dst, dtype, src.numel());
}

void import_strided(const void* src, DType src_dtype, const int64_t* byte_strides, Tensor& dst) {
  const Shape& shape = dst.shape();
  if (is_row_major(shape, byte_strides, itemsize(src_dtype))) {
    convert_contiguous(src, src_dtype, dst.raw(), dst.dtype(), dst.numel());
    return;
  }
  // Odometer over all but the last axis; the last axis is a strided run.
  const char* op = "Tensor";
  int rank = shape.rank();
  int64_t inner = shape[rank - 1], inner_stride = byte_strides[rank - 1];
  int64_t outer = dst.numel() / inner;
  dispatch<kAllTypes>(src_dtype, op, [&](auto src_tag) {
    using From = typename decltype(src_tag)::type;
    dispatch<kAllTypes>(dst.dtype(), op, [&](auto dst_tag) {
      using To = typename decltype(dst_tag)::type;
      To* d = dst.data<To>();
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

}  // namespace

void add_convert_kernels(Kernels& k) {
  k.convert = convert;
  k.import_strided = import_strided;
  k.export_host = export_host;
}

}  // namespace tramel
