// cumsum: running sums along one axis; the gradient runs them backwards.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

TensorResult cumsum_op(TensorArg t, const py::Axis& axis) {
  static const Derivatives& derivatives = derivatives_of("cumsum");
  const Tensor& x = core_of(t, "cumsum");
  int64_t a = axis.get("cumsum");
  Tensor data = cumsum(x, a);
  Shape shape = data.shape();
  nb::object y = make_result(std::move(data), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = {a};
    e.label = LazyLabel("input grad ").shape(shape).then(" cumsumgrad ").shape(shape);
  });
  // (sic) the double underscore of the opid.
  record_one_input(y, t, " cumsum ", "CumSum", "_cumsum__", {{"axis", axis}});
  return y;
}

}  // namespace

void init_cumsum(nb::module_& m, nb::class_<QTensor>&) {
  m.def("cumsum", &cumsum_op, nb::arg("t").none(), nb::arg("axis").none() = -1,
        py::doc("Running sums along one axis.", {"t: a QTensor.", "axis: the axis; negative ones count from the end."},
                "A new QTensor of t's shape; differentiable.").c_str());
}
TRAMEL_FAMILY(init_cumsum);

}  // namespace tramel::tensor
