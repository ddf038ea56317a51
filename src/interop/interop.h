// Conversions between Python values and engine types, shared by both
// extension modules (compiled into each): engine errors as Python exceptions,
// numpy arrays and DLPack capsules. Arguments are read by interop/args.h.
#pragma once
#include <nanobind/nanobind.h>

#include <optional>
#include <tuple>
#include <vector>

#include "core/ops.h"

namespace tramel::py {

namespace nb = nanobind;

// Python exception types for engine failures; registered by each module.
void register_error_translator();
// Sets the Python error for the exception in flight, for C-level slots that
// nanobind's dispatch does not wrap. Call from a catch block.
void set_python_error_from_current_exception() noexcept;

// A shape as Python shows it: a new list of ints.
nb::list shape_list(const Shape& shape);

// Kernels on at least this many elements run without the GIL.
constexpr int64_t kUnlockElements = int64_t(1) << 16;

// fn(first, rest...) on copies of the arguments, without the GIL when `first`
// is large. The copies keep every storage alive whatever other Python threads
// do to the objects meanwhile. Only for kernels that write no argument.
template <typename Fn, typename... A>
auto unlocked(const Fn& fn, const Tensor& first, const A&... rest) {
  if (first.numel() < kUnlockElements) return fn(first, rest...);
  Tensor t = first;
  std::tuple<A...> args(rest...);
  nb::gil_scoped_release release;
  return std::apply([&](const auto&... xs) { return fn(t, xs...); }, args);
}

// The engine dtype of a numpy-compatible array object, if it is one of the ten.
// Returns false for arrays of other element types (float16, uint32, objects...).
bool array_dtype(nb::handle array, DType* out);
// Copies an array (any strides) into a new tensor. `dtype` nullopt keeps the
// array's own element type. Fails with TypeError for unsupported element types.
Tensor tensor_from_array(nb::handle array, int device, std::optional<DType> dtype, const char* op);
// A new numpy array holding a copy of a processor tensor.
nb::object numpy_copy(const Tensor& t, const char* op);
// A DLPack capsule ("dltensor") sharing t's storage, which it keeps alive.
nb::object dlpack_capsule(const Tensor& t);

}  // namespace tramel::py
