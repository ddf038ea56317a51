// add, sub, mul, divide, accumulate and the number protocol of QTensor.
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

// The family table: each operator once, with its core call, the gradient of
// each operand before it is reduced to that operand's shape, its label infix
// and its export record.
struct ArithmeticRow {
  const char* name;
  BinaryOp forward;
  FnGrad::Fn grad[2];
  const char* infix;       // node and link labels: "t1 grad [2] add [2]"
  const char* opname;      // export record
  const char* opid_infix;  // opid: {t1}<infix>{t2}_{y}
  bool holds_result;       // the gradient reads the forward result
};

// Held by every edge: t1, t2 and (for divide) the forward result.
const Tensor& t1_data(const FnGrad& f) { return f.data(0); }
const Tensor& t2_data(const FnGrad& f) { return f.data(1); }

const ArithmeticRow kArithmetic[] = {
    {"add", BinaryOp::Add,
     {[](const Tensor& g, const FnGrad&) { return g; }, [](const Tensor& g, const FnGrad&) { return g; }},
     " add ", "Add", "_add_", false},
    {"sub", BinaryOp::Sub,
     {[](const Tensor& g, const FnGrad&) { return g; },
      [](const Tensor& g, const FnGrad&) { return unary(UnaryOp::Neg, g); }},
     " sub ", "Sub", "_sub_", false},
    {"mul", BinaryOp::Mul,
     {[](const Tensor& g, const FnGrad& f) { return mult_grad(g, t2_data(f)); },
      [](const Tensor& g, const FnGrad& f) { return mult_grad(g, t1_data(f)); }},
     " mul ", "Mul", "_mul_", false},
    {"divide", BinaryOp::Div,
     {[](const Tensor& g, const FnGrad& f) { return div_dxgrad(g, t2_data(f)); },
      [](const Tensor& g, const FnGrad& f) { return div_dygrad(g, f.data(2), t2_data(f)); }},
     " div ", "Div", "_div_", true},
};

// Every arithmetic edge: the row's gradient, reduced to the operand's grad.
Tensor arithmetic_grad(const Tensor& g, const FnGrad& f) {
  const ArithmeticRow& row = f.row<ArithmeticRow>();
  return unbroadcast(f.grad_data(f.which()), row.grad[f.which()](g, f));
}

nb::object arithmetic(const ArithmeticRow& row, nb::handle x1, nb::handle x2) {
  auto [t1, t2] = prepare_binary(x1, x2);
  const Tensor& a = core_of(as_qtensor(t1, row.name), row.name);
  const Tensor& b = core_of(as_qtensor(t2, row.name), row.name);
  Shape s1 = a.shape(), s2 = b.shape();
  Tensor result = binary(row.forward, a, b);
  // The forward result is held by the gradient only where the row needs it.
  nb::object data = row.holds_result ? wrap_core(std::move(result)) : nb::object();
  auto make_edge = [&](int i) {
    FnGrad grad = row.holds_result ? FnGrad(&arithmetic_grad, &row, i, {t1, t2, data})
                                   : FnGrad(&arithmetic_grad, &row, i, {t1, t2});
    return edge(i == 0 ? t1 : t2, std::move(grad),
                LazyLabel(i == 0 ? "t1 grad " : "t2 grad ").shape(s1).then(row.infix).shape(s2));
  };
  nb::object y = row.holds_result ? make_result(data, {t1, t2}, make_edge)
                                  : make_result(std::move(result), {t1, t2}, make_edge);
  record_always_linked(y, {{t1, "t1 no grad "}, {t2, "t2 no grad "}}, LazyLabel().shape(s1).then(row.infix).shape(s2),
                       [&] {
                         return make_record(ids(t1, row.opid_infix, t2) + "_" + id_text(y), row.opname, {t1, t2}, y,
                                            nb::list());
                       });
  return y;
}

Tensor accumulate_grad(const Tensor& g, const FnGrad& f) { return unbroadcast(f.grad_data(0), g); }

nb::object accumulate(nb::handle tensor_list) {
  if (!tensor_list.is_none() && !PyList_Check(tensor_list.ptr()))
    throw nb::type_error("accumulate expects a list of QTensor");
  if (tensor_list.is_none()) throw nb::type_error("object of type 'NoneType' has no len()");
  nb::list items = nb::borrow<nb::list>(tensor_list);
  if (items.size() <= 1) {
    PyErr_SetString(PyExc_AssertionError, "tensor_list length should >1 ");
    throw nb::python_error();
  }
  const Tensor& first = core_of(as_qtensor(items[0], "accumulate"), "accumulate");
  nb::object device0 = as_qtensor(items[0], "accumulate").device;
  nb::object requires_grad = nb::borrow(Py_False);
  nb::list nodes;
  std::vector<const Tensor*> parts;
  for (nb::handle t : items) {
    QTensor& q = as_qtensor(t, "accumulate");
    const Tensor& data = core_of(q, "accumulate");
    if (data.shape() != first.shape()) throw nb::value_error("tensor_list elements should have same shape ");
    if (!q.device.equal(device0)) throw nb::value_error("tensor_list elements should have same device ");
    if (data.dtype() != first.dtype()) throw nb::value_error("tensor_list elements should have same dtype ");
    if (!truthy(requires_grad)) requires_grad = q.requires_grad;
    if (truthy(q.requires_grad))
      nodes.append(edge(t, FnGrad(&accumulate_grad, nullptr, 0, {t}), LazyLabel("accumulate grad ").id(t)));
    parts.push_back(&data);
  }
  Tensor sum = add_tensor_list(parts);
  int device = sum.device();
  return new_qtensor(wrap_core(std::move(sum)), requires_grad, nodes, device_object(device));
}

}  // namespace

void init_arithmetic(nb::module_& m, nb::class_<QTensor>& cls) {
  def_family<2>(m, "arithmetic", kArithmetic, &arithmetic);
  m.def("accumulate", &accumulate, nb::arg("tensor_list").none());

  // The number slots of QTensor (see qtensor.cpp) call these.
  g_operators.add = [](nb::handle a, nb::handle b) { return arithmetic(kArithmetic[0], a, b); };
  g_operators.sub = [](nb::handle a, nb::handle b) { return arithmetic(kArithmetic[1], a, b); };
  g_operators.mul = [](nb::handle a, nb::handle b) { return arithmetic(kArithmetic[2], a, b); };
  g_operators.div = [](nb::handle a, nb::handle b) { return arithmetic(kArithmetic[3], a, b); };
  // numpy defers to these operators instead of looping over a QTensor.
  cls.attr("__array_ufunc__") = nb::none();
}

}  // namespace tramel::tensor
