// The Linux facility hub against a fake event source: subscriptions drive
// the sources, muting, message lifetime, combined AUTH answers and the
// deadline fail-safe.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <thread>
#include <mutex>
#include <vector>

#include "es/linuxendpointsecurity.h"
#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "es/message.h"
#include "support/manual_dispatch.h"

namespace {

using endpointsecurity::linux_es::AuthVerdict;
using endpointsecurity::linux_es::EventSet;
using endpointsecurity::linux_es::IEventSource;
using endpointsecurity::linux_es::LinuxEndpointSecurity;
using endpointsecurity::linux_es::Message;
using endpointsecurity::linux_es::ProcessInfo;
using lumo::testing::FakeClock;
using lumo::testing::ManualDispatch;

struct FakeSource : IEventSource {
  explicit FakeSource(EventSet produces) : produces(produces) {}
  const char* name() const override { return "fake"; }
  EventSet types() const override { return produces; }
  bool apply(const EventSet& wanted) override {
    applied.push_back(wanted);
    return true;
  }
  void stop() override { stopped = true; }
  EventSet produces;
  std::vector<EventSet> applied;
  bool stopped = false;
};

EventSet setOf(std::initializer_list<es_event_type_t> types) {
  EventSet s;
  for (auto t : types) s.set(t);
  return s;
}

ProcessInfo proc(pid_t pid, const std::string& exe, uint64_t start = 77) {
  ProcessInfo info;
  info.pid = pid;
  info.ppid = 1;
  info.ruid = 1000;
  info.asid = 5;
  info.startTicks = start;
  info.exe = exe;
  return info;
}

// What a client saw, with the messages it kept retained.
struct Seen {
  std::mutex mutex;
  std::vector<const es_message_t*> messages;
};

class Facility : public ::testing::Test {
 protected:
  Facility() : dispatch(clock), hub(clock, dispatch) {
    auto owned = std::make_unique<FakeSource>(
        setOf({ES_EVENT_TYPE_NOTIFY_EXEC, ES_EVENT_TYPE_NOTIFY_EXIT, ES_EVENT_TYPE_AUTH_EXEC,
               ES_EVENT_TYPE_AUTH_OPEN}));
    source = owned.get();
    hub.addSource(std::move(owned));
  }

  // A client that retains what it gets, as the core's client does.
  es_client_t* client(Seen& seen, bool retain = true) {
    es_client_t* handle = nullptr;
    EXPECT_EQ(hub.newClient(&handle,
                            [this, &seen, retain](es_client_t*, const es_message_t* m) {
                              if (retain) hub.retainMessage(m);
                              std::lock_guard<std::mutex> lock(seen.mutex);
                              seen.messages.push_back(m);
                            }),
              ES_NEW_CLIENT_RESULT_SUCCESS);
    return handle;
  }

  void subscribe(es_client_t* c, std::initializer_list<es_event_type_t> types) {
    std::vector<es_event_type_t> list(types);
    ASSERT_EQ(hub.subscribe(c, list.data(), static_cast<uint32_t>(list.size())),
              ES_RETURN_SUCCESS);
  }

  Message* exitOf(const ProcessInfo& info) {
    auto* m = new Message(ES_EVENT_TYPE_NOTIFY_EXIT, ES_ACTION_TYPE_NOTIFY);
    m->es.process = m->addProcess(info);
    return m;
  }

  // An AUTH_EXEC whose kernel answers are recorded in `answers`.
  Message* authExec(const ProcessInfo& info, std::vector<bool>& answers) {
    auto* m = new Message(ES_EVENT_TYPE_AUTH_EXEC, ES_ACTION_TYPE_AUTH);
    m->es.process = m->addProcess(info);
    m->es.event.exec.target = m->addProcess(info);
    m->setExecArgs({"prog", "-x", "file"});
    m->budgetNanos = 1000;
    m->verdict = std::make_shared<AuthVerdict>([&answers](bool allow) { answers.push_back(allow); });
    return m;
  }

  FakeClock clock;
  ManualDispatch dispatch;
  LinuxEndpointSecurity hub;
  FakeSource* source = nullptr;
};

TEST_F(Facility, SourcesFollowTheUnionOfSubscriptions) {
  Seen a, b;
  es_client_t* ca = client(a);
  es_client_t* cb = client(b);
  subscribe(ca, {ES_EVENT_TYPE_NOTIFY_EXEC});
  EXPECT_EQ(source->applied.back(), setOf({ES_EVENT_TYPE_NOTIFY_EXEC}));
  EXPECT_TRUE(hub.wants(ES_EVENT_TYPE_NOTIFY_EXEC));
  EXPECT_FALSE(hub.wants(ES_EVENT_TYPE_NOTIFY_EXIT));

  // A type no source makes is accepted, and only the source's own reach it.
  subscribe(cb, {ES_EVENT_TYPE_NOTIFY_EXIT, ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT});
  EXPECT_EQ(source->applied.back(), setOf({ES_EVENT_TYPE_NOTIFY_EXEC, ES_EVENT_TYPE_NOTIFY_EXIT}));

  const es_event_type_t exec = ES_EVENT_TYPE_NOTIFY_EXEC;
  ASSERT_EQ(hub.unsubscribe(ca, &exec, 1), ES_RETURN_SUCCESS);
  EXPECT_EQ(source->applied.back(), setOf({ES_EVENT_TYPE_NOTIFY_EXIT}));
  EXPECT_FALSE(hub.wants(ES_EVENT_TYPE_NOTIFY_EXEC));

  // A deleted client's subscriptions go with it; it can't subscribe again.
  ASSERT_EQ(hub.deleteClient(cb), ES_RETURN_SUCCESS);
  EXPECT_TRUE(source->applied.back().none());
  EXPECT_EQ(hub.deleteClient(cb), ES_RETURN_ERROR);
  const es_event_type_t exit = ES_EVENT_TYPE_NOTIFY_EXIT;
  EXPECT_EQ(hub.subscribe(cb, &exit, 1), ES_RETURN_ERROR);
  const auto bad = static_cast<es_event_type_t>(ES_EVENT_TYPE_LAST);
  EXPECT_EQ(hub.subscribe(ca, &bad, 1), ES_RETURN_ERROR);

  hub.shutdown();
  EXPECT_TRUE(source->stopped);
}

TEST_F(Facility, DeliversToSubscribedClientsOnlyAndCountsTheRest) {
  Seen a, b;
  es_client_t* ca = client(a, /*retain=*/false);
  es_client_t* cb = client(b, /*retain=*/false);
  subscribe(ca, {ES_EVENT_TYPE_NOTIFY_EXIT});
  subscribe(cb, {ES_EVENT_TYPE_NOTIFY_EXEC});
  hub.deliver(exitOf(proc(10, "/usr/bin/true")));
  EXPECT_EQ(a.messages.size(), 1u);
  EXPECT_EQ(b.messages.size(), 0u);
  EXPECT_EQ(hub.counters().delivered.load(), 1u);

  ASSERT_EQ(hub.deleteClient(ca), ES_RETURN_SUCCESS);
  hub.deliver(exitOf(proc(11, "/usr/bin/true")));
  EXPECT_EQ(a.messages.size(), 1u);
  EXPECT_EQ(hub.counters().unwanted.load(), 1u);
}

TEST_F(Facility, MutesByPathLiteralPrefixAndToken) {
  Seen a;
  es_client_t* ca = client(a);
  subscribe(ca, {ES_EVENT_TYPE_NOTIFY_EXIT, ES_EVENT_TYPE_NOTIFY_EXEC});
  ASSERT_EQ(hub.mutePathLiteral(ca, "/usr/bin/quiet"), ES_RETURN_SUCCESS);
  ASSERT_EQ(hub.mutePathPrefix(ca, "/opt/skip/"), ES_RETURN_SUCCESS);
  EXPECT_EQ(hub.mutePathPrefix(ca, ""), ES_RETURN_ERROR);

  hub.deliver(exitOf(proc(20, "/usr/bin/quiet")));
  hub.deliver(exitOf(proc(21, "/usr/bin/quieter")));  // literal: no prefix match
  hub.deliver(exitOf(proc(22, "/opt/skip/tool")));
  hub.deliver(exitOf(proc(23, "/opt/skipped")));
  ASSERT_EQ(a.messages.size(), 2u);
  EXPECT_EQ(audit_token_to_pid(a.messages[0]->process->audit_token), 21);
  EXPECT_EQ(audit_token_to_pid(a.messages[1]->process->audit_token), 23);

  // An exec into a muted image is muted too.
  auto* exec = new Message(ES_EVENT_TYPE_NOTIFY_EXEC, ES_ACTION_TYPE_NOTIFY);
  exec->es.process = exec->addProcess(proc(24, "/bin/sh"));
  exec->es.event.exec.target = exec->addProcess(proc(24, "/opt/skip/tool"));
  hub.deliver(exec);
  EXPECT_EQ(a.messages.size(), 2u);

  // A token mutes one process: the same pid with another start time is
  // another process.
  const ProcessInfo loud = proc(30, "/usr/bin/loud", 100);
  const audit_token_t token = endpointsecurity::linux_es::tokenOf(loud);
  ASSERT_EQ(hub.muteProcess(ca, &token), ES_RETURN_SUCCESS);
  hub.deliver(exitOf(loud));
  hub.deliver(exitOf(proc(30, "/usr/bin/loud", 101)));
  ASSERT_EQ(a.messages.size(), 3u);
  EXPECT_EQ(a.messages[2]->process->audit_token.val[7], 101u);

  size_t count = 0;
  audit_token_t* tokens = nullptr;
  ASSERT_EQ(hub.mutedProcesses(ca, &count, &tokens), ES_RETURN_SUCCESS);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(audit_token_to_pid(tokens[0]), 30);
  EXPECT_EQ(audit_token_to_asid(tokens[0]), 5);
  hub.releaseMutedProcesses(tokens, count);

  ASSERT_EQ(hub.unmuteProcess(ca, &token), ES_RETURN_SUCCESS);
  EXPECT_EQ(hub.unmuteProcess(ca, &token), ES_RETURN_ERROR);
  ASSERT_EQ(hub.unmuteAllPaths(ca), ES_RETURN_SUCCESS);
  hub.deliver(exitOf(loud));
  hub.deliver(exitOf(proc(20, "/usr/bin/quiet")));
  EXPECT_EQ(a.messages.size(), 5u);
  for (auto* m : a.messages) hub.releaseMessage(m);
}

TEST_F(Facility, RetainedMessagesLiveUntilTheLastRelease) {
  Seen a, b;
  es_client_t* ca = client(a);
  es_client_t* cb = client(b);
  subscribe(ca, {ES_EVENT_TYPE_NOTIFY_EXEC});
  subscribe(cb, {ES_EVENT_TYPE_NOTIFY_EXEC});
  auto* m = new Message(ES_EVENT_TYPE_NOTIFY_EXEC, ES_ACTION_TYPE_NOTIFY);
  m->es.process = m->addProcess(proc(40, "/bin/sh"));
  m->es.event.exec.target = m->addProcess(proc(40, "/usr/bin/ls"));
  m->setExecArgs({"ls", "-l", "/tmp"});
  hub.deliver(m);
  ASSERT_EQ(a.messages.size(), 1u);
  const es_message_t* seen = a.messages[0];
  EXPECT_EQ(seen->reserved_facility, m);
  EXPECT_EQ(m->refs.load(), 2);  // the two clients; the hub let go of its own
  EXPECT_GT(seen->seq_num, 0u);
  EXPECT_EQ(seen->mach_time, clock.now());

  // Arguments through the API, with bounds.
  ASSERT_EQ(hub.execArgCount(&seen->event.exec), 3u);
  EXPECT_STREQ(hub.execArg(&seen->event.exec, 1).data, "-l");
  EXPECT_EQ(hub.execArg(&seen->event.exec, 3).data, nullptr);
  EXPECT_EQ(hub.execArgCount(nullptr), 0u);

  // Extra retains need extra releases; the message stays readable.
  hub.retainMessage(seen);
  hub.releaseMessage(seen);
  hub.releaseMessage(seen);
  EXPECT_EQ(m->refs.load(), 1);
  EXPECT_STREQ(seen->event.exec.target->executable->path.data, "/usr/bin/ls");
  hub.releaseMessage(seen);  // freed: ASan checks nothing reads it after
}

TEST_F(Facility, ProcessesCarryLinuxIdentity) {
  Message m(ES_EVENT_TYPE_NOTIFY_EXIT, ES_ACTION_TYPE_NOTIFY);
  ProcessInfo info = proc(50, "/usr/bin/env", 250);
  info.auid = 1000;
  info.euid = 0;
  const es_process_t* p = m.addProcess(info);
  EXPECT_EQ(audit_token_to_pid(p->audit_token), 50);
  EXPECT_EQ(audit_token_to_ruid(p->audit_token), 1000u);
  EXPECT_EQ(audit_token_to_euid(p->audit_token), 0u);
  EXPECT_EQ(audit_token_to_auid(p->audit_token), 1000u);
  EXPECT_EQ(audit_token_to_asid(p->audit_token), 5);
  EXPECT_EQ(audit_token_to_pidversion(p->audit_token), 250);
  EXPECT_EQ(p->start_time.tv_sec, 2);
  EXPECT_EQ(p->start_time.tv_usec, 500000);
  // No code signing on Linux.
  EXPECT_FALSE(p->is_platform_binary);
  EXPECT_EQ(p->signing_id.data, nullptr);
  EXPECT_EQ(p->team_id.data, nullptr);
  // An unknown image has no path at all.
  const es_process_t* unknown = m.addProcess(proc(51, ""));
  ASSERT_NE(unknown->executable, nullptr);
  EXPECT_EQ(unknown->executable->path.data, nullptr);
}

TEST_F(Facility, AuthAnswersCombineAndDenyWins) {
  Seen a, b;
  es_client_t* ca = client(a);
  es_client_t* cb = client(b);
  subscribe(ca, {ES_EVENT_TYPE_AUTH_EXEC});
  subscribe(cb, {ES_EVENT_TYPE_AUTH_EXEC});

  // Both allow: one kernel answer, after the second.
  std::vector<bool> answers;
  hub.deliver(authExec(proc(60, "/usr/bin/a"), answers));
  const es_message_t* m1 = a.messages.at(0);
  EXPECT_EQ(m1->deadline, clock.now() + 1000);
  EXPECT_EQ(hub.respondAuthResult(ca, m1, ES_AUTH_RESULT_ALLOW, false),
            ES_RESPOND_RESULT_SUCCESS);
  EXPECT_TRUE(answers.empty());
  EXPECT_EQ(hub.respondAuthResult(ca, m1, ES_AUTH_RESULT_ALLOW, false),
            ES_RESPOND_RESULT_ERR_DUPLICATE_RESPONSE);
  EXPECT_EQ(hub.respondAuthResult(cb, m1, ES_AUTH_RESULT_ALLOW, true), ES_RESPOND_RESULT_SUCCESS);
  EXPECT_EQ(answers, std::vector<bool>{true});
  // Flags answers are for opens only.
  EXPECT_EQ(hub.respondFlagsResult(ca, m1, 0xFFFFFFFF, false), ES_RESPOND_RESULT_ERR_EVENT_TYPE);

  // One denial decides at once; the late allow changes nothing.
  std::vector<bool> answers2;
  hub.deliver(authExec(proc(61, "/usr/bin/b"), answers2));
  const es_message_t* m2 = a.messages.at(1);
  EXPECT_EQ(hub.respondAuthResult(cb, m2, ES_AUTH_RESULT_DENY, false), ES_RESPOND_RESULT_SUCCESS);
  EXPECT_EQ(answers2, std::vector<bool>{false});
  EXPECT_EQ(hub.respondAuthResult(ca, m2, ES_AUTH_RESULT_ALLOW, false), ES_RESPOND_RESULT_SUCCESS);
  EXPECT_EQ(answers2, std::vector<bool>{false});
  EXPECT_EQ(hub.counters().authDenied.load(), 1u);

  // A client that never got the message can't answer it; notifications
  // take no answers.
  Seen c;
  es_client_t* cc = client(c);
  EXPECT_EQ(hub.respondAuthResult(cc, m2, ES_AUTH_RESULT_DENY, false), ES_RESPOND_RESULT_NOT_FOUND);
  auto* notify = exitOf(proc(62, "/x"));
  subscribe(cc, {ES_EVENT_TYPE_NOTIFY_EXIT});
  hub.deliver(notify);
  EXPECT_EQ(hub.respondAuthResult(cc, c.messages.at(0), ES_AUTH_RESULT_ALLOW, false),
            ES_RESPOND_RESULT_ERR_EVENT_TYPE);

  for (auto* m : a.messages) hub.releaseMessage(m);
  for (auto* m : b.messages) hub.releaseMessage(m);
  for (auto* m : c.messages) hub.releaseMessage(m);
  EXPECT_EQ(hub.counters().authReleasedUnanswered.load(), 0u);
}

TEST_F(Facility, OpenFlagsMustCoverTheRequestedAccess) {
  Seen a;
  es_client_t* ca = client(a);
  subscribe(ca, {ES_EVENT_TYPE_AUTH_OPEN});
  std::vector<bool> answers;
  auto open = [&](uint32_t requested) {
    auto* m = new Message(ES_EVENT_TYPE_AUTH_OPEN, ES_ACTION_TYPE_AUTH);
    m->es.process = m->addProcess(proc(70, "/usr/bin/cat"));
    m->es.event.open.file = m->addFile("/mnt/usb/a", nullptr);
    m->requestedFlags = requested;
    m->budgetNanos = 1000;
    m->verdict = std::make_shared<AuthVerdict>([&answers](bool allow) { answers.push_back(allow); });
    hub.deliver(m);
    return a.messages.back();
  };
  const es_message_t* readWrite = open(0x3);
  EXPECT_EQ(hub.respondAuthResult(ca, readWrite, ES_AUTH_RESULT_ALLOW, false),
            ES_RESPOND_RESULT_ERR_EVENT_TYPE);
  EXPECT_EQ(hub.respondFlagsResult(ca, readWrite, 0x1, false), ES_RESPOND_RESULT_SUCCESS);
  const es_message_t* read = open(0x1);
  EXPECT_EQ(hub.respondFlagsResult(ca, read, 0x1, false), ES_RESPOND_RESULT_SUCCESS);
  const es_message_t* all = open(0x3);
  EXPECT_EQ(hub.respondFlagsResult(ca, all, 0xFFFFFFFF, false), ES_RESPOND_RESULT_SUCCESS);
  EXPECT_EQ(answers, (std::vector<bool>{false, true, true}));
  for (auto* m : a.messages) hub.releaseMessage(m);
}

TEST_F(Facility, UnansweredAuthIsAllowedAtTheDeadlineOrAtTheLastRelease) {
  // Nobody subscribed: allowed at once.
  std::vector<bool> none;
  hub.deliver(authExec(proc(80, "/usr/bin/x"), none));
  EXPECT_EQ(none, std::vector<bool>{true});

  Seen a;
  es_client_t* ca = client(a);
  subscribe(ca, {ES_EVENT_TYPE_AUTH_EXEC});
  std::vector<bool> answers;
  hub.deliver(authExec(proc(81, "/usr/bin/stuck"), answers));
  ASSERT_EQ(dispatch.pendingTimers().size(), 1u);
  EXPECT_EQ(dispatch.pendingTimers()[0].when, clock.now() + 1000);
  clock.advance(999);
  dispatch.fireDueTimers();
  dispatch.runQueued();
  EXPECT_TRUE(answers.empty());
  clock.advance(1);
  dispatch.fireDueTimers();
  dispatch.runQueued();
  EXPECT_EQ(answers, std::vector<bool>{true});
  EXPECT_EQ(hub.counters().authFailsafe.load(), 1u);
  // The client's late answer is taken but changes nothing.
  EXPECT_EQ(hub.respondAuthResult(ca, a.messages[0], ES_AUTH_RESULT_DENY, false),
            ES_RESPOND_RESULT_SUCCESS);
  EXPECT_EQ(answers, std::vector<bool>{true});
  hub.releaseMessage(a.messages[0]);

  // Released without an answer before the deadline: allowed right then.
  std::vector<bool> dropped;
  hub.deliver(authExec(proc(82, "/usr/bin/y"), dropped));
  hub.releaseMessage(a.messages[1]);
  EXPECT_EQ(dropped, std::vector<bool>{true});
  EXPECT_EQ(hub.counters().authReleasedUnanswered.load(), 1u);
  clock.advance(5000);
  dispatch.fireDueTimers();
  dispatch.runQueued();
  EXPECT_EQ(dropped.size(), 1u);
}

}  // namespace

namespace {

using tarvex::itx::rtn::linux_platform::LinuxDispatch;
using tarvex::itx::rtn::linux_platform::MonotonicClock;

// Deliveries from several source threads, answers from other threads,
// while the control side mutes and resubscribes: every AUTH message gets
// exactly one kernel answer and every message is freed.
TEST(FacilityThreads, ConcurrentDeliveryAnswersAndControl) {
  MonotonicClock clock;
  LinuxDispatch dispatch(clock);
  LinuxEndpointSecurity hub(clock, dispatch);
  hub.addSource(std::make_unique<FakeSource>(setOf({ES_EVENT_TYPE_AUTH_EXEC})));

  std::mutex mutex;
  std::condition_variable ready;
  std::deque<std::pair<es_client_t*, const es_message_t*>> inbox;
  auto handler = [&](es_client_t* c, const es_message_t* m) {
    hub.retainMessage(m);
    std::lock_guard<std::mutex> lock(mutex);
    inbox.emplace_back(c, m);
    ready.notify_one();
  };
  es_client_t* a = nullptr;
  es_client_t* b = nullptr;
  ASSERT_EQ(hub.newClient(&a, handler), ES_NEW_CLIENT_RESULT_SUCCESS);
  ASSERT_EQ(hub.newClient(&b, handler), ES_NEW_CLIENT_RESULT_SUCCESS);
  const es_event_type_t exec = ES_EVENT_TYPE_AUTH_EXEC;
  ASSERT_EQ(hub.subscribe(a, &exec, 1), ES_RETURN_SUCCESS);
  ASSERT_EQ(hub.subscribe(b, &exec, 1), ES_RETURN_SUCCESS);

  constexpr int kSources = 3, kPerSource = 400;
  std::atomic<int> answers{0}, denials{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> answerers;
  for (int t = 0; t < 2; ++t) {
    answerers.emplace_back([&] {
      for (;;) {
        std::unique_lock<std::mutex> lock(mutex);
        ready.wait_for(lock, std::chrono::milliseconds(5), [&] { return !inbox.empty(); });
        if (inbox.empty()) {
          if (done.load()) return;
          continue;
        }
        auto [client, message] = inbox.front();
        inbox.pop_front();
        lock.unlock();
        const bool deny = audit_token_to_pid(message->process->audit_token) % 7 == 0;
        hub.respondAuthResult(client, message, deny ? ES_AUTH_RESULT_DENY : ES_AUTH_RESULT_ALLOW,
                              false);
        hub.releaseMessage(message);
      }
    });
  }
  std::vector<std::thread> sources;
  for (int s = 0; s < kSources; ++s) {
    sources.emplace_back([&, s] {
      for (int i = 0; i < kPerSource; ++i) {
        auto* m = new Message(ES_EVENT_TYPE_AUTH_EXEC, ES_ACTION_TYPE_AUTH);
        const ProcessInfo info = proc(s * kPerSource + i + 1, "/usr/bin/x");
        m->es.process = m->addProcess(info);
        m->es.event.exec.target = m->addProcess(info);
        m->budgetNanos = 5'000'000'000ull;
        m->verdict = std::make_shared<AuthVerdict>([&](bool allow) {
          answers.fetch_add(1);
          if (!allow) denials.fetch_add(1);
        });
        hub.deliver(m);
      }
    });
  }
  // The control side meanwhile.
  for (int i = 0; i < 50; ++i) {
    hub.mutePathPrefix(b, "/usr/bin/");
    hub.unsubscribe(a, &exec, 1);
    hub.unmuteAllPaths(b);
    hub.subscribe(a, &exec, 1);
  }
  for (auto& t : sources) t.join();
  done.store(true);
  for (auto& t : answerers) t.join();
  EXPECT_EQ(answers.load(), kSources * kPerSource);
  EXPECT_GT(denials.load(), 0);
  EXPECT_EQ(hub.counters().authFailsafe.load(), 0u);
  EXPECT_EQ(hub.counters().authReleasedUnanswered.load(), 0u);
}

}  // namespace
