// The Endpoint Security client over the fake facility: its life, AUTH
// answers and the deadline watchdog, notifications, muting; then on real
// queues and the real clock. Which types a feature switch subscribes is the
// client proxy's test, over the product's own observers.
#include <gtest/gtest.h>

#include <thread>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "support/client_fixture.h"

namespace {

using endpointsecurity::TagProcObserver;
using lumo::testing::kAuthQueue;
using lumo::testing::kDeadlineQueue;
using lumo::testing::kNotifyQueue;
using lumo::testing::MessageBuilder;
using lumo::testing::ProcessSpec;
using lumo::testing::RecordingObserver;
using lumo::testing::TestMessage;
using Call = lumo::testing::FakeEndpointSecurity::Call;
using Messages = std::vector<std::unique_ptr<TestMessage>>;

using ClientLifecycle = lumo::testing::ClientFixture;

TEST_F(ClientLifecycle, InitNeedsAFacilityClientFailuresAreReportedAndStopDeletesItOnce) {
  es.setNewClientResult(ES_NEW_CLIENT_RESULT_ERR_NOT_PRIVILEGED);
  EXPECT_FALSE(client->init());
  EXPECT_TRUE(sink.contains("] Error: es_new_client failed. The caller is not running as root."));
  observe("Proc", {ES_EVENT_TYPE_NOTIFY_EXEC}, false);
  EXPECT_FALSE(client->switchMode(TagProcObserver, true));
  es.setNewClientResult(ES_NEW_CLIENT_RESULT_SUCCESS);
  es.failCall(Call::ClearCache);  // logged and ignored
  ASSERT_TRUE(client->init());
  es.failCall(Call::Subscribe);
  EXPECT_FALSE(client->switchMode(TagProcObserver, true));
  EXPECT_TRUE(client->stop());
  EXPECT_TRUE(client->stop());
  EXPECT_EQ(es.record().calls[Call::DeleteClient], 1u);
  EXPECT_TRUE(es.record().clients[0].deleted);
  // A stopped client changes nothing.
  es.failCall(Call::Subscribe, false);
  EXPECT_TRUE(client->switchMode(TagProcObserver, true));
  EXPECT_EQ(es.record().calls[Call::Subscribe], 1u);
}

using ClientDispatch = lumo::testing::ClientFixture;

TEST_F(ClientDispatch, ActiveObserversRunInOrderAndUnansweredAuthGetsTheDefaultOnce) {
  auto& denier = observe("Denier", {ES_EVENT_TYPE_AUTH_EXEC});
  denier.denyWith = &es;
  auto& off = observe("Off", {ES_EVENT_TYPE_AUTH_EXEC, ES_EVENT_TYPE_AUTH_OPEN}, false);
  auto& second = observe("Second", {ES_EVENT_TYPE_AUTH_EXEC, ES_EVENT_TYPE_AUTH_OPEN});
  ASSERT_TRUE(client->init());
  auto exec = authMessage(ES_EVENT_TYPE_AUTH_EXEC);
  auto open = authMessage(ES_EVENT_TYPE_AUTH_OPEN);
  auto unwatched = authMessage(ES_EVENT_TYPE_AUTH_UNLINK);
  for (const auto* m : {exec.get(), open.get(), unwatched.get()}) es.deliver(m->get());
  EXPECT_EQ(es.retainCount(exec->get()), 1);  // held for the auth queue
  dispatch.runQueued(kAuthQueue);

  // Every active observer runs, also after one answered.
  EXPECT_EQ((std::vector<int>{denier.authed, second.authed, off.authed}),
            (std::vector<int>{1, 2, 0}));
  // One answer each, never cached: the denial, else allow (all flags for an open).
  const auto answerTo = [&](const std::unique_ptr<TestMessage>& m) {
    const auto answers = es.answers(m->get());
    EXPECT_EQ(answers.size(), 1u);
    EXPECT_FALSE(answers.at(0).cache);
    EXPECT_EQ(es.retainCount(m->get()), 0);
    return answers.at(0);
  };
  EXPECT_EQ(answerTo(exec).result, ES_AUTH_RESULT_DENY);
  EXPECT_EQ(answerTo(open).type, ES_RESULT_TYPE_FLAGS);
  EXPECT_EQ(answerTo(open).flags, 0xFFFFFFFFu);
  EXPECT_EQ(answerTo(unwatched).type, ES_RESULT_TYPE_AUTH);
  EXPECT_EQ(answerTo(unwatched).result, ES_AUTH_RESULT_ALLOW);
}

TEST_F(ClientDispatch, WatchdogAnswersAtEightyPercentOfTheTimeLeftUnlessAnswered) {
  auto& slow = observe("Slow", {ES_EVENT_TYPE_AUTH_EXEC});
  ASSERT_TRUE(client->init());
  const uint64_t start = clock.now();
  auto exec = MessageBuilder::auth(ES_EVENT_TYPE_AUTH_EXEC)
                  .process({.pid = 77, .path = std::string("/usr/bin/lp")})
                  .deadline(start + 0x1'0000'1000)
                  .build();
  es.deliver(exec->get());
  const auto timers = dispatch.pendingTimers();
  ASSERT_EQ(timers, std::vector<uint64_t>{start + static_cast<uint64_t>(0x1'0000'1000 * 0.8)});
  // The observer has not run when the watchdog fires; when it does run, it
  // sees the answer and leaves the observers alone.
  clock.advance(timers[0] - start);
  ASSERT_EQ(dispatch.fireDueTimers(), 1u);
  dispatch.runQueued(kDeadlineQueue);
  dispatch.runQueued(kAuthQueue);
  EXPECT_EQ(slow.authed, 0);
  auto answers = es.answers(exec->get());
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].result, ES_AUTH_RESULT_ALLOW);
  EXPECT_FALSE(answers[0].cache);
  EXPECT_TRUE(sink.contains(
      "] Assert:  Assertion failed: [ 0]ATTENTION ! Auth deadline is reached for pid: "
      "/usr/bin/lp (77). Deadline:" +
      std::to_string(static_cast<int>(static_cast<uint32_t>(start + 0x1'0000'1000))) +
      " Proc:/usr/bin/lp"));

  // Answered in time: the watchdog stays quiet.
  auto quick = authMessage(ES_EVENT_TYPE_AUTH_EXEC, 1000);
  es.deliver(quick->get());
  dispatch.runQueued(kAuthQueue);
  clock.advance(1000);
  dispatch.fireDueTimers();
  dispatch.runQueued(kDeadlineQueue);
  EXPECT_EQ(es.answers(quick->get()).size(), 1u);
  EXPECT_EQ(sink.count("ATTENTION"), 1u);
}

TEST_F(ClientDispatch, NotificationsReachObserversOnlyWhileTheDaemonListensAndTheClientRuns) {
  auto& watcher = observe("Watcher", {ES_EVENT_TYPE_NOTIFY_EXEC, ES_EVENT_TYPE_AUTH_EXEC});
  ASSERT_TRUE(client->init());
  auto exec = MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC).build();
  link.setListening(false);
  es.deliver(exec->get());
  EXPECT_EQ(dispatch.pendingTasks(), 0u);
  link.setListening(true);
  es.deliver(exec->get());
  EXPECT_EQ(dispatch.pendingTasks(kNotifyQueue), 1u);
  EXPECT_EQ(es.retainCount(exec->get()), 1);
  dispatch.runQueued();
  EXPECT_EQ(watcher.notified, 1);
  EXPECT_EQ(es.retainCount(exec->get()), 0);

  // After stop, queued messages reach no observer and are released.
  auto auth = authMessage(ES_EVENT_TYPE_AUTH_EXEC);
  es.deliver(auth->get());
  es.deliver(exec->get());
  client->stop();
  clock.advance(1'000'000);
  dispatch.fireDueTimers();
  dispatch.runQueued();
  EXPECT_EQ(watcher.authed + watcher.notified, 1);
  EXPECT_TRUE(es.answers(auth->get()).empty());
}

class ClientMuting : public lumo::testing::ClientFixture {
 protected:
  void SetUp() override { ASSERT_TRUE(client->init()); }
  static ProcessSpec signedBy(const std::string& id, pid_t pid = 900) {
    return {.pid = pid, .signingId = id};
  }
  std::unique_ptr<TestMessage> openBy(const std::string& id, pid_t pid = 900) {
    return MessageBuilder::auth(ES_EVENT_TYPE_AUTH_OPEN)
        .process(signedBy(id, pid))
        .deadline(clock.now() + 1000)
        .build();
  }

  RecordingObserver& watcher =
      observe("Watcher", {ES_EVENT_TYPE_AUTH_OPEN, ES_EVENT_TYPE_NOTIFY_EXEC});
};

TEST_F(ClientMuting, ExclusionsReplaceEveryKindOfMuteAndFailuresNeverFailTheUpdate) {
  es.addMutedProcess(lumo::testing::makeToken(signedBy("old", 5)));
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(client->applyExclusions({"/opt/a/bin/tool"}, {"/opt/b/"}, {"com.vendor.agent"}));
    const auto muted = es.record().clients[0];
    EXPECT_TRUE(muted.mutedProcesses.empty());  // the old process mute is gone
    // The daemon's first, then the product's own directories, then a fixed table.
    ASSERT_EQ(muted.mutedLiterals.size(), 9u);
    EXPECT_EQ(muted.mutedLiterals.front(), "/opt/a/bin/tool");
    ASSERT_EQ(muted.mutedPrefixes.size(), 1u + 2u + 9u);
    EXPECT_EQ(muted.mutedPrefixes[0], "/opt/b/");
    EXPECT_EQ(muted.mutedPrefixes[1], "/opt/tarvex/lumo/EP/");
  }
  // Failures are logged and fail nothing: everything is still tried.
  for (Call call : {Call::MutePathLiteral, Call::MutePathPrefix, Call::MutedProcesses}) {
    es.failCall(call);
  }
  EXPECT_TRUE(client->applyExclusions({"/x/tool"}, {"/y/"}, {}));
  EXPECT_EQ(es.record().calls[Call::MutePathLiteral], 3u * 9u);
  es.failCall(Call::MutedProcesses, false);
  es.failCall(Call::UnmuteProcess);
  es.addMutedProcess(lumo::testing::makeToken(signedBy("x")));
  EXPECT_FALSE(client->unMuteAllExclusions());
  client->stop();
  EXPECT_TRUE(client->applyExclusions({"/x"}, {"/y/"}, {"z"}));  // ignored once stopped
  EXPECT_EQ(es.record().calls[Call::UnmuteAllPaths], 4u);
}

TEST_F(ClientMuting, ListedProcessesAreMutedOnTheFlyAndNeverReachObservers) {
  client->applyExclusions({}, {}, {"com.vendor.agent"});
  auto open = openBy("com.vendor.agent", 31);
  auto own = MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC)
                 .process(signedBy("com.tarvex.lumo.es", 32))
                 .build();
  es.deliver(open->get());
  es.deliver(own->get());
  EXPECT_EQ(dispatch.pendingTasks(), 0u);
  // The AUTH message was answered with the default answer before the mute.
  auto answers = es.answers(open->get());
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].flags, 0xFFFFFFFFu);
  auto muted = es.record().clients[0].mutedProcesses;
  ASSERT_EQ(muted.size(), 2u);
  EXPECT_EQ(audit_token_to_pid(muted[0]), 31);
  EXPECT_EQ(audit_token_to_pid(muted[1]), 32);

  // Unsigned processes and identifiers not on the list pass.
  auto unsignedExec = MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC).build();
  auto otherExec =
      MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC).process(signedBy("com.vendor")).build();
  es.deliver(unsignedExec->get());
  es.deliver(otherExec->get());
  dispatch.runQueued();
  EXPECT_EQ(watcher.authed, 0);
  EXPECT_EQ(watcher.notified, 2);

  // A failed mute hands the message on: answered again after the observers.
  es.failCall(Call::MuteProcess);
  auto ownOpen = openBy("com.tarvex.lumo.ne");
  es.deliver(ownOpen->get());
  dispatch.runQueued();
  EXPECT_TRUE(sink.contains("] Error: es_mute_process failed. Err:1"));
  EXPECT_EQ(watcher.authed, 1);
  EXPECT_EQ(es.answers(ownOpen->get()).size(), 2u);
}

// The client on real queues and the real clock: what must hold whatever the
// threads do.
class ClientOnThreads : public ::testing::Test {
 protected:
  // A client over active observers of the given types.
  void start(std::vector<std::pair<RecordingObserver*, std::vector<es_event_type_t>>> observers) {
    for (auto& [o, types] : observers) {
      o->events = types;
      o->activate();
      client.registerObserver(o);
    }
    ASSERT_TRUE(client.init());
  }
  std::unique_ptr<TestMessage> auth(es_event_type_t type, uint64_t nanosLeft) {
    return MessageBuilder::auth(type).deadline(clock.now() + clock.nanosToTicks(nanosLeft)).build();
  }

  // Declared first so that it outlives every thread that may touch it.
  lumo::testing::FakeEndpointSecurity es;
  lumo::testing::CaptureSink sink{/*debug=*/false};
  lumo::testing::FakeDaemonLink link;
  tarvex::itx::rtn::linux_platform::MonotonicClock clock;
  tarvex::itx::rtn::linux_platform::LinuxDispatch dispatch{clock};
  RecordingObserver first{"First", {}, TagProcObserver};
  RecordingObserver second{"Second", {}, TagProcObserver};
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
