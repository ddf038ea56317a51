// Generic element-wise loops over the functors of functors.h, and the operand
// checks every element-wise kernel shares. Included by kernel files only.
//
// Note [vector clones]
// Wheels must run on any x86-64, so the library is built without -march.
// Innermost loops are written once, as always-inline bodies (name_body), and
// TRAMEL_VECTORIZE(name) makes name(), which runs the body compiled for AVX2
// + FMA when the processor has both and the baseline body otherwise. The
// choice is made at run time (wide_vectors()); the loader's ifunc resolution
// of target_clones was seen to pick the baseline on processors that have
// AVX2, so it is not used.
#pragma once
#include <tuple>
#include <type_traits>
#include <utility>

#include "core/kernels/functors.h"
#include "core/ops.h"
#include "core/parallel.h"

#if defined(__x86_64__) && defined(__GNUC__) && !defined(TRAMEL_NO_CLONES)
#define TRAMEL_WIDE __attribute__((target("avx2,fma")))
#define TRAMEL_BODY inline __attribute__((always_inline))
#define TRAMEL_VECTORIZE(name)                                                             \
  template <typename... A>                                                                 \
  TRAMEL_WIDE auto name##_wide(A&&... a) {                                                 \
    return name##_body(std::forward<A>(a)...);                                             \
  }                                                                                        \
  template <typename... A>                                                                 \
  auto name(A&&... a) {                                                                    \
    return wide_vectors() ? name##_wide(std::forward<A>(a)...) : name##_body(std::forward<A>(a)...); \
  }
#else
#define TRAMEL_BODY inline
#define TRAMEL_VECTORIZE(name)                      \
  template <typename... A>                          \
  auto name(A&&... a) {                             \
    return name##_body(std::forward<A>(a)...);      \
  }
#endif

namespace tramel {
namespace {

template <typename T, typename> using same_t = T;

template <typename T> constexpr DType dtype_of() {
  if constexpr (std::is_same_v<T, bool>) return DType::Bool;
  else if constexpr (std::is_same_v<T, uint8_t>) return DType::UInt8;
  else if constexpr (std::is_same_v<T, int8_t>) return DType::Int8;
  else if constexpr (std::is_same_v<T, int16_t>) return DType::Int16;
  else if constexpr (std::is_same_v<T, int32_t>) return DType::Int32;
  else if constexpr (std::is_same_v<T, int64_t>) return DType::Int64;
  else if constexpr (std::is_same_v<T, float>) return DType::Float32;
  else if constexpr (std::is_same_v<T, double>) return DType::Float64;
  else if constexpr (std::is_same_v<T, c64>) return DType::Complex64;
  else return DType::Complex128;
}

// See Note [vector clones].
template <typename R, typename F, typename... In>
TRAMEL_BODY void map_loop_body(R* out, int64_t n, F f, const In*... in) {
  for (int64_t i = 0; i < n; ++i) out[i] = f(in[i]...);
}
TRAMEL_VECTORIZE(map_loop)

// One-input loop whose functor is fast only on part of the domain: blocks of
// the fast loop, each followed by a scalar pass over the block (still in L1)
// that recomputes the elements outside with libm.
template <typename R, typename F, typename In>
void map_fixup(R* out, int64_t n, const F& f, const In* in) {
  constexpr int64_t kBlock = 1024;
  for (int64_t b = 0; b < n; b += kBlock) {
    int64_t m = n - b < kBlock ? n - b : kBlock;
    map_loop(out + b, m, f, in + b);
    for (int64_t i = b; i < b + m; ++i)
      if (!F::fast_ok(in[i])) out[i] = F::exact(in[i]);
  }
}

// Whether F declares a fixup pass for element type T (see functors.h).
template <typename F, typename T, typename = void> struct fixup_of : std::false_type {};
template <typename F, typename T>
struct fixup_of<F, T, std::enable_if_t<F::template fixup<T>>> : std::true_type {};
template <typename F, typename... In> constexpr bool wants_fixup() {
  if constexpr (sizeof...(In) == 1) return fixup_of<F, In...>::value;
  else return false;
}

template <typename R, typename F, typename... In>
void map_parallel(R* out, int64_t n, const F& f, const In*... in) {
  parallel_for(n, kParallelGrain, [&](int64_t b, int64_t e) {
    if constexpr (wants_fixup<F, In...>()) map_fixup(out + b, e - b, f, (in + b)...);
    else map_loop(out + b, e - b, f, (in + b)...);
  });
}

// A binary functor with a fixed right operand.
template <typename F, typename T>
struct BindRight {
  F f;
  T b;
  TRAMEL_HD auto operator()(T a) const { return f(a, b); }
};

inline std::string device_pair(const Tensor& a, const Tensor& b) {
  return std::to_string(a.device()) + " and " + std::to_string(b.device());
}

// Operands of an element-wise kernel: one shape, one device, host memory.
inline void check_operands(const char* op, const Tensor& first) {
  require_host_addressable(first.device(), op);
}
template <typename... Rest>
void check_operands(const char* op, const Tensor& first, const Tensor& second, const Rest&... rest) {
  if (first.shape() != second.shape())
    fail(ErrorKind::Value, op, "shapes differ: " + first.shape().str() + " and " + second.shape().str());
  if (first.device() != second.device())
    fail(ErrorKind::Runtime, op, "tensors are on different devices: " + device_pair(first, second));
  check_operands(op, first, rest...);
}

// Converts the inputs to `compute`, dispatches on it over `Set`, and returns
// f applied element by element; the result's dtype is the functor's result type.
template <DTypeSet Set, typename F, typename... Ts>
Tensor map_tensors(const char* op, const F& f, DType compute, const Ts&... ins) {
  auto conv = std::make_tuple(to_dtype(ins, compute, false)...);
  const Tensor& first = std::get<0>(conv);
  Tensor out;
  dispatch<Set>(compute, op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    using R = std::decay_t<std::invoke_result_t<const F&, same_t<T, Ts>...>>;
    out = Tensor::empty(first.shape(), dtype_of<R>(), first.device(), op);
    R* o = out.template data<R>();
    int64_t n = out.numel();
    std::apply([&](const auto&... c) { map_parallel(o, n, f, c.template data<T>()...); }, conv);
  });
  return out;
}

// f(t[i], s) with the host number s converted to `compute`.
template <DTypeSet Set, typename F>
Tensor map_scalar(const char* op, const F& f, DType compute, const Tensor& t, const Scalar& s) {
  Tensor x = to_dtype(t, compute, false);
  Tensor out;
  dispatch<Set>(compute, op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    BindRight<F, T> g{f, s.to<T>()};
    using R = std::decay_t<decltype(g(T()))>;
    out = Tensor::empty(x.shape(), dtype_of<R>(), x.device(), op);
    map_parallel(out.template data<R>(), out.numel(), g, x.template data<T>());
  });
  return out;
}

// The dtype of t combined with a weak host number: the tensor's, unless the
// number is of a higher category (see ops.h).
inline DType weak_promote(DType t, const Scalar& s) {
  switch (s.kind) {
    case Scalar::Kind::Bool: return t;
    case Scalar::Kind::Int: return t == DType::Bool ? DType::Int64 : t;
    case Scalar::Kind::Float: return is_floating(t) || is_complex(t) ? t : default_dtype();
    case Scalar::Kind::Complex: break;
  }
  if (is_complex(t)) return t;
  if (t == DType::Float32) return DType::Complex64;
  if (t == DType::Float64) return DType::Complex128;
  return default_complex_dtype();
}

// Functions defined only on floating and complex numbers take integers and
// bools in the default floating dtype.
inline DType floating_compute(DType d) { return is_floating(d) || is_complex(d) ? d : default_dtype(); }

template <DTypeSet S> using SetC = std::integral_constant<DTypeSet, S>;

}  // namespace
}  // namespace tramel
