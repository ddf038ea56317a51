// add, sub, mul, divide, accumulate and the number protocol of QTensor.
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

// The family table: each operator once, with the summary of its docstring,
// its core call and its trace (node and link labels, export record).
// Gradients: the derivatives table.
struct ArithmeticRow {
  const char* name;
  RowDoc doc;
  struct {
    BinaryOp forward;
  } math;
  struct {
    const char* infix;       // node and link labels: "t1 grad [2] add [2]"
    const char* opname;      // export record
    const char* opid_infix;  // opid: {t1}<infix>{t2}_{y}
  } trace;
};

const ArithmeticRow kArithmetic[] = {
    {"add", {"Element-wise sum t1 + t2, the operands broadcast to one shape."}, {BinaryOp::Add},
     {" add ", "Add", "_add_"}},
    {"sub", {"Element-wise difference t1 - t2, the operands broadcast to one shape."}, {BinaryOp::Sub},
     {" sub ", "Sub", "_sub_"}},
    {"mul", {"Element-wise product t1 * t2, the operands broadcast to one shape."}, {BinaryOp::Mul},
     {" mul ", "Mul", "_mul_"}},
    {"divide",
     {"Element-wise quotient t1 / t2, the operands broadcast to one shape; integers truncate and an integer "
     "x / 0 is 0."},
     {BinaryOp::Div}, {" div ", "Div", "_div_"}},
};

nb::object arithmetic(Bound<ArithmeticRow> op, nb::handle x1, nb::handle x2) {
  const ArithmeticRow& row = op.row;
  auto [t1, t2] = prepare_binary(x1, x2);
  const Tensor& a = core_of(t1, row.name);
  const Tensor& b = core_of(t2, row.name);
  Shape s1 = a.shape(), s2 = b.shape();
  nb::object y = make_result(binary(row.math.forward, a, b), {t1, t2}, *op.derivatives, [&](int i, Edge& e) {
    e.label = LazyLabel(i == 0 ? "t1 grad " : "t2 grad ").shape(s1).then(row.trace.infix).shape(s2);
  });
  record_always_linked(y, {{t1, "t1 no grad "}, {t2, "t2 no grad "}},
                       LazyLabel().shape(s1).then(row.trace.infix).shape(s2), [&] {
                         return make_record(ids(t1, row.trace.opid_infix, t2) + "_" + id_text(y), row.trace.opname,
                                            {t1, t2}, y, nb::list());
                       });
  return y;
}

TensorResult accumulate(TensorListArg tensor_list) {
  if (!tensor_list.is_none() && !PyList_Check(tensor_list.ptr()))
    throw nb::type_error("accumulate expects a list of QTensor");
  if (tensor_list.is_none()) throw nb::type_error("object of type 'NoneType' has no len()");
  nb::list items = nb::borrow<nb::list>(tensor_list);
  if (items.size() <= 1) {
    // (sic) "should >1" and the trailing spaces of these messages.
    PyErr_SetString(PyExc_AssertionError, "tensor_list length should >1 ");
    throw nb::python_error();
  }
  const Tensor& first = core_of(items[0], "accumulate");
  nb::object device0 = as_qtensor(items[0], "accumulate").device;
  std::vector<nb::handle> inputs;
  std::vector<const Tensor*> parts;
  for (nb::handle t : items) {
    QTensor& q = as_qtensor(t, "accumulate");
    const Tensor& data = core_of(q, "accumulate");
    if (data.shape() != first.shape()) throw nb::value_error("tensor_list elements should have same shape ");
    if (!q.device.equal(device0)) throw nb::value_error("tensor_list elements should have same device ");
    if (data.dtype() != first.dtype()) throw nb::value_error("tensor_list elements should have same dtype ");
    inputs.push_back(t);
    parts.push_back(&data);
  }
  static const Derivatives& derivatives = derivatives_of("accumulate");
  return make_result(add_tensor_list(parts), Inputs(inputs.data(), inputs.size()), derivatives,
                     [&](int i, Edge& e) { e.label = LazyLabel("accumulate grad ").id(inputs[size_t(i)]); });
}

}  // namespace

void init_arithmetic(nb::module_& m, nb::class_<QTensor>& cls) {
  def_family<2>(m, "arithmetic", kArithmetic, &arithmetic, {"t1: a QTensor.", kSecondOperand},
                "A new QTensor; differentiable.");
  m.def("accumulate", &accumulate, nb::arg("tensor_list").none(),
        py::doc("The sum of a list of tensors.",
                {"tensor_list: a list of at least two QTensors of one shape, dtype and device."},
                "A new QTensor; differentiable.").c_str());

  // The number slots of QTensor (see qtensor.cpp) call these.
  static const Bound<ArithmeticRow> add = bound_row(kArithmetic, "add"), sub = bound_row(kArithmetic, "sub"),
                                    mul = bound_row(kArithmetic, "mul"), div = bound_row(kArithmetic, "divide");
  g_operators.add = [](nb::handle a, nb::handle b) { return arithmetic(add, a, b); };
  g_operators.sub = [](nb::handle a, nb::handle b) { return arithmetic(sub, a, b); };
  g_operators.mul = [](nb::handle a, nb::handle b) { return arithmetic(mul, a, b); };
  g_operators.div = [](nb::handle a, nb::handle b) { return arithmetic(div, a, b); };
  // numpy defers to these operators instead of looping over a QTensor.
  cls.attr("__array_ufunc__") = nb::none();
}

TRAMEL_FAMILY(init_arithmetic);

}  // namespace tramel::tensor
