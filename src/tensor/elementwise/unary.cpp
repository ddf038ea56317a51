// One-input functions: rounding, arithmetic, exponentials, trigonometric and
// hyperbolic functions, and log_softmax.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

// How an operator names its edge.
enum class Label { None, Fixed, Id, Shape };

// The family table: each operator's docstring summary, core call and trace.
// Gradients: the derivatives table (floor has none: its result is a leaf).
struct UnaryRow {
  const char* name;
  RowDoc doc;
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

constexpr const char* kZeroGradient = "A new QTensor of t's shape; its gradient is zero.";

const UnaryRow kUnary[] = {
    {"floor", {"Element-wise floor.", "A new QTensor of t's shape, a leaf: it passes requires_grad on, without edges."},
     {UnaryOp::Floor}, {Label::None, "", "", true, "Floor", "_floor", "t1 floor "}},
    {"ceil", {"Element-wise ceiling.", kZeroGradient},
     {UnaryOp::Ceil}, {Label::Shape, "t1 ceil grad ", "", true, "Ceil", "_ceil", "t1 ceil grad "}},
    {"round", {"Element-wise rounding, half to even.", kZeroGradient},
     {UnaryOp::Round}, {Label::Shape, "t1 round grad ", "", true, "Round", "_round_", "t1 round grad "}},
    {"sign", {"Element-wise sign; z / |z| for complex elements, 0 at 0.", kZeroGradient},
     {UnaryOp::Sign}, {Label::Fixed, "", "", false, "Sign", "_sign_", " sign "}},
    {"neg", {"Element-wise negation."},
     {UnaryOp::Neg}, {Label::Id, "neg grad input ", "", false, "Neg", "_neg_", " neg "}},
    {"reciprocal", {"Element-wise reciprocal, 1 / x; integers and bools give the default dtype."},
     {UnaryOp::Reciprocal},
     {Label::Shape, "reciprocal ", " grad", true, "Reciprocal", "_reciprocal_", "t reciprocal "}},
    {"abs", {"Element-wise absolute value; complex tensors give their real magnitudes."},
     {UnaryOp::Abs}, {Label::Id, "abs grad input ", "", false, "Abs", "_abs_", " abs "}},
    {"square", {"Element-wise square."},
     {UnaryOp::Square}, {Label::Fixed, "square grad", "", false, "Square", "_square_", " square "}},
    {"sqrt", {"Element-wise square root; integers and bools give the default dtype."},
     {UnaryOp::Sqrt}, {Label::Fixed, "", "", false, "Sqrt", "_sqrt_", " sqrt "}},
    {"exp", {"Element-wise exponential; integers and bools give the default dtype."},
     {UnaryOp::Exp}, {Label::Id, "exp grad of ", "", false, "Exp", "_exp_", " exp "}},
    {"log", {"Element-wise natural logarithm; integers and bools give the default dtype."},
     {UnaryOp::Log}, {Label::Fixed, "", "", false, "Log", "_log_", " log "}},
    {"sin", {"Element-wise sine; integers and bools give the default dtype."},
     {UnaryOp::Sin}, {Label::Id, "sin grad of tensor ", "", false, "Sin", "_sin_", " sin "}},
    {"cos", {"Element-wise cosine; integers and bools give the default dtype."},
     {UnaryOp::Cos}, {Label::Id, "cos grad of tensor ", "", false, "Cos", "_cos_", " cos "}},
    {"tan", {"Element-wise tangent; integers and bools give the default dtype."},
     {UnaryOp::Tan}, {Label::Id, "tan grad of tensor ", "", false, "Tan", "_tan_", " tan "}},
    {"asin", {"Element-wise inverse sine; integers and bools give the default dtype."},
     {UnaryOp::Asin}, {Label::Id, "asin grad of tensor ", "", false, "Asin", "_asin_", " asin "}},
    {"acos", {"Element-wise inverse cosine; integers and bools give the default dtype."},
     {UnaryOp::Acos}, {Label::Id, "acos grad of tensor ", "", false, "Acos", "_acos_", " acos "}},
    {"atan", {"Element-wise inverse tangent; integers and bools give the default dtype."},
     {UnaryOp::Atan}, {Label::Id, "atan grad of tensor ", "", false, "Atan", "_atan_", " atan "}},
    {"sinh", {"Element-wise hyperbolic sine; integers and bools give the default dtype."},
     {UnaryOp::Sinh}, {Label::Id, "sinh grad of tensor ", "", false, "Sinh", "_sinh_", " sinh "}},
    {"cosh", {"Element-wise hyperbolic cosine; integers and bools give the default dtype."},
     {UnaryOp::Cosh}, {Label::Id, "cosh grad of tensor ", "", false, "Cosh", "_cosh_", " cosh "}},
    {"tanh", {"Element-wise hyperbolic tangent; integers and bools give the default dtype."},
     {UnaryOp::Tanh}, {Label::Id, "tanh grad of tensor ", "", false, "Tanh", "_tanh_", " tanh "}},
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

TensorResult log_softmax_op(TensorArg t, const py::Axis& axis) {
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
  def_family<1>(m, "unary", kUnary, &apply_unary, {"t: a QTensor."}, "A new QTensor of t's shape; differentiable.");
  m.def("log_softmax", &log_softmax_op, nb::arg("t").none(), nb::arg("axis").none() = -1,
        py::doc("The logarithm of the softmax along one axis.",
                {"t: a QTensor.", "axis: the axis; negative ones count from the end."},
                "A new QTensor of t's shape; differentiable.").c_str());
  static const Bound<UnaryRow> neg = bound_row(kUnary, "neg");
  g_operators.neg = [](nb::handle t) { return apply_unary(neg, t); };  // the negation slot
}

TRAMEL_FAMILY(init_unary);

}  // namespace tramel::tensor
