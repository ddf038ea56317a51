// _core.tramel: the engine's free functions.
#include <nanobind/nanobind.h>

#include "interop/docs.h"
#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

void init_tramel_functions(nb::module_& m) {
  nb::module_ t = m.def_submodule("tramel", "Free functions of the core engine.");
  t.def("copyTensor", [](const Tensor& src, Tensor& dst) { copy_into(src, dst); }, nb::arg("src"), nb::arg("dst"),
        py::doc("Copies the elements of src into dst, converting to dst's dtype, across devices if need be.",
                {"src: a core tensor.", "dst: a core tensor of the same shape, written in place."})
            .c_str());
  t.def("all", [](const Tensor& x) { return all(x); }, nb::arg("x"),
        py::doc("Whether every element is nonzero.", {"x: a core tensor."}, "A bool.").c_str());
  t.def("any", [](const Tensor& x) { return any(x); }, nb::arg("x"),
        py::doc("Whether some element is nonzero.", {"x: a core tensor."}, "A bool.").c_str());
}
