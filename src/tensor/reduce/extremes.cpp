// min and max over all elements or one axis, and cumsum. The extrema share
// one gradient: over all elements tied extremes split the gradient equally,
// along an axis every tied extreme receives all of it.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

struct ExtremeRow {
  const char* name;
  Tensor (*all)(const Tensor&);
  Tensor (*along)(const Tensor&, const std::vector<int64_t>&, bool);
  bool needs_true;         // requires_grad must be the object True (min) or truthy (max)
  const char* label_tail;  // str(t.shape) + tail
  const char* opname;
  const char* opid_infix;  // {t}<infix>[axis]_{y}
  const char* link;
};

const ExtremeRow kExtremes[] = {
    {"min", &tramel::min, &tramel::min, true, " min grad", "Min", "_min_", " min "},
    {"max", &tramel::max, &tramel::max, false, " max grad", "Max", "_max_", " max "},
};

// _min_max_match_shape: x spread over `shape`, with a length-one axis at
// `axes` (all axes when empty).
Tensor match_shape(const Tensor& x, const Shape& shape, const std::vector<int64_t>& axes) {
  Shape kept = shape;
  if (axes.empty())
    for (int i = 0; i < kept.rank(); ++i) kept[i] = 1;
  else
    kept[int(maybe_wrap_dim(axes[0], shape.rank()))] = 1;
  return broadcast_to(reshape(x, kept), shape);
}

// _min_max_grad. Held: t, the result y.
Tensor min_max_grad(const Tensor& g, const FnGrad& f) {
  const Tensor& inputs = f.data(0);
  const Tensor& result = f.data(1);
  Tensor mask = compare(CompareOp::Equal, inputs, match_shape(result, inputs.shape(), f.axes));
  Tensor prod = binary(BinaryOp::Mul, match_shape(g, inputs.shape(), f.axes), mask);
  if (!f.axes.empty()) return prod;
  Tensor ties = sum(mask);
  return binary(BinaryOp::Div, prod, broadcast_to(ties, prod.shape()));
}

nb::object extreme(const ExtremeRow& row, nb::handle t, const py::Axis& axis, nb::handle keepdims) {
  QTensor& q = as_qtensor(t, row.name);
  const Tensor& x = core_of(q, row.name);
  Shape shape = x.shape();
  std::vector<int64_t> axes;
  if (!axis.is_none()) axes = {axis.get(row.name)};
  nb::object data = wrap_core(axis.is_none() ? row.all(x) : row.along(x, axes, truthy(keepdims)));
  nb::handle requires_grad = q.requires_grad;
  if (row.needs_true) requires_grad = is_true(q.requires_grad) ? Py_True : Py_False;
  nb::object y = new_qtensor(data, requires_grad, Py_None, q.device);
  if (truthy(requires_grad)) {
    FnGrad grad(&min_max_grad, &row, 0, {t, data});
    grad.axes = axes;
    nb::list edges;
    edges.append(edge(t, std::move(grad), LazyLabel().shape(shape).then(row.label_tail)));
    as_qtensor(y, row.name).nodes = edges;
  }
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t, LazyLabel(row.link)}});
    nb::dict attribute;
    attribute["axis"] = axis;
    attribute["keepdims"] = keepdims;
    return make_record(id_text(t) + row.opid_infix + py_text(axis) + "_" + id_text(y), row.opname, {t}, y, attribute);
  });
  return y;
}

Tensor cumsum_backward(const Tensor& g, const FnGrad& f) { return cumsum_grad(g, f.axes[0]); }

nb::object cumsum_op(nb::handle t, const py::Axis& axis) {
  const Tensor& x = core_of(as_qtensor(t, "cumsum"), "cumsum");
  int64_t a = axis.get("cumsum");
  Tensor data = cumsum(x, a);
  Shape shape = data.shape();
  nb::object y = make_result(std::move(data), {t}, [&](int) {
    FnGrad grad(&cumsum_backward, nullptr, 0, {t});
    grad.axes = {a};
    return edge(t, std::move(grad), LazyLabel("input grad ").shape(shape).then(" cumsumgrad ").shape(shape));
  });
  record_one_input(y, t, " cumsum ", "CumSum", "_cumsum__", {{"axis", axis}});
  return y;
}

}  // namespace

void init_extremes(nb::module_& m) {
  nb::list names;
  for (const ExtremeRow& row : kExtremes) {
    const ExtremeRow* r = &row;
    m.def(row.name, [r](nb::handle t, const py::Axis& axis, nb::handle keepdims) { return extreme(*r, t, axis, keepdims); },
          nb::arg("t").none(), nb::arg("axis").none() = nb::none(), nb::arg("keepdims").none() = false);
    names.append(row.name);
  }
  register_family_names("extremes", names);
  m.def("cumsum", &cumsum_op, nb::arg("t").none(), nb::arg("axis").none() = -1);
  m.def("_min_max_match_shape", [](nb::handle x, const py::IntList& shape, const py::Axis& axis) {
    std::vector<int64_t> axes;
    if (!axis.is_none()) axes = {axis.get("_min_max_match_shape")};
    return wrap_core(match_shape(as_core(x, "_min_max_match_shape"), shape.shape("_min_max_match_shape"), axes));
  }, nb::arg("x").none(), nb::arg("shape").none(), nb::arg("axis").none());
  m.def("_min_max_grad", [](nb::handle x, nb::handle result, nb::handle inputs, const py::Axis& axis) {
    // The same computation as an edge of min/max, on core tensors given
    // directly; a float result becomes a core tensor on the inputs' device.
    nb::object value = PyFloat_Check(result.ptr())
                           ? nb::handle(core_tensor_type())(result, as_core(inputs, "_min_max_grad").device())
                           : nb::borrow(result);
    FnGrad grad(&min_max_grad, nullptr, 0, {inputs, value});
    if (!axis.is_none()) grad.axes = {axis.get("_min_max_grad")};
    return wrap_core(grad.apply(as_core(x, "_min_max_grad")));
  }, nb::arg("x").none(), nb::arg("result").none(), nb::arg("inputs").none(), nb::arg("axis").none());
}

}  // namespace tramel::tensor
