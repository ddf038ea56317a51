// Element-wise operations of _core.Tensor and their gradient kernels in
// _core.tramel. Convert, call, return.
#include <nanobind/nanobind.h>
#include <nanobind/stl/tuple.h>

#include <cmath>
#include <limits>

#include "interop/docs.h"
#include "interop/args.h"
#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

namespace {

// The right operand of a binary method: a core tensor, or a host number read
// as py::HostScalar.
struct Operand : py::HostScalar {
  Operand() = default;
  Operand(nb::handle h) : py::HostScalar(h) {}
  const Tensor* tensor() const { return nb::isinstance<Tensor>(*this) ? &nb::cast<const Tensor&>(*this) : nullptr; }
};

}  // namespace

namespace nanobind::detail {
TRAMEL_ARGUMENT_CASTER(Operand, make_caster<tramel::Tensor>::Name + const_name(" | ") +
                                    make_caster<tramel::py::HostScalar>::Name)
}  // namespace nanobind::detail

namespace {

Tensor binary_any(BinaryOp op, const Tensor& a, const Operand& b, const char* name) {
  if (const Tensor* t = b.tensor())
    return py::unlocked([op](const Tensor& x, const Tensor& y) { return binary(op, x, y); }, a, *t);
  return py::unlocked([op](const Tensor& x, const Scalar& y) { return binary(op, x, y); }, a, b.get(name));
}

Tensor compare_any(CompareOp op, const Tensor& a, const Operand& b, const char* name) {
  if (const Tensor* t = b.tensor())
    return py::unlocked([op](const Tensor& x, const Tensor& y) { return compare(op, x, y); }, a, *t);
  return py::unlocked([op](const Tensor& x, const Scalar& y) { return compare(op, x, y); }, a, b.get(name));
}

// A missing bound (None) does not limit.
double bound(const py::Real& v, double if_none, const char* op, const char* what) {
  return v.is_none() ? if_none : v.get(op, what);
}

constexpr double kInf = std::numeric_limits<double>::infinity();

// Each row: the method's name, the engine operation and the summary line of
// its docstring.
struct BinaryName { const char* name; BinaryOp op; const char* summary; };
struct UnaryName { const char* name; UnaryOp op; const char* summary; };
struct CompareName { const char* name; CompareOp op; const char* summary; };
struct ClassifyName { const char* name; ClassifyOp op; const char* summary; };
using Grad2 = Tensor (*)(const Tensor&, const Tensor&);
// A gradient kernel f(g, a): its name, the function, a's name and what it is.
struct GradName { const char* name; Grad2 fn; const char* arg; const char* arg_doc; const char* summary; };

constexpr BinaryName kBinary[] = {
    {"add", BinaryOp::Add, "Element-wise sum."},
    {"sub", BinaryOp::Sub, "Element-wise difference."},
    {"mult", BinaryOp::Mul, "Element-wise product."},
    {"div", BinaryOp::Div, "Element-wise quotient; integers truncate and x / 0 is 0."},
    {"element_pow", BinaryOp::Pow, "Element-wise power, self ** other."},
    {"maximum", BinaryOp::Maximum, "Element-wise maximum; a NaN on either side wins."},
    {"minimum", BinaryOp::Minimum, "Element-wise minimum; a NaN on either side wins."},
};
constexpr BinaryName kInPlace[] = {
    {"add_", BinaryOp::Add, "Adds other to the tensor, in place, keeping its dtype."},
    {"mult_", BinaryOp::Mul, "Multiplies the tensor by other, in place, keeping its dtype."},
    {"div_", BinaryOp::Div, "Divides the tensor by other, in place, keeping its dtype."},
};
constexpr UnaryName kUnary[] = {
    {"neg", UnaryOp::Neg, "Element-wise negation."},
    {"abs", UnaryOp::Abs, "Element-wise absolute value; complex tensors give their real magnitudes."},
    {"square", UnaryOp::Square, "Element-wise square."},
    {"sqrt", UnaryOp::Sqrt, "Element-wise square root; integers and bools give the default dtype."},
    {"exp", UnaryOp::Exp, "Element-wise exponential; integers and bools give the default dtype."},
    {"log", UnaryOp::Log, "Element-wise natural logarithm; integers and bools give the default dtype."},
    {"sin", UnaryOp::Sin, "Element-wise sine; integers and bools give the default dtype."},
    {"cos", UnaryOp::Cos, "Element-wise cosine; integers and bools give the default dtype."},
    {"tan", UnaryOp::Tan, "Element-wise tangent; integers and bools give the default dtype."},
    {"asin", UnaryOp::Asin, "Element-wise inverse sine; integers and bools give the default dtype."},
    {"acos", UnaryOp::Acos, "Element-wise inverse cosine; integers and bools give the default dtype."},
    {"atan", UnaryOp::Atan, "Element-wise inverse tangent; integers and bools give the default dtype."},
    {"sinh", UnaryOp::Sinh, "Element-wise hyperbolic sine; integers and bools give the default dtype."},
    {"cosh", UnaryOp::Cosh, "Element-wise hyperbolic cosine; integers and bools give the default dtype."},
    {"tanh", UnaryOp::Tanh, "Element-wise hyperbolic tangent; integers and bools give the default dtype."},
    {"sign", UnaryOp::Sign, "Element-wise sign; z / |z| for complex elements, 0 at 0."},
    {"conj", UnaryOp::Conj, "Element-wise complex conjugate; real tensors give a copy."},
    {"floor", UnaryOp::Floor, "Element-wise floor."},
    {"ceil", UnaryOp::Ceil, "Element-wise ceiling."},
    {"round", UnaryOp::Round, "Element-wise rounding, half to even."},
    {"reciprocal", UnaryOp::Reciprocal, "Element-wise reciprocal, 1 / x; integers and bools give the default dtype."},
};
constexpr CompareName kCompare[] = {
    {"equal", CompareOp::Equal, "Element-wise self == other."},
    {"not_equal", CompareOp::NotEqual, "Element-wise self != other."},
    {"greater", CompareOp::Greater, "Element-wise self > other."},
    {"greater_equal", CompareOp::GreaterEqual, "Element-wise self >= other."},
    {"less", CompareOp::Less, "Element-wise self < other."},
    {"less_equal", CompareOp::LessEqual, "Element-wise self <= other."},
    {"logical_and", CompareOp::And, "Element-wise logical and; nonzero is true."},
    {"logical_or", CompareOp::Or, "Element-wise logical or; nonzero is true."},
    {"logical_xor", CompareOp::Xor, "Element-wise logical exclusive or; nonzero is true."},
};
constexpr ClassifyName kClassify[] = {
    {"isfinite", ClassifyOp::IsFinite, "Whether each element is finite."},
    {"isinf", ClassifyOp::IsInf, "Whether each element is infinite."},
    {"isnan", ClassifyOp::IsNan, "Whether each element is NaN."},
    {"isneginf", ClassifyOp::IsNegInf, "Whether each element is negative infinity (real dtypes)."},
    {"isposinf", ClassifyOp::IsPosInf, "Whether each element is positive infinity (real dtypes)."},
};
// Gradient kernels of the form f(g, a), free functions of _core.tramel. For
// complex tensors they use the conjugate of the local derivative.
constexpr GradName kGrad2[] = {
    {"mult_grad", mult_grad, "other", "the other factor.", "The gradient of a product for one factor: g * conj(other)."},
    {"div_dxgrad", div_dxgrad, "den", "the denominator.", "The gradient of a quotient for its numerator: g / conj(den)."},
    {"exp_grad", exp_grad, "y", "the forward result exp(x).", "The gradient of exp: g * conj(y)."},
    {"log_grad", log_grad, "x", "the forward input.", "The gradient of log: g / conj(x)."},
    {"square_grad", square_grad, "x", "the forward input.", "The gradient of square: 2 g conj(x)."},
    {"tanh_grad", tanh_grad, "y", "the forward result tanh(x).", "The gradient of tanh: g * conj(1 - y^2)."},
    {"asin_grad", asin_grad, "x", "the forward input.", "The gradient of asin: g * conj(1 / sqrt(1 - x^2))."},
    {"acos_grad", acos_grad, "x", "the forward input.", "The gradient of acos: -g * conj(1 / sqrt(1 - x^2))."},
    {"atan_grad", atan_grad, "x", "the forward input.", "The gradient of atan: g * conj(1 / (1 + x^2))."},
};

constexpr const char* kOther = "other: a core tensor of the same shape and device, or a host number.";
constexpr const char* kGrad = "g: the gradient of the forward result.";

}  // namespace

void init_elementwise(nb::module_& m) {
  auto cls = nb::borrow<nb::class_<Tensor>>(m.attr("Tensor"));
  nb::module_ tr = nb::borrow<nb::module_>(m.attr("tramel"));

  for (const BinaryName& b : kBinary) {
    const char* name = b.name;
    BinaryOp op = b.op;
    cls.def(name, [op, name](const Tensor& a, const Operand& other) { return binary_any(op, a, other, name); },
            nb::arg("other"), py::doc(b.summary, {kOther}, "A new core tensor of the promoted dtype.").c_str());
  }
  for (const BinaryName& b : kInPlace) {
    const char* name = b.name;
    BinaryOp op = b.op;
    cls.def(name, [op, name](Tensor& a, const Operand& other) {
      if (const Tensor* t = other.tensor()) binary_(op, a, *t);
      else binary_(op, a, other.get(name));
    }, nb::arg("other"), py::doc(b.summary, {kOther}).c_str());
  }
  for (const UnaryName& u : kUnary) {
    UnaryOp op = u.op;
    cls.def(u.name, [op](const Tensor& x) { return py::unlocked([op](const Tensor& t) { return unary(op, t); }, x); },
            py::doc(u.summary, {}, "A new core tensor.").c_str());
  }
  for (const CompareName& c : kCompare) {
    const char* name = c.name;
    CompareOp op = c.op;
    cls.def(name, [op, name](const Tensor& a, const Operand& other) { return compare_any(op, a, other, name); },
            nb::arg("other"), py::doc(c.summary, {kOther}, "A new kbool core tensor.").c_str());
  }
  for (const ClassifyName& c : kClassify) {
    ClassifyOp op = c.op;
    cls.def(c.name, [op](const Tensor& x) { return classify(op, x); },
            py::doc(c.summary, {}, "A new kbool core tensor.").c_str());
  }
  cls.def("logical_not", [](const Tensor& x) { return logical_not(x); },
          py::doc("Element-wise logical not; nonzero is true.", {}, "A new kbool core tensor.").c_str());

  cls.def("add_tensor_list", [](const Tensor&, nb::handle tensors) {
    // The list holds the first operand too, so `self` is not added again.
    std::vector<const Tensor*> list;
    for (nb::handle item : tensors) {
      if (!nb::isinstance<Tensor>(item))
        fail(ErrorKind::Type, "add_tensor_list",
             std::string("expects a list of core tensors, got an element of type ") + nb::type_name(item.type()).c_str());
      list.push_back(&nb::cast<const Tensor&>(item));
    }
    return add_tensor_list(list);
  }, nb::arg("tensors"),
     py::doc("The sum of a list of tensors; the tensor it is called on is not added unless listed.",
             {"tensors: core tensors of one shape, dtype and device."}, "A new core tensor.").c_str());

  cls.def("clamp", [](const Tensor& x, const py::Real& lo, const py::Real& hi) {
    return clamp(x, bound(lo, -kInf, "clamp", "min_val"), bound(hi, kInf, "clamp", "max_val"));
  }, nb::arg("min_val").none(), nb::arg("max_val").none(),
     py::doc("Each element limited to [min_val, max_val].",
             {"min_val: the lower bound, or None for none.", "max_val: the upper bound, or None for none."},
             "A new core tensor.").c_str());
  cls.def("clamp_grad", [](const Tensor& x, const Tensor& g, const py::Real& lo, const py::Real& hi) {
    return clamp_grad(x, g, bound(lo, -kInf, "clamp_grad", "min_val"), bound(hi, kInf, "clamp_grad", "max_val"));
  }, nb::arg("g"), nb::arg("min_val").none(), nb::arg("max_val").none(),
     py::doc("The gradient of clamp, called on its input: g where min_val <= x <= max_val, else 0.",
             {kGrad, "min_val: the lower bound, or None.", "max_val: the upper bound, or None."},
             "A new core tensor.").c_str());
  cls.def("sqrt_grad", [](const Tensor& y, const Tensor& g) { return sqrt_grad(y, g); }, nb::arg("g"),
          py::doc("The gradient of sqrt, called on its result y: g / conj(2 y).", {kGrad}, "A new core tensor.")
              .c_str());
  cls.def("tan_grad", [](const Tensor& y, const Tensor& g) { return tan_grad(y, g); }, nb::arg("g"),
          py::doc("The gradient of tan, called on its result y: g * conj(1 + y^2).", {kGrad}, "A new core tensor.")
              .c_str());

  for (const GradName& gr : kGrad2) {
    Grad2 f = gr.fn;
    std::string arg = std::string(gr.arg) + ": " + gr.arg_doc;
    tr.def(gr.name, [f](const Tensor& g, const Tensor& a) { return py::unlocked(f, g, a); }, nb::arg("g"),
           nb::arg(gr.arg), py::doc(gr.summary, {kGrad, arg.c_str()}, "A new core tensor.").c_str());
  }
  tr.def("div_dygrad", [](const Tensor& g, const Tensor& q, const Tensor& den) { return div_dygrad(g, q, den); },
         nb::arg("g"), nb::arg("q"), nb::arg("den"),
         py::doc("The gradient of a quotient for its denominator: -g * conj(q / den).",
                 {kGrad, "q: the forward quotient.", "den: the denominator."}, "A new core tensor.").c_str());
  tr.def("power_grad_of_base", [](const Tensor& g, const Tensor& x, const Tensor& y) {
    return power_grad_of_base(g, x, y);
  }, nb::arg("g"), nb::arg("x"), nb::arg("y"),
     py::doc("The gradient of x ** y for the base: g * conj(y x^(y-1)).",
             {kGrad, "x: the base.", "y: the exponent."}, "A new core tensor.").c_str());
  tr.def("power_grad_of_exp", [](const Tensor& g, const Tensor& x, const Tensor& y, const Tensor& out) {
    return power_grad_of_exp(g, x, y, out);
  }, nb::arg("g"), nb::arg("x"), nb::arg("y"), nb::arg("out"),
     py::doc("The gradient of x ** y for the exponent: g * conj(out ln x).",
             {kGrad, "x: the base.", "y: the exponent.", "out: the forward result."}, "A new core tensor.").c_str());
  tr.def("log_softmax", [](const Tensor& x, int64_t dim) { return log_softmax(x, dim); }, nb::arg("x"),
         nb::arg("dim"),
         py::doc("log(softmax(x)) along one axis (floating dtypes).",
                 {"x: a core tensor.", "dim: the axis; negative counts from the end."}, "A new core tensor.").c_str());
  tr.def("log_softmax_grad", [](const Tensor& g, const Tensor& out, int64_t dim) {
    return log_softmax_grad(g, out, dim);
  }, nb::arg("g"), nb::arg("out"), nb::arg("dim"),
     py::doc("The gradient of log_softmax.", {kGrad, "out: the forward result.", "dim: the axis of the forward call."},
             "A new core tensor.").c_str());
}
