// The engine's operations, by kernel family. Results are new tensors unless
// the name ends in an underscore (in place). Each is a front in
// src/core/ops/<family>.cpp over kernels in src/core/kernels/<family>.cpp
// (Note [backend seam] in backend.h).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/tensor.h"

namespace tramel {

// ---- conversion and copies (convert) ----
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

// ---- creation and fills (fill) ----
Tensor full(const Shape& shape, const Scalar& value, int device, DType dtype, const char* op = "full");
// The tensor of `empty`: contents unspecified, except that bool elements are
// false (a bool holding any other byte is undefined behaviour to read).
Tensor uninitialized(const Shape& shape, DType dtype, int device, const char* op);
Tensor arange(double start, double end, double step, int device, DType dtype);
Tensor linspace(double start, double end, int64_t num, int device, DType dtype);
Tensor logspace(double start, double end, int64_t num, double base, int device, DType dtype);
Tensor eye(int64_t size, int64_t offset, int device, DType dtype);
Tensor diag(const Tensor& t, int64_t k);
void fill_(Tensor& t, const Scalar& value);

// ---- random draws (random) ----
// One seedable generator for the whole process.
void manual_seed(uint64_t seed);
void fill_uniform_(Tensor& t, double low, double high);
void fill_normal_(Tensor& t, double mean, double stddev, bool fast_math);
void fill_binary_(Tensor& t, double threshold);
Tensor randu(const Shape& shape, double low, double high, int device, DType dtype);
Tensor randn(const Shape& shape, double mean, double stddev, int device, DType dtype);

// ---- element-wise (elementwise, unary) ----
// Operands of one shape (the tensor layer broadcasts first) and one device.
// Mixed dtypes promote (see promote()); a host number is "weak": it takes the
// tensor's dtype unless it belongs to a higher category (an int tensor times
// 1.5 gives the default float dtype, a float32 tensor times 1j complex64).
// Division never raises: integers truncate and x / 0 is 0. Maximum and
// Minimum let a NaN on either side win, as numpy's do.
enum class BinaryOp { Add, Sub, Mul, Div, Pow, Maximum, Minimum };
Tensor binary(BinaryOp op, const Tensor& a, const Tensor& b);
Tensor binary(BinaryOp op, const Tensor& a, const Scalar& b);
// In place on a, keeping a's dtype.
void binary_(BinaryOp op, Tensor& a, const Tensor& b);
void binary_(BinaryOp op, Tensor& a, const Scalar& b);
void add_(Tensor& t, const Tensor& other);  // binary_(Add, ...) for the backward walk
// The sum of all tensors (one shape, dtype and device), as a new tensor.
Tensor add_tensor_list(const std::vector<const Tensor*>& tensors);

enum class UnaryOp {
  Neg, Abs, Square, Sqrt, Exp, Log, Sin, Cos, Tan, Asin, Acos, Atan, Sinh, Cosh, Tanh,
  Sign, Conj, Floor, Ceil, Round, Reciprocal,
};
// abs of a complex tensor gives its real magnitude dtype; sign of a complex
// element is z/|z| (0 at 0); round is half to even; floor/ceil/round of an
// integer tensor return it unchanged (a copy). Functions defined only on
// floating and complex numbers (sqrt, exp, log, the trigonometric and
// hyperbolic ones, reciprocal) compute integers and bools in the default dtype.
Tensor unary(UnaryOp op, const Tensor& x);

// Comparisons and logic give kbool tensors; nonzero counts as true.
enum class CompareOp { Equal, NotEqual, Greater, GreaterEqual, Less, LessEqual, And, Or, Xor };
Tensor compare(CompareOp op, const Tensor& a, const Tensor& b);
Tensor compare(CompareOp op, const Tensor& a, const Scalar& b);
Tensor logical_not(const Tensor& x);
enum class ClassifyOp { IsFinite, IsInf, IsNan, IsNegInf, IsPosInf };
Tensor classify(ClassifyOp op, const Tensor& x);

Tensor clamp(const Tensor& x, double low, double high);
// g where low <= x <= high, else 0.
Tensor clamp_grad(const Tensor& x, const Tensor& g, double low, double high);

// Gradient kernels. Note [conjugate convention]: for a real loss L the
// gradient of a complex z is dL/dRe(z) + i dL/dIm(z), so every kernel
// multiplies the incoming gradient by the conjugate of the local derivative.
// For real dtypes they are the plain derivatives.
Tensor mult_grad(const Tensor& g, const Tensor& other);                         // g * conj(other)
Tensor div_dxgrad(const Tensor& g, const Tensor& denominator);                  // g / conj(den)
Tensor div_dygrad(const Tensor& g, const Tensor& quotient, const Tensor& den);  // -g * conj(q / den)
Tensor power_grad_of_base(const Tensor& g, const Tensor& x, const Tensor& y);   // g * conj(y x^(y-1))
Tensor power_grad_of_exp(const Tensor& g, const Tensor& x, const Tensor& y, const Tensor& out);  // g * conj(out ln x)
Tensor exp_grad(const Tensor& g, const Tensor& y);     // g * conj(y)
Tensor log_grad(const Tensor& g, const Tensor& x);     // g / conj(x)
Tensor square_grad(const Tensor& g, const Tensor& x);  // 2 g conj(x)
Tensor tanh_grad(const Tensor& g, const Tensor& y);    // g * conj(1 - y^2)
Tensor asin_grad(const Tensor& g, const Tensor& x);    // g * conj(1 / sqrt(1 - x^2))
Tensor acos_grad(const Tensor& g, const Tensor& x);    // -g * conj(1 / sqrt(1 - x^2))
Tensor atan_grad(const Tensor& g, const Tensor& x);    // g * conj(1 / (1 + x^2))
Tensor sqrt_grad(const Tensor& y, const Tensor& g);    // g / conj(2 y)
Tensor tan_grad(const Tensor& y, const Tensor& g);     // g * conj(1 + y^2)

// Along one wrapped axis; floating dtypes.
Tensor log_softmax(const Tensor& x, int64_t axis);
Tensor log_softmax_grad(const Tensor& g, const Tensor& out, int64_t axis);

// ---- reductions (ops/sum.cpp, ops/stats.cpp, ops/cumsum.cpp) ----
// Without axes: a one-element tensor of shape [1]. Axes may be negative; a
// repeated or out-of-range axis raises. Integer and bool sums give int64.
Tensor sum(const Tensor& t);
Tensor sum(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims);
Tensor mean(const Tensor& t);
Tensor mean(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims);
// A tensor of `shape` with every element g (one element) / numel(shape).
Tensor mean_all_grad(const Tensor& g, const Shape& shape);
// Extrema (values only; NaN propagates as in numpy) and the median (for an
// even count the mean of the two middle values, numpy's rule); real dtypes.
Tensor min(const Tensor& t);
Tensor min(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims);
Tensor max(const Tensor& t);
Tensor max(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims);
Tensor median(const Tensor& t);
Tensor median(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims);
// Variance and standard deviation; divisor n - 1 when `unbiased`, else n.
// Floating and complex dtypes (complex: real results, E|x - mean|^2).
Tensor var(const Tensor& t, bool unbiased);
Tensor var(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims, bool unbiased);
Tensor std(const Tensor& t, bool unbiased);
Tensor std(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims, bool unbiased);
// Running sums along `axis` (negative allowed) and their gradient (the
// reversed running sums of g along the same axis).
Tensor cumsum(const Tensor& t, int64_t axis);
Tensor cumsum_grad(const Tensor& g, int64_t axis);

// ---- shape and axis order (shape, permute) ----
// Same elements, new shape (storage shared); a wrong element count raises.
Tensor reshape(const Tensor& t, const Shape& shape);
// The same with numpy's dims: one of them may be -1, inferred from the rest.
Tensor reshape(const Tensor& t, const std::vector<int64_t>& dims);
// The common shape of a and b by numpy's rule; raises naming both shapes.
Shape broadcast_shape(const Shape& a, const Shape& b, const char* op);
// t expanded (copied) to `shape`. Beyond numpy's rule, a one-element tensor
// of any shape goes to a 0-d `shape` (a reduction over all elements gives [1]).
Tensor broadcast_to(const Tensor& t, const Shape& shape);
Tensor tile(const Tensor& t, const std::vector<int64_t>& reps);
// The gradient of tile: x summed over the repeats `reps` of a source of `shape`.
Tensor tile_grad(const Tensor& x, const Shape& shape, const std::vector<int64_t>& reps);
// Axis i of the result is axis dims[i] of t (a permutation; negative entries
// wrap); a cache-blocked copy.
Tensor transpose(const Tensor& t, const std::vector<int64_t>& dims);
Tensor swapaxis(const Tensor& t, int64_t axis1, int64_t axis2);
// Reversed along each axis in `dims` (negative entries wrap).
Tensor flip(const Tensor& t, const std::vector<int64_t>& dims);
// Views sharing storage: axes start..end merged (end may be -1); all axes of
// length one dropped, or the listed ones (each must have length one); an axis
// of length one inserted at a wrapped position 0..ndim.
Tensor flatten(const Tensor& t, int64_t start, int64_t end);
Tensor squeeze(const Tensor& t);
Tensor squeeze(const Tensor& t, const std::vector<int64_t>& axes);
Tensor unsqueeze(const Tensor& t, int64_t axis);

// ---- indexing (index) ----
// Selection by per-axis index texts, one text per axis from axis 0; axes past
// the last text are taken whole. A text is one of
//   "3", "-1"          one position (negative counts from the end); the axis is
//                      dropped. "True" and "False" read as 1 and 0.
//   "b:e:s", "b:e", ":", "::-1"
//                      a range with Python's slice rules (empty fields take the
//                      defaults, bounds clamp); a stop of 2147483646 with a
//                      negative step runs to the low end.
//   "0,2,5,", "4,", "" positions, each followed by a comma (the last comma may be
//                      left out; the empty text is no position); the axis is kept.
// Positions out of range raise IndexError; more texts than axes, or a text of
// another form, raise naming the text.
using IndexTexts = std::vector<std::string>;
// The selected region, a new tensor on x's device.
Tensor select(const Tensor& x, const IndexTexts& index);
// Writes value into the region of x, in place. value broadcasts to the region
// by numpy's assignment rule (leading axes of length one dropped first); a
// one-element value fills it. value is converted to x's dtype (numpy's rule
// for assignment) and copied to x's device when it is on the processor (a
// number assigned to an accelerator tensor). A position named twice takes the
// last of its values. x is unchanged if anything raises.
void set_select(Tensor& x, const IndexTexts& index, const Tensor& value);
// g, the gradient of select(x, index), spread over zeros of x's shape (g's
// dtype and device); g broadcasts to the region as a value does, and a
// position named twice gets the sum of its gradients.
Tensor select_bp(const Tensor& x, const IndexTexts& index, const Tensor& g);
// The region of g (g has x's shape): the gradient of the value of set_select.
Tensor set_select_bp(const Tensor& x, const IndexTexts& index, const Tensor& g);

// Gather and scatter by coordinates (advanced indexing). `indices` holds n
// columns of m coordinates (integer dtype, m * n elements read row-major as
// (m, n): row j is the coordinate on axis j; on any device, read on the
// processor). Column c weighted with `strides` gives the start of a run of k
// elements of a dense row-major source whose leading m axes are `mshape`.
// Negative coordinates count from the end of their axis; coordinates out of
// range raise IndexError before anything is written. The description must
// agree with the tensor it reads or writes (ValueError otherwise): mshape is
// its leading m axes, strides their row-major element strides, k the product
// of the remaining axes; indices (any integer dtype, TypeError for others)
// hold m * n elements.
struct GatherLayout {
  int64_t n = 0, m = 0, k = 0;
  std::vector<int64_t> mshape, strides;
};
// The n runs of x in column order, in a new tensor of shape `oshape`.
Tensor adv_indexing(const Tensor& x, const GatherLayout& layout, const Tensor& indices, const std::vector<int64_t>& oshape);
// The runs of g (n * k elements) added at their coordinates into zeros of
// `input_shape`: repeated coordinates accumulate, in column order, the same
// on any number of threads.
Tensor adv_indexing_grad(const Tensor& g, const GatherLayout& layout, const Tensor& indices,
                         const std::vector<int64_t>& input_shape);
// Writes the n * k elements of value (in the order adv_indexing reads them)
// into x, in place, run by run; for repeated coordinates the last run wins.
// A one-element value fills every run; value is converted to x's dtype and
// copied to x's device from the processor, as set_select does; any other
// broadcast is the caller's.
void set_adv_indexing(Tensor& x, const GatherLayout& layout, const Tensor& indices, const Tensor& value);
// The runs of g (g has the target's shape) gathered into a tensor of `out_shape`.
Tensor set_adv_indexing_grad(const Tensor& g, const GatherLayout& layout, const Tensor& indices,
                             const std::vector<int64_t>& out_shape);
// The coordinates of the nonzero elements, numpy's layout stacked: an int64
// tensor of shape (ndim, count) on x's device, row j the coordinates on axis
// j, in row-major order of the elements. A 0-d x gives shape (0, count).
Tensor nonzero(const Tensor& x);

// ---- matrix products (product) ----
// a times b on the last two axes: rank 2 for mult2D, 3 for bmm, 4 for
// matmul, both operands of that rank (ValueError naming the shapes
// otherwise). With ta (tb) an operand enters with its last two axes
// exchanged, without conjugation. Batch axes do not broadcast: they must be
// equal; the message of a mismatch names both shapes. Operands on different
// devices are refused (RuntimeError). Mixed dtypes promote; bool operands
// compute in int64. Floating and complex products go to BLAS GEMM (the
// flags become its transposition flags), tiny complex matrices and small
// gates on long rows to a direct kernel, integers to a plain loop with
// wrapping arithmetic (Note [product paths] in kernels/product.cpp).
// How an operand enters: as it is, with its last two axes exchanged, or
// exchanged and conjugated (the conjugate transposes of the products'
// gradients, without a conjugated copy: BLAS's ConjTrans).
enum class OperandForm { AsIs, Transposed, Adjoint };
Tensor mult2D(const Tensor& a, const Tensor& b, OperandForm oa, OperandForm ob);
Tensor bmm(const Tensor& a, const Tensor& b, OperandForm oa, OperandForm ob);
Tensor matmul(const Tensor& a, const Tensor& b, OperandForm oa, OperandForm ob);
inline OperandForm transposed_if(bool t) { return t ? OperandForm::Transposed : OperandForm::AsIs; }
inline Tensor mult2D(const Tensor& a, const Tensor& b, bool ta = false, bool tb = false) {
  return mult2D(a, b, transposed_if(ta), transposed_if(tb));
}
inline Tensor bmm(const Tensor& a, const Tensor& b, bool ta = false, bool tb = false) {
  return bmm(a, b, transposed_if(ta), transposed_if(tb));
}
inline Tensor matmul(const Tensor& a, const Tensor& b, bool ta = false, bool tb = false) {
  return matmul(a, b, transposed_if(ta), transposed_if(tb));
}

// ---- matrix parts, complex parts and spectra (linalg) ----
// The Kronecker product (numpy's kron: the operand of lower rank gets
// leading axes of length one); its gradients, for g of the product's shape,
// under the convention of the backward walk (a product's gradient takes the
// conjugate of the partner): sum over b's block of g * conj(b), and the
// same for b.
Tensor kron(const Tensor& a, const Tensor& b);
Tensor kron_grad_a(const Tensor& g, const Tensor& a, const Tensor& b);
Tensor kron_grad_b(const Tensor& g, const Tensor& a, const Tensor& b);
// Elements above (tril) or below (triu) diagonal number `diagonal` of the
// last two axes set to zero; rank 2 and above.
Tensor triu(const Tensor& t, int64_t diagonal);
Tensor tril(const Tensor& t, int64_t diagonal);
// The sum of diagonal number k of the last two axes, per leading index
// (a rank-2 tensor gives a 0-d tensor); an offset past the matrix sums
// nothing (zero). trace_grad spreads g (of the leading shape) onto that
// diagonal of zeros of `shape`.
Tensor trace(const Tensor& t, int64_t k);
Tensor trace_grad(const Tensor& g, const Shape& shape, int64_t offset);
// Real and imaginary parts in the real dtype of a complex tensor; a real
// tensor gives a copy, and zeros of its dtype for the imaginary part.
Tensor real(const Tensor& t);
Tensor imag(const Tensor& t);
// Eigen-decomposition of Hermitian (real symmetric) matrices on the last two
// axes, batched over the leading ones, through LAPACK ?heevd/?syevd on the
// lower triangle. Eigenvalues ascending, in the real dtype (integers and
// bools in the default float dtype). eigvalsh_grad(g, a) = V diag(g) V^H in
// a's (floating) dtype. eigh packs both in one tensor of a's floating dtype,
// shape [..., n + 1, n]: row 0 the eigenvalues, rows 1..n the matrix V whose
// columns are the eigenvectors (a = V diag(w) V^H).
Tensor eigvalsh(const Tensor& a);
Tensor eigvalsh_grad(const Tensor& g, const Tensor& a);
Tensor eigh(const Tensor& a);
// The 2-norm along one wrapped axis: the norm (real dtype) and the sum of
// squared magnitudes it was taken from, both with the axis kept as one when
// keepdims, dropped otherwise; the gradient is g * x / norm, spread along
// the axis (zero where the norm is zero).
struct NormAlongAxis {
  Tensor norm, square_sum;
};
NormAlongAxis l2_norm(const Tensor& t, int64_t axis, bool keepdims);
Tensor l2_norm_grad(const Tensor& x, const Tensor& square_sum, const Tensor& g, int64_t axis);

// ---- whole-tensor queries and arg-reductions (reduce) ----
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

// ---- threads (threads.cpp) ----
void set_num_threads(int n);
int get_num_threads();

// ---- export configuration ----
// The two flags that recording operators test; the Python values behind them
// are kept by the bindings.
struct ExportFlags {
  bool save_constant_is_true = false;
  bool save_opinfo_is_not_false = false;
};
ExportFlags& export_flags();

}  // namespace tramel
