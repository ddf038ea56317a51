// Extrema, medians and variances over axes. The loop layout
// is that of the sums (Note [reduction layout]).
#include <limits>

#include "core/ops/reduce_plan.h"

namespace tramel {
namespace {

// The reduced axes as one trailing run: t itself when they already are,
// otherwise a transposed copy. Sets outer and r of the [outer, r] layout.
Tensor reduced_last(const Tensor& t, const Plan& p, int64_t* outer, int64_t* r) {
  std::vector<int64_t> perm;
  for (int i = 0; i < t.ndim(); ++i)
    if (!p.reduced[i]) perm.push_back(i);
  *outer = 1;
  for (int64_t i : perm) *outer *= t.shape()[int(i)];
  *r = p.count;
  bool in_order = true;
  for (size_t i = 0; i < perm.size(); ++i) in_order = in_order && perm[i] == int64_t(i);
  if (in_order) return t;
  for (int i = 0; i < t.ndim(); ++i)
    if (p.reduced[i]) perm.push_back(i);
  return transpose(t, perm);
}

// Whether the reduced axes of p form one run; sets its [outer, r, inner].
bool one_run(const Tensor& t, const Plan& p, int64_t* outer, int64_t* r, int64_t* inner) {
  int first = -1, last = -1;
  for (int i = 0; i < t.ndim(); ++i)
    if (p.reduced[i]) {
      if (first < 0) first = i;
      else if (last != i - 1) return false;
      last = i;
    }
  *outer = *r = *inner = 1;
  for (int i = 0; i < t.ndim(); ++i)
    (i < first ? *outer : i <= last ? *r : *inner) *= t.shape()[i];
  return true;
}

template <bool Max>
Tensor extremum(const Tensor& t, const Plan& p) {
  const char* op = Max ? "max" : "min";
  if (is_complex(t.dtype())) fail_dtype(op, t.dtype());
  if (p.count == 0)
    fail(ErrorKind::Value, op, "cannot reduce an empty axis of shape " + t.shape().str() + ": there is no identity");
  const Kernels& k = kernels_of(t);
  return reduce_runs(t, p, t.dtype(), op, need(Max ? k.max_pass : k.min_pass, t, op));
}

template <bool Sqrt>
Tensor spread(const Tensor& t, const Plan& p, bool unbiased) {
  const char* op = Sqrt ? "std" : "var";
  SpreadKernel kernel = need(kernels_of(t).spread_pass, t, op);
  Tensor x = to_dtype(t, floating_compute(t.dtype()), false);
  Tensor out = Tensor::empty(p.out, real_dtype(x.dtype()), t.device(), op);
  if (out.numel() == 0) return out;
  if (p.count == 0) {  // no elements: 0 / 0, as numpy
    fill_(out, Scalar::from_double(std::numeric_limits<double>::quiet_NaN()));
    return out;
  }
  int64_t outer, r, inner;
  if (!one_run(x, p, &outer, &r, &inner)) {
    x = reduced_last(x, p, &outer, &r);
    inner = 1;
  }
  double divisor = double(std::max<int64_t>(p.count - (unbiased ? 1 : 0), 0));
  kernel(x, out, outer, r, inner, divisor, Sqrt);
  return out;
}

Tensor median_of(const Tensor& t, const Plan& p) {
  const char* op = "median";
  if (is_complex(t.dtype())) fail_dtype(op, t.dtype());
  MedianKernel kernel = need(kernels_of(t).median, t, op);
  Tensor out = Tensor::empty(p.out, is_floating(t.dtype()) ? t.dtype() : default_dtype(), t.device(), op);
  if (out.numel() == 0) return out;
  if (p.count == 0) {  // the median of nothing, as numpy
    fill_(out, Scalar::from_double(std::numeric_limits<double>::quiet_NaN()));
    return out;
  }
  int64_t outer, r;
  Tensor work = reduced_last(t, p, &outer, &r);
  if (work.storage() == t.storage()) work = to_device(t, t.device(), op);  // reordered in place below
  kernel(work, out, outer, r);
  return out;
}


}  // namespace

Tensor min(const Tensor& t) { return one_element(extremum<false>(t, plan_all(t, "min")), "min"); }
Tensor min(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  return extremum<false>(t, plan_axes(t, axes, keepdims, "min"));
}
Tensor max(const Tensor& t) { return one_element(extremum<true>(t, plan_all(t, "max")), "max"); }
Tensor max(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  return extremum<true>(t, plan_axes(t, axes, keepdims, "max"));
}

Tensor median(const Tensor& t) { return one_element(median_of(t, plan_all(t, "median")), "median"); }
Tensor median(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims) {
  return median_of(t, plan_axes(t, axes, keepdims, "median"));
}

Tensor var(const Tensor& t, bool unbiased) { return one_element(spread<false>(t, plan_all(t, "var"), unbiased), "var"); }
Tensor var(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims, bool unbiased) {
  return spread<false>(t, plan_axes(t, axes, keepdims, "var"), unbiased);
}
Tensor std(const Tensor& t, bool unbiased) { return one_element(spread<true>(t, plan_all(t, "std"), unbiased), "std"); }
Tensor std(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims, bool unbiased) {
  return spread<true>(t, plan_axes(t, axes, keepdims, "std"), unbiased);
}


}  // namespace tramel
