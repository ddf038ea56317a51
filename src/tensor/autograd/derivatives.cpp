// The derivatives of every built-in operator, one row per operator: for each
// input, what the formula reads when it runs and the formula itself. The
// incoming gradient is g; d.input(k) is the engine tensor of input k, read
// when the formula runs; d.result() is the forward result; d.own_grad() the
// grad of the edge's own input. Complex gradients follow the conjugate
// convention of the engine's gradient kernels (Note [conjugate convention]).
// See Note [derivatives table] in derivative.h.
#include <cstring>
#include <stdexcept>

#include "tensor/indexing/indexing.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

using D = const Derivative&;
using G = const Tensor&;

constexpr uint8_t kInputs = kSavesInputs;
constexpr uint8_t kResult = kSavesResult;
constexpr uint8_t kBoth = kSavesInputs | kSavesResult;
constexpr Gradient kNone = {kSavesNothing, nullptr};

// Gradients of two-operand operators end reduced to the operand's own shape
// and grad dtype (they may have been broadcast).
Tensor reduced(G g, D d) { return unbroadcast(d.own_grad(), g); }
std::vector<int64_t> dims_of(const Shape& s) { return std::vector<int64_t>(s.begin(), s.end()); }
Tensor zeros_of_input(G, D d) { return zeros_shaped_like(d.input(0)); }
Tensor back_to_input_shape(G g, D d) { return reshape(g, d.input(0).shape()); }
// Operand Me of maximum/minimum gets g where it alone won, half of it at a tie.
template <int Me>
Tensor extremum_share(G g, D d) {
  return reduced(binary(BinaryOp::Mul, g, selection_weights(d.input(Me), d.result(), d.input(1 - Me), g.dtype())), d);
}
// Products on the last two axes: g conj(b)^T for a, conj(a)^T g for b; the
// conjugate transposes enter the product as flags, not as copies.
using Product = Tensor (*)(const Tensor&, const Tensor&, OperandForm, OperandForm);
template <Product F> Tensor product_grad_a(G g, D d) { return F(g, d.input(1), OperandForm::AsIs, OperandForm::Adjoint); }
template <Product F> Tensor product_grad_b(G g, D d) { return F(d.input(0), g, OperandForm::Adjoint, OperandForm::AsIs); }
template <Product F> constexpr Derivatives product_row(const char* op) {
  return {op, {{kInputs, product_grad_a<F>}, {kInputs, product_grad_b<F>}}};
}
Tensor times_conj_of(UnaryOp f, G g, const Tensor& x) { return binary(BinaryOp::Mul, g, unary(UnaryOp::Conj, unary(f, x))); }

const Derivatives kDerivatives[] = {
    // ---- arithmetic; every gradient then reduced to its operand's shape ----
    {"add", {{kSavesNothing, reduced}, {kSavesNothing, reduced}}},
    {"sub", {{kSavesNothing, reduced}, {kSavesNothing, [](G g, D d) { return reduced(unary(UnaryOp::Neg, g), d); }}}},
    {"mul", {{kInputs, [](G g, D d) { return reduced(mult_grad(g, d.input(1)), d); }},
             {kInputs, [](G g, D d) { return reduced(mult_grad(g, d.input(0)), d); }}}},
    {"divide", {{kInputs, [](G g, D d) { return reduced(div_dxgrad(g, d.input(1)), d); }},
                {kBoth, [](G g, D d) { return reduced(div_dygrad(g, d.result(), d.input(1)), d); }}}},
    {"accumulate", {{kSavesNothing, reduced}}},
    {"broadcast", {{kSavesNothing, reduced}}},
    {"broadcast_to", {{kSavesNothing, reduced}}},
    {"power", {{kBoth, [](G g, D d) { return reduced(power_grad_of_base(g, d.input(0), d.input(1)), d); }},
               {kBoth, [](G g, D d) { return reduced(power_grad_of_exp(g, d.input(0), d.input(1), d.result()), d); }}}},
    {"maximum", {{kBoth, extremum_share<0>}, {kBoth, extremum_share<1>}}},
    {"minimum", {{kBoth, extremum_share<0>}, {kBoth, extremum_share<1>}}},
    {"clip", {{kInputs, [](G g, D d) { return clamp_grad(d.input(0), g, d.bounds[0], d.bounds[1]); }}}},
    {"astype", {{kInputs, [](G g, D d) { return to_dtype(g, d.input(0).dtype(), true); }}}},

    // ---- matrix products ----
    product_row<mult2D>("helper_function_matmul2d"),
    product_row<bmm>("helper_function_bmm"),
    product_row<matmul>("helper_function_matmul4d"),

    // ---- one-input functions ----
    {"floor", {kNone}},  // no edge: the result is a leaf
    {"ceil", {{kInputs, [](G g, D) { return zeros_shaped_like(g); }}}},
    {"round", {{kInputs, [](G g, D) { return zeros_shaped_like(g); }}}},
    {"sign", {{kInputs, [](G g, D) { return zeros_shaped_like(g); }}}},
    {"neg", {{kInputs, [](G g, D) { return unary(UnaryOp::Neg, g); }}}},
    {"reciprocal", {{kBoth, [](G g, D d) { return div_dygrad(g, d.result(), d.input(0)); }}}},
    {"abs", {{kInputs, [](G g, D d) { return binary(BinaryOp::Mul, g, unary(UnaryOp::Sign, d.input(0))); }}}},
    {"square", {{kInputs, [](G g, D d) { return square_grad(g, d.input(0)); }}}},
    {"sqrt", {{kResult, [](G g, D d) { return sqrt_grad(d.result(), g); }}}},
    {"exp", {{kResult, [](G g, D d) { return exp_grad(g, d.result()); }}}},
    {"log", {{kInputs, [](G g, D d) { return log_grad(g, d.input(0)); }}}},
    {"sin", {{kInputs, [](G g, D d) { return times_conj_of(UnaryOp::Cos, g, d.input(0)); }}}},
    {"cos", {{kInputs, [](G g, D d) { return times_conj_of(UnaryOp::Sin, unary(UnaryOp::Neg, g), d.input(0)); }}}},
    {"tan", {{kResult, [](G g, D d) { return tan_grad(d.result(), g); }}}},
    {"asin", {{kInputs, [](G g, D d) { return asin_grad(g, d.input(0)); }}}},
    {"acos", {{kInputs, [](G g, D d) { return acos_grad(g, d.input(0)); }}}},
    {"atan", {{kInputs, [](G g, D d) { return atan_grad(g, d.input(0)); }}}},
    {"sinh", {{kInputs, [](G g, D d) { return times_conj_of(UnaryOp::Cosh, g, d.input(0)); }}}},
    {"cosh", {{kInputs, [](G g, D d) { return times_conj_of(UnaryOp::Sinh, g, d.input(0)); }}}},
    {"tanh", {{kResult, [](G g, D d) { return tanh_grad(g, d.result()); }}}},
    {"log_softmax", {{kResult, [](G g, D d) { return log_softmax_grad(g, d.result(), d.axes[0]); }}}},
    // Float classes carry zeros of the input's shape, so a backward pass reaches it.
    {"isfinite", {{kInputs, zeros_of_input}}},
    {"isinf", {{kInputs, zeros_of_input}}},
    {"isnan", {{kInputs, zeros_of_input}}},
    {"isneginf", {{kInputs, zeros_of_input}}},
    {"isposinf", {{kInputs, zeros_of_input}}},

    // ---- reductions; axes empty: over all elements ----
    {"sums", {{kInputs, [](G g, D d) { return sum_all_grad(g, d.input(0).shape()); }}}},
    {"sums along axes", {{kInputs, [](G g, D d) { return expand_reduced(g, d.input(0).shape(), d.axes); }}}},
    {"mean", {{kInputs, [](G g, D d) {
                 if (d.axes.empty()) return mean_all_grad(g, d.input(0).shape());
                 const Shape& shape = d.input(0).shape();
                 Tensor expanded = expand_reduced(g, shape, d.axes);
                 binary_(BinaryOp::Div, expanded, Scalar::from_int(shape[int(maybe_wrap_dim(d.axes[0], shape.rank()))]));
                 return expanded;
               }}}},
    {"min", {{kBoth, [](G g, D d) { return min_max_grad(g, d.input(0), d.result(), d.axes); }}}},
    {"max", {{kBoth, [](G g, D d) { return min_max_grad(g, d.input(0), d.result(), d.axes); }}}},
    {"std", {{kBoth, [](G g, D d) { return std_grad(g, d.input_object(0), d.result(), d.axes, d.unbiased); }}}},
    {"var", {{kInputs, [](G g, D d) { return var_grad(g, d.input_object(0), d.axes, d.unbiased); }}}},
    {"cumsum", {{kSavesNothing, [](G g, D d) { return cumsum_grad(g, d.axes[0]); }}}},

    // ---- shape changes: each undoes its rearrangement ----
    {"reshape", {{kInputs, back_to_input_shape}}},
    {"flatten", {{kInputs, back_to_input_shape}}},
    {"squeeze", {{kInputs, back_to_input_shape}}},
    {"unsqueeze", {{kSavesNothing, [](G g, D d) { return squeeze(g, d.axes.vector()); }}}},
    {"swapaxis", {{kSavesNothing, [](G g, D d) { return swapaxis(g, d.axes[0], d.axes[1]); }}}},
    {"transpose", {{kSavesNothing, [](G g, D d) { return transpose(g, inverse_permutation(d.axes)); }}}},
    {"tile", {{kInputs, [](G g, D d) { return tile_grad(g, d.input(0).shape(), d.axes.vector()); }}}},
    {"flip", {{kSavesNothing, [](G g, D d) { return flip(g, d.axes.vector()); }}}},

    // ---- matrix parts; triu, tril and trace keep their diagonal in axes[0] ----
    {"kron", {{kInputs, [](G g, D d) { return kron_grad_a(g, d.input(0), d.input(1)); }},
              {kInputs, [](G g, D d) { return kron_grad_b(g, d.input(0), d.input(1)); }}}},
    {"triu", {{kSavesNothing, [](G g, D d) { return triu(g, d.axes[0]); }}}},
    {"tril", {{kSavesNothing, [](G g, D d) { return tril(g, d.axes[0]); }}}},
    {"trace", {{kInputs, [](G g, D d) { return trace_grad(g, d.input(0).shape(), d.axes[0]); }}}},

    // ---- complex parts, spectra and norms ----
    {"conj", {{kSavesNothing, [](G g, D) { return unary(UnaryOp::Conj, g); }}}},
    {"real", {{kSavesNothing, [](G g, D) { return float_to_complex(g); }}}},
    {"imag", {{kSavesNothing, [](G g, D) { return binary(BinaryOp::Mul, g, Scalar::from_complex(0, 1)); }}}},
    {"eigvalsh", {{kInputs, [](G g, D d) { return eigvalsh_grad(g, d.input(0)); }}}},
    // The decomposition passes no gradient on: zeros of the input's shape,
    // which the walk can add to the input's grad (g has the packed shape).
    {"eigh", {{kInputs, zeros_of_input}}},
    {"frobenius_norm", {{kBoth, [](G g, D d) { return frobenius_grad(g, d.input(0), d.result()); }}}},
    {"frobenius_norm along axis", {{kInputs, [](G g, D d) {
                                      return l2_norm_grad(d.input(0), d.state_as<NormState>().square_sum, g, d.axes[0]);
                                    }}}},

    // ---- indexing; the index texts or the gather description are the edge's state ----
    // The target's data is read when the gradient runs, after any later set.
    {"select", {{kInputs, [](G g, D d) { return select_bp(d.input(0), d.state_as<SelectState>().texts, g); }}}},
    // Inputs (value, target); a value broadcast over the region gets the region's sum.
    {"set_select", {{kInputs, [](G g, D d) {
                       return fit_to_shape(set_select_bp(d.input(1), d.state_as<SelectState>().texts, g),
                                           d.input(0).shape());
                     }}}},
    {"__getitem__", {{kSavesNothing, [](G g, D d) {
                        const GatherState& s = d.state_as<GatherState>();
                        return adv_indexing_grad(g, s.layout, s.indices, dims_of(d.input(0).shape()));
                      }}}},
    {"__setitem__", {{kSavesNothing, [](G g, D d) {
                        const GatherState& s = d.state_as<GatherState>();
                        return set_adv_indexing_grad(g, s.layout, s.indices, dims_of(d.input(0).shape()));
                      }}}},
};

}  // namespace

const Derivatives* find_derivatives(const char* op) {
  for (const Derivatives& row : kDerivatives)
    if (std::strcmp(row.op, op) == 0) return &row;
  return nullptr;
}

const Derivatives& derivatives_of(const char* op) {
  if (const Derivatives* row = find_derivatives(op)) return *row;
  throw std::logic_error(std::string("no derivatives for operator ") + op);
}

}  // namespace tramel::tensor
