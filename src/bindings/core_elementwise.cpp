// Element-wise operations of _core.Tensor and their gradient kernels in
// _core.tramel. Convert, call, return.
#include <nanobind/nanobind.h>
#include <nanobind/stl/tuple.h>

#include <cmath>
#include <limits>

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

struct BinaryName { const char* name; BinaryOp op; };
struct UnaryName { const char* name; UnaryOp op; };
struct CompareName { const char* name; CompareOp op; };
struct ClassifyName { const char* name; ClassifyOp op; };
using Grad2 = Tensor (*)(const Tensor&, const Tensor&);
struct GradName { const char* name; Grad2 fn; };

constexpr BinaryName kBinary[] = {
    {"add", BinaryOp::Add},         {"sub", BinaryOp::Sub},         {"mult", BinaryOp::Mul},
    {"div", BinaryOp::Div},         {"element_pow", BinaryOp::Pow}, {"maximum", BinaryOp::Maximum},
    {"minimum", BinaryOp::Minimum},
};
constexpr BinaryName kInPlace[] = {{"add_", BinaryOp::Add}, {"mult_", BinaryOp::Mul}, {"div_", BinaryOp::Div}};
constexpr UnaryName kUnary[] = {
    {"neg", UnaryOp::Neg},     {"abs", UnaryOp::Abs},     {"square", UnaryOp::Square},
    {"sqrt", UnaryOp::Sqrt},   {"exp", UnaryOp::Exp},     {"log", UnaryOp::Log},
    {"sin", UnaryOp::Sin},     {"cos", UnaryOp::Cos},     {"tan", UnaryOp::Tan},
    {"asin", UnaryOp::Asin},   {"acos", UnaryOp::Acos},   {"atan", UnaryOp::Atan},
    {"sinh", UnaryOp::Sinh},   {"cosh", UnaryOp::Cosh},   {"tanh", UnaryOp::Tanh},
    {"sign", UnaryOp::Sign},   {"conj", UnaryOp::Conj},   {"floor", UnaryOp::Floor},
    {"ceil", UnaryOp::Ceil},   {"round", UnaryOp::Round}, {"reciprocal", UnaryOp::Reciprocal},
};
constexpr CompareName kCompare[] = {
    {"equal", CompareOp::Equal},     {"not_equal", CompareOp::NotEqual},   {"greater", CompareOp::Greater},
    {"greater_equal", CompareOp::GreaterEqual}, {"less", CompareOp::Less}, {"less_equal", CompareOp::LessEqual},
    {"logical_and", CompareOp::And}, {"logical_or", CompareOp::Or},        {"logical_xor", CompareOp::Xor},
};
constexpr ClassifyName kClassify[] = {
    {"isfinite", ClassifyOp::IsFinite}, {"isinf", ClassifyOp::IsInf},       {"isnan", ClassifyOp::IsNan},
    {"isneginf", ClassifyOp::IsNegInf}, {"isposinf", ClassifyOp::IsPosInf},
};
// Gradient kernels of the form f(g, a), free functions of _core.tramel.
constexpr GradName kGrad2[] = {
    {"mult_grad", mult_grad}, {"div_dxgrad", div_dxgrad}, {"exp_grad", exp_grad},   {"log_grad", log_grad},
    {"square_grad", square_grad}, {"tanh_grad", tanh_grad}, {"asin_grad", asin_grad}, {"acos_grad", acos_grad},
    {"atan_grad", atan_grad},
};

}  // namespace

void init_elementwise(nb::module_& m) {
  auto cls = nb::borrow<nb::class_<Tensor>>(m.attr("Tensor"));
  nb::module_ tr = nb::borrow<nb::module_>(m.attr("tramel"));

  for (const BinaryName& b : kBinary) {
    const char* name = b.name;
    BinaryOp op = b.op;
    cls.def(name, [op, name](const Tensor& a, const Operand& other) { return binary_any(op, a, other, name); },
            nb::arg("other"));
  }
  for (const BinaryName& b : kInPlace) {
    const char* name = b.name;
    BinaryOp op = b.op;
    cls.def(name, [op, name](Tensor& a, const Operand& other) {
      if (const Tensor* t = other.tensor()) binary_(op, a, *t);
      else binary_(op, a, other.get(name));
    }, nb::arg("other"));
  }
  for (const UnaryName& u : kUnary) {
    UnaryOp op = u.op;
    cls.def(u.name, [op](const Tensor& x) { return py::unlocked([op](const Tensor& t) { return unary(op, t); }, x); });
  }
  for (const CompareName& c : kCompare) {
    const char* name = c.name;
    CompareOp op = c.op;
    cls.def(name, [op, name](const Tensor& a, const Operand& other) { return compare_any(op, a, other, name); },
            nb::arg("other"));
  }
  for (const ClassifyName& c : kClassify) {
    ClassifyOp op = c.op;
    cls.def(c.name, [op](const Tensor& x) { return classify(op, x); });
  }
  cls.def("logical_not", [](const Tensor& x) { return logical_not(x); });

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
  }, nb::arg("tensors"));

  cls.def("clamp", [](const Tensor& x, const py::Real& lo, const py::Real& hi) {
    return clamp(x, bound(lo, -kInf, "clamp", "min_val"), bound(hi, kInf, "clamp", "max_val"));
  }, nb::arg("min_val").none(), nb::arg("max_val").none());
  cls.def("clamp_grad", [](const Tensor& x, const Tensor& g, const py::Real& lo, const py::Real& hi) {
    return clamp_grad(x, g, bound(lo, -kInf, "clamp_grad", "min_val"), bound(hi, kInf, "clamp_grad", "max_val"));
  }, nb::arg("g"), nb::arg("min_val").none(), nb::arg("max_val").none());
  cls.def("sqrt_grad", [](const Tensor& y, const Tensor& g) { return sqrt_grad(y, g); }, nb::arg("g"));
  cls.def("tan_grad", [](const Tensor& y, const Tensor& g) { return tan_grad(y, g); }, nb::arg("g"));

  for (const GradName& gr : kGrad2) {
    Grad2 f = gr.fn;
    tr.def(gr.name, [f](const Tensor& g, const Tensor& a) { return py::unlocked(f, g, a); });
  }
  tr.def("div_dygrad", [](const Tensor& g, const Tensor& q, const Tensor& den) { return div_dygrad(g, q, den); });
  tr.def("power_grad_of_base", [](const Tensor& g, const Tensor& x, const Tensor& y) {
    return power_grad_of_base(g, x, y);
  });
  tr.def("power_grad_of_exp", [](const Tensor& g, const Tensor& x, const Tensor& y, const Tensor& out) {
    return power_grad_of_exp(g, x, y, out);
  });
  tr.def("log_softmax", [](const Tensor& x, int64_t dim) { return log_softmax(x, dim); });
  tr.def("log_softmax_grad", [](const Tensor& g, const Tensor& out, int64_t dim) {
    return log_softmax_grad(g, out, dim);
  });
}
