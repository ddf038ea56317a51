// Data out to numpy, copies and clones of a tensor, and small dtype helpers.
#include "interop/docs.h"
#include "interop/interop.h"
#include "tensor/qtensor.h"

namespace tramel::tensor {

nb::object host_copy(const Tensor& t, const char* op) {
  return t.device() == kCpuDevice ? py::numpy_copy(t, op) : py::numpy_copy(to_device(t, kCpuDevice, op), op);
}

namespace {

nb::object to_numpy(nb::handle self) { return host_copy(core_of(as_qtensor(self, "to_numpy"), "to_numpy"), "to_numpy"); }

// A copy of self's values on self's device, as a QTensor without graph.
nb::object copy(nb::handle self) {
  QTensor& s = as_qtensor(self, "copy");
  const Tensor& data = core_of(s, "copy");
  nb::object copied = wrap_core(to_device(data, data.device(), "copy"));
  return construct_qtensor(copied, Py_False, Py_None, s.device, Py_None);
}

// A second result of the operation that made self: the same parents, new edges.
nb::object clone(nb::handle self) {
  QTensor& s = as_qtensor(self, "clone");
  const Tensor& data = core_of(s, "clone");
  nb::object copied = wrap_core(to_device(data, data.device(), "clone"));
  nb::list nodes;
  if (truthy(s.requires_grad) && has_edges(s)) {
    // The clone shares the derivative objects, so self's edges become GraphNodes first.
    for (nb::handle edge : nodes_of(s)) {
      GraphNode& n = as_graphnode(edge, "clone");
      nodes.append(make_graphnode(n.tensor, n.df, graphnode_name(n)));
    }
  }
  return construct_qtensor(copied, s.requires_grad, nodes, s.device, Py_None);
}

void copy_value_from(nb::handle self, nb::handle other) {
  QTensor& dst = as_qtensor(self, "copy_value_from");
  QTensor& src = as_qtensor(other, "copy_value_from");
  DType dtype = core_of(dst, "copy_value_from").dtype();
  // The source keeps the converted data: it is changed, as its users expect.
  if (core_of(src, "copy_value_from").dtype() != dtype)
    set_data(src, wrap_core(to_dtype(core_of(src, "copy_value_from"), dtype, false)));
  copy_into(core_of(src, "copy_value_from"), core_of(dst, "copy_value_from"));
}

nb::object float2complex(nb::handle param) {
  nb::object dtype = param.attr("dtype");
  auto is = [&](DType d) { return dtype.equal(nb::int_(int(d))); };
  if (is(DType::Float32)) return param.attr("astype")(int(DType::Complex64));
  if (is(DType::Float64)) return param.attr("astype")(int(DType::Complex128));
  if (is(DType::Complex128) || is(DType::Complex64)) return nb::borrow(param);
  throw nb::value_error("data type of complex or float is supported");
}

}  // namespace

void init_host(nb::module_& m, nb::class_<QTensor>& cls) {
  nb::module_ builtins = nb::module_::import_("builtins");
  m.attr("numeric_types") = nb::make_tuple(builtins.attr("float"), builtins.attr("int"),
                                           nb::module_::import_("numpy").attr("generic"));
  m.attr("slice_none_Placeholder") = 2147483646;

  constexpr const char* kNumpyCopy = "A new numpy array.";
  cls.def("to_numpy", &to_numpy, py::doc("A numpy copy of the values, from any device.", {}, kNumpyCopy).c_str());
  cls.def_static("_to_numpy", [](TensorArg qtensor) { return to_numpy(qtensor); }, nb::arg("qtensor").none(),
                 py::doc("A numpy copy of a tensor's values, from any device.", {"qtensor: a QTensor."}, kNumpyCopy)
                     .c_str());
  cls.def("numpy", [](const QTensor& q) {
    const Tensor& data = core_of(q, "numpy");
    if (data.device() != kCpuDevice)
      throw std::runtime_error(
          "to_numpy can only use on CPU Tensor.Please use toCPU() to move data to CPU, or use CPU() to copy data "
          "to CPU.");
    return py::numpy_copy(data, "numpy");
  }, py::doc("A numpy copy of the values of a processor tensor; an accelerator tensor is refused.", {}, kNumpyCopy)
         .c_str());
  cls.def("_copy_c_data_from", [](QTensor& self, TensorArg other) {
    copy_into(core_of(as_qtensor(other, "_copy_c_data_from"), "_copy_c_data_from"), core_of(self, "_copy_c_data_from"));
  }, nb::arg("qtensor").none(),
     py::doc("Copies another tensor's values into this one, in place, converted to this one's dtype.",
             {"qtensor: a QTensor of this tensor's shape."}).c_str());
  cls.def("copy_value_from", [](nb::handle self, TensorArg other) { copy_value_from(self, other); },
          nb::arg("other_tensor").none(),
          py::doc("Copies another tensor's values into this one, in place; the other tensor's data is first "
                  "converted to this one's dtype, and keeps it.",
                  {"other_tensor: a QTensor of this tensor's shape."}).c_str());
  cls.def("copy", [](nb::handle self) -> TensorResult { return copy(self); },
          py::doc("A copy of the values on the same device, cut off from the graph.", {},
                  "A new QTensor; requires_grad False.").c_str());
  cls.def("clone", [](nb::handle self) -> TensorResult { return clone(self); },
          py::doc("A copy of the values that is a second result of the operation that made this tensor: while "
                  "requires_grad is true, its edges lead to the same inputs, and this tensor gets no gradient "
                  "from it.",
                  {}, "A new QTensor with this tensor's requires_grad.").c_str());
  cls.def_prop_ro("is_bool", [](const QTensor& q) { return core_of(q, "is_bool").dtype() == DType::Bool; },
                  "Whether the dtype is kbool.");

  m.def("helper_function_to_cast_core_tensor_dtype",
        [](nb::handle core_tensor, nb::handle target_dtype, nb::handle if_new) {
          return core_tensor.attr("toDtype")(target_dtype, if_new);
        },
        nb::arg("core_tensor").none(), nb::arg("target_dtype").none(), nb::arg("if_new").none() = false,
        py::doc("A core tensor converted to a dtype, by its toDtype method.",
                {"core_tensor: a _core.Tensor.", "target_dtype: a dtype constant.",
                 "if_new: a bool: copy even when the dtype is the tensor's own."},
                "A _core.Tensor: core_tensor itself when it has the dtype and if_new is false.").c_str());
  m.def("helper_function_copy_c_tensor", [](nb::handle src) {
    const Tensor& t = as_core(src, "helper_function_copy_c_tensor");
    return wrap_core(to_device(t, t.device(), "copyTensor"));
  }, nb::arg("src").none(),
     py::doc("A copy of a core tensor on its own device.", {"src: a _core.Tensor."}, "A new _core.Tensor.").c_str());
  m.def("float2complex", &float2complex, nb::arg("param").none(),
        py::doc("A real tensor converted to its complex partner: float32 to complex64, float64 to complex128.",
                {"param: a QTensor or a _core.Tensor of a float or complex dtype; other dtypes are refused."},
                "param.astype(the complex dtype), differentiable for a QTensor; param itself when it is complex "
                "already.").c_str());
}

}  // namespace tramel::tensor
