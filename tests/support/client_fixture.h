#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

#include "esclient/client.h"
#include "esclient/eventobserver.h"
#include "rtn/platform.h"
#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "support/fake_es.h"
#include "support/manual_dispatch.h"
#include "support/message_builder.h"

namespace lumo::testing {

constexpr const char* kAuthQueue = "com.tarvex.lumo.es-app_auth";
constexpr const char* kDeadlineQueue = "com.tarvex.lumo.es-app_auth_deadline";
constexpr const char* kNotifyQueue = "com.tarvex.lumo.es-app_notify";

// An observer that counts its calls; it may deny, or block until released.
class RecordingObserver : public endpointsecurity::EventObserver {
 public:
  RecordingObserver(std::string name, std::vector<es_event_type_t> types,
                    endpointsecurity::ObserverTags tags)
      : name_(std::move(name)) {
    events = std::move(types);
    setTags(tags);
  }

  using EventObserver::events;  // the types it observes, open to tests
  std::string getName() const override { return name_; }
  void onNotify(const es_message_t*, es_client_t*) override { ++notified; }
  bool onAuth(const es_message_t* message, es_client_t* client) override {
    ++authed;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      ++blocked_;
      changed_.notify_all();
      changed_.wait(lock, [&] { return !blocking_; });
    }
    if (denyWith == nullptr) return false;
    denyWith->respondAuthResult(client, message, ES_AUTH_RESULT_DENY, false);
    return true;
  }

  // Blocks every onAuth until release(); waitBlocked waits for one caller.
  void block() { blocking_ = true; }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    blocking_ = false;
    changed_.notify_all();
  }
  bool waitBlocked() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return blocked_ > 0; });
  }

  std::atomic<int> notified{0};
  std::atomic<int> authed{0};
  // When set, onAuth answers DENY itself through this API.
  endpointsecurity::IEndpointSecurityApi* denyWith = nullptr;

 private:
  std::string name_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool blocking_ = false;
  int blocked_ = 0;
};

// A client over the fake facility, with queues and timers the test runs by
// hand and the daemon link listening.
class ClientFixture : public ::testing::Test {
 protected:
  ClientFixture() : dispatch(clock) {
    tarvex::itx::rtn::setPlatform({&es, &dispatch, &clock, nullptr});
    client = std::make_unique<endpointsecurity::Client>();
  }
  void TearDown() override {
    dispatch.runQueued();
    client.reset();
    tarvex::itx::rtn::setPlatform({});
  }

  // A process observer registered with the client (not yet initialised),
  // active unless told otherwise.
  RecordingObserver& observe(std::string name, std::vector<es_event_type_t> types,
                             bool active = true) {
    RecordingObserver& o = observers.emplace_back(std::move(name), std::move(types),
                                                  endpointsecurity::TagProcObserver);
    if (active) o.activate();
    client->registerObserver(&o);
    return o;
  }
  // An AUTH message whose deadline is `ticks` from now.
  std::unique_ptr<TestMessage> authMessage(es_event_type_t type, uint64_t ticks = 1'000'000) {
    return MessageBuilder::auth(type).deadline(clock.now() + ticks).build();
  }

  FakeClock clock;
  ManualDispatch dispatch;
  FakeEndpointSecurity es;
  CaptureSink sink;
  FakeDaemonLink link;
  std::deque<RecordingObserver> observers;  // outlive the client
  std::unique_ptr<endpointsecurity::Client> client;
};

}  // namespace lumo::testing
