// The recipe every operator follows around its core call, written once: the
// rule of results, the edges of a result and what their derivatives keep.
//
// Note [rule of results]
// A result's requires_grad is Python's `a or b` over its inputs' flags (the
// first truthy flag object, else the last one), and its edges go to each
// input whose flag is truthy, in input order; the result lives on the core
// result's device. An operator with its own rule for the flag (mean over all
// elements, min) passes it in ResultFields, and then edges are made only
// when that flag is truthy too.
//
// Shapes of operators and the recipe call for each:
//   one result:        make_result(data, {t1, t2}, row, describe)
//   a list of inputs:  make_result(data, Inputs(handles, n), row, describe)
//   several results:   one make_result per result, each with its own edges
//                      (a piece of a split keeps its index in derivative.axes)
//   no gradient:       make_leaf_result(data, inputs)
// `row` is the operator's row of the derivatives table (Note [derivatives
// table]); describe(i, edge) names the edge of input i and adds the
// operator's parameters to edge.derivative. The recipe itself saves the
// inputs and the forward result when the row asks for them.
#pragma once
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "interop/args.h"
#include "interop/docs.h"
#include "tensor/autograd/derivative.h"
#include "tensor/export/record.h"
#include "tensor/qtensor.h"

namespace tramel::tensor {

// The input tensors of an operator: a view of handles, from a braced list or
// from an array of any length.
class Inputs {
 public:
  // A view for the call it is passed to: a braced list's array lives until the
  // end of the caller's full-expression. data_ is set in the body because GCC's
  // -Winit-list-lifetime takes a member initialised from begin() for a dangling one.
  Inputs(std::initializer_list<nb::handle> list) : data_(nullptr), size_(list.size()) { data_ = list.begin(); }
  Inputs(const nb::handle* data, size_t size) : data_(data), size_(size) {}
  const nb::handle* begin() const { return data_; }
  const nb::handle* end() const { return data_ + size_; }
  size_t size() const { return size_; }
  nb::handle operator[](size_t i) const { return data_[i]; }

 private:
  const nb::handle* data_;
  size_t size_;
};

// Fields of a result that an operator sets itself instead of by the rule of
// results (unset: by the rule).
struct ResultFields {
  nb::handle requires_grad;
  nb::handle device;
};

// Python's `a or b or ...` over the inputs' requires_grad; see Note [rule of results].
nb::handle requires_grad_or(Inputs inputs);

// Appends the edges of y to the inputs that require a gradient.
template <typename Describe>
void add_edges(QTensor& y, Inputs inputs, const Derivatives& row, Describe& describe) {
  y.edges.reserve(y.edges.size() + inputs.size());  // one allocation for all of them
  for (size_t i = 0; i < inputs.size(); ++i) {
    QTensor& input = as_qtensor(inputs[i], "operator");
    const Gradient& gradient = row.for_input(int(i));
    if (!gradient.formula || !truthy(input.requires_grad)) continue;
    Edge& e = y.edges.emplace_back();
    e.tensor = nb::borrow(inputs[i]);
    e.device = input.device;
    e.derivative = Derivative(gradient, int(i), inputs[i], inputs.begin(), inputs.size());
    if (gradient.saves & kSavesResult) e.derivative.save_result(core_of(y, "operator"));
    describe(int(i), e);
  }
}

// A result of an operator with its edges; see the recipe above.
template <typename Describe>
nb::object make_result(Tensor data, Inputs inputs, const Derivatives& row, Describe&& describe,
                       ResultFields fields = {}) {
  nb::handle requires_grad = fields.requires_grad.is_valid() ? fields.requires_grad : requires_grad_or(inputs);
  nb::object device = fields.device.is_valid() ? nb::borrow(fields.device) : device_object(data.device());
  nb::object y = new_qtensor(std::move(data), requires_grad, Py_None, device);
  if (truthy(requires_grad)) add_edges(as_qtensor(y, "operator"), inputs, row, describe);
  return y;
}

// A result without edges (comparisons): requires_grad still follows the inputs.
nb::object make_leaf_result(Tensor data, Inputs inputs, ResultFields fields = {});

// The row of a family table whose name is `name` (a table out of step with
// its users fails at module initialisation).
template <typename Row, size_t N>
const Row& row_named(const Row (&rows)[N], std::string_view name) {
  for (const Row& row : rows)
    if (name == row.name) return row;
  throw std::logic_error("no table row named " + std::string(name));
}

// Shared pieces of the element-wise family (elementwise/broadcast.cpp).
// _broadcast: a gradient reduced to the shape and dtype of an operand's grad.
Tensor unbroadcast(const Tensor& own_grad, const Tensor& g);
// _broadcast_function_before_binary_op: one device and one shape for two operands.
std::pair<nb::object, nb::object> prepare_binary(nb::handle t1, nb::handle t2);
// The docstring line of the second operand of the operators that use prepare_binary.
inline const char* const kSecondOperand =
    "t2: a QTensor. A one-element operand on the processor first moves, in place, to the other's accelerator.";
// broadcast(t1, t2): the differentiable expansion to a common shape.
std::pair<nb::object, nb::object> broadcast_pair(nb::handle t1, nb::handle t2);
// Zeros with the shape, dtype and device of t (the gradient of a function
// whose derivative is zero).
Tensor zeros_shaped_like(const Tensor& t);

// Docstring lines of the reductions over all elements or along one axis.
inline const char* const kOneAxis =
    "axis: None for all elements (a one-element result), or one axis; negative ones count from the end.";
inline const char* const kKeepAxis = "keepdims: keep the reduced axis with length one; any object, read by its truth.";

// Axis helpers (reduce/sum_mean.cpp): a Python-style wrapped axis; a bare
// AssertionError when it is out of range.
int64_t maybe_wrap_dim(int64_t dim, int64_t ndim, bool wrap_scalar = true);
// The same for an axis to insert: a negative one counts from one past the end.
int64_t maybe_wrap_dim_unsqueeze(int64_t dim, int64_t ndim);

// Gradient helpers that the derivatives table and the module's own gradient
// functions share (defined with their operators).
// A reduced gradient x, with ones at the reduced axes of `shape`, expanded over `shape`.
Tensor expand_reduced(const Tensor& x, const Shape& shape, const InlineInts& axes);
// The gradient of a sum over all elements: g's one value over `shape`.
Tensor sum_all_grad(const Tensor& g, const Shape& shape);
// _min_max_grad: g sent to the extremes of the input.
Tensor min_max_grad(const Tensor& g, const Tensor& input, const Tensor& result, const InlineInts& axes);
// The weights of operand x of z = maximum/minimum(x, y): 1 where x alone won, 1/2 at a tie.
Tensor selection_weights(const Tensor& x, const Tensor& z, const Tensor& y, DType dtype);
// The gradients of std and var (reduce/std_var.cpp); t is the operator's input QTensor.
Tensor std_grad(const Tensor& g, nb::handle t, const Tensor& result, const InlineInts& axes, bool unbiased);
Tensor var_grad(const Tensor& g, nb::handle t, const InlineInts& axes, bool unbiased);
// The inverse of the permutation `dims`.
std::vector<int64_t> inverse_permutation(const InlineInts& dims);
// float2complex on an engine tensor: float32 and float64 widened to complex64
// and complex128, complex tensors as they are, ValueError for other dtypes.
Tensor float_to_complex(const Tensor& t);
// The gradient of frobenius_norm over all elements: x / norm * g, both
// broadcast to x's shape.
Tensor frobenius_grad(const Tensor& g, const Tensor& x, const Tensor& norm);
// What frobenius_norm along an axis keeps for its gradient.
struct NormState : SavedState {
  Tensor square_sum;
};

// id(a) + infix + id(b), the usual opid prefix.
inline std::string ids(nb::handle a, const char* infix, nb::handle b) { return id_text(a) + infix + id_text(b); }

// The names of a family's table rows, kept in the module attribute
// _operator_tables for the test that every row has a test entry.
void register_family_names(const char* family, nb::list names);

// A family row with its derivatives found by name, as the family's run
// function takes them (derivatives null for an operator without gradient).
template <typename Row>
struct Bound {
  const Row& row;
  const Derivatives* derivatives;
};
template <typename Row, size_t N>
Bound<Row> bound_row(const Row (&rows)[N], std::string_view name) {
  const Row& row = row_named(rows, name);
  return {row, find_derivatives(row.name)};
}

// The docstring of an operator in a family table: its summary line, and its
// result where that differs from the family's.
struct RowDoc {
  const char* summary;
  const char* returns = nullptr;
};

// Binds every row of a family table as a module function run(row, tensors...)
// taking `Arity` tensors, and registers the family's names. Each function's
// docstring is its row's, with the family's `args` and (unless the row has
// its own) `returns`.
template <int Arity, typename Row, size_t N, typename Run>
void def_family(nb::module_& m, const char* family, const Row (&rows)[N], Run run,
                std::initializer_list<const char*> args, const char* returns) {
  nb::list names;
  for (const Row& row : rows) {
    Bound<Row> b{row, find_derivatives(row.name)};
    std::string doc = py::doc(row.doc.summary, args, row.doc.returns ? row.doc.returns : returns);
    if constexpr (Arity == 1)
      m.def(row.name, [b, run](TensorArg t) -> TensorResult { return run(b, t); }, nb::arg("t").none(), doc.c_str());
    else
      m.def(row.name, [b, run](TensorArg t1, TensorArg t2) -> TensorResult { return run(b, t1, t2); },
            nb::arg("t1").none(), nb::arg("t2").none(), doc.c_str());
    names.append(row.name);
  }
  register_family_names(family, names);
}

// Note [family registration]
// Each operator file registers the function that binds its operators with
// TRAMEL_FAMILY(init_fn) at file scope; the module runs them all, in the
// order of their names, once QTensor and the autograd functions exist. A new
// operator file therefore needs no line anywhere else.
using FamilyInit = void (*)(nb::module_& m, nb::class_<QTensor>& cls);
struct FamilyRegistration {
  FamilyRegistration(const char* name, FamilyInit init);
};
#define TRAMEL_FAMILY(init) static const FamilyRegistration family_registration_##init(#init, &init)
void init_families(nb::module_& m, nb::class_<QTensor>& cls);

void init_operator_tables(nb::module_& m);
void init_gradfn(nb::module_& m);

// unsqueeze(t, axis), also QTensor.unsqueeze.
nb::object unsqueeze_op(nb::handle t, nb::handle axis);
// The docstring line of unsqueeze's axis.
inline const char* const kInsertedAxis = "axis: where the new axis goes; a negative one counts from one past the end.";
// transpose(t, dim): axis i of the result is axis dim[i] of t.
TensorResult transposed(nb::handle t, const py::IntList& dim);
// mean(t, axis, keepdims), for the gradients of std and var.
nb::object mean_of(nb::handle t, nb::handle axis, nb::handle keepdims);

}  // namespace tramel::tensor
