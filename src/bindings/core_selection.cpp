// Selection along an axis: gather, scatter, where, masked fill, multinomial. Convert, call, return.
#include <nanobind/nanobind.h>

namespace nb = nanobind;

void init_selection(nb::module_&) {}
