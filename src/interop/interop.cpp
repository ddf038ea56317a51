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

NB_INLINE bool dtype_from_dlpack(nb::dlpack::dtype dt, DType* out) {
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

// numpy's array and scalar types, imported on first use and held for the
// life of the process.
// The scalar types of the engine's dtypes, whose buffers nanobind reads as
// they are (numpy has two 64-bit integer types on some platforms).
constexpr const char* kEngineScalars[] = {"bool_", "uint8", "int8", "int16", "int32", "int64", "longlong",
                                          "float32", "float64", "complex64", "complex128"};
constexpr size_t kEngineScalarCount = sizeof(kEngineScalars) / sizeof(kEngineScalars[0]);

struct NumpyTypes {
  PyTypeObject* ndarray;
  PyTypeObject* generic;
  nb::handle asarray;
  PyTypeObject* known_scalars[kEngineScalarCount];
};
const NumpyTypes* g_numpy = nullptr;
PyTypeObject* g_ndarray = nullptr;  // g_numpy->ndarray, once numpy_types() has run

const NumpyTypes& numpy_types() {
  if (!g_numpy) {
    nb::module_ np = nb::module_::import_("numpy");
    auto held = [&](const char* name) { return nb::object(np.attr(name)).release(); };
    static NumpyTypes t{(PyTypeObject*)held("ndarray").ptr(), (PyTypeObject*)held("generic").ptr(),
                        held("asarray"), {}};
    for (size_t i = 0; i < kEngineScalarCount; ++i) t.known_scalars[i] = (PyTypeObject*)held(kEngineScalars[i]).ptr();
    g_numpy = &t;
    g_ndarray = t.ndarray;
  }
  return *g_numpy;
}

// The usual case, which needs none of what follows (false until numpy_types() has run).
inline bool is_exact_ndarray(nb::handle obj) { return Py_TYPE(obj.ptr()) == g_ndarray; }

// Whether nanobind's import may read `obj` through the buffer protocol: it
// takes the exporter's shape and strides as given, and an exporter may leave
// them null where the protocol asked for them.
bool buffer_is_complete(PyObject* obj) {
  Py_buffer view;
  if (PyObject_GetBuffer(obj, &view, PyBUF_RECORDS_RO) != 0) {
    PyErr_Clear();  // no buffer: the import does not use one either
    return true;
  }
  bool complete = view.ndim == 0 || (view.shape && view.strides);
  PyBuffer_Release(&view);
  return complete;
}

// What nanobind's array import may read in place of `obj`: obj itself (the
// usual case, a numpy array), the 0-d array numpy makes of a numpy scalar of
// another type than the engine's (its own buffer is raw bytes for bytes_ and
// str_, and for datetime64 and timedelta64 a dimension without shape or
// strides), kept in `holder`, or nothing when obj cannot be read safely.
NB_NOINLINE nb::handle importable(nb::handle obj, nb::object& holder) {
  PyTypeObject* type = Py_TYPE(obj.ptr());
  const NumpyTypes& np = numpy_types();
  if (PyType_IsSubtype(type, np.generic)) {
    for (PyTypeObject* known : np.known_scalars)
      if (type == known) return obj;
    holder = np.asarray(obj);
    return holder;
  }
  if (!PyType_IsSubtype(type, np.ndarray) && PyObject_CheckBuffer(obj.ptr()) && !buffer_is_complete(obj.ptr()))
    return nb::handle();
  return obj;
}

// The element type of an array the engine has no type for, as its own
// library names it (numpy's str(dtype)), else from its DLPack code.
std::string element_type_name(nb::handle array, const nb::dlpack::dtype* dt) {
  PyObject* dtype = PyObject_GetAttrString(array.ptr(), "dtype");
  if (dtype) {
    PyObject* text = PyObject_Str(dtype);
    Py_DECREF(dtype);
    if (text) {
      Py_ssize_t size;
      const char* chars = PyUnicode_AsUTF8AndSize(text, &size);
      std::string name = chars ? std::string(chars, size_t(size)) : std::string();
      Py_DECREF(text);
      if (chars) return name;
    }
  }
  PyErr_Clear();
  if (!dt) return "unknown";
  using Code = nb::dlpack::dtype_code;
  const char* kind = nullptr;
  switch (Code(dt->code)) {
    case Code::Int: kind = "int"; break;
    case Code::UInt: kind = "uint"; break;
    case Code::Float: kind = "float"; break;
    case Code::Complex: kind = "complex"; break;
    case Code::Bool: kind = "bool"; break;
    default: return "DLPack code " + std::to_string(int(dt->code)) + " of " + std::to_string(int(dt->bits)) + " bits";
  }
  std::string name = kind + std::to_string(int(dt->bits));
  if (dt->lanes != 1) name += "x" + std::to_string(int(dt->lanes));
  return name;
}

// The refusal of an array that nanobind could not import, or (`imported`)
// of one of a DLPack type `dt` that the engine lacks.
[[noreturn]] NB_NOINLINE void refuse_array(nb::handle array, nb::handle source, bool imported, nb::dlpack::dtype dt,
                                           const char* op) {
  // An ndarray that nanobind cannot import is one of an element type
  // without a DLPack or buffer form: datetime64, str, object, structured.
  if (imported || (source.is_valid() && PyObject_TypeCheck(source.ptr(), numpy_types().ndarray)))
    fail(ErrorKind::Type, op,
         "unsupported array element type (" + element_type_name(source, imported ? &dt : nullptr) + ")");
  fail(ErrorKind::Type, op,
       std::string("expected a numpy array of a supported element type, got ") + nb::type_name(array.type()).c_str());
}

NB_INLINE bool read_dtype(nb::handle source, DType* out) {
  AnyArray arr;
  if (!source.is_valid() || !nb::try_cast(source, arr, false)) return false;
  return dtype_from_dlpack(arr.dtype(), out);
}

// A copy of `source`, an array that nanobind may import, in place of `array`.
NB_INLINE Tensor import_array(nb::handle source, nb::handle array, int device, std::optional<DType> dtype,
                              const char* op) {
  AnyArray arr;
  if (!source.is_valid() || !nb::try_cast(source, arr, false)) refuse_array(array, source, false, {}, op);
  DType src;
  if (!dtype_from_dlpack(arr.dtype(), &src)) refuse_array(array, source, true, arr.dtype(), op);
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

}  // namespace

bool array_dtype(nb::handle array, DType* out) {
  if (is_exact_ndarray(array)) return read_dtype(array, out);
  nb::object holder;
  return read_dtype(importable(array, holder), out);
}

Tensor tensor_from_array(nb::handle array, int device, std::optional<DType> dtype, const char* op) {
  if (is_exact_ndarray(array)) return import_array(array, array, device, dtype, op);
  nb::object holder;
  return import_array(importable(array, holder), array, device, dtype, op);
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
