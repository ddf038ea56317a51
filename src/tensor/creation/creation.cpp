// Creation functions: a QTensor from a description (shape, range, value) or
// from another tensor's description. Every result is a leaf.
//
// Three ways of attaching requires_grad:
//   A (from a shape): none, the result never requires a gradient;
//   B (like another tensor): when t.requires_grad is the object True, so does
//     the result, with a zero grad of its own at once;
//   C (ranges, random draws, diag): the argument is stored as given, and when
//     it is the object True the result gets a zero grad at once.
#include "interop/args.h"
#include "interop/docs.h"
#include "interop/interop.h"
#include "tensor/qtensor.h"

namespace tramel::tensor {

namespace {

// Kind B: a new leaf with t's shape, and t's dtype and device unless given.
template <typename Make>
nb::object like(nb::handle t, const py::DeviceArg& device, const py::DTypeArg& dtype, const char* op, Make&& make) {
  QTensor& source = as_qtensor(t, op);
  const Tensor& data = core_of(source, op);
  DType d = dtype.get_or(op, data.dtype());
  int dev = device.is_none() ? device_of(source.device, op) : device.get(op);
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

// Argument and result texts that creation functions share.
constexpr const char* kShape = "shape: a list or tuple of dimensions.";
constexpr const char* kDevice = "device: a device number; 0, the processor, by default.";
constexpr const char* kDType = "dtype: a dtype constant; None for the default dtype.";
constexpr const char* kNewLeaf = "A new QTensor; requires_grad False.";
constexpr const char* kLikeT = "t: a QTensor whose shape the result takes.";
constexpr const char* kLikeDevice = "device: a device number; None for t's device.";
constexpr const char* kLikeDType = "dtype: a dtype constant; None for t's dtype.";
constexpr const char* kLike =
    "A new QTensor, a leaf; when t.requires_grad is True, so is the result's, with a zero grad of its own.";
constexpr const char* kRequiresGrad =
    "requires_grad: any object, kept as given; True also gives the result a zero grad at once.";

void init_creation(nb::module_& m) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  nb::object none = nb::none();
  m.def("to_tensor", [](nb::handle x) -> TensorResult { return to_tensor(x); }, arg("x"),
        py::doc("A QTensor for any value.", {(std::string("x: ") + kToTensorForms).c_str()}, kToTensorResult)
            .c_str());

  // Kind A.
  m.def("zeros", [](const py::Dims& shape, const py::DeviceArg& device, const py::DTypeArg& dtype) -> TensorResult {
    return qtensor_from_core(filled(shape.get("zeros"), device.get("zeros"), dtype.get_or("zeros", default_dtype()),
                                    Scalar::from_int(0), "zeros"));
  }, arg("shape"), arg("device") = 0, arg("dtype") = none,
     py::doc("A tensor of zeros.", {kShape, kDevice, kDType}, kNewLeaf).c_str());
  m.def("ones", [](const py::Dims& shape, const py::DeviceArg& device, const py::DTypeArg& dtype) -> TensorResult {
    return qtensor_from_core(filled(shape.get("ones"), device.get("ones"), dtype.get_or("ones", default_dtype()),
                                    Scalar::from_int(1), "ones"));
  }, arg("shape"), arg("device") = 0, arg("dtype") = none,
     py::doc("A tensor of ones.", {kShape, kDevice, kDType}, kNewLeaf).c_str());
  m.def("empty", [](const py::Dims& shape, const py::DeviceArg& device, const py::DTypeArg& dtype) -> TensorResult {
    return qtensor_from_core(
        uninitialized(shape.get("empty"), dtype.get_or("empty", default_dtype()), device.get("empty"), "empty"));
  }, arg("shape"), arg("device") = 0, arg("dtype") = none,
     py::doc("A tensor whose elements are not set.", {kShape, kDevice, kDType}, kNewLeaf).c_str());
  m.def("full", [](const py::Dims& shape, const py::HostScalar& value, const py::DeviceArg& device,
                    const py::DTypeArg& dtype) -> TensorResult {
    return qtensor_from_core(filled(shape.get("full"), device.get("full"), dtype.get_or("full", default_dtype()),
                                    value.get("full"), "full"));
  }, arg("shape"), arg("value"), arg("device") = 0, arg("dtype") = none,
     py::doc("A tensor with every element set to one value.",
             {kShape, "value: a host number, converted to the dtype.", kDevice, kDType}, kNewLeaf).c_str());

  // Kind B.
  m.def("zeros_like", [](TensorArg t, const py::DeviceArg& device, const py::DTypeArg& dtype) -> TensorResult {
    return zeros_like(t, device, dtype);
  }, arg("t"), arg("device") = none, arg("dtype") = none,
     py::doc("A tensor of zeros with the shape of another.", {kLikeT, kLikeDevice, kLikeDType}, kLike).c_str());
  m.def("ones_like", [](TensorArg t, const py::DeviceArg& device, const py::DTypeArg& dtype) -> TensorResult {
    return ones_like(t, device, dtype);
  }, arg("t"), arg("device") = none, arg("dtype") = none,
     py::doc("A tensor of ones with the shape of another.", {kLikeT, kLikeDevice, kLikeDType}, kLike).c_str());
  m.def("empty_like", [](TensorArg t, const py::DeviceArg& device, const py::DTypeArg& dtype) -> TensorResult {
    return like(t, device, dtype, "empty_like", [](const Shape& s, int dev, DType d) { return uninitialized(s, d, dev, "empty_like"); });
  }, arg("t"), arg("device") = none, arg("dtype") = none,
     py::doc("A tensor with the shape of another, whose elements are not set.", {kLikeT, kLikeDevice, kLikeDType},
             kLike).c_str());
  m.def("full_like", [](TensorArg t, const py::HostScalar& value, const py::DeviceArg& device,
                         const py::DTypeArg& dtype) -> TensorResult {
    Scalar v = value.get("full_like");
    return like(t, device, dtype, "full_like",
                [&](const Shape& s, int dev, DType d) { return filled(s, dev, d, v, "full_like"); });
  }, arg("t"), arg("value"), arg("device") = none, arg("dtype") = none,
     py::doc("A tensor with the shape of another and every element set to one value.",
             {kLikeT, "value: a host number, converted to the dtype.", kLikeDevice, kLikeDType}, kLike).c_str());

  // Kind C.
  constexpr const char* kVector = "A new one-dimensional QTensor, a leaf.";
  m.def("arange", [](double start, double end, double step, const py::DeviceArg& device, const py::DTypeArg& dtype,
                      nb::handle rg) -> TensorResult {
    return with_requires_grad(
        arange(start, end, step, device.get("arange"), dtype.get_or("arange", default_dtype())), rg);
  }, nb::arg("start"), nb::arg("end"), nb::arg("step") = 1, arg("device") = 0, arg("dtype") = none,
     arg("requires_grad") = false,
     py::doc("Evenly stepped values from start up to, not including, end.",
             {"start: the first value.", "end: the bound, not reached.", "step: the finite, non-zero step.", kDevice,
              kDType, kRequiresGrad},
             kVector).c_str());
  m.def("linspace", [](double start, double end, int64_t nums, const py::DeviceArg& device,
                        const py::DTypeArg& dtype, nb::handle rg) -> TensorResult {
    return with_requires_grad(
        linspace(start, end, nums, device.get("linspace"), dtype.get_or("linspace", default_dtype())), rg);
  }, nb::arg("start"), nb::arg("end"), nb::arg("nums"), arg("device") = 0, arg("dtype") = none,
     arg("requires_grad") = false,
     py::doc("nums evenly spaced values from start to end, both included.",
             {"start: the first value.", "end: the last value.", "nums: the number of values.", kDevice, kDType,
              kRequiresGrad},
             kVector).c_str());
  m.def("logspace", [](double start, double end, int64_t nums, double base, const py::DeviceArg& device,
                       const py::DTypeArg& dtype, nb::handle rg) -> TensorResult {
    return with_requires_grad(logspace(start, end, nums, base, device.get("logspace"),
                                       dtype.get_or("logspace", default_dtype())), rg);
  }, nb::arg("start"), nb::arg("end"), nb::arg("nums"), nb::arg("base"), arg("device") = 0, arg("dtype") = none,
     arg("requires_grad") = false,
     py::doc("base raised to nums evenly spaced exponents from start to end, both included.",
             {"start: the first exponent.", "end: the last exponent.", "nums: the number of values.",
              "base: the base.", kDevice, kDType, kRequiresGrad},
             kVector).c_str());
  m.def("eye", [](int64_t size, int64_t offset, const py::DeviceArg& device, const py::DTypeArg& dtype,
                  nb::handle rg) -> TensorResult {
    return with_requires_grad(eye(size, offset, device.get("eye"), dtype.get_or("eye", default_dtype())), rg);
  }, nb::arg("size"), nb::arg("offset") = 0, arg("device") = 0, arg("dtype") = none, arg("requires_grad") = false,
     py::doc("A square matrix with ones on one diagonal and zeros elsewhere.",
             {"size: the number of rows and columns.", "offset: the diagonal; positive above the main one.", kDevice,
              kDType, kRequiresGrad},
             "A new QTensor, a leaf.").c_str());
  m.def("randu", [](const py::Dims& shape, double low, double high, const py::DeviceArg& device,
                     const py::DTypeArg& dtype, nb::handle rg) -> TensorResult {
    return with_requires_grad(randu(shape.get("randu"), low, high, device.get("randu"),
                                    dtype.get_or("randu", default_dtype())), rg);
  }, arg("shape"), nb::arg("min") = 0.0, nb::arg("max") = 1.0, arg("device") = 0, arg("dtype") = none,
     arg("requires_grad") = false,
     py::doc("Uniform random draws in [min, max).",
             {kShape, "min: the lower bound.", "max: the upper bound.", kDevice, kDType, kRequiresGrad},
             "A new QTensor, a leaf.").c_str());
  m.def("randn", [](const py::Dims& shape, double mean, double std, const py::DeviceArg& device,
                     const py::DTypeArg& dtype, nb::handle rg) -> TensorResult {
    return with_requires_grad(randn(shape.get("randn"), mean, std, device.get("randn"),
                                    dtype.get_or("randn", default_dtype())), rg);
  }, arg("shape"), nb::arg("mean") = 0.0, nb::arg("std") = 1.0, arg("device") = 0, arg("dtype") = none,
     arg("requires_grad") = false,
     py::doc("Normal random draws.",
             {kShape, "mean: the mean.", "std: the standard deviation.", kDevice, kDType, kRequiresGrad},
             "A new QTensor, a leaf.").c_str());

  // Kind D: diag follows t's dtype and device, and is not differentiable.
  m.def("diag", [](TensorArg t, int64_t k, nb::handle rg) -> TensorResult {
    return with_requires_grad(diag(core_of(as_qtensor(t, "diag"), "diag"), k), rg);
  }, arg("t"), nb::arg("k") = 0, arg("requires_grad") = false,
     py::doc("A diagonal matrix from a vector, or a matrix's diagonal kept with zeros elsewhere.",
             {"t: a one- or two-dimensional QTensor.", "k: the diagonal; positive above the main one.", kRequiresGrad},
             "A new QTensor with t's dtype and device, a leaf: square from a vector, of t's shape from a matrix.")
         .c_str());
}

}  // namespace tramel::tensor
