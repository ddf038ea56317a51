// Sums and means over axes, and log-softmax along one axis.
//
// Every axis sum is a sequence of passes over a [outer, r, inner] view: runs
// of adjacent reduced axes merge into one r, and the runs are reduced from the
// last to the first (see Note [reduction layout]).
#include "core/ops/reduce_plan.h"

namespace tramel {
namespace {

Tensor sum_axes(const Tensor& t, const Plan& p, const char* op) {
  return reduce_runs(t, p, sum_dtype(t.dtype()), op, need(kernels_of(t).sum_pass, t, op));
}

Tensor mean_from_sum(Tensor s, int64_t count) {
  if (!is_floating(s.dtype()) && !is_complex(s.dtype())) s = to_dtype(s, default_dtype(), false);
  binary_(BinaryOp::Div, s, Scalar::from_double(double(count)));
  return s;
}

// One axis as [outer, r, inner].
struct Lines {
  int64_t outer, r, inner;
};

Lines lines_of(const Tensor& t, int64_t axis, const char* op) {
  int64_t a = wrap_axis(axis, t.ndim(), op, t.shape());
  Lines l{1, t.shape()[int(a)], 1};
  for (int i = 0; i < a; ++i) l.outer *= t.shape()[i];
  for (int i = int(a) + 1; i < t.ndim(); ++i) l.inner *= t.shape()[i];
  return l;
}

}  // namespace

Tensor sum(const Tensor& t) { return one_element(sum_axes(t, plan_all(t, "sum"), "sum"), "sum"); }

Tensor sum(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  return sum_axes(t, plan_axes(t, axes, keepdims, "sum"), "sum");
}

Tensor mean(const Tensor& t) {
  Plan p = plan_all(t, "mean");
  return one_element(mean_from_sum(sum_axes(t, p, "mean"), p.count), "mean");
}

Tensor mean(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  Plan p = plan_axes(t, axes, keepdims, "mean");
  return mean_from_sum(sum_axes(t, p, "mean"), p.count);
}

Tensor mean_all_grad(const Tensor& g, const Shape& shape) {
  const char* op = "mean_all_grad";
  if (g.numel() != 1) fail(ErrorKind::Value, op, "expects a gradient of one element, got shape " + g.shape().str());
  MeanFillKernel kernel = need(kernels_of(g).mean_fill, g, op);
  DType d = floating_compute(g.dtype());
  Tensor h;
  const Tensor& g1 = as_dtype(g, d, h);
  Tensor out = Tensor::empty(shape, d, g.device(), op);
  kernel(g1, out, double(shape.numel()));
  return out;
}

Tensor log_softmax(const Tensor& x, int64_t axis) {
  const char* op = "log_softmax";
  if (x.ndim() == 0) fail(ErrorKind::Index, op, "expects at least one dimension");
  Lines l = lines_of(x, axis, op);
  require_types(kFloatingTypes, x.dtype(), op);
  PassKernel kernel = need(kernels_of(x).log_softmax, x, op);
  Tensor out = Tensor::empty(x.shape(), x.dtype(), x.device(), op);
  kernel(x, out, l.outer, l.r, l.inner);
  return out;
}

Tensor log_softmax_grad(const Tensor& g, const Tensor& out, int64_t axis) {
  const char* op = "log_softmax_grad";
  check_operands(op, g, out);
  if (g.ndim() == 0) fail(ErrorKind::Index, op, "expects at least one dimension");
  Lines l = lines_of(g, axis, op);
  DType d = promote(g.dtype(), out.dtype());
  require_types(kFloatingTypes, d, op);
  SoftmaxGradKernel kernel = need(kernels_of(g).log_softmax_grad, g, op);
  Tensor hg, hy;
  const Tensor& gs = as_dtype(g, d, hg);
  const Tensor& ys = as_dtype(out, d, hy);
  Tensor res = Tensor::empty(g.shape(), d, g.device(), op);
  kernel(gs, ys, res, l.outer, l.r, l.inner);
  return res;
}

}  // namespace tramel
