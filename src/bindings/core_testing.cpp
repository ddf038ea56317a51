// Private hooks of _core for the tests of the backend seam. They reach the
// emulated accelerators' backend only (Note [backend seam] in
// core/backend.h): which kernels ran there, a slot of its table emptied for a
// while, and the guard bytes behind its buffers.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "interop/docs.h"
#include "interop/interop.h"
#include "core/backend/emulated.h"

namespace nb = nanobind;
using namespace tramel;

void init_testing(nb::module_& m) {
  m.def("_kernel_slots", &emulated::kernel_slots,
        py::doc("Names of the kernel slots: 'convert', 'sum_pass', 'binary.mult', 'unary.exp', ...", {},
                "A list of str.").c_str());
  m.def("_kernel_calls", [] {
    nb::dict calls;
    for (const auto& [name, count] : emulated::kernel_calls()) calls[name.c_str()] = count;
    return calls;
  }, py::doc("Calls per kernel slot on the emulated accelerators since the last reset.", {},
             "A dict {slot: count} of the slots that ran.").c_str());
  m.def("_reset_kernel_calls", &emulated::reset_kernel_calls,
        py::doc("Forgets the kernel calls counted on the emulated accelerators.").c_str());
  m.def("_set_kernel_enabled", [](const std::string& slot, bool enabled) {
    emulated::set_kernel_enabled(slot, enabled, "_set_kernel_enabled");
  }, nb::arg("slot"), nb::arg("enabled"),
        py::doc("Empties or refills one slot of the emulated accelerators' kernel table.",
                {"slot: a name from _kernel_slots().", "enabled: False empties the slot, True refills it."})
            .c_str());
  m.def("_guard_violations", &emulated::guard_violations,
        py::doc("Buffers on emulated accelerators whose guard bytes were found overwritten; live ones are checked now.",
                {}, "The count since the process started.").c_str());
  m.def("_write_past_end", [](const Tensor& t, size_t nbytes) {
    emulated::write_past_end(t, nbytes, "_write_past_end");
  }, nb::arg("tensor"), nb::arg("nbytes"),
        py::doc("Writes bytes just past the end of a tensor's buffer, as a faulty kernel would.",
                {"tensor: a core tensor on an emulated accelerator.", "nbytes: how many bytes, at most 64."})
            .c_str());
}
