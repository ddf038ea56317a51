// pytramel._core: the engine's bindings. Convert, call, return.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include "interop/docs.h"
#include "interop/args.h"
#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

void init_tensor_class(nb::module_& m);
void init_tramel_functions(nb::module_& m);
void init_elementwise(nb::module_& m);
void init_shape(nb::module_& m);
void init_reduce(nb::module_& m);
void init_index(nb::module_& m);
void init_product(nb::module_& m);
void init_linalg(nb::module_& m);
void init_sort(nb::module_& m);
void init_selection(nb::module_& m);
void init_join(nb::module_& m);
void init_sequence(nb::module_& m);
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

  m.def("get_default_dtype", [] { return int(default_dtype()); },
        py::doc("The dtype of new floating tensors when none is given.", {}, "kfloat32 or kfloat64.").c_str());
  m.def("set_default_dtype", [](const py::DTypeArg& d) { set_default_dtype(d.get("set_default_dtype")); },
        nb::arg("dtype"),
        py::doc("Sets the dtype of new floating tensors when none is given.", {"dtype: kfloat32 or kfloat64."})
            .c_str());
  m.def("get_readable_dtype_str", [](const py::DTypeArg& d) { return dtype_name(d.get("get_readable_dtype_str")); },
        nb::arg("dtype"),
        py::doc("The numpy name of a dtype.", {"dtype: a dtype constant (kbool ... kcomplex128)."},
                "The name, such as 'float32'.").c_str());
  m.def("manual_seed", [](uint64_t seed) { manual_seed(seed); }, nb::arg("seed"),
        py::doc("Seeds the one random generator behind every random fill.",
                {"seed: a non-negative integer. A seed gives the same draws on one thread or many."}).c_str());
  m.def("set_num_threads", &set_num_threads, nb::arg("n"),
        py::doc("Sets the number of threads that large loops split across.",
                {"n: the number of threads, from 1 to four per processor (or the number the process started "
                 "with, if more)."}).c_str());
  m.def("get_num_threads", &get_num_threads,
        py::doc("The number of threads that large loops split across.", {}, "An int.").c_str());
  m.def("emulated_accelerator_count", &emulated_accelerator_count,
        py::doc("The number of emulated accelerators, devices 1000 and up, made at import when\n"
                "PYTRAMEL_EMULATED_ACCELERATORS is set.", {}, "An int, 0 when there are none.").c_str());
  m.def("device_available", &device_available, nb::arg("device"),
        py::doc("Whether something serves a device.",
                {"device: a device number (0 is the processor, 1000 and up are accelerators)."}, "A bool.")
            .c_str());

  export_config()["save_constant"] = false;
  export_config()["save_opinfo"] = false;
  m.def("_set_export_config", &set_export_config, nb::arg("key"), nb::arg("value").none(),
        py::doc("Stores an export setting (see pytramel.onnx.export.set_onnx_convert_config).",
                {"key: 'save_constant' or 'save_opinfo'.", "value: any object, kept as given."}).c_str());
  m.def("_get_export_config", &get_export_config, nb::arg("key"),
        py::doc("An export setting as it was stored.", {"key: 'save_constant' or 'save_opinfo'."},
                "The stored object.").c_str());

  init_tensor_class(m);
  init_tramel_functions(m);
  init_elementwise(m);
  init_shape(m);
  init_reduce(m);
  init_index(m);
  init_product(m);
  init_linalg(m);
  init_sort(m);
  init_selection(m);
  init_join(m);
  init_sequence(m);
  init_testing(m);
}
