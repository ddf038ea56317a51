// Creation functions of the spine: to_tensor, zeros, zeros_like, ones_like.
#include "bindings/interop.h"
#include "tensor/qtensor.h"

namespace tramel::tensor {

namespace {

// zeros_like / ones_like: a new leaf with t's description; when t requires a
// gradient, the result does too and gets a zero grad of its own at once.
nb::object filled_like(nb::handle t, nb::handle device, nb::handle dtype, int64_t value, const char* op) {
  QTensor& source = as_qtensor(t, op);
  const Tensor& data = core_of(source, op);
  DType d = dtype.is_none() ? data.dtype() : *py::dtype_arg(dtype, op);
  int dev = device.is_none() ? int(device_of(source.device, op)) : py::device_arg(device, op);
  nb::object result = qtensor_from_core(full(data.shape(), Scalar::from_int(value), dev, d, op));
  if (is_true(source.requires_grad)) {
    as_qtensor(result, op).requires_grad = nb::borrow(Py_True);
    zero_grad(result);
  }
  return result;
}

}  // namespace

nb::object zeros_like(nb::handle t, nb::handle device, nb::handle dtype) {
  return filled_like(t, device, dtype, 0, "zeros_like");
}

nb::object ones_like(nb::handle t, nb::handle device, nb::handle dtype) {
  return filled_like(t, device, dtype, 1, "ones_like");
}

void init_creation(nb::module_& m) {
  m.def("to_tensor", &to_tensor, nb::arg("x").none());
  m.def("zeros",
        [](nb::handle shape, nb::handle device, nb::handle dtype) {
          DType d = dtype.is_none() ? default_dtype() : *py::dtype_arg(dtype, "zeros");
          return qtensor_from_core(full(py::shape_arg(shape, "zeros"), Scalar::from_int(0),
                                        py::device_arg(device, "zeros"), d, "zeros"));
        },
        nb::arg("shape").none(), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  m.def("zeros_like", &zeros_like, nb::arg("t").none(), nb::arg("device").none() = nb::none(), nb::arg("dtype").none() = nb::none());
  m.def("ones_like", &ones_like, nb::arg("t").none(), nb::arg("device").none() = nb::none(), nb::arg("dtype").none() = nb::none());
}

}  // namespace tramel::tensor
