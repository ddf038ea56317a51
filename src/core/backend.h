// The seam between what an operation computes and where it runs.
//
// Note [backend seam]
// Every operation of ops.h is a front and one or more kernels. The front is
// device-independent: it validates its arguments, promotes dtypes, works out
// the result's shape, allocates the result on the operands' device and hands
// everything to a kernel. It never reads or writes elements itself. A kernel
// only computes: it gets validated, allocated tensors (or a host pointer and
// a size where the other side is user memory) and writes its results.
//
// Kernels are found through the operand's storage: each Storage points at the
// Backend that allocated it, and each Backend holds a Kernels table, a struct
// of typed function pointers with one slot per kernel (one per operation for
// the element-wise families, indexed by their op enum). A call is therefore a
// load from the table and an indirect call. A slot may be empty: the front
// then fails with "[op] not available on device N", so a backend may serve
// part of the engine.
//
// Backends are registered for a range of device numbers with
// register_backend(); the registry also holds the processor backend (device
// 0) and, when PYTRAMEL_EMULATED_ACCELERATORS=N is set at load, the emulated
// accelerators (devices 1000..1000+N-1). Both fill their tables with the host
// kernels (host_kernels()), since both keep elements in host memory.
//
// The emulated accelerators are strict, so that a test on device 1000 shows
// that an operation really went through its device's table:
//  - their memory is not host-addressable (host_addressable() is false), so
//    nothing that hands out host pointers (DLPack) accepts it, and their
//    buffers never share an allocation with the Storage header;
//  - their table holds counting wrappers around the host kernels, so a test
//    can see which kernels ran and can empty one slot for a while;
//  - every buffer is followed by guard bytes of a fixed pattern, checked
//    when it is freed (and on request); a damaged guard is counted and
//    reported on stderr. See backend/emulated.h.
//
// Copies between devices are backend calls (copy_bytes below), not kernels:
// a backend moves bytes to and from host memory and between its own devices.
// Dtype conversion on a device is a kernel (convert).
#pragma once
#include <cstddef>
#include <cstdint>

#include "core/op_table.h"
#include "core/ops.h"

namespace tramel {

// ---- kernel signatures ----

// Element-wise maps with one input, and kernels whose only operand is read
// whole (dtype conversion, broadcasting, arg-extrema).
using MapKernel = void (*)(const Tensor& in, Tensor& out);
// Reads external host memory with byte strides into `dst` (a processor tensor).
using ImportKernel = void (*)(const void* src, DType src_dtype, const int64_t* byte_strides, Tensor& dst);
// Writes src's elements, converted to `dtype`, to host memory at `dst`.
using ExportKernel = void (*)(const Tensor& src, DType dtype, void* dst);

using FillKernel = void (*)(Tensor& t, const Scalar& value);
using ZeroKernel = void (*)(Tensor& t);
using ArangeKernel = void (*)(Tensor& t, double start, double step);
using LinspaceKernel = void (*)(Tensor& t, double start, double end);
using LogspaceKernel = void (*)(Tensor& t, double start, double end, double base);
using EyeKernel = void (*)(Tensor& t, int64_t offset);
// A 2-D `src`: its diagonal k, zeros elsewhere; a 1-D `src`: the square
// matrix with src on diagonal k.
using DiagKernel = void (*)(const Tensor& src, Tensor& out, int64_t k);

// Element i of a random fill draws from counter base + i of the generator's
// stream `key` (see random.cpp).
struct RandomStream {
  uint64_t key, base;
};
using UniformKernel = void (*)(Tensor& t, RandomStream s, double low, double high);
// `single`: the radius of Box-Muller in float (fast_math for float32).
using NormalKernel = void (*)(Tensor& t, RandomStream s, double mean, double stddev, bool single);
using BernoulliKernel = void (*)(Tensor& t, RandomStream s, double threshold);

// Operands already in the computing dtype; the result's dtype is the op's.
using BinaryKernel = void (*)(const Tensor& a, const Tensor& b, Tensor& out);
using BinaryScalarKernel = void (*)(const Tensor& a, const Scalar& b, Tensor& out);
// In place on a; b is in a's dtype.
using InPlaceKernel = void (*)(Tensor& a, const Tensor& b);
using InPlaceScalarKernel = void (*)(Tensor& a, const Scalar& b);
// ins[0..arity) in out's dtype.
using GradKernel = void (*)(const Tensor* const* ins, Tensor& out);
using ClampKernel = void (*)(const Tensor& x, double low, double high, Tensor& out);
using ClampGradKernel = void (*)(const Tensor& x, const Tensor& g, double low, double high, Tensor& out);

// Reductions see their input as an [outer, r, inner] block (Note [reduction
// layout]) and write [outer, inner].
using PassKernel = void (*)(const Tensor& in, Tensor& out, int64_t outer, int64_t r, int64_t inner);
using SpreadKernel = void (*)(const Tensor& x, Tensor& out, int64_t outer, int64_t r, int64_t inner,
                              double divisor, bool sqrt);
// Reorders `work` ([outer, r]) while it finds the median of each row.
using MedianKernel = void (*)(Tensor& work, Tensor& out, int64_t outer, int64_t r);
using ScanKernel = void (*)(const Tensor& in, Tensor& out, int64_t outer, int64_t r, int64_t inner, bool reverse);
// Every element of out is g's one element divided by `count`.
using MeanFillKernel = void (*)(const Tensor& g, Tensor& out, double count);
using SoftmaxGradKernel = void (*)(const Tensor& g, const Tensor& y, Tensor& out, int64_t outer, int64_t r,
                                   int64_t inner);
using PredicateKernel = bool (*)(const Tensor& t);
using NormKernel = double (*)(const Tensor& t);
// The index of the first extremum within each block of the axes flagged in `reduced`.
using ArgAxesKernel = void (*)(const Tensor& t, Tensor& out, const bool* reduced);

// Axis i of out is axis perm[i] of in.
using TransposeKernel = void (*)(const Tensor& in, Tensor& out, const int* perm);
using FlipKernel = void (*)(const Tensor& in, Tensor& out, const bool* flipped);

// ---- matrix products ----
// `batch` products out[i] = op(a[i]) op(b[i]) of dense row-major matrices:
// op(a) is m x k, stored k x m when ta; op(b) is k x n, stored n x k when tb;
// out[i] is m x n. Operands are in out's dtype, out is not empty; k may be 0.
struct ProductShape {
  int64_t batch, m, n, k;
  bool ta, tb;  // operand transposed
  bool ca, cb;  // operand conjugated (complex dtypes, only with its transposition)
};
using ProductKernel = void (*)(const Tensor& a, const Tensor& b, Tensor& out, const ProductShape& p);

// ---- indexing ----
// Note [index plans]
// The fronts of the indexing family parse and check their indices on the host
// and hand the kernels plans that live in host memory (a RegionPlan, a list of
// run starts): a kernel receives device buffers for its tensors and host
// pointers for the plan, which a device backend uploads or reads as it needs.
//
// A RegionPlan describes a region of x (the elements a selection names) as a
// walk over up to kMaxRank axes, outermost first, in the region's row-major
// order. Each axis has a count and, on x's side, either a step or a list of
// element offsets; on the other side (a dense result, or a value broadcast to
// the region) a step, 0 along broadcast axes. Offsets are in elements, from
// x_base and v_base. Axes of count one are folded into the bases and
// neighbours that stay arithmetic on both sides are merged, so the last axis
// is the longest run the kernel can copy at once.
struct RegionAxis {  // set whole where used: a plan leaves the axes past its rank unset
  int64_t count;
  int64_t x_step;              // used when x_offsets is null
  const int64_t* x_offsets;    // count element offsets, host memory
  int64_t v_step;
};
struct RegionPlan {
  int rank = 0;            // at least 1 once planned
  int64_t numel = 0;       // elements of the region
  int64_t x_base = 0, v_base = 0;
  RegionAxis axes[kMaxRank];
  // Some position list names an element twice: writes run in region order
  // on one thread (the last write wins, sums are formed in order).
  bool repeats = false;
};
// out (dense, the region's shape) = the region of x.
using SelectKernel = void (*)(const Tensor& x, Tensor& out, const RegionPlan& plan);
// The region of x = value (or += value when `accumulate`), value read at the
// plan's v offsets.
using SelectWriteKernel = void (*)(Tensor& x, const Tensor& value, const RegionPlan& plan, bool accumulate);
// Reads the coordinates of `indices` (a processor tensor of an integer dtype,
// (m, n) row-major) into starts[n] (host memory): the element offset of each
// column's run, with negative coordinates wrapped. Returns -1, or the flat
// position of the first coordinate out of range, whose value goes to *bad.
using ResolveKernel = int64_t (*)(const Tensor& indices, const GatherLayout& runs, int64_t* starts, int64_t* bad);
// out[c * k + i] = src[starts[c] + i] for the n runs; starts is host memory.
using GatherKernel = void (*)(const Tensor& src, Tensor& out, const int64_t* starts, int64_t n, int64_t k);
// dst[starts[c] + i] = src[c * k + i] (or += when `accumulate`), in column
// order for repeated starts whatever the number of threads; a one-element
// src fills every run. starts is host memory.
using ScatterKernel = void (*)(Tensor& dst, const Tensor& src, const int64_t* starts, int64_t n, int64_t k,
                               bool accumulate);
using CountKernel = int64_t (*)(const Tensor& t);
// out (ndim, count): the coordinates of t's nonzero elements.
using NonzeroKernel = void (*)(const Tensor& t, Tensor& out);

// ---- matrix parts, complex parts, spectra ----
// Operands of the Kronecker kernels have one rank (the front gives the lower
// one leading axes of length one) and out's dtype; out's axis i is
// a.shape[i] * b.shape[i] long.
using KronKernel = void (*)(const Tensor& a, const Tensor& b, Tensor& out);
// The gradient for one factor: g has the product's shape, `other` is the
// other factor, out the factor whose gradient it is (`left`: the first).
using KronGradKernel = void (*)(const Tensor& g, const Tensor& other, Tensor& out, bool left);
// Elements of the last two axes outside the triangle set to zero: kept where
// col - row >= diagonal (upper) or col - row <= diagonal (lower). Bytes are
// copied, so any dtype.
using TriangleKernel = void (*)(const Tensor& in, Tensor& out, int64_t diagonal, bool upper);
// One diagonal of each matrix of the last two axes: `count` elements from
// flat offset `start` within the matrix, cols + 1 apart. trace sums them
// (out: one element per matrix, in its sum dtype); trace_grad writes g's
// elements there into zeros of out's shape.
struct DiagonalRun {
  int64_t start, count;
};
using TraceKernel = void (*)(const Tensor& in, Tensor& out, DiagonalRun diagonal);
using TraceGradKernel = void (*)(const Tensor& g, Tensor& out, DiagonalRun diagonal);
// The 2-norm over the middle axis of [outer, r, inner]: square_sum and norm
// [outer, inner] in in's real dtype; in is floating or complex.
using NormAxisKernel = void (*)(const Tensor& in, Tensor& norm, Tensor& square_sum, int64_t outer, int64_t r,
                                int64_t inner);
// out = g * x / sqrt(square_sum), spread along r (zero where the sum is zero);
// x in out's dtype, square_sum and g ([outer, inner]) in its real dtype.
using NormGradKernel = void (*)(const Tensor& x, const Tensor& square_sum, const Tensor& g, Tensor& out,
                                int64_t outer, int64_t r, int64_t inner);
// Eigen-decomposition of each Hermitian matrix [..., n, n] of a (floating or
// complex), from its lower triangle. out: the eigenvalues [..., n] (real
// dtype), or with `vectors` the packed [..., n + 1, n] in a's dtype (row 0
// the eigenvalues, then V). Returns 0, or the LAPACK info of the first
// matrix that failed.
using EighKernel = int (*)(const Tensor& a, Tensor& out, bool vectors);
// out = V diag(g) V^H per matrix, V the eigenvectors of a; g [..., n] in a's
// real dtype. Returns as EighKernel.
using EigvalshGradKernel = int (*)(const Tensor& g, const Tensor& a, Tensor& out);

// The slots of a kernel table: TRAMEL_KERNEL_SLOTS(ONE, MANY) expands
// ONE(name, type) for a single kernel and MANY(name, type, count, info) for
// one kernel per operation of an op enum, `info` being the op's row table.
#define TRAMEL_KERNEL_SLOTS(ONE, MANY)                                   \
  ONE(convert, MapKernel)                                                \
  ONE(import_strided, ImportKernel)                                      \
  ONE(export_host, ExportKernel)                                         \
  ONE(fill, FillKernel)                                                  \
  ONE(zero, ZeroKernel)                                                  \
  ONE(arange, ArangeKernel)                                              \
  ONE(linspace, LinspaceKernel)                                          \
  ONE(logspace, LogspaceKernel)                                          \
  ONE(eye, EyeKernel)                                                    \
  ONE(diag, DiagKernel)                                                  \
  ONE(random_uniform, UniformKernel)                                     \
  ONE(random_normal, NormalKernel)                                       \
  ONE(random_binary, BernoulliKernel)                                    \
  MANY(binary, BinaryKernel, kBinaryOps, kBinaryInfo)                    \
  MANY(binary_scalar, BinaryScalarKernel, kBinaryOps, kBinaryInfo)       \
  MANY(binary_inplace, InPlaceKernel, kBinaryOps, kBinaryInfo)           \
  MANY(binary_scalar_inplace, InPlaceScalarKernel, kBinaryOps, kBinaryInfo) \
  MANY(compare, BinaryKernel, kCompareOps, kCompareInfo)                 \
  MANY(compare_scalar, BinaryScalarKernel, kCompareOps, kCompareInfo)    \
  ONE(logical_not, MapKernel)                                            \
  MANY(classify, MapKernel, kClassifyOps, kClassifyInfo)                 \
  ONE(clamp, ClampKernel)                                                \
  ONE(clamp_grad, ClampGradKernel)                                       \
  MANY(unary, MapKernel, kUnaryOps, kUnaryInfo)                          \
  MANY(gradient, GradKernel, kGradOps, kGradInfo)                        \
  ONE(sum_pass, PassKernel)                                              \
  ONE(mean_fill, MeanFillKernel)                                         \
  ONE(log_softmax, PassKernel)                                           \
  ONE(log_softmax_grad, SoftmaxGradKernel)                               \
  ONE(min_pass, PassKernel)                                              \
  ONE(max_pass, PassKernel)                                              \
  ONE(spread_pass, SpreadKernel)                                         \
  ONE(median, MedianKernel)                                              \
  ONE(cumsum, ScanKernel)                                                \
  ONE(all, PredicateKernel)                                              \
  ONE(any, PredicateKernel)                                              \
  ONE(l2_norm, NormKernel)                                               \
  ONE(argmax, MapKernel)                                                 \
  ONE(argmin, MapKernel)                                                 \
  ONE(argmax_axes, ArgAxesKernel)                                        \
  ONE(argmin_axes, ArgAxesKernel)                                        \
  ONE(broadcast, MapKernel)                                              \
  ONE(transpose, TransposeKernel)                                        \
  ONE(flip, FlipKernel)                                                  \
  ONE(product, ProductKernel)                                            \
  ONE(select, SelectKernel)                                              \
  ONE(select_write, SelectWriteKernel)                                   \
  ONE(index_resolve, ResolveKernel)                                      \
  ONE(gather, GatherKernel)                                              \
  ONE(scatter, ScatterKernel)                                            \
  ONE(nonzero_count, CountKernel)                                        \
  ONE(nonzero, NonzeroKernel)                                            \
  ONE(kron, KronKernel)                                                  \
  ONE(kron_grad, KronGradKernel)                                         \
  ONE(triangle, TriangleKernel)                                          \
  ONE(trace, TraceKernel)                                                \
  ONE(trace_grad, TraceGradKernel)                                       \
  ONE(real, MapKernel)                                                   \
  ONE(imag, MapKernel)                                                   \
  ONE(norm_axis, NormAxisKernel)                                         \
  ONE(norm_axis_grad, NormGradKernel)                                    \
  ONE(eigh, EighKernel)                                                  \
  ONE(eigvalsh_grad, EigvalshGradKernel)

// A backend's kernels; an empty slot is a kernel the backend does not have.
struct Kernels {
#define TRAMEL_KERNEL_ONE(name, type) type name = nullptr;
#define TRAMEL_KERNEL_MANY(name, type, count, info) type name[count] = {};
  TRAMEL_KERNEL_SLOTS(TRAMEL_KERNEL_ONE, TRAMEL_KERNEL_MANY)
#undef TRAMEL_KERNEL_ONE
#undef TRAMEL_KERNEL_MANY
};

// The kernels that run on host memory, one table for the whole process.
const Kernels& host_kernels();

// ---- backends ----

class Backend {
 public:
  Backend(const char* name, bool host_addressable) : name_(name), host_addressable_(host_addressable) {}
  virtual ~Backend() = default;

  const char* name() const { return name_; }
  // Whether host code may address this backend's memory directly (and hand
  // pointers to it out, as DLPack does).
  bool host_addressable() const { return host_addressable_; }
  const Kernels& kernels() const { return kernels_; }

  // nullptr when out of memory.
  virtual void* allocate(size_t nbytes, int device) = 0;
  virtual void deallocate(void* ptr, size_t nbytes, int device) = 0;
  virtual void copy_from_host(void* dst, int device, const void* src, size_t nbytes) = 0;
  virtual void copy_to_host(void* dst, const void* src, int device, size_t nbytes) = 0;
  // Within one device or between two devices of this backend.
  virtual void copy_on_device(void* dst, int dst_device, const void* src, int src_device, size_t nbytes) = 0;

 protected:
  Kernels kernels_;

 private:
  const char* name_;
  bool host_addressable_;
};

// Serves devices first..first+count-1 with `backend` from now on; it must
// outlive every tensor on them. Fails when a device is already served.
void register_backend(int first_device, int count, Backend& backend);

// The kernel table of t's device.
inline const Kernels& kernels_of(const Tensor& t) { return t.storage()->backend().kernels(); }

[[noreturn]] void fail_no_kernel(const char* op, int device);

// `kernel`, a slot of t's device's table, or the failure for an empty slot.
template <typename K>
inline K need(K kernel, const Tensor& t, const char* op) {
  if (__builtin_expect(kernel == nullptr, 0)) fail_no_kernel(op, t.device());
  return kernel;
}

// Copies src's bytes into dst (of equal size) across devices and backends.
void copy_bytes(const Tensor& src, Tensor& dst);

}  // namespace tramel
