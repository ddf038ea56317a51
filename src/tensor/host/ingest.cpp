// The way in of host data: the conversion that QTensor's constructor and
// to_tensor make of numbers, nested lists, numpy arrays and core tensors.
#include <nanobind/stl/string.h>

#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/qtensor.h"

namespace tramel::tensor {

namespace {

// ---- the way in of host data ----

// (sic) "np.bool8" and the order of the list.
const char* const kUnsupportedArrayType =
    "source_array dtype must be one of "
    "(np.int8,np.bool8,np.uint8,np.int16,np.int32,np.int64,np.float32,np.float64,np.complex128,np.complex64)";

// Element kinds of a nested list, in numpy's order of promotion.
enum class Leaf : int { None = 0, Bool, Int, Float, Complex };

// Reads a nested list/tuple of Python numbers the way numpy.array would, for
// the common cases; returns false (and leaves the work to numpy) for anything
// else: ragged nesting, other element types, integers beyond int64.
struct NestedList {
  int64_t dims[kMaxRank];
  int rank = 0;
  Leaf kind = Leaf::None;
  std::vector<PyObject*> leaves;

  bool read(PyObject* root) {
    for (PyObject* o = root; PyList_Check(o) || PyTuple_Check(o);) {
      if (rank == kMaxRank) return false;
      Py_ssize_t n = PySequence_Fast_GET_SIZE(o);
      dims[rank++] = n;
      if (n == 0) break;
      o = PySequence_Fast_ITEMS(o)[0];
    }
    return collect(root, 0);
  }

  bool collect(PyObject* o, int depth) {
    if (depth == rank) return leaf(o);
    if (!PyList_Check(o) && !PyTuple_Check(o)) return false;
    Py_ssize_t n = PySequence_Fast_GET_SIZE(o);
    if (n != dims[depth]) return false;
    PyObject** items = PySequence_Fast_ITEMS(o);
    for (Py_ssize_t i = 0; i < n; ++i)
      if (!collect(items[i], depth + 1)) return false;
    return true;
  }

  bool leaf(PyObject* o) {
    Leaf k;
    if (PyBool_Check(o)) {
      k = Leaf::Bool;
    } else if (PyLong_Check(o)) {
      int overflow = 0;
      PyLong_AsLongLongAndOverflow(o, &overflow);
      if (overflow) return false;
      k = Leaf::Int;
    } else if (PyFloat_Check(o)) {
      k = Leaf::Float;
    } else if (PyComplex_Check(o)) {
      k = Leaf::Complex;
    } else {
      return false;
    }
    if (k > kind) kind = k;
    leaves.push_back(o);
    return true;
  }

  DType numpy_dtype() const {
    switch (kind) {
      case Leaf::Bool: return DType::Bool;
      case Leaf::Int: return DType::Int64;
      case Leaf::Complex: return DType::Complex128;
      default: return DType::Float64;
    }
  }

  template <typename T>
  void write(T* out) const {
    for (size_t i = 0; i < leaves.size(); ++i) {
      PyObject* o = leaves[i];
      if constexpr (is_complex_v<T>) {
        out[i] = T(PyComplex_RealAsDouble(o), PyComplex_ImagAsDouble(o));
      } else if constexpr (std::is_same_v<T, double>) {
        out[i] = PyFloat_AsDouble(o);
      } else {
        out[i] = T(PyLong_AsLongLong(o));  // bools are ints to CPython
      }
    }
  }

  Tensor to_tensor(int device, DType dtype) const {
    Shape shape(dims, rank, "QTensor");
    DType src = numpy_dtype();
    return dispatch<bit(DType::Bool) | bit(DType::Int64) | bit(DType::Float64) | bit(DType::Complex128)>(
        src, "QTensor", [&](auto tag) {
          using T = typename decltype(tag)::type;
          // bool as uint8: std::vector<bool> has no contiguous storage.
          using Stored = std::conditional_t<std::is_same_v<T, bool>, uint8_t, T>;
          std::vector<Stored> buffer(leaves.size());
          write(buffer.data());
          if (PyErr_Occurred()) throw nb::python_error();  // a number subclass's own __float__ failed
          int64_t strides[kMaxRank];
          for (int i = rank - 1, s = int64_t(sizeof(T)); i >= 0; --i) strides[i] = s, s *= dims[i];
          return from_strided(buffer.data(), src, shape, strides, dtype, device);
        });
  }
};

// The dtype of a list-made tensor when the caller gave none: numpy's float64
// and complex128 give way to the default dtype and its complex partner.
DType list_dtype(DType numpy_dtype) {
  if (numpy_dtype == DType::Float64) return default_dtype();
  if (numpy_dtype == DType::Complex128) return default_complex_dtype();
  return numpy_dtype;
}

bool is_complex_dtype_arg(nb::handle dtype) {
  if (dtype.is_none()) return true;
  std::optional<DType> d = py::DTypeArg(dtype).marked("QTensor");
  return d && is_complex(*d);
}

// Tensor from a numpy array; `from_list` applies the default-dtype rule.
nb::object core_from_array(nb::handle array, int device, nb::handle dtype, bool from_list) {
  DType src;
  if (!py::array_dtype(array, &src)) throw nb::type_error(kUnsupportedArrayType);
  std::optional<DType> target;
  if (!dtype.is_none()) target = py::DTypeArg(dtype).marked("QTensor");
  else if (from_list) target = list_dtype(src);
  return wrap_core(py::tensor_from_array(array, device, target, "QTensor"));
}

[[noreturn]] void fail_move(const std::string& what) { throw nb::value_error(what.c_str()); }

}  // namespace

// The constructor's conversion of `data` into a _core.Tensor object.
nb::object to_coretensor_ndarray(nb::handle data, nb::handle device, nb::handle dtype) {
  if (is_core_tensor(data)) {
    Tensor& t = as_core(data, "QTensor");
    int dev = device_of(device, "QTensor");
    auto finish = [&]() -> nb::object {
      if (dtype.is_none()) return nb::borrow(data);
      DType d = py::DTypeArg(dtype).get("QTensor");
      return d == t.dtype() ? nb::borrow(data) : wrap_core(to_dtype(t, d, true));
    };
    if (dev == t.device()) return finish();
    if (dev == kCpuDevice) {
      t.assign(to_device(t, kCpuDevice, "toCPU"));
      return finish();
    }
    if (dev >= kFirstAccelerator) {
      // (sic) "Create Tensor", "DEV_GPU" and the backslashes of both messages.
      try {
        t.assign(to_device(t, dev, "toGPU"));
        return finish();
      } catch (const std::exception&) {
        fail_move("Failed to move Create Tensor on GPU " + std::to_string(dev) + ". \\\n" + std::string(28, ' ') +
                  "Support GPU device is DEV_GPU,DEV_GPU_1,DEV_GPU_2,DEV_GPU_3,...");
      }
    }
    fail_move("Failed to move Create Tensor on device " + std::to_string(dev) + ".\\\n" + std::string(24, ' ') +
              "Support CPU device is 0, GPU device is DEV_GPU,DEV_GPU_1,DEV_GPU_2,DEV_GPU_3,...");
  }

  int dev = py::DeviceArg(device).get("QTensor");
  if (PyObject_TypeCheck(data.ptr(), ndarray_type())) {
    DType src;
    bool known = py::array_dtype(data, &src);
    bool complex_array = known ? is_complex(src)
                               : nb::cast<std::string>(data.attr("dtype").attr("kind")) == "c";
    if (complex_array && !is_complex_dtype_arg(dtype))
      throw nb::value_error("Can not convert complex to non-complex.");
    return core_from_array(data, dev, dtype, false);
  }
  NestedList list;
  if (list.read(data.ptr())) {
    DType d = dtype.is_none() ? list_dtype(list.numpy_dtype())
                              : py::DTypeArg(dtype).marked("QTensor").value_or(list.numpy_dtype());
    return wrap_core(list.to_tensor(dev, d));
  }
  static nb::handle np_array = imported("numpy", "array");
  nb::object source = nb::steal(PyObject_CallOneArg(np_array.ptr(), data.ptr()));
  if (!source) throw nb::python_error();
  return core_from_array(source, dev, dtype, true);
}

nb::object to_tensor(nb::handle value) {
  if (is_qtensor(value)) return nb::borrow(value);
  if (PyLong_Check(value.ptr()) || PyFloat_Check(value.ptr())) {
    nb::list data;
    data.append(value);
    return new_qtensor(to_coretensor_ndarray(data, nb::int_(0), nb::none()), Py_False, Py_None, nb::int_(0));
  }
  if (is_core_tensor(value)) {
    nb::object device = nb::int_(as_core(value, "to_tensor").device());
    return new_qtensor(to_coretensor_ndarray(value, device, nb::none()), Py_False, Py_None, device);
  }
  return new_qtensor(to_coretensor_ndarray(value, nb::int_(0), nb::none()), Py_False, Py_None, nb::int_(0));
}

}  // namespace tramel::tensor
