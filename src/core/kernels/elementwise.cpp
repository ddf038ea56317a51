// Two-operand element-wise kernels: arithmetic, comparison and logic,
// clamping. Operands have one shape (broadcasting happens above).
#include "core/kernels/loops.h"

namespace tramel {
namespace {

constexpr DTypeSet kNumeric = kRealNumericTypes | kComplexTypes;

// Calls fn(functor, dtype set, name, in-place name) for a binary operation.
// The one place that maps BinaryOp to its scalar maths.
template <typename Fn>
Tensor with_binary(BinaryOp op, Fn&& fn) {
  switch (op) {
    case BinaryOp::Add: return fn(fn::Add{}, SetC<kAllTypes>{}, "add", "add_");
    case BinaryOp::Sub: return fn(fn::Sub{}, SetC<kNumeric>{}, "sub", "sub_");
    case BinaryOp::Mul: return fn(fn::Mul{}, SetC<kAllTypes>{}, "mult", "mult_");
    case BinaryOp::Div: return fn(fn::Div{}, SetC<kNumeric>{}, "div", "div_");
    case BinaryOp::Pow: return fn(fn::Pow{}, SetC<kNumeric>{}, "element_pow", "element_pow_");
    case BinaryOp::Maximum: return fn(fn::Maximum{}, SetC<kRealTypes>{}, "maximum", "maximum_");
    case BinaryOp::Minimum: return fn(fn::Minimum{}, SetC<kRealTypes>{}, "minimum", "minimum_");
  }
  fail(ErrorKind::Value, "binary", "unknown operation " + std::to_string(int(op)));
}

template <typename Fn>
Tensor with_compare(CompareOp op, Fn&& fn) {
  switch (op) {
    case CompareOp::Equal: return fn(fn::Equal{}, SetC<kAllTypes>{}, "equal");
    case CompareOp::NotEqual: return fn(fn::NotEqual{}, SetC<kAllTypes>{}, "not_equal");
    case CompareOp::Greater: return fn(fn::Greater{}, SetC<kRealTypes>{}, "greater");
    case CompareOp::GreaterEqual: return fn(fn::GreaterEqual{}, SetC<kRealTypes>{}, "greater_equal");
    case CompareOp::Less: return fn(fn::Less{}, SetC<kRealTypes>{}, "less");
    case CompareOp::LessEqual: return fn(fn::LessEqual{}, SetC<kRealTypes>{}, "less_equal");
    case CompareOp::And: return fn(fn::And{}, SetC<kAllTypes>{}, "logical_and");
    case CompareOp::Or: return fn(fn::Or{}, SetC<kAllTypes>{}, "logical_or");
    case CompareOp::Xor: return fn(fn::Xor{}, SetC<kAllTypes>{}, "logical_xor");
  }
  fail(ErrorKind::Value, "compare", "unknown operation " + std::to_string(int(op)));
}

int category(DType d) { return d == DType::Bool ? 0 : is_integral(d) ? 1 : is_floating(d) ? 2 : 3; }

// In place on a, keeping a's dtype. An operand of a lower or equal category is
// converted to a's dtype and the loop runs on a's buffer; otherwise the result
// is computed in the wider dtype and converted back.
template <DTypeSet Set, typename F>
void inplace(const char* name, const F& f, Tensor& a, const Tensor* b, const Scalar* s) {
  check_operands(name, a);
  DType wide = b ? promote(a.dtype(), b->dtype()) : weak_promote(a.dtype(), *s);
  if (category(wide) != category(a.dtype())) {
    Tensor r = b ? map_tensors<Set>(name, f, wide, a, *b) : map_scalar<Set>(name, f, wide, a, *s);
    copy_into(r, a);
    return;
  }
  Tensor rhs = b ? to_dtype(*b, a.dtype(), false) : Tensor();
  a.make_storage_unique();
  dispatch<Set>(a.dtype(), name, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* x = a.data<T>();
    if (b) map_parallel(x, a.numel(), f, static_cast<const T*>(x), rhs.data<T>());
    else map_parallel(x, a.numel(), BindRight<F, T>{f, s->to<T>()}, static_cast<const T*>(x));
  });
}

// Bounds for element type T; integers saturate, so clamp(int8, -1e9, 1e9) is a copy.
template <typename T>
T bound(double v) {
  if constexpr (std::is_integral_v<T>) {
    if (!(v > double(std::numeric_limits<T>::lowest()))) return v != v ? T(0) : std::numeric_limits<T>::lowest();
    if (v >= double(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
  }
  return T(v);
}

// Fractional bounds lift an integer tensor to floating, as a float scalar would.
DType clamp_dtype(DType d, double low, double high) {
  bool whole = (std::isinf(low) || low == std::floor(low)) && (std::isinf(high) || high == std::floor(high));
  return (is_integral(d) || d == DType::Bool) && !whole ? default_dtype() : d;
}

}  // namespace

Tensor binary(BinaryOp op, const Tensor& a, const Tensor& b) {
  return with_binary(op, [&](auto f, auto set, const char* name, const char*) {
    check_operands(name, a, b);
    return map_tensors<decltype(set)::value>(name, f, promote(a.dtype(), b.dtype()), a, b);
  });
}

Tensor binary(BinaryOp op, const Tensor& a, const Scalar& b) {
  return with_binary(op, [&](auto f, auto set, const char* name, const char*) {
    check_operands(name, a);
    return map_scalar<decltype(set)::value>(name, f, weak_promote(a.dtype(), b), a, b);
  });
}

void binary_(BinaryOp op, Tensor& a, const Tensor& b) {
  with_binary(op, [&](auto f, auto set, const char*, const char* name) {
    check_operands(name, a, b);
    inplace<decltype(set)::value>(name, f, a, &b, nullptr);
    return Tensor();
  });
}

void binary_(BinaryOp op, Tensor& a, const Scalar& b) {
  with_binary(op, [&](auto f, auto set, const char*, const char* name) {
    inplace<decltype(set)::value>(name, f, a, nullptr, &b);
    return Tensor();
  });
}

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
  return with_compare(op, [&](auto f, auto set, const char* name) {
    check_operands(name, a, b);
    return map_tensors<decltype(set)::value>(name, f, promote(a.dtype(), b.dtype()), a, b);
  });
}

Tensor compare(CompareOp op, const Tensor& a, const Scalar& b) {
  return with_compare(op, [&](auto f, auto set, const char* name) {
    check_operands(name, a);
    return map_scalar<decltype(set)::value>(name, f, weak_promote(a.dtype(), b), a, b);
  });
}

Tensor logical_not(const Tensor& x) {
  check_operands("logical_not", x);
  return map_tensors<kAllTypes>("logical_not", fn::Not{}, x.dtype(), x);
}

Tensor classify(ClassifyOp op, const Tensor& x) {
  auto run = [&](auto f, auto set, const char* name) {
    check_operands(name, x);
    return map_tensors<decltype(set)::value>(name, f, x.dtype(), x);
  };
  switch (op) {
    case ClassifyOp::IsFinite: return run(fn::IsFinite{}, SetC<kAllTypes>{}, "isfinite");
    case ClassifyOp::IsInf: return run(fn::IsInf{}, SetC<kAllTypes>{}, "isinf");
    case ClassifyOp::IsNan: return run(fn::IsNan{}, SetC<kAllTypes>{}, "isnan");
    // A complex number has no sign to be infinite with.
    case ClassifyOp::IsNegInf: return run(fn::IsNegInf{}, SetC<kRealTypes>{}, "isneginf");
    case ClassifyOp::IsPosInf: return run(fn::IsPosInf{}, SetC<kRealTypes>{}, "isposinf");
  }
  fail(ErrorKind::Value, "classify", "unknown operation " + std::to_string(int(op)));
}

Tensor clamp(const Tensor& x, double low, double high) {
  const char* op = "clamp";
  check_operands(op, x);
  DType d = clamp_dtype(x.dtype(), low, high);
  Tensor in = to_dtype(x, d, false);
  Tensor out = Tensor::empty(in.shape(), d, in.device(), op);
  dispatch<kRealNumericTypes>(d, op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    map_parallel(out.data<T>(), out.numel(), fn::Clamp<T>{bound<T>(low), bound<T>(high)}, in.data<T>());
  });
  return out;
}

Tensor clamp_grad(const Tensor& x, const Tensor& g, double low, double high) {
  const char* op = "clamp_grad";
  check_operands(op, x, g);
  DType d = clamp_dtype(promote(x.dtype(), g.dtype()), low, high);
  Tensor xs = to_dtype(x, d, false), gs = to_dtype(g, d, false);
  Tensor out = Tensor::empty(gs.shape(), d, gs.device(), op);
  dispatch<kRealNumericTypes>(d, op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    map_parallel(out.data<T>(), out.numel(), fn::ClampGrad<T>{bound<T>(low), bound<T>(high)}, xs.data<T>(),
                 gs.data<T>());
  });
  return out;
}

}  // namespace tramel
