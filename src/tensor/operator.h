// What every differentiable operator does around its core call, written once:
// the rule of results, its edges and their derivative objects.
//
// Note [rule of results]
// A result's requires_grad is Python's `a or b` over its inputs' flags (the
// first truthy flag object, else the last one), and its nodes hold one
// GraphNode per input whose flag is truthy, in input order; the result lives
// on the core result's device. Derivative functions hold the operator's
// tensors and read their data and grad only when they run.
#pragma once
#include <initializer_list>
#include <vector>

#include "tensor/export/record.h"
#include "tensor/qtensor.h"

namespace tramel::tensor {

// The derivative object of every built-in operator: a plain function over the
// incoming gradient and what the operator held on to (its input tensors, its
// forward result, an axis, bounds).
class FnGrad final : public GradFn {
 public:
  using Fn = Tensor (*)(const Tensor& g, const FnGrad& self);

  FnGrad(Fn fn, const void* row, int which, std::initializer_list<nb::handle> held)
      : fn_(fn), row_(row), which_(which) {
    int i = 0;
    for (nb::handle h : held) held_[i++] = nb::borrow(h);
  }
  Tensor apply(const Tensor& grad) override { return fn_(grad, *this); }
  int traverse(visitproc visit, void* arg) override {
    for (nb::object& h : held_) Py_VISIT(h.ptr());
    return 0;
  }
  void clear() override {
    for (nb::object& h : held_) h.reset();
  }

  // The operator's table row, and which input this edge leads to.
  template <typename Row> const Row& row() const { return *static_cast<const Row*>(row_); }
  int which() const { return which_; }
  // The engine tensor of held object i: a QTensor's data, or a _core.Tensor.
  const Tensor& data(int i) const;
  nb::handle held(int i) const { return held_[i]; }
  // The engine tensor of held QTensor i's grad (read when the gradient runs).
  const Tensor& grad_data(int i) const;

  std::vector<int64_t> axes;  // axes, permutations, repeats (empty: all axes)
  double bounds[2] = {0, 0};  // clip
  bool flag = false;          // unbiased (std, var)

 private:
  Fn fn_;
  const void* row_;
  int which_;
  nb::object held_[3];
};

// Python's `a or b or ...` over the inputs' requires_grad; see Note [rule of results].
nb::handle requires_grad_or(std::initializer_list<nb::handle> inputs);

// A GraphNode to `input` whose df is `grad`, moved into a Python object of
// its own (one allocation: FnGrad is a bound class, held inline).
nb::object edge(nb::handle input, FnGrad grad, const LazyLabel& label);
// The same with a name formatted now (labels holding Python values' text).
nb::object edge(nb::handle input, FnGrad grad, const std::string& name);

// The result of an operator from its core result: requires_grad and nodes by
// the rule of results, make_edge(i) giving the GraphNode of input i (or an
// invalid object for an input that gets no edge).
// The nodes of a result: make_edge(i) for each input whose flag is truthy
// (an invalid object: no edge); null when there are none.
template <typename MakeEdge>
nb::object edges_of(std::initializer_list<nb::handle> inputs, MakeEdge& make_edge) {
  nb::object nodes;
  int i = 0;
  for (nb::handle input : inputs) {
    if (truthy(as_qtensor(input, "operator").requires_grad)) {
      nb::object node = make_edge(i);
      if (node.is_valid()) {
        if (!nodes.is_valid()) nodes = nb::list();
        if (PyList_Append(nodes.ptr(), node.ptr()) < 0) throw nb::python_error();
      }
    }
    ++i;
  }
  return nodes;
}

template <typename MakeEdge>
nb::object make_result(nb::object data, std::initializer_list<nb::handle> inputs, MakeEdge&& make_edge) {
  nb::handle requires_grad = requires_grad_or(inputs);
  nb::object nodes = edges_of(inputs, make_edge);
  nb::object device = device_object(as_core(data, "operator").device());
  return new_qtensor(std::move(data), requires_grad, nodes.is_valid() ? nodes : nb::none(), device);
}

template <typename MakeEdge>
nb::object make_result(Tensor data, std::initializer_list<nb::handle> inputs, MakeEdge&& make_edge) {
  nb::handle requires_grad = requires_grad_or(inputs);
  nb::object nodes = edges_of(inputs, make_edge);
  nb::object device = device_object(data.device());
  return new_qtensor(std::move(data), requires_grad, nodes.is_valid() ? nodes : nb::none(), device);
}

// A result whose only edge-maker makes no edges (comparisons): requires_grad
// still follows the inputs.
nb::object make_leaf_result(Tensor data, std::initializer_list<nb::handle> inputs);

// Shared pieces of the element-wise family (elementwise/broadcast.cpp).
// _broadcast: a gradient reduced to the shape and dtype of an operand's grad.
Tensor unbroadcast(const Tensor& own_grad, const Tensor& g);
// _broadcast_function_before_binary_op: one device and one shape for two operands.
std::pair<nb::object, nb::object> prepare_binary(nb::handle t1, nb::handle t2);
// broadcast(t1, t2): the differentiable expansion to a common shape.
std::pair<nb::object, nb::object> broadcast_pair(nb::handle t1, nb::handle t2);
// Zeros with the shape, dtype and device of t (the gradient of a function
// whose derivative is zero).
Tensor zeros_shaped_like(const Tensor& t);

// Axis helpers (reduce/sum_mean.cpp): a Python-style wrapped axis; a bare
// AssertionError when it is out of range.
int64_t maybe_wrap_dim(int64_t dim, int64_t ndim, bool wrap_scalar = true);
// The same for an axis to insert: a negative one counts from one past the end.
int64_t maybe_wrap_dim_unsqueeze(int64_t dim, int64_t ndim);

// id(a) + infix + id(b), the usual opid prefix.
inline std::string ids(nb::handle a, const char* infix, nb::handle b) { return id_text(a) + infix + id_text(b); }

// The names of a family's table rows, kept in the module attribute
// _operator_tables for the test that every row has a test entry.
void register_family_names(const char* family, nb::list names);

// Binds every row of a family table as a module function op(row, tensors...)
// taking `Arity` tensors, and registers the family's names.
template <int Arity, typename Row, size_t N, typename Op>
void def_family(nb::module_& m, const char* family, const Row (&rows)[N], Op op) {
  nb::list names;
  for (const Row& row : rows) {
    const Row* r = &row;
    if constexpr (Arity == 1)
      m.def(row.name, [r, op](nb::handle t) { return op(*r, t); }, nb::arg("t").none());
    else
      m.def(row.name, [r, op](nb::handle t1, nb::handle t2) { return op(*r, t1, t2); }, nb::arg("t1").none(),
            nb::arg("t2").none());
    names.append(row.name);
  }
  register_family_names(family, names);
}

void init_operator_tables(nb::module_& m);
void init_fngrad(nb::module_& m);
// One per family file.
void init_broadcast(nb::module_& m);
void init_arithmetic(nb::module_& m, nb::class_<QTensor>& cls);
void init_unary(nb::module_& m);
void init_compare(nb::module_& m);
void init_extrema(nb::module_& m);
void init_sum_mean(nb::module_& m);
void init_spread(nb::module_& m);
void init_extremes(nb::module_& m);
void init_reshape(nb::module_& m, nb::class_<QTensor>& cls);
void init_tile(nb::module_& m);

// unsqueeze(t, axis), also QTensor.unsqueeze.
nb::object unsqueeze_op(nb::handle t, nb::handle axis);
// mean(t, axis, keepdims), for the gradients of std and var.
nb::object mean_of(nb::handle t, nb::handle axis, nb::handle keepdims);

}  // namespace tramel::tensor
