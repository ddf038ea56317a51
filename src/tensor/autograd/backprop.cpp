// The backward pass: toposort, the three walks (validity, gradient, release)
// and QTensor.backward. Everything is iterative: deep graphs of quantum
// circuits must not overflow the stack.
#include <nanobind/nanobind.h>

#include <vector>

#include "interop/docs.h"
#include "interop/interop.h"
#include "tensor/autograd/identity_map.h"
#include "tensor/autograd/toposort.h"

namespace tramel::tensor {

void get_prev(nb::handle q, Nodes& out) {
  for_each_edge(q, [&](const EdgeView& edge) {
    QTensor& parent = as_qtensor(edge.tensor, "backward");
    if (!truthy(parent.requires_grad)) return;
    if (parent.grad.is_none() && !edge.export_only()) {
      const Tensor& data = core_of(parent, "backward");
      if (!is_floating(data.dtype()) && !is_complex(data.dtype()))
        throw nb::value_error("Only float or double tensor can do gradient calculation.");
      parent.grad = pending_zeros_qtensor(data.shape(), device_of(parent.device, "zeros"), data.dtype());
    }
    out.push_back(nb::borrow(edge.tensor));
  });
}

bool check_nodes_not_empty_or_none(nb::handle nodes) {
  if (!nodes.is_valid()) return false;  // an empty list not made yet
  if (nodes.is_none()) return true;
  return PyList_Check(nodes.ptr()) && PyList_GET_SIZE(nodes.ptr()) > 0;
}

void free_grad(nb::handle q, Nodes& out) {
  for_each_edge(q, [&](const EdgeView& edge) {
    QTensor& parent = as_qtensor(edge.tensor, "backward");
    if (!truthy(parent.requires_grad)) return;
    if (!parent.grad.is_none() && (!parent.edges.empty() || check_nodes_not_empty_or_none(parent.nodes)))
      parent.grad = nb::none();
    out.push_back(nb::borrow(edge.tensor));
  });
}

[[noreturn]] void key_error(nb::handle key) {
  PyErr_SetObject(PyExc_KeyError, key.ptr());
  throw nb::python_error();
}

namespace {

struct PythonParents {
  nb::object fn;
  void operator()(nb::handle node, Nodes& out) const {
    nb::object result = fn(node);
    for (nb::handle parent : result) out.push_back(nb::borrow(parent));
  }
};

// The Python face of toposort: an iterator over TopoSort<PythonParents>.
class TopoSortIterator {
 public:
  TopoSortIterator(nb::object end, nb::object parents) : sort_(std::move(end), PythonParents{std::move(parents)}) {}
  nb::object next() {
    nb::object node = sort_.next();
    if (!node.is_valid()) throw nb::stop_iteration();
    return node;
  }

 private:
  TopoSort<PythonParents> sort_;
};

// outgrads of the walks: tensor -> its gradient QTensor (a reference, so later
// in-place additions show through).
class OutGrads {
 public:
  OutGrads(nb::handle end, nb::handle seed) { set(end, seed); }
  nb::object pop(nb::handle key) {
    Entry* entry = map_.find(key.ptr());
    if (!entry) key_error(key);
    nb::object value = std::move(entry->value);
    map_.erase(key.ptr());
    return value;
  }
  void set(nb::handle key, nb::handle value) {
    bool inserted;
    map_.find_or_insert(key.ptr(), Entry{}, &inserted) = Entry{nb::borrow(key), nb::borrow(value)};
  }

 private:
  struct Entry {
    nb::object key, value;  // the key is held, as a dict would
  };
  IdentityMap<Entry> map_;
};

bool equals_false(nb::handle flag) {
  if (flag.ptr() == Py_True) return false;
  if (flag.ptr() == Py_False) return true;
  int r = PyObject_RichCompareBool(flag.ptr(), Py_False, Py_EQ);
  if (r < 0) throw nb::python_error();
  return r;
}

// Note [one order for a pass]
// The three walks of a pass visit the same tensors in the same order, and each
// would sort the graph again (get_prev twice, free_grad once). When the first
// walk met only built-in derivatives, no Python code runs before the others
// and nothing can change the graph meanwhile: the gradient walk replays the
// order the first walk recorded, and the release walk calls free_grad on each
// tensor of it, which clears the same gradients as its sort would. A graph
// with a Python derivative function is sorted by every walk.
class RecordedOrder {
 public:
  explicit RecordedOrder(const Nodes& nodes) : nodes_(nodes) {}
  nb::object next() { return next_ < nodes_.size() ? nodes_[next_++] : nb::object(); }

 private:
  const Nodes& nodes_;
  size_t next_ = 0;
};

// The validity walk; it records its order, and whether every derivative it
// met is built in.
bool validity_walk(nb::handle g, nb::handle end, Nodes& order, bool& builtin_only) {
  OutGrads outgrads(end, g);
  TopoSort<CppParents> sort(nb::borrow(end), &get_prev);
  builtin_only = true;
  for (nb::object node = sort.next(); node.is_valid(); node = sort.next()) {
    outgrads.pop(node);
    bool valid = true;
    for_each_edge(node, [&](const EdgeView& edge) {
      if (!valid || edge.export_only()) return;
      builtin_only = builtin_only && edge.derivative;
      QTensor& parent = as_qtensor(edge.tensor, "backward");
      if (equals_false(parent.if_normal_run_qvm)) {
        valid = false;
        return;
      }
      outgrads.set(edge.tensor, parent.grad);
    });
    if (!valid) return false;
    order.push_back(std::move(node));
  }
  return true;
}

bool just_valid_result_from_qvm(nb::handle g, nb::handle end) {
  Nodes order;
  bool builtin_only;
  return validity_walk(g, end, order, builtin_only);
}

// Whether t, of one element, stands for a value of `shape` (or the reverse):
// shape [1] (a reduction over all elements) meets shape [].
bool one_element_of(const Tensor& t, const Shape& shape) {
  return t.numel() == 1 && shape.numel() == 1 && (t.ndim() == 0 || shape.rank() == 0);
}

// Adds a gradient to a grad; a one-element gradient and a 0-d grad (or the
// reverse) meet where a reduction over all elements, whose result has shape
// [1], was taken of a 0-d tensor: the gradient is added in the grad's shape.
void accumulate(QTensor& grad, Tensor g) {
  const Shape& shape = core_unfilled(grad, "backward").shape();
  if (NB_UNLIKELY(g.ndim() != shape.rank()) && one_element_of(g, shape)) g = reshape(g, shape);
  add_into_gradient(grad, std::move(g));
}

// Adds the gradient that a Python derivative function returned.
void add_returned(QTensor& grad, nb::handle ingrad, int edge_device) {
  if (PyObject_TypeCheck(ingrad.ptr(), ndarray_type())) {
    DType dtype = core_unfilled(grad, "backward").dtype();
    accumulate(grad, py::tensor_from_array(ingrad, edge_device, dtype, "backward"));
  } else if (is_core_tensor(ingrad)) {
    accumulate(grad, as_core(ingrad, "backward"));
  } else {
    throw nb::type_error(("[backward] a derivative function must return a _core.Tensor or a numpy.ndarray, got " +
                          std::string(nb::type_name(ingrad.type()).c_str())).c_str());
  }
}

// The gradient walk, over a sort or a recorded order (Note [one order for a pass]).
template <typename Order>
void gradient_walk(nb::handle g, nb::handle end, Order& order) {
  OutGrads outgrads(end, g);
  for (nb::object node = order.next(); node.is_valid(); node = order.next()) {
    nb::object outgrad = outgrads.pop(node);
    for_each_edge(node, [&](const EdgeView& edge) {
      if (edge.export_only()) return;
      QTensor& parent = as_qtensor(edge.tensor, "backward");
      QTensor& incoming = as_qtensor(outgrad, "backward");
      const Tensor& grad = core_of(incoming, "backward");
      int edge_device = device_of(edge.device, "backward");
      // A gradient on the processor meeting an edge on an accelerator, or the
      // reverse, is copied to the edge's device first.
      bool crosses = (edge_device >= kFirstAccelerator && grad.device() == kCpuDevice) ||
                     (edge_device == kCpuDevice && grad.device() >= kFirstAccelerator);
      Tensor moved = crosses ? to_device(grad, edge_device, "backward") : Tensor();
      const Tensor& given = crosses ? moved : grad;
      // Built-in derivatives run in C++; any other callable gets a _core.Tensor.
      if (edge.derivative) {
        Tensor ingrad = edge.derivative->apply(given);
        if (parent.grad.is_none()) throw nb::attribute_error("'NoneType' object has no attribute 'data'");
        accumulate(as_qtensor(parent.grad, "backward"), std::move(ingrad));
      } else {
        nb::object argument = crosses ? wrap_core(std::move(moved)) : nb::object(data_object(incoming));
        PyObject* result = PyObject_CallOneArg(edge.df.ptr(), argument.ptr());
        if (!result) throw nb::python_error();
        nb::object ingrad = nb::steal(result);
        if (parent.grad.is_none()) throw nb::attribute_error("'NoneType' object has no attribute 'data'");
        add_returned(as_qtensor(parent.grad, "backward"), ingrad, edge_device);
      }
      outgrads.set(edge.tensor, parent.grad);
    });
  }
}

void backprop_impl(nb::handle g, nb::handle end) {
  TopoSort<CppParents> order(nb::borrow(end), &get_prev);
  gradient_walk(g, end, order);
}

void free_backprop_grad(nb::handle g, nb::handle end) {
  OutGrads outgrads(end, g);
  TopoSort<CppParents> order(nb::borrow(end), &free_grad);
  for (nb::object node = order.next(); node.is_valid(); node = order.next()) {
    outgrads.pop(node);
    for_each_edge(node, [&](const EdgeView& edge) {
      if (!edge.export_only()) outgrads.set(edge.tensor, as_qtensor(edge.tensor, "backward").grad);
    });
  }
}

void backprop(nb::handle g, nb::handle end) {
  Nodes recorded;
  bool builtin_only;
  if (!validity_walk(g, end, recorded, builtin_only)) return;
  if (!builtin_only) {
    backprop_impl(g, end);
    free_backprop_grad(g, end);
    return;
  }
  RecordedOrder order(recorded);
  gradient_walk(g, end, order);
  Nodes parents;
  for (const nb::object& node : recorded) {
    parents.clear();
    free_grad(node, parents);
  }
}

nb::list parents_list(CppParents parents, nb::handle q) {
  Nodes out;
  parents(q, out);
  nb::list result;
  for (nb::object& o : out) result.append(o);
  return result;
}

bool dtype_in(nb::handle dtype, DType a, DType b) {
  for (DType d : {a, b}) {
    int r = PyObject_RichCompareBool(dtype.ptr(), nb::int_(int(d)).ptr(), Py_EQ);
    if (r < 0) throw nb::python_error();
    if (r) return true;
  }
  return false;
}

}  // namespace

void backward(nb::handle self, nb::handle grad) {
  QTensor& s = as_qtensor(self, "backward");
  DType dtype = core_of(s, "backward").dtype();
  if (!is_floating(dtype) && !is_complex(dtype))
    throw nb::value_error("Only Float or Complex tensor can calculate gradient.");
  if (!grad.is_none()) {
    nb::object seed_dtype = grad.attr("dtype");
    if (is_floating(dtype) && dtype_in(seed_dtype, DType::Complex128, DType::Complex64))
      throw nb::value_error("Only Float input gradient is accepted by Float output.");
    if (is_complex(dtype) && dtype_in(seed_dtype, DType::Float32, DType::Float64))
      throw nb::value_error("Complex tensor output's gradient should be explicit defined as Complex.");
  }
  if (!truthy(s.requires_grad)) throw std::runtime_error("output requires_grad is False.");

  nb::object dtype_obj = nb::int_(int(dtype));
  if (s.grad.is_none()) s.grad = zeros_like(self, s.device, dtype_obj);
  nb::object seed;
  if (grad.is_none()) {
    seed = ones_like(self, s.device, dtype_obj);
  } else {
    int device = device_of(s.device, "backward");
    if (device >= kFirstAccelerator && PyObject_TypeCheck(grad.ptr(), ndarray_type()))
      // (sic) the leading space and the missing one after the comma.
      throw nb::value_error(" input grad should not be ndarray,if current Tensor is on GPU device.");
    seed = to_tensor(grad);
    nb::object seed_device = as_qtensor(seed, "backward").device;
    int r = PyObject_RichCompareBool(seed_device.ptr(), s.device.ptr(), Py_NE);
    if (r < 0) throw nb::python_error();
    if (r)
      throw std::runtime_error("grads calculated in backward() stores in different devices " +
                               py_text(seed_device) + " and " +
                               py_text(s.device) + ".");
  }
  const Tensor* seed_data = &core_of(seed, "backward");
  if (seed_data->dtype() != dtype) {
    seed = seed.attr("astype")(dtype_obj);
    seed_data = &core_of(seed, "backward");
  }
  const Shape& shape = core_of(s, "backward").shape();
  if (NB_UNLIKELY(seed_data->ndim() != shape.rank()) && one_element_of(*seed_data, shape)) {
    // A one-element seed for a 0-d result, or a 0-d seed for a one-element
    // result (a reduction over all elements): the derivatives get it in the
    // result's shape.
    seed = new_qtensor(wrap_core(reshape(*seed_data, shape)), Py_False, Py_None, s.device);
    seed_data = &core_of(seed, "backward");
  }
  accumulate(as_qtensor(s.grad, "backward"), *seed_data);
  backprop(seed, self);
}

void init_autograd(nb::module_& m) {
  nb::class_<TopoSortIterator>(m, "_TopoSortIterator", "The lazy order of a backward walk.")
      .def("__iter__", [](nb::handle self) { return nb::borrow(self); },
           py::doc("The iterator itself.", {}, "This iterator.").c_str())
      .def("__next__", &TopoSortIterator::next,
           py::doc("The next node of the walk.", {}, "A node; StopIteration after the last.").c_str());

  constexpr const char* kParentsOf = "q: a QTensor.";
  constexpr const char* kParents =
      "A new list of QTensors in the order of q.nodes, a tensor once for each edge to it.";
  m.def("get_prev", [](TensorArg q) { return parents_list(&get_prev, q); }, nb::arg("q").none(),
        py::doc("The inputs of a tensor that require a gradient; those reached over a differentiable edge "
                "without a grad get a zero one first.",
                {kParentsOf}, kParents).c_str());
  m.def("free_grad", [](TensorArg q) { return parents_list(&free_grad, q); }, nb::arg("q").none(),
        py::doc("The inputs of a tensor that require a gradient, releasing the grad of those that are not leaves.",
                {kParentsOf}, kParents).c_str());
  // The default parents function is this module's get_prev, fixed here.
  nb::object default_parents = m.attr("get_prev");
  m.def("toposort",
        [](nb::object end, nb::object parents) { return TopoSortIterator(std::move(end), std::move(parents)); },
        nb::arg("end_node").none(), nb::arg("parents").none() = default_parents,
        py::doc("The nodes of a graph in backward order: end_node first, each node after all nodes made from it.",
                {"end_node: the node the walk starts from; any object that parents takes.",
                 "parents: a function from a node to the list of its parents; get_prev by default. It runs twice "
                 "per node, the second time after the node has been yielded."},
                "An iterator over the nodes, each once; nothing runs before the first is asked for.").c_str());
  m.def("_check_nodes_not_empty_or_none", &check_nodes_not_empty_or_none, nb::arg("nodes").none(),
        py::doc("Whether a nodes field is None or a non-empty list.", {"nodes: any object."}, "A bool.").c_str());
  constexpr const char* kSeed = "g: the seed gradient, a QTensor of end_node's shape.";
  constexpr const char* kEnd = "end_node: the QTensor the pass starts from.";
  m.def("just_valid_result_from_qvm", [](TensorArg g, TensorArg end) { return just_valid_result_from_qvm(g, end); },
        nb::arg("g").none(), nb::arg("end_node").none(),
        py::doc("The first walk of a backward pass: whether no tensor that would receive a gradient has "
                "_if_normal_run_qvm False. It gives those tensors their zero grad.",
                {kSeed, kEnd}, "A bool.").c_str());
  m.def("backprop_impl", [](TensorArg g, TensorArg end) { backprop_impl(g, end); }, nb::arg("g").none(),
        nb::arg("end_node").none(),
        py::doc("The gradient walk of a backward pass: each edge's derivative runs once and its result is added "
                "to the input's grad.",
                {kSeed, kEnd}).c_str());
  m.def("free_backprop_grad", [](TensorArg g, TensorArg end) { free_backprop_grad(g, end); }, nb::arg("g").none(),
        nb::arg("end_node").none(),
        py::doc("The last walk of a backward pass: releases the grad of every interior tensor it reaches.",
                {kSeed, kEnd}).c_str());
  m.def("backprop", [](TensorArg g, TensorArg end) { backprop(g, end); }, nb::arg("g").none(),
        nb::arg("end_node").none(),
        py::doc("A backward pass from end_node: the three walks, stopping after the first when a result is not "
                "valid.",
                {kSeed, kEnd}).c_str());
}

}  // namespace tramel::tensor
