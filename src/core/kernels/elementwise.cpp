// Host kernels of the two-operand element-wise operations: arithmetic,
// comparison and logic, classification, clamping. Operands have one shape
// and the dtype the front chose.
#include <tuple>

#include "core/kernels/loops.h"

namespace tramel {
namespace {

// In the order of BinaryOp, CompareOp and ClassifyOp.
using BinaryFunctors = std::tuple<fn::Add, fn::Sub, fn::Mul, fn::Div, fn::Pow, fn::Maximum, fn::Minimum>;
using CompareFunctors = std::tuple<fn::Equal, fn::NotEqual, fn::Greater, fn::GreaterEqual, fn::Less, fn::LessEqual,
                                   fn::And, fn::Or, fn::Xor>;
using ClassifyFunctors = std::tuple<fn::IsFinite, fn::IsInf, fn::IsNan, fn::IsNegInf, fn::IsPosInf>;
static_assert(std::tuple_size_v<BinaryFunctors> == kBinaryOps);
static_assert(std::tuple_size_v<CompareFunctors> == kCompareOps);
static_assert(std::tuple_size_v<ClassifyFunctors> == kClassifyOps);

template <typename F, DTypeSet Set>
void map2(const Tensor& a, const Tensor& b, Tensor& out, const char* op) {
  dispatch<Set>(a.dtype(), op, [&](auto tag) { map_tensors<typename decltype(tag)::type>(out, F{}, a, b); });
}

template <typename F, DTypeSet Set>
void map2_scalar(const Tensor& a, const Scalar& s, Tensor& out, const char* op) {
  dispatch<Set>(a.dtype(), op, [&](auto tag) {
    using T = typename decltype(tag)::type;
    map_tensors<T>(out, BindRight<F, T>{F{}, s.to<T>()}, a);
  });
}

template <size_t I>
void binary(const Tensor& a, const Tensor& b, Tensor& out) {
  map2<std::tuple_element_t<I, BinaryFunctors>, kBinaryInfo[I].types>(a, b, out, kBinaryInfo[I].name);
}

template <size_t I>
void binary_scalar(const Tensor& a, const Scalar& s, Tensor& out) {
  map2_scalar<std::tuple_element_t<I, BinaryFunctors>, kBinaryInfo[I].types>(a, s, out, kBinaryInfo[I].name);
}

template <size_t I>
void binary_inplace(Tensor& a, const Tensor& b) {
  using F = std::tuple_element_t<I, BinaryFunctors>;
  dispatch<kBinaryInfo[I].types>(a.dtype(), kBinaryInfo[I].inplace_name, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* x = a.data<T>();
    map_parallel(x, a.numel(), F{}, static_cast<const T*>(x), b.data<T>());
  });
}

template <size_t I>
void binary_scalar_inplace(Tensor& a, const Scalar& s) {
  using F = std::tuple_element_t<I, BinaryFunctors>;
  dispatch<kBinaryInfo[I].types>(a.dtype(), kBinaryInfo[I].inplace_name, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* x = a.data<T>();
    map_parallel(x, a.numel(), BindRight<F, T>{F{}, s.to<T>()}, static_cast<const T*>(x));
  });
}

template <size_t I>
void compare(const Tensor& a, const Tensor& b, Tensor& out) {
  map2<std::tuple_element_t<I, CompareFunctors>, kCompareInfo[I].types>(a, b, out, kCompareInfo[I].name);
}

template <size_t I>
void compare_scalar(const Tensor& a, const Scalar& s, Tensor& out) {
  map2_scalar<std::tuple_element_t<I, CompareFunctors>, kCompareInfo[I].types>(a, s, out, kCompareInfo[I].name);
}

template <size_t I>
void classify(const Tensor& x, Tensor& out) {
  using F = std::tuple_element_t<I, ClassifyFunctors>;
  dispatch<kClassifyInfo[I].types>(x.dtype(), kClassifyInfo[I].name,
                                   [&](auto tag) { map_tensors<typename decltype(tag)::type>(out, F{}, x); });
}

void logical_not(const Tensor& x, Tensor& out) {
  dispatch<kAllTypes>(x.dtype(), "logical_not",
                      [&](auto tag) { map_tensors<typename decltype(tag)::type>(out, fn::Not{}, x); });
}

// Bounds for element type T; integers saturate, so clamp(int8, -1e9, 1e9) is a copy.
template <typename T>
T bound(double v) {
  if constexpr (std::is_integral_v<T>) {
    if (!(v > double(std::numeric_limits<T>::lowest()))) return v != v ? T(0) : std::numeric_limits<T>::lowest();
    if (v >= double(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
  }
  return T(v);
}

void clamp(const Tensor& x, double low, double high, Tensor& out) {
  dispatch<kRealNumericTypes>(x.dtype(), "clamp", [&](auto tag) {
    using T = typename decltype(tag)::type;
    map_parallel(out.data<T>(), out.numel(), fn::Clamp<T>{bound<T>(low), bound<T>(high)}, x.data<T>());
  });
}

void clamp_grad(const Tensor& x, const Tensor& g, double low, double high, Tensor& out) {
  dispatch<kRealNumericTypes>(x.dtype(), "clamp_grad", [&](auto tag) {
    using T = typename decltype(tag)::type;
    map_parallel(out.data<T>(), out.numel(), fn::ClampGrad<T>{bound<T>(low), bound<T>(high)}, x.data<T>(),
                 g.data<T>());
  });
}

template <size_t... I>
void add_binary(Kernels& k, std::index_sequence<I...>) {
  ((k.binary[I] = binary<I>, k.binary_scalar[I] = binary_scalar<I>, k.binary_inplace[I] = binary_inplace<I>,
    k.binary_scalar_inplace[I] = binary_scalar_inplace<I>),
   ...);
}

template <size_t... I>
void add_compare(Kernels& k, std::index_sequence<I...>) {
  ((k.compare[I] = compare<I>, k.compare_scalar[I] = compare_scalar<I>), ...);
}

template <size_t... I>
void add_classify(Kernels& k, std::index_sequence<I...>) {
  ((k.classify[I] = classify<I>), ...);
}

}  // namespace

void add_elementwise_kernels(Kernels& k) {
  add_binary(k, std::make_index_sequence<kBinaryOps>{});
  add_compare(k, std::make_index_sequence<kCompareOps>{});
  add_classify(k, std::make_index_sequence<kClassifyOps>{});
  k.logical_not = logical_not;
  k.clamp = clamp;
  k.clamp_grad = clamp_grad;
}

}  // namespace tramel
