// Creation functions: a QTensor from a description (shape, range, value) or
// from another tensor's description. Every result is a leaf.
//
// Three ways of attaching requires_grad:
//   A (from a shape): none, the result never requires a gradient;
//   B (like another tensor): when t.requires_grad is the object True, so does
//     the result, with a zero grad of its own at once;
//   C (ranges, random draws, diag): the argument is stored as given, and when
//     it is the object True the result gets a zero grad at once.
#include "interop/interop.h"
#include "tensor/qtensor.h"

namespace tramel::tensor {

namespace {

DType dtype_or_default(nb::handle dtype, const char* op) {
  return dtype.is_none() ? default_dtype() : *py::dtype_arg(dtype, op);
}

// Kind B: a new leaf with t's shape, and t's dtype and device unless given.
template <typename Make>
nb::object like(nb::handle t, nb::handle device, nb::handle dtype, const char* op, Make&& make) {
  QTensor& source = as_qtensor(t, op);
  const Tensor& data = core_of(source, op);
  DType d = dtype.is_none() ? data.dtype() : *py::dtype_arg(dtype, op);
  int dev = device.is_none() ? int(device_of(source.device, op)) : py::device_arg(device, op);
  nb::object result = qtensor_from_core(make(data.shape(), dev, d));
  if (is_true(source.requires_grad)) {
    as_qtensor(result, op).requires_grad = nb::borrow(Py_True);
    zero_grad(result);
  }
  return result;
}

// Kind C: requires_grad stored as given; the object True also makes a zero grad.
nb::object with_requires_grad(Tensor t, nb::handle requires_grad) {
  nb::object result = qtensor_from_core(std::move(t));
  as_qtensor(result, "creation").requires_grad = nb::borrow(requires_grad);
  if (is_true(requires_grad)) zero_grad(result);
  return result;
}

Tensor filled(const Shape& shape, int device, DType dtype, const Scalar& value, const char* op) {
  return full(shape, value, device, dtype, op);
}

}  // namespace

nb::object zeros_like(nb::handle t, nb::handle device, nb::handle dtype) {
  return like(t, device, dtype, "zeros_like",
              [](const Shape& s, int dev, DType d) { return filled(s, dev, d, Scalar::from_int(0), "zeros_like"); });
}

nb::object ones_like(nb::handle t, nb::handle device, nb::handle dtype) {
  return like(t, device, dtype, "ones_like",
              [](const Shape& s, int dev, DType d) { return filled(s, dev, d, Scalar::from_int(1), "ones_like"); });
}

void init_creation(nb::module_& m) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  nb::object none = nb::none();
  m.def("to_tensor", &to_tensor, arg("x"));

  // Kind A.
  m.def("zeros", [](nb::handle shape, nb::handle device, nb::handle dtype) {
    return qtensor_from_core(filled(py::shape_arg(shape, "zeros"), py::device_arg(device, "zeros"),
                                    dtype_or_default(dtype, "zeros"), Scalar::from_int(0), "zeros"));
  }, arg("shape"), arg("device") = 0, arg("dtype") = none);
  m.def("ones", [](nb::handle shape, nb::handle device, nb::handle dtype) {
    return qtensor_from_core(filled(py::shape_arg(shape, "ones"), py::device_arg(device, "ones"),
                                    dtype_or_default(dtype, "ones"), Scalar::from_int(1), "ones"));
  }, arg("shape"), arg("device") = 0, arg("dtype") = none);
  m.def("empty", [](nb::handle shape, nb::handle device, nb::handle dtype) {
    return qtensor_from_core(Tensor::empty(py::shape_arg(shape, "empty"), dtype_or_default(dtype, "empty"),
                                           py::device_arg(device, "empty")));
  }, arg("shape"), arg("device") = 0, arg("dtype") = none);
  m.def("full", [](nb::handle shape, nb::handle value, nb::handle device, nb::handle dtype) {
    return qtensor_from_core(filled(py::shape_arg(shape, "full"), py::device_arg(device, "full"),
                                    dtype_or_default(dtype, "full"), py::scalar_arg(value, "full"), "full"));
  }, arg("shape"), arg("value"), arg("device") = 0, arg("dtype") = none);

  // Kind B.
  m.def("zeros_like", &zeros_like, arg("t"), arg("device") = none, arg("dtype") = none);
  m.def("ones_like", &ones_like, arg("t"), arg("device") = none, arg("dtype") = none);
  m.def("empty_like", [](nb::handle t, nb::handle device, nb::handle dtype) {
    return like(t, device, dtype, "empty_like", [](const Shape& s, int dev, DType d) { return Tensor::empty(s, d, dev); });
  }, arg("t"), arg("device") = none, arg("dtype") = none);
  m.def("full_like", [](nb::handle t, nb::handle value, nb::handle device, nb::handle dtype) {
    Scalar v = py::scalar_arg(value, "full_like");
    return like(t, device, dtype, "full_like",
                [&](const Shape& s, int dev, DType d) { return filled(s, dev, d, v, "full_like"); });
  }, arg("t"), arg("value"), arg("device") = none, arg("dtype") = none);

  // Kind C.
  m.def("arange", [](double start, double end, double step, nb::handle device, nb::handle dtype, nb::handle rg) {
    return with_requires_grad(
        arange(start, end, step, py::device_arg(device, "arange"), dtype_or_default(dtype, "arange")), rg);
  }, nb::arg("start"), nb::arg("end"), nb::arg("step") = 1, arg("device") = 0, arg("dtype") = none,
     arg("requires_grad") = false);
  m.def("linspace", [](double start, double end, int64_t nums, nb::handle device, nb::handle dtype, nb::handle rg) {
    return with_requires_grad(
        linspace(start, end, nums, py::device_arg(device, "linspace"), dtype_or_default(dtype, "linspace")), rg);
  }, nb::arg("start"), nb::arg("end"), nb::arg("nums"), arg("device") = 0, arg("dtype") = none,
     arg("requires_grad") = false);
  m.def("logspace", [](double start, double end, int64_t nums, double base, nb::handle device, nb::handle dtype,
                       nb::handle rg) {
    return with_requires_grad(logspace(start, end, nums, base, py::device_arg(device, "logspace"),
                                       dtype_or_default(dtype, "logspace")), rg);
  }, nb::arg("start"), nb::arg("end"), nb::arg("nums"), nb::arg("base"), arg("device") = 0, arg("dtype") = none,
     arg("requires_grad") = false);
  m.def("eye", [](int64_t size, int64_t offset, nb::handle device, nb::handle dtype, nb::handle rg) {
    return with_requires_grad(eye(size, offset, py::device_arg(device, "eye"), dtype_or_default(dtype, "eye")), rg);
  }, nb::arg("size"), nb::arg("offset") = 0, arg("device") = 0, arg("dtype") = none, arg("requires_grad") = false);
  m.def("randu", [](nb::handle shape, double low, double high, nb::handle device, nb::handle dtype, nb::handle rg) {
    return with_requires_grad(randu(py::shape_arg(shape, "randu"), low, high, py::device_arg(device, "randu"),
                                    dtype_or_default(dtype, "randu")), rg);
  }, arg("shape"), nb::arg("min") = 0.0, nb::arg("max") = 1.0, arg("device") = 0, arg("dtype") = none,
     arg("requires_grad") = false);
  m.def("randn", [](nb::handle shape, double mean, double std, nb::handle device, nb::handle dtype, nb::handle rg) {
    return with_requires_grad(randn(py::shape_arg(shape, "randn"), mean, std, py::device_arg(device, "randn"),
                                    dtype_or_default(dtype, "randn")), rg);
  }, arg("shape"), nb::arg("mean") = 0.0, nb::arg("std") = 1.0, arg("device") = 0, arg("dtype") = none,
     arg("requires_grad") = false);

  // Kind D: diag follows t's dtype and device, and is not differentiable.
  m.def("diag", [](nb::handle t, int64_t k, nb::handle rg) {
    return with_requires_grad(diag(core_of(as_qtensor(t, "diag"), "diag"), k), rg);
  }, arg("t"), nb::arg("k") = 0, arg("requires_grad") = false);
}

}  // namespace tramel::tensor
