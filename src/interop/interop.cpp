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

nb::list shape_list(const Shape& shape) {
  PyObject* list = PyList_New(shape.rank());
  if (!list) throw nb::python_error();
  nb::list out = nb::steal<nb::list>(list);
  for (int i = 0; i < shape.rank(); ++i) {
    PyObject* d = PyLong_FromLongLong(shape[i]);
    if (!d) throw nb::python_error();
    PyList_SET_ITEM(out.ptr(), i, d);
  }
  return out;
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
