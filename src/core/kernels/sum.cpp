// Sums and means over axes, and log-softmax along one axis.
//
// Every axis reduction is a sequence of passes over a [outer, r, inner] view:
// runs of adjacent reduced axes merge into one r, and the runs are reduced
// from the last to the first.
#include <vector>

#include "core/kernels/loops.h"

namespace tramel {
namespace {

template <typename T> using acc_t = std::conditional_t<std::is_integral_v<T>, int64_t, T>;

// Sum of a contiguous run, in blocks: each block sums into many independent
// lanes (vectorised, no reassociation needed), and the block totals add up in
// double, which keeps float32 sums accurate to a few ulp of the exact sum.
constexpr int64_t kSumBlock = 4096;

template <typename R>
TRAMEL_CLONES void block_sum_real(const R* x, int64_t n, double* even, double* odd) {
  constexpr int L = 128 / sizeof(R);  // four 256-bit registers of lanes
  R acc[L] = {};
  int64_t i = 0;
  for (; i + L <= n; i += L)
    for (int j = 0; j < L; ++j) acc[j] += x[i + j];
  double e = 0, o = 0;
  for (int j = 0; j < L; j += 2) e += double(acc[j]), o += double(acc[j + 1]);
  // The lane count is even, so lane parity is element parity: complex
  // numbers keep their real parts in even lanes and imaginary parts in odd.
  for (; i < n; ++i) ((i & 1) ? o : e) += double(x[i]);
  *even = e;
  *odd = o;
}

template <typename T>
TRAMEL_CLONES int64_t block_sum_int(const T* x, int64_t n) {
  int64_t s = 0;
  for (int64_t i = 0; i < n; ++i) s += int64_t(x[i]);
  return s;
}

// Sum of n contiguous elements of T, as acc_t<T>; parallel when `parallel`.
template <typename T>
acc_t<T> sum_run(const T* x, int64_t n, bool parallel) {
  using A = acc_t<T>;
  int64_t blocks = (n + kSumBlock - 1) / kSumBlock;
  if constexpr (std::is_integral_v<T>) {
    std::vector<int64_t> part(size_t(blocks ? blocks : 1), 0);
    auto body = [&](int64_t b, int64_t e) {
      for (int64_t k = b; k < e; ++k)
        part[k] = block_sum_int(x + k * kSumBlock, std::min(kSumBlock, n - k * kSumBlock));
    };
    if (parallel) parallel_for(blocks, 16, body);
    else body(0, blocks);
    int64_t s = 0;
    for (int64_t p : part) s += p;
    return A(s);
  } else {
    using R = fn::real_of_t<T>;
    constexpr int64_t per = is_complex_v<T> ? 2 : 1;
    const R* r = reinterpret_cast<const R*>(x);
    int64_t nr = n * per, rb = kSumBlock * per;
    std::vector<double> part(size_t(2 * (blocks ? blocks : 1)), 0.0);
    auto body = [&](int64_t b, int64_t e) {
      for (int64_t k = b; k < e; ++k)
        block_sum_real(r + k * rb, std::min(rb, nr - k * rb), &part[2 * k], &part[2 * k + 1]);
    };
    if (parallel) parallel_for(blocks, 16, body);
    else body(0, blocks);
    double e = 0, o = 0;
    for (int64_t k = 0; k < blocks; ++k) e += part[2 * k], o += part[2 * k + 1];
    if constexpr (is_complex_v<T>) return T(R(e), R(o));
    else return T(e + o);
  }
}

// out[o, i] = sum_k x[o, k, i], for a run r of reduced axes.
template <typename In, typename A>
void sum_pass(const In* x, A* out, int64_t outer, int64_t r, int64_t inner) {
  if (outer == 0 || inner == 0) return;  // no output elements
  if (inner == 1) {
    if (outer == 1) {
      out[0] = A(sum_run(x, r, true));
      return;
    }
    int64_t grain = std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(r, 1));
    parallel_for(outer, grain, [&](int64_t b, int64_t e) {
      for (int64_t o = b; o < e; ++o) out[o] = A(sum_run(x + o * r, r, false));
    });
    return;
  }
  // Rows of `inner` elements added one after another: the inner loop vectorises.
  auto rows = [&](int64_t o, int64_t ib, int64_t ie) {
    A* dst = out + o * inner;
    for (int64_t i = ib; i < ie; ++i) dst[i] = A(0);
    for (int64_t k = 0; k < r; ++k) {
      const In* src = x + (o * r + k) * inner;
      for (int64_t i = ib; i < ie; ++i) dst[i] = fn::Add{}(dst[i], A(src[i]));
    }
  };
  int64_t work = std::max<int64_t>(r * inner, 1);
  if (outer > 1) {
    parallel_for(outer, std::max<int64_t>(1, kParallelGrain / work), [&](int64_t b, int64_t e) {
      for (int64_t o = b; o < e; ++o) rows(o, 0, inner);
    });
  } else {
    parallel_for(inner, std::max<int64_t>(64, kParallelGrain / std::max<int64_t>(r, 1)),
                 [&](int64_t b, int64_t e) { rows(0, b, e); });
  }
}

struct Plan {
  Shape out;                      // shape of the result
  bool reduced[kMaxRank] = {};
  int64_t count = 1;              // elements per output element
};

Plan plan_axes(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims, const char* op) {
  Plan p;
  int ndim = t.ndim();
  for (int64_t axis : axes) {
    int64_t a = wrap_axis(axis, ndim, op, t.shape());
    if (p.reduced[a]) fail(ErrorKind::Value, op, "axis " + std::to_string(axis) + " is repeated");
    p.reduced[a] = true;
  }
  int64_t dims[kMaxRank];
  int rank = 0;
  for (int i = 0; i < ndim; ++i) {
    if (p.reduced[i]) {
      p.count *= t.shape()[i];
      if (keepdims) dims[rank++] = 1;
    } else {
      dims[rank++] = t.shape()[i];
    }
  }
  p.out = Shape(dims, rank, op);
  return p;
}

DType sum_dtype(DType d) { return is_integral(d) || d == DType::Bool ? DType::Int64 : d; }

Tensor sum_axes(const Tensor& t, const Plan& p, const char* op) {
  check_operands(op, t);
  DType out_dtype = sum_dtype(t.dtype());
  // Current layout: dims of the tensor still to reduce, as the passes shrink it.
  int64_t dims[kMaxRank];
  bool red[kMaxRank];
  int rank = t.ndim();
  for (int i = 0; i < rank; ++i) dims[i] = t.shape()[i], red[i] = p.reduced[i];
  Tensor cur = t;
  bool first = true;
  for (int end = rank; end > 0;) {
    if (!red[end - 1]) { --end; continue; }
    int begin = end;
    while (begin > 0 && red[begin - 1]) --begin;
    int64_t outer = 1, r = 1, inner = 1;
    for (int i = 0; i < begin; ++i) outer *= dims[i];
    for (int i = begin; i < end; ++i) r *= dims[i];
    for (int i = end; i < rank; ++i) inner *= dims[i];
    int64_t next_dims[kMaxRank];
    int next_rank = 0;
    for (int i = 0; i < rank; ++i)
      if (i < begin || i >= end) next_dims[next_rank++] = dims[i];
    Tensor next = Tensor::empty(Shape(next_dims, next_rank, op), out_dtype, t.device(), op);
    dispatch<kAllTypes>(cur.dtype(), op, [&](auto tag) {
      using In = typename decltype(tag)::type;
      using A = acc_t<In>;
      sum_pass(cur.data<In>(), next.data<A>(), outer, r, inner);
    });
    // Close the gap in the layout.
    bool next_red[kMaxRank];
    for (int i = 0, j = 0; i < rank; ++i)
      if (i < begin || i >= end) next_red[j++] = red[i];
    for (int i = 0; i < next_rank; ++i) dims[i] = next_dims[i], red[i] = next_red[i];
    rank = next_rank;
    end = begin;
    cur = next;
    first = false;
  }
  if (first) cur = to_dtype(t, out_dtype, true);  // nothing reduced: a copy
  return cur.view_as(p.out);
}

Tensor mean_from_sum(Tensor s, int64_t count) {
  if (!is_floating(s.dtype()) && !is_complex(s.dtype())) s = to_dtype(s, default_dtype(), false);
  binary_(BinaryOp::Div, s, Scalar::from_double(double(count)));
  return s;
}

Tensor one_element(const Tensor& t) {
  int64_t one = 1;
  return t.view_as(Shape(&one, 1, "sum"));
}

}  // namespace

Tensor sum(const Tensor& t) {
  std::vector<int64_t> all(size_t(t.ndim()));
  for (int i = 0; i < t.ndim(); ++i) all[i] = i;
  return one_element(sum_axes(t, plan_axes(t, all, false, "sum"), "sum"));
}

Tensor sum(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  return sum_axes(t, plan_axes(t, axes, keepdims, "sum"), "sum");
}

Tensor mean(const Tensor& t) {
  std::vector<int64_t> all(size_t(t.ndim()));
  for (int i = 0; i < t.ndim(); ++i) all[i] = i;
  Plan p = plan_axes(t, all, false, "mean");
  return one_element(mean_from_sum(sum_axes(t, p, "mean"), p.count));
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
