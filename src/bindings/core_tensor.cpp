// _core.Tensor: the engine's array class.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

namespace {

nb::list shape_list(const Tensor& t) {
  nb::list out;
  for (int64_t d : t.shape()) out.append(d);
  return out;
}

DType dtype_or_default(nb::handle d, const char* op) {
  return d.is_none() ? default_dtype() : *py::dtype_arg(d, op);
}

std::vector<int64_t> axes_arg(nb::handle dim, const char* op) {
  std::vector<int64_t> axes;
  if (PyList_Check(dim.ptr()) || PyTuple_Check(dim.ptr())) {
    for (nb::handle a : dim) axes.push_back(py::int_arg(a, op, "axis"));
  } else {
    axes.push_back(py::int_arg(dim, op, "axis"));
  }
  return axes;
}

void move_to(Tensor& t, int device, const char* op) {
  if (t.device() != device) t.assign(to_device(t, device, op));
}

int accelerator_arg(nb::handle n, const char* op) {
  int device = py::device_arg(n, op);
  if (device < kFirstAccelerator)
    fail(ErrorKind::Value, op, "device " + std::to_string(device) + " is not an accelerator (1000 and up)");
  return device;
}

int processor_arg(nb::handle n, const char* op) {
  int device = py::device_arg(n, op);
  if (device != kCpuDevice) fail(ErrorKind::Value, op, "the processor is device 0, got " + std::to_string(device));
  return device;
}

}  // namespace

void init_tensor_class(nb::module_& m) {
  nb::class_<Tensor> cls(m, "Tensor", "A dense row-major array on one device.");
  m.attr("CoreTensor") = cls;

  cls.def("__init__",
          [](Tensor* self, nb::handle array, nb::handle device, nb::handle dtype) {
            std::optional<DType> d = py::dtype_arg(dtype, "Tensor", true);
            int dev = py::device_arg(device, "Tensor");
            backend_for(dev, "Tensor");
            nb::object source = nb::borrow(array);
            if (!nb::ndarray_check(array)) source = nb::module_::import_("numpy").attr("asarray")(array);
            new (self) Tensor(py::tensor_from_array(source, dev, d, "Tensor"));
          },
          nb::arg("array"), nb::arg("device").none() = 0, nb::arg("dtype").none() = -1);

  cls.def_prop_ro("shape", &shape_list);
  cls.def("getShape", &shape_list);
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
  cls.def_static("empty", [](nb::handle shape, nb::handle device, nb::handle dtype) {
    return Tensor::empty(py::shape_arg(shape, "empty"), dtype_or_default(dtype, "empty"), py::device_arg(device, "empty"));
  }, nb::arg("shape"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("zeros", [](nb::handle shape, nb::handle device, nb::handle dtype) {
    return full(py::shape_arg(shape, "zeros"), Scalar::from_int(0), py::device_arg(device, "zeros"),
                dtype_or_default(dtype, "zeros"), "zeros");
  }, nb::arg("shape"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("ones", [](nb::handle shape, nb::handle device, nb::handle dtype) {
    return full(py::shape_arg(shape, "ones"), Scalar::from_int(1), py::device_arg(device, "ones"),
                dtype_or_default(dtype, "ones"), "ones");
  }, nb::arg("shape"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("full", [](nb::handle shape, nb::handle value, nb::handle device, nb::handle dtype) {
    return full(py::shape_arg(shape, "full"), py::scalar_arg(value, "full"), py::device_arg(device, "full"),
                dtype_or_default(dtype, "full"));
  }, nb::arg("shape"), nb::arg("value"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("arange", [](double start, double end, double step, nb::handle device, nb::handle dtype) {
    return arange(start, end, step, py::device_arg(device, "arange"), dtype_or_default(dtype, "arange"));
  }, nb::arg("start"), nb::arg("end"), nb::arg("step") = 1.0, nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("linspace", [](double start, double end, int64_t nums, nb::handle device, nb::handle dtype) {
    return linspace(start, end, nums, py::device_arg(device, "linspace"), dtype_or_default(dtype, "linspace"));
  }, nb::arg("start"), nb::arg("end"), nb::arg("nums"), nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("logspace", [](double start, double end, int64_t nums, double base, nb::handle device, nb::handle dtype) {
    return logspace(start, end, nums, base, py::device_arg(device, "logspace"), dtype_or_default(dtype, "logspace"));
  }, nb::arg("start"), nb::arg("end"), nb::arg("nums"), nb::arg("base") = 10.0, nb::arg("device").none() = 0,
     nb::arg("dtype").none() = nb::none());
  cls.def_static("eye", [](int64_t size, int64_t offset, nb::handle device, nb::handle dtype) {
    return eye(size, offset, py::device_arg(device, "eye"), dtype_or_default(dtype, "eye"));
  }, nb::arg("size"), nb::arg("offset") = 0, nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("diag", [](const Tensor& t, int64_t k) { return diag(t, k); }, nb::arg("data"), nb::arg("k") = 0);
  cls.def_static("randu", [](nb::handle shape, double low, double high, nb::handle device, nb::handle dtype) {
    return randu(py::shape_arg(shape, "randu"), low, high, py::device_arg(device, "randu"), dtype_or_default(dtype, "randu"));
  }, nb::arg("shape"), nb::arg("min") = 0.0, nb::arg("max") = 1.0, nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());
  cls.def_static("randn", [](nb::handle shape, double mean, double std, nb::handle device, nb::handle dtype) {
    return randn(py::shape_arg(shape, "randn"), mean, std, py::device_arg(device, "randn"), dtype_or_default(dtype, "randn"));
  }, nb::arg("shape"), nb::arg("mean") = 0.0, nb::arg("std") = 1.0, nb::arg("device").none() = 0, nb::arg("dtype").none() = nb::none());

  // Devices.
  cls.def("CPU", [](const Tensor& t, nb::handle n) { return to_device(t, processor_arg(n, "CPU"), "CPU"); },
          nb::arg("device").none() = 0);
  cls.def("GPU", [](const Tensor& t, nb::handle n) { return to_device(t, accelerator_arg(n, "GPU"), "GPU"); },
          nb::arg("device").none() = kFirstAccelerator);
  cls.def("toCPU", [](Tensor& t, nb::handle n) { move_to(t, processor_arg(n, "toCPU"), "toCPU"); },
          nb::arg("device").none() = 0);
  cls.def("toGPU", [](Tensor& t, nb::handle n) { move_to(t, accelerator_arg(n, "toGPU"), "toGPU"); },
          nb::arg("device").none() = kFirstAccelerator);

  // Dtypes. toDtype with the tensor's own dtype returns the same object.
  cls.def("toDtype", [](nb::handle self, nb::handle dtype, bool if_new) -> nb::object {
    const Tensor& t = nb::cast<const Tensor&>(self);
    DType d = *py::dtype_arg(dtype, "toDtype");
    if (d == t.dtype() && !if_new) return nb::borrow(self);
    return nb::cast(to_dtype(t, d, true));
  }, nb::arg("dtype").none(), nb::arg("if_new") = false);
  cls.def("astype", [](const Tensor& t, nb::handle dtype) { return to_dtype(t, *py::dtype_arg(dtype, "astype"), true); },
          nb::arg("dtype").none());

  // Fills, in place.
  cls.def("fill_", [](Tensor& t, nb::handle v) { fill_(t, py::scalar_arg(v, "fill_")); }, nb::arg("value"));
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
  cls.def("argmax", [](const Tensor& t, nb::handle dim, bool keepdims) { return argmax(t, axes_arg(dim, "argmax"), keepdims); },
          nb::arg("dim"), nb::arg("keepdims"));
  cls.def("argmin", [](const Tensor& t) { return argmin(t); });
  cls.def("argmin", [](const Tensor& t, nb::handle dim, bool keepdims) { return argmin(t, axes_arg(dim, "argmin"), keepdims); },
          nb::arg("dim"), nb::arg("keepdims"));
}
