// One-input maths and the gradient kernels of the element-wise operators.
#include "core/kernels/loops.h"

namespace tramel {
namespace {

constexpr DTypeSet kNumeric = kRealNumericTypes | kComplexTypes;
constexpr DTypeSet kInexact = kFloatingTypes | kComplexTypes;

// Calls fn(functor, dtype set, name, lifts) for a unary operation; `lifts`
// says that integers and bools are computed in the default floating dtype.
// The one place that maps UnaryOp to its scalar maths.
template <typename Fn>
Tensor with_unary(UnaryOp op, Fn&& fn) {
  switch (op) {
    case UnaryOp::Neg: return fn(fn::Neg{}, SetC<kNumeric>{}, "neg", false);
    case UnaryOp::Abs: return fn(fn::Abs{}, SetC<kAllTypes>{}, "abs", false);
    case UnaryOp::Square: return fn(fn::Square{}, SetC<kNumeric>{}, "square", false);
    case UnaryOp::Sqrt: return fn(fn::Sqrt{}, SetC<kInexact>{}, "sqrt", true);
    case UnaryOp::Exp: return fn(fn::Exp{}, SetC<kInexact>{}, "exp", true);
    case UnaryOp::Log: return fn(fn::Log{}, SetC<kInexact>{}, "log", true);
    case UnaryOp::Sin: return fn(fn::Sin{}, SetC<kInexact>{}, "sin", true);
    case UnaryOp::Cos: return fn(fn::Cos{}, SetC<kInexact>{}, "cos", true);
    case UnaryOp::Tan: return fn(fn::Tan{}, SetC<kInexact>{}, "tan", true);
    case UnaryOp::Asin: return fn(fn::Asin{}, SetC<kInexact>{}, "asin", true);
    case UnaryOp::Acos: return fn(fn::Acos{}, SetC<kInexact>{}, "acos", true);
    case UnaryOp::Atan: return fn(fn::Atan{}, SetC<kInexact>{}, "atan", true);
    case UnaryOp::Sinh: return fn(fn::Sinh{}, SetC<kInexact>{}, "sinh", true);
    case UnaryOp::Cosh: return fn(fn::Cosh{}, SetC<kInexact>{}, "cosh", true);
    case UnaryOp::Tanh: return fn(fn::Tanh{}, SetC<kInexact>{}, "tanh", true);
    case UnaryOp::Sign: return fn(fn::Sign{}, SetC<kNumeric>{}, "sign", false);
    case UnaryOp::Conj: return fn(fn::Conj{}, SetC<kAllTypes>{}, "conj", false);
    case UnaryOp::Floor: return fn(fn::Floor{}, SetC<kRealNumericTypes>{}, "floor", false);
    case UnaryOp::Ceil: return fn(fn::Ceil{}, SetC<kRealNumericTypes>{}, "ceil", false);
    case UnaryOp::Round: return fn(fn::Round{}, SetC<kRealNumericTypes>{}, "round", false);
    case UnaryOp::Reciprocal: return fn(fn::Reciprocal{}, SetC<kInexact>{}, "reciprocal", true);
  }
  fail(ErrorKind::Value, "unary", "unknown operation " + std::to_string(int(op)));
}

// Gradient kernels compute in the common floating or complex dtype of their inputs.
template <typename F, typename... Ts>
Tensor gradient(const char* op, const F& f, const Ts&... ins) {
  check_operands(op, ins...);
  DType d = DType::Bool;
  ((d = promote(d, ins.dtype())), ...);
  return map_tensors<kInexact>(op, f, floating_compute(d), ins...);
}

}  // namespace

Tensor unary(UnaryOp op, const Tensor& x) {
  return with_unary(op, [&](auto f, auto set, const char* name, bool lifts) {
    check_operands(name, x);
    return map_tensors<decltype(set)::value>(name, f, lifts ? floating_compute(x.dtype()) : x.dtype(), x);
  });
}

Tensor mult_grad(const Tensor& g, const Tensor& other) { return gradient("mult_grad", fn::MultGrad{}, g, other); }
Tensor div_dxgrad(const Tensor& g, const Tensor& den) { return gradient("div_dxgrad", fn::DivDxGrad{}, g, den); }
Tensor div_dygrad(const Tensor& g, const Tensor& q, const Tensor& den) {
  return gradient("div_dygrad", fn::DivDyGrad{}, g, q, den);
}
Tensor power_grad_of_base(const Tensor& g, const Tensor& x, const Tensor& y) {
  return gradient("power_grad_of_base", fn::PowBaseGrad{}, g, x, y);
}
Tensor power_grad_of_exp(const Tensor& g, const Tensor& x, const Tensor& y, const Tensor& out) {
  return gradient("power_grad_of_exp", fn::PowExpGrad{}, g, x, y, out);
}
Tensor exp_grad(const Tensor& g, const Tensor& y) { return gradient("exp_grad", fn::ExpGrad{}, g, y); }
Tensor log_grad(const Tensor& g, const Tensor& x) { return gradient("log_grad", fn::LogGrad{}, g, x); }
Tensor square_grad(const Tensor& g, const Tensor& x) { return gradient("square_grad", fn::SquareGrad{}, g, x); }
Tensor tanh_grad(const Tensor& g, const Tensor& y) { return gradient("tanh_grad", fn::TanhGrad{}, g, y); }
Tensor asin_grad(const Tensor& g, const Tensor& x) { return gradient("asin_grad", fn::AsinGrad{}, g, x); }
Tensor acos_grad(const Tensor& g, const Tensor& x) { return gradient("acos_grad", fn::AcosGrad{}, g, x); }
Tensor atan_grad(const Tensor& g, const Tensor& x) { return gradient("atan_grad", fn::AtanGrad{}, g, x); }
Tensor sqrt_grad(const Tensor& y, const Tensor& g) { return gradient("sqrt_grad", fn::SqrtGrad{}, y, g); }
Tensor tan_grad(const Tensor& y, const Tensor& g) { return gradient("tan_grad", fn::TanGrad{}, y, g); }

}  // namespace tramel
