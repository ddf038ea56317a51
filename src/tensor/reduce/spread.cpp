// std and var, differentiable, and median, which is not. The gradients of
// std and var are written with the module's own mean and QTensor arithmetic,
// then finished in place on the core tensor of that arithmetic's result.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

const Tensor& data_of(nb::handle q) { return core_of(as_qtensor(q, "var"), "var"); }
nb::object minus(nb::handle a, nb::handle b) { return g_operators.sub(a, b); }
nb::object number(double v) { return to_tensor(nb::float_(v)); }

// var_match_shape: x spread over `shape` along `axis`, and that axis's length.
std::pair<Tensor, int64_t> var_match_shape(const Tensor& x, const Shape& shape, int64_t axis) {
  int w = int(maybe_wrap_dim(axis, shape.rank()));
  Shape kept = shape;
  kept[w] = 1;
  return {broadcast_to(reshape(x, kept), shape), shape[w]};
}

Tensor std_grad_withoutaxis(const Tensor& g, nb::handle t, const Tensor& data, bool unbiased) {
  nb::object result = minus(t, mean_of(t, Py_None, Py_False));
  Tensor& r = core_of(as_qtensor(result, "std"), "std");
  const Shape& shape = data_of(t).shape();
  binary_(BinaryOp::Div, r, broadcast_to(data, shape));
  int64_t n = data_of(t).numel();
  binary_(BinaryOp::Div, r, Scalar::from_int(unbiased ? n - 1 : n));
  binary_(BinaryOp::Mul, r, broadcast_to(g, shape));
  return r;
}

Tensor std_grad_withaxis(const Tensor& x, nb::handle t, const Tensor& data, const Shape& shape, int64_t axis,
                         bool unbiased) {
  auto [g, n] = var_match_shape(x, shape, axis);
  Tensor spread_std = var_match_shape(data, shape, axis).first;
  nb::object result = minus(t, mean_of(t, nb::int_(axis), Py_True));
  Tensor& r = core_of(as_qtensor(result, "std"), "std");
  binary_(BinaryOp::Div, r, spread_std);
  binary_(BinaryOp::Mul, r, g);
  binary_(BinaryOp::Div, r, Scalar::from_int(unbiased ? n - 1 : n));
  return r;
}

Tensor var_grad_withoutaxis(const Tensor& g, nb::handle t, bool unbiased) {
  nb::object twice = g_operators.mul(number(2), minus(t, mean_of(t, Py_None, Py_False)));
  int64_t n = data_of(t).numel();
  nb::object result = g_operators.div(twice, number(double(unbiased ? n - 1 : n)));
  Tensor& r = core_of(as_qtensor(result, "var"), "var");
  binary_(BinaryOp::Mul, r, broadcast_to(g, r.shape()));
  return r;
}

Tensor var_grad_withaxis(const Tensor& x, nb::handle t, const Shape& shape, int64_t axis, bool unbiased) {
  auto [g, n] = var_match_shape(x, shape, axis);
  nb::object twice = g_operators.mul(number(2), minus(t, mean_of(t, nb::int_(axis), Py_True)));
  Tensor r = binary(BinaryOp::Mul, g, data_of(twice));
  binary_(BinaryOp::Div, r, Scalar::from_int(unbiased ? n - 1 : n));
  return r;
}

struct SpreadRow {
  const char* name;
  Tensor (*all)(const Tensor&, bool);
  Tensor (*along)(const Tensor&, const std::vector<int64_t>&, bool, bool);
  FnGrad::Fn grad;  // held: t, the forward result; axes empty for all elements
  const char* opname;
  const char* opid_infix;
};

const SpreadRow kSpread[] = {
    {"std", &tramel::std, &tramel::std,
     [](const Tensor& g, const FnGrad& f) {
       return f.axes.empty() ? std_grad_withoutaxis(g, f.held(0), f.data(1), f.flag)
                             : std_grad_withaxis(g, f.held(0), f.data(1), f.data(0).shape(), f.axes[0], f.flag);
     },
     "Std", "_std_"},
    {"var", &tramel::var, &tramel::var,
     [](const Tensor& g, const FnGrad& f) {
       return f.axes.empty() ? var_grad_withoutaxis(g, f.held(0), f.flag)
                             : var_grad_withaxis(g, f.held(0), f.data(0).shape(), f.axes[0], f.flag);
     },
     "Var", "_var_"},
};

nb::object spread(const SpreadRow& row, nb::handle t, const py::Axis& axis, nb::handle keepdims, nb::handle unbiased) {
  QTensor& q = as_qtensor(t, row.name);
  const Tensor& x = core_of(q, row.name);
  // The core gets unbiased as Python truth; the gradients divide by n - 1
  // only for the object True.
  bool core_unbiased = truthy(unbiased);
  std::vector<int64_t> axes;
  if (!axis.is_none()) axes = {axis.get(row.name)};
  nb::object data =
      wrap_core(axis.is_none() ? row.all(x, core_unbiased) : row.along(x, axes, truthy(keepdims), core_unbiased));
  nb::object y = make_result(data, {t}, [&](int) {
    FnGrad grad(row.grad, &row, 0, {t, data});
    grad.axes = axes;
    grad.flag = is_true(unbiased);
    return edge(t, std::move(grad), LazyLabel());
  });
  record_one_input(y, t, " var ", row.opname, row.opid_infix,
                   {{"axes", axis}, {"keepdims", keepdims}, {"unbiased", unbiased}});
  return y;
}

nb::object median_op(nb::handle t, const py::Axis& axis, nb::handle keepdims) {
  QTensor& q = as_qtensor(t, "median");
  const Tensor& x = core_of(q, "median");
  if (axis.is_none())
    return new_qtensor(wrap_core(median(x)), is_true(q.requires_grad) ? Py_True : Py_False, Py_None, q.device);
  Tensor data = median(x, {axis.get("median")}, truthy(keepdims));
  int device = data.device();
  return new_qtensor(wrap_core(std::move(data)), q.requires_grad, Py_None, device_object(device));
}

bool unbiased_arg(nb::handle unbiased) { return is_true(unbiased); }

}  // namespace

void init_spread(nb::module_& m) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  nb::list names;
  for (const SpreadRow& row : kSpread) {
    const SpreadRow* r = &row;
    m.def(row.name,
          [r](nb::handle t, const py::Axis& axis, nb::handle keepdims, nb::handle unbiased) {
            return spread(*r, t, axis, keepdims, unbiased);
          },
          arg("t"), arg("axis") = nb::none(), arg("keepdims") = false, arg("unbiased") = true);
    names.append(row.name);
  }
  register_family_names("spread", names);
  m.def("median", &median_op, arg("t"), arg("axis") = nb::none(), arg("keepdims") = false);

  // The gradient helpers, callable on their own.
  m.def("var_match_shape", [](nb::handle x, const py::IntList& shape, int64_t axis) {
    auto [data, n] = var_match_shape(as_core(x, "var_match_shape"), shape.shape("var_match_shape"), axis);
    return nb::make_tuple(wrap_core(std::move(data)), n);
  }, arg("x"), arg("shape"), nb::arg("axis"));
  m.def("_std_grad_withoutaxis", [](nb::handle g, nb::handle t, nb::handle data, nb::handle unbiased) {
    return wrap_core(std_grad_withoutaxis(as_core(g, "std"), t, as_core(data, "std"), unbiased_arg(unbiased)));
  }, arg("g"), arg("t"), arg("data"), arg("unbiased"));
  m.def("_std_grad_withaxis", [](nb::handle x, nb::handle t, nb::handle data, const py::IntList& t_shape,
                                 int64_t axis, nb::handle, nb::handle unbiased) {
    return wrap_core(std_grad_withaxis(as_core(x, "std"), t, as_core(data, "std"), t_shape.shape("std", "t_shape"),
                                       axis, unbiased_arg(unbiased)));
  }, arg("x"), arg("t"), arg("data"), arg("t_shape"), nb::arg("axis"), arg("keepdims"), arg("unbiased"));
  m.def("_var_grad_withoutaxis", [](nb::handle g, nb::handle t, nb::handle unbiased) {
    return wrap_core(var_grad_withoutaxis(as_core(g, "var"), t, unbiased_arg(unbiased)));
  }, arg("g"), arg("t"), arg("unbiased"));
  m.def("_var_grad_withaxis", [](nb::handle x, nb::handle t, const py::IntList& t_shape, int64_t axis, nb::handle,
                                 nb::handle unbiased) {
    return wrap_core(var_grad_withaxis(as_core(x, "var"), t, t_shape.shape("var", "t_shape"), axis,
                                       unbiased_arg(unbiased)));
  }, arg("x"), arg("t"), arg("t_shape"), nb::arg("axis"), arg("keepdims"), arg("unbiased"));
}

}  // namespace tramel::tensor
