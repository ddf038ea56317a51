// pytramel._core: the engine's bindings. Convert, call, return.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include "bindings/interop.h"

namespace nb = nanobind;
using namespace tramel;

void init_tensor_class(nb::module_& m);
void init_tramel_functions(nb::module_& m);
void init_elementwise(nb::module_& m);
void init_shape(nb::module_& m);
void init_reduce(nb::module_& m);
void init_testing(nb::module_& m);

namespace {

// The Python values of the export settings. The engine keeps only the two
// flags the operators test; get returns exactly what set stored.
nb::dict& export_config() {
  static nb::dict* config = new nb::dict();  // lives as long as the interpreter
  return *config;
}

void set_export_config(nb::str key, nb::object value) {
  std::string k = nb::cast<std::string>(key);
  if (k != "save_constant" && k != "save_opinfo")
    fail(ErrorKind::Value, "set_onnx_convert_config",
         "unknown key '" + k + "'; the keys are 'save_constant' and 'save_opinfo'");
  export_config()[key] = value;
  ExportFlags& flags = export_flags();
  if (k == "save_constant") flags.save_constant_is_true = value.is(nb::handle(Py_True));
  else flags.save_opinfo_is_not_false = !value.is(nb::handle(Py_False));
}

nb::object get_export_config(nb::str key) {
  if (!export_config().contains(key))
    fail(ErrorKind::Value, "get_onnx_convert_config",
         "unknown key '" + nb::cast<std::string>(key) + "'; the keys are 'save_constant' and 'save_opinfo'");
  return export_config()[key];
}

}  // namespace

NB_MODULE(_core, m) {
  m.doc() = "The pytramel core engine: dense tensors on the processor and accelerators.";
  py::register_error_translator();

  const DType all_dtypes[] = {DType::Bool,    DType::UInt8,   DType::Int8,      DType::Int16,     DType::Int32,
                              DType::Int64,   DType::Float32, DType::Float64,   DType::Complex64, DType::Complex128};
  for (DType d : all_dtypes) m.attr((std::string("k") + dtype_name(d)).c_str()) = int(d);

  m.def("get_default_dtype", [] { return int(default_dtype()); });
  m.def("set_default_dtype", [](nb::handle d) { set_default_dtype(*py::dtype_arg(d, "set_default_dtype")); });
  m.def("get_readable_dtype_str", [](nb::handle d) { return dtype_name(*py::dtype_arg(d, "get_readable_dtype_str")); });
  m.def("manual_seed", [](uint64_t seed) { manual_seed(seed); }, nb::arg("seed"),
        "Seeds the one random generator behind every random fill.");
  m.def("set_num_threads", &set_num_threads, nb::arg("n"), "Threads that large loops split across.");
  m.def("get_num_threads", &get_num_threads);
  m.def("emulated_accelerator_count", &emulated_accelerator_count);
  m.def("device_available", &device_available);

  export_config()["save_constant"] = false;
  export_config()["save_opinfo"] = false;
  m.def("_set_export_config", &set_export_config, nb::arg("key"), nb::arg("value").none());
  m.def("_get_export_config", &get_export_config);

  init_tensor_class(m);
  init_tramel_functions(m);
  init_elementwise(m);
  init_shape(m);
  init_reduce(m);
  init_testing(m);
}
