// Sums and means over axes, and log-softmax along one axis.
//
// Every axis sum is a sequence of passes over a [outer, r, inner] view: runs
// of adjacent reduced axes merge into one r, and the runs are reduced from the
// last to the first (see Note [reduction layout]).
#include <vector>

#include "core/kernels/reduce_loops.h"

namespace tramel {
namespace {

// out[o, i] = sum_k x[o, k, i]; see Note [reduction layout].
template <typename In, typename A>
void sum_pass(const In* x, A* out, int64_t outer, int64_t r, int64_t inner) {
  if (r == 0) {
    std::fill(out, out + outer * inner, A(0));
    return;
  }
  if (inner > 1) {
    fold_columns(x, out, outer, r, inner, fn::Add{});
  } else if (outer == 1) {
    out[0] = A(sum_run(x, r, true));
  } else {
    int64_t grain = std::max<int64_t>(1, kParallelGrain / r);
    parallel_for(outer, grain, [&](int64_t b, int64_t e) {
      for (int64_t o = b; o < e; ++o) out[o] = A(sum_run(x + o * r, r, false));
    });
  }
}

Tensor sum_axes(const Tensor& t, const Plan& p, const char* op) {
  check_operands(op, t);
  return reduce_runs(t, p, sum_dtype(t.dtype()), op, [&](const Tensor& cur, Tensor& next, int64_t outer, int64_t r,
                                                         int64_t inner) {
    dispatch<kAllTypes>(cur.dtype(), op, [&](auto tag) {
      using In = typename decltype(tag)::type;
      sum_pass(cur.data<In>(), next.data<acc_t<In>>(), outer, r, inner);
    });
  });
}

Tensor mean_from_sum(Tensor s, int64_t count) {
  if (!is_floating(s.dtype()) && !is_complex(s.dtype())) s = to_dtype(s, default_dtype(), false);
  binary_(BinaryOp::Div, s, Scalar::from_double(double(count)));
  return s;
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
  check_operands(op, g);
  if (g.numel() != 1) fail(ErrorKind::Value, op, "expects a gradient of one element, got shape " + g.shape().str());
  DType d = floating_compute(g.dtype());
  Tensor g1 = to_dtype(g, d, false);
  Tensor out = Tensor::empty(shape, d, g.device(), op);
  dispatch<kFloatingTypes | kComplexTypes>(d, op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T v = fn::div(g1.data<T>()[0], T(double(shape.numel())));
    T* o = out.data<T>();
    parallel_for(out.numel(), kParallelGrain, [&](int64_t b, int64_t e) { std::fill(o + b, o + e, v); });
  });
  return out;
}

// ---- log-softmax ----

namespace {

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

// Calls body(base, stride) for every line along the axis.
template <typename F>
void for_lines(const Lines& l, F&& body) {
  parallel_for(l.outer * l.inner, std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(l.r, 1)),
               [&](int64_t b, int64_t e) {
                 for (int64_t k = b; k < e; ++k) body((k / l.inner) * l.r * l.inner + k % l.inner, l.inner);
               });
}

}  // namespace

Tensor log_softmax(const Tensor& x, int64_t axis) {
  const char* op = "log_softmax";
  check_operands(op, x);
  if (x.ndim() == 0) fail(ErrorKind::Index, op, "expects at least one dimension");
  Lines l = lines_of(x, axis, op);
  Tensor out = Tensor::empty(x.shape(), x.dtype(), x.device(), op);
  dispatch<kFloatingTypes>(x.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* in = x.data<T>();
    T* o = out.data<T>();
    for_lines(l, [&](int64_t base, int64_t s) {
      T m = -std::numeric_limits<T>::infinity();
      for (int64_t k = 0; k < l.r; ++k) m = fn::Maximum{}(in[base + k * s], m);
      if (std::isinf(m)) m = 0;  // all -inf (or +inf present): shift by nothing
      double total = 0;
      for (int64_t k = 0; k < l.r; ++k) total += double(vmath::exp_v(T(in[base + k * s] - m)));
      T shift = T(m + std::log(total));
      for (int64_t k = 0; k < l.r; ++k) o[base + k * s] = T(in[base + k * s] - shift);
    });
  });
  return out;
}

Tensor log_softmax_grad(const Tensor& g, const Tensor& out, int64_t axis) {
  const char* op = "log_softmax_grad";
  check_operands(op, g, out);
  if (g.ndim() == 0) fail(ErrorKind::Index, op, "expects at least one dimension");
  Lines l = lines_of(g, axis, op);
  DType d = promote(g.dtype(), out.dtype());
  Tensor gs = to_dtype(g, d, false), ys = to_dtype(out, d, false);
  Tensor res = Tensor::empty(g.shape(), d, g.device(), op);
  dispatch<kFloatingTypes>(d, op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* gp = gs.data<T>();
    const T* yp = ys.data<T>();
    T* o = res.data<T>();
    // d/dx_i of sum_j g_j log_softmax_j = g_i - softmax_i * sum_j g_j.
    for_lines(l, [&](int64_t base, int64_t s) {
      double total = 0;
      for (int64_t k = 0; k < l.r; ++k) total += double(gp[base + k * s]);
      for (int64_t k = 0; k < l.r; ++k)
        o[base + k * s] = T(gp[base + k * s] - vmath::exp_v(yp[base + k * s]) * T(total));
    });
  });
  return res;
}

}  // namespace tramel
