// Each kernel file fills its slots of the host kernel table (host_kernels()
// in backend/host.cpp). Included by kernel files and the host backend only.
#pragma once
#include "core/backend.h"

namespace tramel {

void add_convert_kernels(Kernels& k);     // convert.cpp
void add_fill_kernels(Kernels& k);        // fill.cpp
void add_random_kernels(Kernels& k);      // random.cpp
void add_elementwise_kernels(Kernels& k); // elementwise.cpp
void add_unary_kernels(Kernels& k);       // unary.cpp
void add_sum_kernels(Kernels& k);         // sum.cpp
void add_stats_kernels(Kernels& k);       // stats.cpp
void add_cumsum_kernels(Kernels& k);      // cumsum.cpp
void add_reduce_kernels(Kernels& k);      // reduce.cpp
void add_shape_kernels(Kernels& k);       // shape.cpp
void add_permute_kernels(Kernels& k);     // permute.cpp
void add_index_kernels(Kernels& k);       // index.cpp
void add_product_kernels(Kernels& k);     // product.cpp
void add_linalg_kernels(Kernels& k);      // linalg.cpp
void add_spectral_kernels(Kernels& k);    // spectral.cpp
void add_sort_kernels(Kernels& k);        // sort.cpp
void add_selection_kernels(Kernels& k);   // selection.cpp
void add_join_kernels(Kernels& k);        // join.cpp
void add_sequence_kernels(Kernels& k);    // sequence.cpp

}  // namespace tramel
