// The client on real queues and the real clock: what must hold whatever the
// threads do.
#include <gtest/gtest.h>

#include <thread>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "support/client_fixture.h"

namespace {

using lumo::testing::MessageBuilder;
using lumo::testing::RecordingObserver;
using Messages = std::vector<std::unique_ptr<lumo::testing::TestMessage>>;

class ClientOnThreads : public ::testing::Test {
 protected:
  // A started client over active observers of the given types.
  void start(std::vector<std::pair<RecordingObserver*, std::vector<es_event_type_t>>> observers) {
    for (auto& [o, types] : observers) {
      o->events = types;
      o->activate();
      client.registerObserver(o);
    }
    ASSERT_TRUE(client.init());
  }
  std::unique_ptr<lumo::testing::TestMessage> auth(es_event_type_t type, uint64_t nanosLeft) {
    return MessageBuilder::auth(type).deadline(clock.now() + clock.nanosToTicks(nanosLeft)).build();
  }

  // Declared first so that it outlives every thread that may touch it.
  lumo::testing::FakeEndpointSecurity es;
  lumo::testing::CaptureSink sink{/*debug=*/false};
  lumo::testing::FakeDaemonLink link;
  tarvex::itx::rtn::linux_platform::MonotonicClock clock;
  tarvex::itx::rtn::linux_platform::LinuxDispatch dispatch{clock};
  RecordingObserver first{"First", {}, endpointsecurity::TagProcObserver};
  RecordingObserver second{"Second", {}, endpointsecurity::TagProcObserver};
  endpointsecurity::Client client{{&es, &dispatch, &clock, nullptr}};
};

TEST_F(ClientOnThreads, ObserverThatNeverReturnsDoesNotStopTheWatchdog) {
  first.block();
  start({{&first, {ES_EVENT_TYPE_AUTH_EXEC}}});
  // More stuck messages than a machine has cores, so every auth worker that
  // exists is blocked.
  Messages messages;
  for (int i = 0; i < 12; ++i) messages.push_back(auth(ES_EVENT_TYPE_AUTH_EXEC, 1'500'000'000));
  for (auto& m : messages) es.deliver(m->get());
  ASSERT_TRUE(first.waitBlocked());
  for (auto& m : messages) {
    ASSERT_TRUE(es.waitForAnswers(m->get(), 1));
    // Answered by the watchdog, before the facility's deadline.
    EXPECT_LT(clock.now(), m->get()->deadline);
    EXPECT_EQ(es.answers(m->get())[0].result, ES_AUTH_RESULT_ALLOW);
  }
  first.release();
  ASSERT_TRUE(es.waitForReleased());
  // Each watchdog logs after answering, before it lets go of its message.
  EXPECT_EQ(sink.count("ATTENTION ! Auth deadline is reached"), messages.size());
  client.stop();
}

TEST_F(ClientOnThreads, EveryAuthIsAnsweredAndNoMessageLeaksUnderLoad) {
  second.denyWith = &es;
  start({{&first, {ES_EVENT_TYPE_AUTH_EXEC, ES_EVENT_TYPE_NOTIFY_EXEC}},
         {&second, {ES_EVENT_TYPE_AUTH_OPEN}}});
  constexpr int kPerThread = 400;
  constexpr uint64_t kMinute = 60'000'000'000;
  Messages messages[2];
  std::thread deliverers[2];
  for (int t = 0; t < 2; ++t) {
    for (int i = 0; i < kPerThread; ++i) {
      messages[t].push_back(i % 3 == 0 ? auth(ES_EVENT_TYPE_AUTH_EXEC, kMinute)
                            : i % 3 == 1
                                ? auth(ES_EVENT_TYPE_AUTH_OPEN, kMinute)
                                : MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC).build());
    }
    deliverers[t] = std::thread([&, t] {
      for (auto& m : messages[t]) es.deliver(m->get());
    });
  }
  for (auto& d : deliverers) d.join();

  ASSERT_TRUE(es.waitForReleased());
  for (auto& batch : messages) {
    for (auto& m : batch) {
      const bool isAuth = m->get()->action_type == ES_ACTION_TYPE_AUTH;
      EXPECT_EQ(es.answers(m->get()).size(), isAuth ? 1u : 0u);
    }
  }
  EXPECT_EQ(first.notified, 2 * (kPerThread / 3));
  client.stop();
}

}  // namespace
