// std and var over all elements or one axis. Their gradients are written with the module's own mean and QTensor arithmetic,
// then finished in place on the core tensor of that arithmetic's result.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

nb::object minus(nb::handle a, nb::handle b) { return g_operators.sub(a, b); }
nb::object number(double v) { return to_tensor(nb::float_(v)); }

// var_match_shape: x expanded over `shape` along `axis`, and that axis's length.
std::pair<Tensor, int64_t> var_match_shape(const Tensor& x, const Shape& shape, int64_t axis) {
  int w = int(maybe_wrap_dim(axis, shape.rank()));
  Shape kept = shape;
  kept[w] = 1;
  return {broadcast_to(reshape(x, kept), shape), shape[w]};
}

// The standard deviation of a single element (divisor n) is 0 whatever the
// element: its derivative is 0, where the formula below would give 0 / 0.
bool constant_std(int64_t n, bool unbiased) { return n == 1 && !unbiased; }

Tensor std_grad_withoutaxis(const Tensor& g, nb::handle t, const Tensor& data, bool unbiased) {
  if (constant_std(core_of(t, "std").numel(), unbiased)) return zeros_shaped_like(core_of(t, "std"));
  nb::object result = minus(t, mean_of(t, Py_None, Py_False));
  Tensor& r = core_of(result, "std");
  // t's shape, or [1] for a 0-d t (minus the mean's one element), as in var.
  const Shape shape = r.shape();
  binary_(BinaryOp::Div, r, broadcast_to(data, shape));
  int64_t n = core_of(t, "var").numel();
  binary_(BinaryOp::Div, r, Scalar::from_int(unbiased ? n - 1 : n));
  binary_(BinaryOp::Mul, r, broadcast_to(g, shape));
  return r;
}

Tensor std_grad_withaxis(const Tensor& x, nb::handle t, const Tensor& data, const Shape& shape, int64_t axis,
                         bool unbiased) {
  auto [g, n] = var_match_shape(x, shape, axis);
  if (constant_std(n, unbiased)) return zeros_shaped_like(core_of(t, "std"));
  Tensor spread_std = var_match_shape(data, shape, axis).first;
  nb::object result = minus(t, mean_of(t, nb::int_(axis), Py_True));
  Tensor& r = core_of(result, "std");
  binary_(BinaryOp::Div, r, spread_std);
  binary_(BinaryOp::Mul, r, g);
  binary_(BinaryOp::Div, r, Scalar::from_int(unbiased ? n - 1 : n));
  return r;
}

Tensor var_grad_withoutaxis(const Tensor& g, nb::handle t, bool unbiased) {
  nb::object twice = g_operators.mul(number(2), minus(t, mean_of(t, Py_None, Py_False)));
  int64_t n = core_of(t, "var").numel();
  nb::object result = g_operators.div(twice, number(double(unbiased ? n - 1 : n)));
  Tensor& r = core_of(result, "var");
  binary_(BinaryOp::Mul, r, broadcast_to(g, r.shape()));
  return r;
}

Tensor var_grad_withaxis(const Tensor& x, nb::handle t, const Shape& shape, int64_t axis, bool unbiased) {
  auto [g, n] = var_match_shape(x, shape, axis);
  nb::object twice = g_operators.mul(number(2), minus(t, mean_of(t, nb::int_(axis), Py_True)));
  Tensor r = binary(BinaryOp::Mul, g, core_of(twice, "var"));
  binary_(BinaryOp::Div, r, Scalar::from_int(unbiased ? n - 1 : n));
  return r;
}

struct SpreadRow {
  const char* name;
  RowDoc doc;
  struct {
    Tensor (*all)(const Tensor&, bool);
    Tensor (*along)(const Tensor&, const std::vector<int64_t>&, bool, bool);
  } math;
  struct {
    const char* opname;
    const char* opid_infix;
  } trace;
};

const SpreadRow kSpread[] = {
    {"std", {"The standard deviation, of all elements or along one axis."}, {&tramel::std, &tramel::std},
     {"Std", "_std_"}},
    {"var", {"The variance, of all elements or along one axis."}, {&tramel::var, &tramel::var}, {"Var", "_var_"}},
};

TensorResult std_or_var(const SpreadRow& row, const Derivatives& derivatives, TensorArg t, const py::Axis& axis,
                        nb::handle keepdims, nb::handle unbiased) {
  const Tensor& x = core_of(t, row.name);
  // The core gets unbiased as Python truth; the gradients divide by n - 1
  // only for the object True.
  bool core_unbiased = truthy(unbiased);
  InlineInts axes;
  if (!axis.is_none()) axes = {axis.get(row.name)};
  Tensor data = axis.is_none() ? row.math.all(x, core_unbiased)
                               : row.math.along(x, axes.vector(), truthy(keepdims), core_unbiased);
  nb::object y = make_result(std::move(data), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = axes;
    e.derivative.unbiased = is_true(unbiased);
  });
  // (sic) std's link is labelled " var " too.
  record_one_input(y, t, " var ", row.trace.opname, row.trace.opid_infix,
                   {{"axes", axis}, {"keepdims", keepdims}, {"unbiased", unbiased}});
  return y;
}


bool unbiased_arg(nb::handle unbiased) { return is_true(unbiased); }

}  // namespace

Tensor std_grad(const Tensor& g, nb::handle t, const Tensor& result, const InlineInts& axes, bool unbiased) {
  if (axes.empty()) return std_grad_withoutaxis(g, t, result, unbiased);
  return std_grad_withaxis(g, t, result, core_of(t, "std").shape(), axes[0], unbiased);
}

Tensor var_grad(const Tensor& g, nb::handle t, const InlineInts& axes, bool unbiased) {
  if (axes.empty()) return var_grad_withoutaxis(g, t, unbiased);
  return var_grad_withaxis(g, t, core_of(t, "var").shape(), axes[0], unbiased);
}

void init_std_var(nb::module_& m, nb::class_<QTensor>&) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  nb::list names;
  for (const SpreadRow& row : kSpread) {
    const SpreadRow* r = &row;
    const Derivatives* d = &derivatives_of(row.name);
    m.def(row.name,
          [r, d](TensorArg t, const py::Axis& axis, nb::handle keepdims, nb::handle unbiased) {
            return std_or_var(*r, *d, t, axis, keepdims, unbiased);
          },
          arg("t"), arg("axis") = nb::none(), arg("keepdims") = false, arg("unbiased") = true,
          py::doc(row.doc.summary,
                  {"t: a QTensor.", kOneAxis, kKeepAxis,
                   "unbiased: divide by n - 1 when true, else by n; any object, read by its truth (the gradient "
                   "divides by n - 1 only for True itself)."},
                  "A new QTensor; differentiable.").c_str());
    names.append(row.name);
  }
  register_family_names("spread", names);

  // The gradient helpers, callable on their own.
  constexpr const char* kGradT = "t: the QTensor that the forward call reduced.";
  constexpr const char* kGradShape = "t_shape: t's shape.";
  constexpr const char* kGradAxis = "axis: the reduced axis; negative counts from the end.";
  constexpr const char* kGradKeep = "keepdims: not read; any object.";
  constexpr const char* kGradUnbiased = "unbiased: divide by n - 1 only when it is True itself, else by n.";
  constexpr const char* kGradResult = "A new _core.Tensor of t's shape.";
  m.def("var_match_shape", [](nb::handle x, const py::IntList& shape, int64_t axis) {
    auto [data, n] = var_match_shape(as_core(x, "var_match_shape"), shape.shape("var_match_shape"), axis);
    return nb::make_tuple(wrap_core(std::move(data)), n);
  }, arg("x"), arg("shape"), nb::arg("axis"),
     py::doc("A tensor reduced along one axis, spread back over a shape, and the length of that axis.",
             {"x: a _core.Tensor, reduced along axis.", "shape: the shape to spread over.", kGradAxis},
             "A tuple: a new _core.Tensor of the shape, and the axis's length.").c_str());
  m.def("_std_grad_withoutaxis", [](nb::handle g, TensorArg t, nb::handle data, nb::handle unbiased) {
    return wrap_core(std_grad_withoutaxis(as_core(g, "std"), t, as_core(data, "std"), unbiased_arg(unbiased)));
  }, arg("g"), arg("t"), arg("data"), arg("unbiased"),
     py::doc("The gradient of std over all elements.",
             {"g: the incoming gradient, a one-element _core.Tensor.", kGradT,
              "data: the forward result, a _core.Tensor.", kGradUnbiased},
             kGradResult).c_str());
  m.def("_std_grad_withaxis", [](nb::handle x, TensorArg t, nb::handle data, const py::IntList& t_shape,
                                 int64_t axis, nb::handle, nb::handle unbiased) {
    return wrap_core(std_grad_withaxis(as_core(x, "std"), t, as_core(data, "std"), t_shape.shape("std", "t_shape"),
                                       axis, unbiased_arg(unbiased)));
  }, arg("x"), arg("t"), arg("data"), arg("t_shape"), nb::arg("axis"), arg("keepdims"), arg("unbiased"),
     py::doc("The gradient of std along one axis.",
             {"x: the incoming gradient, a _core.Tensor.", kGradT, "data: the forward result, a _core.Tensor.",
              kGradShape, kGradAxis, kGradKeep, kGradUnbiased},
             kGradResult).c_str());
  m.def("_var_grad_withoutaxis", [](nb::handle g, TensorArg t, nb::handle unbiased) {
    return wrap_core(var_grad_withoutaxis(as_core(g, "var"), t, unbiased_arg(unbiased)));
  }, arg("g"), arg("t"), arg("unbiased"),
     py::doc("The gradient of var over all elements.",
             {"g: the incoming gradient, a one-element _core.Tensor.", kGradT, kGradUnbiased}, kGradResult).c_str());
  m.def("_var_grad_withaxis", [](nb::handle x, TensorArg t, const py::IntList& t_shape, int64_t axis, nb::handle,
                                 nb::handle unbiased) {
    return wrap_core(var_grad_withaxis(as_core(x, "var"), t, t_shape.shape("var", "t_shape"), axis,
                                       unbiased_arg(unbiased)));
  }, arg("x"), arg("t"), arg("t_shape"), nb::arg("axis"), arg("keepdims"), arg("unbiased"),
     py::doc("The gradient of var along one axis.",
             {"x: the incoming gradient, a _core.Tensor.", kGradT, kGradShape, kGradAxis, kGradKeep, kGradUnbiased},
             kGradResult).c_str());
}

TRAMEL_FAMILY(init_std_var);

}  // namespace tramel::tensor
