#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "waiting.h"
#include "xpc/xpcconnection.h"

namespace lumo::apple_testing {

// Stands in for the core's link object behind the exported object: records
// each call with what arrived (nullopt for a null pointer) and answers
// reply blocks with `answer`.
class RecordingTarget : public tarvex::itx::xpc::SysextXPCInterface {
 public:
  using Value = tarvex::itx::xpc::Value;

  struct Call {
    std::string selector;
    std::optional<std::string> text;  // volume or printer
    uint64_t number = 0;              // mount type, timestamp or verdict
    std::optional<Value> value;       // policy or exclusions
  };

  void addMountPoint(const std::string* volume, uint64_t mountType) override {
    record({"addMountPoint:mountType:", copy(volume), mountType, std::nullopt});
  }
  void removeMountPoint(const std::string* volume) override {
    record({"removeMountPoint:", copy(volume), 0, std::nullopt});
  }
  void clearMountPoints() override { record({"clearMountPoints", std::nullopt, 0, std::nullopt}); }
  void setPolicy(const tarvex::itx::xpc::Dictionary* policy, uint64_t timestamp,
                 tarvex::itx::xpc::ReplyBlock reply) override {
    record({"setPolicy:withTimestamp:andCompletionHandler:", std::nullopt, timestamp,
            policy != nullptr ? std::optional<Value>(*policy) : std::nullopt});
    if (reply) reply(answer);
  }
  void setExclusions(const tarvex::itx::xpc::Array* exclusions, uint64_t timestamp,
                     tarvex::itx::xpc::ReplyBlock reply) override {
    record({"setExclusions:withTimestamp:andCompletionHandler:", std::nullopt, timestamp,
            exclusions != nullptr ? std::optional<Value>(*exclusions) : std::nullopt});
    if (reply) reply(answer);
  }
  void setPrinter(const std::string* printer, bool verdict) override {
    record({"setPrinter:verdict:", copy(printer), verdict ? 1u : 0u, std::nullopt});
  }

  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  // Waits for the next call recorded after the previous waits.
  bool waitForCall() { return arrived_.wait(); }

  bool answer = true;

 private:
  static std::optional<std::string> copy(const std::string* text) {
    return text != nullptr ? std::optional<std::string>(*text) : std::nullopt;
  }
  void record(Call call) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back(std::move(call));
    }
    arrived_.notify();
  }

  mutable std::mutex mutex_;
  std::vector<Call> calls_;
  Signal arrived_;
};

}  // namespace lumo::apple_testing
