#include "xpc/callcheck.h"

#include <array>
#include <string_view>

#include "xpc/selectors.h"

namespace tarvex::itx::xpc::linux_platform {

namespace {

enum class Kind : uint8_t { String, Dictionary, Array, UnsignedLongLong, Bool };

struct Arg {
  Kind kind;
  bool nilAllowed;
};

struct Method {
  std::string_view selector;
  size_t argc;
  std::array<Arg, 2> args;
  bool reply;
};

constexpr Arg kNilOr(Kind kind) { return {kind, true}; }
constexpr Arg kOnly(Kind kind) { return {kind, false}; }
constexpr Arg kNone{Kind::String, false};

// Argument kinds after the methods' type encodings: '@' objects, 'Q' unsigned
// 64-bit, 'c' BOOL, '@?' the reply block (carried as the reply id).
const std::array<Method, 6> kSysextMethods{{
    {selectors::kAddMountPoint, 2, {kNilOr(Kind::String), kOnly(Kind::UnsignedLongLong)}, false},
    {selectors::kRemoveMountPoint, 1, {kNilOr(Kind::String), kNone}, false},
    {selectors::kClearMountPoints, 0, {kNone, kNone}, false},
    {selectors::kSetPolicy, 2, {kNilOr(Kind::Dictionary), kOnly(Kind::UnsignedLongLong)}, true},
    {selectors::kSetExclusions, 2, {kNilOr(Kind::Array), kOnly(Kind::UnsignedLongLong)}, true},
    {selectors::kSetPrinter, 2, {kNilOr(Kind::String), kOnly(Kind::Bool)}, false},
}};

// The daemon's interface takes events by reference, so they cannot be nil.
const std::array<Method, 5> kDaemonMethods{{
    {selectors::kRegister, 0, {kNone, kNone}, true},
    {selectors::kHandleFileEvent, 1, {kOnly(Kind::Dictionary), kNone}, false},
    {selectors::kHandlePrinterEvent, 1, {kOnly(Kind::Dictionary), kNone}, false},
    {selectors::kHandleProcessStartEvent, 1, {kOnly(Kind::Dictionary), kNone}, false},
    {selectors::kHandleProcessExitEvent, 1, {kOnly(Kind::Dictionary), kNone}, false},
}};

const char* kindName(Kind kind) {
  switch (kind) {
    case Kind::String: return "a string";
    case Kind::Dictionary: return "a dictionary";
    case Kind::Array: return "an array";
    case Kind::UnsignedLongLong: return "an unsigned long long number";
    case Kind::Bool: return "a bool number";
  }
  return "?";
}

const char* valueName(const Value& value) {
  if (value.isNil()) return "nil";
  if (value.string()) return "a string";
  if (value.dictionary()) return "a dictionary";
  if (value.array()) return "an array";
  switch (value.number()->kind) {
    case NumberKind::Int: return "an int number";
    case NumberKind::UnsignedInt: return "an unsigned int number";
    case NumberKind::LongLong: return "a long long number";
    case NumberKind::UnsignedLongLong: return "an unsigned long long number";
    case NumberKind::Bool: return "a bool number";
  }
  return "?";
}

bool fits(const Arg& arg, const Value& value) {
  if (value.isNil()) return arg.nilAllowed;
  switch (arg.kind) {
    case Kind::String: return value.string() != nullptr;
    case Kind::Dictionary: return value.dictionary() != nullptr;
    case Kind::Array: return value.array() != nullptr;
    case Kind::UnsignedLongLong:
      return value.number() && value.number()->kind == NumberKind::UnsignedLongLong;
    case Kind::Bool: return value.number() && value.number()->kind == NumberKind::Bool;
  }
  return false;
}

template <size_t N>
const Method* find(const std::array<Method, N>& methods, std::string_view selector) {
  for (const Method& m : methods) {
    if (m.selector == selector) return &m;
  }
  return nullptr;
}

std::string shortened(const std::string& selector) {
  constexpr size_t kShown = 64;
  if (selector.size() <= kShown) return selector;
  return selector.substr(0, kShown) + "...";
}

}  // namespace

const char* protocolName(Protocol protocol) {
  return protocol == Protocol::Sysext ? "SysextXPCInterface" : "ProtectionDaemonXPCInterface";
}

std::string checkCall(Protocol protocol, const CallFrame& call) {
  const Method* method = protocol == Protocol::Sysext ? find(kSysextMethods, call.selector)
                                                      : find(kDaemonMethods, call.selector);
  if (!method) {
    return "unknown selector \"" + shortened(call.selector) + "\" for " + protocolName(protocol);
  }
  const std::string name(method->selector);
  if (call.args.size() != method->argc) {
    return name + " takes " + std::to_string(method->argc) + " argument(s), got " +
           std::to_string(call.args.size());
  }
  for (size_t i = 0; i < method->argc; ++i) {
    const Arg& arg = method->args[i];
    if (!fits(arg, call.args[i])) {
      return "argument " + std::to_string(i + 1) + " of " + name + " must be " +
             kindName(arg.kind) + (arg.nilAllowed ? " or nil" : "") + ", got " +
             valueName(call.args[i]);
    }
  }
  if (method->reply && !call.replyId) return name + " takes a reply block but carries no reply id";
  if (!method->reply && call.replyId) return name + " takes no reply block but carries a reply id";
  return {};
}

}  // namespace tarvex::itx::xpc::linux_platform
