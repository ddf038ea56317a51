#include "tensor/operator.h"

#include <algorithm>
#include <string>

namespace tramel::tensor {

namespace {
nb::dict& operator_tables() {
  static nb::dict* tables = new nb::dict();  // lives as long as the interpreter
  return *tables;
}
}  // namespace

nb::handle requires_grad_or(Inputs inputs) {
  nb::handle flag;
  for (nb::handle input : inputs) {
    flag = as_qtensor(input, "operator").requires_grad;
    if (truthy(flag)) return flag;
  }
  return flag;
}

nb::object make_leaf_result(Tensor data, Inputs inputs, ResultFields fields) {
  nb::handle requires_grad = fields.requires_grad.is_valid() ? fields.requires_grad : requires_grad_or(inputs);
  nb::object device = fields.device.is_valid() ? nb::borrow(fields.device) : device_object(data.device());
  return new_qtensor(std::move(data), requires_grad, Py_None, device);
}

namespace {
std::vector<std::pair<std::string, FamilyInit>>& families() {
  static std::vector<std::pair<std::string, FamilyInit>> registered;
  return registered;
}
}  // namespace

FamilyRegistration::FamilyRegistration(const char* name, FamilyInit init) { families().emplace_back(name, init); }

void init_families(nb::module_& m, nb::class_<QTensor>& cls) {
  std::vector<std::pair<std::string, FamilyInit>> ordered = families();
  std::sort(ordered.begin(), ordered.end());
  for (const auto& [name, init] : ordered) init(m, cls);
}

void register_family_names(const char* family, nb::list names) { operator_tables()[family] = names; }

void init_operator_tables(nb::module_& m) { m.attr("_operator_tables") = operator_tables(); }

}  // namespace tramel::tensor
