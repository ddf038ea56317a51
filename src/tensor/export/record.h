// The export trace: records of operations (OPNodesInfo) and the link nodes
// beside the autograd graph. See Note [recording forms] in record.cpp.
#pragma once
#include <initializer_list>
#include <string>

#include "tensor/qtensor.h"

namespace tramel::tensor {

// "<decimal id of o>", the identity text that joins records into a graph.
std::string id_text(nb::handle o);

// An OPNodesInfo with all eleven fields; inputs and output are QTensors.
nb::object make_record(const std::string& opid, const char* opname, std::initializer_list<nb::handle> inputs,
                       nb::handle output, nb::handle attribute);

// Whether gated recording (forms B and C, and construction) is on.
bool gated_recording_on();

// The "Constant" record of a new tensor, when save_constant is on.
void record_constant(nb::handle y, QTensor& fields);
// The "Cast" record of astype (form B).
void record_cast(nb::handle t1, nb::handle y);

}  // namespace tramel::tensor
