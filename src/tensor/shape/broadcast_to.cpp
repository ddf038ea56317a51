// broadcast_to: the tensor expanded to a shape; the gradient sums the expansion.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

TensorResult broadcast_to_op(TensorArg t, const py::IntList& ref) {
  static const Derivatives& derivatives = derivatives_of("broadcast_to");
  const Tensor& x = core_of(t, "broadcast_to");
  Shape shape = x.shape();
  Shape target = ref.shape("broadcast_to", "ref");
  nb::object y = make_result(broadcast_to(x, target), {t}, derivatives, [&](int, Edge& e) {
    e.label = LazyLabel::formatted("A grad " + shape.str() + " broadcast_to " + py_text(ref));
  });
  Shape out_shape = core_of(y, "broadcast_to").shape();
  record_always_linked(y, {{t, "link "}}, LazyLabel().shape(shape).then(" broadcast_to ").shape(out_shape), [&] {
    // (sic) the "+" of the opid.
    return make_record(id_text(t) + "_broadcast_to_+" + id_text(y), "Broadcast", {t}, y, nb::list());
  });
  return y;
}

}  // namespace

void init_broadcast_to(nb::module_& m, nb::class_<QTensor>&) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  m.def("broadcast_to", &broadcast_to_op, arg("t"), arg("ref"),
        py::doc("The tensor expanded to a shape by broadcasting.", {"t: a QTensor.", "ref: the shape, a list of ints."},
                "A new QTensor of that shape; differentiable, the gradient sums over the expansion.").c_str());
}
TRAMEL_FAMILY(init_broadcast_to);

}  // namespace tramel::tensor
