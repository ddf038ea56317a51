// QTensor's subscript protocol: the routing of x[key] and x[key] = value, and
// the advanced get and set over the engine's gather and scatter. See Note
// [two ways of a key] in indexing.h.
#include "interop/docs.h"
#include "interop/interop.h"
#include "tensor/indexing/indexing.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

// Whether an exception in flight is an Exception (not a KeyboardInterrupt or
// SystemExit); C++ failures all are.
bool is_exception(const nb::python_error& e) { return e.matches(PyExc_Exception); }

std::shared_ptr<GatherState> gather_state(const Gather& g) {
  auto state = std::make_shared<GatherState>();
  state->layout = g.layout;
  state->indices = g.indices;
  return state;
}

// The key's plan and gather description on self.
Gather plan_gather(const Key& key, const Shape& shape) { return gather_of(plan_advanced(key, shape), shape); }

nb::object advanced_get(nb::handle self, const Gather& g) {
  static const Derivatives& derivatives = derivatives_of("__getitem__");
  QTensor& q = as_qtensor(self, "__getitem__");
  Tensor result = adv_indexing(core_of(q, "__getitem__"), g.layout, g.indices, g.oshape);
  return make_result(std::move(result), {self}, derivatives,
                     [&](int, Edge& e) {
                       e.label = LazyLabel("__getitem__ grad ");  // (sic) the trailing blank
                       e.derivative.state = gather_state(g);
                     },
                     ResultFields{q.requires_grad, q.device});
}

nb::object getitem_as_index(nb::handle self, nb::handle item) {
  const Shape shape = core_of(self, "__getitem__").shape();
  bool use_advance = false;
  Key key = expand_key(nb::make_tuple(item), shape, &use_advance);
  Gather g = plan_gather(key, shape);
  nb::object y = advanced_get(self, g);
  // (sic) the link of this row is labelled as floor's.
  record_always_linked(y, {{self, "t1 floor grad "}}, LazyLabel().shape(shape), [&] {
    nb::dict attribute;
    attribute["item_for_np_0"] = key_object(key.front());
    return make_record(ids(self, "_only_adv_idx", y), "Only_adv_idx", {self}, y, attribute);
  });
  return y;
}

nb::object getitem_in_index(nb::handle self, nb::handle item) {
  try {
    const Shape shape = core_of(self, "__getitem__").shape();
    bool use_advance = false;
    Key key = expand_key(item, shape, &use_advance);
    if (!use_advance) return basic_get(item, self);
    Gather g = plan_gather(key, shape);
    nb::object y = advanced_get(self, g);
    record_always_linked(y, {{self, "t1 _Multi_adv_index "}}, LazyLabel().shape(shape), [&] {
      nb::dict attribute;
      attribute["item_for_np"] = key_tuple(key);
      return make_record(ids(self, "_Multi_adv_index", y), "Multi_adv_index", {self}, y, attribute);
    });
    return y;
  } catch (...) {
    PyErr_Clear();  // the first failure is dropped: the key is retried on the basic way
  }
  return basic_get(item, self);
}

// The module-level operators that fit a value, differentiable; looked up once.
struct FittingOperators {
  nb::handle full = imported("pytramel.tensor.tensor", "full");
  nb::handle squeeze = imported("pytramel.tensor.tensor", "squeeze");
  nb::handle reshape = imported("pytramel.tensor.tensor", "reshape");
  nb::handle broadcast_to = imported("pytramel.tensor.tensor", "broadcast_to");
  nb::handle numeric_types = imported("pytramel.tensor.tensor", "numeric_types");
};
const FittingOperators& fitting() {
  static const FittingOperators ops;
  return ops;
}

}  // namespace

// _fun_prepare_value_nd: the value fitted to the region a set writes.
nb::object prepare_value(nb::handle self, nb::handle value, const std::vector<int64_t>& bcast_shape,
                         const std::vector<int64_t>& squeeze_axes) {
  QTensor& target = as_qtensor(self, "__setitem__");
  DType dtype = core_of(target, "__setitem__").dtype();
  const FittingOperators& ops = fitting();
  nb::object value_nd;
  if (PyObject_IsInstance(value.ptr(), ops.numeric_types.ptr()) == 1) {
    value_nd = ops.full(shape_tuple(bcast_shape), value, target.device, int(dtype));
  } else if (is_qtensor(value)) {
    value_nd = nb::borrow(value);
    if (core_of(value, "__setitem__").dtype() != dtype) value_nd = nb::borrow(value).attr("astype")(int(dtype));
  } else {
    std::string type = py_text(nb::handle(reinterpret_cast<PyObject*>(Py_TYPE(value.ptr()))));
    throw nb::type_error((type + " does not support assignment with non-array-like object " + py_text(value) +
                          " of type " + type).c_str());
  }
  auto ndim = [&] { return int64_t(core_of(value_nd, "__setitem__").ndim()); };
  int64_t target_ndim = int64_t(bcast_shape.size());
  if (!squeeze_axes.empty() && ndim() > target_ndim) {
    std::vector<int64_t> kept;
    for (int64_t ax : squeeze_axes)
      if (ax < ndim()) kept.push_back(ax);
    value_nd = ops.squeeze(value_nd, shape_tuple(kept));
  }
  if (ndim() > target_ndim) {
    std::vector<int64_t> leading;
    const Shape& s = core_of(value_nd, "__setitem__").shape();
    for (int64_t i = 0; i < ndim() - target_ndim && s[int(i)] == 1; ++i) leading.push_back(i);
    if (!leading.empty()) value_nd = ops.squeeze(value_nd, nb::list(shape_tuple(leading)));
  }
  // The value always becomes a new tensor linked to the old: the shapes are compared as list and tuple.
  if (core_of(value_nd, "__setitem__").numel() == 0)
    return ops.reshape(value_nd, shape_tuple(bcast_shape));
  return ops.broadcast_to(value_nd, shape_tuple(bcast_shape));
}

namespace {

// The advanced set: value fitted to the region, written, and linked to self.
// `device` is the object self.device takes afterwards (null: value_nd's).
void advanced_set(nb::handle self, const Key& key, nb::handle value, nb::handle device) {
  static const Derivatives& derivatives = derivatives_of("__setitem__");
  QTensor& target = as_qtensor(self, "__setitem__");
  const Shape shape = core_of(target, "__setitem__").shape();
  AdvancedPlan plan = plan_advanced(key, shape);
  Gather g = gather_of(plan, shape);
  nb::object value_nd = prepare_value(self, value, g.oshape, plan.new_axes);
  QTensor& v = as_qtensor(value_nd, "__setitem__");
  set_adv_indexing(core_of(target, "__setitem__"), g.layout, g.indices, core_of(v, "__setitem__"));
  if (truthy(v.requires_grad)) {
    Edge e;
    e.tensor = value_nd;
    e.device = v.device;
    e.derivative = Derivative(derivatives.for_input(0), 0, value_nd, {value_nd});
    e.derivative.state = gather_state(g);
    e.label = LazyLabel("__setitem__ grad ");  // (sic) the trailing blank
    append_edge(target, std::move(e));
  }
  target.requires_grad = v.requires_grad;
  target.device = device.is_valid() ? nb::borrow(device) : v.device;
}

// The records of the advanced sets: the index items and the target's values.
void record_advanced_set(nb::handle self, nb::handle key, nb::handle value, const char* opname, const char* infix) {
  record_gated(self, [&](QTensor& out) {
    check_key_count(core_of(out, "__setitem__").ndim(), int64_t(nb::len(key)));
    append_links(out, {{value, LazyLabel()}});
    nb::dict attribute;
    attribute["set_items"] = set_items_of(key, false);
    attribute["org"] = host_copy(core_of(out, "__setitem__"), "__setitem__");
    return make_record(ids(value, infix, self), opname, {value}, self, attribute);
  });
}

void setitem_in_index(nb::handle self, nb::handle key, nb::handle value) {
  try {
    bool use_advance = false;
    Key expanded = expand_key(key, core_of(self, "__setitem__").shape(), &use_advance);
    if (!use_advance) {
      basic_set(key, self, value);
      return;
    }
    advanced_set(self, expanded, value, nb::handle());
    record_advanced_set(self, key, value, "Multi_or_single_adv_set_index", "_msasi_");
    return;
  } catch (...) {
    PyErr_Clear();  // retried on the basic way, which reports its own failure
  }
  basic_set(key, self, value);
}

void setitem_as_index(nb::handle self, nb::handle key, nb::handle value) {
  nb::list key_list;
  key_list.append(key);
  try {
    bool use_advance = false;
    Key expanded = expand_key(key_list, core_of(self, "__setitem__").shape(), &use_advance);
    advanced_set(self, expanded, value, as_qtensor(value, "__setitem__").device);
  } catch (nb::python_error& e) {
    if (!is_exception(e)) throw;
    basic_set(key_list, self, value);
  } catch (std::exception&) {
    basic_set(key_list, self, value);
  }
  record_advanced_set(self, key_list, value, "Only_adv_set_index", "_oasi_");
}

nb::object getitem(nb::handle self, nb::handle item) {
  if (PyLong_Check(item.ptr())) {
    std::string text;
    append_int_text(text, item);
    return select_texts(self, {std::move(text)});
  }
  if (PySlice_Check(item.ptr())) return select_texts(self, {slice_text(self, 0, item)});
  if (is_qtensor(item)) return getitem_as_index(self, item);
  return getitem_in_index(self, item);
}

void setitem(nb::handle self, nb::handle key, nb::handle value_in) {
  QTensor& target = as_qtensor(self, "__setitem__");
  DType dtype = core_of(target, "__setitem__").dtype();
  nb::object value;
  if (is_qtensor(value_in)) {
    value = nb::borrow(value_in);
  } else {
    try {
      nb::list data;
      data.append(value_in);
      value = construct_qtensor(data, Py_False, Py_None, device_object(kCpuDevice), nb::int_(int(dtype)));
    } catch (...) {
      PyErr_Clear();
      throw nb::value_error("set value should be QTensor ");  // (sic) the trailing blank
    }
    // The number's tensor joins an accelerator target, so that the device the
    // advanced sets give the target is the one its data is on.
    int target_device = core_of(target, "__setitem__").device();
    if (target_device != kCpuDevice) move_to_device(value, target_device);
  }
  if (core_of(value, "__setitem__").dtype() != dtype) value = nb::borrow(value).attr("astype")(int(dtype));
  if (PyLong_Check(key.ptr())) {
    std::string text;
    append_int_text(text, key);
    set_select_texts(self, {std::move(text)}, value, nb::handle());
  } else if (is_qtensor(key)) {
    setitem_as_index(self, key, value);
  } else if (PySlice_Check(key.ptr())) {
    set_select_texts(self, {slice_text(self, 0, key)}, value, nb::handle());
  } else {
    setitem_in_index(self, key, value);
  }
}

void init_subscript(nb::module_& m, nb::class_<QTensor>& cls) {
  g_operators.getitem = &getitem;
  g_operators.setitem = &setitem;
  const char* value_doc = "value: a QTensor of self's dtype (cast to it otherwise).";
  cls.def("_getitem_with_qtensor_as_index", [](nb::handle self, TensorArg item) -> TensorResult {
    as_qtensor(item, "_getitem_with_qtensor_as_index");
    return getitem_as_index(self, item);
  }, nb::arg("item").none(),
     py::doc("x[t] for a QTensor key t: integer positions along axis 0, or a boolean mask over the leading axes.",
             {"item: the key, a QTensor."}, "A new QTensor; differentiable.").c_str());
  cls.def("_getitem_with_qtensor_in_index", [](nb::handle self, nb::handle item) -> TensorResult {
    return getitem_in_index(self, item);
  }, nb::arg("item").none(),
     py::doc("x[key] for a container key: the advanced way when it holds a QTensor, list or tuple, else the "
             "basic way; a key that fails the advanced way is retried on the basic way.",
             {"item: the key, an iterable of entries."}, "A new QTensor; differentiable.").c_str());
  cls.def("_setitem_with_qtensor_as_index", [](nb::handle self, TensorArg key, TensorArg value) {
    as_qtensor(key, "_setitem_with_qtensor_as_index");
    as_qtensor(value, "_setitem_with_qtensor_as_index");
    setitem_as_index(self, key, value);
  }, nb::arg("key").none(), nb::arg("value").none(),
     py::doc("x[t] = value for a QTensor key t, in place.", {"key: the key, a QTensor.", value_doc}).c_str());
  cls.def("_setitem_with_qtensor_in_index", [](nb::handle self, nb::handle key, TensorArg value) {
    as_qtensor(value, "_setitem_with_qtensor_in_index");
    setitem_in_index(self, key, value);
  }, nb::arg("key").none(), nb::arg("value").none(),
     py::doc("x[key] = value for a container key, in place; the ways as for a get.",
             {"key: the key, an iterable of entries.", value_doc}).c_str());
  m.def("_fun_prepare_value_nd", [](TensorArg self, nb::handle value, nb::handle bcast_shape, nb::handle squeeze_axes) {
    std::vector<int64_t> shape, axes;
    for (nb::handle d : nb::iter(bcast_shape)) shape.push_back(nb::cast<int64_t>(nb::int_(d)));
    if (!squeeze_axes.is_none() && truthy(squeeze_axes))
      for (nb::handle a : nb::iter(squeeze_axes)) axes.push_back(nb::cast<int64_t>(nb::int_(a)));
    return TensorResult(prepare_value(self, value, shape, axes));
  }, nb::arg("self").none(), nb::arg("value").none(), nb::arg("bcast_shape"), nb::arg("squeeze_axes").none() = nb::none(),
     py::doc("Fits an assigned value to the region a set writes.",
             {"self: the QTensor written.", "value: a number or a QTensor.", "bcast_shape: the region's shape.",
              "squeeze_axes: axes of None entries to take out of the value first."},
             "A new QTensor of the region's shape and self's dtype, linked to value.").c_str());
  m.def("_getitem_advance_grad", [](const Tensor& grad, const Tensor& c_indice, const py::IntList& mshape,
                                    const py::IntList& strides, const py::IntList& inputshape, int64_t n, int64_t m_,
                                    int64_t k) {
    GatherLayout layout;
    layout.n = n;
    layout.m = m_;
    layout.k = k;
    layout.mshape = mshape.get("_getitem_advance_grad", "mshape");
    layout.strides = strides.get("_getitem_advance_grad", "strides");
    return adv_indexing_grad(grad, layout, c_indice, inputshape.get("_getitem_advance_grad", "inputshape"));
  }, nb::arg("grad"), nb::arg("c_indice"), nb::arg("mshape"), nb::arg("strides"), nb::arg("inputshape"), nb::arg("n"),
     nb::arg("m"), nb::arg("k"),
     py::doc("The gradient of an advanced get: grad's runs added at their coordinates into zeros.",
             {"grad: the incoming gradient, a core tensor.", "c_indice: the index array.",
              "mshape: the indexed axes' lengths.", "strides: their element strides.",
              "inputshape: the indexed tensor's shape.", "n: the number of index tuples.",
              "m: the number of indexed axes.", "k: the length of one run."},
             "A core tensor of inputshape.").c_str());
}

}  // namespace

TRAMEL_FAMILY(init_subscript);

}  // namespace tramel::tensor
