// Failures of the core engine. Every failure is a C++ exception of this type;
// the bindings turn its kind into the matching Python exception.
#pragma once
#include <stdexcept>
#include <string>

namespace tramel {

enum class ErrorKind { Value, Type, Index, Runtime };

class Error : public std::runtime_error {
 public:
  Error(ErrorKind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  ErrorKind kind() const { return kind_; }

 private:
  ErrorKind kind_;
};

// Messages start with the operation: "[argmax] axis 3 is out of range for shape [2, 3]".
[[noreturn]] void fail(ErrorKind kind, const char* op, const std::string& what);

}  // namespace tramel
