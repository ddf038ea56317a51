#include "tensor/label.h"

namespace tramel::tensor {

namespace {
std::string value_text(bool is_id, const int64_t* values, int count) {
  if (is_id) return std::to_string(uint64_t(values[0]));
  std::string s = "[";
  for (int i = 0; i < count; ++i) s += (i ? ", " : "") + std::to_string(values[i]);
  return s + "]";
}
}  // namespace

LazyLabel LazyLabel::formatted(std::string text) {
  LazyLabel label;
  label.formatted_ = std::make_shared<const std::string>(std::move(text));
  return label;
}

LazyLabel& LazyLabel::shape(const Shape& s) {
  append_value(Kind::Shape, s.begin(), s.rank());
  return *this;
}

LazyLabel& LazyLabel::id(nb::handle o) {
  int64_t value = int64_t(uintptr_t(o.ptr()));
  append_value(Kind::Id, &value, 1);
  return *this;
}

LazyLabel& LazyLabel::then(const char* text) {
  if (formatted_) formatted_ = std::make_shared<const std::string>(*formatted_ + text);
  else text_[nvalues_] = text;
  return *this;
}

void LazyLabel::append_value(Kind kind, const int64_t* values, int count) {
  if (!formatted_ && (nvalues_ == 2 || used_ + count > kPool))
    formatted_ = std::make_shared<const std::string>(str());
  if (formatted_) {
    formatted_ = std::make_shared<const std::string>(*formatted_ + value_text(kind == Kind::Id, values, count));
    return;
  }
  kinds_[nvalues_] = kind;
  counts_[nvalues_] = uint8_t(count);
  for (int i = 0; i < count; ++i) pool_[used_ + i] = values[i];
  used_ = uint8_t(used_ + count);
  ++nvalues_;
}

std::string LazyLabel::str() const {
  if (formatted_) return *formatted_;
  std::string s = text_[0];
  for (int v = 0, at = 0; v < nvalues_; at += counts_[v], ++v)
    s += value_text(kinds_[v] == Kind::Id, pool_ + at, counts_[v]) + text_[v + 1];
  return s;
}

}  // namespace tramel::tensor
