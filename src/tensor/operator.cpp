#include "tensor/operator.h"

namespace tramel::tensor {

namespace {
nb::dict& operator_tables() {
  static nb::dict* tables = new nb::dict();  // lives as long as the interpreter
  return *tables;
}
}  // namespace

const Tensor& FnGrad::data(int i) const {
  nb::handle h = held_[i];
  return is_qtensor(h) ? core_of(as_qtensor(h, "backward"), "backward") : as_core(h, "backward");
}

const Tensor& FnGrad::grad_data(int i) const {
  QTensor& q = as_qtensor(held_[i], "backward");
  if (q.grad.is_none()) throw nb::attribute_error("'NoneType' object has no attribute 'data'");
  return core_of(as_qtensor(q.grad, "backward"), "backward");
}

nb::handle requires_grad_or(std::initializer_list<nb::handle> inputs) {
  nb::handle flag;
  for (nb::handle input : inputs) {
    flag = as_qtensor(input, "operator").requires_grad;
    if (truthy(flag)) return flag;
  }
  return flag;
}

namespace {
PyTypeObject* g_fngrad_type = nullptr;

nb::object derivative_object(FnGrad&& grad) {
  nb::object df = nb::inst_alloc(g_fngrad_type);
  new (nb::inst_ptr<FnGrad>(df)) FnGrad(std::move(grad));
  nb::inst_mark_ready(df);
  return df;
}
}  // namespace

nb::object edge(nb::handle input, FnGrad grad, const LazyLabel& label) {
  return make_graphnode(input, derivative_object(std::move(grad)), label);
}

nb::object edge(nb::handle input, FnGrad grad, const std::string& name) {
  return make_graphnode(input, derivative_object(std::move(grad)), nb::str(name.c_str()));
}

void init_fngrad(nb::module_& m) {
  // Cycle collection goes through GradFn's virtual traverse/clear.
  static PyType_Slot slots[] = {{Py_tp_traverse, (void*)+[](PyObject* self, visitproc visit, void* arg) {
                                   Py_VISIT(Py_TYPE(self));
                                   return nb::inst_ready(self) ? nb::inst_ptr<FnGrad>(self)->traverse(visit, arg) : 0;
                                 }},
                                {Py_tp_clear, (void*)+[](PyObject* self) {
                                   if (nb::inst_ready(self)) nb::inst_ptr<FnGrad>(self)->clear();
                                   return 0;
                                 }},
                                {0, nullptr}};
  nb::class_<FnGrad, GradFn> cls(m, "_FnGrad", nb::type_slots(slots), "The derivative of a built-in operator.");
  g_fngrad_type = (PyTypeObject*)cls.ptr();
}

nb::object make_leaf_result(Tensor data, std::initializer_list<nb::handle> inputs) {
  return make_result(std::move(data), inputs, [](int) { return nb::object(); });
}

void register_family_names(const char* family, nb::list names) { operator_tables()[family] = names; }

void init_operator_tables(nb::module_& m) { m.attr("_operator_tables") = operator_tables(); }

}  // namespace tramel::tensor
