// Device placement: copies to another device (GPU, CPU), moves in place
// (toGPU, toCPU), the device tests and getdata.
#include "interop/args.h"
#include "interop/docs.h"
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

int device_field(nb::handle self, const char* op) { return device_of(as_qtensor(self, op).device, op); }

}  // namespace

void init_device(nb::module_&, nb::class_<QTensor>& cls) {
  nb::object gpu0 = nb::int_(kFirstAccelerator);
  constexpr const char* kAccelerator = "device: an accelerator, 1000 and up.";
  constexpr const char* kCopy =
      "A new QTensor, a leaf; it keeps requires_grad, with a copy of grad, only when the tensor has a grad.";
  std::string gpu_doc = py::doc("A copy on an accelerator, cut off from the graph (with a warning when the "
                                "tensor requires a gradient and has edges).",
                                {kAccelerator}, kCopy);
  auto copy_to_gpu = [](nb::handle self, const py::DeviceArg& device) -> TensorResult { return gpu(self, device); };
  cls.def("GPU", copy_to_gpu, nb::arg("device").none() = gpu0, gpu_doc.c_str());
  cls.def("gpu", copy_to_gpu, nb::arg("device").none() = gpu0, gpu_doc.c_str());
  std::string cpu_doc = py::doc("A copy on the processor, cut off from the graph.", {}, kCopy);
  auto copy_to_cpu = [](nb::handle self) -> TensorResult { return cpu(self); };
  cls.def("CPU", copy_to_cpu, cpu_doc.c_str());
  cls.def("cpu", copy_to_cpu, cpu_doc.c_str());
  std::string to_gpu_doc =
      py::doc("Moves the tensor itself, and its grad, to an accelerator; its edges stay.", {kAccelerator},
              "This tensor.");
  auto move_to_gpu = [](nb::handle self, const py::DeviceArg& device) -> TensorResult { return to_gpu(self, device); };
  cls.def("toGPU", move_to_gpu, nb::arg("device").none() = gpu0, to_gpu_doc.c_str());
  cls.def("to_gpu", move_to_gpu, nb::arg("device").none() = gpu0, to_gpu_doc.c_str());
  std::string to_cpu_doc =
      py::doc("Moves the tensor itself, and its grad, to the processor; its edges stay.", {}, "This tensor.");
  auto move_to_cpu = [](nb::handle self) -> TensorResult { return to_cpu(self); };
  cls.def("toCPU", move_to_cpu, to_cpu_doc.c_str());
  cls.def("to_cpu", move_to_cpu, to_cpu_doc.c_str());
  cls.def("to_device", [](nb::handle self, const py::DeviceArg& device) -> nb::object {
    int d = device.get("to_device");
    if (d == kCpuDevice) return cpu(self);
    if (d >= kFirstAccelerator) return gpu(self, device);
    return nb::none();
  }, nb::arg("device").none(),
     py::doc("A copy on a device, as CPU() or GPU(device) make it.",
             {"device: 0 for the processor, or an accelerator (1000 and up)."},
             "A new QTensor; None for any other device number.").c_str());
  std::string is_cpu_doc = py::doc("Whether the tensor is on the processor (device 0).", {}, "A bool.");
  std::string is_gpu_doc = py::doc("Whether the tensor is on an accelerator (device 1000 and up).", {}, "A bool.");
  auto is_cpu = [](nb::handle self) { return device_field(self, "isCPU") == kCpuDevice; };
  auto is_gpu = [](nb::handle self) { return device_field(self, "isGPU") >= kFirstAccelerator; };
  cls.def("isCPU", is_cpu, is_cpu_doc.c_str());
  cls.def("is_cpu", is_cpu, is_cpu_doc.c_str());
  cls.def("isGPU", is_gpu, is_gpu_doc.c_str());
  cls.def("is_gpu", is_gpu, is_gpu_doc.c_str());
  cls.def("getdata", [](const QTensor& q) { return host_copy(core_of(q, "getdata"), "getdata"); },
          py::doc("A numpy copy of the values, from any device.", {}, "A new numpy array.").c_str());
}

}  // namespace tramel::tensor
