// The lazy reverse-topological order of a backward pass, over a parents
// function. Shared by the walks of backprop and the export walk get_opinfo.
#pragma once
#include <nanobind/nanobind.h>

#include <vector>

#include "tensor/autograd/identity_map.h"
#include "tensor/qtensor.h"

namespace tramel::tensor {

using Nodes = std::vector<nb::object>;

// One edge as the walks see it, an edge record or a GraphNode alike.
struct EdgeView {
  nb::handle tensor;
  nb::handle device;
  nb::handle df;                  // a GraphNode's df; null for a record
  const Derivative* derivative;   // a built-in derivative (a record's, or inside df)
  // Export-only edges (df None) take no part in differentiation.
  bool export_only() const { return !derivative && df.is_none(); }
};

// Calls fn(const EdgeView&) for each edge of q, in order: its edge records,
// or its `nodes` list once Python has read it (Note [edge records]).
template <typename F>
void for_each_edge(nb::handle q, F&& fn) {
  QTensor& t = as_qtensor(q, "backward");
  // Index each time: a Python derivative function may change the list, or
  // read `nodes` and so turn the records into it (same order, same index).
  for (size_t i = 0;; ++i) {
    if (!t.edges.empty()) {
      if (i >= t.edges.size()) return;
      const Edge& e = t.edges[i];
      fn(EdgeView{e.tensor, e.device, nb::handle(), &e.derivative});
      continue;
    }
    nb::handle nodes = t.nodes;
    if (!nodes.is_valid()) return;  // See Note [lazy empty lists]
    if (!PyList_Check(nodes.ptr())) {
      if (i == 0)
        for (nb::handle edge : nodes) {
          GraphNode& n = as_graphnode(edge, "backward");
          fn(EdgeView{n.tensor, n.device, n.df, derivative_in(n.df)});
        }
      return;
    }
    if (Py_ssize_t(i) >= PyList_GET_SIZE(nodes.ptr())) return;
    nb::object edge = nb::borrow(PyList_GET_ITEM(nodes.ptr(), Py_ssize_t(i)));
    GraphNode& n = as_graphnode(edge, "backward");
    fn(EdgeView{n.tensor, n.device, n.df, derivative_in(n.df)});
  }
}

// Note [parents functions]
// The walks are one algorithm over a "parents" function: get_prev, which also
// allocates the zero gradients of the pass; free_grad, which releases interior
// gradients; or any Python callable handed to toposort. Each appends the
// parents of q that require a gradient, in the order of q.nodes.
void get_prev(nb::handle q, Nodes& out);
void free_grad(nb::handle q, Nodes& out);
using CppParents = void (*)(nb::handle, Nodes&);

bool check_nodes_not_empty_or_none(nb::handle nodes);
[[noreturn]] void key_error(nb::handle key);

// A reverse-topological order by counting children, lazily: nothing runs
// before the first next(), and the parents of a yielded node are visited
// only when the following node is asked for, after the consumer's work on it.
template <typename Parents>
class TopoSort {
 public:
  TopoSort(nb::object end, Parents parents) : end_(std::move(end)), parents_(std::move(parents)) {}

  // The next tensor, or an invalid handle when the walk is over.
  nb::object next() {
    if (!started_) {
      started_ = true;
      count_children();
      childless_.push_back(end_);
    } else if (last_.is_valid()) {
      release_parents_of(last_);
      last_.reset();
    }
    if (childless_.empty()) return nb::object();
    last_ = std::move(childless_.back());
    childless_.pop_back();
    return last_;
  }

 private:
  void count_children() {
    Nodes stack{end_};
    while (!stack.empty()) {
      nb::object node = std::move(stack.back());
      stack.pop_back();
      bool inserted;
      int64_t& count = counts_.find_or_insert(node.ptr(), 1, &inserted);
      if (!inserted) {
        ++count;
        continue;
      }
      alive_.push_back(node);
      parents_(node, stack);
    }
  }

  void release_parents_of(nb::handle node) {
    scratch_.clear();
    parents_(node, scratch_);
    for (nb::object& parent : scratch_) {
      int64_t* count = counts_.find(parent.ptr());
      if (!count) key_error(parent);
      if (*count == 1) childless_.push_back(std::move(parent));
      else --*count;
    }
  }

  nb::object end_;
  Parents parents_;
  IdentityMap<int64_t> counts_;
  Nodes alive_;  // keeps the keys of counts_ alive
  Nodes childless_, scratch_;
  nb::object last_;
  bool started_ = false;
};

}  // namespace tramel::tensor
