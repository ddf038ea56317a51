// Generic element-wise loops over the functors of functors.h. Included by
// kernel files only.
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
#include "core/kernels/host_kernels.h"
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

// Element copies move raw bits: an unsigned type as wide as the element
// (complex128 as two words).
struct Bits16 {
  uint64_t lo, hi;
};
template <size_t N>
using bits_t = std::conditional_t<
    N == 1, uint8_t,
    std::conditional_t<N == 2, uint16_t, std::conditional_t<N == 4, uint32_t, std::conditional_t<N == 8, uint64_t, Bits16>>>>;

// Calls fn(TypeTag<U>{}) with U the bits type as wide as dtype's elements.
template <typename F>
void dispatch_bits(DType dtype, const char* op, F&& fn) {
  dispatch<kAllTypes>(dtype, op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    fn(TypeTag<bits_t<sizeof(T)>>{});
  });
}

template <typename T, typename> using same_t = T;

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

// out[i] = f(ins[i]...), the inputs read as T and out as f's result type;
// the front allocated out with that type's dtype.
template <typename T, typename F, typename... Ts>
void map_tensors(Tensor& out, const F& f, const Ts&... ins) {
  using R = std::decay_t<std::invoke_result_t<const F&, same_t<T, Ts>...>>;
  map_parallel(out.template data<R>(), out.numel(), f, ins.template data<T>()...);
}

}  // namespace
}  // namespace tramel
