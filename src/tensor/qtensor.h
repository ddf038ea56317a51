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

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/ops.h"
#include "interop/args.h"
#include "tensor/autograd/derivative.h"
#include "tensor/label.h"

namespace tramel::tensor {

namespace nb = nanobind;

// Note [lazy link nodes]
// Operators of the always-linked export form give every result link nodes to
// its inputs, recording or not. They are kept here, inputs held strongly,
// and become GraphNode objects in `link_nodes` only when someone reads it.
// Every such label is a per-input prefix followed by one shared body
// ("t1 no grad " / "t2 no grad " + "[2] add [2]").
struct PendingLinks {
  static constexpr int kCapacity = 2;  // the always-linked operators have one or two inputs
  nb::object inputs[kCapacity];
  const char* prefixes[kCapacity];
  LazyLabel body;
  int count = 0;
};

// Note [core tensor made on first read]
// An operator's result keeps its engine tensor in `value`, and the Python
// _core.Tensor object for `data` is made when Python first reads it (and
// kept from then on, so two reads give the same object). C++ reaches the
// tensor through core_of() either way.
//
// Note [pending zero gradients]
// The backward pass gives every tensor it will reach a zero gradient before
// any derivative runs, and then adds each contribution into it. A gradient
// made there holds an unfilled `value` standing for zeros (`pending_zeros`):
// the first contribution of its own shape, dtype and device becomes its value
// (sharing storage, copy-on-write), so neither the fill nor the addition is
// paid. Whoever reads it before that (core_of, `data`) gets real zeros: they
// are written on the first read.
struct QTensor {
  nb::object data;             // a _core.Tensor, or null while the tensor is in `value`
  mutable Tensor value;
  mutable bool pending_zeros = false;  // see Note [pending zero gradients]
  nb::object requires_grad;
  nb::object nodes;            // list of GraphNode; see Note [lazy empty lists]
  nb::object link_nodes;       // list of GraphNode with df None; likewise
  nb::object grad;             // QTensor or None
  nb::object device;
  nb::object oplinkinfo;
  nb::object save_onnx_constant;
  nb::object name;
  nb::object if_normal_run_qvm;
  PendingLinks pending_links;  // see Note [lazy link nodes]
  std::vector<Edge> edges;     // see Note [edge records]
};

struct GraphNode {
  nb::object tensor;
  nb::object name;  // null while `label` has not been formatted
  nb::object df;
  nb::object device;
  LazyLabel label;
};

// Note [tensor arguments]
// A parameter that takes a QTensor, or a list of them, is declared as one of
// the types below rather than as nb::handle, so that signatures and stubs say
// `QTensor` and `list[QTensor]`. Like the argument types of interop/args.h
// (Note [argument types]), they are the object as the caller gave it, and
// their casters take every object: None too, where the parameter is marked
// .none() (nanobind then writes `QTensor | None`). The function's own check
// (as_qtensor, core_of) refuses anything else, with the function's own
// message; a caster that refused would turn it into nanobind's generic
// "incompatible function arguments" TypeError. A caster that takes
// everything costs what nb::handle's does. A function that always returns a
// QTensor returns TensorResult, so that its result reads `QTensor` too.
struct TensorArg : nb::handle {
  TensorArg() = default;
  TensorArg(nb::handle h) : nb::handle(h) {}
};
struct TensorListArg : nb::handle {
  TensorListArg() = default;
  TensorListArg(nb::handle h) : nb::handle(h) {}
};
// A QTensor that a function returns.
struct TensorResult : nb::object {
  TensorResult() = default;
  TensorResult(nb::object o) : nb::object(std::move(o)) {}
};

// Types, set when the module is initialised.
struct ModuleTypes {
  PyTypeObject* qtensor = nullptr;
  PyTypeObject* graphnode = nullptr;
  PyTypeObject* core_tensor = nullptr;
  PyTypeObject* ndarray = nullptr;  // numpy.ndarray
};
inline ModuleTypes g_types;
inline PyTypeObject* qtensor_type() { return g_types.qtensor; }
inline PyTypeObject* graphnode_type() { return g_types.graphnode; }
inline PyTypeObject* core_tensor_type() { return g_types.core_tensor; }
inline PyTypeObject* ndarray_type() { return g_types.ndarray; }

// The operators behind QTensor's number and comparison slots, filled in by
// the operator families when the module is initialised.
struct OperatorHooks {
  nb::object (*add)(nb::handle, nb::handle) = nullptr;
  nb::object (*sub)(nb::handle, nb::handle) = nullptr;
  nb::object (*mul)(nb::handle, nb::handle) = nullptr;
  nb::object (*div)(nb::handle, nb::handle) = nullptr;
  nb::object (*pow)(nb::handle, nb::handle) = nullptr;
  nb::object (*neg)(nb::handle) = nullptr;
  nb::object (*compare)(nb::handle self, nb::handle other, int op) = nullptr;  // op: Py_EQ ...
  nb::object (*getitem)(nb::handle self, nb::handle key) = nullptr;
  void (*setitem)(nb::handle self, nb::handle key, nb::handle value) = nullptr;
};
inline OperatorHooks g_operators;

inline bool is_qtensor(nb::handle h) { return PyObject_TypeCheck(h.ptr(), qtensor_type()); }
inline bool is_core_tensor(nb::handle h) { return PyObject_TypeCheck(h.ptr(), core_tensor_type()); }

// The QTensor behind h; TypeError naming `op` when h is none.
QTensor& as_qtensor(nb::handle h, const char* op);
GraphNode& as_graphnode(nb::handle h, const char* op);
// The engine tensor behind a _core.Tensor object.
Tensor& as_core(nb::handle h, const char* op);
// The engine tensor of a QTensor; see Note [core tensor made on first read].
void fill_pending_zeros(const QTensor& q);
inline Tensor& core_of(const QTensor& q, const char* op) {
  if (q.data.is_valid()) return as_core(q.data, op);
  if (NB_UNLIKELY(q.pending_zeros)) fill_pending_zeros(q);
  return q.value;
}
// The engine tensor of q for its shape, dtype and device only: pending zeros
// are not written.
inline const Tensor& core_unfilled(const QTensor& q, const char* op) {
  return q.data.is_valid() ? as_core(q.data, op) : q.value;
}
// The engine tensor of the QTensor object h.
inline Tensor& core_of(nb::handle h, const char* op) { return core_of(as_qtensor(h, op), op); }
// The `data` field as Python sees it: the _core.Tensor object, made on first read.
nb::object& data_object(QTensor& q);
void set_data(QTensor& q, nb::handle data);
// A new _core.Tensor object owning t.
nb::object wrap_core(Tensor t);

// Python truthiness / identity helpers (see Note [Python-object fields]).
bool truthy(nb::handle h);
inline bool is_true(nb::handle h) { return h.ptr() == Py_True; }
inline bool is_false(nb::handle h) { return h.ptr() == Py_False; }
// A QTensor's device field as a device number; ValueError when it is not one
// (beyond the range of int).
int device_of(nb::handle device_field, const char* op);
// The Python int for a device number (shared objects for the usual devices).
nb::object device_object(int device);

// The one way to build a QTensor from C++: fields as the constructor sets
// them, then the constant record when recording is on. `data` is a
// _core.Tensor object, or an engine tensor kept until `data` is read.
nb::object new_qtensor(nb::object data, nb::handle requires_grad, nb::handle nodes, nb::handle device,
                       nb::handle name = nb::handle());
nb::object new_qtensor(Tensor value, nb::handle requires_grad, nb::handle nodes, nb::handle device);
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
// A zero gradient for the backward pass, its zeros pending (Note [pending zero gradients]).
nb::object pending_zeros_qtensor(const Shape& shape, int device, DType dtype);
// Adds g into the gradient grad; the first contribution to pending zeros of
// g's own shape, dtype and device becomes the gradient's value.
void add_into_gradient(QTensor& grad, Tensor g);
nb::object make_graphnode(nb::handle tensor, nb::handle df, nb::handle name);
nb::object make_graphnode(nb::handle tensor, nb::handle df, const LazyLabel& label);
// A GraphNode object for an edge record, moving its derivative into a GradFn.
nb::object graphnode_of(Edge&& edge);
// The name of an edge, formatting a lazy label on first read.
nb::object& graphnode_name(GraphNode& node);

// The list in a lazily made list field; see Note [lazy empty lists].
nb::object& materialized(nb::object& list_field);
// q.link_nodes with any pending links made; see Note [lazy link nodes].
nb::object& link_nodes_of(QTensor& q);
// q.nodes with any edge records made into GraphNodes; see Note [edge records].
nb::object& nodes_of(QTensor& q);
// Whether q has an edge, as a record or in a non-empty `nodes`.
bool has_edges(const QTensor& q);

// module.name, imported once and held for the life of the process (a handle
// kept in a function-local static: nothing to release at interpreter exit).
nb::handle imported(const char* module, const char* name);

// str(o) of a Python object.
std::string py_text(nb::handle o);

// QTensor members and module functions used across files.
void zero_grad(nb::handle self);
void backward(nb::handle self, nb::handle grad);
nb::object to_tensor(nb::handle value);
// What to_tensor takes and makes of it, for the docstrings of to_tensor and QTensor._to_tensor.
inline const char* const kToTensorForms =
    "a QTensor (returned itself), a number (a one-element tensor on the processor), a _core.Tensor (kept, "
    "on its own device) or anything else that QTensor() takes (on the processor).";
inline const char* const kToTensorResult = "A QTensor; a new one has requires_grad False.";
// Moves a QTensor (and its grad) to `device` in place, as toGPU/toCPU do.
nb::object move_to_device(nb::handle self, int device);
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

namespace nanobind::detail {

// See Note [tensor arguments].
TRAMEL_ARGUMENT_CASTER(tramel::tensor::TensorArg, const_name("QTensor"))
TRAMEL_ARGUMENT_CASTER(tramel::tensor::TensorListArg, const_name("list[QTensor]"))

template <>
struct type_caster<tramel::tensor::TensorResult> {
  NB_TYPE_CASTER(tramel::tensor::TensorResult, const_name("QTensor"))
  bool from_python(handle src, uint32_t, cleanup_list*) noexcept {
    value = tramel::tensor::TensorResult(borrow(src));
    return true;
  }
  static handle from_cpp(tramel::tensor::TensorResult&& result, rv_policy, cleanup_list*) noexcept {
    return result.release();
  }
  static handle from_cpp(const tramel::tensor::TensorResult& result, rv_policy, cleanup_list*) noexcept {
    return result.inc_ref();
  }
};

}  // namespace nanobind::detail
