#include "interop/interop.h"

#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>

#include <string>
#include <typeinfo>

namespace tramel::py {

namespace {
PyObject* python_type(ErrorKind kind) {
  switch (kind) {
    case ErrorKind::Value: return PyExc_ValueError;
    case ErrorKind::Type: return PyExc_TypeError;
    case ErrorKind::Index: return PyExc_IndexError;
    case ErrorKind::Runtime: break;
  }
  return PyExc_RuntimeError;
}

PyObject* python_type(nb::exception_type kind) {
  switch (kind) {
    case nb::exception_type::value_error: return PyExc_ValueError;
    case nb::exception_type::type_error: return PyExc_TypeError;
    case nb::exception_type::index_error: return PyExc_IndexError;
    case nb::exception_type::key_error: return PyExc_KeyError;
    case nb::exception_type::attribute_error: return PyExc_AttributeError;
    case nb::exception_type::stop_iteration: return PyExc_StopIteration;
    default: return PyExc_RuntimeError;
  }
}
}  // namespace

void register_error_translator() {
  nb::register_exception_translator([](const std::exception_ptr& p, void*) {
    try {
      std::rethrow_exception(p);
    } catch (const Error& e) {
      PyErr_SetString(python_type(e.kind()), e.what());
    } catch (const std::bad_cast&) {
      PyErr_SetString(PyExc_TypeError, "a value has a type that this operation cannot take");
    }
  });
}

void set_python_error_from_current_exception() noexcept {
  try {
    throw;
  } catch (nb::python_error& e) {
    e.restore();
  } catch (const nb::builtin_exception& e) {
    PyErr_SetString(python_type(e.type()), e.what());
  } catch (const Error& e) {
    PyErr_SetString(python_type(e.kind()), e.what());
  } catch (const std::bad_cast&) {
    PyErr_SetString(PyExc_TypeError, "a value has a type that this operation cannot take");
  } catch (const std::exception& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  } catch (...) {
    PyErr_SetString(PyExc_RuntimeError, "unknown C++ exception");
  }
}

int64_t int_arg(nb::handle value, const char* op, const char* what) {
  if (PyBool_Check(value.ptr()) || !PyIndex_Check(value.ptr()))
    fail(ErrorKind::Type, op,
         std::string(what) + " must be an integer, got " + nb::type_name(value.type()).c_str());
  int overflow = 0;
  nb::object index = nb::steal(PyNumber_Index(value.ptr()));
  long long v = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
  if (overflow) fail(ErrorKind::Value, op, std::string(what) + " does not fit in 64 bits");
  return v;
}

std::vector<int64_t> ints_arg(nb::handle value, const char* op, const char* what) {
  if (PyIndex_Check(value.ptr()) && !PyBool_Check(value.ptr()) && !nb::hasattr(value, "__len__"))
    return {int_arg(value, op, what)};
  if (!PySequence_Check(value.ptr()) || PyUnicode_Check(value.ptr()))
    fail(ErrorKind::Type, op,
         std::string(what) + " must be an integer or a sequence of integers, got " + nb::type_name(value.type()).c_str());
  nb::object seq = nb::steal(PySequence_Fast(value.ptr(), what));
  if (!seq.is_valid()) nb::raise_python_error();
  Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
  PyObject** items = PySequence_Fast_ITEMS(seq.ptr());
  std::vector<int64_t> out(static_cast<size_t>(n));
  for (Py_ssize_t i = 0; i < n; ++i) out[size_t(i)] = int_arg(items[i], op, what);
  return out;
}

double float_arg(nb::handle value, const char* op, const char* what) {
  double v = PyFloat_AsDouble(value.ptr());
  if (v == -1.0 && PyErr_Occurred()) {
    PyErr_Clear();
    fail(ErrorKind::Type, op,
         std::string(what) + " must be a real number, got " + nb::type_name(value.type()).c_str());
  }
  return v;
}

namespace {

bool dtype_from_dlpack(nb::dlpack::dtype dt, DType* out) {
  using Code = nb::dlpack::dtype_code;
  if (dt.lanes != 1) return false;
  switch (Code(dt.code)) {
    case Code::Bool: *out = DType::Bool; return dt.bits == 8;
    case Code::UInt: *out = DType::UInt8; return dt.bits == 8;
    case Code::Int:
      switch (dt.bits) {
        case 8: *out = DType::Int8; return true;
        case 16: *out = DType::Int16; return true;
        case 32: *out = DType::Int32; return true;
        case 64: *out = DType::Int64; return true;
      }
      return false;
    case Code::Float:
      if (dt.bits == 32) { *out = DType::Float32; return true; }
      if (dt.bits == 64) { *out = DType::Float64; return true; }
      return false;
    case Code::Complex:
      if (dt.bits == 64) { *out = DType::Complex64; return true; }
      if (dt.bits == 128) { *out = DType::Complex128; return true; }
      return false;
    default:
      return false;
  }
}

nb::dlpack::dtype dlpack_dtype(DType dtype) {
  return dispatch<kAllTypes>(dtype, "dlpack", [](auto tag) { return nb::dtype<typename decltype(tag)::type>(); });
}

using AnyArray = nb::ndarray<nb::ro, nb::device::cpu>;

}  // namespace

std::optional<DType> dtype_arg(nb::handle value, const char* op, bool allow_marker) {
  int64_t v = int_arg(value, op, "dtype");
  if (allow_marker && v == -1) return std::nullopt;
  if (!is_valid_dtype(int(v))) fail(ErrorKind::Value, op, "unknown dtype " + std::to_string(v));
  return DType(v);
}

Shape shape_arg(nb::handle value, const char* op) {
  if (!PyList_Check(value.ptr()) && !PyTuple_Check(value.ptr()))
    fail(ErrorKind::Type, op,
         std::string("shape must be a list or tuple of ints, got ") + nb::type_name(value.type()).c_str());
  nb::object seq = nb::steal(PySequence_Fast(value.ptr(), "shape"));
  Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
  if (n > kMaxRank)
    fail(ErrorKind::Value, op, "rank " + std::to_string(n) + " exceeds the largest supported rank " +
                                   std::to_string(kMaxRank));
  int64_t dims[kMaxRank];
  PyObject** items = PySequence_Fast_ITEMS(seq.ptr());
  for (Py_ssize_t i = 0; i < n; ++i) dims[i] = int_arg(items[i], op, "a dimension");
  return Shape(dims, int(n), op);
}

Scalar scalar_arg(nb::handle value, const char* op) {
  PyObject* o = value.ptr();
  if (PyBool_Check(o)) return Scalar::from_bool(o == Py_True);
  if (PyLong_Check(o)) {
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
    if (!overflow) return Scalar::from_int(v);
    return Scalar::from_double(PyLong_AsDouble(o));
  }
  if (PyFloat_Check(o)) return Scalar::from_double(PyFloat_AS_DOUBLE(o));
  if (PyComplex_Check(o)) return Scalar::from_complex(PyComplex_RealAsDouble(o), PyComplex_ImagAsDouble(o));
  // numpy scalars and other number-likes.
  if (PyIndex_Check(o)) return Scalar::from_int(int_arg(value, op, "value"));
  if (nb::hasattr(value, "dtype") && nb::hasattr(value, "imag")) {
    nb::object kind = value.attr("dtype").attr("kind");
    if (nb::cast<std::string>(kind) == "c")
      return Scalar::from_complex(nb::cast<double>(value.attr("real")), nb::cast<double>(value.attr("imag")));
    if (nb::cast<std::string>(kind) == "b") return Scalar::from_bool(PyObject_IsTrue(o));
  }
  double d = PyFloat_AsDouble(o);
  if (d == -1.0 && PyErr_Occurred()) {
    PyErr_Clear();
    fail(ErrorKind::Type, op, std::string("expected a number, got ") + nb::type_name(value.type()).c_str());
  }
  return Scalar::from_double(d);
}

int device_arg(nb::handle value, const char* op) {
  int64_t d = int_arg(value, op, "device");
  if (d < INT32_MIN || d > INT32_MAX) fail(ErrorKind::Value, op, "device " + std::to_string(d) + " is out of range");
  return int(d);
}

bool array_dtype(nb::handle array, DType* out) {
  AnyArray arr;
  if (!nb::try_cast(array, arr, false)) return false;
  return dtype_from_dlpack(arr.dtype(), out);
}

Tensor tensor_from_array(nb::handle array, int device, std::optional<DType> dtype, const char* op) {
  AnyArray arr;
  if (!nb::try_cast(array, arr, false))
    fail(ErrorKind::Type, op,
         std::string("expected a numpy array of a supported element type, got ") + nb::type_name(array.type()).c_str());
  DType src;
  if (!dtype_from_dlpack(arr.dtype(), &src))
    fail(ErrorKind::Type, op, "unsupported array element type (" + nb::cast<std::string>(nb::steal<nb::str>(PyObject_Str(array.attr("dtype").ptr()))) + ")");
  int rank = int(arr.ndim());
  if (rank > kMaxRank)
    fail(ErrorKind::Value, op, "rank " + std::to_string(rank) + " exceeds the largest supported rank " +
                                   std::to_string(kMaxRank));
  int64_t dims[kMaxRank], strides[kMaxRank];
  size_t item = itemsize(src);
  for (int i = 0; i < rank; ++i) {
    dims[i] = int64_t(arr.shape(i));
    strides[i] = arr.stride(i) * int64_t(item);
  }
  Shape shape(dims, rank, op);
  return from_strided(arr.data(), src, shape, strides, dtype.value_or(src), device);
}

nb::object numpy_copy(const Tensor& t, const char* op) {
  size_t nbytes = t.nbytes();
  void* buffer = std::malloc(nbytes ? nbytes : 1);
  if (!buffer) fail(ErrorKind::Runtime, op, "out of memory");
  nb::capsule owner(buffer, [](void* p) noexcept { std::free(p); });
  copy_to_host(t, t.dtype(), buffer, op);
  size_t shape[kMaxRank];
  for (int i = 0; i < t.ndim(); ++i) shape[i] = size_t(t.shape()[i]);
  nb::ndarray<nb::numpy> out(buffer, size_t(t.ndim()), shape, owner, nullptr, dlpack_dtype(t.dtype()));
  return out.cast();
}

nb::object dlpack_capsule(const Tensor& t) {
  require_host_addressable(t.device(), "__dlpack__");
  Tensor* keep = new Tensor(t);
  nb::capsule owner(keep, [](void* p) noexcept { delete static_cast<Tensor*>(p); });
  size_t shape[kMaxRank];
  for (int i = 0; i < t.ndim(); ++i) shape[i] = size_t(t.shape()[i]);
  nb::ndarray<> out(t.raw(), size_t(t.ndim()), shape, owner, nullptr, dlpack_dtype(t.dtype()));
  return out.cast();
}

}  // namespace tramel::py
