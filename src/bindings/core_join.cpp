// Joining and cutting: concat, stack, split, chunk. Convert, call, return.
#include <nanobind/nanobind.h>

namespace nb = nanobind;

void init_join(nb::module_&) {}
