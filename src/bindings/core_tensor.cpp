// _core.Tensor: the engine's array class.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "interop/docs.h"
#include "interop/args.h"
#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

namespace {

void move_to(Tensor& t, int device, const char* op) {
  if (t.device() != device) t.assign(to_device(t, device, op));
}

int accelerator(const py::DeviceArg& n, const char* op) {
  int device = n.get(op);
  if (device < kFirstAccelerator)
    fail(ErrorKind::Value, op, "device " + std::to_string(device) + " is not an accelerator (1000 and up)");
  return device;
}

int processor(const py::DeviceArg& n, const char* op) {
  int device = n.get(op);
  if (device != kCpuDevice) fail(ErrorKind::Value, op, "the processor is device 0, got " + std::to_string(device));
  return device;
}

}  // namespace

// Argument texts that creation functions share.
constexpr const char* kShape = "shape: a list or tuple of dimensions.";
constexpr const char* kDevice = "device: a device number; 0, the processor, by default.";
constexpr const char* kDType = "dtype: a dtype constant; None for the default dtype.";
constexpr const char* kNew = "A new core tensor.";

void init_tensor_class(nb::module_& m) {
  nb::class_<Tensor> cls(m, "Tensor", "A dense row-major array on one device.");
  m.attr("CoreTensor") = cls;

  cls.def("__init__",
          [](Tensor* self, nb::handle array, const py::DeviceArg& device, const py::DTypeArg& dtype) {
            std::optional<DType> d = dtype.marked("Tensor");
            int dev = device.get("Tensor");
            backend_for(dev, "Tensor");
            nb::object source = nb::borrow(array);
            if (!nb::ndarray_check(array)) source = nb::module_::import_("numpy").attr("asarray")(array);
            new (self) Tensor(py::tensor_from_array(source, dev, d, "Tensor"));
          },
          nb::arg("array"), nb::arg("device").none() = 0, nb::arg("dtype").none() = -1,
          py::doc("A copy of an array on a device.",
                  {"array: a numpy array, or anything numpy.asarray takes.", kDevice,
                   "dtype: a dtype constant to convert to; -1 keeps the array's own element type."})
              .c_str());

  cls.def_prop_ro("shape", [](const Tensor& t) { return py::shape_list(t.shape()); },
                  "The dimensions, as a new list of ints.");
  cls.def("getShape", [](const Tensor& t) { return py::shape_list(t.shape()); },
          py::doc("The dimensions.", {}, "A new list of ints.").c_str());
  cls.def_prop_ro("ndim", &Tensor::ndim, "The number of dimensions.");
  cls.def_prop_ro("size", &Tensor::numel, "The number of elements.");
  cls.def_prop_ro("dtype", [](const Tensor& t) { return int(t.dtype()); }, "The element type, a dtype constant.");
  cls.def_prop_ro("device", &Tensor::device, "The device number; 0 is the processor.");
  cls.def("__repr__", [](const Tensor& t) {
    return "<pytramel._core.Tensor shape=" + t.shape().str() + " dtype=" + dtype_name(t.dtype()) +
           " device=" + std::to_string(t.device()) + ">";
  }, py::doc("Shape, dtype and device, for display.", {}, "A str.").c_str());
  cls.def("info", [](const Tensor& t) { nb::print(t.describe().c_str()); },
          "Prints shape, dtype, device and storage of the tensor.");

  // numpy and DLPack.
  cls.def("__array__",
          [](const Tensor& t, nb::handle dtype, nb::handle copy) {
            if (copy.is(nb::handle(Py_False)))
              fail(ErrorKind::Value, "__array__", "a tensor is always copied into numpy; copy=False is impossible");
            nb::object out = py::numpy_copy(t, "__array__");
            return dtype.is_none() ? out : out.attr("astype")(dtype);
          },
          nb::arg("dtype").none() = nb::none(), nb::arg("copy").none() = nb::none(),
          py::doc("A numpy copy of a processor tensor (numpy.array(t)).",
                  {"dtype: a numpy dtype to convert to, or None.", "copy: None or True; False is refused."},
                  "A new numpy array.").c_str());
  cls.def("__dlpack__",
          [](const Tensor& t, nb::kwargs) { return py::dlpack_capsule(t); }, nb::arg("kwargs"),
          py::doc("A DLPack capsule sharing the storage of a processor tensor.",
                  {"kwargs: the DLPack protocol's keywords, ignored."}, "A 'dltensor' capsule.").c_str());
  cls.def("__dlpack_device__", [](const Tensor& t) {
    require_host_addressable(t.device(), "__dlpack_device__");
    return nb::make_tuple(1, 0);  // host memory
  }, py::doc("The DLPack device of a processor tensor.", {}, "(1, 0): host memory.").c_str());

  // Creation.
  cls.def_static("empty", [](const py::Dims& shape, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return uninitialized(shape.get("empty"), dtype.get_or("empty", default_dtype()), device.get("empty"), "empty");
  }, nb::arg("shape"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none(),
     py::doc("A tensor whose elements are not set.", {kShape, kDevice, kDType}, kNew).c_str());
  cls.def_static("zeros", [](const py::Dims& shape, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return full(shape.get("zeros"), Scalar::from_int(0), device.get("zeros"),
                dtype.get_or("zeros", default_dtype()), "zeros");
  }, nb::arg("shape"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none(),
     py::doc("A tensor of zeros.", {kShape, kDevice, kDType}, kNew).c_str());
  cls.def_static("ones", [](const py::Dims& shape, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return full(shape.get("ones"), Scalar::from_int(1), device.get("ones"),
                dtype.get_or("ones", default_dtype()), "ones");
  }, nb::arg("shape"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none(),
     py::doc("A tensor of ones.", {kShape, kDevice, kDType}, kNew).c_str());
  cls.def_static("full", [](const py::Dims& shape, const py::HostScalar& value, const py::DeviceArg& device,
                            const py::DTypeArg& dtype) {
    return full(shape.get("full"), value.get("full"), device.get("full"),
                dtype.get_or("full", default_dtype()));
  }, nb::arg("shape"), nb::arg("value"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none(),
     py::doc("A tensor with every element set to one value.",
             {kShape, "value: a host number, converted to the dtype.", kDevice, kDType}, kNew).c_str());
  cls.def_static("arange", [](double start, double end, double step, const py::DeviceArg& device,
                              const py::DTypeArg& dtype) {
    return arange(start, end, step, device.get("arange"), dtype.get_or("arange", default_dtype()));
  }, nb::arg("start"), nb::arg("end"), nb::arg("step") = 1.0, nb::arg("device").none() = 0,
     nb::arg("dtype").none() = nb::none(),
     py::doc("Evenly stepped values from start up to, not including, end.",
             {"start: the first value.", "end: the bound, not reached.", "step: the finite, non-zero step.", kDevice,
              kDType},
             "A new one-dimensional core tensor.").c_str());
  cls.def_static("linspace", [](double start, double end, int64_t nums, const py::DeviceArg& device,
                                const py::DTypeArg& dtype) {
    return linspace(start, end, nums, device.get("linspace"), dtype.get_or("linspace", default_dtype()));
  }, nb::arg("start"), nb::arg("end"), nb::arg("nums"), nb::arg("device").none() = 0,
     nb::arg("dtype").none() = nb::none(),
     py::doc("nums evenly spaced values from start to end, both included.",
             {"start: the first value.", "end: the last value.", "nums: the number of values.", kDevice, kDType},
             "A new one-dimensional core tensor.").c_str());
  cls.def_static("logspace", [](double start, double end, int64_t nums, double base, const py::DeviceArg& device,
                                const py::DTypeArg& dtype) {
    return logspace(start, end, nums, base, device.get("logspace"), dtype.get_or("logspace", default_dtype()));
  }, nb::arg("start"), nb::arg("end"), nb::arg("nums"), nb::arg("base") = 10.0, nb::arg("device").none() = 0,
     nb::arg("dtype").none() = nb::none(),
     py::doc("base raised to nums evenly spaced exponents from start to end, both included.",
             {"start: the first exponent.", "end: the last exponent.", "nums: the number of values.",
              "base: the base.", kDevice, kDType},
             "A new one-dimensional core tensor.").c_str());
  cls.def_static("eye", [](int64_t size, int64_t offset, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return eye(size, offset, device.get("eye"), dtype.get_or("eye", default_dtype()));
  }, nb::arg("size"), nb::arg("offset") = 0, nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none(),
     py::doc("A square matrix with ones on one diagonal and zeros elsewhere.",
             {"size: the number of rows and columns.", "offset: the diagonal; positive above the main one.", kDevice,
              kDType},
             kNew).c_str());
  cls.def_static("diag", [](const Tensor& t, int64_t k) { return diag(t, k); }, nb::arg("data"), nb::arg("k") = 0,
                 py::doc("A diagonal matrix from a vector, or a matrix's diagonal kept with zeros elsewhere.",
                         {"data: a one- or two-dimensional processor tensor.",
                          "k: the diagonal; positive above the main one."},
                         "A new square (from a vector) or same-shaped (from a matrix) core tensor.").c_str());
  cls.def_static("randu", [](const py::Dims& shape, double low, double high, const py::DeviceArg& device,
                             const py::DTypeArg& dtype) {
    return randu(shape.get("randu"), low, high, device.get("randu"), dtype.get_or("randu", default_dtype()));
  }, nb::arg("shape"), nb::arg("min") = 0.0, nb::arg("max") = 1.0, nb::arg("device").none() = 0,
     nb::arg("dtype").none() = nb::none(),
     py::doc("Uniform random draws in [min, max).", {kShape, "min: the lower bound.", "max: the upper bound.",
                                                      kDevice, kDType},
             kNew).c_str());
  cls.def_static("randn", [](const py::Dims& shape, double mean, double std, const py::DeviceArg& device,
                             const py::DTypeArg& dtype) {
    return randn(shape.get("randn"), mean, std, device.get("randn"), dtype.get_or("randn", default_dtype()));
  }, nb::arg("shape"), nb::arg("mean") = 0.0, nb::arg("std") = 1.0, nb::arg("device").none() = 0,
     nb::arg("dtype").none() = nb::none(),
     py::doc("Normal random draws.", {kShape, "mean: the mean.", "std: the standard deviation.", kDevice, kDType},
             kNew).c_str());

  // Devices.
  cls.def("CPU", [](const Tensor& t, const py::DeviceArg& n) { return to_device(t, processor(n, "CPU"), "CPU"); },
          nb::arg("device").none() = 0,
          py::doc("A copy on the processor.", {"device: 0, the processor."}, kNew).c_str());
  cls.def("GPU", [](const Tensor& t, const py::DeviceArg& n) { return to_device(t, accelerator(n, "GPU"), "GPU"); },
          nb::arg("device").none() = kFirstAccelerator,
          py::doc("A copy on an accelerator.", {"device: an accelerator, 1000 and up."}, kNew).c_str());
  cls.def("toCPU", [](Tensor& t, const py::DeviceArg& n) { move_to(t, processor(n, "toCPU"), "toCPU"); },
          nb::arg("device").none() = 0,
          py::doc("Moves the tensor itself to the processor; every reference to it sees the move.",
                  {"device: 0, the processor."}).c_str());
  cls.def("toGPU", [](Tensor& t, const py::DeviceArg& n) { move_to(t, accelerator(n, "toGPU"), "toGPU"); },
          nb::arg("device").none() = kFirstAccelerator,
          py::doc("Moves the tensor itself to an accelerator; every reference to it sees the move.",
                  {"device: an accelerator, 1000 and up."}).c_str());

  // Dtypes. toDtype with the tensor's own dtype returns the same object.
  cls.def("toDtype", [](nb::handle self, const py::DTypeArg& dtype, bool if_new) -> nb::object {
    const Tensor& t = nb::cast<const Tensor&>(self);
    DType d = dtype.get("toDtype");
    if (d == t.dtype() && !if_new) return nb::borrow(self);
    return nb::cast(to_dtype(t, d, true));
  }, nb::arg("dtype").none(), nb::arg("if_new") = false,
     py::doc("The tensor converted to a dtype.",
             {"dtype: a dtype constant.", "if_new: copy even when the dtype is the tensor's own."},
             "A new core tensor, or this one when it has the dtype and if_new is false.").c_str());
  cls.def("astype", [](const Tensor& t, const py::DTypeArg& dtype) { return to_dtype(t, dtype.get("astype"), true); },
          nb::arg("dtype").none(),
          py::doc("A copy converted to a dtype (complex to real keeps the real part).", {"dtype: a dtype constant."},
                  kNew).c_str());

  // Fills, in place.
  cls.def("fill_", [](Tensor& t, const py::HostScalar& v) { fill_(t, v.get("fill_")); }, nb::arg("value"),
          py::doc("Sets every element to one value, in place.", {"value: a host number, converted to the dtype."})
              .c_str());
  cls.def("fill_rand_uniform_", [](Tensor& t, double v) { fill_uniform_(t, 0.0, v); }, nb::arg("v") = 1.0,
          py::doc("Fills with uniform random draws in [0, v), in place.", {"v: the scale of the draws."}).c_str());
  cls.def("fill_rand_uniform_withbound_", [](Tensor& t, double lo, double hi) { fill_uniform_(t, lo, hi); },
          nb::arg("min_value"), nb::arg("max_value"),
          py::doc("Fills with uniform random draws in [min_value, max_value), in place.",
                  {"min_value: the lower bound.", "max_value: the upper bound."}).c_str());
  cls.def("fill_rand_signed_uniform_", [](Tensor& t, double v) { fill_uniform_(t, -v, v); }, nb::arg("v") = 1.0,
          py::doc("Fills with uniform random draws in [-v, v), in place.", {"v: the scale of the draws."}).c_str());
  cls.def("fill_rand_normal_", [](Tensor& t, double m, double s, bool fast) { fill_normal_(t, m, s, fast); },
          nb::arg("m") = 0.0, nb::arg("s") = 1.0, nb::arg("fast_math") = true,
          py::doc("Fills with normal random draws, in place.",
                  {"m: the mean.", "s: the standard deviation.",
                   "fast_math: draw float32 tensors in single precision."}).c_str());
  cls.def("fill_rand_binary_", [](Tensor& t, double v) { fill_binary_(t, v); }, nb::arg("v") = 0.5,
          py::doc("Fills with random zeros and ones, in place: one where a uniform draw in [0, 1) is at least v.",
                  {"v: the threshold."}).c_str());

  // Queries.
  cls.def("l2_norm", [](const Tensor& t) { return l2_norm(t); },
          py::doc("The Euclidean norm of all elements of a processor tensor.", {}, "A float.").c_str());
  cls.def("is_nonzero", [](const Tensor& t) { return is_nonzero(t); },
          py::doc("The truth of a one-element tensor.", {}, "A bool; ValueError for any other size.").c_str());
  cls.def("argmax", [](const Tensor& t) { return argmax(t); },
          py::doc("The flat index of the first largest element.", {},
                  "A one-element int64 core tensor on the tensor's device.").c_str());
  cls.def("argmax", [](const Tensor& t, const py::Axes& dim, bool keepdims) {
    return argmax(t, dim.get("argmax", "axis"), keepdims);
  }, nb::arg("dim"), nb::arg("keepdims"),
     py::doc("The index of the first largest element within the block of the given axes.",
             {"dim: an axis or a sequence of axes; negative ones count from the end.",
              "keepdims: keep the reduced axes with length one."},
             "A new int64 core tensor (row-major indices within the block).").c_str());
  cls.def("argmin", [](const Tensor& t) { return argmin(t); },
          py::doc("The flat index of the first smallest element.", {},
                  "A one-element int64 core tensor on the tensor's device.").c_str());
  cls.def("argmin", [](const Tensor& t, const py::Axes& dim, bool keepdims) {
    return argmin(t, dim.get("argmin", "axis"), keepdims);
  }, nb::arg("dim"), nb::arg("keepdims"),
     py::doc("The index of the first smallest element within the block of the given axes.",
             {"dim: an axis or a sequence of axes; negative ones count from the end.",
              "keepdims: keep the reduced axes with length one."},
             "A new int64 core tensor (row-major indices within the block).").c_str());
}
