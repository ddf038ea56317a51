// Running sums along one axis, and their gradient.
#include <algorithm>

#include "core/ops/reduce_plan.h"

namespace tramel {
namespace {

Tensor running_sum(const Tensor& t, int64_t axis, bool reverse, const char* op) {
  // A rank-0 tensor has the one implicit axis of its one element.
  int64_t a = wrap_axis(axis, std::max(t.ndim(), 1), op, t.shape());
  ScanKernel kernel = need(kernels_of(t).cumsum, t, op);
  Tensor out = Tensor::empty(t.shape(), sum_dtype(t.dtype()), t.device(), op);
  if (out.numel() == 0) return out;
  int64_t outer = 1, r = t.ndim() ? t.shape()[int(a)] : 1, inner = 1;
  for (int i = 0; i < a; ++i) outer *= t.shape()[i];
  for (int i = int(a) + 1; i < t.ndim(); ++i) inner *= t.shape()[i];
  kernel(t, out, outer, r, inner, reverse);
  return out;
}

}  // namespace

Tensor cumsum(const Tensor& t, int64_t axis) { return running_sum(t, axis, false, "cumsum"); }
Tensor cumsum_grad(const Tensor& g, int64_t axis) { return running_sum(g, axis, true, "cumsumgrad"); }

}  // namespace tramel
