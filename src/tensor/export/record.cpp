#include "tensor/export/record.h"

#include <chrono>
#include <stdexcept>

#include "interop/docs.h"
#include "interop/interop.h"
#include "tensor/autograd/toposort.h"

namespace tramel::tensor {

// Note [recording forms]
// Operators leave their record in one of three forms. Form A (always linked)
// appends one link node per input to y.link_nodes on every call and sets the
// record unless save_opinfo is the object False. Form B (gated, assigned) does
// nothing unless save_constant is the object True and save_opinfo is not the
// object False; then it replaces y.link_nodes and sets the record. Form C is
// form B with the link node appended instead. Construction records a
// "Constant" under the gate of form B. The two tests read engine flags, so
// with recording off an operator pays two loads and no Python call.

namespace {

PyObject* g_opnodesinfo = nullptr;


}  // namespace

std::string id_text(nb::handle o) { return std::to_string(uintptr_t(o.ptr())); }

bool save_constant_on() { return export_flags().save_constant_is_true; }
bool save_opinfo_on() { return export_flags().save_opinfo_is_not_false; }

void append_links(QTensor& y, std::initializer_list<Link> links) {
  nb::object& list = link_nodes_of(y);
  for (const Link& link : links) {
    nb::object node = link.name ? make_graphnode(link.tensor, nb::none(), nb::str(link.name->c_str()))
                                : make_graphnode(link.tensor, nb::none(), link.label);
    if (PyList_Append(list.ptr(), node.ptr()) < 0) throw nb::python_error();
  }
}

void defer_links(QTensor& y, std::initializer_list<PrefixedLink> links, const LazyLabel& body) {
  if (y.pending_links.count) link_nodes_of(y);  // keep the order: earlier links first
  if (links.size() > size_t(PendingLinks::kCapacity))
    throw std::logic_error("an always-linked record takes at most two inputs");
  PendingLinks& pending = y.pending_links;
  for (const PrefixedLink& link : links) {
    pending.inputs[pending.count] = nb::borrow(link.tensor);
    pending.prefixes[pending.count++] = link.prefix;
  }
  pending.body = body;
}

void replace_links(QTensor& y, std::initializer_list<Link> links) {
  y.pending_links = PendingLinks();
  y.link_nodes = nb::list();
  append_links(y, links);
}

nb::object make_record(const std::string& opid, const char* opname, std::initializer_list<nb::handle> inputs,
                       nb::handle output, nb::handle attribute) {
  nb::list ids, shapes, dtypes;
  for (nb::handle in : inputs) {
    const Tensor& t = core_of(in, "export");
    ids.append(nb::str(id_text(in).c_str()));
    shapes.append(py::shape_list(t.shape()));
    dtypes.append(int(t.dtype()));
  }
  const Tensor& y = core_of(output, "export");
  nb::list out_ids, out_shapes, out_dtypes;
  out_ids.append(nb::str(id_text(output).c_str()));
  out_shapes.append(py::shape_list(y.shape()));
  out_dtypes.append(int(y.dtype()));
  nb::dict kw;
  kw["opid"] = nb::str(opid.c_str());
  kw["opname"] = nb::str(opname);
  kw["op_input_id_lists"] = ids;
  kw["op_input_shape_lists"] = shapes;
  kw["op_output_id_list"] = out_ids;
  kw["op_output_shape_list"] = out_shapes;
  kw["op_attribute"] = attribute;
  kw["op_para_buffer_id_lists"] = nb::list();
  kw["op_para_buffer_shape_lists"] = nb::list();
  kw["op_input_dtype_lists"] = dtypes;
  kw["op_output_dtype_lists"] = out_dtypes;
  return nb::handle(g_opnodesinfo)(**kw);
}

void record_constant(nb::handle y, QTensor& fields) {
  if (!save_constant_on() || !save_opinfo_on()) return;
  // Called from the constructor too, before the object is ready for Python
  // attribute access: everything is read from the engine tensor.
  const Tensor& data = core_of(fields, "Constant");
  Tensor host = data.device() >= kFirstAccelerator ? to_device(data, kCpuDevice, "getdata") : data;
  nb::dict value;
  value["value"] = py::numpy_copy(host, "getdata");
  value["shape"] = py::shape_list(data.shape());
  nb::list attribute;
  attribute.append(value);
  nb::object record = make_record(id_text(y) + "_tensor_init_", "Constant", {y}, y, attribute);
  fields.pending_links = PendingLinks();
  fields.link_nodes = nb::object();  // a new empty list; see Note [lazy empty lists]
  fields.oplinkinfo = record;
}

void record_one_input(nb::handle y, nb::handle t, const char* link, const char* opname, const char* opid_infix,
                      Attribute attribute) {
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t, LazyLabel(link)}});
    nb::dict dict;
    for (const auto& [key, value] : attribute) dict[key] = value;
    return make_record(id_text(t) + opid_infix + id_text(y), opname, {t}, y, dict);
  });
}

void record_appended(nb::handle t, nb::handle y, const char* opname, const char* opid_infix, const std::string& link,
                     const char* key, nb::handle value) {
  record_gated(y, [&](QTensor& out) {
    append_links(out, {{t, LazyLabel(), &link}});
    nb::dict attribute;
    attribute[key] = value;
    return make_record(id_text(t) + opid_infix + id_text(y), opname, {t}, y, attribute);
  });
}

void record_cast(nb::handle t1, nb::handle y) {
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t1, LazyLabel("Cast")}});
    nb::set attribute;
    attribute.add(nb::str("dtype"));
    attribute.add(nb::int_(int(core_of(y, "export").dtype())));
    return make_record(id_text(t1) + "cast_to_" + id_text(y), "Cast", {t1}, y, attribute);
  });
}

namespace {

// The records of the graph below end_node, in walk order, keyed by opid; a
// record is read from each tensor's `name`, as the exporter leaves it there.
nb::object get_opinfo(nb::handle end_node) {
  static nb::handle ordered_dict = imported("collections", "OrderedDict");
  nb::object records = ordered_dict();
  TopoSort<CppParents> order(nb::borrow(end_node), &get_prev);
  for (nb::object node = order.next(); node.is_valid(); node = order.next()) {
    nb::handle opinfo = as_qtensor(node, "get_opinfo").name;
    int is_record = PyObject_IsInstance(opinfo.ptr(), g_opnodesinfo);
    if (is_record < 0) throw nb::python_error();
    if (!is_record) continue;
    nb::object opid = opinfo.attr("opid");
    int known = PySequence_Contains(records.ptr(), opid.ptr());
    if (known < 0) throw nb::python_error();
    if (!known) records[opid] = opinfo;
  }
  return records;
}

}  // namespace

void init_export(nb::module_& m) {
  nb::module_ exporter = nb::module_::import_("pytramel.onnx.export");
  g_opnodesinfo = imported("pytramel.onnx.export", "OPNodesInfo").ptr();
  m.attr("OPNodesInfo") = nb::handle(g_opnodesinfo);
  m.attr("get_onnx_convert_config") = exporter.attr("get_onnx_convert_config");
  m.def("get_opinfo", [](TensorArg end_node) { return get_opinfo(end_node); }, nb::arg("end_node").none(),
        py::doc("The export records of the graph below a tensor, read from each tensor's name where the exporter "
                "left one. The walk gives tensors their zero grad, as a backward pass does.",
                {"end_node: a QTensor."},
                "An OrderedDict from opid to OPNodesInfo, in the order of the walk, each opid once.").c_str());
  // Benchmark probe: nanoseconds per gated recording step of `y` under the
  // current settings, averaged over `calls` (benchmarks/bench_host.py).
  m.def("_recording_step_ns", [](TensorArg y, int64_t calls) {
    auto start = std::chrono::steady_clock::now();
    for (int64_t i = 0; i < calls; ++i) record_cast(y, y);
    std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - start;
    return spent.count() / double(calls > 0 ? calls : 1);
  }, nb::arg("y"), nb::arg("calls"),
     py::doc("Nanoseconds per gated recording step of a tensor under the current export settings.",
             {"y: a QTensor.", "calls: the number of steps to average over."}, "A float.").c_str());
}

}  // namespace tramel::tensor
