// The arguments that Python gives to both modules' functions, one type per
// kind: an axis, axes (and integer lists), a shape, a dtype, a device, a host
// number, a real number.
//
// Note [argument types]
// Each type is the Python object as the caller gave it (a handle: records and
// labels show it exactly as written), plus get(op, ...), the one place that
// says which objects the kind takes and how a refusal reads. Refusals name
// the operation first, then what was expected and what was given:
// "[unsqueeze] axis must be an integer, got ndarray".
//
// The nanobind casters below accept any object and only name the type, so
// that signatures and stubs say `int` or `collections.abc.Sequence[int]`.
// They do not refuse anything themselves: a caster cannot know the operation
// it reads for, and a refusal there would become nanobind's generic
// "incompatible function arguments" TypeError. Reading happens in get(), at
// the point where the function needs the value, so the order of checks stays
// the function's own (a function may first test the object's form itself).
//
// get() either returns a value or raises (tramel::Error, or nb::python_error
// with the Python error set); no Python error is ever left behind with a
// value. Objects that are not arguments (attributes, list items) are read
// the same way: py::Dims(object).get(op), or py::integer(object, op, what).
#pragma once
#include <nanobind/nanobind.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/dtype.h"
#include "core/shape.h"

namespace tramel::py {

namespace nb = nanobind;

// One integer: int, a numpy integer, or any object with __index__ (a 0-d
// integer array); never bool.
struct Axis : nb::handle {
  Axis() = default;
  Axis(nb::handle h) : nb::handle(h) {}
  int64_t get(const char* op, const char* what = "axis") const;
};

// One integer that is not an argument (an attribute, a list item), read as
// an Axis: "[op] what must be an integer, got float".
int64_t integer(nb::handle value, const char* op, const char* what);

// How bools count among axes. Python takes them as the integers 0 and 1; most
// operations refuse them, a few have always taken them.
enum class Bools : uint8_t {
  Refused,
  Counted,       // as 0 and 1, alone or in a sequence
  CountedAlone,  // as 0 and 1 when given alone; refused in a sequence
};

// One integer (as Axis), or a sequence of them (list, tuple, numpy integer
// array, any iterable but a string).
struct Axes : nb::handle {
  Axes() = default;
  Axes(nb::handle h) : nb::handle(h) {}
  std::vector<int64_t> get(const char* op, const char* what = "axes", Bools bools = Bools::Refused) const;
  // The integers as a shape (rank and signs checked).
  Shape shape(const char* op, const char* what = "shape") const;
  // Whether the object is one integer rather than a sequence (as get reads it).
  bool alone() const;
};

// Integer lists (a shape to reshape to, repeats, an axis order) take the
// forms of axes.
using IntList = Axes;

// A shape: a list or tuple of integers, at most kMaxRank of them.
struct Dims : nb::handle {
  Dims() = default;
  Dims(nb::handle h) : nb::handle(h) {}
  Shape get(const char* op) const;
};

// A dtype constant (an integer, as Axis). None is refused unless a default is
// given; -1, "the array's own type", only where marked() reads it.
struct DTypeArg : nb::handle {
  DTypeArg() = default;
  DTypeArg(nb::handle h) : nb::handle(h) {}
  DType get(const char* op) const;
  DType get_or(const char* op, DType if_none) const { return is_none() ? if_none : get(op); }
  // -1 gives std::nullopt.
  std::optional<DType> marked(const char* op) const;
};

// A device number (an integer, as Axis, in the range of int).
struct DeviceArg : nb::handle {
  DeviceArg() = default;
  DeviceArg(nb::handle h) : nb::handle(h) {}
  int get(const char* op) const;
};
// d as a device number; ValueError beyond the range of int (never truncated:
// 2**32 + 1000 is not device 1000).
[[noreturn]] void fail_device_range(int64_t d, const char* op);
inline int device_number(int64_t d, const char* op) {
  if (d != int64_t(int32_t(d))) fail_device_range(d, op);
  return int(d);
}

// A host number: bool, int, float or complex, numpy scalars and 0-d arrays
// of those kinds included. Integers beyond 64 bits become floats.
struct HostScalar : nb::handle {
  HostScalar() = default;
  HostScalar(nb::handle h) : nb::handle(h) {}
  Scalar get(const char* op) const;
};

// A real number: anything Python's float() takes as a number (int, bool,
// float, numpy scalars, objects with __float__ or __index__), not a string.
struct Real : nb::handle {
  Real() = default;
  Real(nb::handle h) : nb::handle(h) {}
  double get(const char* op, const char* what) const;
};

// Texts: a list or tuple of str (index texts, names), read as they are.
struct Texts : nb::handle {
  Texts() = default;
  Texts(nb::handle h) : nb::handle(h) {}
  std::vector<std::string> get(const char* op, const char* what) const;
};

}  // namespace tramel::py

namespace nanobind::detail {

// The casters take every object (see Note [argument types]); they only give
// the parameter its type name, a nanobind descriptor. Going back to Python
// gives the object itself.
#define TRAMEL_ARGUMENT_CASTER(Type, descriptor)                                    \
  template <>                                                                       \
  struct type_caster<Type> {                                                        \
    NB_TYPE_CASTER(Type, descriptor)                                                \
    bool from_python(handle src, uint32_t, cleanup_list*) noexcept {                \
      value = Type(src);                                                            \
      return true;                                                                  \
    }                                                                               \
    static handle from_cpp(const Type& arg, rv_policy, cleanup_list*) noexcept {    \
      return arg.inc_ref();                                                         \
    }                                                                               \
  };

TRAMEL_ARGUMENT_CASTER(tramel::py::Axis, const_name("int"))
TRAMEL_ARGUMENT_CASTER(tramel::py::Axes, const_name("int | collections.abc.Sequence[int]"))
TRAMEL_ARGUMENT_CASTER(tramel::py::Dims, const_name("list[int] | tuple[int, ...]"))
TRAMEL_ARGUMENT_CASTER(tramel::py::DTypeArg, const_name("int"))
TRAMEL_ARGUMENT_CASTER(tramel::py::DeviceArg, const_name("int"))
TRAMEL_ARGUMENT_CASTER(tramel::py::HostScalar, const_name("bool | int | float | complex"))
TRAMEL_ARGUMENT_CASTER(tramel::py::Real, const_name("float"))
TRAMEL_ARGUMENT_CASTER(tramel::py::Texts, const_name("list[str]"))

}  // namespace nanobind::detail
