// The derivative of a built-in operator, what it keeps, and the edges of a
// result while they are still C++ records.
//
// Note [derivatives table]
// Every built-in operator's gradient is one row of the derivatives table
// (autograd/derivatives.cpp): per input, the formula and what it reads when
// it runs (the operator's input tensors, its forward result). The family
// tables declare the forward call and the export trace and find their row by
// the operator's name when the module is initialised. The recipe of
// operator.h saves what the row asks for; an operator adds its parameters
// (axes, bounds, flags) to the Derivative itself.
//
// Note [edge records]
// A result's edges are kept as Edge records on the QTensor until Python reads
// `nodes`. Then each record becomes a GraphNode whose df is a GradFn object
// holding the record's Derivative, the list is stored in `nodes`, and the
// records are gone: from then on the list is the graph, so later edits of it
// (a hand-appended GraphNode) are what the backward walk sees. The walk reads
// records and list alike through for_each_edge (autograd/toposort.h).
#pragma once
#include <nanobind/nanobind.h>

#include <initializer_list>
#include <memory>
#include <vector>

#include "core/ops.h"
#include "tensor/label.h"

namespace tramel::tensor {

namespace nb = nanobind;

class Derivative;
// What an operator keeps for its gradient beyond the fields of Derivative (an
// index plan): immutable, shared by the edges of one call, typed by the operator.
struct SavedState {
  virtual ~SavedState() = default;
};
using GradientFormula = Tensor (*)(const Tensor& grad, const Derivative& d);

// What a formula reads when it runs, besides its own input and the incoming
// gradient.
enum Saves : uint8_t {
  kSavesNothing = 0,
  kSavesInputs = 1,  // every input tensor of the operator (at most kMaxSavedInputs)
  kSavesResult = 2,  // the forward result, as an engine tensor sharing its storage
};

// The gradient for one input of an operator.
struct Gradient {
  uint8_t saves;
  GradientFormula formula;
};

// One row of the derivatives table. Operators over a list of inputs have
// one formula for all of them, in of[0].
struct Derivatives {
  const char* op;
  Gradient of[2];
  const Gradient& for_input(int i) const { return i == 1 && of[1].formula ? of[1] : of[0]; }
};

// The row of operator `op`: null when it has none (comparisons);
// derivatives_of fails instead (a table out of step with its operators).
const Derivatives* find_derivatives(const char* op);
const Derivatives& derivatives_of(const char* op);

// A short list of integers held inline (axes, a permutation, repeats):
// bounded by the largest rank, and adding past it is an error, not an overrun.
class InlineInts {
 public:
  InlineInts() = default;
  InlineInts(std::initializer_list<int64_t> values) { assign(values.begin(), values.end()); }
  explicit InlineInts(const std::vector<int64_t>& values) { assign(values.data(), values.data() + values.size()); }
  void push_back(int64_t v);
  int64_t operator[](size_t i) const { return v_[i]; }
  size_t size() const { return size_t(n_); }
  bool empty() const { return n_ == 0; }
  const int64_t* begin() const { return v_; }
  const int64_t* end() const { return v_ + n_; }
  std::vector<int64_t> vector() const { return std::vector<int64_t>(begin(), end()); }

 private:
  void assign(const int64_t* first, const int64_t* last) {
    for (; first != last; ++first) push_back(*first);
  }
  int64_t v_[kMaxRank];
  int n_ = 0;
};

// The derivative of one edge: the formula of the operator's input `which`
// and what the formula reads. Input tensors are held as Python objects and
// their data read only when the formula runs.
class Derivative {
 public:
  static constexpr int kMaxSavedInputs = 3;

  Derivative() = default;
  // own: the edge's input; inputs: all inputs of the operator, saved when
  // the gradient asks for them.
  Derivative(const Gradient& gradient, int which, nb::handle own, std::initializer_list<nb::handle> inputs);
  Derivative(const Gradient& gradient, int which, nb::handle own, const nb::handle* inputs, size_t count);

  Tensor apply(const Tensor& grad) const { return gradient_->formula(grad, *this); }
  const Gradient& gradient() const { return *gradient_; }
  int which() const { return which_; }

  // The engine tensor of the operator's input k (the edge's own input, or any
  // input when the gradient saves them), read now.
  const Tensor& input(int k) const;
  nb::handle input_object(int k) const;
  // The engine tensor of the edge's input's grad.
  const Tensor& own_grad() const;
  // The forward result (kSavesResult).
  const Tensor& result() const { return result_; }
  void save_result(const Tensor& result) { result_ = result; }

  // Parameters of the operator that the formula reads.
  InlineInts axes;                  // axes, a permutation, repeats
  double bounds[2] = {0, 0};  // clip
  bool unbiased = false;      // std, var
  std::shared_ptr<const SavedState> state;
  // The state as the type its operator stored.
  template <typename T>
  const T& state_as() const {
    return static_cast<const T&>(*state);
  }

  int traverse(visitproc visit, void* arg) const;
  void clear();

 private:
  nb::handle slot(int k) const;

  const Gradient* gradient_ = nullptr;
  int8_t which_ = 0;
  int8_t count_ = 0;  // objects in saved_
  bool all_inputs_ = false;
  nb::object saved_[kMaxSavedInputs];  // all inputs, or only the edge's own
  Tensor result_;
};

// One edge of a result, kept in C++ until Python reads `nodes`.
struct Edge {
  nb::object tensor;  // the input
  nb::object device;  // the input's device field when the edge was made
  Derivative derivative;
  LazyLabel label;
};

// A GradFn object (the Python face of a derivative: df(grad) -> grad) holding d.
nb::object gradfn_object(Derivative&& d);
// The derivative inside a GradFn object, or null for any other object.
const Derivative* derivative_in(nb::handle df);

}  // namespace tramel::tensor
