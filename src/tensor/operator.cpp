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

nb::object edge(nb::handle input, FnGrad* grad, const LazyLabel& label) {
  nb::object df = nb::cast(static_cast<GradFn*>(grad), nb::rv_policy::take_ownership);
  return make_graphnode(input, df, label);
}

nb::object edge(nb::handle input, FnGrad* grad, const std::string& name) {
  nb::object df = nb::cast(static_cast<GradFn*>(grad), nb::rv_policy::take_ownership);
  return make_graphnode(input, df, nb::str(name.c_str()));
}

nb::object make_leaf_result(Tensor data, std::initializer_list<nb::handle> inputs) {
  return make_result(std::move(data), inputs, [](int) { return nb::object(); });
}

void register_family_names(const char* family, nb::list names) { operator_tables()[family] = names; }

void init_operator_tables(nb::module_& m) { m.attr("_operator_tables") = operator_tables(); }

}  // namespace tramel::tensor
