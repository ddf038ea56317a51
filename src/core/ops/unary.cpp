// One-input maths and the gradient kernels of the element-wise operators.
#include "core/ops/front.h"

namespace tramel {
namespace {

// The gradient `op` of ins (one shape, one device), computed in their common
// floating or complex dtype.
template <typename... Ts>
Tensor gradient(GradOp op, const Tensor& first, const Ts&... rest) {
  constexpr int n = 1 + sizeof...(Ts);
  const char* name = kGradInfo[int(op)].name;
  check_operands(name, first, rest...);
  DType d = first.dtype();
  ((d = promote(d, rest.dtype())), ...);
  d = floating_compute(d);
  GradKernel kernel = need(kernels_of(first).gradient[int(op)], first, name);
  Tensor holders[n];
  int i = 0;
  const Tensor* ins[n] = {&as_dtype(first, d, holders[i++]), &as_dtype(rest, d, holders[i++])...};
  Tensor out = Tensor::empty(first.shape(), d, first.device(), name);
  kernel(ins, out);
  return out;
}

}  // namespace

// abs of a complex tensor gives its real magnitude dtype; everything else
// keeps the dtype it is computed in.
Tensor unary(UnaryOp op, const Tensor& x) {
  if (unsigned(op) >= unsigned(kUnaryOps))
    fail(ErrorKind::Value, "unary", "unknown operation " + std::to_string(int(op)));
  const UnaryInfo& info = kUnaryInfo[int(op)];
  DType d = info.lifts ? floating_compute(x.dtype()) : x.dtype();
  require_types(info.types, d, info.name);
  MapKernel kernel = need(kernels_of(x).unary[int(op)], x, info.name);
  Tensor h;
  const Tensor& in = as_dtype(x, d, h);
  Tensor out = Tensor::empty(x.shape(), op == UnaryOp::Abs ? real_dtype(d) : d, x.device(), info.name);
  kernel(in, out);
  return out;
}

Tensor mult_grad(const Tensor& g, const Tensor& other) { return gradient(GradOp::Mult, g, other); }
Tensor div_dxgrad(const Tensor& g, const Tensor& den) { return gradient(GradOp::DivDx, g, den); }
Tensor div_dygrad(const Tensor& g, const Tensor& q, const Tensor& den) { return gradient(GradOp::DivDy, g, q, den); }
Tensor power_grad_of_base(const Tensor& g, const Tensor& x, const Tensor& y) {
  return gradient(GradOp::PowBase, g, x, y);
}
Tensor power_grad_of_exp(const Tensor& g, const Tensor& x, const Tensor& y, const Tensor& out) {
  return gradient(GradOp::PowExp, g, x, y, out);
}
Tensor exp_grad(const Tensor& g, const Tensor& y) { return gradient(GradOp::Exp, g, y); }
Tensor log_grad(const Tensor& g, const Tensor& x) { return gradient(GradOp::Log, g, x); }
Tensor square_grad(const Tensor& g, const Tensor& x) { return gradient(GradOp::Square, g, x); }
Tensor tanh_grad(const Tensor& g, const Tensor& y) { return gradient(GradOp::Tanh, g, y); }
Tensor asin_grad(const Tensor& g, const Tensor& x) { return gradient(GradOp::Asin, g, x); }
Tensor acos_grad(const Tensor& g, const Tensor& x) { return gradient(GradOp::Acos, g, x); }
Tensor atan_grad(const Tensor& g, const Tensor& x) { return gradient(GradOp::Atan, g, x); }
Tensor sqrt_grad(const Tensor& y, const Tensor& g) { return gradient(GradOp::Sqrt, y, g); }
Tensor tan_grad(const Tensor& y, const Tensor& g) { return gradient(GradOp::Tan, y, g); }

}  // namespace tramel
