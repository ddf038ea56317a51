// One-input functions: rounding, arithmetic, exponentials, trigonometric and
// hyperbolic functions, and log_softmax.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

// How an operator names its edge.
enum class Label { None, Fixed, Id, Shape };

// The family table: each operator's core call and its trace. Gradients: the
// derivatives table (floor has none: its result is a leaf).
struct UnaryRow {
  const char* name;
  struct {
    UnaryOp forward;
  } math;
  struct {
    Label label;
    const char* label_text;   // Fixed: the name; Id/Shape: the text before the value
    const char* label_after;  // Shape: the text after it
    bool always_linked;       // export form A (links always) or B (gated)
    const char* opname;
    const char* opid_infix;   // opid: {t}<infix>{y}
    const char* link_text;    // form A: text before the input's shape; form B: the whole label
  } trace;
};

const UnaryRow kUnary[] = {
    {"floor", {UnaryOp::Floor}, {Label::None, "", "", true, "Floor", "_floor", "t1 floor "}},
    {"ceil", {UnaryOp::Ceil}, {Label::Shape, "t1 ceil grad ", "", true, "Ceil", "_ceil", "t1 ceil grad "}},
    {"round", {UnaryOp::Round}, {Label::Shape, "t1 round grad ", "", true, "Round", "_round_", "t1 round grad "}},
    {"sign", {UnaryOp::Sign}, {Label::Fixed, "", "", false, "Sign", "_sign_", " sign "}},
    {"neg", {UnaryOp::Neg}, {Label::Id, "neg grad input ", "", false, "Neg", "_neg_", " neg "}},
    {"reciprocal", {UnaryOp::Reciprocal},
     {Label::Shape, "reciprocal ", " grad", true, "Reciprocal", "_reciprocal_", "t reciprocal "}},
    {"abs", {UnaryOp::Abs}, {Label::Id, "abs grad input ", "", false, "Abs", "_abs_", " abs "}},
    {"square", {UnaryOp::Square}, {Label::Fixed, "square grad", "", false, "Square", "_square_", " square "}},
    {"sqrt", {UnaryOp::Sqrt}, {Label::Fixed, "", "", false, "Sqrt", "_sqrt_", " sqrt "}},
    {"exp", {UnaryOp::Exp}, {Label::Id, "exp grad of ", "", false, "Exp", "_exp_", " exp "}},
    {"log", {UnaryOp::Log}, {Label::Fixed, "", "", false, "Log", "_log_", " log "}},
    {"sin", {UnaryOp::Sin}, {Label::Id, "sin grad of tensor ", "", false, "Sin", "_sin_", " sin "}},
    {"cos", {UnaryOp::Cos}, {Label::Id, "cos grad of tensor ", "", false, "Cos", "_cos_", " cos "}},
    {"tan", {UnaryOp::Tan}, {Label::Id, "tan grad of tensor ", "", false, "Tan", "_tan_", " tan "}},
    {"asin", {UnaryOp::Asin}, {Label::Id, "asin grad of tensor ", "", false, "Asin", "_asin_", " asin "}},
    {"acos", {UnaryOp::Acos}, {Label::Id, "acos grad of tensor ", "", false, "Acos", "_acos_", " acos "}},
    {"atan", {UnaryOp::Atan}, {Label::Id, "atan grad of tensor ", "", false, "Atan", "_atan_", " atan "}},
    {"sinh", {UnaryOp::Sinh}, {Label::Id, "sinh grad of tensor ", "", false, "Sinh", "_sinh_", " sinh "}},
    {"cosh", {UnaryOp::Cosh}, {Label::Id, "cosh grad of tensor ", "", false, "Cosh", "_cosh_", " cosh "}},
    {"tanh", {UnaryOp::Tanh}, {Label::Id, "tanh grad of tensor ", "", false, "Tanh", "_tanh_", " tanh "}},
};

LazyLabel node_label(const UnaryRow& row, nb::handle t, const Shape& shape) {
  switch (row.trace.label) {
    case Label::Id: return LazyLabel(row.trace.label_text).id(t);
    case Label::Shape: return LazyLabel(row.trace.label_text).shape(shape).then(row.trace.label_after);
    default: return LazyLabel(row.trace.label_text);
  }
}

nb::object apply_unary(Bound<UnaryRow> op, nb::handle t) {
  const UnaryRow& row = op.row;
  const Tensor& x = core_of(t, row.name);
  Shape shape = x.shape();
  nb::object y = make_result(unary(row.math.forward, x), {t}, *op.derivatives,
                             [&](int, Edge& e) { e.label = node_label(row, t, shape); });
  if (row.trace.always_linked)
    record_always_linked(y, {{t, row.trace.link_text}}, LazyLabel().shape(shape), [&] {
      return make_record(id_text(t) + row.trace.opid_infix + id_text(y), row.trace.opname, {t}, y, nb::list());
    });
  else
    record_one_input(y, t, row.trace.link_text, row.trace.opname, row.trace.opid_infix, {});
  return y;
}

nb::object log_softmax_op(nb::handle t, const py::Axis& axis) {
  static const Derivatives& derivatives = derivatives_of("log_softmax");
  const Tensor& x = core_of(t, "log_softmax");
  int64_t dim = maybe_wrap_dim(axis.get("log_softmax"), x.ndim());
  Shape shape = x.shape();
  nb::object y = make_result(log_softmax(x, dim), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = {dim};
    e.label = LazyLabel("log_softmax grad tensor of ").shape(shape);
  });
  record_one_input(y, t, " log_softmax", "LogSoftmax", "_log_softmax_", {{"axis", axis}});
  return y;
}

}  // namespace

void init_unary(nb::module_& m, nb::class_<QTensor>&) {
  def_family<1>(m, "unary", kUnary, &apply_unary);
  m.def("log_softmax", &log_softmax_op, nb::arg("t").none(), nb::arg("axis").none() = -1);
  static const Bound<UnaryRow> neg = bound_row(kUnary, "neg");
  g_operators.neg = [](nb::handle t) { return apply_unary(neg, t); };  // the negation slot
}

TRAMEL_FAMILY(init_unary);

}  // namespace tramel::tensor
