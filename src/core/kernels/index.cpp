// Host kernels of indexing: region copies along a plan, gathers and scatters
// of runs, the reading of coordinates, nonzero. Copies move elements as raw
// bits of their width; only sums look at values.
#include <algorithm>
#include <atomic>
#include <cstring>

#include "core/kernels/host_kernels.h"
#include "core/kernels/loops.h"
#include "core/parallel.h"

namespace tramel {
namespace {

// a += b as numpy's add.at forms it (integers wrap, bools or): the engine's own sum.
template <typename T>
inline void accumulate(T& a, T b) {
  a = fn::Add{}(a, b);
}

// ---- regions (Note [index plans]) ----

inline int64_t x_offset(const RegionAxis& a, int64_t i) { return a.x_offsets ? a.x_offsets[i] : i * a.x_step; }

// Calls run(x, v, t, len) for the pieces of the last axis that the region's
// flat positions [begin, end) cover: elements t .. t + len of that axis, the
// axis' element t being at x + offset(t) and v + t * v_step.
template <typename F>
void walk(const RegionPlan& p, int64_t begin, int64_t end, F&& run) {
  const RegionAxis* a = p.axes;
  int last = p.rank - 1;
  int64_t inner = a[last].count;
  int64_t idx[kMaxRank];
  int64_t rest = begin / inner, t = begin % inner;
  int64_t x = p.x_base, v = p.v_base;
  for (int j = last - 1; j >= 0; --j) {
    idx[j] = rest % a[j].count;
    rest /= a[j].count;
    x += x_offset(a[j], idx[j]);
    v += idx[j] * a[j].v_step;
  }
  for (int64_t pos = begin; pos < end;) {
    int64_t len = std::min(inner - t, end - pos);
    run(x, v, t, len);
    pos += len;
    t = 0;
    if (pos >= end) break;
    for (int j = last - 1; j >= 0; --j) {  // the odometer of the outer axes
      int64_t before = idx[j];
      x -= x_offset(a[j], before);
      v -= before * a[j].v_step;
      idx[j] = before + 1 < a[j].count ? before + 1 : 0;
      x += x_offset(a[j], idx[j]);
      v += idx[j] * a[j].v_step;
      if (idx[j] != 0) break;
    }
  }
}

// Runs body over the region's flat positions, on several threads when it is
// large and `serial` is false.
template <typename F>
void over_region(const RegionPlan& p, bool serial, F&& body) {
  if (serial) walk(p, 0, p.numel, body);
  else parallel_for(p.numel, kParallelGrain, [&](int64_t b, int64_t e) { walk(p, b, e, body); });
}

// Short runs are copied by a loop: a call to memcpy costs more than a few elements.
template <typename U>
inline void copy_run(U* d, const U* s, int64_t n) {
  if (n * int64_t(sizeof(U)) >= 64) std::memcpy(d, s, size_t(n) * sizeof(U));
  else
    for (int64_t i = 0; i < n; ++i) d[i] = s[i];
}

void select(const Tensor& x, Tensor& out, const RegionPlan& plan) {
  dispatch_bits(x.dtype(), "select", [&](auto tag) {
    using U = typename decltype(tag)::type;
    const U* src = static_cast<const U*>(x.raw());
    U* dst = static_cast<U*>(out.raw());
    const RegionAxis& in = plan.axes[plan.rank - 1];
    over_region(plan, false, [&](int64_t xo, int64_t vo, int64_t t, int64_t len) {
      U* d = dst + vo + t * in.v_step;
      if (in.x_offsets) {
        const U* s = src + xo;
        for (int64_t i = 0; i < len; ++i) d[i * in.v_step] = s[in.x_offsets[t + i]];
      } else if (in.x_step == 1 && in.v_step == 1) {
        copy_run(d, src + xo + t, len);
      } else if (in.v_step == 1) {
        const U* s = src + xo + t * in.x_step;
        int64_t step = in.x_step;
        for (int64_t i = 0; i < len; ++i) d[i] = s[i * step];
      } else {
        const U* s = src + xo + t * in.x_step;
        for (int64_t i = 0; i < len; ++i) d[i * in.v_step] = s[i * in.x_step];
      }
    });
  });
}

// Writes value into the region along the plan; with `accumulate`, adds.
template <typename U, bool Add>
void write_region(U* dst, const U* src, const RegionPlan& plan) {
  const RegionAxis& in = plan.axes[plan.rank - 1];
  auto put = [](U& d, U s) {
    if constexpr (Add) accumulate(d, s);
    else d = s;
  };
  over_region(plan, plan.repeats, [&](int64_t xo, int64_t vo, int64_t t, int64_t len) {
    const U* s = src + vo + t * in.v_step;
    if (in.x_offsets) {
      U* d = dst + xo;
      for (int64_t i = 0; i < len; ++i) put(d[in.x_offsets[t + i]], s[i * in.v_step]);
      return;
    }
    U* d = dst + xo + t * in.x_step;
    if constexpr (!Add) {
      if (in.x_step == 1 && in.v_step == 1) return copy_run(d, s, len);
      if (in.x_step == 1 && in.v_step == 0) return std::fill(d, d + len, *s);
      if (in.v_step == 1) {
        int64_t step = in.x_step;
        for (int64_t i = 0; i < len; ++i) d[i * step] = s[i];
        return;
      }
    }
    for (int64_t i = 0; i < len; ++i) put(d[i * in.x_step], s[i * in.v_step]);
  });
}

void select_write(Tensor& x, const Tensor& value, const RegionPlan& plan, bool accumulate) {
  const char* op = "set_select";
  if (accumulate) {
    dispatch<kAllTypes>(x.dtype(), op, [&](auto tag) {
      using T = typename decltype(tag)::type;
      write_region<T, true>(x.data<T>(), value.data<T>(), plan);
    });
    return;
  }
  dispatch_bits(x.dtype(), op, [&](auto tag) {
    using U = typename decltype(tag)::type;
    write_region<U, false>(static_cast<U*>(x.raw()), static_cast<const U*>(value.raw()), plan);
  });
}

// ---- coordinates ----

int64_t index_resolve(const Tensor& indices, const GatherLayout& s, int64_t* starts, int64_t* bad) {
  int64_t n = s.n;
  std::atomic<int64_t> first{INT64_MAX};
  int64_t found = -1;
  dispatch<kIntegralTypes>(indices.dtype(), "adv_indexing", [&](auto tag) {
    using I = typename decltype(tag)::type;
    const I* idx = indices.data<I>();
    parallel_for(n, kParallelGrain, [&](int64_t b, int64_t e) {
      // Branch-free (and vectorised) over each row; the first bad coordinate
      // of the block is looked for only when there is one.
      for (int64_t j = 0; j < s.m; ++j) {
        const I* row = idx + j * n;
        int64_t size = s.mshape[size_t(j)], stride = s.strides[size_t(j)];
        bool row_ok = true;
        if (j == 0) {
          for (int64_t c = b; c < e; ++c) {
            int64_t v = int64_t(row[c]);
            v += v < 0 ? size : 0;
            row_ok &= uint64_t(v) < uint64_t(size);
            // Unsigned: a bad coordinate's start may wrap; it is never used.
            starts[c] = int64_t(uint64_t(v) * uint64_t(stride));
          }
        } else {
          for (int64_t c = b; c < e; ++c) {
            int64_t v = int64_t(row[c]);
            v += v < 0 ? size : 0;
            row_ok &= uint64_t(v) < uint64_t(size);
            starts[c] = int64_t(uint64_t(starts[c]) + uint64_t(v) * uint64_t(stride));
          }
        }
        if (!row_ok) {
          for (int64_t c = b; c < e; ++c) {
            int64_t v = int64_t(row[c]);
            if (v < -size || v >= size) {
              int64_t at = j * n + c, cur = first.load();
              while (at < cur && !first.compare_exchange_weak(cur, at)) {}
              break;
            }
          }
          break;
        }
      }
    });
    int64_t at = first.load();
    if (at != INT64_MAX) {
      found = at;
      *bad = int64_t(idx[at]);
    }
  });
  return found;
}

// ---- runs ----

// Elements ahead of the current one whose source is fetched early: random
// reads from a large source otherwise wait for memory one at a time.
constexpr int64_t kPrefetch = 16;

void gather(const Tensor& src, Tensor& out, const int64_t* starts, int64_t n, int64_t k) {
  dispatch_bits(src.dtype(), "adv_indexing", [&](auto tag) {
    using U = typename decltype(tag)::type;
    const U* s = static_cast<const U*>(src.raw());
    U* d = static_cast<U*>(out.raw());
    parallel_for(n, std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(k, 1)), [&](int64_t b, int64_t e) {
      if (k == 1) {
        int64_t ahead = std::min(e, b + kPrefetch);
        for (int64_t c = b; c < e; ++c, ++ahead) {
          if (ahead < e) __builtin_prefetch(s + starts[ahead]);
          d[c] = s[starts[c]];
        }
        return;
      }
      for (int64_t c = b; c < e; ++c) copy_run(d + c * k, s + starts[c], k);
    });
  });
}

// The parts of dst's runs within elements [lo, hi), from src, in column
// order; a one-element src fills them.
template <typename U, bool Add>
void scatter_runs(U* dst, const U* src, bool fill, const int64_t* starts, int64_t n, int64_t k, int64_t lo,
                  int64_t hi) {
  if (k == 1 && !fill) {  // single elements: random writes, fetched ahead
    for (int64_t c = 0; c < n; ++c) {
      if (c + kPrefetch < n) {
        int64_t ahead = starts[c + kPrefetch];
        if (ahead >= lo && ahead < hi) __builtin_prefetch(dst + ahead, 1);
      }
      int64_t at = starts[c];
      if (at < lo || at >= hi) continue;
      if constexpr (Add) accumulate(dst[at], src[c]);
      else dst[at] = src[c];
    }
    return;
  }
  for (int64_t c = 0; c < n; ++c) {
    int64_t at = starts[c], a = std::max(at, lo), z = std::min(at + k, hi);
    if (a >= z) continue;
    U* d = dst + a;
    const U* s = src + (fill ? 0 : c * k + (a - at));
    int64_t len = z - a;
    if constexpr (Add) {
      if (fill)
        for (int64_t i = 0; i < len; ++i) accumulate(d[i], s[0]);
      else
        for (int64_t i = 0; i < len; ++i) accumulate(d[i], s[i]);
    } else {
      if (fill) std::fill(d, d + len, s[0]);
      else copy_run(d, s, len);
    }
  }
}

// Every destination element is written by one thread, which sees the runs in
// column order: the destination is split across threads and each thread
// scans all columns for the parts of runs in its own range. The last write
// and the order of every sum are those of one thread, so the bits do not
// depend on the number of threads.
template <typename U, bool Add>
void scatter_typed(Tensor& dst, const Tensor& src, const int64_t* starts, int64_t n, int64_t k) {
  U* d = static_cast<U*>(dst.raw());
  const U* s = static_cast<const U*>(src.raw());
  bool fill = src.numel() == 1 && n * k != 1;
  if (n * k <= kParallelGrain) return scatter_runs<U, Add>(d, s, fill, starts, n, k, 0, dst.numel());
  parallel_for(dst.numel(), 0, [&](int64_t b, int64_t e) { scatter_runs<U, Add>(d, s, fill, starts, n, k, b, e); });
}

void scatter(Tensor& dst, const Tensor& src, const int64_t* starts, int64_t n, int64_t k, bool accumulate) {
  if (accumulate) {
    dispatch<kAllTypes>(dst.dtype(), "adv_indexing_grad", [&](auto tag) {
      scatter_typed<typename decltype(tag)::type, true>(dst, src, starts, n, k);
    });
    return;
  }
  dispatch_bits(dst.dtype(), "set_adv_indexing", [&](auto tag) {
    scatter_typed<typename decltype(tag)::type, false>(dst, src, starts, n, k);
  });
}

// ---- nonzero ----

template <typename T>
inline bool is_set(T v) {
  return v != T(0);
}

template <typename T>
int64_t count_set(const T* x, int64_t b, int64_t e) {
  int64_t count = 0;
  for (int64_t i = b; i < e; ++i) count += is_set(x[i]);
  return count;
}

int64_t nonzero_count(const Tensor& t) {
  int64_t total = 0;
  dispatch<kAllTypes>(t.dtype(), "nonzero", [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* x = t.data<T>();
    std::atomic<int64_t> sum{0};
    parallel_for(t.numel(), kParallelGrain, [&](int64_t b, int64_t e) { sum += count_set(x, b, e); });
    total = sum.load();
  });
  return total;
}

// Writes the coordinates of the nonzero elements among flat positions
// [fb, fe), which are numbers [w, w_end) of all `count`.
template <typename T>
void write_coordinates(const T* x, const Shape& shape, int64_t fb, int64_t fe, int64_t w, int64_t w_end, int64_t* out,
                       int64_t count) {
  int nd = shape.rank();
  int64_t inner = shape[nd - 1];
  int64_t coord[kMaxRank] = {};
  int64_t rest = fb / inner, t = fb % inner;
  for (int j = nd - 2; j >= 0; --j) coord[j] = rest % shape[j], rest /= shape[j];
  int64_t* last = out + (nd - 1) * count;
  for (int64_t pos = fb; pos < fe;) {
    int64_t len = std::min(inner - t, fe - pos);
    const T* row = x + pos - t;
    // Branch-free: every element writes its position, and only a nonzero one
    // advances w (a random mask would mispredict half of the branches); past
    // this block's last slot it writes to scratch, not into the next block's.
    int64_t row_first = w, scratch;
    for (int64_t i = t; i < t + len; ++i) {
      int64_t* slot = w < w_end ? last + w : &scratch;
      *slot = i;
      w += is_set(row[i]);
    }
    for (int j = 0; j < nd - 1; ++j) std::fill(out + j * count + row_first, out + j * count + w, coord[j]);
    pos += len;
    t = 0;
    for (int j = nd - 2; j >= 0; --j) {
      if (++coord[j] < shape[j]) break;
      coord[j] = 0;
    }
  }
}

void nonzero(const Tensor& t, Tensor& out) {
  const Shape& shape = t.shape();
  int64_t count = out.shape()[1], numel = t.numel();
  dispatch<kAllTypes>(t.dtype(), "nonzero", [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* x = t.data<T>();
    int64_t* o = out.data<int64_t>();
    if (numel <= kParallelGrain || get_num_threads() == 1) return write_coordinates(x, shape, 0, numel, 0, count, o, count);
    // Blocks of elements: count each, then each writes from its offset.
    constexpr int64_t blocks = 64;
    int64_t first[blocks + 1] = {};
    auto edge = [&](int64_t blk) { return numel / blocks * blk + std::min(blk, numel % blocks); };
    parallel_for(blocks, 1, [&](int64_t b, int64_t e) {
      for (int64_t blk = b; blk < e; ++blk) first[blk + 1] = count_set(x, edge(blk), edge(blk + 1));
    });
    for (int64_t blk = 0; blk < blocks; ++blk) first[blk + 1] += first[blk];
    parallel_for(blocks, 1, [&](int64_t b, int64_t e) {
      for (int64_t blk = b; blk < e; ++blk) write_coordinates(x, shape, edge(blk), edge(blk + 1), first[blk], first[blk + 1], o, count);
    });
  });
}

}  // namespace

void add_index_kernels(Kernels& k) {
  k.select = select;
  k.select_write = select_write;
  k.index_resolve = index_resolve;
  k.gather = gather;
  k.scatter = scatter;
  k.nonzero_count = nonzero_count;
  k.nonzero = nonzero;
}

}  // namespace tramel
