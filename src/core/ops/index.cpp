// Indexing: selection by index texts, gather and scatter by coordinates,
// nonzero. The fronts parse and check everything on the host and hand the
// kernels (kernels/index.cpp) a plan (Note [index plans] in backend.h); they
// never read elements. Coordinates of a gather are read by a kernel of the
// processor, on the processor's copy of them.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "core/ops/front.h"

namespace tramel {
namespace {

// ---- index texts ----

// A stop that, with a negative step, stands for "past the low end".
constexpr int64_t kToLowEnd = 2147483646;

std::string quoted(const std::string& s) { return "'" + s + "'"; }

struct Field {
  const char* p;
  const char* e;
  bool empty() const { return p == e; }
};

Field trimmed(const char* p, const char* e) {
  while (p < e && (*p == ' ' || *p == '\t')) ++p;
  while (e > p && (e[-1] == ' ' || e[-1] == '\t')) --e;
  return {p, e};
}

// A decimal integer with an optional sign, fitting in int64.
bool parse_int(Field f, int64_t* out) {
  const char* p = f.p;
  bool negative = false;
  if (p < f.e && (*p == '+' || *p == '-')) negative = *p++ == '-';
  if (p == f.e) return false;
  uint64_t v = 0;
  for (; p < f.e; ++p) {
    if (*p < '0' || *p > '9') return false;
    if (v > (uint64_t(1) << 63) / 10) return false;
    v = v * 10 + uint64_t(*p - '0');
    if (v > (uint64_t(1) << 63)) return false;
  }
  if (!negative && v == (uint64_t(1) << 63)) return false;
  *out = negative ? int64_t(0 - v) : int64_t(v);
  return true;
}

// What one text picks on its axis.
struct Pick {
  enum Kind : uint8_t { Position, Range, List } kind;
  int64_t start, step, count;
  int64_t list_at;  // first of `count` positions in the selection's buffer
};

// The parsed index of one call: a pick per axis and the positions of the
// lists, kept inline while they are few.
class Selection {
 public:
  Selection(const char* op, const Shape& shape, const IndexTexts& texts) : op_(op), shape_(shape) {
    int ndim = shape.rank();
    if (texts.size() > size_t(ndim))
      fail(ErrorKind::Index, op, "too many indices for shape " + shape.str() + ": " + std::to_string(texts.size()) +
                                     " texts, the first extra is " + quoted(texts[size_t(ndim)]));
    for (int i = 0; i < ndim; ++i) {
      if (size_t(i) < texts.size()) parse(i, texts[size_t(i)]);
      else picks_[i] = Pick{Pick::Range, 0, 1, shape[i], 0};
    }
  }
  ~Selection() {
    if (buf_ != small_) delete[] buf_;
  }
  Selection(const Selection&) = delete;
  Selection& operator=(const Selection&) = delete;

  // The region's shape: the counts of the axes that are kept.
  Shape region() const {
    int64_t dims[kMaxRank];
    int rank = 0;
    for (int i = 0; i < shape_.rank(); ++i)
      if (picks_[i].kind != Pick::Position) dims[rank++] = picks_[i].count;
    return Shape(dims, rank, op_);
  }

  // The walk over the region; v_steps[r] is the other side's step along
  // region axis r. Turns the positions of the lists into element offsets, so
  // it is called once.
  RegionPlan plan(const int64_t* v_steps) {
    RegionPlan p;
    int64_t stride[kMaxRank], run = 1;
    for (int i = shape_.rank() - 1; i >= 0; --i) stride[i] = run, run *= shape_[i];
    p.numel = 1;
    int r = 0;
    for (int i = 0; i < shape_.rank(); ++i) {
      const Pick& k = picks_[i];
      if (k.kind == Pick::Position) {
        p.x_base += k.start * stride[i];
        continue;
      }
      int64_t vs = v_steps[r++];
      p.numel *= k.count;
      if (k.kind == Pick::Range) {
        p.x_base += k.count ? k.start * stride[i] : 0;
        // A step is used only where count > 1, when |step| < the axis' length.
        if (k.count > 1) push(p, RegionAxis{k.count, k.step * stride[i], nullptr, vs});
        continue;
      }
      int64_t* at = buf_ + k.list_at;
      for (int64_t t = 0; t < k.count; ++t) at[t] *= stride[i];
      if (k.count == 1) p.x_base += at[0];
      else if (k.count > 1) push(p, RegionAxis{k.count, 0, at, vs});
    }
    if (p.rank == 0) p.axes[p.rank++] = RegionAxis{1, 1, nullptr, 1};
    p.repeats = repeats_;
    return p;
  }

 private:
  // Appends an axis, merged into the last one where both sides stay
  // arithmetic across the two.
  static void push(RegionPlan& p, RegionAxis b) {
    if (p.rank > 0) {
      RegionAxis& a = p.axes[p.rank - 1];
      if (!a.x_offsets && !b.x_offsets && a.x_step == b.count * b.x_step && a.v_step == b.count * b.v_step) {
        a = RegionAxis{a.count * b.count, b.x_step, nullptr, b.v_step};
        return;
      }
    }
    p.axes[p.rank++] = b;
  }

  [[noreturn]] void malformed(int axis, const std::string& text, const char* why) const {
    fail(ErrorKind::Value, op_, "cannot read index text " + quoted(text) + " for axis " + std::to_string(axis) + ": " + why);
  }

  // A position on axis `axis`, wrapped, or the IndexError.
  int64_t position(int axis, int64_t v) const {
    int64_t size = shape_[axis];
    if (v < -size || v >= size)
      fail(ErrorKind::Index, op_, "index " + std::to_string(v) + " is out of bounds for axis " + std::to_string(axis) +
                                      " with size " + std::to_string(size));
    return v < 0 ? v + size : v;
  }

  void parse(int axis, const std::string& text) {
    const char* b = text.data();
    const char* e = b + text.size();
    Pick& k = picks_[axis];
    bool colon = false, comma = false;  // texts are short: one pass, no library call
    for (const char* p = b; p < e; ++p) colon |= *p == ':', comma |= *p == ',';
    if (colon) return parse_range(axis, text, k);
    Field all = trimmed(b, e);
    if (all.empty() || comma) return parse_list(axis, text, k);
    int64_t v = 0;
    size_t n = size_t(all.e - all.p);
    if (n == 4 && std::memcmp(all.p, "True", 4) == 0) v = 1;
    else if (n == 5 && std::memcmp(all.p, "False", 5) == 0) v = 0;
    else if (!parse_int(all, &v)) malformed(axis, text, "not a position, a range or a list of positions");
    k = Pick{Pick::Position, position(axis, v), 0, 1, 0};
  }

  // Python's slice rules.
  void parse_range(int axis, const std::string& text, Pick& k) {
    const char* b = text.data();
    const char* e = b + text.size();
    Field f[3];
    int fields = 0;
    for (const char* p = b;; ++p) {
      if (p == e || *p == ':') {
        if (fields == 3) malformed(axis, text, "a range has at most three fields");
        f[fields++] = trimmed(b, p);
        b = p + 1;
        if (p == e) break;
      }
    }
    int64_t v[3];
    bool given[3] = {};
    for (int i = 0; i < fields; ++i) {
      if (f[i].empty()) continue;
      if (!parse_int(f[i], &v[i])) malformed(axis, text, "range fields are integers or empty");
      given[i] = true;
    }
    int64_t step = given[2] ? v[2] : 1;
    if (step == 0) malformed(axis, text, "the step of a range cannot be zero");
    int64_t len = shape_[axis], start, stop;
    if (step > 0) {
      start = !given[0] ? 0 : v[0] < 0 ? std::max<int64_t>(v[0] + len, 0) : std::min(v[0], len);
      stop = !given[1] ? len : v[1] < 0 ? std::max<int64_t>(v[1] + len, 0) : std::min(v[1], len);
    } else {
      start = !given[0] ? len - 1 : v[0] < 0 ? std::max<int64_t>(v[0] + len, -1) : std::min(v[0], len - 1);
      stop = !given[1] || v[1] == kToLowEnd ? -1 : v[1] < 0 ? std::max<int64_t>(v[1] + len, -1) : std::min(v[1], len - 1);
    }
    uint64_t ustep = step < 0 ? uint64_t(0) - uint64_t(step) : uint64_t(step);
    uint64_t span = step > 0 ? (stop > start ? uint64_t(stop - start) : 0) : (start > stop ? uint64_t(start - stop) : 0);
    int64_t count = span ? int64_t((span - 1) / ustep + 1) : 0;
    k = Pick{Pick::Range, start, step, count, 0};
  }

  void parse_list(int axis, const std::string& text, Pick& k) {
    const char* b = text.data();
    const char* e = b + text.size();
    k = Pick{Pick::List, 0, 0, 0, int64_t(used_)};
    if (trimmed(b, e).empty()) return;
    for (const char* p = b;; ++p) {
      if (p == e || *p == ',') {
        Field f = trimmed(b, p);
        if (f.empty()) {
          if (p == e) break;  // the comma after the last position
          malformed(axis, text, "an empty position in a list");
        }
        int64_t v = 0;
        if (!parse_int(f, &v)) malformed(axis, text, "list entries are integers");
        append(position(axis, v));
        ++k.count;
        if (p == e) break;
        b = p + 1;
      }
    }
    repeats_ = repeats_ || has_repeats(buf_ + k.list_at, k.count);
  }

  static bool has_repeats(const int64_t* v, int64_t n) {
    if (n <= 32) {
      for (int64_t i = 1; i < n; ++i)
        for (int64_t j = 0; j < i; ++j)
          if (v[i] == v[j]) return true;
      return false;
    }
    std::vector<int64_t> sorted(v, v + n);
    std::sort(sorted.begin(), sorted.end());
    return std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
  }

  void append(int64_t v) {
    if (used_ == cap_) {
      size_t cap = cap_ * 2;
      int64_t* grown = new int64_t[cap];
      std::memcpy(grown, buf_, used_ * sizeof(int64_t));
      if (buf_ != small_) delete[] buf_;
      buf_ = grown, cap_ = cap;
    }
    buf_[used_++] = v;
  }

  const char* op_;
  const Shape& shape_;
  Pick picks_[kMaxRank];
  bool repeats_ = false;
  int64_t small_[32];
  int64_t* buf_ = small_;
  size_t used_ = 0, cap_ = 32;
};

// Row-major element steps of a dense tensor of `shape`.
void dense_steps(const Shape& shape, int64_t* steps) {
  int64_t run = 1;
  for (int i = shape.rank() - 1; i >= 0; --i) steps[i] = run, run *= shape[i];
}

// The steps of `value` broadcast to `region` by numpy's assignment rule:
// leading axes of length one dropped, then trailing axes aligned; a
// one-element value of any shape fills the region.
void broadcast_steps(const char* op, const Shape& value, const Shape& region, int64_t* steps) {
  int first = 0;
  while (first < value.rank() && value[first] == 1) ++first;
  int vr = value.rank() - first, rr = region.rank();
  bool fits = vr <= rr;
  for (int j = 0; fits && j < vr; ++j) {
    int64_t d = value[first + j];
    fits = d == 1 || d == region[rr - vr + j];
  }
  for (int r = 0; r < rr; ++r) steps[r] = 0;
  if (!fits) {
    if (value.numel() == 1) return;
    fail(ErrorKind::Value, op, "a value of shape " + value.str() + " cannot be broadcast to the selected region of shape " +
                                   region.str());
  }
  int64_t run = 1;
  for (int j = vr - 1; j >= 0; --j) {
    int64_t d = value[first + j];
    steps[rr - vr + j] = d == 1 ? 0 : run;
    run *= d;
  }
}

Tensor select_region(const char* op, const Tensor& x, const IndexTexts& index) {
  Selection sel(op, x.shape(), index);
  SelectKernel kernel = need(kernels_of(x).select, x, op);
  Shape region = sel.region();
  int64_t steps[kMaxRank];
  dense_steps(region, steps);
  RegionPlan plan = sel.plan(steps);
  Tensor out = Tensor::empty(region, x.dtype(), x.device(), op);
  if (plan.numel != 0) kernel(x, out, plan);
  return out;
}

// A value that is the target's own storage (x.set_select(["::-1"], x)) is
// copied first: the write would otherwise read elements it has overwritten.
const Tensor& unaliased(const char* op, const Tensor& value, const Tensor& x, Tensor& holder) {
  if (value.storage() != x.storage()) return value;
  holder = to_device(value, value.device(), op);
  return holder;
}

// The value of a set on the target's device: a processor value (a number
// assigned to an accelerator tensor) is copied there; any other device is refused.
const Tensor& on_device_of(const char* op, const Tensor& x, const Tensor& value, Tensor& holder) {
  if (value.device() == x.device()) return value;
  if (value.device() != kCpuDevice)
    fail(ErrorKind::Runtime, op, "value is on device " + std::to_string(value.device()) + ", the tensor on device " +
                                     std::to_string(x.device()));
  holder = to_device(value, x.device(), op);
  return holder;
}

}  // namespace

Tensor select(const Tensor& x, const IndexTexts& index) { return select_region("select", x, index); }

void set_select(Tensor& x, const IndexTexts& index, const Tensor& value_given) {
  const char* op = "set_select";
  Selection sel(op, x.shape(), index);
  SelectWriteKernel kernel = need(kernels_of(x).select_write, x, op);
  Tensor moved;
  const Tensor& value = on_device_of(op, x, value_given, moved);
  int64_t steps[kMaxRank];
  broadcast_steps(op, value.shape(), sel.region(), steps);
  RegionPlan plan = sel.plan(steps);
  if (plan.numel == 0) return;
  Tensor holder;
  const Tensor& v = unaliased(op, as_dtype(value, x.dtype(), holder), x, holder);
  x.make_storage_unique();
  kernel(x, v, plan, false);
}

Tensor select_bp(const Tensor& x, const IndexTexts& index, const Tensor& g) {
  const char* op = "select_bp";
  Selection sel(op, x.shape(), index);
  SelectWriteKernel kernel = need(kernels_of(g).select_write, g, op);
  ZeroKernel zero = need(kernels_of(g).zero, g, op);
  int64_t steps[kMaxRank];
  broadcast_steps(op, g.shape(), sel.region(), steps);
  RegionPlan plan = sel.plan(steps);
  Tensor out = Tensor::empty(x.shape(), g.dtype(), g.device(), op);
  if (out.numel() != 0) zero(out);
  // Positions named twice sum their gradients; elsewhere each element of the
  // region is written once.
  if (plan.numel != 0) kernel(out, g, plan, plan.repeats);
  return out;
}

Tensor set_select_bp(const Tensor& x, const IndexTexts& index, const Tensor& g) {
  const char* op = "set_select_bp";
  if (g.shape() != x.shape())
    fail(ErrorKind::Value, op, "the gradient's shape " + g.shape().str() + " is not the shape " + x.shape().str() +
                                   " of the tensor written");
  return select_region(op, g, index);
}

// ---- gather and scatter by coordinates ----

namespace {

std::string list_str(const std::vector<int64_t>& v) {
  std::string s = "[";
  for (size_t i = 0; i < v.size(); ++i) s += (i ? ", " : "") + std::to_string(v[i]);
  return s + "]";
}

// The description must be that of `target`, the tensor whose runs are read or
// written, and of `indices`; else a kernel would leave the buffers.
void check_runs_description(const char* op, const Shape& target, const GatherLayout& s, const Tensor& indices) {
  if (!is_integral(indices.dtype()))
    fail(ErrorKind::Type, op, std::string("indices must have an integer dtype, got ") + dtype_name(indices.dtype()));
  if (s.m < 1 || s.m > target.rank())
    fail(ErrorKind::Value, op, "m = " + std::to_string(s.m) + " leading axes do not fit shape " + target.str());
  if (s.mshape.size() != size_t(s.m) || s.strides.size() != size_t(s.m))
    fail(ErrorKind::Value, op, "mshape " + list_str(s.mshape) + " and strides " + list_str(s.strides) + " must have m = " +
                                   std::to_string(s.m) + " entries");
  int64_t steps[kMaxRank];
  dense_steps(target, steps);
  for (int j = 0; j < int(s.m); ++j) {
    if (s.mshape[size_t(j)] != target[j])
      fail(ErrorKind::Value, op, "mshape " + list_str(s.mshape) + " is not the leading part of shape " + target.str());
    if (s.strides[size_t(j)] != steps[j])
      fail(ErrorKind::Value, op, "strides " + list_str(s.strides) + " are not the element strides of shape " +
                                     target.str());
  }
  int64_t k = 1;
  for (int i = int(s.m); i < target.rank(); ++i) k *= target[i];
  if (s.k != k)
    fail(ErrorKind::Value, op, "k = " + std::to_string(s.k) + " is not the size " + std::to_string(k) +
                                   " of the axes after the first " + std::to_string(s.m) + " of shape " + target.str());
  int64_t count = 0;
  if (s.n < 0 || __builtin_mul_overflow(s.m, s.n, &count) || count != indices.numel())
    fail(ErrorKind::Value, op, "n = " + std::to_string(s.n) + " columns of m = " + std::to_string(s.m) +
                                   " coordinates do not match the " + std::to_string(indices.numel()) +
                                   " elements of the indices");
}

// n * k, the elements of the runs, checked against a shape's size.
// `what` names the tensor of `shape` in the message (formatted only on failure).
void check_runs(const char* op, const GatherLayout& s, const Shape& shape, const char* what) {
  int64_t total = 0, numel = shape.numel();
  if (__builtin_mul_overflow(s.n, s.k, &total) || total != numel)
    fail(ErrorKind::Value, op, std::string(what) + " of shape " + shape.str() + " has " + std::to_string(numel) + " elements, not n * k = " +
                                   std::to_string(s.n) + " * " + std::to_string(s.k));
}

// The element offset of each column's run, in a processor tensor, or the
// IndexError for the first coordinate out of range.
Tensor run_starts(const char* op, const GatherLayout& s, const Tensor& indices) {
  Tensor starts = Tensor::empty(Shape(&s.n, 1, op), DType::Int64, kCpuDevice, op);
  if (s.n == 0) return starts;
  Tensor on_host = indices.device() == kCpuDevice ? indices : to_device(indices, kCpuDevice, op);
  ResolveKernel kernel = need(kernels_of(on_host).index_resolve, on_host, op);
  int64_t bad = 0;
  int64_t at = kernel(on_host, s, starts.data<int64_t>(), &bad);
  if (at >= 0) {
    int64_t axis = at / s.n;
    fail(ErrorKind::Index, op, "index " + std::to_string(bad) + " is out of bounds for axis " + std::to_string(axis) +
                                   " with size " + std::to_string(s.mshape[size_t(axis)]));
  }
  return starts;
}

// Shape checks the rank and the element count.
Shape shape_of(const std::vector<int64_t>& dims, const char* op) { return Shape(dims.data(), int(dims.size()), op); }

Tensor gather(const char* op, const Tensor& src, const GatherLayout& runs, const Tensor& indices,
              const std::vector<int64_t>& oshape) {
  check_runs_description(op, src.shape(), runs, indices);
  Shape shape = shape_of(oshape, op);
  check_runs(op, runs, shape, "the result");
  GatherKernel kernel = need(kernels_of(src).gather, src, op);
  Tensor starts = run_starts(op, runs, indices);
  Tensor out = Tensor::empty(shape, src.dtype(), src.device(), op);
  if (out.numel() != 0) kernel(src, out, starts.data<int64_t>(), runs.n, runs.k);
  return out;
}

}  // namespace

Tensor adv_indexing(const Tensor& x, const GatherLayout& runs, const Tensor& indices, const std::vector<int64_t>& oshape) {
  return gather("adv_indexing", x, runs, indices, oshape);
}

Tensor set_adv_indexing_grad(const Tensor& g, const GatherLayout& runs, const Tensor& indices,
                             const std::vector<int64_t>& out_shape) {
  return gather("set_adv_indexing_grad", g, runs, indices, out_shape);
}

Tensor adv_indexing_grad(const Tensor& g, const GatherLayout& runs, const Tensor& indices,
                         const std::vector<int64_t>& input_shape) {
  const char* op = "adv_indexing_grad";
  Shape shape = shape_of(input_shape, op);
  check_runs_description(op, shape, runs, indices);
  check_runs(op, runs, g.shape(), "the gradient");
  ScatterKernel kernel = need(kernels_of(g).scatter, g, op);
  ZeroKernel zero = need(kernels_of(g).zero, g, op);
  Tensor starts = run_starts(op, runs, indices);
  Tensor out = Tensor::empty(shape, g.dtype(), g.device(), op);
  if (out.numel() != 0) zero(out);
  if (g.numel() != 0) kernel(out, g, starts.data<int64_t>(), runs.n, runs.k, true);
  return out;
}

void set_adv_indexing(Tensor& x, const GatherLayout& runs, const Tensor& indices, const Tensor& value_given) {
  const char* op = "set_adv_indexing";
  check_runs_description(op, x.shape(), runs, indices);
  Tensor moved;
  const Tensor& value = on_device_of(op, x, value_given, moved);
  if (value.numel() != 1) check_runs(op, runs, value.shape(), "the value");
  ScatterKernel kernel = need(kernels_of(x).scatter, x, op);
  Tensor starts = run_starts(op, runs, indices);
  if (runs.n == 0 || runs.k == 0) return;
  Tensor holder;
  const Tensor& v = unaliased(op, as_dtype(value, x.dtype(), holder), x, holder);
  x.make_storage_unique();
  kernel(x, v, starts.data<int64_t>(), runs.n, runs.k, false);
}

Tensor nonzero(const Tensor& x) {
  const char* op = "nonzero";
  CountKernel count = need(kernels_of(x).nonzero_count, x, op);
  NonzeroKernel kernel = need(kernels_of(x).nonzero, x, op);
  int64_t dims[2] = {x.ndim(), x.numel() ? count(x) : 0};
  Tensor out = Tensor::empty(Shape(dims, 2, op), DType::Int64, x.device(), op);
  if (out.numel() != 0) kernel(x, out);
  return out;
}

}  // namespace tramel
