#pragma once

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "waiting.h"
#include "xpc/xpcconnection.h"

namespace lumo::apple_testing {

// A value as text: strings quoted, numbers with their kind's letter,
// dictionaries sorted by key (Foundation hands them over in hash order).
inline std::string text(const tarvex::itx::xpc::Value& value) {
  if (const std::string* s = value.string()) return "'" + *s + "'";
  if (const auto* n = value.number()) {
    const char* kinds[] = {"i", "u", "ll", "ull", "b"};
    const bool ull = n->kind == tarvex::itx::xpc::NumberKind::UnsignedLongLong;
    return kinds[static_cast<int>(n->kind)] +
           (ull ? std::to_string(n->bits) : std::to_string(n->asSigned()));
  }
  std::string out;
  if (const auto* d = value.dictionary()) {
    auto entries = d->entries;
    std::sort(entries.begin(), entries.end(), [](auto& a, auto& b) { return a.key < b.key; });
    for (const auto& e : entries) out += e.key + "=" + text(e.value) + ";";
    return "{" + out + "}";
  }
  if (const auto* a = value.array()) {
    for (const auto& item : a->items) out += text(item) + ",";
    return "[" + out + "]";
  }
  return "nil";
}

// Stands in for the core's link object behind the exported object: logs
// each call with what arrived (nil for a null pointer) and answers reply
// blocks with `answer`.
class RecordingTarget : public tarvex::itx::xpc::SysextXPCInterface {
 public:
  template <typename T>
  static std::string text(const T* value) {
    return value != nullptr ? apple_testing::text(*value) : "nil";
  }

  void addMountPoint(const std::string* volume, uint64_t mountType) override {
    record("addMountPoint " + text(volume) + " " + std::to_string(mountType));
  }
  void removeMountPoint(const std::string* volume) override {
    record("removeMountPoint " + text(volume));
  }
  void clearMountPoints() override { record("clearMountPoints"); }
  void setPolicy(const tarvex::itx::xpc::Dictionary* policy, uint64_t timestamp,
                 tarvex::itx::xpc::ReplyBlock reply) override {
    record("setPolicy " + text(policy) + " " + std::to_string(timestamp));
    if (reply) reply(answer);
  }
  void setExclusions(const tarvex::itx::xpc::Array* exclusions, uint64_t timestamp,
                     tarvex::itx::xpc::ReplyBlock reply) override {
    record("setExclusions " + text(exclusions) + " " + std::to_string(timestamp));
    if (reply) reply(answer);
  }
  void setPrinter(const std::string* printer, bool verdict) override {
    record("setPrinter " + text(printer) + (verdict ? " YES" : " NO"));
  }

  std::vector<std::string> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  // Waits for the next call recorded after the previous waits.
  bool waitForCall() { return arrived_.wait(); }

  bool answer = true;

 private:
  void record(std::string call) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back(std::move(call));
    }
    arrived_.notify();
  }

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
  Signal arrived_;
};

}  // namespace lumo::apple_testing
