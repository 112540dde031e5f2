#include <gtest/gtest.h>

#include "support/client_fixture.h"

namespace {

using endpointsecurity::TagAllObservers;
using endpointsecurity::TagFileObserver;
using endpointsecurity::TagPrinterObserver;
using endpointsecurity::TagProcObserver;
using lumo::testing::ClientFixture;
using lumo::testing::FakeEndpointSecurity;
using lumo::testing::kAuthQueue;
using lumo::testing::kDeadlineQueue;
using lumo::testing::kNotifyQueue;
using lumo::testing::MessageBuilder;
using lumo::testing::RecordingObserver;
using tarvex::itx::rtn::QosClass;
using Call = FakeEndpointSecurity::Call;

using ClientLifecycle = ClientFixture;

TEST_F(ClientLifecycle, InitCreatesThreeQueuesAndTheClient) {
  ASSERT_TRUE(client->init());
  EXPECT_EQ(dispatch.createdQueues(),
            (std::vector<std::string>{kAuthQueue, kDeadlineQueue, kNotifyQueue}));
  EXPECT_EQ(dispatch.targetOf(kAuthQueue), QosClass::UserInteractive);
  EXPECT_EQ(dispatch.targetOf(kDeadlineQueue), QosClass::UserInteractive);
  EXPECT_EQ(dispatch.targetOf(kNotifyQueue), QosClass::Default);
  EXPECT_EQ(es.clientCount(), 1u);
  EXPECT_EQ(es.callCount(Call::ClearCache), 1u);
  EXPECT_TRUE(sink.contains("] Info:  SysExt started, pid: " + std::to_string(getpid()) +
                            ", build date: "));
  // init never subscribes.
  EXPECT_TRUE(es.subscriptionCalls().empty());
}

TEST_F(ClientLifecycle, FailedCacheClearIsLoggedAndIgnored) {
  es.failCall(Call::ClearCache);
  EXPECT_TRUE(client->init());
  EXPECT_TRUE(sink.contains("] Error: es_clear_cache failed. Continues to es_subscribe anyway. Err:2"));
}

TEST_F(ClientLifecycle, EachNewClientFailureHasItsOwnLine) {
  const std::vector<std::pair<es_new_client_result_t, std::string>> cases = {
      {ES_NEW_CLIENT_RESULT_ERR_INVALID_ARGUMENT,
       "es_new_client failed. One or more invalid arguments were provided. Error: 1"},
      {ES_NEW_CLIENT_RESULT_ERR_INTERNAL,
       "es_new_client failed. Communication with the ES subsystem failed. Error: 2"},
      {ES_NEW_CLIENT_RESULT_ERR_NOT_ENTITLED,
       "es_new_client failed. The caller is not properly entitled to connect. Error: 3"},
      {ES_NEW_CLIENT_RESULT_ERR_NOT_PERMITTED,
       "They lack Transparency, Consent, and Control (TCC) approval form the user. Full Disk "
       "Access granted ? Error: 4"},
      {ES_NEW_CLIENT_RESULT_ERR_NOT_PRIVILEGED,
       "es_new_client failed. The caller is not running as root. Error: 5"},
      {ES_NEW_CLIENT_RESULT_ERR_TOO_MANY_CLIENTS,
       "maximum number of allowed simultaneously connected clients. Error: 6"},
      {static_cast<es_new_client_result_t>(42), "es_new_client failed with error: 42"},
  };
  for (const auto& [result, line] : cases) {
    es.setNewClientResult(result);
    endpointsecurity::Client failing;
    EXPECT_FALSE(failing.init()) << line;
    EXPECT_TRUE(sink.contains(line)) << line;
  }
  es.setNewClientResult(ES_NEW_CLIENT_RESULT_SUCCESS, /*returnHandle=*/false);
  endpointsecurity::Client noHandle;
  EXPECT_FALSE(noHandle.init());
  EXPECT_TRUE(sink.contains("] Error: es_new_client failed with error: 0"));
  EXPECT_FALSE(noHandle.start());
  EXPECT_TRUE(sink.contains("] Error: client was not inited properly"));
}

TEST_F(ClientLifecycle, StartSubscribesTheUnionOfObserverTypesOnce) {
  ASSERT_TRUE(client->init());
  EXPECT_FALSE(client->start());
  EXPECT_TRUE(sink.contains("] Error: no any observers were registered for notifications"));
  EXPECT_TRUE(es.subscriptionCalls().empty());

  RecordingObserver a("A", {ES_EVENT_TYPE_NOTIFY_CLOSE, ES_EVENT_TYPE_NOTIFY_OPEN}, TagFileObserver);
  RecordingObserver b("B", {ES_EVENT_TYPE_NOTIFY_CLOSE, ES_EVENT_TYPE_AUTH_EXEC}, TagProcObserver);
  EXPECT_FALSE(client->registerObserver(nullptr));
  ASSERT_TRUE(client->registerObserver(&a));
  ASSERT_TRUE(client->registerObserver(&b));
  EXPECT_TRUE(sink.contains("] Trace:  Adding event 12 of observer A to client ClientDUP"));

  ASSERT_TRUE(client->start());
  auto calls = es.subscriptionCalls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_TRUE(calls[0].subscribe);
  EXPECT_EQ(calls[0].events, (std::vector<es_event_type_t>{ES_EVENT_TYPE_AUTH_EXEC,
                                                            ES_EVENT_TYPE_NOTIFY_OPEN,
                                                            ES_EVENT_TYPE_NOTIFY_CLOSE}));
  EXPECT_TRUE(sink.contains("] Info:  es_subscribe succedded (3 events)"));

  es.failCall(Call::Subscribe);
  EXPECT_FALSE(client->start());
  EXPECT_TRUE(sink.contains("] Error: es_subscribe failed"));
}

TEST_F(ClientLifecycle, StopDeletesTheClientOnceAndReportsFailure) {
  ASSERT_TRUE(client->init());
  EXPECT_TRUE(client->stop());
  EXPECT_TRUE(es.clientDeleted());
  EXPECT_TRUE(sink.contains("] Info:  Success deleting ES Client."));
  EXPECT_TRUE(client->stop());  // nothing left to delete
  EXPECT_EQ(es.callCount(Call::DeleteClient), 1u);

  es.failCall(Call::DeleteClient);
  endpointsecurity::Client other;
  ASSERT_TRUE(other.init());
  other.stop();
  EXPECT_TRUE(sink.contains("] Error: Error deleting ES Client."));
}

using ClientDispatch = ClientFixture;

TEST_F(ClientDispatch, UnansweredAuthGetsTheDefaultAnswerOnceAndIsReleased) {
  RecordingObserver silent("Silent", {ES_EVENT_TYPE_AUTH_OPEN}, TagProcObserver);
  RecordingObserver inactive("Inactive", {ES_EVENT_TYPE_AUTH_EXEC}, TagProcObserver);
  silent.activate();
  client->registerObserver(&silent);
  client->registerObserver(&inactive);
  ASSERT_TRUE(client->init());

  auto open = authMessage(ES_EVENT_TYPE_AUTH_OPEN);
  auto exec = authMessage(ES_EVENT_TYPE_AUTH_EXEC);
  auto unwatched = authMessage(ES_EVENT_TYPE_AUTH_UNLINK);
  es.deliver(open->get());
  es.deliver(exec->get());
  es.deliver(unwatched->get());
  EXPECT_EQ(es.retainCount(open->get()), 1);  // held for the auth queue
  dispatch.runQueued(kAuthQueue);

  auto openAnswers = es.answers(open->get());
  ASSERT_EQ(openAnswers.size(), 1u);
  EXPECT_EQ(openAnswers[0].type, ES_RESULT_TYPE_FLAGS);
  EXPECT_EQ(openAnswers[0].flags, 0xFFFFFFFFu);
  EXPECT_FALSE(openAnswers[0].cache);
  for (const auto* msg : {exec->get(), unwatched->get()}) {
    auto answers = es.answers(msg);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].type, ES_RESULT_TYPE_AUTH);
    EXPECT_EQ(answers[0].result, ES_AUTH_RESULT_ALLOW);
    EXPECT_FALSE(answers[0].cache);
  }
  EXPECT_EQ(silent.authed, 1);
  EXPECT_EQ(inactive.authed, 0);
  for (const auto* msg : {open->get(), exec->get(), unwatched->get()}) {
    EXPECT_EQ(es.retainCount(msg), 0);
  }
}

TEST_F(ClientDispatch, EveryActiveObserverRunsInOrderEvenAfterOneAnswered) {
  RecordingObserver::CallLog log;
  RecordingObserver denier("Denier", {ES_EVENT_TYPE_AUTH_EXEC}, TagPrinterObserver, &log);
  RecordingObserver second("Second", {ES_EVENT_TYPE_AUTH_EXEC}, TagProcObserver, &log);
  RecordingObserver off("Off", {ES_EVENT_TYPE_AUTH_EXEC}, TagFileObserver, &log);
  denier.denyWith = &es;
  denier.activate();
  second.activate();
  for (auto* o : {&denier, &off, &second}) client->registerObserver(o);
  ASSERT_TRUE(client->init());

  auto exec = authMessage(ES_EVENT_TYPE_AUTH_EXEC);
  es.deliver(exec->get());
  dispatch.runQueued();
  EXPECT_EQ(log.snapshot(), (std::vector<std::string>{"Denier.auth", "Second.auth"}));
  auto answers = es.answers(exec->get());
  ASSERT_EQ(answers.size(), 1u);  // no default answer after an observer answered
  EXPECT_EQ(answers[0].result, ES_AUTH_RESULT_DENY);
}

TEST_F(ClientDispatch, WatchdogAnswersAtEightyPercentOfTheTimeLeft) {
  RecordingObserver slow("Slow", {ES_EVENT_TYPE_AUTH_EXEC}, TagProcObserver);
  slow.activate();
  client->registerObserver(&slow);
  ASSERT_TRUE(client->init());

  const uint64_t start = clock.now();
  auto exec = lumo::testing::MessageBuilder::auth(ES_EVENT_TYPE_AUTH_EXEC)
                  .process({.pid = 77, .path = std::string("/usr/bin/lp")})
                  .deadline(start + 0x1'0000'1000)
                  .build();
  es.deliver(exec->get());
  auto timers = dispatch.pendingTimers();
  ASSERT_EQ(timers.size(), 1u);
  EXPECT_EQ(timers[0].when, start + static_cast<uint64_t>(0x1'0000'1000 * 0.8));
  EXPECT_EQ(timers[0].queue, kDeadlineQueue);

  // The observer has not run when the watchdog fires.
  clock.advance(timers[0].when - start);
  ASSERT_EQ(dispatch.fireDueTimers(), 1u);
  dispatch.runQueued(kDeadlineQueue);
  auto answers = es.answers(exec->get());
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].result, ES_AUTH_RESULT_ALLOW);
  EXPECT_FALSE(answers[0].cache);
  const uint32_t deadline32 = static_cast<uint32_t>(start + 0x1'0000'1000);
  EXPECT_TRUE(sink.contains(
      "] Assert:  Assertion failed: [ 0]ATTENTION ! Auth deadline is reached for pid: "
      "/usr/bin/lp (77). Deadline:" +
      std::to_string(static_cast<int>(deadline32)) + " Proc:/usr/bin/lp"));

  // The late auth block sees the answer and leaves the observers alone.
  dispatch.runQueued(kAuthQueue);
  EXPECT_EQ(slow.authed, 0);
  EXPECT_EQ(es.answers(exec->get()).size(), 1u);
  EXPECT_EQ(es.retainCount(exec->get()), 0);
}

TEST_F(ClientDispatch, WatchdogStaysQuietOnceTheObserversAnswered) {
  ASSERT_TRUE(client->init());
  auto exec = authMessage(ES_EVENT_TYPE_AUTH_EXEC, 1000);
  es.deliver(exec->get());
  dispatch.runQueued(kAuthQueue);
  EXPECT_EQ(es.retainCount(exec->get()), 0);  // released before the deadline
  clock.advance(1000);
  dispatch.fireDueTimers();
  dispatch.runQueued();
  EXPECT_EQ(es.answers(exec->get()).size(), 1u);
  EXPECT_FALSE(sink.contains("ATTENTION"));
}

TEST_F(ClientDispatch, DeadlineAtNowLogsTheAssertionAndFiresAtOnce) {
  ASSERT_TRUE(client->init());
  auto exec = authMessage(ES_EVENT_TYPE_AUTH_EXEC, 0);
  es.deliver(exec->get());
  EXPECT_TRUE(sink.contains("] Assert:  Assertion failed: [ deadline_delta_tics > 0]"));
  ASSERT_EQ(dispatch.fireDueTimers(), 1u);
  dispatch.runQueued(kDeadlineQueue);
  EXPECT_EQ(es.answers(exec->get()).size(), 1u);
}

TEST_F(ClientDispatch, NotificationsReachObserversOnlyWhileTheDaemonListens) {
  RecordingObserver watcher("Watcher", {ES_EVENT_TYPE_NOTIFY_EXEC}, TagProcObserver);
  watcher.activate();
  client->registerObserver(&watcher);
  ASSERT_TRUE(client->init());
  auto exec = MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC).build();

  link.setListening(false);
  es.deliver(exec->get());
  EXPECT_EQ(dispatch.pendingTasks(), 0u);
  EXPECT_EQ(es.retainCount(exec->get()), 0);

  link.setListening(true);
  es.deliver(exec->get());
  EXPECT_EQ(dispatch.pendingTasks(kNotifyQueue), 1u);
  EXPECT_EQ(es.retainCount(exec->get()), 1);
  dispatch.runQueued();
  EXPECT_EQ(watcher.notified, 1);
  EXPECT_EQ(es.retainCount(exec->get()), 0);
  EXPECT_TRUE(es.answers(exec->get()).empty());
}

TEST_F(ClientDispatch, AfterStopQueuedMessagesReachNoObserverAndAreReleased) {
  RecordingObserver watcher("Watcher", {ES_EVENT_TYPE_AUTH_EXEC, ES_EVENT_TYPE_NOTIFY_EXIT},
                            TagProcObserver);
  watcher.activate();
  client->registerObserver(&watcher);
  ASSERT_TRUE(client->init());
  auto exec = authMessage(ES_EVENT_TYPE_AUTH_EXEC);
  auto exitMsg = MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXIT).build();
  es.deliver(exec->get());
  es.deliver(exitMsg->get());
  client->stop();
  dispatch.runQueued();
  clock.advance(1'000'000);
  dispatch.fireDueTimers();
  dispatch.runQueued();
  EXPECT_EQ(watcher.authed + watcher.notified, 0);
  EXPECT_TRUE(es.answers(exec->get()).empty());
  EXPECT_EQ(sink.count("] Debug:  Ignoring event because System Extension is shutting down."), 2u);
  EXPECT_EQ(es.retainCount(exec->get()), 0);
  EXPECT_EQ(es.retainCount(exitMsg->get()), 0);
}

// Three observers shaped like the product's: process, file and printer.
class ClientSwitchMode : public ClientFixture {
 protected:
  void SetUp() override {
    for (auto* o : {&proc, &file, &printer}) client->registerObserver(o);
    ASSERT_TRUE(client->init());
  }

  // What the director does: switch the client, then flip the observers.
  bool switchGroup(endpointsecurity::ObserverTags tags, bool on) {
    bool ok = client->switchMode(tags, on);
    for (auto* o : {&proc, &file, &printer}) {
      if (o->tags().intersects(tags)) on ? o->activate() : o->deactivate();
    }
    return ok;
  }

  std::vector<es_event_type_t> lastCall(bool subscribe) {
    auto calls = es.subscriptionCalls();
    if (calls.empty() || calls.back().subscribe != subscribe) return {};
    return calls.back().events;
  }

  RecordingObserver proc{"Proc",
                         {ES_EVENT_TYPE_NOTIFY_EXEC, ES_EVENT_TYPE_NOTIFY_FORK,
                          ES_EVENT_TYPE_NOTIFY_EXIT},
                         TagAllObservers | TagProcObserver};
  RecordingObserver file{"File",
                         {ES_EVENT_TYPE_NOTIFY_OPEN, ES_EVENT_TYPE_NOTIFY_CLOSE,
                          ES_EVENT_TYPE_NOTIFY_RENAME},
                         TagAllObservers | TagFileObserver};
  RecordingObserver printer{"Printer",
                            {ES_EVENT_TYPE_NOTIFY_RENAME, ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT,
                             ES_EVENT_TYPE_AUTH_EXEC},
                            TagAllObservers | TagPrinterObserver};
};

TEST_F(ClientSwitchMode, ChangesOnlyTypesNoOtherActiveObserverNeeds) {
  ASSERT_TRUE(switchGroup(TagFileObserver, true));
  EXPECT_EQ(lastCall(true), (std::vector<es_event_type_t>{ES_EVENT_TYPE_NOTIFY_OPEN,
                                                           ES_EVENT_TYPE_NOTIFY_CLOSE,
                                                           ES_EVENT_TYPE_NOTIFY_RENAME}));
  EXPECT_TRUE(sink.contains("] Debug:  es_subscribe succeeded - subscribed to 3 events"));

  // RENAME is already needed by the active file observer.
  ASSERT_TRUE(switchGroup(TagPrinterObserver, true));
  EXPECT_EQ(lastCall(true), (std::vector<es_event_type_t>{ES_EVENT_TYPE_AUTH_EXEC,
                                                           ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT}));

  // The printer observer still needs RENAME, so it stays.
  ASSERT_TRUE(switchGroup(TagFileObserver, false));
  EXPECT_EQ(lastCall(false), (std::vector<es_event_type_t>{ES_EVENT_TYPE_NOTIFY_OPEN,
                                                            ES_EVENT_TYPE_NOTIFY_CLOSE}));
  EXPECT_TRUE(sink.contains("] Debug:  es_unsubscribe succeeded - unsubscribed from 2 events"));

  // Now the file observer is off and is not counted.
  sink.clear();
  ASSERT_TRUE(switchGroup(TagPrinterObserver, false));
  EXPECT_EQ(lastCall(false), (std::vector<es_event_type_t>{ES_EVENT_TYPE_AUTH_EXEC,
                                                            ES_EVENT_TYPE_NOTIFY_RENAME,
                                                            ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT}));
  EXPECT_TRUE(sink.contains("] Trace:  Not counting deactivated observers"));
  EXPECT_TRUE(es.subscriptions().empty());
}

TEST_F(ClientSwitchMode, ObserversAlreadyInTheRequestedStateAreSkipped) {
  const size_t before = es.subscriptionCalls().size();
  ASSERT_TRUE(switchGroup(TagProcObserver, false));
  EXPECT_EQ(es.subscriptionCalls().size(), before);
  EXPECT_TRUE(sink.contains("] Trace:  Skipping Observer Proc"));

  ASSERT_TRUE(switchGroup(TagAllObservers, true));
  EXPECT_EQ(es.subscriptions().size(), 8u);
  // Every entry of the whole group counts, repeats included (RENAME twice).
  EXPECT_EQ(lastCall(true).size(), 9u);
}

TEST_F(ClientSwitchMode, FailuresAndStoppedClients) {
  es.failCall(Call::Subscribe);
  EXPECT_FALSE(client->switchMode(TagProcObserver, true));
  EXPECT_TRUE(sink.contains("] Error: es_subscribe failed"));
  es.failCall(Call::Subscribe, false);
  ASSERT_TRUE(switchGroup(TagProcObserver, true));
  es.failCall(Call::Unsubscribe);
  EXPECT_FALSE(client->switchMode(TagProcObserver, false));
  EXPECT_TRUE(sink.contains("] Error: es_unsubscribe failed"));

  endpointsecurity::Client uninitialised;
  EXPECT_FALSE(uninitialised.switchMode(TagProcObserver, true));
  EXPECT_TRUE(sink.contains("] Error: client was not initiated properly"));
  endpointsecurity::Client empty;
  ASSERT_TRUE(empty.init());
  EXPECT_FALSE(empty.switchMode(TagProcObserver, true));
  EXPECT_TRUE(sink.contains("] Error: no observers were registered for notifications"));

  const size_t before = es.subscriptionCalls().size();
  client->stop();
  EXPECT_TRUE(client->switchMode(TagFileObserver, true));
  EXPECT_EQ(es.subscriptionCalls().size(), before);
}

}  // namespace
