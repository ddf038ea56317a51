// Labels of graph edges and link nodes, formatted only when read.
#pragma once
#include <nanobind/nanobind.h>

#include <memory>
#include <string>

#include "core/shape.h"

namespace tramel::tensor {

namespace nb = nanobind;

// A label made of literal texts around up to two values, each a tensor shape
// (printed as Python prints a shape list, "[2, 3]") or an object identity (its
// decimal id), formatted only when read. Built-in operators name their edges
// with it, so a label that nobody reads costs no string formatting:
//   LazyLabel("t1 grad ").shape(a).then(" add ").shape(b)
class LazyLabel {
 public:
  LazyLabel() = default;
  explicit LazyLabel(const char* text) { text_[0] = text; }
  // A label whose text is known now (one holding a Python value's str()).
  static LazyLabel formatted(std::string text);
  LazyLabel& shape(const Shape& s);
  LazyLabel& id(nb::handle o);
  // The text after the last value.
  LazyLabel& then(const char* text);
  std::string str() const;

 private:
  enum class Kind : uint8_t { Shape, Id };
  static constexpr int kPool = 10;  // dims and ids held inline
  void append_value(Kind kind, const int64_t* values, int count);

  const char* text_[3] = {"", "", ""};
  Kind kinds_[2];
  uint8_t counts_[2];
  uint8_t nvalues_ = 0, used_ = 0;
  int64_t pool_[kPool];  // only the first used_ entries are meaningful
  // Set when the pool was too small, or the text was given whole.
  std::shared_ptr<const std::string> formatted_;
};

}  // namespace tramel::tensor
