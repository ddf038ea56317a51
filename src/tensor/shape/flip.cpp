// flip: the tensor reversed along some axes; the gradient flips back.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

TensorResult flip_op(TensorArg t, const py::Axes& flip_dims) {
  static const Derivatives& derivatives = derivatives_of("flip");
  const Tensor& x = core_of(t, "flip");
  std::vector<int64_t> dims = flip_dims.get("flip", "flip_dims");
  for (int64_t d : dims) maybe_wrap_dim(d, x.ndim());  // a check only: the core takes them as given
  Tensor data = flip(x, dims);
  Shape shape = data.shape();
  nb::object y = make_result(std::move(data), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = InlineInts(dims);
    e.label = LazyLabel("input grad ").shape(shape).then(" flip grad ").shape(shape);
  });
  // (sic) the double underscore of the opid.
  record_one_input(y, t, " flip ", "Flip", "_flip__", {{"dims", flip_dims}});
  return y;
}

}  // namespace

void init_flip(nb::module_& m, nb::class_<QTensor>&) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  m.def("flip", &flip_op, arg("t"), arg("flip_dims"),
        py::doc("The tensor reversed along axes.",
                {"t: a QTensor.", "flip_dims: an axis or a list of axes; negative ones count from the end."},
                "A new QTensor of t's shape; differentiable.").c_str());
}
TRAMEL_FAMILY(init_flip);

}  // namespace tramel::tensor
