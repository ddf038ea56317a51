// Docstrings of both modules in one layout: a summary, then the arguments and
// the result.
#pragma once
#include <initializer_list>
#include <string>

namespace tramel::py {

// "summary\n\nArgs:\n    a: ...\n\nReturns:\n    ...", each section only when
// given. `args` holds one "name: text" per argument.
inline std::string doc(const char* summary, std::initializer_list<const char*> args = {},
                       const char* returns = nullptr) {
  std::string out = summary;
  if (args.size()) {
    out += "\n\nArgs:";
    for (const char* a : args) out += std::string("\n    ") + a;
  }
  if (returns) out += std::string("\n\nReturns:\n    ") + returns;
  return out;
}

}  // namespace tramel::py
