#include "refdaemon/pushconfig.h"

namespace lumo::refdaemon {

using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::Value;

Dictionary PolicySwitches::toDictionary() const {
  return Dictionary{{
      {"dupon", Value(Number::ofBool(dup))},
      {"webcontrolon", Value(Number::ofBool(webcontrol))},
      {"devicecontrolon", Value(Number::ofBool(devicecontrol))},
      {"antitamperingon", Value(Number::ofBool(antitampering))},
  }};
}

namespace {

std::optional<bool> switchValue(std::string_view text) {
  for (const char* on : {"1", "true", "on", "yes"}) {
    if (text == on) return true;
  }
  for (const char* off : {"0", "false", "off", "no"}) {
    if (text == off) return false;
  }
  return std::nullopt;
}

bool* switchNamed(std::string_view name, PolicySwitches* policy) {
  if (name.size() > 2 && name.substr(name.size() - 2) == "on") name.remove_suffix(2);
  if (name == "dup") return &policy->dup;
  if (name == "webcontrol") return &policy->webcontrol;
  if (name == "devicecontrol") return &policy->devicecontrol;
  if (name == "antitampering") return &policy->antitampering;
  return nullptr;
}

Value described(const std::string& path) {
  return Value(Dictionary{{{"comp_value", Value(path)},
                           {"operator", Value(Number::ofUnsignedInt(1))}}});
}

}  // namespace

std::string applyPolicyText(std::string_view text, PolicySwitches* policy) {
  PolicySwitches result = *policy;
  if (text.empty()) return "empty policy";
  while (!text.empty()) {
    const size_t comma = text.find(',');
    const std::string_view item = text.substr(0, comma);
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    const size_t eq = item.find('=');
    if (eq == std::string_view::npos) return "policy item \"" + std::string(item) + "\" has no '='";
    bool* target = switchNamed(item.substr(0, eq), &result);
    if (!target) {
      return "unknown policy switch \"" + std::string(item.substr(0, eq)) +
             "\" (dup, webcontrol, devicecontrol, antitampering)";
    }
    const std::optional<bool> value = switchValue(item.substr(eq + 1));
    if (!value) return "policy value \"" + std::string(item.substr(eq + 1)) + "\" is not 1 or 0";
    *target = *value;
  }
  *policy = result;
  return {};
}

Array exclusionsPayload(const std::vector<Exclusion>& exclusions) {
  Array payload;
  for (const Exclusion& e : exclusions) {
    Dictionary description;
    switch (e.kind) {
      case Exclusion::Kind::Path:
        description.entries.push_back({"process_path", described(e.value)});
        break;
      case Exclusion::Kind::Prefix:
        description.entries.push_back({"process_dir_path", described(e.value)});
        break;
      case Exclusion::Kind::Bundle:
        description.entries.push_back({"process_bundle_id", Value(e.value)});
        break;
    }
    payload.items.push_back(
        Value(Dictionary{{{"application_description", Value(std::move(description))}}}));
  }
  return payload;
}

std::optional<MountKind> mountKindNamed(std::string_view name) {
  if (name == "regular") return MountKind::Regular;
  if (name == "network") return MountKind::Network;
  if (name == "removable") return MountKind::Removable;
  return std::nullopt;
}

const char* mountKindName(MountKind kind) {
  switch (kind) {
    case MountKind::Regular: return "regular";
    case MountKind::Network: return "network";
    case MountKind::Removable: return "removable";
  }
  return "?";
}

std::string parseMountText(std::string_view text, Mount* mount) {
  const size_t eq = text.rfind('=');
  if (eq == std::string_view::npos || eq == 0) {
    return "mount \"" + std::string(text) + "\" is not PATH=removable|network|regular";
  }
  const std::optional<MountKind> kind = mountKindNamed(text.substr(eq + 1));
  if (!kind) {
    return "mount type \"" + std::string(text.substr(eq + 1)) +
           "\" is not removable, network or regular";
  }
  mount->path = std::string(text.substr(0, eq));
  mount->kind = *kind;
  return {};
}

}  // namespace lumo::refdaemon
