// power: element-wise t1 ** t2 with broadcasting, and the power slot of QTensor.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

nb::object power(nb::handle x1, nb::handle x2) {
  static const Derivatives& derivatives = derivatives_of("power");
  auto [t1, t2] = prepare_binary(x1, x2);
  const Tensor& a = core_of(t1, "power");
  const Tensor& b = core_of(t2, "power");
  Tensor data = binary(BinaryOp::Pow, a, b);
  Shape base_shape = a.shape(), out_shape = data.shape();
  nb::object y = make_result(std::move(data), {t1, t2}, derivatives, [&](int i, Edge& e) {
    e.label = LazyLabel(i == 0 ? " x^a grad: input shape " : "a^x grad: input shape ")
                  .shape(base_shape)
                  .then(" power shape ")
                  .shape(out_shape);
  });
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t1, LazyLabel(" pow ")}, {t2, LazyLabel(" pow ")}});
    return make_record(ids(t1, "_pow_", t2) + "_" + id_text(y), "Pow", {t1, t2}, y, nb::dict());
  });
  return y;
}

}  // namespace

void init_power(nb::module_& m, nb::class_<QTensor>&) {
  m.def("power", [](TensorArg t1, TensorArg t2) -> TensorResult { return power(t1, t2); }, nb::arg("t1").none(),
        nb::arg("t2").none(),
        py::doc("Element-wise power t1 ** t2, the operands broadcast to one shape.", {"t1: a QTensor.", kSecondOperand},
                "A new QTensor; differentiable in both operands.").c_str());
  g_operators.pow = &power;  // the power slot of QTensor
}
TRAMEL_FAMILY(init_power);

}  // namespace tramel::tensor
