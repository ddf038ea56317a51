// squeeze and unsqueeze: axes of length one dropped or inserted, as views.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

TensorResult squeeze_op(TensorArg t, const py::Axes& axis) {
  static const Derivatives& derivatives = derivatives_of("squeeze");
  const Tensor& x = core_of(t, "squeeze");
  int ndim = x.ndim();
  nb::object wrap_axis = nb::none();
  Tensor data;
  if (axis.is_none()) {
    data = squeeze(x);
  } else if (PyLong_Check(axis.ptr())) {
    int64_t w = maybe_wrap_dim(axis.get("squeeze", "axis", py::Bools::CountedAlone)[0], ndim);
    wrap_axis = nb::int_(w);
    data = squeeze(x, {w});
  } else if (PyList_Check(axis.ptr()) || PyTuple_Check(axis.ptr())) {
    nb::list wrapped;
    std::vector<int64_t> axes;
    for (int64_t a : axis.get("squeeze", "axis", py::Bools::CountedAlone)) {
      axes.push_back(maybe_wrap_dim(a, ndim));
      wrapped.append(axes.back());
    }
    wrap_axis = wrapped;
    data = squeeze(x, axes);
  } else {
    throw nb::value_error("Not supported input parameter for squeeze()'s axis");
  }
  Shape shape = x.shape();
  nb::object y = make_result(std::move(data), {t}, derivatives,
                             [&](int, Edge& e) { e.label = LazyLabel("squeeze grad of tensor ").shape(shape); });
  record_appended(t, y, "Squeeze", "_squeeze_", "_squeeze_ link dim = " + py_text(axis), "axis", wrap_axis);
  return y;
}

}  // namespace

nb::object unsqueeze_op(nb::handle t, nb::handle axis) {
  static const Derivatives& derivatives = derivatives_of("unsqueeze");
  const Tensor& x = core_of(t, "unsqueeze");
  int64_t a = py::integer(axis, "unsqueeze", "axis");
  int64_t w = maybe_wrap_dim_unsqueeze(a, x.ndim());
  Shape shape = x.shape();
  nb::object y = make_result(unsqueeze(x, w), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = {w};
    e.label = LazyLabel("unsqueeze grad tensor of ").shape(shape);
  });
  record_appended(t, y, "Unsqueeze", "_unsqueeze_", "_unsqueeze_ link dim = " + py_text(axis), "axis", nb::int_(w));
  return y;
}

void init_squeeze(nb::module_& m, nb::class_<QTensor>&) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  m.def("squeeze", &squeeze_op, arg("t"), arg("axis") = nb::none(),
        py::doc("The tensor without axes of length one.",
                {"t: a QTensor.",
                 "axis: None for every axis of length one, or an int, list or tuple of ints naming such axes."},
                "A new QTensor; differentiable.").c_str());
  m.def("unsqueeze", [](TensorArg t, const py::Axis& axis) -> TensorResult { return unsqueeze_op(t, axis); },
        arg("t"), arg("axis") = 0,
        py::doc("The tensor with an axis of length one inserted.", {"t: a QTensor.", kInsertedAxis},
                "A new QTensor; differentiable.").c_str());
}
TRAMEL_FAMILY(init_squeeze);

}  // namespace tramel::tensor
