// median over all elements or one axis; not differentiable (no edges).
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

TensorResult median_op(TensorArg t, const py::Axis& axis, nb::handle keepdims) {
  QTensor& q = as_qtensor(t, "median");
  const Tensor& x = core_of(q, "median");
  if (axis.is_none())
    return make_leaf_result(median(x), {t}, {is_true(q.requires_grad) ? Py_True : Py_False, q.device});
  return make_leaf_result(median(x, {axis.get("median")}, truthy(keepdims)), {t},
                          {q.requires_grad, nb::handle()});
}

}  // namespace

void init_median(nb::module_& m, nb::class_<QTensor>&) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  m.def("median", &median_op, arg("t"), arg("axis") = nb::none(), arg("keepdims") = false,
        py::doc("The median, of all elements or along one axis; an even count gives the mean of the middle two.",
                {"t: a QTensor of a real dtype.", kOneAxis, kKeepAxis},
                "A new QTensor outside the graph: it passes requires_grad on, without edges.").c_str());
}
TRAMEL_FAMILY(init_median);

}  // namespace tramel::tensor
