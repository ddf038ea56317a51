// Device placement: copies to another device (GPU, CPU), moves in place
// (toGPU, toCPU), the device tests and getdata.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/qtensor.h"

namespace tramel::tensor {

namespace {

// A new leaf on `device` with self's values; requires_grad travels only with
// an existing grad, which is copied along. GPU passes the dtype on and warns
// that the graph stays behind; CPU does neither.
nb::object placed_copy(nb::handle self, int device, bool from_gpu_call, const char* op) {
  QTensor& s = as_qtensor(self, op);
  const Tensor& data = core_of(s, op);
  nb::object dtype = nb::int_(int(data.dtype()));
  nb::object device_obj = nb::int_(device);
  nb::object result = construct_qtensor(wrap_core(to_device(data, device, op)), Py_False, Py_None, device_obj,
                                        from_gpu_call ? dtype : nb::none());
  if (truthy(s.requires_grad)) {
    if (from_gpu_call && has_edges(s)) {
      static nb::handle warn = imported("warnings", "warn");
      warn("new Tensor will not keep current GraphNode");
    }
    if (!s.grad.is_none()) {
      const Tensor& grad = core_of(as_qtensor(s.grad, op), op);
      QTensor& r = as_qtensor(result, op);
      r.requires_grad = s.requires_grad;
      r.grad = construct_qtensor(wrap_core(to_device(grad, device, op)), Py_False, Py_None, device_obj, dtype);
    }
  }
  return result;
}

nb::object gpu(nb::handle self, const py::DeviceArg& device) {
  int d = device.get("GPU");
  if (d < kFirstAccelerator) throw nb::value_error("device should be DEV_GPU_0,DEV_GPU_1,... for GPU");
  return placed_copy(self, d, true, "GPU");
}

nb::object cpu(nb::handle self) { return placed_copy(self, kCpuDevice, false, "CPU"); }

// Moves self (and its grad) in place; GraphNodes keep their old device.
nb::object move(nb::handle self, int device, const char* op) {
  QTensor& s = as_qtensor(self, op);
  Tensor& data = core_of(s, op);
  if (data.device() != device) data.assign(to_device(data, device, op));
  s.device = nb::int_(device);
  if (truthy(s.requires_grad) && !s.grad.is_none()) {
    Tensor& grad = core_of(as_qtensor(s.grad, op), op);
    if (grad.device() != device) grad.assign(to_device(grad, device, op));
  }
  return nb::borrow(self);
}

}  // namespace

nb::object move_to_device(nb::handle self, int device) {
  return move(self, device, device == kCpuDevice ? "toCPU" : "toGPU");
}

namespace {

nb::object to_gpu(nb::handle self, const py::DeviceArg& device) {
  int d = device.get("toGPU");
  // (sic) "DEV_GPU" for DEV_GPU_0.
  if (d < kFirstAccelerator) throw nb::value_error("device should be DEV_GPU,DEV_GPU_1,... for GPU");
  return move(self, d, "toGPU");
}

nb::object to_cpu(nb::handle self) { return move(self, kCpuDevice, "toCPU"); }

int64_t device_field(nb::handle self, const char* op) { return device_of(as_qtensor(self, op).device, op); }

}  // namespace

void init_device(nb::module_&, nb::class_<QTensor>& cls) {
  nb::object gpu0 = nb::int_(kFirstAccelerator);
  cls.def("GPU", &gpu, nb::arg("device").none() = gpu0);
  cls.def("gpu", &gpu, nb::arg("device").none() = gpu0);
  cls.def("CPU", &cpu);
  cls.def("cpu", &cpu);
  cls.def("toGPU", &to_gpu, nb::arg("device").none() = gpu0);
  cls.def("to_gpu", &to_gpu, nb::arg("device").none() = gpu0);
  cls.def("toCPU", &to_cpu);
  cls.def("to_cpu", &to_cpu);
  cls.def("to_device", [](nb::handle self, const py::DeviceArg& device) -> nb::object {
    int d = device.get("to_device");
    if (d == kCpuDevice) return cpu(self);
    if (d >= kFirstAccelerator) return gpu(self, device);
    return nb::none();
  }, nb::arg("device").none());
  auto is_cpu = [](nb::handle self) { return device_field(self, "isCPU") == kCpuDevice; };
  auto is_gpu = [](nb::handle self) { return device_field(self, "isGPU") >= kFirstAccelerator; };
  cls.def("isCPU", is_cpu);
  cls.def("is_cpu", is_cpu);
  cls.def("isGPU", is_gpu);
  cls.def("is_gpu", is_gpu);
  cls.def("getdata", [](const QTensor& q) { return host_copy(core_of(q, "getdata"), "getdata"); });
}

}  // namespace tramel::tensor
