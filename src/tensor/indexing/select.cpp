// The basic way of a key: select and set_select over per-axis index texts,
// and the conversions of a key of ints and slices into those texts.
// See Note [two ways of a key] in indexing.h.
#include "tensor/indexing/indexing.h"

#include <nanobind/stl/string.h>

#include "interop/docs.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

void append_int_text(std::string& s, nb::handle v) {
  if (PyLong_CheckExact(v.ptr())) {
    int overflow = 0;
    long long x = PyLong_AsLongLongAndOverflow(v.ptr(), &overflow);
    if (!overflow) {
      s += std::to_string(x);
      return;
    }
  }
  s += py_text(v);  // the host's text conversion, whatever the type
}

namespace {

// "0,2,5,": the positions of a QTensor entry, each through int().
std::string positions_text(nb::handle entry) {
  QTensor& q = as_qtensor(entry, "select");
  Tensor t = core_of(q, "select");
  if (t.device() != kCpuDevice) t = to_device(t, kCpuDevice, "select");  // as to_numpy reads it
  if (t.dtype() != DType::Int64) t = to_dtype(t, DType::Int64, true);
  std::string s;
  const int64_t* p = t.data<int64_t>();
  for (int64_t i = 0; i < t.numel(); ++i) (s += std::to_string(p[i])) += ',';
  return s;
}

// The text of one entry of select's index list; false for an entry that is skipped.
bool append_entry_text(IndexTexts& texts, nb::handle entry) {
  if (is_qtensor(entry)) {
    texts.push_back(positions_text(entry));
  } else if (PyLong_Check(entry.ptr())) {
    std::string s;
    append_int_text(s, entry);
    texts.push_back(std::move(s));
  } else if (PyUnicode_Check(entry.ptr())) {
    texts.push_back(nb::cast<std::string>(entry));
  } else {
    return false;
  }
  return true;
}

IndexTexts texts_of(nb::handle index) {
  IndexTexts texts;
  for (nb::handle entry : nb::iter(index)) append_entry_text(texts, entry);
  return texts;
}

nb::list texts_list(const IndexTexts& texts) {
  nb::list out;
  for (const std::string& t : texts) out.append(nb::str(t.c_str(), t.size()));
  return out;
}

// str() of the list of texts: "['0:5:1', '1']".
std::string texts_repr(const IndexTexts& texts) {
  std::string s = "[";
  for (size_t i = 0; i < texts.size(); ++i) {
    for (char c : texts[i])
      if (c == '\'' || c == '\\' || c < ' ' || c > '~') return py_text(texts_list(texts));  // Python's own quoting
    (s += i ? ", '" : "'") += texts[i];
    s += '\'';
  }
  return s + "]";
}

}  // namespace

nb::list set_items_of(nb::handle index, bool ints_as_text) {
  nb::list items;
  for (nb::handle entry : nb::iter(index)) {
    if (is_qtensor(entry)) items.append(nb::borrow(entry).attr("to_numpy")());
    else if (PyLong_Check(entry.ptr())) items.append(ints_as_text ? nb::str(entry) : nb::borrow(entry));
    else if (PyUnicode_Check(entry.ptr()) && ints_as_text) items.append(entry);
    else if (PySlice_Check(entry.ptr()) && !ints_as_text) items.append(entry);
  }
  return items;
}

nb::object select_texts(nb::handle t, IndexTexts texts) {
  static const Derivatives& derivatives = derivatives_of("select");
  const Tensor& x = core_of(t, "select");
  Tensor data = select(x, texts);
  Shape input_shape = x.shape();
  nb::object y = make_result(std::move(data), {t}, derivatives, [&](int, Edge& e) {
    e.label = LazyLabel::formatted("select grad input: " + input_shape.str() + ", select index " + texts_repr(texts));
    auto state = std::make_shared<SelectState>();
    state->texts = texts;
    e.derivative.state = std::move(state);
  });
  record_gated(y, [&](QTensor& out) {
    append_links(out, {{t, LazyLabel()}});
    nb::dict attribute;
    attribute["slice"] = texts_list(texts);
    return make_record(ids(t, "_basic_indexing__", y), "Basic_Indexing", {t}, y, attribute);
  });
  return y;
}

void set_select_texts(nb::handle t, const IndexTexts& texts, nb::handle set_tensor, nb::handle index) {
  static const Derivatives& derivatives = derivatives_of("set_select");
  QTensor& target = as_qtensor(t, "set_select");
  QTensor& value = as_qtensor(set_tensor, "set_select");
  Tensor& x = core_of(target, "set_select");
  set_select(x, texts, core_of(value, "set_select"));
  nb::object requires_grad = value.requires_grad;
  if (truthy(requires_grad)) {
    Edge e;
    e.tensor = nb::borrow(set_tensor);
    e.device = value.device;
    e.derivative = Derivative(derivatives.for_input(0), 0, set_tensor, {set_tensor, t});
    auto state = std::make_shared<SelectState>();
    state->texts = texts;
    e.derivative.state = std::move(state);
    e.label = LazyLabel::formatted("set select grad input: " + id_text(t) + ", set select index " + texts_repr(texts));
    append_edge(target, std::move(e));
  }
  target.requires_grad = requires_grad;
  record_gated(t, [&](QTensor& out) {
    append_links(out, {{t, LazyLabel()}});
    nb::dict attribute;
    attribute["set_items"] = set_items_of(index.is_valid() ? index : nb::handle(texts_list(texts)), true);
    attribute["org"] = host_copy(core_of(out, "set_select"), "set_select");
    return make_record(ids(set_tensor, "_basic_set_indexing__", t), "Basic_set_index", {set_tensor}, t, attribute);
  });
}

Tensor fit_to_shape(const Tensor& g, const Shape& shape) {
  if (g.shape() == shape) return g;
  if (g.numel() == shape.numel()) return reshape(g, shape);
  int lead = 0;
  while (lead < shape.rank() && shape[lead] == 1) ++lead;
  int core = shape.rank() - lead, r = g.ndim();
  std::vector<int64_t> axes;
  for (int i = 0; i < r; ++i) {
    int j = i - (r - core);
    if ((j < 0 || shape[lead + j] == 1) && g.shape()[i] != 1) axes.push_back(i);
  }
  return reshape(sum(g, axes, true), shape);
}

void append_edge(QTensor& q, Edge&& edge) {
  if (!q.nodes.is_valid()) {  // still records (or no edge at all)
    q.edges.push_back(std::move(edge));
    return;
  }
  nb::object node = graphnode_of(std::move(edge));
  if (PyList_Check(q.nodes.ptr())) {
    if (PyList_Append(q.nodes.ptr(), node.ptr()) < 0) throw nb::python_error();
  } else {
    q.nodes.attr("append")(node);
  }
}

std::string slice_text(nb::handle x, int64_t i, nb::handle it) {
  auto* s = reinterpret_cast<PySliceObject*>(it.ptr());
  nb::handle start(s->start), stop(s->stop), step_object(s->step);
  // step == 0 compares by Python's rules, whatever the type.
  if (!step_object.is_none() && step_object.equal(nb::int_(0))) throw nb::value_error("slice step cannot be zero");
  bool forward = step_object.is_none() || nb::bool_(step_object >= nb::int_(1));
  auto axis_length = [&]() -> int64_t {
    const Shape& shape = core_of(x, "__getitem__").shape();
    int64_t at = i < 0 ? i + shape.rank() : i;  // x.shape[i], as a list reads it
    if (at < 0 || at >= shape.rank()) throw nb::index_error("list index out of range");
    return shape[int(at)];
  };
  std::string text;
  if (!start.is_none()) append_int_text(text, start);
  else text += forward ? "0" : std::to_string(axis_length() - 1);
  text += ':';
  if (!stop.is_none()) append_int_text(text, stop);
  else text += std::to_string(forward ? axis_length() : kSliceNonePlaceholder);
  text += ':';
  if (step_object.is_none()) text += '1';
  else append_int_text(text, step_object);
  return text;
}

void check_key_count(int64_t x_ndim, int64_t len_item) {
  if (len_item > x_ndim) throw nb::value_error("numbers of keys should not more than input shape length");
}

IndexTexts basic_texts(nb::handle item, nb::handle x) {
  Py_ssize_t n = PyObject_Length(item.ptr());
  if (n < 0) throw nb::python_error();
  check_key_count(core_of(x, "__getitem__").ndim(), n);
  IndexTexts texts;
  texts.reserve(size_t(n));
  int64_t i = 0;
  for (nb::handle it : nb::iter(item)) {
    if (PySlice_Check(it.ptr())) texts.push_back(slice_text(x, i, it));
    else if (PyLong_Check(it.ptr())) {
      std::string s;
      append_int_text(s, it);
      texts.push_back(std::move(s));
    } else {
      throw nb::value_error("only support slice and integar index");  // (sic) integar
    }
    ++i;
  }
  return texts;
}

nb::object basic_get(nb::handle item, nb::handle x) { return select_texts(x, basic_texts(item, x)); }

void basic_set(nb::handle key, nb::handle x, nb::handle value) { set_select_checked(x, basic_texts(key, x), value); }

void check_set_dtypes(nb::handle t, nb::handle set_tensor) {
  if (core_of(t, "set_select").dtype() != core_of(set_tensor, "set_select").dtype())
    throw nb::value_error("set_select() requires the source and destination dtypes match.");
}

void set_select_checked(nb::handle t, const IndexTexts& texts, nb::handle set_tensor) {
  check_set_dtypes(t, set_tensor);
  set_select_texts(t, texts, set_tensor, nb::handle());
}

namespace {

void init_select(nb::module_& m, nb::class_<QTensor>&) {
  const char* index_doc =
      "index: one entry per axis from axis 0 (fewer than the rank: the rest whole): an int (one position, the axis "
      "dropped), a text as the engine reads it (\"-12:14:2\", \":\", \"3\", \"0,2,\"), or a QTensor of positions "
      "(the axis kept); entries of other types are skipped.";
  m.def("select", [](TensorArg t, nb::handle index) -> TensorResult {
    as_qtensor(t, "select");
    return select_texts(t, texts_of(index));
  }, nb::arg("t").none(), nb::arg("index").none(),
     py::doc("A region of a tensor, chosen per axis.", {"t: a QTensor.", index_doc},
             "A new QTensor; differentiable (the gradient is zero outside the region).").c_str());
  m.def("set_select", [](TensorArg t, nb::handle index, TensorArg set_tensor) {
    check_set_dtypes(t, set_tensor);
    set_select_texts(t, texts_of(index), set_tensor, index);
  }, nb::arg("t").none(), nb::arg("index").none(), nb::arg("set_tensor").none(),
     py::doc("Writes a tensor into a region of another, in place.",
             {"t: the QTensor written; it keeps its edges and gains one to set_tensor.", index_doc,
              "set_tensor: a QTensor of t's dtype that broadcasts to the region (one element fills it)."})
         .c_str());
  m.def("_parse_slice_string", [](TensorArg x, int64_t i, nb::handle it) {
    if (!PySlice_Check(it.ptr())) throw nb::type_error("_parse_slice_string expects a slice");
    return slice_text(x, i, it);
  }, nb::arg("x").none(), nb::arg("i"), nb::arg("it"),
     py::doc("The text begin:stop:step of a slice on one axis, defaults filled in.",
             {"x: the QTensor.", "i: the axis the slice applies to.", "it: the slice."},
             "A str; a missing stop with a step below one is 2147483646.").c_str());
  m.def("_just_item", &check_key_count, nb::arg("x_ndim"), nb::arg("len_item"),
        py::doc("Refuses a key with more entries than the tensor has axes.",
                {"x_ndim: the tensor's rank.", "len_item: the number of entries."}).c_str());
  m.def("_process_select_with_basic_indexings", [](nb::handle item, TensorArg x) -> TensorResult {
    return basic_get(item, x);
  }, nb::arg("item"), nb::arg("x").none(),
     py::doc("Selects by a key of ints and slices, entry i for axis i.", {"item: a sized iterable of entries.",
                                                                           "x: the QTensor."},
             "What select returns.").c_str());
  m.def("_process_set_select_with_basic_indexings", &basic_set, nb::arg("key"), nb::arg("x").none(),
        nb::arg("value").none(),
        py::doc("Writes value by a key of ints and slices, entry i for axis i.",
                {"key: a sized iterable of entries.", "x: the QTensor written.", "value: a QTensor of x's dtype."})
            .c_str());
}

}  // namespace

TRAMEL_FAMILY(init_select);

}  // namespace tramel::tensor
