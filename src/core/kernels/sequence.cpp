// Host kernels of padded and packed sequences.
#include "core/kernels/host_kernels.h"

namespace tramel {

void add_sequence_kernels(Kernels&) {}

}  // namespace tramel
