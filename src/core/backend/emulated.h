// The emulated accelerators' backend, and what tests ask of it. See Note
// [backend seam] in backend.h for why these devices are strict.
#pragma once
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "core/backend.h"

namespace tramel::emulated {

Backend& backend();

// Names of the kernel slots: "convert", "sum_pass", and for the element-wise
// families the family and the operation, "binary.mult", "unary.exp".
std::vector<std::string> kernel_slots();
// Calls per slot since the last reset, for the slots that ran.
std::vector<std::pair<std::string, uint64_t>> kernel_calls();
void reset_kernel_calls();
// Empties (false) or refills (true) one slot of the emulated table; `op`
// names the caller in the failure for an unknown slot.
void set_kernel_enabled(const std::string& slot, bool enabled, const char* op);

// Buffers whose guard bytes were found damaged so far, after checking every
// live buffer.
int64_t guard_violations();
// Writes `nbytes` bytes just past the end of t's buffer through its backend,
// as a faulty kernel would; t must be on an emulated accelerator.
void write_past_end(const Tensor& t, size_t nbytes, const char* op);

}  // namespace tramel::emulated
