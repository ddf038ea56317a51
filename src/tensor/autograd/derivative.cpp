#include "tensor/autograd/derivative.h"

#include "tensor/qtensor.h"

namespace tramel::tensor {

void InlineInts::push_back(int64_t v) {
  if (n_ == kMaxRank)
    fail(ErrorKind::Value, "backward", "an operator keeps at most " + std::to_string(kMaxRank) + " axes for its gradient");
  v_[n_++] = v;
}

Derivative::Derivative(const Gradient& gradient, int which, nb::handle own, std::initializer_list<nb::handle> inputs)
    : Derivative(gradient, which, own, inputs.begin(), inputs.size()) {}

Derivative::Derivative(const Gradient& gradient, int which, nb::handle own, const nb::handle* inputs, size_t count)
    : gradient_(&gradient), which_(int8_t(which)) {
  all_inputs_ = (gradient.saves & kSavesInputs) && count > 1;
  if (!all_inputs_) {
    saved_[count_++] = nb::borrow(own);
    return;
  }
  if (count > size_t(kMaxSavedInputs))
    fail(ErrorKind::Value, "backward",
         "a derivative keeps at most " + std::to_string(kMaxSavedInputs) + " inputs, got " + std::to_string(count));
  for (size_t i = 0; i < count; ++i) saved_[count_++] = nb::borrow(inputs[i]);
}

nb::handle Derivative::slot(int k) const {
  if (all_inputs_) {
    if (k < 0 || k >= count_) fail(ErrorKind::Index, "backward", "input " + std::to_string(k) + " was not kept");
    return saved_[k];
  }
  if (k != which_) fail(ErrorKind::Index, "backward", "input " + std::to_string(k) + " was not kept");
  return saved_[0];
}

nb::handle Derivative::input_object(int k) const { return slot(k); }

const Tensor& Derivative::input(int k) const {
  nb::handle h = slot(k);
  return is_qtensor(h) ? core_of(as_qtensor(h, "backward"), "backward") : as_core(h, "backward");
}

const Tensor& Derivative::own_grad() const {
  QTensor& q = as_qtensor(slot(which_), "backward");
  if (q.grad.is_none()) throw nb::attribute_error("'NoneType' object has no attribute 'data'");
  return core_of(as_qtensor(q.grad, "backward"), "backward");
}

int Derivative::traverse(visitproc visit, void* arg) const {
  for (int i = 0; i < count_; ++i) Py_VISIT(saved_[i].ptr());
  return 0;
}

void Derivative::clear() {
  for (int i = 0; i < count_; ++i) saved_[i].reset();
}

namespace {

PyTypeObject* g_gradfn_type = nullptr;

int gradfn_traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  return nb::inst_ready(self) ? nb::inst_ptr<Derivative>(self)->traverse(visit, arg) : 0;
}

int gradfn_clear(PyObject* self) {
  if (nb::inst_ready(self)) nb::inst_ptr<Derivative>(self)->clear();
  return 0;
}

PyType_Slot gradfn_slots[] = {
    {Py_tp_traverse, (void*)gradfn_traverse}, {Py_tp_clear, (void*)gradfn_clear}, {0, nullptr}};

}  // namespace

nb::object gradfn_object(Derivative&& d) {
  nb::object df = nb::inst_alloc(g_gradfn_type);
  new (nb::inst_ptr<Derivative>(df)) Derivative(std::move(d));
  nb::inst_mark_ready(df);
  return df;
}

const Derivative* derivative_in(nb::handle df) {
  return PyObject_TypeCheck(df.ptr(), g_gradfn_type) ? nb::inst_ptr<Derivative>(df) : nullptr;
}

void init_gradfn(nb::module_& m) {
  nb::class_<Derivative> cls(m, "GradFn", nb::type_slots(gradfn_slots),
                             "The derivative of a built-in operator for one of its inputs.");
  g_gradfn_type = (PyTypeObject*)cls.ptr();
  cls.def("__call__", [](const Derivative& d, nb::handle g) { return wrap_core(d.apply(as_core(g, "backward"))); },
          nb::arg("grad").none(),
          "The gradient for the edge's input.\n\n"
          "Args:\n    grad: the incoming gradient, a _core.Tensor.\n\n"
          "Returns:\n    The gradient for the input, a _core.Tensor.");
}

}  // namespace tramel::tensor
