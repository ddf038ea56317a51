// Two-operand element-wise operations: arithmetic, comparison and logic,
// clamping. Operands have one shape (broadcasting happens above).
#include <cmath>

#include "core/ops/front.h"

namespace tramel {
namespace {

const BinaryInfo& binary_info(BinaryOp op) {
  if (unsigned(op) >= unsigned(kBinaryOps))
    fail(ErrorKind::Value, "binary", "unknown operation " + std::to_string(int(op)));
  return kBinaryInfo[int(op)];
}

const PredicateInfo& compare_info(CompareOp op) {
  if (unsigned(op) >= unsigned(kCompareOps))
    fail(ErrorKind::Value, "compare", "unknown operation " + std::to_string(int(op)));
  return kCompareInfo[int(op)];
}

// a op b computed in dtype d (both in `allowed`), the result of dtype `result`.
Tensor map_pair(BinaryKernel const* slots, int index, const char* name, DTypeSet allowed, const Tensor& a,
                const Tensor& b, DType d, DType result) {
  require_types(allowed, d, name);
  BinaryKernel kernel = need(slots[index], a, name);
  Tensor ha, hb;
  const Tensor& x = as_dtype(a, d, ha);
  const Tensor& y = as_dtype(b, d, hb);
  Tensor out = Tensor::empty(a.shape(), result, a.device(), name);
  kernel(x, y, out);
  return out;
}

Tensor map_with_scalar(BinaryScalarKernel const* slots, int index, const char* name, DTypeSet allowed,
                       const Tensor& a, const Scalar& s, DType d, DType result) {
  require_types(allowed, d, name);
  BinaryScalarKernel kernel = need(slots[index], a, name);
  Tensor ha;
  const Tensor& x = as_dtype(a, d, ha);
  Tensor out = Tensor::empty(a.shape(), result, a.device(), name);
  kernel(x, s, out);
  return out;
}

// In place on a, keeping a's dtype. An operand of a lower or equal category is
// converted to a's dtype and the kernel runs on a's buffer; otherwise the
// result is computed in the wider dtype and converted back.
void inplace(BinaryOp op, Tensor& a, const Tensor* b, const Scalar* s) {
  const BinaryInfo& info = binary_info(op);
  const char* name = info.inplace_name;
  const Kernels& k = kernels_of(a);
  DType wide = b ? promote(a.dtype(), b->dtype()) : weak_promote(a.dtype(), *s);
  if (category(wide) != category(a.dtype())) {
    Tensor r = b ? map_pair(k.binary, int(op), name, info.types, a, *b, wide, wide)
                 : map_with_scalar(k.binary_scalar, int(op), name, info.types, a, *s, wide, wide);
    copy_into(r, a);
    return;
  }
  require_types(info.types, a.dtype(), name);
  if (b) {
    InPlaceKernel kernel = need(k.binary_inplace[int(op)], a, name);
    Tensor rhs = to_dtype(*b, a.dtype(), false);
    a.make_storage_unique();
    kernel(a, rhs);
  } else {
    InPlaceScalarKernel kernel = need(k.binary_scalar_inplace[int(op)], a, name);
    a.make_storage_unique();
    kernel(a, *s);
  }
}

// Fractional bounds lift an integer tensor to floating, as a float scalar would.
DType clamp_dtype(DType d, double low, double high) {
  bool whole = (std::isinf(low) || low == std::floor(low)) && (std::isinf(high) || high == std::floor(high));
  return (is_integral(d) || d == DType::Bool) && !whole ? default_dtype() : d;
}

}  // namespace

Tensor binary(BinaryOp op, const Tensor& a, const Tensor& b) {
  const BinaryInfo& info = binary_info(op);
  check_operands(info.name, a, b);
  DType d = promote(a.dtype(), b.dtype());
  return map_pair(kernels_of(a).binary, int(op), info.name, info.types, a, b, d, d);
}

Tensor binary(BinaryOp op, const Tensor& a, const Scalar& b) {
  const BinaryInfo& info = binary_info(op);
  DType d = weak_promote(a.dtype(), b);
  return map_with_scalar(kernels_of(a).binary_scalar, int(op), info.name, info.types, a, b, d, d);
}

void binary_(BinaryOp op, Tensor& a, const Tensor& b) {
  check_operands(binary_info(op).inplace_name, a, b);
  inplace(op, a, &b, nullptr);
}

void binary_(BinaryOp op, Tensor& a, const Scalar& b) { inplace(op, a, nullptr, &b); }

void add_(Tensor& t, const Tensor& other) { binary_(BinaryOp::Add, t, other); }

Tensor add_tensor_list(const std::vector<const Tensor*>& tensors) {
  const char* op = "add_tensor_list";
  if (tensors.empty()) fail(ErrorKind::Value, op, "expects at least one tensor");
  DType d = tensors[0]->dtype();
  for (const Tensor* t : tensors) {
    check_operands(op, *tensors[0], *t);
    d = promote(d, t->dtype());
  }
  if (tensors.size() == 1) return to_dtype(*tensors[0], d, true);
  Tensor out = binary(BinaryOp::Add, to_dtype(*tensors[0], d, false), *tensors[1]);
  for (size_t i = 2; i < tensors.size(); ++i) binary_(BinaryOp::Add, out, *tensors[i]);
  return out;
}

Tensor compare(CompareOp op, const Tensor& a, const Tensor& b) {
  const PredicateInfo& info = compare_info(op);
  check_operands(info.name, a, b);
  return map_pair(kernels_of(a).compare, int(op), info.name, info.types, a, b, promote(a.dtype(), b.dtype()),
                  DType::Bool);
}

Tensor compare(CompareOp op, const Tensor& a, const Scalar& b) {
  const PredicateInfo& info = compare_info(op);
  return map_with_scalar(kernels_of(a).compare_scalar, int(op), info.name, info.types, a, b,
                         weak_promote(a.dtype(), b), DType::Bool);
}

Tensor logical_not(const Tensor& x) {
  const char* op = "logical_not";
  MapKernel kernel = need(kernels_of(x).logical_not, x, op);
  Tensor out = Tensor::empty(x.shape(), DType::Bool, x.device(), op);
  kernel(x, out);
  return out;
}

Tensor classify(ClassifyOp op, const Tensor& x) {
  if (unsigned(op) >= unsigned(kClassifyOps))
    fail(ErrorKind::Value, "classify", "unknown operation " + std::to_string(int(op)));
  const PredicateInfo& info = kClassifyInfo[int(op)];
  require_types(info.types, x.dtype(), info.name);
  MapKernel kernel = need(kernels_of(x).classify[int(op)], x, info.name);
  Tensor out = Tensor::empty(x.shape(), DType::Bool, x.device(), info.name);
  kernel(x, out);
  return out;
}

Tensor clamp(const Tensor& x, double low, double high) {
  const char* op = "clamp";
  DType d = clamp_dtype(x.dtype(), low, high);
  require_types(kRealNumericTypes, d, op);
  ClampKernel kernel = need(kernels_of(x).clamp, x, op);
  Tensor h;
  const Tensor& in = as_dtype(x, d, h);
  Tensor out = Tensor::empty(in.shape(), d, in.device(), op);
  kernel(in, low, high, out);
  return out;
}

Tensor clamp_grad(const Tensor& x, const Tensor& g, double low, double high) {
  const char* op = "clamp_grad";
  check_operands(op, x, g);
  DType d = clamp_dtype(promote(x.dtype(), g.dtype()), low, high);
  require_types(kRealNumericTypes, d, op);
  ClampGradKernel kernel = need(kernels_of(x).clamp_grad, x, op);
  Tensor hx, hg;
  const Tensor& xs = as_dtype(x, d, hx);
  const Tensor& gs = as_dtype(g, d, hg);
  Tensor out = Tensor::empty(gs.shape(), d, gs.device(), op);
  kernel(xs, gs, low, high, out);
  return out;
}

}  // namespace tramel
