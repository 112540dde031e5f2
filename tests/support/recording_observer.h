#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "esclient/esapi.h"
#include "esclient/eventobserver.h"

namespace lumo::testing {

// An observer that counts its calls and, given a call log that several
// observers may share, notes them there in order (single-threaded tests).
class RecordingObserver : public endpointsecurity::EventObserver {
 public:
  using CallLog = std::vector<std::string>;

  RecordingObserver(std::string name, std::vector<es_event_type_t> types,
                    endpointsecurity::ObserverTags tags, CallLog* log = nullptr)
      : name_(std::move(name)), log_(log) {
    events = std::move(types);
    setTags(tags);
  }

  std::string getName() const override { return name_; }

  void onNotify(const es_message_t*, es_client_t*) override {
    if (log_ != nullptr) log_->push_back(name_ + ".notify");
    notified.fetch_add(1);
  }

  bool onAuth(const es_message_t* message, es_client_t* client) override {
    if (log_ != nullptr) log_->push_back(name_ + ".auth");
    authed.fetch_add(1);
    if (blockAuth.load()) {
      std::unique_lock<std::mutex> lock(blockMutex_);
      blocked_.fetch_add(1);
      blockCv_.notify_all();
      blockCv_.wait(lock, [&] { return !blockAuth.load(); });
    }
    if (denyWith != nullptr) {
      denyWith->respondAuthResult(client, message, ES_AUTH_RESULT_DENY, false);
      return true;
    }
    return false;
  }

  // Blocks every onAuth until release(); waitBlocked waits for n callers.
  void block() { blockAuth.store(true); }
  void release() {
    {
      std::lock_guard<std::mutex> lock(blockMutex_);
      blockAuth.store(false);
    }
    blockCv_.notify_all();
  }
  bool waitBlocked(int n) {
    std::unique_lock<std::mutex> lock(blockMutex_);
    return blockCv_.wait_for(lock, std::chrono::seconds(10), [&] { return blocked_.load() >= n; });
  }

  std::atomic<int> notified{0};
  std::atomic<int> authed{0};
  std::atomic<bool> blockAuth{false};
  // When set, onAuth answers DENY itself through this API.
  endpointsecurity::IEndpointSecurityApi* denyWith = nullptr;

 private:
  std::string name_;
  CallLog* log_;
  std::mutex blockMutex_;
  std::condition_variable blockCv_;
  std::atomic<int> blocked_{0};
};

}  // namespace lumo::testing
