// Reshaping, views that merge, drop or insert axes, broadcasting and tiling.
// Element order is row-major throughout.
#include <algorithm>
#include <string>

#include "core/ops/front.h"

namespace tramel {

namespace {

// Dimensions as given, negative ones included: "[-1, 4]".
std::string dims_str(const std::vector<int64_t>& v) {
  std::string s;
  for (size_t i = 0; i < v.size(); ++i) s += (i ? ", " : "") + std::to_string(v[i]);
  return "[" + s + "]";
}

}  // namespace

Tensor reshape(const Tensor& t, const Shape& shape) { return t.view_as(shape); }

Tensor reshape(const Tensor& t, const std::vector<int64_t>& dims) {
  const char* op = "reshape";
  if (dims.size() > size_t(kMaxRank))
    fail(ErrorKind::Value, op, "rank " + std::to_string(dims.size()) + " exceeds the largest supported rank " +
                                   std::to_string(kMaxRank));
  int64_t d[kMaxRank];
  int infer = -1;
  // The product of the given non-zero dimensions, bounded as Shape bounds it:
  // `too_many` once it passes the largest element count (and it is not
  // multiplied further).
  int64_t known = 1;
  bool zero = false, too_many = false;
  for (size_t i = 0; i < dims.size(); ++i) {
    d[i] = dims[i];
    if (dims[i] == -1) {
      if (infer >= 0) fail(ErrorKind::Value, op, "only one dimension can be -1");
      infer = int(i);
    } else if (dims[i] == 0) {
      zero = true;
    } else if (dims[i] > 0 && !too_many) {
      too_many = __builtin_mul_overflow(known, dims[i], &known) || known > kMaxElements;
    }
  }
  if (infer >= 0) {
    if (too_many) fail(ErrorKind::Value, op, "shape " + dims_str(dims) + " has too many elements");
    if (zero || t.numel() % known != 0)
      fail(ErrorKind::Value, op, "cannot reshape " + t.shape().str() + " with a -1 dimension");
    d[infer] = t.numel() / known;
  }
  return t.view_as(Shape(d, int(dims.size()), op));
}

Tensor flatten(const Tensor& t, int64_t start, int64_t end) {
  const char* op = "flatten";
  // A rank-0 tensor flattens to one axis of its one element.
  int ndim = std::max(t.ndim(), 1);
  int64_t s = wrap_axis(start, ndim, op, t.shape()), e = wrap_axis(end, ndim, op, t.shape());
  if (s > e)
    fail(ErrorKind::Value, op, "start axis " + std::to_string(start) + " comes after end axis " + std::to_string(end) +
                                   " for shape " + t.shape().str());
  int64_t dims[kMaxRank];
  int rank = 0;
  for (int i = 0; i < s; ++i) dims[rank++] = t.shape()[i];
  int64_t merged = 1;
  for (int i = int(s); i <= e && i < t.ndim(); ++i) merged *= t.shape()[i];
  dims[rank++] = merged;
  for (int i = int(e) + 1; i < t.ndim(); ++i) dims[rank++] = t.shape()[i];
  return t.view_as(Shape(dims, rank, op));
}

Tensor squeeze(const Tensor& t) {
  int64_t dims[kMaxRank];
  int rank = 0;
  for (int64_t d : t.shape())
    if (d != 1) dims[rank++] = d;
  return t.view_as(Shape(dims, rank, "squeeze"));
}

Tensor squeeze(const Tensor& t, const std::vector<int64_t>& axes) {
  const char* op = "squeeze";
  bool drop[kMaxRank] = {};
  for (int64_t axis : axes) {
    // A rank-0 tensor accepts the axis of its one element, as numpy does.
    int64_t a = wrap_axis(axis, std::max(t.ndim(), 1), op, t.shape());
    if (t.ndim() == 0) continue;
    if (drop[a]) fail(ErrorKind::Value, op, "axis " + std::to_string(axis) + " is repeated for shape " + t.shape().str());
    if (t.shape()[int(a)] != 1)
      fail(ErrorKind::Value, op, "cannot squeeze axis " + std::to_string(axis) + " of length " +
                                     std::to_string(t.shape()[int(a)]) + " in shape " + t.shape().str());
    drop[a] = true;
  }
  int64_t dims[kMaxRank];
  int rank = 0;
  for (int i = 0; i < t.ndim(); ++i)
    if (!drop[i]) dims[rank++] = t.shape()[i];
  return t.view_as(Shape(dims, rank, op));
}

Tensor unsqueeze(const Tensor& t, int64_t axis) {
  const char* op = "unsqueeze";
  int ndim = t.ndim();
  if (axis < -(ndim + 1) || axis > ndim)
    fail(ErrorKind::Index, op, "axis " + std::to_string(axis) + " is out of range for inserting into shape " +
                                   t.shape().str());
  int64_t at = axis < 0 ? axis + ndim + 1 : axis;
  int64_t dims[kMaxRank + 1];
  int rank = 0;
  for (int i = 0; i <= ndim; ++i) {
    if (i == at) dims[rank++] = 1;
    if (i < ndim) dims[rank++] = t.shape()[i];
  }
  return t.view_as(Shape(dims, rank, op));
}

Shape broadcast_shape(const Shape& a, const Shape& b, const char* op) {
  int rank = std::max(a.rank(), b.rank());
  int64_t dims[kMaxRank];
  for (int i = 0; i < rank; ++i) {
    int ia = i - (rank - a.rank()), ib = i - (rank - b.rank());
    int64_t da = ia >= 0 ? a[ia] : 1, db = ib >= 0 ? b[ib] : 1;
    if (da != db && da != 1 && db != 1)
      fail(ErrorKind::Value, op, "shapes " + a.str() + " and " + b.str() + " cannot be broadcast together");
    dims[i] = da == 1 ? db : da;
  }
  return Shape(dims, rank, op);
}

Tensor broadcast_to(const Tensor& t, const Shape& shape) {
  const char* op = "broadcast_to";
  const Shape& in = t.shape();
  int rank = shape.rank();
  bool fits = in.rank() <= rank;
  for (int i = 0; fits && i < in.rank(); ++i) {
    int64_t d = in[i], o = shape[i + rank - in.rank()];
    fits = d == o || d == 1;
  }
  if (!fits) {
    // A one-element tensor (a reduction over all elements gives shape [1])
    // stands for the value of a 0-d target.
    if (rank == 0 && t.numel() == 1) return t.view_as(shape);  // storage shared, as below
    fail(ErrorKind::Value, op, "cannot broadcast shape " + in.str() + " to " + shape.str());
  }
  if (in == shape) return t;  // storage shared; see Note [copy-on-write storage]
  MapKernel kernel = need(kernels_of(t).broadcast, t, op);
  Tensor out = Tensor::empty(shape, t.dtype(), t.device(), op);
  if (out.numel() != 0) kernel(t, out);
  return out;
}

namespace {

// Shape and reps brought to one rank by leading ones, as numpy's tile does.
struct Aligned {
  int rank;
  int64_t shape[kMaxRank], reps[kMaxRank];
};

Aligned align(const Shape& shape, const std::vector<int64_t>& reps, const char* op) {
  if (reps.size() > size_t(kMaxRank))
    fail(ErrorKind::Value, op, "too many repetitions: " + std::to_string(reps.size()));
  Aligned a;
  a.rank = std::max(shape.rank(), int(reps.size()));
  for (int i = 0; i < a.rank; ++i) {
    int is = i - (a.rank - shape.rank()), ir = i - (a.rank - int(reps.size()));
    a.shape[i] = is >= 0 ? shape[is] : 1;
    a.reps[i] = ir >= 0 ? reps[ir] : 1;
    if (a.reps[i] < 0) fail(ErrorKind::Value, op, "repetitions must not be negative");
  }
  return a;
}

// Interleaved shapes [r0, s0, r1, s1, ...] (r omitted where it is 1): the
// tiled tensor is the source broadcast from [1, s0, 1, s1, ...] to these.
struct Interleaved {
  int64_t src[kMaxRank * 2], tiled[kMaxRank * 2], flat[kMaxRank];
  int rank = 0;
  std::vector<int64_t> rep_axes;
};

Interleaved interleave(const Aligned& a, const Shape& shape, const std::vector<int64_t>& reps, const char* op) {
  Interleaved v;
  // The repetitions and the source's dimensions together, bounded as Shape
  // bounds a shape (non-zero ones only): that bounds the tiled dimensions.
  int64_t count = 1;
  for (int i = 0; i < a.rank; ++i) {
    if (a.reps[i] != 1) {
      v.rep_axes.push_back(v.rank);
      v.src[v.rank] = 1, v.tiled[v.rank] = a.reps[i], ++v.rank;
    }
    v.src[v.rank] = a.shape[i], v.tiled[v.rank] = a.shape[i], ++v.rank;
    for (int64_t n : {a.reps[i], a.shape[i]})
      if (n != 0 && (__builtin_mul_overflow(count, n, &count) || count > kMaxElements))
        fail(ErrorKind::Value, op,
             "tiling shape " + shape.str() + " by " + dims_str(reps) + " gives too many elements");
  }
  for (int i = 0; i < a.rank; ++i) v.flat[i] = a.shape[i] * a.reps[i];
  if (v.rank > kMaxRank)
    fail(ErrorKind::Value, op, "tiling needs " + std::to_string(v.rank) + " dimensions, more than " +
                                   std::to_string(kMaxRank));
  return v;
}

}  // namespace

Tensor tile(const Tensor& t, const std::vector<int64_t>& reps) {
  const char* op = "tile";
  Aligned a = align(t.shape(), reps, op);
  Interleaved v = interleave(a, t.shape(), reps, op);
  Tensor tiled = broadcast_to(t.view_as(Shape(v.src, v.rank, op)), Shape(v.tiled, v.rank, op));
  if (tiled.storage() == t.storage()) tiled = to_device(tiled, t.device(), op);  // a tile is a new tensor
  return tiled.view_as(Shape(v.flat, a.rank, op));
}

Tensor tile_grad(const Tensor& x, const Shape& shape, const std::vector<int64_t>& reps) {
  const char* op = "TileGrad";
  Aligned a = align(shape, reps, op);
  Interleaved v = interleave(a, shape, reps, op);
  Shape tiled(v.tiled, v.rank, op);
  if (tiled.numel() != x.numel())
    fail(ErrorKind::Value, op, "gradient of shape " + x.shape().str() + " does not match " + shape.str() +
                                   " tiled " + std::to_string(reps.size()) + " ways");
  Tensor s = v.rep_axes.empty() ? to_device(x, x.device(), op) : sum(x.view_as(tiled), v.rep_axes, false);
  if (s.dtype() != x.dtype()) s = to_dtype(s, x.dtype(), false);
  return s.view_as(shape);
}

}  // namespace tramel
