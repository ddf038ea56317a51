// tile: the tensor repeated along each axis; the gradient sums the repeats.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

TensorResult tile_op(TensorArg t, const py::IntList& reps) {
  if (!reps.is_none() && !PyList_Check(reps.ptr()))
    throw nb::type_error(("Argument 'reps' has incorrect type (expected list, got " +
                          std::string(nb::type_name(reps.type()).c_str()) + ")")
                             .c_str());
  static const Derivatives& derivatives = derivatives_of("tile");
  const Tensor& x = core_of(t, "tile");
  std::vector<int64_t> repeats = reps.get("tile", "reps");
  Shape shape = x.shape();
  nb::object y = make_result(tile(x, repeats), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = InlineInts(repeats);
    e.label = LazyLabel("tile grad dim = ").shape(shape);
  });
  record_appended(t, y, "Tile", "_tile_", "_tile_ link dim = " + py_text(reps), "reps", reps);
  return y;
}

}  // namespace

void init_tile(nb::module_& m, nb::class_<QTensor>&) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  m.def("tile", &tile_op, arg("t"), arg("reps"),
        py::doc("The tensor repeated along each axis, as numpy.tile repeats it.",
                {"t: a QTensor.", "reps: the number of repeats per axis, a list of ints."},
                "A new QTensor; differentiable, the gradient sums over the repeats.").c_str());
}
TRAMEL_FAMILY(init_tile);

}  // namespace tramel::tensor
