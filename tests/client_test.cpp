#include <gtest/gtest.h>

#include <thread>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "support/client_fixture.h"

namespace {

using endpointsecurity::TagAllObservers;
using endpointsecurity::TagFileObserver;
using endpointsecurity::TagPrinterObserver;
using endpointsecurity::TagProcObserver;
using lumo::testing::kAuthQueue;
using lumo::testing::kDeadlineQueue;
using lumo::testing::kNotifyQueue;
using lumo::testing::MessageBuilder;
using lumo::testing::ProcessSpec;
using lumo::testing::RecordingObserver;
using Call = lumo::testing::FakeEndpointSecurity::Call;
using Events = std::vector<es_event_type_t>;
using Messages = std::vector<std::unique_ptr<lumo::testing::TestMessage>>;

using ClientLifecycle = lumo::testing::ClientFixture;

TEST_F(ClientLifecycle, StartSubscribesTheUnionOnceAndStopDeletesTheClientOnce) {
  // Without a client from the facility there is nothing to start.
  for (auto result : {ES_NEW_CLIENT_RESULT_ERR_NOT_PRIVILEGED, ES_NEW_CLIENT_RESULT_SUCCESS}) {
    es.setNewClientResult(result, /*returnHandle=*/false);
    EXPECT_FALSE(client->init());
  }
  EXPECT_TRUE(sink.contains("] Error: es_new_client failed. The caller is not running as root."));
  EXPECT_FALSE(client->start());
  es.setNewClientResult(ES_NEW_CLIENT_RESULT_SUCCESS);
  es.failCall(Call::ClearCache);  // logged and ignored
  ASSERT_TRUE(client->init());
  EXPECT_FALSE(client->start());  // no observers
  observe("A", {ES_EVENT_TYPE_NOTIFY_CLOSE, ES_EVENT_TYPE_NOTIFY_OPEN});
  observe("B", {ES_EVENT_TYPE_NOTIFY_CLOSE, ES_EVENT_TYPE_AUTH_EXEC});
  EXPECT_FALSE(client->registerObserver(nullptr));
  EXPECT_TRUE(es.record().clients.at(0).calls.empty());
  ASSERT_TRUE(client->start());
  ASSERT_EQ(es.record().clients[0].calls.size(), 1u);
  EXPECT_EQ(
      es.record().clients[0].calls[0].events,
      (Events{ES_EVENT_TYPE_AUTH_EXEC, ES_EVENT_TYPE_NOTIFY_OPEN, ES_EVENT_TYPE_NOTIFY_CLOSE}));
  es.failCall(Call::Subscribe);
  EXPECT_FALSE(client->start());
  EXPECT_TRUE(client->stop());
  EXPECT_TRUE(client->stop());
  EXPECT_EQ(es.record().calls[Call::DeleteClient], 1u);
  EXPECT_TRUE(es.record().clients[0].deleted);
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
  const auto answerTo = [&](const std::unique_ptr<lumo::testing::TestMessage>& m) {
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
  auto timers = dispatch.pendingTimers();
  ASSERT_EQ(timers.size(), 1u);
  EXPECT_EQ(timers[0].when, start + static_cast<uint64_t>(0x1'0000'1000 * 0.8));
  EXPECT_EQ(timers[0].queue, kDeadlineQueue);
  // The observer has not run when the watchdog fires; when it does run, it
  // sees the answer and leaves the observers alone.
  clock.advance(timers[0].when - start);
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

class ClientSwitchMode : public lumo::testing::ClientFixture {
 protected:
  // Observers shaped like the product's: process, file and printer.
  void SetUp() override {
    observe("Proc", {ES_EVENT_TYPE_NOTIFY_EXEC, ES_EVENT_TYPE_NOTIFY_EXIT}, false,
            TagAllObservers | TagProcObserver);
    observe("File", {ES_EVENT_TYPE_NOTIFY_OPEN, ES_EVENT_TYPE_NOTIFY_RENAME}, false,
            TagAllObservers | TagFileObserver);
    observe("Printer", {ES_EVENT_TYPE_NOTIFY_RENAME, ES_EVENT_TYPE_AUTH_EXEC}, false,
            TagAllObservers | TagPrinterObserver);
    ASSERT_TRUE(client->init());
  }
  // What the director does: switch the client, then flip the observers.
  bool switchGroup(endpointsecurity::ObserverTags tags, bool on) {
    bool ok = client->switchMode(tags, on);
    for (auto& o : observers) {
      if (o.tags().intersects(tags)) on ? o.activate() : o.deactivate();
    }
    return ok;
  }
  Events lastCall(bool subscribe) {
    auto calls = es.record().clients[0].calls;
    if (calls.empty() || calls.back().subscribe != subscribe) return {};
    return calls.back().events;
  }
};

TEST_F(ClientSwitchMode, ChangesOnlyTypesNoOtherActiveObserverNeeds) {
  ASSERT_TRUE(switchGroup(TagFileObserver, true));
  EXPECT_EQ(lastCall(true), (Events{ES_EVENT_TYPE_NOTIFY_OPEN, ES_EVENT_TYPE_NOTIFY_RENAME}));
  // RENAME is already needed by the active file observer.
  ASSERT_TRUE(switchGroup(TagPrinterObserver, true));
  EXPECT_EQ(lastCall(true), Events{ES_EVENT_TYPE_AUTH_EXEC});
  // The printer observer still needs RENAME, so it stays.
  ASSERT_TRUE(switchGroup(TagFileObserver, false));
  EXPECT_EQ(lastCall(false), Events{ES_EVENT_TYPE_NOTIFY_OPEN});
  // Now the file observer is off and is not counted.
  ASSERT_TRUE(switchGroup(TagPrinterObserver, false));
  EXPECT_EQ(lastCall(false), (Events{ES_EVENT_TYPE_AUTH_EXEC, ES_EVENT_TYPE_NOTIFY_RENAME}));
  EXPECT_TRUE(es.record().clients[0].subscribed.empty());

  // Observers already in the requested state are skipped.
  const size_t before = es.record().clients[0].calls.size();
  ASSERT_TRUE(switchGroup(TagProcObserver, false));
  EXPECT_EQ(es.record().clients[0].calls.size(), before);
  ASSERT_TRUE(switchGroup(TagAllObservers, true));
  EXPECT_EQ(es.record().clients[0].subscribed.size(), 5u);
  // Every entry of the whole group counts, repeats included (RENAME twice).
  EXPECT_EQ(lastCall(true).size(), 6u);

  // Failures are reported; a stopped client changes nothing.
  es.failCall(Call::Unsubscribe);
  EXPECT_FALSE(client->switchMode(TagProcObserver, false));
  EXPECT_FALSE(endpointsecurity::Client().switchMode(TagProcObserver, true));  // not initialised
  client->stop();
  EXPECT_TRUE(client->switchMode(TagFileObserver, false));
  EXPECT_EQ(es.record().calls[Call::Unsubscribe], 3u);
}

class ClientMuting : public lumo::testing::ClientFixture {
 protected:
  void SetUp() override { ASSERT_TRUE(client->init()); }
  static ProcessSpec signedBy(const std::string& id, pid_t pid = 900) {
    return {.pid = pid, .signingId = id};
  }

  RecordingObserver& watcher =
      observe("Watcher", {ES_EVENT_TYPE_AUTH_OPEN, ES_EVENT_TYPE_NOTIFY_EXEC});
};

TEST_F(ClientMuting, ExclusionsReplaceEveryKindOfMuteAndFailuresNeverFailTheUpdate) {
  es.addMutedProcess(lumo::testing::makeToken(signedBy("old", 5)));
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(client->applyExclusions({"/opt/a/bin/tool"}, {"/opt/b/"}, {"com.vendor.agent"}));
    EXPECT_TRUE(es.record().clients[0].mutedProcesses.empty());  // the old process mute is gone
    // The daemon's first, then the product's own directories, then a fixed table.
    const auto literals = es.record().clients[0].mutedLiterals;
    ASSERT_EQ(literals.size(), 9u);
    EXPECT_EQ(literals.front(), "/opt/a/bin/tool");
    const auto prefixes = es.record().clients[0].mutedPrefixes;
    ASSERT_EQ(prefixes.size(), 1u + 2u + 9u);
    EXPECT_EQ(prefixes[0], "/opt/b/");
    EXPECT_EQ(prefixes[1], "/opt/tarvex/lumo/EP/");
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
  auto open = MessageBuilder::auth(ES_EVENT_TYPE_AUTH_OPEN)
                  .process(signedBy("com.vendor.agent", 31))
                  .deadline(clock.now() + 1000)
                  .build();
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
  auto ownOpen = MessageBuilder::auth(ES_EVENT_TYPE_AUTH_OPEN)
                     .process(signedBy("com.tarvex.lumo.ne"))
                     .deadline(clock.now() + 1000)
                     .build();
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
