// Host kernels of the one-input maths and of the element-wise gradients.
#include <tuple>

#include "core/kernels/loops.h"

namespace tramel {
namespace {

// In the order of UnaryOp and GradOp.
using UnaryFunctors =
    std::tuple<fn::Neg, fn::Abs, fn::Square, fn::Sqrt, fn::Exp, fn::Log, fn::Sin, fn::Cos, fn::Tan, fn::Asin, fn::Acos,
               fn::Atan, fn::Sinh, fn::Cosh, fn::Tanh, fn::Sign, fn::Conj, fn::Floor, fn::Ceil, fn::Round,
               fn::Reciprocal>;
using GradFunctors =
    std::tuple<fn::MultGrad, fn::DivDxGrad, fn::DivDyGrad, fn::PowBaseGrad, fn::PowExpGrad, fn::ExpGrad, fn::LogGrad,
               fn::SquareGrad, fn::TanhGrad, fn::AsinGrad, fn::AcosGrad, fn::AtanGrad, fn::SqrtGrad, fn::TanGrad>;
static_assert(std::tuple_size_v<UnaryFunctors> == kUnaryOps);
static_assert(std::tuple_size_v<GradFunctors> == kGradOps);

template <size_t I>
void unary(const Tensor& x, Tensor& out) {
  using F = std::tuple_element_t<I, UnaryFunctors>;
  dispatch<kUnaryInfo[I].types>(x.dtype(), kUnaryInfo[I].name,
                                [&](auto tag) { map_tensors<typename decltype(tag)::type>(out, F{}, x); });
}

template <typename T, typename F, size_t... J>
void map_inputs(Tensor& out, const F& f, const Tensor* const* ins, std::index_sequence<J...>) {
  map_tensors<T>(out, f, *ins[J]...);
}

template <size_t I>
void gradient(const Tensor* const* ins, Tensor& out) {
  using F = std::tuple_element_t<I, GradFunctors>;
  dispatch<kInexactTypes>(out.dtype(), kGradInfo[I].name, [&](auto tag) {
    map_inputs<typename decltype(tag)::type>(out, F{}, ins, std::make_index_sequence<kGradInfo[I].arity>{});
  });
}

template <size_t... I>
void add_unary(Kernels& k, std::index_sequence<I...>) {
  ((k.unary[I] = unary<I>), ...);
}

template <size_t... I>
void add_gradient(Kernels& k, std::index_sequence<I...>) {
  ((k.gradient[I] = gradient<I>), ...);
}

}  // namespace

void add_unary_kernels(Kernels& k) {
  add_unary(k, std::make_index_sequence<kUnaryOps>{});
  add_gradient(k, std::make_index_sequence<kGradOps>{});
}

}  // namespace tramel
