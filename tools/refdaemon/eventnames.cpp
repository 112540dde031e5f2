#include "refdaemon/eventnames.h"

#include <cstdint>
#include <string>

#include "sysext.pb.h"

namespace lumo::refdaemon {

using tarvex::itx::xpc::DictEntry;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;

namespace {

// The schema's name of an enum entry's value, empty when it has none.
std::string schemaName(const std::string& key, const Number& number) {
  const int64_t value = number.asSigned();
  if (value < INT32_MIN || value > INT32_MAX) return {};
  const int n = static_cast<int>(value);
  if (key == "fileop" && sysext::FileOpType_IsValid(n)) {
    return sysext::FileOpType_Name(static_cast<sysext::FileOpType>(n));
  }
  if (key == "mounttype" && sysext::MountType_IsValid(n)) {
    return sysext::MountType_Name(static_cast<sysext::MountType>(n));
  }
  return {};
}

}  // namespace

void appendEventEntries(JsonLine& line, const Dictionary& event) {
  for (const DictEntry& e : event.entries) {
    line.entry(e.key, e.value);
    const Number* number = e.value.number();
    if (number == nullptr) continue;
    const std::string name = schemaName(e.key, *number);
    if (!name.empty()) line.text(e.key + "_name", name);
  }
}

}  // namespace lumo::refdaemon
