// QTensor and GraphNode: the objects, their fields and type slots, and the
// one way to build them from C++. The way in of host data is host/ingest.cpp,
// backward lives with the walks in autograd/.
#include "tensor/qtensor.h"

#include <nanobind/stl/string.h>

#include <vector>

#include "interop/args.h"
#include "interop/docs.h"
#include "interop/interop.h"
#include "tensor/export/record.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

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
  const QTensor& q = *nb::inst_ptr<QTensor>(self);
  for (int i = 0; i < q.pending_links.count; ++i) Py_VISIT(q.pending_links.inputs[i].ptr());
  for (const Edge& e : q.edges) {
    Py_VISIT(e.tensor.ptr());
    Py_VISIT(e.device.ptr());
    if (int r = e.derivative.traverse(visit, arg)) return r;
  }
  return 0;
}
int qtensor_clear(PyObject* self) {
  if (nb::inst_ready(self)) {
    QTensor& q = *nb::inst_ptr<QTensor>(self);
    q.pending_links = PendingLinks();
    std::vector<Edge>().swap(q.edges);
  }
  return clear_fields<QTensor>(self, QTENSOR_FIELDS);
}
int graphnode_traverse(PyObject* self, visitproc visit, void* arg) {
  return traverse_fields<GraphNode>(self, visit, arg, nb::inst_ptr<GraphNode>(self), GRAPHNODE_FIELDS);
}
int graphnode_clear(PyObject* self) { return clear_fields<GraphNode>(self, GRAPHNODE_FIELDS); }

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
PyObject* slot_getitem(PyObject* self, PyObject* key) { return guarded([&] { return g_operators.getitem(self, key); }); }
int slot_setitem(PyObject* self, PyObject* key, PyObject* value) {
  if (!value) {
    PyErr_SetString(PyExc_TypeError, "'QTensor' object does not support item deletion");
    return -1;
  }
  try {
    g_operators.setitem(self, key, value);
    return 0;
  } catch (...) {
    py::set_python_error_from_current_exception();
    return -1;
  }
}
// The identity, so tensors are dictionary keys while == is element-wise.
Py_hash_t slot_hash(PyObject* self) { return Py_hash_t(uintptr_t(self)); }

PyType_Slot qtensor_slots[] = {
    {Py_tp_traverse, (void*)qtensor_traverse}, {Py_tp_clear, (void*)qtensor_clear},
    {Py_nb_add, (void*)slot_add},              {Py_nb_subtract, (void*)slot_sub},
    {Py_nb_multiply, (void*)slot_mul},         {Py_nb_true_divide, (void*)slot_div},
    {Py_nb_power, (void*)slot_pow},            {Py_nb_negative, (void*)slot_neg},
    {Py_tp_richcompare, (void*)slot_richcompare}, {Py_tp_hash, (void*)slot_hash},
    {Py_mp_subscript, (void*)slot_getitem},    {Py_mp_ass_subscript, (void*)slot_setitem},
    {0, nullptr}};
PyType_Slot graphnode_slots[] = {{Py_tp_traverse, (void*)graphnode_traverse}, {Py_tp_clear, (void*)graphnode_clear}, {0, nullptr}};

}  // namespace

namespace {

nb::object empty_text() {
  static PyObject* text = PyUnicode_FromString("");  // held for the process
  return nb::borrow(text);
}

void init_fields(QTensor* q, nb::object data, nb::handle requires_grad, nb::handle nodes, nb::handle device,
                 nb::handle name) {
  new (q) QTensor{std::move(data),
                  Tensor(),
                  false,
                  nb::borrow(requires_grad),
                  truthy(nodes) ? nb::borrow(nodes) : nb::object(),
                  nb::object(),
                  nb::none(),
                  nb::borrow(device),
                  nb::none(),
                  nb::borrow(Py_False),
                  name ? nb::borrow(name) : empty_text(),
                  nb::borrow(Py_True),
                  PendingLinks(),
                  {}};
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

int device_of(nb::handle device_field, const char* op) {
  if (PyLong_CheckExact(device_field.ptr())) {
    int overflow = 0;
    long long d = PyLong_AsLongLongAndOverflow(device_field.ptr(), &overflow);
    if (!overflow) return py::device_number(d, op);
  }
  return py::device_number(py::integer(device_field, op, "device"), op);
}

nb::object device_object(int device) {
  // The processor and the first accelerators, made once and shared.
  static PyObject* usual[17] = {};
  int64_t slot = device == kCpuDevice ? 0 : int64_t(device) - kFirstAccelerator + 1;
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

void fill_pending_zeros(const QTensor& q) {
  q.pending_zeros = false;
  fill_(q.value, Scalar::from_int(0));
}

nb::object& data_object(QTensor& q) {
  if (!q.data.is_valid()) {
    if (q.pending_zeros) fill_pending_zeros(q);
    q.data = wrap_core(std::move(q.value));
    q.value = Tensor();
  }
  return q.data;
}

void set_data(QTensor& q, nb::handle data) {
  q.data = nb::borrow(data);
  q.value = Tensor();
  q.pending_zeros = false;
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

nb::object pending_zeros_qtensor(const Shape& shape, int device, DType dtype) {
  nb::object obj = nb::inst_alloc(qtensor_type());
  QTensor* q = nb::inst_ptr<QTensor>(obj);
  init_fields(q, nb::object(), Py_False, Py_None, device_object(device), nb::handle());
  q->value = uninitialized(shape, dtype, device, "zeros");
  q->pending_zeros = true;
  nb::inst_mark_ready(obj);
  record_constant(obj, *q);  // reads the values, so the zeros are written when recording
  return obj;
}

void add_into_gradient(QTensor& grad, Tensor g) {
  if (grad.pending_zeros && !grad.data.is_valid()) {
    const Tensor& v = grad.value;
    if (g.shape() == v.shape() && g.dtype() == v.dtype() && g.device() == v.device()) {
      grad.value = std::move(g);
      grad.pending_zeros = false;
      return;
    }
  }
  add_(core_of(grad, "backward"), g);
}

namespace {
nb::object device_attribute(nb::handle tensor) {
  if (is_qtensor(tensor)) return as_qtensor(tensor, "GraphNode").device;
  nb::object device = nb::steal(PyObject_GetAttrString(tensor.ptr(), "device"));
  if (!device.is_valid()) throw nb::python_error();
  return device;
}

nb::object new_graphnode(nb::handle tensor, nb::object df, nb::object device, nb::handle name, const LazyLabel& label) {
  nb::object obj = nb::inst_alloc(graphnode_type());
  new (nb::inst_ptr<GraphNode>(obj))
      GraphNode{nb::borrow(tensor), nb::borrow(name), std::move(df), std::move(device), label};
  nb::inst_mark_ready(obj);
  return obj;
}
}  // namespace

nb::object graphnode_of(Edge&& edge) {
  return new_graphnode(edge.tensor, gradfn_object(std::move(edge.derivative)), std::move(edge.device), nb::handle(),
                       edge.label);
}

nb::object& nodes_of(QTensor& q) {
  nb::object& list = materialized(q.nodes);
  if (!q.edges.empty()) {
    std::vector<Edge> edges = std::move(q.edges);
    q.edges.clear();
    for (Edge& e : edges)
      if (PyList_Append(list.ptr(), graphnode_of(std::move(e)).ptr()) < 0) throw nb::python_error();
  }
  return list;
}

bool has_edges(const QTensor& q) {
  if (!q.edges.empty()) return true;
  if (!q.nodes.is_valid()) return false;  // See Note [lazy empty lists]
  Py_ssize_t n = PyObject_Length(q.nodes.ptr());
  if (n < 0) throw nb::python_error();
  return n > 0;
}

nb::object make_graphnode(nb::handle tensor, nb::handle df, nb::handle name) {
  return new_graphnode(tensor, nb::borrow(df), device_attribute(tensor), name, LazyLabel());
}

nb::object make_graphnode(nb::handle tensor, nb::handle df, const LazyLabel& label) {
  return new_graphnode(tensor, nb::borrow(df), device_attribute(tensor), nb::handle(), label);
}

nb::object& graphnode_name(GraphNode& node) {
  if (!node.name.is_valid()) node.name = nb::str(node.label.str().c_str());
  return node.name;
}

void zero_grad(nb::handle self) {
  QTensor& s = as_qtensor(self, "zero_grad");
  // (sic) the trailing space.
  if (is_false(s.requires_grad)) throw nb::value_error("Tensor's requires_grad is False ");
  if (s.grad.is_none()) {
    const Tensor& data = core_of(s, "zero_grad");
    int device = device_of(s.device, "zero_grad");
    nb::object zeros = wrap_core(full(data.shape(), Scalar::from_int(0), device, data.dtype(), "zeros"));
    s.grad = new_qtensor(to_coretensor_ndarray(zeros, s.device, nb::int_(int(data.dtype()))), Py_False, Py_None,
                         s.device);
  } else {
    fill_(core_of(as_qtensor(s.grad, "zero_grad"), "zero_grad"), Scalar::from_int(0));
  }
}

nb::class_<QTensor> init_qtensor(nb::module_& m) {
  g_types.ndarray = (PyTypeObject*)imported("numpy", "ndarray").ptr();
  g_types.core_tensor = (PyTypeObject*)nb::type<Tensor>().ptr();

  nb::class_<QTensor> cls(m, "QTensor", nb::is_weak_referenceable(), nb::type_slots(qtensor_slots),
                          // (sic) "nerual": the class's own words.
                          "QTensor is basic data struct for quantum circuits and nerual networks.\n"
                          "It supports multiple operations and implement their gradient function.");
  g_types.qtensor = (PyTypeObject*)cls.ptr();

  nb::class_<GraphNode> node(cls, "GraphNode", nb::type_slots(graphnode_slots),
                             "Helper class which models a node in the computational graph.\n"
                             "Stores tensor and derivative function of the primitive operation.");
  g_types.graphnode = (PyTypeObject*)node.ptr();
  node.def("__init__",
           [](GraphNode* self, TensorArg tensor, nb::handle df, nb::handle name) {
             nb::object device = nb::steal(PyObject_GetAttrString(tensor.ptr(), "device"));
             if (!device) throw nb::python_error();
             new (self) GraphNode{nb::borrow(tensor), nb::borrow(name), nb::borrow(df), device, LazyLabel()};
           },
           nb::arg("tensor").none(), nb::arg("df").none(), nb::arg("name").none() = "",
           py::doc("An edge of the graph, from a result to one of its inputs.",
                   {"tensor: the input; the edge keeps its device as it is now.",
                    "df: the derivative function: called with the incoming gradient (a _core.Tensor), it returns "
                    "the gradient for tensor (a _core.Tensor or a numpy array); None for an edge without one.",
                    "name: a label; any object, kept as given."})
               .c_str());
  node.def_rw("tensor", &GraphNode::tensor, nb::arg().none(),
              nb::for_getter("The input the edge leads to, which receives its gradient."));
  node.def_prop_rw(
      "name", [](GraphNode& n) { return graphnode_name(n); },
      [](GraphNode& n, nb::handle value) { n.name = nb::borrow(value); }, nb::arg().none(),
      nb::for_getter("The edge's label: for a built-in operator, its name and operands. Not read by the backward "
                     "pass."));
  node.def_rw("df", &GraphNode::df, nb::arg().none(),
              nb::for_getter("The derivative function (a GradFn for built-in operators), or None for an edge "
                             "without gradient."));
  node.def_rw("device", &GraphNode::device, nb::arg().none(),
              nb::for_getter("The device of tensor when the edge was made; the backward pass brings the "
                             "gradient to it."));


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
          nb::arg("dtype").none() = nb::none(), nb::arg("name").none() = "",
          py::doc("A tensor of the given values.",
                  {"data: a number, nested lists or tuples of numbers, or a numpy array, all copied; or a "
                   "_core.Tensor, kept without a copy (and moved to device itself when it is elsewhere).",
                   "requires_grad: whether gradients are wanted; any object, kept as given and read by its truth.",
                   "nodes: the edges (GraphNode) to the inputs of the operation that made the tensor; None or an "
                   "empty list for a leaf.",
                   "device: a device number; 0, the processor, by default.",
                   "dtype: a dtype constant; None keeps the dtype of an array or core tensor, and gives lists of "
                   "floats the default dtype.",
                   "name: a label; any object, kept as given."})
              .c_str());

  cls.def_prop_rw(
      "data", [](QTensor& q) { return data_object(q); }, [](QTensor& q, nb::handle value) { set_data(q, value); },
      nb::arg().none(),
      nb::for_getter("The values, a _core.Tensor: the same object on every read; assigning another replaces them."));
  cls.def_rw("requires_grad", &QTensor::requires_grad, nb::arg().none(),
             nb::for_getter("Whether gradients are wanted; any object, read by its truth."));
  cls.def_prop_rw(
      "nodes", [](QTensor& q) { return nodes_of(q); },
      [](QTensor& q, nb::handle value) {
        q.edges.clear();
        q.nodes = nb::borrow(value);
      },
      nb::arg().none(),
      nb::for_getter("The edges (GraphNode) to the inputs of the operation that made the tensor, one per input "
                     "that requires a gradient; empty for a leaf."));
  cls.def_prop_rw(
      "link_nodes", [](QTensor& q) { return link_nodes_of(q); },
      [](QTensor& q, nb::handle value) {
        q.pending_links = PendingLinks();
        q.link_nodes = nb::borrow(value);
      },
      nb::arg().none(),
      nb::for_getter("The edges of the export graph (GraphNode without derivative); the backward pass does not "
                     "read them."));
  cls.def_rw("grad", &QTensor::grad, nb::arg().none(),
             nb::for_getter("The accumulated gradient, a QTensor, or None while there is none."));
  cls.def_rw("device", &QTensor::device, nb::arg().none(),
             nb::for_getter("The device number: 0 is the processor, 1000 and up are accelerators."));
  cls.def_rw("oplinkinfo", &QTensor::oplinkinfo, nb::arg().none(),
             nb::for_getter("The export record (OPNodesInfo) of the operation that made the tensor, or None."));
  cls.def_rw("save_onnx_constant", &QTensor::save_onnx_constant, nb::arg().none(),
             nb::for_getter("A flag kept for the exporter; False unless set, and not read by this module."));
  cls.def_rw("name", &QTensor::name, nb::arg().none(),
             nb::for_getter("A label; any object. get_opinfo collects the export records (OPNodesInfo) found "
                            "here."));
  cls.def_rw("_if_normal_run_qvm", &QTensor::if_normal_run_qvm, nb::arg().none(),
             nb::for_getter("Whether the tensor holds a valid result: a backward pass that reaches a tensor where "
                            "it equals False over a differentiable edge computes no gradients."));

  cls.def_static("_to_coretensor_ndarray", &to_coretensor_ndarray, nb::arg("data").none(), nb::arg("device").none(),
                 nb::arg("dtype").none(),
                 py::doc("The _core.Tensor that the constructor makes of its data.",
                         {"data: as the constructor takes it.", "device: a device number.",
                          "dtype: a dtype constant, or None as in the constructor."},
                         "A _core.Tensor: a core tensor given is returned itself when its dtype fits.")
                     .c_str());
  cls.def_static("_to_tensor", [](nb::handle value) -> TensorResult { return to_tensor(value); },
                 nb::arg("tensor").none(),
                 py::doc("A QTensor for any value.", {(std::string("tensor: ") + kToTensorForms).c_str()},
                         kToTensorResult).c_str());
  cls.def("zero_grad", &zero_grad,
          py::doc("Zeros the gradient in place, or gives the tensor a zero gradient of its shape, dtype and "
                  "device; refused when requires_grad is False.")
              .c_str());
  cls.def("backward", &backward, nb::arg("grad").none() = nb::none(),
          py::doc("Computes the gradient of this tensor with respect to every tensor of its graph that requires "
                  "one, adding it to their grad; interior tensors' grad is released afterwards.",
                  {"grad: the seed, of this tensor's shape and on its device: a QTensor, a _core.Tensor or a "
                   "numpy array, complex for a complex tensor and real for a real one; None for ones."})
              .c_str());

  return cls;
}

}  // namespace tramel::tensor
