// min and max over all elements or one axis. Their gradient: over all
// elements tied extremes split the gradient equally, along an axis every tied
// extreme receives all of it.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

struct ExtremeRow {
  const char* name;
  RowDoc doc;
  struct {
    Tensor (*all)(const Tensor&);
    Tensor (*along)(const Tensor&, const std::vector<int64_t>&, bool);
    bool needs_true;  // requires_grad must be the object True (min) or truthy (max)
  } math;
  struct {
    const char* label_tail;  // str(t.shape) + tail
    const char* opname;
    const char* opid_infix;  // {t}<infix>[axis]_{y}
    const char* link;
  } trace;
};

const ExtremeRow kExtremes[] = {
    {"min", {"The smallest value, of all elements or along one axis; NaN propagates."},
     {&tramel::min, &tramel::min, true}, {" min grad", "Min", "_min_", " min "}},
    {"max", {"The largest value, of all elements or along one axis; NaN propagates."},
     {&tramel::max, &tramel::max, false}, {" max grad", "Max", "_max_", " max "}},
};

// _min_max_match_shape: x expanded over `shape`, with a length-one axis at
// `axes` (all axes when empty).
Tensor match_shape(const Tensor& x, const Shape& shape, const InlineInts& axes) {
  Shape kept = shape;
  if (axes.empty())
    for (int i = 0; i < kept.rank(); ++i) kept[i] = 1;
  else
    kept[int(maybe_wrap_dim(axes[0], shape.rank()))] = 1;
  return broadcast_to(reshape(x, kept), shape);
}

TensorResult extreme(const ExtremeRow& row, const Derivatives& derivatives, TensorArg t, const py::Axis& axis,
                     nb::handle keepdims) {
  QTensor& q = as_qtensor(t, row.name);
  const Tensor& x = core_of(q, row.name);
  Shape shape = x.shape();
  InlineInts axes;
  if (!axis.is_none()) axes = {axis.get(row.name)};
  Tensor data = axis.is_none() ? row.math.all(x) : row.math.along(x, axes.vector(), truthy(keepdims));
  nb::handle requires_grad = q.requires_grad;
  if (row.math.needs_true) requires_grad = is_true(q.requires_grad) ? Py_True : Py_False;
  nb::object y = make_result(std::move(data), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = axes;
    e.label = LazyLabel().shape(shape).then(row.trace.label_tail);
  }, {requires_grad, q.device});
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t, LazyLabel(row.trace.link)}});
    nb::dict attribute;
    attribute["axis"] = axis;
    attribute["keepdims"] = keepdims;
    return make_record(id_text(t) + row.trace.opid_infix + py_text(axis) + "_" + id_text(y), row.trace.opname, {t},
                       y, attribute);
  });
  return y;
}

}  // namespace

// Over all elements tied extremes split the gradient equally; along an axis
// every tied extreme receives all of it.
Tensor min_max_grad(const Tensor& g, const Tensor& input, const Tensor& result, const InlineInts& axes) {
  Tensor mask = compare(CompareOp::Equal, input, match_shape(result, input.shape(), axes));
  Tensor prod = binary(BinaryOp::Mul, match_shape(g, input.shape(), axes), mask);
  if (!axes.empty()) return prod;
  Tensor ties = sum(mask);
  return binary(BinaryOp::Div, prod, broadcast_to(ties, prod.shape()));
}

void init_min_max(nb::module_& m, nb::class_<QTensor>&) {
  nb::list names;
  for (const ExtremeRow& row : kExtremes) {
    const ExtremeRow* r = &row;
    const Derivatives* d = &derivatives_of(row.name);
    m.def(row.name,
          [r, d](TensorArg t, const py::Axis& axis, nb::handle keepdims) { return extreme(*r, *d, t, axis, keepdims); },
          nb::arg("t").none(), nb::arg("axis").none() = nb::none(), nb::arg("keepdims").none() = false,
          py::doc(row.doc.summary, {"t: a QTensor of a real dtype.", kOneAxis, kKeepAxis},
                  "A new QTensor; differentiable: over all elements tied extremes share the gradient equally, "
                  "along an axis each receives all of it.").c_str());
    names.append(row.name);
  }
  register_family_names("extremes", names);
  m.def("_min_max_match_shape", [](nb::handle x, const py::IntList& shape, const py::Axis& axis) {
    InlineInts axes;
    if (!axis.is_none()) axes = {axis.get("_min_max_match_shape")};
    return wrap_core(match_shape(as_core(x, "_min_max_match_shape"), shape.shape("_min_max_match_shape"), axes));
  }, nb::arg("x").none(), nb::arg("shape").none(), nb::arg("axis").none(),
     py::doc("A reduced tensor spread back over a shape, as the gradient of min and max does it.",
             {"x: a _core.Tensor, reduced along axis (or over all elements).", "shape: the shape to spread over.",
              "axis: the reduced axis, or None for all of them."},
             "A new _core.Tensor of the shape.").c_str());
  m.def("_min_max_grad", [](nb::handle x, nb::handle result, nb::handle inputs, const py::Axis& axis) {
    // The same computation as an edge of min/max, on core tensors given
    // directly; a float result becomes a core tensor on the inputs' device.
    nb::object value = PyFloat_Check(result.ptr())
                           ? nb::handle(core_tensor_type())(result, as_core(inputs, "_min_max_grad").device())
                           : nb::borrow(result);
    InlineInts axes;
    if (!axis.is_none()) axes = {axis.get("_min_max_grad")};
    return wrap_core(min_max_grad(as_core(x, "_min_max_grad"), as_core(inputs, "_min_max_grad"),
                                  as_core(value, "_min_max_grad"), axes));
  }, nb::arg("x").none(), nb::arg("result").none(), nb::arg("inputs").none(), nb::arg("axis").none(),
     py::doc("The gradient of min or max, as their edges compute it.",
             {"x: the incoming gradient, a _core.Tensor.", "result: the forward result, a _core.Tensor or a float.",
              "inputs: the forward input, a _core.Tensor.", "axis: the reduced axis, or None for all elements."},
             "A new _core.Tensor of the input's shape: over all elements tied extremes share the gradient equally, "
             "along an axis each receives all of it.").c_str());
}

TRAMEL_FAMILY(init_min_max);

}  // namespace tramel::tensor
