// Comparisons, logic and float classes: no differentiable meaning. The
// comparisons make no edge at all; the classifications make an edge that
// carries zeros, so a backward pass reaches their input.
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

// Comparisons and logic: the summary of the docstring, a core call and a
// trace, no gradient.
struct CompareRow {
  const char* name;
  RowDoc doc;
  struct {
    CompareOp forward;
  } math;
  struct {
    const char* opname;
    const char* opid_infix;  // opid: {t1}<infix>{t2}_{y}
    const char* link1;
    const char* link2;
  } trace;
};

const CompareRow kCompare[] = {
    {"equal", {"Element-wise t1 == t2, the operands broadcast to one shape."}, {CompareOp::Equal},
     {"Equal", "_equal_", " op1 equal ", " op2 equal "}},
    // (sic) not_equal's links say "equal".
    {"not_equal", {"Element-wise t1 != t2, the operands broadcast to one shape."}, {CompareOp::NotEqual},
     {"NotEqual", "_not_equal_", " op1 equal ", " op2 equal "}},
    {"greater", {"Element-wise t1 > t2, the operands broadcast to one shape."}, {CompareOp::Greater},
     {"Greater", "_greater_", " op1 greater ", " op2 greater "}},
    {"greater_equal", {"Element-wise t1 >= t2, the operands broadcast to one shape."}, {CompareOp::GreaterEqual},
     {"GreaterOrEqual", "_greater_equal_", " op1 greater_equal ", " op2 greater_equal "}},
    {"less", {"Element-wise t1 < t2, the operands broadcast to one shape."}, {CompareOp::Less},
     {"Less", "_less_", " op1 less ", " op2 less "}},
    {"less_equal", {"Element-wise t1 <= t2, the operands broadcast to one shape."}, {CompareOp::LessEqual},
     {"LessOrEqual", "_less_equal_", " op1 less_equal ", " op2 less_equal "}},
    {"logical_and", {"Element-wise logical and, the operands broadcast to one shape; nonzero is true."},
     {CompareOp::And}, {"And", "_and_", " op1 and ", " op2 and "}},
    {"logical_or", {"Element-wise logical or, the operands broadcast to one shape; nonzero is true."},
     {CompareOp::Or}, {"Or", "_or_", " op1 or ", " op2 or "}},
    {"logical_xor", {"Element-wise logical exclusive or, the operands broadcast to one shape; nonzero is true."},
     {CompareOp::Xor}, {"Xor", "_xor_", " op1 logical_xor ", " op2 logical_xor "}},
};

// Float classes: the summary of the docstring, a core call and a trace;
// their gradient (zeros) is in the derivatives table.
struct ClassifyRow {
  const char* name;
  RowDoc doc;
  struct {
    ClassifyOp forward;
  } math;
  struct {
    const char* label;  // the edge: label + shape
    const char* opname;
    const char* opid_infix;  // opid: {t1}<infix>{y}
    const char* link;
  } trace;
};

const ClassifyRow kClassify[] = {
    {"isfinite", {"Whether each element is finite."}, {ClassifyOp::IsFinite},
     {"t isfinite grad ", "IsFinite", "_isfinite", " isfinite "}},
    {"isinf", {"Whether each element is infinite."}, {ClassifyOp::IsInf},
     {"t isinf grad ", "IsInf", "_isinf", " isinf "}},
    {"isnan", {"Whether each element is NaN."}, {ClassifyOp::IsNan}, {"t isnan grad ", "IsNaN", "_isnan", " isnan "}},
    {"isneginf", {"Whether each element is negative infinity (real dtypes)."}, {ClassifyOp::IsNegInf},
     {"t isneginf grad ", "IsNegInf", "_isneginf", " isneginf "}},
    {"isposinf", {"Whether each element is positive infinity (real dtypes)."}, {ClassifyOp::IsPosInf},
     {"t isposinf grad ", "IsPosInf", "_isposinf", " isposinf "}},
};

nb::object compare_op(Bound<CompareRow> op, nb::handle x1, nb::handle x2) {
  const CompareRow& row = op.row;
  auto [t1, t2] = prepare_binary(x1, x2);
  const Tensor& a = core_of(t1, row.name);
  const Tensor& b = core_of(t2, row.name);
  nb::object y = make_leaf_result(compare(row.math.forward, a, b), {t1, t2});
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t1, LazyLabel(row.trace.link1)}, {t2, LazyLabel(row.trace.link2)}});
    return make_record(ids(t1, row.trace.opid_infix, t2) + "_" + id_text(y), row.trace.opname, {t1, t2}, y,
                       nb::dict());
  });
  return y;
}

TensorResult logical_not_op(TensorArg t) {
  nb::object y = make_leaf_result(logical_not(core_of(t, "logical_not")), {t});
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t, LazyLabel(" not ")}});
    return make_record(id_text(t) + "_not_" + id_text(y), "Not", {t}, y, nb::dict());
  });
  return y;
}

nb::object classify_op(Bound<ClassifyRow> op, nb::handle t) {
  const ClassifyRow& row = op.row;
  const Tensor& x = core_of(t, row.name);
  Shape shape = x.shape();
  nb::object y = make_result(classify(row.math.forward, x), {t}, *op.derivatives,
                             [&](int, Edge& e) { e.label = LazyLabel(row.trace.label).shape(shape); });
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t, LazyLabel(row.trace.link)}});
    return make_record(id_text(t) + row.trace.opid_infix + id_text(y), row.trace.opname, {t}, y, nb::dict());
  });
  return y;
}

// The rich comparisons and the function each one calls.
struct RichRow {
  const char* method;
  Bound<CompareRow> op;
};

// self <op> other: a QTensor directly; a number as a one-element tensor on
// self's device, both broadcast (recorded) even when the shapes agree.
nb::object rich_compare(const RichRow& rich, nb::handle self, nb::handle other) {
  if (is_qtensor(other)) return compare_op(rich.op, self, other);
  if (PyLong_Check(other.ptr()) || PyFloat_Check(other.ptr())) {
    nb::list value;
    value.append(other);
    nb::object other_tensor =
        construct_qtensor(value, Py_False, Py_None, as_qtensor(self, rich.method).device, Py_None);
    auto [a, b] = broadcast_pair(self, other_tensor);
    return compare_op(rich.op, a, b);
  }
  // (sic) "implmented".
  throw std::runtime_error(std::string(rich.method) + " not implmented for type " + py_text(other));
}

nb::object allclose(TensorArg t1, TensorArg t2, nb::handle rtol, nb::handle atol, nb::handle equal_nan) {
  static nb::handle np_allclose = imported("numpy", "allclose");
  nb::dict options;
  options["rtol"] = rtol;
  options["atol"] = atol;
  options["equal_nan"] = equal_nan;
  return np_allclose(t1.attr("to_numpy")(), t2.attr("to_numpy")(), **options);
}

}  // namespace

void init_compare(nb::module_& m, nb::class_<QTensor>&) {
  constexpr const char* kNoGraph =
      "A new kbool QTensor outside the graph: it passes requires_grad on, without edges.";
  def_family<2>(m, "compare", kCompare, &compare_op, {"t1: a QTensor.", kSecondOperand}, kNoGraph);
  m.def("logical_not", &logical_not_op, nb::arg("t").none(),
        py::doc("Element-wise logical not; nonzero is true.", {"t: a QTensor."}, kNoGraph).c_str());
  def_family<1>(m, "classify", kClassify, &classify_op, {"t: a QTensor."},
                "A new kbool QTensor of t's shape; its gradient is zero.");
  m.def("allclose", &allclose, nb::arg("t1").none(), nb::arg("t2").none(), nb::arg("rtol").none(),
        nb::arg("atol").none(), nb::arg("equal_nan").none(),
        py::doc("Whether two tensors are equal within a tolerance, as numpy.allclose decides on their values.",
                {"t1: a QTensor (any object with to_numpy()).", "t2: likewise.",
                 "rtol: the relative tolerance, as numpy.allclose takes it.",
                 "atol: the absolute tolerance, as numpy.allclose takes it.",
                 "equal_nan: whether NaNs in the same places count as equal, as numpy.allclose takes it."},
                "numpy.allclose's result, a bool.").c_str());

  // The comparison slot of QTensor: op is Py_LT, Py_LE, Py_EQ, Py_NE, Py_GT or Py_GE.
  g_operators.compare = [](nb::handle self, nb::handle other, int op) {
    static const RichRow kRich[] = {{"__lt__", bound_row(kCompare, "less")},
                                    {"__le__", bound_row(kCompare, "less_equal")},
                                    {"__eq__", bound_row(kCompare, "equal")},
                                    {"__ne__", bound_row(kCompare, "not_equal")},
                                    {"__gt__", bound_row(kCompare, "greater")},
                                    {"__ge__", bound_row(kCompare, "greater_equal")}};
    return rich_compare(kRich[op], self, other);
  };
}

TRAMEL_FAMILY(init_compare);

}  // namespace tramel::tensor
