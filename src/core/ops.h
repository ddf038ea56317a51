// The engine's operations, by kernel family. Results are new tensors unless
// the name ends in an underscore (in place).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/tensor.h"

namespace tramel {

// ---- conversion and copies (kernels/convert.cpp) ----
// Copies an external strided buffer (byte strides) into a new tensor of `dtype`.
Tensor from_strided(const void* src, DType src_dtype, const Shape& shape,
                    const int64_t* byte_strides, DType dtype, int device);
// A tensor of `dtype`; with `force_new` false it may share `t`'s storage.
Tensor to_dtype(const Tensor& t, DType dtype, bool force_new);
// A copy on `device` (which may be t's own).
Tensor to_device(const Tensor& t, int device, const char* op);
// Copies src's elements into dst (equal shapes), converting to dst's dtype,
// across devices when they differ.
void copy_into(const Tensor& src, Tensor& dst);
// Writes t's elements, converted to `dtype`, into host memory at `dst`.
void copy_to_host(const Tensor& t, DType dtype, void* dst, const char* op);

// ---- creation and fills (kernels/fill.cpp) ----
Tensor full(const Shape& shape, const Scalar& value, int device, DType dtype, const char* op = "full");
Tensor arange(double start, double end, double step, int device, DType dtype);
Tensor linspace(double start, double end, int64_t num, int device, DType dtype);
Tensor logspace(double start, double end, int64_t num, double base, int device, DType dtype);
Tensor eye(int64_t size, int64_t offset, int device, DType dtype);
Tensor diag(const Tensor& t, int64_t k);
void fill_(Tensor& t, const Scalar& value);

// ---- random draws (kernels/random.cpp) ----
// One seedable generator for the whole process.
void manual_seed(uint64_t seed);
void fill_uniform_(Tensor& t, double low, double high);
void fill_normal_(Tensor& t, double mean, double stddev, bool fast_math);
void fill_binary_(Tensor& t, double threshold);
Tensor randu(const Shape& shape, double low, double high, int device, DType dtype);
Tensor randn(const Shape& shape, double mean, double stddev, int device, DType dtype);

// ---- element-wise (kernels/elementwise.cpp) ----
void add_(Tensor& t, const Tensor& other);

// ---- whole-tensor queries and arg-reductions (kernels/reduce.cpp) ----
bool all(const Tensor& t);
bool any(const Tensor& t);
double l2_norm(const Tensor& t);
bool is_nonzero(const Tensor& t);
// Flat index of the first extremum, as a one-element int64 tensor on t's device.
Tensor argmax(const Tensor& t);
Tensor argmin(const Tensor& t);
// Index of the first extremum within the block spanned by `axes`, row-major.
Tensor argmax(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims);
Tensor argmin(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims);

// Axis helpers shared by the reductions.
int64_t wrap_axis(int64_t axis, int ndim, const char* op, const Shape& shape);

// ---- export configuration ----
// The two flags that recording operators test; the Python values behind them
// are kept by the bindings.
struct ExportFlags {
  bool save_constant_is_true = false;
  bool save_opinfo_is_not_false = false;
};
ExportFlags& export_flags();

}  // namespace tramel
