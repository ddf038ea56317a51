// Padded and packed sequences: packing, unpacking, padding and their gradients. Convert, call, return.
#include <nanobind/nanobind.h>

namespace nb = nanobind;

void init_sequence(nb::module_&) {}
