#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "xpc/xpcvalue.h"

namespace lumo::refdaemon {

// The four policy switches the extension reads.
struct PolicySwitches {
  bool dup = false;
  bool webcontrol = false;
  bool devicecontrol = false;
  bool antitampering = false;

  // {"dupon", "webcontrolon", "devicecontrolon", "antitamperingon"}, as BOOLs.
  tarvex::itx::xpc::Dictionary toDictionary() const;
};

// Applies "dup=1,webcontrol=0,devicecontrol=1,antitampering=0" (any subset,
// any order; names with or without "on"; values 1/0, true/false, on/off,
// yes/no) onto `policy`. Empty on success, else what is wrong; `policy` is
// then unchanged.
std::string applyPolicyText(std::string_view text, PolicySwitches* policy);

struct Exclusion {
  enum class Kind { Path, Prefix, Bundle };
  Kind kind;
  std::string value;
};

// The array of application descriptions setExclusions: takes; paths and
// prefixes carry operator 1 (the one the extension accepts).
tarvex::itx::xpc::Array exclusionsPayload(const std::vector<Exclusion>& exclusions);

// The values of the extension's MountType.
enum class MountKind : uint64_t { Regular = 0, Network = 1, Removable = 2 };

struct Mount {
  std::string path;
  MountKind kind = MountKind::Regular;
};

std::optional<MountKind> mountKindNamed(std::string_view name);
const char* mountKindName(MountKind kind);

// Parses "PATH=removable|network|regular". Empty on success, else what is wrong.
std::string parseMountText(std::string_view text, Mount* mount);

}  // namespace lumo::refdaemon
