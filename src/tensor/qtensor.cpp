// QTensor: construction, the way in of all data, astype, zero_grad and the
// field protocol. backward lives with the walks in autograd/.
#include "tensor/qtensor.h"

#include <nanobind/stl/string.h>

#include <vector>

#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/export/record.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

PyObject* g_np_array = nullptr;  // numpy.array

// ---- cycle collection: every Python-object field is visited and cleared ----

template <typename T>
int traverse_fields(PyObject* self, visitproc visit, void* arg, T* fields, std::initializer_list<nb::object T::*> members) {
  Py_VISIT(Py_TYPE(self));
  if (!nb::inst_ready(self)) return 0;
  for (auto member : members) Py_VISIT((fields->*member).ptr());
  return 0;
}

template <typename T>
int clear_fields(PyObject* self, std::initializer_list<nb::object T::*> members) {
  if (!nb::inst_ready(self)) return 0;
  T* fields = nb::inst_ptr<T>(self);
  for (auto member : members) (fields->*member).reset();
  return 0;
}

#define QTENSOR_FIELDS                                                                                       \
  {&QTensor::data, &QTensor::requires_grad, &QTensor::nodes, &QTensor::link_nodes, &QTensor::grad,           \
   &QTensor::device, &QTensor::oplinkinfo, &QTensor::save_onnx_constant, &QTensor::name,                     \
   &QTensor::if_normal_run_qvm}
#define GRAPHNODE_FIELDS {&GraphNode::tensor, &GraphNode::name, &GraphNode::df, &GraphNode::device}

int qtensor_traverse(PyObject* self, visitproc visit, void* arg) {
  int r = traverse_fields<QTensor>(self, visit, arg, nb::inst_ptr<QTensor>(self), QTENSOR_FIELDS);
  if (r || !nb::inst_ready(self)) return r;
  const PendingLinks& pending = nb::inst_ptr<QTensor>(self)->pending_links;
  for (int i = 0; i < pending.count; ++i) Py_VISIT(pending.inputs[i].ptr());
  return 0;
}
int qtensor_clear(PyObject* self) {
  if (nb::inst_ready(self)) nb::inst_ptr<QTensor>(self)->pending_links = PendingLinks();
  return clear_fields<QTensor>(self, QTENSOR_FIELDS);
}
int graphnode_traverse(PyObject* self, visitproc visit, void* arg) {
  return traverse_fields<GraphNode>(self, visit, arg, nb::inst_ptr<GraphNode>(self), GRAPHNODE_FIELDS);
}
int graphnode_clear(PyObject* self) { return clear_fields<GraphNode>(self, GRAPHNODE_FIELDS); }
int gradfn_traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  return nb::inst_ready(self) ? nb::inst_ptr<GradFn>(self)->traverse(visit, arg) : 0;
}
int gradfn_clear(PyObject* self) {
  if (nb::inst_ready(self)) nb::inst_ptr<GradFn>(self)->clear();
  return 0;
}

// ---- number and comparison slots ----
// QTensor's operators are type slots rather than methods, so `x * y` reaches
// the operator without a method lookup and argument parsing. CPython derives
// the __add__/__radd__ ... wrappers from them.

template <typename F>
PyObject* guarded(F&& body) noexcept {
  try {
    return body().release().ptr();
  } catch (...) {
    py::set_python_error_from_current_exception();
    return nullptr;
  }
}

// self op t and t op self alike: the operand that is not a QTensor enters
// through _to_tensor, and the operand order is kept.
PyObject* binary_slot(nb::object (*op)(nb::handle, nb::handle), PyObject* a, PyObject* b) {
  return guarded([&] {
    if (is_qtensor(a)) return op(a, to_tensor(b));
    return op(to_tensor(a), b);
  });
}

PyObject* slot_add(PyObject* a, PyObject* b) { return binary_slot(g_operators.add, a, b); }
PyObject* slot_sub(PyObject* a, PyObject* b) { return binary_slot(g_operators.sub, a, b); }
PyObject* slot_mul(PyObject* a, PyObject* b) { return binary_slot(g_operators.mul, a, b); }
PyObject* slot_div(PyObject* a, PyObject* b) { return binary_slot(g_operators.div, a, b); }
PyObject* slot_pow(PyObject* a, PyObject* b, PyObject* mod) {
  if (mod != Py_None) {
    PyErr_SetString(PyExc_TypeError, "pow() with a modulus is not supported for QTensor");
    return nullptr;
  }
  return binary_slot(g_operators.pow, a, b);
}
PyObject* slot_neg(PyObject* a) { return guarded([&] { return g_operators.neg(a); }); }
PyObject* slot_richcompare(PyObject* self, PyObject* other, int op) {
  return guarded([&] { return g_operators.compare(self, other, op); });
}
// The identity, so tensors are dictionary keys while == is element-wise.
Py_hash_t slot_hash(PyObject* self) { return Py_hash_t(uintptr_t(self)); }

PyType_Slot qtensor_slots[] = {
    {Py_tp_traverse, (void*)qtensor_traverse}, {Py_tp_clear, (void*)qtensor_clear},
    {Py_nb_add, (void*)slot_add},              {Py_nb_subtract, (void*)slot_sub},
    {Py_nb_multiply, (void*)slot_mul},         {Py_nb_true_divide, (void*)slot_div},
    {Py_nb_power, (void*)slot_pow},            {Py_nb_negative, (void*)slot_neg},
    {Py_tp_richcompare, (void*)slot_richcompare}, {Py_tp_hash, (void*)slot_hash},
    {0, nullptr}};
PyType_Slot graphnode_slots[] = {{Py_tp_traverse, (void*)graphnode_traverse}, {Py_tp_clear, (void*)graphnode_clear}, {0, nullptr}};
PyType_Slot gradfn_slots[] = {{Py_tp_traverse, (void*)gradfn_traverse}, {Py_tp_clear, (void*)gradfn_clear}, {0, nullptr}};

// ---- the way in of host data ----

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
    int64_t dev = device_of(device, "QTensor");
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
      try {
        t.assign(to_device(t, int(dev), "toGPU"));
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
  nb::object source = nb::steal(PyObject_CallOneArg(g_np_array, data.ptr()));
  if (!source) throw nb::python_error();
  return core_from_array(source, dev, dtype, true);
}

namespace {

nb::object empty_text() {
  static PyObject* text = PyUnicode_FromString("");  // held for the process
  return nb::borrow(text);
}

void init_fields(QTensor* q, nb::object data, nb::handle requires_grad, nb::handle nodes, nb::handle device,
                 nb::handle name) {
  new (q) QTensor{std::move(data),
                  Tensor(),
                  nb::borrow(requires_grad),
                  truthy(nodes) ? nb::borrow(nodes) : nb::object(),
                  nb::object(),
                  nb::none(),
                  nb::borrow(device),
                  nb::none(),
                  nb::borrow(Py_False),
                  name ? nb::borrow(name) : empty_text(),
                  nb::borrow(Py_True),
                  PendingLinks()};
}

// ---- astype ----

// " float32 astype float64": the part of astype's edge label after the id,
// one static text per pair of dtypes so the label can stay lazy.
const char* astype_label_tail(DType from, DType to) {
  static const std::vector<std::string> tails = [] {
    std::vector<std::string> all;
    for (int a = 0; a < kNumDTypes; ++a)
      for (int b = 0; b < kNumDTypes; ++b)
        all.push_back(std::string(" ") + dtype_name(DType(a)) + " astype " + dtype_name(DType(b)));
    return all;
  }();
  return tails[size_t(int(from) * kNumDTypes + int(to))].c_str();
}

// The gradient of astype: back to the source's dtype as it is when it runs.
Tensor astype_grad(const Tensor& g, const FnGrad& f) { return to_dtype(g, f.data(0).dtype(), true); }

nb::object astype(nb::handle self, const py::DTypeArg& dtype) {
  QTensor& s = as_qtensor(self, "astype");
  const Tensor& source = core_of(s, "astype");
  DType target = dtype.get("astype");
  nb::object data = wrap_core(to_dtype(source, target, true));
  nb::list nodes;
  if (truthy(s.requires_grad)) {
    nodes.append(edge(self, FnGrad(&astype_grad, nullptr, 0, {self}),
                      LazyLabel().id(self).then(astype_label_tail(source.dtype(), target))));
  }
  nb::object y = new_qtensor(data, s.requires_grad, nodes, s.device);
  record_cast(self, y);
  return y;
}

}  // namespace

// ---- helpers declared in qtensor.h ----


QTensor& as_qtensor(nb::handle h, const char* op) {
  if (!is_qtensor(h))
    throw nb::type_error((std::string("[") + op + "] expected a QTensor, got " + nb::type_name(h.type()).c_str()).c_str());
  return *nb::inst_ptr<QTensor>(h);
}

GraphNode& as_graphnode(nb::handle h, const char* op) {
  if (!PyObject_TypeCheck(h.ptr(), graphnode_type()))
    throw nb::type_error(
        (std::string("[") + op + "] expected a QTensor.GraphNode, got " + nb::type_name(h.type()).c_str()).c_str());
  return *nb::inst_ptr<GraphNode>(h);
}

Tensor& as_core(nb::handle h, const char* op) {
  if (!is_core_tensor(h))
    throw nb::type_error(
        (std::string("[") + op + "] expected a _core.Tensor, got " + nb::type_name(h.type()).c_str()).c_str());
  return *nb::inst_ptr<Tensor>(h);
}

nb::object wrap_core(Tensor t) {
  nb::object obj = nb::inst_alloc(core_tensor_type());
  new (nb::inst_ptr<Tensor>(obj)) Tensor(std::move(t));
  nb::inst_mark_ready(obj);
  return obj;
}

bool truthy(nb::handle h) {
  if (h.ptr() == Py_True) return true;
  if (h.ptr() == Py_False || h.is_none()) return false;
  int r = PyObject_IsTrue(h.ptr());
  if (r < 0) throw nb::python_error();
  return r;
}

nb::object& materialized(nb::object& list_field) {
  if (!list_field.is_valid()) list_field = nb::list();
  return list_field;
}

nb::handle imported(const char* module, const char* name) {
  return nb::object(nb::module_::import_(module).attr(name)).release();
}

nb::object& link_nodes_of(QTensor& q) {
  nb::object& list = materialized(q.link_nodes);
  if (q.pending_links.count) {
    PendingLinks pending = std::move(q.pending_links);
    q.pending_links = PendingLinks();
    for (int i = 0; i < pending.count; ++i) {
      nb::object name = nb::str((std::string(pending.prefixes[i]) + pending.body.str()).c_str());
      if (PyList_Append(list.ptr(), make_graphnode(pending.inputs[i], nb::none(), name).ptr()) < 0)
        throw nb::python_error();
    }
  }
  return list;
}

std::string py_text(nb::handle o) {
  nb::object text = nb::steal(PyObject_Str(o.ptr()));
  if (!text) throw nb::python_error();
  return nb::cast<std::string>(text);
}

int64_t device_of(nb::handle device_field, const char* op) {
  if (PyLong_CheckExact(device_field.ptr())) {
    int overflow = 0;
    long long d = PyLong_AsLongLongAndOverflow(device_field.ptr(), &overflow);
    if (!overflow) return d;
  }
  return py::integer(device_field, op, "device");
}

nb::object device_object(int device) {
  // The processor and the first accelerators, made once and shared.
  static PyObject* usual[17] = {};
  int slot = device == kCpuDevice ? 0 : device - kFirstAccelerator + 1;
  if (slot < 0 || slot >= 17) return nb::int_(device);
  if (!usual[slot]) usual[slot] = nb::int_(device).release().ptr();
  return nb::borrow(usual[slot]);
}

nb::object new_qtensor(nb::object data, nb::handle requires_grad, nb::handle nodes, nb::handle device, nb::handle name) {
  nb::object obj = nb::inst_alloc(qtensor_type());
  init_fields(nb::inst_ptr<QTensor>(obj), std::move(data), requires_grad, nodes, device, name);
  nb::inst_mark_ready(obj);
  record_constant(obj, *nb::inst_ptr<QTensor>(obj));
  return obj;
}

nb::object new_qtensor(Tensor value, nb::handle requires_grad, nb::handle nodes, nb::handle device) {
  nb::object obj = nb::inst_alloc(qtensor_type());
  QTensor* q = nb::inst_ptr<QTensor>(obj);
  init_fields(q, nb::object(), requires_grad, nodes, device, nb::handle());
  q->value = std::move(value);
  nb::inst_mark_ready(obj);
  record_constant(obj, *q);
  return obj;
}

nb::object& data_of(QTensor& q) {
  if (!q.data.is_valid()) {
    q.data = wrap_core(std::move(q.value));
    q.value = Tensor();
  }
  return q.data;
}

void set_data(QTensor& q, nb::handle data) {
  q.data = nb::borrow(data);
  q.value = Tensor();
}

nb::object construct_qtensor(nb::handle data, nb::handle requires_grad, nb::handle nodes, nb::handle device,
                             nb::handle dtype) {
  return new_qtensor(to_coretensor_ndarray(data, device, dtype), requires_grad, nodes, device);
}

nb::object qtensor_from_core(Tensor t) {
  int device = t.device();
  return new_qtensor(std::move(t), Py_False, Py_None, device_object(device));
}

nb::object zeros_qtensor(const Shape& shape, int device, DType dtype) {
  return qtensor_from_core(full(shape, Scalar::from_int(0), device, dtype, "zeros"));
}

namespace {
nb::object new_graphnode(nb::handle tensor, nb::handle df, nb::handle name, const LazyLabel& label) {
  nb::object device = is_qtensor(tensor) ? as_qtensor(tensor, "GraphNode").device
                                         : nb::steal(PyObject_GetAttrString(tensor.ptr(), "device"));
  if (!device.is_valid()) throw nb::python_error();
  nb::object obj = nb::inst_alloc(graphnode_type());
  new (nb::inst_ptr<GraphNode>(obj)) GraphNode{nb::borrow(tensor), nb::borrow(name), nb::borrow(df), device, label};
  nb::inst_mark_ready(obj);
  return obj;
}
}  // namespace

nb::object make_graphnode(nb::handle tensor, nb::handle df, nb::handle name) {
  return new_graphnode(tensor, df, name, LazyLabel());
}

nb::object make_graphnode(nb::handle tensor, nb::handle df, const LazyLabel& label) {
  return new_graphnode(tensor, df, nb::handle(), label);
}

nb::object& graphnode_name(GraphNode& node) {
  if (!node.name.is_valid()) node.name = nb::str(node.label.str().c_str());
  return node.name;
}

LazyLabel& LazyLabel::shape(const Shape& s) {
  append_value(Kind::Shape, s.begin(), s.rank());
  return *this;
}

LazyLabel& LazyLabel::id(nb::handle o) {
  int64_t value = int64_t(uintptr_t(o.ptr()));
  append_value(Kind::Id, &value, 1);
  return *this;
}

LazyLabel& LazyLabel::then(const char* text) {
  if (formatted_) formatted_ = std::make_shared<const std::string>(*formatted_ + text);
  else text_[nvalues_] = text;
  return *this;
}

namespace {
std::string value_text(bool is_id, const int64_t* values, int count) {
  if (is_id) return std::to_string(uint64_t(values[0]));
  std::string s = "[";
  for (int i = 0; i < count; ++i) s += (i ? ", " : "") + std::to_string(values[i]);
  return s + "]";
}
}  // namespace

void LazyLabel::append_value(Kind kind, const int64_t* values, int count) {
  if (!formatted_ && (nvalues_ == 2 || used_ + count > kPool))
    formatted_ = std::make_shared<const std::string>(str());
  if (formatted_) {
    formatted_ = std::make_shared<const std::string>(*formatted_ + value_text(kind == Kind::Id, values, count));
    return;
  }
  kinds_[nvalues_] = kind;
  counts_[nvalues_] = uint8_t(count);
  for (int i = 0; i < count; ++i) pool_[used_ + i] = values[i];
  used_ = uint8_t(used_ + count);
  ++nvalues_;
}

std::string LazyLabel::str() const {
  if (formatted_) return *formatted_;
  std::string s = text_[0];
  for (int v = 0, at = 0; v < nvalues_; at += counts_[v], ++v)
    s += value_text(kinds_[v] == Kind::Id, pool_ + at, counts_[v]) + text_[v + 1];
  return s;
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

void zero_grad(nb::handle self) {
  QTensor& s = as_qtensor(self, "zero_grad");
  if (is_false(s.requires_grad)) throw nb::value_error("Tensor's requires_grad is False ");
  if (s.grad.is_none()) {
    const Tensor& data = core_of(s, "zero_grad");
    int device = int(device_of(s.device, "zero_grad"));
    nb::object zeros = wrap_core(full(data.shape(), Scalar::from_int(0), device, data.dtype(), "zeros"));
    s.grad = new_qtensor(to_coretensor_ndarray(zeros, s.device, nb::int_(int(data.dtype()))), Py_False, Py_None,
                         s.device);
  } else {
    fill_(core_of(as_qtensor(s.grad, "zero_grad"), "zero_grad"), Scalar::from_int(0));
  }
}

nb::class_<QTensor> init_qtensor(nb::module_& m) {
  g_types.ndarray = (PyTypeObject*)imported("numpy", "ndarray").ptr();
  g_np_array = imported("numpy", "array").ptr();
  g_types.core_tensor = (PyTypeObject*)nb::type<Tensor>().ptr();

  nb::class_<QTensor> cls(m, "QTensor", nb::is_weak_referenceable(), nb::type_slots(qtensor_slots),
                          "QTensor is basic data struct for quantum circuits and nerual networks.\n"
                          "It supports multiple operations and implement their gradient function.");
  g_types.qtensor = (PyTypeObject*)cls.ptr();

  nb::class_<GraphNode> node(cls, "GraphNode", nb::type_slots(graphnode_slots),
                             "Helper class which models a node in the computational graph.\n"
                             "Stores tensor and derivative function of the primitive operation.");
  g_types.graphnode = (PyTypeObject*)node.ptr();
  node.def("__init__",
           [](GraphNode* self, nb::handle tensor, nb::handle df, nb::handle name) {
             nb::object device = nb::steal(PyObject_GetAttrString(tensor.ptr(), "device"));
             if (!device) throw nb::python_error();
             new (self) GraphNode{nb::borrow(tensor), nb::borrow(name), nb::borrow(df), device, LazyLabel()};
           },
           nb::arg("tensor").none(), nb::arg("df").none(), nb::arg("name").none() = "");
  node.def_rw("tensor", &GraphNode::tensor, nb::arg().none());
  node.def_prop_rw(
      "name", [](GraphNode& n) { return graphnode_name(n); },
      [](GraphNode& n, nb::handle value) { n.name = nb::borrow(value); }, nb::arg().none());
  node.def_rw("df", &GraphNode::df, nb::arg().none());
  node.def_rw("device", &GraphNode::device, nb::arg().none());

  nb::class_<GradFn> gradfn(m, "GradFn", nb::type_slots(gradfn_slots),
                            "Derivative function of a built-in operator: takes and returns a _core.Tensor.");
  g_types.gradfn = (PyTypeObject*)gradfn.ptr();
  gradfn.def("__call__", [](GradFn& f, nb::handle g) { return wrap_core(f.apply(as_core(g, "backward"))); },
             nb::arg("grad").none());

  cls.def("__init__",
          [](QTensor* self, nb::handle data, nb::handle requires_grad, nb::handle nodes, const py::DeviceArg& device,
             const py::DTypeArg& dtype, nb::handle name) {
            nb::object core = to_coretensor_ndarray(data, device, dtype);
            init_fields(self, std::move(core), requires_grad, nodes, device, name);
            try {
              record_constant(nb::find(*self), *self);
            } catch (...) {
              self->~QTensor();
              throw;
            }
          },
          nb::arg("data").none(), nb::arg("requires_grad").none() = false, nb::arg("nodes").none() = nb::none(), nb::arg("device").none() = 0,
          nb::arg("dtype").none() = nb::none(), nb::arg("name").none() = "");

  cls.def_prop_rw(
      "data", [](QTensor& q) { return data_of(q); }, [](QTensor& q, nb::handle value) { set_data(q, value); },
      nb::arg().none());
  cls.def_rw("requires_grad", &QTensor::requires_grad, nb::arg().none());
  cls.def_prop_rw(
      "nodes", [](QTensor& q) { return materialized(q.nodes); },
      [](QTensor& q, nb::handle value) { q.nodes = nb::borrow(value); }, nb::arg().none());
  cls.def_prop_rw(
      "link_nodes", [](QTensor& q) { return link_nodes_of(q); },
      [](QTensor& q, nb::handle value) {
        q.pending_links = PendingLinks();
        q.link_nodes = nb::borrow(value);
      },
      nb::arg().none());
  cls.def_rw("grad", &QTensor::grad, nb::arg().none());
  cls.def_rw("device", &QTensor::device, nb::arg().none());
  cls.def_rw("oplinkinfo", &QTensor::oplinkinfo, nb::arg().none());
  cls.def_rw("save_onnx_constant", &QTensor::save_onnx_constant, nb::arg().none());
  cls.def_rw("name", &QTensor::name, nb::arg().none());
  cls.def_rw("_if_normal_run_qvm", &QTensor::if_normal_run_qvm, nb::arg().none());

  cls.def_static("_to_coretensor_ndarray", &to_coretensor_ndarray, nb::arg("data").none(), nb::arg("device").none(), nb::arg("dtype").none());
  cls.def_static("_to_tensor", &to_tensor, nb::arg("tensor").none());
  cls.def("astype", &astype, nb::arg("dtype").none());
  cls.def("zero_grad", &zero_grad);
  cls.def("backward", &backward, nb::arg("grad").none() = nb::none());

  return cls;
}

}  // namespace tramel::tensor
