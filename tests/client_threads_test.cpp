// The client on real queues and the real clock: what must hold whatever the
// threads do.
#include <gtest/gtest.h>

#include <thread>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "esclient/client.h"
#include "rtn/platform.h"
#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "support/fake_es.h"
#include "support/message_builder.h"
#include "support/recording_observer.h"

namespace {

using endpointsecurity::TagProcObserver;
using lumo::testing::MessageBuilder;
using lumo::testing::RecordingObserver;
using lumo::testing::TestMessage;
using Messages = std::vector<std::unique_ptr<TestMessage>>;

class ClientOnThreads : public ::testing::Test {
 protected:
  ClientOnThreads() : dispatch(clock) {
    tarvex::itx::rtn::setPlatform({&es, &dispatch, &clock, nullptr});
  }
  ~ClientOnThreads() override { tarvex::itx::rtn::setPlatform({}); }

  std::unique_ptr<TestMessage> auth(es_event_type_t type, uint64_t nanosLeft) {
    return MessageBuilder::auth(type).deadline(clock.now() + clock.nanosToTicks(nanosLeft)).build();
  }

  // Declared first so that it outlives every thread that may touch it.
  lumo::testing::FakeEndpointSecurity es;
  lumo::testing::CaptureSink sink{/*debug=*/false};
  lumo::testing::FakeDaemonLink link;
  tarvex::itx::rtn::linux_platform::MonotonicClock clock;
  tarvex::itx::rtn::linux_platform::LinuxDispatch dispatch;
};

TEST_F(ClientOnThreads, ObserverThatNeverReturnsDoesNotStopTheWatchdog) {
  RecordingObserver stuck("Stuck", {ES_EVENT_TYPE_AUTH_EXEC}, TagProcObserver);
  stuck.activate();
  stuck.block();
  endpointsecurity::Client client;
  client.registerObserver(&stuck);
  ASSERT_TRUE(client.init());
  // More stuck messages than a machine has cores, so every auth worker that
  // exists is blocked.
  Messages messages;
  for (int i = 0; i < 12; ++i) messages.push_back(auth(ES_EVENT_TYPE_AUTH_EXEC, 1'500'000'000));
  for (auto& m : messages) es.deliver(m->get());
  ASSERT_TRUE(stuck.waitBlocked(1));
  for (auto& m : messages) {
    ASSERT_TRUE(es.waitForAnswers(m->get(), 1));
    // Answered by the watchdog, before the facility's deadline.
    EXPECT_LT(clock.now(), m->get()->deadline);
    EXPECT_EQ(es.answers(m->get())[0].result, ES_AUTH_RESULT_ALLOW);
  }
  stuck.release();
  ASSERT_TRUE(es.waitForReleased());
  // Each watchdog logs after answering, before it lets go of its message.
  EXPECT_EQ(sink.count("ATTENTION ! Auth deadline is reached"), messages.size());
  client.stop();
}

TEST_F(ClientOnThreads, EveryAuthIsAnsweredAndNoMessageLeaksUnderLoad) {
  RecordingObserver procs("Procs", {ES_EVENT_TYPE_AUTH_EXEC, ES_EVENT_TYPE_NOTIFY_EXEC},
                          TagProcObserver);
  RecordingObserver denier("Denier", {ES_EVENT_TYPE_AUTH_OPEN}, TagProcObserver);
  denier.denyWith = &es;
  procs.activate();
  denier.activate();
  endpointsecurity::Client client;
  client.registerObserver(&procs);
  client.registerObserver(&denier);
  ASSERT_TRUE(client.init());

  constexpr int kPerThread = 400;
  constexpr uint64_t kMinute = 60'000'000'000;
  Messages messages[2];
  for (auto& batch : messages) {
    for (int i = 0; i < kPerThread; ++i) {
      batch.push_back(i % 3 == 0   ? auth(ES_EVENT_TYPE_AUTH_EXEC, kMinute)
                      : i % 3 == 1 ? auth(ES_EVENT_TYPE_AUTH_OPEN, kMinute)
                                   : MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC).build());
    }
  }
  std::thread deliverers[2];
  for (int t = 0; t < 2; ++t) {
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
  EXPECT_EQ(procs.notified, 2 * (kPerThread / 3));
  client.stop();
}

}  // namespace
