// QTensor, its graph edge GraphNode, and the C++ gradient objects.
//
// Note [Python-object fields]
// Every field of QTensor and GraphNode is a Python object and is stored exactly
// as it was given: user code reads and writes them freely (requires_grad may
// be any object, device is whatever int the caller passed). C++ reads them
// through the helpers below, which treat them as Python would (truthiness,
// identity with True/False, int conversion).
//
// Note [lazy empty lists]
// A tensor's `nodes` and `link_nodes` start as empty lists. Most tensors
// never get an entry, so the empty list is made on first read: until then
// the field is null, which C++ readers treat as an empty list.
#pragma once
#include <nanobind/nanobind.h>

#include <string>

#include "core/ops.h"

namespace tramel::tensor {

namespace nb = nanobind;

struct QTensor {
  nb::object data;             // a _core.Tensor
  nb::object requires_grad;
  nb::object nodes;            // list of GraphNode; see Note [lazy empty lists]
  nb::object link_nodes;       // list of GraphNode with df None; likewise
  nb::object grad;             // QTensor or None
  nb::object device;
  nb::object oplinkinfo;
  nb::object save_onnx_constant;
  nb::object name;
  nb::object if_normal_run_qvm;
};

// A label made of literal text and tensor shapes, formatted only when read:
// text[0] shapes[0] text[1] shapes[1] text[2], shapes printed as Python
// prints a shape list ("[2, 3]"). Built-in operators name their edges with it
// so that a label nobody reads costs no string formatting.
struct LazyLabel {
  const char* text[3] = {"", "", ""};
  Shape shapes[2];
  int nshapes = 0;

  static LazyLabel literal(const char* text);
  static LazyLabel with_shape(const char* before, const Shape& shape, const char* after = "");
  static LazyLabel with_shapes(const char* before, const Shape& a, const char* middle, const Shape& b,
                               const char* after = "");
  std::string str() const;
};

struct GraphNode {
  nb::object tensor;
  nb::object name;  // null while `label` has not been formatted
  nb::object df;
  nb::object device;
  LazyLabel label;
};

// A built-in operator's derivative function. The backward walk calls apply()
// directly; Python sees a callable taking and returning a _core.Tensor.
class GradFn {
 public:
  virtual ~GradFn() = default;
  virtual nb::object apply(nb::handle grad) = 0;  // grad: a _core.Tensor
  // The Python objects held, for the cycle collector.
  virtual int traverse(visitproc visit, void* arg) = 0;
  virtual void clear() = 0;
};

// Types, set when the module is initialised.
PyTypeObject* qtensor_type();
PyTypeObject* graphnode_type();
PyTypeObject* core_tensor_type();
PyTypeObject* gradfn_type();
PyTypeObject* ndarray_type();  // numpy.ndarray

inline bool is_qtensor(nb::handle h) { return PyObject_TypeCheck(h.ptr(), qtensor_type()); }
inline bool is_core_tensor(nb::handle h) { return PyObject_TypeCheck(h.ptr(), core_tensor_type()); }

// The QTensor behind h; TypeError naming `op` when h is none.
QTensor& as_qtensor(nb::handle h, const char* op);
GraphNode& as_graphnode(nb::handle h, const char* op);
// The engine tensor behind a _core.Tensor object.
Tensor& as_core(nb::handle h, const char* op);
// The engine tensor of a QTensor's data field.
inline Tensor& core_of(const QTensor& q, const char* op) { return as_core(q.data, op); }
// A new _core.Tensor object owning t.
nb::object wrap_core(Tensor t);

// Python truthiness / identity helpers (see Note [Python-object fields]).
bool truthy(nb::handle h);
inline bool is_true(nb::handle h) { return h.ptr() == Py_True; }
inline bool is_false(nb::handle h) { return h.ptr() == Py_False; }
int64_t device_of(nb::handle device_field, const char* op);

// The one way to build a QTensor from C++: fields as the constructor sets
// them, then the constant record when recording is on.
nb::object new_qtensor(nb::object data, nb::handle requires_grad, nb::handle nodes, nb::handle device,
                       nb::handle name = nb::handle());
// QTensor(data, requires_grad, nodes, device, dtype), as the constructor does it.
nb::object construct_qtensor(nb::handle data, nb::handle requires_grad, nb::handle nodes, nb::handle device,
                             nb::handle dtype);
// The constructor's conversion of any accepted `data` into a _core.Tensor object.
nb::object to_coretensor_ndarray(nb::handle data, nb::handle device, nb::handle dtype);
// QTensor(data=Tensor on its own device), requires_grad False: what to_tensor
// makes of a core result.
nb::object qtensor_from_core(Tensor t);
// A QTensor holding zeros of `shape`, `dtype` on `device`.
nb::object zeros_qtensor(const Shape& shape, int device, DType dtype);
nb::object make_graphnode(nb::handle tensor, nb::handle df, nb::handle name);
nb::object make_graphnode(nb::handle tensor, nb::handle df, const LazyLabel& label);
// The name of an edge, formatting a lazy label on first read.
nb::object& graphnode_name(GraphNode& node);

// The list in a lazily made list field; see Note [lazy empty lists].
nb::object& materialized(nb::object& list_field);

// module.name, imported once and held for the life of the process (a handle
// kept in a function-local static: nothing to release at interpreter exit).
nb::handle imported(const char* module, const char* name);

// str(o) of a Python object.
std::string py_text(nb::handle o);

// QTensor members and module functions used across files.
void zero_grad(nb::handle self);
void backward(nb::handle self, nb::handle grad);
nb::object to_tensor(nb::handle value);
// A new numpy array with the tensor's values, from any device.
nb::object host_copy(const Tensor& t, const char* op);
nb::object zeros_like(nb::handle t, nb::handle device, nb::handle dtype);
nb::object ones_like(nb::handle t, nb::handle device, nb::handle dtype);

nb::class_<QTensor> init_qtensor(nb::module_& m);
void init_host(nb::module_& m, nb::class_<QTensor>& cls);
void init_device(nb::module_& m, nb::class_<QTensor>& cls);
void init_query(nb::module_& m, nb::class_<QTensor>& cls);
void init_autograd(nb::module_& m);
void init_creation(nb::module_& m);
void init_export(nb::module_& m);

}  // namespace tramel::tensor
