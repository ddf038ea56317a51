// Private hooks of _core for the tests of the backend seam. They reach the
// emulated accelerators' backend only (Note [backend seam] in
// core/backend.h): which kernels ran there, a slot of its table emptied for a
// while, and the guard bytes behind its buffers.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "bindings/interop.h"
#include "core/backend/emulated.h"

namespace nb = nanobind;
using namespace tramel;

void init_testing(nb::module_& m) {
  m.def("_kernel_slots", &emulated::kernel_slots,
        "Names of the kernel slots: 'convert', 'sum_pass', 'binary.mult', 'unary.exp', ...");
  m.def("_kernel_calls", [] {
    nb::dict calls;
    for (const auto& [name, count] : emulated::kernel_calls()) calls[name.c_str()] = count;
    return calls;
  }, "Calls per kernel slot on the emulated accelerators since the last reset ({slot: count}, slots that ran).");
  m.def("_reset_kernel_calls", &emulated::reset_kernel_calls);
  m.def("_set_kernel_enabled", [](const std::string& slot, bool enabled) {
    emulated::set_kernel_enabled(slot, enabled, "_set_kernel_enabled");
  }, nb::arg("slot"), nb::arg("enabled"),
        "Empties (False) or refills (True) one slot of the emulated accelerators' kernel table.");
  m.def("_guard_violations", &emulated::guard_violations,
        "Buffers on emulated accelerators whose guard bytes were found overwritten, live ones checked now.");
  m.def("_write_past_end", [](const Tensor& t, size_t nbytes) {
    emulated::write_past_end(t, nbytes, "_write_past_end");
  }, nb::arg("tensor"), nb::arg("nbytes"),
        "Writes nbytes bytes just past the end of an emulated accelerator tensor's buffer, as a faulty kernel would.");
}
