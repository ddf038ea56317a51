// One-input functions: rounding, arithmetic, exponentials, trigonometric and
// hyperbolic functions, and log_softmax.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

// How an operator names its edge.
enum class Label { None, Fixed, Id, Shape };

struct UnaryRow {
  const char* name;
  UnaryOp forward;
  FnGrad::Fn grad;  // nullptr: no edge at all, the result is a leaf
  Label label;
  const char* label_text;  // Fixed: the name; Id/Shape: the text before the value
  const char* label_after;  // Shape: the text after it
  bool always_linked;      // export form A (links always) or B (gated)
  const char* opname;
  const char* opid_infix;  // opid: {t}<infix>{y}
  const char* link_text;   // form A: text before the input's shape; form B: the whole label
  bool holds_result;       // the gradient reads the forward result
};

// Held by every edge: t, and the forward result when the row says so.
const Tensor& x_of(const FnGrad& f) { return f.data(0); }
const Tensor& out_of(const FnGrad& f) { return f.data(1); }

Tensor zero_grad(const Tensor& g, const FnGrad&) { return zeros_shaped_like(g); }
Tensor conj_of(UnaryOp op, const Tensor& x) { return unary(UnaryOp::Conj, unary(op, x)); }

const UnaryRow kUnary[] = {
    {"floor", UnaryOp::Floor, nullptr, Label::None, "", "", true, "Floor", "_floor", "t1 floor ", false},
    {"ceil", UnaryOp::Ceil, &zero_grad, Label::Shape, "t1 ceil grad ", "", true, "Ceil", "_ceil", "t1 ceil grad ", false},
    {"round", UnaryOp::Round, &zero_grad, Label::Shape, "t1 round grad ", "", true, "Round", "_round_", "t1 round grad ",
     false},
    {"sign", UnaryOp::Sign, &zero_grad, Label::Fixed, "", "", false, "Sign", "_sign_", " sign ", false},
    {"neg", UnaryOp::Neg, [](const Tensor& g, const FnGrad&) { return unary(UnaryOp::Neg, g); }, Label::Id,
     "neg grad input ", "", false, "Neg", "_neg_", " neg ", false},
    {"reciprocal", UnaryOp::Reciprocal,
     [](const Tensor& g, const FnGrad& f) { return div_dygrad(g, out_of(f), x_of(f)); }, Label::Shape, "reciprocal ", " grad",
     true, "Reciprocal", "_reciprocal_", "t reciprocal ", true},
    {"abs", UnaryOp::Abs,
     [](const Tensor& g, const FnGrad& f) { return binary(BinaryOp::Mul, g, unary(UnaryOp::Sign, x_of(f))); },
     Label::Id, "abs grad input ", "", false, "Abs", "_abs_", " abs ", false},
    {"square", UnaryOp::Square, [](const Tensor& g, const FnGrad& f) { return square_grad(g, x_of(f)); },
     Label::Fixed, "square grad", "", false, "Square", "_square_", " square ", false},
    {"sqrt", UnaryOp::Sqrt, [](const Tensor& g, const FnGrad& f) { return sqrt_grad(out_of(f), g); }, Label::Fixed,
     "", "", false, "Sqrt", "_sqrt_", " sqrt ", true},
    {"exp", UnaryOp::Exp, [](const Tensor& g, const FnGrad& f) { return exp_grad(g, out_of(f)); }, Label::Id,
     "exp grad of ", "", false, "Exp", "_exp_", " exp ", true},
    {"log", UnaryOp::Log, [](const Tensor& g, const FnGrad& f) { return log_grad(g, x_of(f)); }, Label::Fixed, "", "",
     false, "Log", "_log_", " log ", false},
    {"sin", UnaryOp::Sin,
     [](const Tensor& g, const FnGrad& f) { return binary(BinaryOp::Mul, g, conj_of(UnaryOp::Cos, x_of(f))); },
     Label::Id, "sin grad of tensor ", "", false, "Sin", "_sin_", " sin ", false},
    {"cos", UnaryOp::Cos,
     [](const Tensor& g, const FnGrad& f) {
       return binary(BinaryOp::Mul, unary(UnaryOp::Neg, g), conj_of(UnaryOp::Sin, x_of(f)));
     },
     Label::Id, "cos grad of tensor ", "", false, "Cos", "_cos_", " cos ", false},
    {"tan", UnaryOp::Tan, [](const Tensor& g, const FnGrad& f) { return tan_grad(out_of(f), g); }, Label::Id,
     "tan grad of tensor ", "", false, "Tan", "_tan_", " tan ", true},
    {"asin", UnaryOp::Asin, [](const Tensor& g, const FnGrad& f) { return asin_grad(g, x_of(f)); }, Label::Id,
     "asin grad of tensor ", "", false, "Asin", "_asin_", " asin ", false},
    {"acos", UnaryOp::Acos, [](const Tensor& g, const FnGrad& f) { return acos_grad(g, x_of(f)); }, Label::Id,
     "acos grad of tensor ", "", false, "Acos", "_acos_", " acos ", false},
    {"atan", UnaryOp::Atan, [](const Tensor& g, const FnGrad& f) { return atan_grad(g, x_of(f)); }, Label::Id,
     "atan grad of tensor ", "", false, "Atan", "_atan_", " atan ", false},
    {"sinh", UnaryOp::Sinh,
     [](const Tensor& g, const FnGrad& f) { return binary(BinaryOp::Mul, g, conj_of(UnaryOp::Cosh, x_of(f))); },
     Label::Id, "sinh grad of tensor ", "", false, "Sinh", "_sinh_", " sinh ", false},
    {"cosh", UnaryOp::Cosh,
     [](const Tensor& g, const FnGrad& f) { return binary(BinaryOp::Mul, g, conj_of(UnaryOp::Sinh, x_of(f))); },
     Label::Id, "cosh grad of tensor ", "", false, "Cosh", "_cosh_", " cosh ", false},
    {"tanh", UnaryOp::Tanh, [](const Tensor& g, const FnGrad& f) { return tanh_grad(g, out_of(f)); }, Label::Id,
     "tanh grad of tensor ", "", false, "Tanh", "_tanh_", " tanh ", true},
};

LazyLabel node_label(const UnaryRow& row, nb::handle t, const Shape& shape) {
  switch (row.label) {
    case Label::Id: return LazyLabel(row.label_text).id(t);
    case Label::Shape:
      return LazyLabel(row.label_text).shape(shape).then(row.label_after);
    default: return LazyLabel(row.label_text);
  }
}

nb::object apply_unary(const UnaryRow& row, nb::handle t) {
  const Tensor& x = core_of(as_qtensor(t, row.name), row.name);
  Shape shape = x.shape();
  Tensor result = unary(row.forward, x);
  // The forward result is held by the gradient only where the row needs it.
  nb::object data = row.holds_result ? wrap_core(std::move(result)) : nb::object();
  auto make_edge = [&](int) -> nb::object {
    if (!row.grad) return nb::object();
    FnGrad grad = row.holds_result ? FnGrad(row.grad, &row, 0, {t, data}) : FnGrad(row.grad, &row, 0, {t});
    return edge(t, std::move(grad), node_label(row, t, shape));
  };
  nb::object y = row.holds_result ? make_result(data, {t}, make_edge) : make_result(std::move(result), {t}, make_edge);
  if (row.always_linked)
    record_always_linked(y, {{t, row.link_text}}, LazyLabel().shape(shape), [&] {
      return make_record(id_text(t) + row.opid_infix + id_text(y), row.opname, {t}, y, nb::list());
    });
  else
    record_one_input(y, t, row.link_text, row.opname, row.opid_infix, {});
  return y;
}

Tensor log_softmax_backward(const Tensor& g, const FnGrad& f) { return log_softmax_grad(g, f.data(1), f.axes[0]); }

nb::object log_softmax_op(nb::handle t, const py::Axis& axis) {
  const Tensor& x = core_of(as_qtensor(t, "log_softmax"), "log_softmax");
  int64_t dim = maybe_wrap_dim(axis.get("log_softmax"), x.ndim());
  Shape shape = x.shape();
  nb::object data = wrap_core(log_softmax(x, dim));
  nb::object y = make_result(data, {t}, [&](int) {
    FnGrad grad(&log_softmax_backward, nullptr, 0, {t, data});
    grad.axes = {dim};
    return edge(t, std::move(grad), LazyLabel("log_softmax grad tensor of ").shape(shape));
  });
  record_one_input(y, t, " log_softmax", "LogSoftmax", "_log_softmax_", {{"axis", axis}});
  return y;
}

}  // namespace

void init_unary(nb::module_& m) {
  def_family<1>(m, "unary", kUnary, &apply_unary);
  m.def("log_softmax", &log_softmax_op, nb::arg("t").none(), nb::arg("axis").none() = -1);
  g_operators.neg = [](nb::handle t) { return apply_unary(kUnary[4], t); };  // the negation slot
}

}  // namespace tramel::tensor
