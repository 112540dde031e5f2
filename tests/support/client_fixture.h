#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <memory>

#include "esclient/client.h"
#include "rtn/platform.h"
#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "support/fake_es.h"
#include "support/manual_dispatch.h"
#include "support/message_builder.h"
#include "support/recording_observer.h"

namespace lumo::testing {

constexpr const char* kAuthQueue = "com.tarvex.lumo.es-app_auth";
constexpr const char* kDeadlineQueue = "com.tarvex.lumo.es-app_auth_deadline";
constexpr const char* kNotifyQueue = "com.tarvex.lumo.es-app_notify";

// A client over the fake facility, with queues and timers the test runs by
// hand and the daemon link listening.
class ClientFixture : public ::testing::Test {
 protected:
  ClientFixture() : dispatch(clock) {
    tarvex::itx::rtn::setPlatform({&es, &dispatch, &clock, nullptr});
    client = std::make_unique<endpointsecurity::Client>();
    client->setName("ClientDUP");
  }

  void TearDown() override {
    dispatch.runQueued();
    client.reset();
    tarvex::itx::rtn::setPlatform({});
  }

  // An observer registered with the client (not yet initialised), active
  // unless told otherwise.
  RecordingObserver& observe(std::string name, std::vector<es_event_type_t> types,
                             bool active = true, RecordingObserver::CallLog* log = nullptr) {
    RecordingObserver& o = observers.emplace_back(std::move(name), std::move(types),
                                                  endpointsecurity::TagProcObserver, log);
    if (active) o.activate();
    client->registerObserver(&o);
    return o;
  }

  // Builds an AUTH message whose deadline is `ticks` from now.
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
