#pragma once

#include <string>

#include "xpc/xpcvalue.h"

namespace lumo::testing {

// A dictionary as one line, e.g. {path="/bin/ls", pid=uint:7}: keys in the
// order sent and each number with its kind, so one comparison checks all.
inline std::string dictText(const tarvex::itx::xpc::Dictionary& dict) {
  static const char* const kKinds[] = {"int", "uint", "ll", "ull", "bool"};
  std::string text;
  for (const auto& [key, value] : dict.entries) {
    text += (text.empty() ? "{" : ", ") + key + "=";
    if (const std::string* s = value.string()) {
      text += "\"" + *s + "\"";
    } else if (const auto* n = value.number()) {
      text += std::string(kKinds[static_cast<int>(n->kind)]) + ":" + std::to_string(n->asSigned());
    } else {
      text += "?";
    }
  }
  return text + "}";
}

}  // namespace lumo::testing
