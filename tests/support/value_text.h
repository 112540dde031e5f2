#pragma once

#include <string>

#include "xpc/xpcvalue.h"

namespace lumo::testing {

// Spells a value with its number kinds (i, u, ll, ull, b before the bits),
// so a kind lost on the way shows in a comparison.
inline std::string valueText(const tarvex::itx::xpc::Value& v) {
  using namespace tarvex::itx::xpc;
  if (v.isNil()) return "nil";
  if (const std::string* s = v.string()) return "'" + *s + "'";
  if (const Dictionary* d = v.dictionary()) {
    std::string out = "{";
    for (const DictEntry& e : d->entries) out += e.key + "=" + valueText(e.value) + ";";
    return out + "}";
  }
  if (const Array* a = v.array()) {
    std::string out = "[";
    for (const Value& item : a->items) out += valueText(item) + ",";
    return out + "]";
  }
  static const char* kKinds[] = {"i", "u", "ll", "ull", "b"};
  return kKinds[static_cast<int>(v.number()->kind)] + std::to_string(v.number()->bits);
}

template <typename T>
std::string valueTextOrNil(const T* object) {
  return object ? valueText(tarvex::itx::xpc::Value(*object)) : "nil";
}

}  // namespace lumo::testing
