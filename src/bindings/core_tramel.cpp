// _core.tramel: the engine's free functions.
#include <nanobind/nanobind.h>

#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

void init_tramel_functions(nb::module_& m) {
  nb::module_ t = m.def_submodule("tramel", "Free functions of the core engine.");
  t.def("copyTensor", [](const Tensor& src, Tensor& dst) { copy_into(src, dst); }, nb::arg("src"), nb::arg("dst"));
  t.def("all", [](const Tensor& x) { return all(x); });
  t.def("any", [](const Tensor& x) { return any(x); });
}
