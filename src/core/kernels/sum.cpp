// Host kernels of sums, of the mean's gradient and of log-softmax.
#include "core/kernels/reduce_loops.h"

namespace tramel {
namespace {

// out[o, i] = sum_k x[o, k, i]; see Note [reduction layout].
template <typename In, typename A>
void sum_block(const In* x, A* out, int64_t outer, int64_t r, int64_t inner) {
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

void sum_pass(const Tensor& in, Tensor& out, int64_t outer, int64_t r, int64_t inner) {
  dispatch<kAllTypes>(in.dtype(), "sum", [&](auto tag) {
    using In = typename decltype(tag)::type;
    sum_block(in.data<In>(), out.data<acc_t<In>>(), outer, r, inner);
  });
}

void mean_fill(const Tensor& g, Tensor& out, double count) {
  dispatch<kFloatingTypes | kComplexTypes>(out.dtype(), "mean_all_grad", [&](auto tag) {
    using T = typename decltype(tag)::type;
    T v = fn::div(g.data<T>()[0], T(count));
    T* o = out.data<T>();
    parallel_for(out.numel(), kParallelGrain, [&](int64_t b, int64_t e) { std::fill(o + b, o + e, v); });
  });
}

// Calls body(base, stride) for every line of r elements `inner` apart.
template <typename F>
void for_lines(int64_t outer, int64_t r, int64_t inner, F&& body) {
  parallel_for(outer * inner, std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(r, 1)),
               [&](int64_t b, int64_t e) {
                 for (int64_t k = b; k < e; ++k) body((k / inner) * r * inner + k % inner, inner);
               });
}

void log_softmax(const Tensor& x, Tensor& out, int64_t outer, int64_t r, int64_t inner) {
  dispatch<kFloatingTypes>(x.dtype(), "log_softmax", [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* in = x.data<T>();
    T* o = out.data<T>();
    for_lines(outer, r, inner, [&](int64_t base, int64_t s) {
      T m = -std::numeric_limits<T>::infinity();
      for (int64_t k = 0; k < r; ++k) m = fn::Maximum{}(in[base + k * s], m);
      if (std::isinf(m)) m = 0;  // all -inf (or +inf present): shift by nothing
      double total = 0;
      for (int64_t k = 0; k < r; ++k) total += double(vmath::exp_v(T(in[base + k * s] - m)));
      // x - m is exact near the maximum; m + log(total) would round away
      // the log's digits when m is large (float32 keeps 7 digits of 1e5).
      T log_total = T(std::log(total));
      for (int64_t k = 0; k < r; ++k) o[base + k * s] = T(T(in[base + k * s] - m) - log_total);
    });
  });
}

void log_softmax_grad(const Tensor& g, const Tensor& y, Tensor& out, int64_t outer, int64_t r, int64_t inner) {
  dispatch<kFloatingTypes>(out.dtype(), "log_softmax_grad", [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* gp = g.data<T>();
    const T* yp = y.data<T>();
    T* o = out.data<T>();
    // d/dx_i of sum_j g_j log_softmax_j = g_i - softmax_i * sum_j g_j.
    for_lines(outer, r, inner, [&](int64_t base, int64_t s) {
      double total = 0;
      for (int64_t k = 0; k < r; ++k) total += double(gp[base + k * s]);
      for (int64_t k = 0; k < r; ++k) o[base + k * s] = T(gp[base + k * s] - vmath::exp_v(yp[base + k * s]) * T(total));
    });
  });
}

}  // namespace

void add_sum_kernels(Kernels& k) {
  k.sum_pass = sum_pass;
  k.mean_fill = mean_fill;
  k.log_softmax = log_softmax;
  k.log_softmax_grad = log_softmax_grad;
}

}  // namespace tramel
