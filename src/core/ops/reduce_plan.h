// The plan of an axis reduction and the pass driver the reductions share.
// Included by src/core/ops files only; the loops are in
// kernels/reduce_loops.h (Note [reduction layout]).
#pragma once
#include <vector>

#include "core/ops/front.h"

namespace tramel {

struct Plan {
  Shape out;  // shape of the result
  bool reduced[kMaxRank] = {};
  int64_t count = 1;  // elements per output element
};

inline Plan plan_axes(const Tensor& t, const std::vector<int64_t>& axes, bool keepdims, const char* op) {
  Plan p;
  int ndim = t.ndim();
  for (int64_t axis : axes) {
    int64_t a = wrap_axis(axis, ndim, op, t.shape());
    if (p.reduced[a])
      fail(ErrorKind::Value, op, "axis " + std::to_string(axis) + " is repeated for shape " + t.shape().str());
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

inline Plan plan_all(const Tensor& t, const char* op) {
  std::vector<int64_t> all(size_t(t.ndim()));
  for (int i = 0; i < t.ndim(); ++i) all[size_t(i)] = i;
  return plan_axes(t, all, false, op);
}

// The result of a reduction over all elements has shape [1].
inline Tensor one_element(const Tensor& t, const char* op) {
  int64_t one = 1;
  return t.view_as(Shape(&one, 1, op));
}

// Reduces the runs of adjacent reduced axes one after another, from the last
// run to the first, with the pass kernel `pass` (sum_pass, min_pass,
// max_pass: in [outer, r, inner], out [outer, inner] of `out_dtype`). When
// nothing is reduced the result is to_dtype(t) copied.
inline Tensor reduce_runs(const Tensor& t, const Plan& p, DType out_dtype, const char* op, PassKernel pass) {
  int64_t dims[kMaxRank];
  bool red[kMaxRank];
  int rank = t.ndim();
  for (int i = 0; i < rank; ++i) dims[i] = t.shape()[i], red[i] = p.reduced[i];
  Tensor cur = t;
  bool reduced_any = false;
  for (int end = rank; end > 0;) {
    if (!red[end - 1]) {
      --end;
      continue;
    }
    int begin = end;
    while (begin > 0 && red[begin - 1]) --begin;
    int64_t outer = 1, r = 1, inner = 1;
    for (int i = 0; i < begin; ++i) outer *= dims[i];
    for (int i = begin; i < end; ++i) r *= dims[i];
    for (int i = end; i < rank; ++i) inner *= dims[i];
    int64_t next_dims[kMaxRank];
    bool next_red[kMaxRank];
    int next_rank = 0;
    for (int i = 0; i < rank; ++i)
      if (i < begin || i >= end) next_dims[next_rank] = dims[i], next_red[next_rank++] = red[i];
    Tensor next = Tensor::empty(Shape(next_dims, next_rank, op), out_dtype, t.device(), op);
    if (next.numel() > 0) pass(cur, next, outer, r, inner);
    for (int i = 0; i < next_rank; ++i) dims[i] = next_dims[i], red[i] = next_red[i];
    rank = next_rank;
    end = begin;
    cur = next;
    reduced_any = true;
  }
  if (!reduced_any) cur = to_dtype(t, out_dtype, true);  // nothing reduced: a copy
  return cur.view_as(p.out);
}

}  // namespace tramel
