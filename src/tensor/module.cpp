// pytramel.tensor.tensor: QTensor, autograd, the export trace and the
// operator families.
#include <nanobind/nanobind.h>

#include "interop/interop.h"
#include "tensor/operator.h"

namespace nb = nanobind;
using namespace tramel::tensor;

NB_MODULE(tensor, m) {
  // The engine's bindings register _core.Tensor, which this module shares.
  nb::module_ core = nb::module_::import_("pytramel._core");
  tramel::py::register_error_translator();

  m.attr("CoreTensor") = core.attr("Tensor");
  m.attr("_core") = core;
  m.attr("_tramel") = core.attr("tramel");
  m.attr("np") = nb::module_::import_("numpy");
  nb::module_ builtins = nb::module_::import_("builtins");
  m.attr("py_slice") = builtins.attr("slice");
  m.attr("py_max") = builtins.attr("max");
  nb::module_ device = nb::module_::import_("pytramel.device");
  for (const char* name : {"DEV_CPU", "DEV_GPU_0", "DEV_GPU_1", "DEV_GPU_2", "DEV_GPU_3", "DEV_GPU_4", "DEV_GPU_5",
                           "DEV_GPU_6", "DEV_GPU_7"})
    m.attr(name) = device.attr(name);
  nb::module_ dtype = nb::module_::import_("pytramel.dtype");
  for (const char* name : {"kbool", "kuint8", "kint8", "kint16", "kint32", "kint64", "kfloat32", "kfloat64",
                           "kcomplex64", "kcomplex128", "get_default_dtype", "get_readable_dtype_str", "dtype_map"})
    m.attr(name) = dtype.attr(name);

  init_export(m);
  nb::class_<QTensor> cls = init_qtensor(m);
  init_host(m, cls);
  init_device(m, cls);
  init_query(m, cls);
  init_gradfn(m);
  init_autograd(m);
  init_creation(m);
  init_families(m, cls);  // See Note [family registration]
  init_operator_tables(m);
}
