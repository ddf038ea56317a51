// _core.Tensor: the engine's array class.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

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
          nb::arg("array"), nb::arg("device").none() = 0, nb::arg("dtype").none() = -1);

  cls.def_prop_ro("shape", [](const Tensor& t) { return py::shape_list(t.shape()); });
  cls.def("getShape", [](const Tensor& t) { return py::shape_list(t.shape()); });
  cls.def_prop_ro("ndim", &Tensor::ndim);
  cls.def_prop_ro("size", &Tensor::numel);
  cls.def_prop_ro("dtype", [](const Tensor& t) { return int(t.dtype()); });
  cls.def_prop_ro("device", &Tensor::device);
  cls.def("__repr__", [](const Tensor& t) {
    return "<pytramel._core.Tensor shape=" + t.shape().str() + " dtype=" + dtype_name(t.dtype()) +
           " device=" + std::to_string(t.device()) + ">";
  });
  cls.def("info", [](const Tensor& t) { nb::print(t.describe().c_str()); });

  // numpy and DLPack.
  cls.def("__array__",
          [](const Tensor& t, nb::handle dtype, nb::handle copy) {
            if (copy.is(nb::handle(Py_False)))
              fail(ErrorKind::Value, "__array__", "a tensor is always copied into numpy; copy=False is impossible");
            nb::object out = py::numpy_copy(t, "__array__");
            return dtype.is_none() ? out : out.attr("astype")(dtype);
          },
          nb::arg("dtype").none() = nb::none(), nb::arg("copy").none() = nb::none());
  cls.def("__dlpack__",
          [](const Tensor& t, nb::kwargs) { return py::dlpack_capsule(t); }, nb::arg("kwargs"));
  cls.def("__dlpack_device__", [](const Tensor& t) {
    require_host_addressable(t.device(), "__dlpack_device__");
    return nb::make_tuple(1, 0);  // host memory
  });

  // Creation.
  cls.def_static("empty", [](const py::Dims& shape, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return Tensor::empty(shape.get("empty"), dtype.get_or("empty", default_dtype()), device.get("empty"));
  }, nb::arg("shape"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("zeros", [](const py::Dims& shape, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return full(shape.get("zeros"), Scalar::from_int(0), device.get("zeros"),
                dtype.get_or("zeros", default_dtype()), "zeros");
  }, nb::arg("shape"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("ones", [](const py::Dims& shape, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return full(shape.get("ones"), Scalar::from_int(1), device.get("ones"),
                dtype.get_or("ones", default_dtype()), "ones");
  }, nb::arg("shape"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("full", [](const py::Dims& shape, const py::HostScalar& value, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return full(shape.get("full"), value.get("full"), device.get("full"),
                dtype.get_or("full", default_dtype()));
  }, nb::arg("shape"), nb::arg("value"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("arange", [](double start, double end, double step, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return arange(start, end, step, device.get("arange"), dtype.get_or("arange", default_dtype()));
  }, nb::arg("start"), nb::arg("end"), nb::arg("step") = 1.0, nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("linspace", [](double start, double end, int64_t nums, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return linspace(start, end, nums, device.get("linspace"), dtype.get_or("linspace", default_dtype()));
  }, nb::arg("start"), nb::arg("end"), nb::arg("nums"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("logspace", [](double start, double end, int64_t nums, double base, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return logspace(start, end, nums, base, device.get("logspace"), dtype.get_or("logspace", default_dtype()));
  }, nb::arg("start"), nb::arg("end"), nb::arg("nums"), nb::arg("base") = 10.0, nb::arg("device").none() = 0,
     nb::arg("dtype").none() = nb::none());
  cls.def_static("eye", [](int64_t size, int64_t offset, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return eye(size, offset, device.get("eye"), dtype.get_or("eye", default_dtype()));
  }, nb::arg("size"), nb::arg("offset") = 0, nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("diag", [](const Tensor& t, int64_t k) { return diag(t, k); }, nb::arg("data"), nb::arg("k") = 0);
  cls.def_static("randu", [](const py::Dims& shape, double low, double high, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return randu(shape.get("randu"), low, high, device.get("randu"), dtype.get_or("randu", default_dtype()));
  }, nb::arg("shape"), nb::arg("min") = 0.0, nb::arg("max") = 1.0, nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("randn", [](const py::Dims& shape, double mean, double std, const py::DeviceArg& device, const py::DTypeArg& dtype) {
    return randn(shape.get("randn"), mean, std, device.get("randn"), dtype.get_or("randn", default_dtype()));
  }, nb::arg("shape"), nb::arg("mean") = 0.0, nb::arg("std") = 1.0, nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());

  // Devices.
  cls.def("CPU", [](const Tensor& t, const py::DeviceArg& n) { return to_device(t, processor(n, "CPU"), "CPU"); },
          nb::arg("device").none() = 0);
  cls.def("GPU", [](const Tensor& t, const py::DeviceArg& n) { return to_device(t, accelerator(n, "GPU"), "GPU"); },
          nb::arg("device").none() = kFirstAccelerator);
  cls.def("toCPU", [](Tensor& t, const py::DeviceArg& n) { move_to(t, processor(n, "toCPU"), "toCPU"); },
          nb::arg("device").none() = 0);
  cls.def("toGPU", [](Tensor& t, const py::DeviceArg& n) { move_to(t, accelerator(n, "toGPU"), "toGPU"); },
          nb::arg("device").none() = kFirstAccelerator);

  // Dtypes. toDtype with the tensor's own dtype returns the same object.
  cls.def("toDtype", [](nb::handle self, const py::DTypeArg& dtype, bool if_new) -> nb::object {
    const Tensor& t = nb::cast<const Tensor&>(self);
    DType d = dtype.get("toDtype");
    if (d == t.dtype() && !if_new) return nb::borrow(self);
    return nb::cast(to_dtype(t, d, true));
  }, nb::arg("dtype").none(), nb::arg("if_new") = false);
  cls.def("astype", [](const Tensor& t, const py::DTypeArg& dtype) { return to_dtype(t, dtype.get("astype"), true); },
          nb::arg("dtype").none());

  // Fills, in place.
  cls.def("fill_", [](Tensor& t, const py::HostScalar& v) { fill_(t, v.get("fill_")); }, nb::arg("value"));
  cls.def("fill_rand_uniform_", [](Tensor& t, double v) { fill_uniform_(t, 0.0, v); }, nb::arg("v") = 1.0);
  cls.def("fill_rand_uniform_withbound_", [](Tensor& t, double lo, double hi) { fill_uniform_(t, lo, hi); },
          nb::arg("min_value"), nb::arg("max_value"));
  cls.def("fill_rand_signed_uniform_", [](Tensor& t, double v) { fill_uniform_(t, -v, v); }, nb::arg("v") = 1.0);
  cls.def("fill_rand_normal_", [](Tensor& t, double m, double s, bool fast) { fill_normal_(t, m, s, fast); },
          nb::arg("m") = 0.0, nb::arg("s") = 1.0, nb::arg("fast_math") = true);
  cls.def("fill_rand_binary_", [](Tensor& t, double v) { fill_binary_(t, v); }, nb::arg("v") = 0.5);

  // Queries.
  cls.def("l2_norm", [](const Tensor& t) { return l2_norm(t); });
  cls.def("is_nonzero", [](const Tensor& t) { return is_nonzero(t); });
  cls.def("argmax", [](const Tensor& t) { return argmax(t); });
  cls.def("argmax", [](const Tensor& t, const py::Axes& dim, bool keepdims) { return argmax(t, dim.get("argmax", "axis"), keepdims); },
          nb::arg("dim"), nb::arg("keepdims"));
  cls.def("argmin", [](const Tensor& t) { return argmin(t); });
  cls.def("argmin", [](const Tensor& t, const py::Axes& dim, bool keepdims) { return argmin(t, dim.get("argmin", "axis"), keepdims); },
          nb::arg("dim"), nb::arg("keepdims"));
}
