#include "interop/args.h"

#include <string>

#include "core/error.h"

namespace tramel::py {

namespace {

std::string type_of(PyObject* o) { return nb::type_name(nb::handle(o).type()).c_str(); }

// What reading one integer found.
enum class Read : uint8_t { Integer, Bool, NotInteger, TooWide };

Read read_integer(PyObject* o, int64_t* out) {
  int overflow = 0;
  if (PyLong_CheckExact(o)) {
    *out = PyLong_AsLongLongAndOverflow(o, &overflow);  // cannot fail on an int
    return overflow ? Read::TooWide : Read::Integer;
  }
  if (PyBool_Check(o)) {
    *out = o == Py_True;
    return Read::Bool;
  }
  if (!PyIndex_Check(o)) return Read::NotInteger;
  // __index__ may refuse (a float array, a size-n array): not an integer.
  nb::object index = nb::steal(PyNumber_Index(o));
  if (!index.is_valid()) {
    PyErr_Clear();
    return Read::NotInteger;
  }
  *out = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
  return overflow ? Read::TooWide : Read::Integer;
}

// One integer, or the error of `what` not being one.
int64_t checked_integer(PyObject* o, const char* op, const char* what, bool bool_counts) {
  int64_t v = 0;
  switch (read_integer(o, &v)) {
    case Read::Integer: return v;
    case Read::Bool:
      if (bool_counts) return v;
      break;
    case Read::NotInteger: break;
    case Read::TooWide: fail(ErrorKind::Value, op, std::string(what) + " does not fit in 64 bits");
  }
  fail(ErrorKind::Type, op, std::string(what) + " must be an integer, got " + type_of(o));
}

bool has_length(PyObject* o) {
  PyTypeObject* t = Py_TYPE(o);
  return (t->tp_as_sequence && t->tp_as_sequence->sq_length) || (t->tp_as_mapping && t->tp_as_mapping->mp_length);
}

// An int (bool included), or an integer-like object that is not a container
// (a numpy integer, but not a 0-d array).
bool integer_alone(PyObject* o) { return PyLong_Check(o) || (PyIndex_Check(o) && !has_length(o)); }

// The integers of an iterable that is not a string; false when `o` cannot be
// iterated. Errors raised by the iteration itself propagate.
bool read_integers(PyObject* o, const char* op, const char* what, bool bool_counts, std::vector<int64_t>* out) {
  if (PyList_Check(o) || PyTuple_Check(o)) {
    Py_ssize_t n = PySequence_Fast_GET_SIZE(o);
    PyObject** items = PySequence_Fast_ITEMS(o);
    out->resize(size_t(n));
    for (Py_ssize_t i = 0; i < n; ++i) (*out)[size_t(i)] = checked_integer(items[i], op, what, bool_counts);
    return true;
  }
  if (PyUnicode_Check(o) || PyBytes_Check(o)) return false;
  nb::object iterator = nb::steal(PyObject_GetIter(o));
  if (!iterator.is_valid()) {
    if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw nb::python_error();
    PyErr_Clear();
    return false;
  }
  while (PyObject* item = PyIter_Next(iterator.ptr())) {
    nb::object held = nb::steal(item);
    out->push_back(checked_integer(item, op, what, bool_counts));
  }
  if (PyErr_Occurred()) throw nb::python_error();
  return true;
}

}  // namespace

int64_t Axis::get(const char* op, const char* what) const { return checked_integer(ptr(), op, what, false); }

int64_t integer(nb::handle value, const char* op, const char* what) { return checked_integer(value.ptr(), op, what, false); }

bool Axes::alone() const { return integer_alone(ptr()); }

std::vector<int64_t> Axes::get(const char* op, const char* what, Bools bools) const {
  PyObject* o = ptr();
  std::vector<int64_t> out;
  if (integer_alone(o)) {
    int64_t v = 0;
    switch (read_integer(o, &v)) {
      case Read::Integer: out.push_back(v); return out;
      case Read::Bool:
        if (bools == Bools::Refused) break;
        out.push_back(v);
        return out;
      case Read::NotInteger: break;
      case Read::TooWide: fail(ErrorKind::Value, op, std::string(what) + " does not fit in 64 bits");
    }
  } else if (read_integers(o, op, what, bools == Bools::Counted, &out)) {
    return out;
  }
  fail(ErrorKind::Type, op, std::string(what) + " must be an integer or a sequence of integers, got " + type_of(o));
}

Shape Axes::shape(const char* op, const char* what) const {
  std::vector<int64_t> dims = get(op, what);
  return Shape(dims.data(), int(dims.size()), op);
}

Shape Dims::get(const char* op) const {
  PyObject* o = ptr();
  if (!PyList_Check(o) && !PyTuple_Check(o))
    fail(ErrorKind::Type, op, "shape must be a list or tuple of ints, got " + type_of(o));
  Py_ssize_t n = PySequence_Fast_GET_SIZE(o);
  if (n > kMaxRank)
    fail(ErrorKind::Value, op,
         "rank " + std::to_string(n) + " exceeds the largest supported rank " + std::to_string(kMaxRank));
  int64_t dims[kMaxRank];
  PyObject** items = PySequence_Fast_ITEMS(o);
  for (Py_ssize_t i = 0; i < n; ++i) dims[i] = checked_integer(items[i], op, "a dimension", false);
  return Shape(dims, int(n), op);
}

namespace {

DType known_dtype(int64_t v, const char* op) {
  if (v != int64_t(int(v)) || !is_valid_dtype(int(v))) fail(ErrorKind::Value, op, "unknown dtype " + std::to_string(v));
  return DType(v);
}

}  // namespace

DType DTypeArg::get(const char* op) const { return known_dtype(checked_integer(ptr(), op, "dtype", false), op); }

std::optional<DType> DTypeArg::marked(const char* op) const {
  int64_t v = checked_integer(ptr(), op, "dtype", false);
  if (v == -1) return std::nullopt;
  return known_dtype(v, op);
}

void fail_device_range(int64_t d, const char* op) {
  fail(ErrorKind::Value, op, "device " + std::to_string(d) + " is out of range");
}

int DeviceArg::get(const char* op) const { return device_number(checked_integer(ptr(), op, "device", false), op); }

namespace {

// An int given as a number: int64 when it fits, else a double (Python's
// OverflowError beyond the range of a double).
Scalar integer_number(PyObject* index) {
  int overflow = 0;
  long long v = PyLong_AsLongLongAndOverflow(index, &overflow);
  if (!overflow) return Scalar::from_int(v);
  double d = PyLong_AsDouble(index);
  if (d == -1.0 && PyErr_Occurred()) throw nb::python_error();
  return Scalar::from_double(d);
}

}  // namespace

Scalar HostScalar::get(const char* op) const {
  PyObject* o = ptr();
  if (PyBool_Check(o)) return Scalar::from_bool(o == Py_True);
  if (PyLong_Check(o)) return integer_number(o);
  if (PyFloat_Check(o)) return Scalar::from_double(PyFloat_AS_DOUBLE(o));
  if (PyComplex_Check(o)) return Scalar::from_complex(PyComplex_RealAsDouble(o), PyComplex_ImagAsDouble(o));
  // numpy integers and 0-d integer arrays.
  if (PyIndex_Check(o)) {
    nb::object index = nb::steal(PyNumber_Index(o));
    if (index.is_valid()) return integer_number(index.ptr());
    PyErr_Clear();
  }
  // Other numpy scalars and 0-d arrays, by the kind of their dtype; an array
  // of one or more dimensions is not a number.
  nb::handle value(o);
  nb::object kind = nb::getattr(nb::getattr(value, "dtype", nb::none()), "kind", nb::none());
  if (PyUnicode_Check(kind.ptr())) {
    nb::object ndim = nb::getattr(value, "ndim", nb::none());
    long dims = PyLong_Check(ndim.ptr()) ? PyLong_AsLong(ndim.ptr()) : 0;
    if (dims == -1 && PyErr_Occurred()) throw nb::python_error();
    bool scalar = dims == 0;
    if (scalar && PyUnicode_CompareWithASCIIString(kind.ptr(), "c") == 0) {
      Py_complex c = PyComplex_AsCComplex(o);
      if (c.real == -1.0 && PyErr_Occurred()) throw nb::python_error();
      return Scalar::from_complex(c.real, c.imag);
    }
    if (scalar && PyUnicode_CompareWithASCIIString(kind.ptr(), "b") == 0) {
      int truth = PyObject_IsTrue(o);
      if (truth < 0) throw nb::python_error();
      return Scalar::from_bool(truth == 1);
    }
    if (!scalar) fail(ErrorKind::Type, op, "expected a number, got " + type_of(o));
  }
  double d = PyFloat_AsDouble(o);
  if (d == -1.0 && PyErr_Occurred()) {
    PyErr_Clear();
    fail(ErrorKind::Type, op, "expected a number, got " + type_of(o));
  }
  return Scalar::from_double(d);
}

double Real::get(const char* op, const char* what) const {
  PyObject* o = ptr();
  if (PyFloat_CheckExact(o)) return PyFloat_AS_DOUBLE(o);
  double v = PyFloat_AsDouble(o);
  if (v == -1.0 && PyErr_Occurred()) {
    PyErr_Clear();
    fail(ErrorKind::Type, op, std::string(what) + " must be a real number, got " + type_of(o));
  }
  return v;
}

std::vector<std::string> Texts::get(const char* op, const char* what) const {
  PyObject* o = ptr();
  if (!PyList_Check(o) && !PyTuple_Check(o))
    fail(ErrorKind::Type, op, std::string(what) + " must be a list of str, got " + type_of(o));
  Py_ssize_t n = PySequence_Fast_GET_SIZE(o);
  PyObject** items = PySequence_Fast_ITEMS(o);
  std::vector<std::string> out(static_cast<size_t>(n));
  for (Py_ssize_t i = 0; i < n; ++i) {
    if (!PyUnicode_Check(items[i]))
      fail(ErrorKind::Type, op, std::string(what) + " must hold only str, got " + type_of(items[i]) + " at position " +
                                    std::to_string(i));
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(items[i], &size);
    if (!text) throw nb::python_error();
    out[size_t(i)].assign(text, size_t(size));
  }
  return out;
}

}  // namespace tramel::py
