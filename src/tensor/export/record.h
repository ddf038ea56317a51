// The export trace: records of operations (OPNodesInfo) and the link nodes
// beside the autograd graph. See Note [recording forms] in record.cpp.
#pragma once
#include <initializer_list>
#include <string>

#include "tensor/qtensor.h"

namespace tramel::tensor {

// "<decimal id of o>", the identity text that joins records into a graph.
std::string id_text(nb::handle o);

// An OPNodesInfo with all eleven fields; inputs and output are QTensors.
nb::object make_record(const std::string& opid, const char* opname, std::initializer_list<nb::handle> inputs,
                       nb::handle output, nb::handle attribute);

// The two configuration tests, read from engine flags.
bool save_constant_on();
bool save_opinfo_on();

// One link node: an edge with df None to an input, with its label (or, for
// labels holding Python values' text, a name formatted now).
struct Link {
  nb::handle tensor;
  LazyLabel label;
  const std::string* name = nullptr;
};

void append_links(QTensor& y, std::initializer_list<Link> links);
void replace_links(QTensor& y, std::initializer_list<Link> links);
// An always-linked input and the prefix of its link's label.
struct PrefixedLink {
  nb::handle tensor;
  const char* prefix;
};
// Appends links labelled prefix + body that become GraphNodes only when read;
// see Note [lazy link nodes].
void defer_links(QTensor& y, std::initializer_list<PrefixedLink> links, const LazyLabel& body);

// Form A, always linked: the links (labelled prefix + body) go on every call;
// the record (built by make_record_fn() only when wanted) unless save_opinfo
// is the object False.
template <typename MakeRecord>
void record_always_linked(nb::handle y, std::initializer_list<PrefixedLink> links, const LazyLabel& body,
                          MakeRecord&& make_record_fn) {
  QTensor& out = as_qtensor(y, "export");
  defer_links(out, links, body);
  if (save_opinfo_on()) out.oplinkinfo = make_record_fn();
}

// Forms B and C: nothing unless save_constant is the object True and
// save_opinfo is not the object False. Then write(y) sets the links (form B:
// replace_links, form C: append_links) and returns the record. Everything
// past the two flag tests lives in `write`, so an operator pays only the tests.
template <typename Write>
void record_gated(nb::handle y, Write&& write) {
  if (!save_constant_on() || !save_opinfo_on()) return;
  QTensor& out = as_qtensor(y, "export");
  out.oplinkinfo = write(out);
}

// Form B for a one-input operator, the usual case: a link labelled `link` to
// t, and the record with opid id(t) + opid_infix + id(y) and the attribute
// dict {key: value, ...} (empty: {}).
using Attribute = std::initializer_list<std::pair<const char*, nb::handle>>;
void record_one_input(nb::handle y, nb::handle t, const char* link, const char* opname, const char* opid_infix,
                      Attribute attribute);

// Form C for a one-input operator with one attribute: a link named `link`
// (formatted now: it holds a Python value's text) and {key: value}.
void record_appended(nb::handle t, nb::handle y, const char* opname, const char* opid_infix, const std::string& link,
                     const char* key, nb::handle value);

// The "Constant" record of a new tensor, when save_constant is on.
void record_constant(nb::handle y, QTensor& fields);
// The "Cast" record of astype.
void record_cast(nb::handle t1, nb::handle y);

}  // namespace tramel::tensor
