// The Linux facility hub against a fake event source: subscriptions drive
// the sources, muting, message lifetime, combined AUTH answers and the
// deadline fail-safe.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "es/hub/linuxendpointsecurity.h"
#include "es/hub/message.h"
#include "support/manual_dispatch.h"

namespace endpointsecurity::linux_es {
namespace {

using lumo::testing::FakeClock;
using lumo::testing::ManualDispatch;
using Seen = std::vector<const es_message_t*>;

struct FakeSource : IEventSource {
  explicit FakeSource(EventSet produces) : produces(produces) {}
  const char* name() const override { return "fake"; }
  EventSet types() const override { return produces; }
  bool apply(const EventSet& wanted) override {
    applied.push_back(wanted);
    return true;
  }
  void stop() override { stopped = true; }
  void catchUp() override {
    if (onCatchUp) onCatchUp();
  }
  EventSet produces;
  std::function<void()> onCatchUp;
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

// A message of `type` from `info`; an exec's target is `target`. With
// `respond` it is an AUTH message whose kernel answer goes there.
Message* message(es_event_type_t type, const ProcessInfo& info,
                 std::function<void(bool)> respond = nullptr, const ProcessInfo* target = nullptr) {
  auto* m = new Message(type, respond ? ES_ACTION_TYPE_AUTH : ES_ACTION_TYPE_NOTIFY);
  m->es.process = m->addProcess(info);
  if (type == ES_EVENT_TYPE_NOTIFY_EXEC || type == ES_EVENT_TYPE_AUTH_EXEC) {
    m->es.event.exec.target = m->addProcess(target ? *target : info);
  }
  if (respond) {
    m->budgetNanos = 1000;
    m->verdict = std::make_shared<AuthVerdict>(std::move(respond));
  }
  return m;
}

std::function<void(bool)> into(std::vector<bool>& answers) {
  return [&answers](bool allow) { answers.push_back(allow); };
}

class Facility : public ::testing::Test {
 protected:
  Facility() : dispatch(clock), hub(clock, dispatch) {
    auto owned =
        std::make_unique<FakeSource>(setOf({ES_EVENT_TYPE_NOTIFY_EXEC, ES_EVENT_TYPE_NOTIFY_EXIT,
                                            ES_EVENT_TYPE_AUTH_EXEC, ES_EVENT_TYPE_AUTH_OPEN}));
    source = owned.get();
    hub.addSource(std::move(owned));
  }

  // A client that retains what it gets, as the core's client does, and
  // subscribes to `types`.
  es_client_t* client(Seen& seen, std::initializer_list<es_event_type_t> types) {
    es_client_t* handle = nullptr;
    EXPECT_EQ(hub.newClient(&handle,
                            [this, &seen](es_client_t*, const es_message_t* m) {
                              hub.retainMessage(m);
                              seen.push_back(m);
                            }),
              ES_NEW_CLIENT_RESULT_SUCCESS);
    std::vector<es_event_type_t> list(types);
    EXPECT_EQ(hub.subscribe(handle, list.data(), static_cast<uint32_t>(list.size())),
              ES_RETURN_SUCCESS);
    return handle;
  }
  void release(const Seen& seen) {
    for (auto* m : seen) hub.releaseMessage(m);
  }
  void fireAt(uint64_t ticks) {
    clock.advance(ticks);
    dispatch.fireDueTimers();
    dispatch.runQueued();
  }

  FakeClock clock;
  ManualDispatch dispatch;
  LinuxEndpointSecurity hub;
  FakeSource* source = nullptr;
};

TEST_F(Facility, SourcesAndDeliveriesFollowTheSubscriptions) {
  Seen a, b;
  es_client_t* ca = client(a, {ES_EVENT_TYPE_NOTIFY_EXEC});
  EXPECT_EQ(source->applied.back(), setOf({ES_EVENT_TYPE_NOTIFY_EXEC}));
  EXPECT_FALSE(hub.wants(ES_EVENT_TYPE_NOTIFY_EXIT));
  // A type no source makes is accepted, and only the source's own reach it.
  es_client_t* cb = client(b, {ES_EVENT_TYPE_NOTIFY_EXIT, ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT});
  EXPECT_EQ(source->applied.back(), setOf({ES_EVENT_TYPE_NOTIFY_EXEC, ES_EVENT_TYPE_NOTIFY_EXIT}));

  hub.deliver(message(ES_EVENT_TYPE_NOTIFY_EXIT, proc(10, "/usr/bin/true")));
  EXPECT_EQ(a.size(), 0u);
  EXPECT_EQ(b.size(), 1u);
  EXPECT_EQ(hub.counters().delivered.load(), 1u);

  const es_event_type_t exec = ES_EVENT_TYPE_NOTIFY_EXEC;
  ASSERT_EQ(hub.unsubscribe(ca, &exec, 1), ES_RETURN_SUCCESS);
  EXPECT_EQ(source->applied.back(), setOf({ES_EVENT_TYPE_NOTIFY_EXIT}));
  EXPECT_FALSE(hub.wants(ES_EVENT_TYPE_NOTIFY_EXEC));

  // A deleted client's subscriptions go with it; it can't subscribe again.
  ASSERT_EQ(hub.deleteClient(cb), ES_RETURN_SUCCESS);
  EXPECT_TRUE(source->applied.back().none());
  hub.deliver(message(ES_EVENT_TYPE_NOTIFY_EXIT, proc(11, "/usr/bin/true")));
  EXPECT_EQ(b.size(), 1u);
  EXPECT_EQ(hub.counters().unwanted.load(), 1u);
  EXPECT_EQ(hub.deleteClient(cb), ES_RETURN_ERROR);
  EXPECT_EQ(hub.subscribe(cb, &exec, 1), ES_RETURN_ERROR);
  const auto bad = static_cast<es_event_type_t>(ES_EVENT_TYPE_LAST);
  EXPECT_EQ(hub.subscribe(ca, &bad, 1), ES_RETURN_ERROR);

  // Before an AUTH, the sources deliver what the kernel queued ahead of it:
  // a file renamed just before an exec is seen before the exec is asked about.
  Seen c;
  client(c, {ES_EVENT_TYPE_NOTIFY_EXIT, ES_EVENT_TYPE_AUTH_EXEC});
  source->onCatchUp = [&] {
    hub.deliver(message(ES_EVENT_TYPE_NOTIFY_EXIT, proc(12, "/usr/bin/mv")));
  };
  std::vector<bool> answers;
  hub.deliver(message(ES_EVENT_TYPE_AUTH_EXEC, proc(13, "/bin/sh"), into(answers)));
  ASSERT_EQ(c.size(), 2u);
  EXPECT_EQ(std::make_pair(c[0]->event_type, c[1]->event_type),
            std::make_pair(ES_EVENT_TYPE_NOTIFY_EXIT, ES_EVENT_TYPE_AUTH_EXEC));
  // A source about to read its own queue has the others catch up first; a
  // catch-up goes in the order the sources were added.
  auto added = std::make_unique<FakeSource>(EventSet());
  FakeSource* files = added.get();
  hub.addSource(std::move(added));
  std::vector<std::string> order;
  source->onCatchUp = [&] { order.push_back("connects"); };
  files->onCatchUp = [&] { order.push_back("files"); };
  hub.catchUpOthers(files);
  hub.deliver(message(ES_EVENT_TYPE_AUTH_EXEC, proc(14, "/bin/sh"), into(answers)));
  EXPECT_EQ(order, (std::vector<std::string>{"connects", "connects", "files"}));

  // A move the client still holds is released before the next AUTH reaches
  // it, or that AUTH waits out the hub's patience and goes ahead.
  Seen moves;
  client(moves, {ES_EVENT_TYPE_NOTIFY_RENAME, ES_EVENT_TYPE_AUTH_EXEC});
  hub.deliver(message(ES_EVENT_TYPE_NOTIFY_RENAME, proc(15, "/usr/sbin/cupsd")));
  ASSERT_EQ(moves.size(), 1u);
  std::atomic<bool> released{false};
  std::thread notifyWorker([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    released = true;
    hub.releaseMessage(moves[0]);
  });
  hub.deliver(message(ES_EVENT_TYPE_AUTH_EXEC, proc(16, "/usr/lib/cups/filter/pstops"),
                      into(answers)));
  EXPECT_TRUE(released) << "the filter was asked about before the move was handled";
  notifyWorker.join();
  moves.erase(moves.begin());
  hub.deliver(message(ES_EVENT_TYPE_NOTIFY_RENAME, proc(15, "/usr/sbin/cupsd")));
  hub.deliver(message(ES_EVENT_TYPE_AUTH_EXEC, proc(17, "/bin/sh"), into(answers)));
  EXPECT_EQ(moves.size(), 3u);
  EXPECT_EQ(hub.counters().authAheadOfMoves.load(), 1u);
  release(moves);

  release(b);
  release(c);
  hub.shutdown();
  EXPECT_TRUE(source->stopped);
}

TEST(HeldMoves, AnAuthWaitsForTheMovesBeforeItUntilItsPatienceRunsOut) {
  HeldMoves moves(std::chrono::seconds(10));
  moves.held(1);
  moves.held(2);
  moves.held(5);
  std::atomic<bool> through{false};
  std::thread auth([&] {
    EXPECT_TRUE(moves.waitFor(3));
    through = true;
  });
  moves.released(1);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(through);
  moves.released(2);  // 5 came after it: not waited for
  auth.join();

  HeldMoves impatient(std::chrono::milliseconds(10));
  impatient.held(7);
  EXPECT_FALSE(impatient.waitFor(7));
  EXPECT_TRUE(impatient.waitFor(8)) << "a move given up on is waited for again";
  impatient.released(7);
}

TEST_F(Facility, MutesByPathLiteralPrefixAndToken) {
  Seen a;
  es_client_t* ca = client(a, {ES_EVENT_TYPE_NOTIFY_EXIT, ES_EVENT_TYPE_NOTIFY_EXEC});
  ASSERT_EQ(hub.mutePathLiteral(ca, "/usr/bin/quiet"), ES_RETURN_SUCCESS);
  ASSERT_EQ(hub.mutePathPrefix(ca, "/opt/skip/"), ES_RETURN_SUCCESS);
  EXPECT_EQ(hub.mutePathPrefix(ca, ""), ES_RETURN_ERROR);
  auto exit = [&](const ProcessInfo& info) {
    hub.deliver(message(ES_EVENT_TYPE_NOTIFY_EXIT, info));
  };

  exit(proc(20, "/usr/bin/quiet"));
  exit(proc(21, "/usr/bin/quieter"));  // literal: no prefix match
  exit(proc(22, "/opt/skip/tool"));
  exit(proc(23, "/opt/skipped"));
  // An exec into a muted image is muted too.
  const ProcessInfo image = proc(24, "/opt/skip/tool");
  hub.deliver(message(ES_EVENT_TYPE_NOTIFY_EXEC, proc(24, "/bin/sh"), nullptr, &image));
  ASSERT_EQ(a.size(), 2u);
  EXPECT_EQ(audit_token_to_pid(a[0]->process->audit_token), 21);
  EXPECT_EQ(audit_token_to_pid(a[1]->process->audit_token), 23);

  // A token mutes one process: the same pid with another start time is
  // another process.
  const ProcessInfo loud = proc(30, "/usr/bin/loud", 100);
  const audit_token_t token = tokenOf(loud);
  ASSERT_EQ(hub.muteProcess(ca, &token), ES_RETURN_SUCCESS);
  exit(loud);
  exit(proc(30, "/usr/bin/loud", 101));
  ASSERT_EQ(a.size(), 3u);
  EXPECT_EQ(a[2]->process->audit_token.val[7], 101u);
  // Listed for the client, which unmutes them when exclusions change.
  size_t count = 0;
  audit_token_t* tokens = nullptr;
  ASSERT_EQ(hub.mutedProcesses(ca, &count, &tokens), ES_RETURN_SUCCESS);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(audit_token_to_pid(tokens[0]), 30);
  hub.releaseMutedProcesses(tokens, count);

  ASSERT_EQ(hub.unmuteProcess(ca, &token), ES_RETURN_SUCCESS);
  EXPECT_EQ(hub.unmuteProcess(ca, &token), ES_RETURN_ERROR);
  ASSERT_EQ(hub.unmuteAllPaths(ca), ES_RETURN_SUCCESS);
  exit(loud);
  exit(proc(20, "/usr/bin/quiet"));
  EXPECT_EQ(a.size(), 5u);
  release(a);
}

TEST_F(Facility, MessagesCarryLinuxIdentityAndLiveUntilTheLastRelease) {
  Seen a, b;
  client(a, {ES_EVENT_TYPE_NOTIFY_EXEC});
  client(b, {ES_EVENT_TYPE_NOTIFY_EXEC});
  ProcessInfo info = proc(40, "/usr/bin/ls", 250);
  info.auid = 1001;
  info.euid = 0;
  Message* m = message(ES_EVENT_TYPE_NOTIFY_EXEC, proc(40, "/bin/sh"), nullptr, &info);
  m->setExecArgs({"ls", "-l", "/tmp"});
  hub.deliver(m);
  ASSERT_EQ(a.size(), 1u);
  const es_message_t* seen = a[0];
  EXPECT_EQ(m->refs.load(), 2);  // the two clients; the hub let go of its own
  EXPECT_EQ(seen->mach_time, clock.now());
  const es_process_t* p = seen->event.exec.target;
  const audit_token_t& token = p->audit_token;
  EXPECT_EQ(std::make_tuple(audit_token_to_euid(token), audit_token_to_auid(token),
                            audit_token_to_asid(token), audit_token_to_pidversion(token)),
            std::make_tuple(0u, 1001u, 5, 250));
  EXPECT_EQ(p->start_time.tv_usec, 500000);  // 250 ticks of 10 ms
  // An unknown image has no path at all.
  EXPECT_EQ(m->addProcess(proc(41, ""))->executable->path.data, nullptr);

  // Arguments through the API, with bounds.
  ASSERT_EQ(hub.execArgCount(&seen->event.exec), 3u);
  EXPECT_STREQ(hub.execArg(&seen->event.exec, 1).data, "-l");
  EXPECT_EQ(hub.execArg(&seen->event.exec, 3).data, nullptr);
  EXPECT_EQ(hub.execArgCount(nullptr), 0u);

  // Extra retains need extra releases; the message stays readable.
  hub.retainMessage(seen);
  hub.releaseMessage(seen);
  release(b);
  EXPECT_EQ(m->refs.load(), 1);
  EXPECT_STREQ(p->executable->path.data, "/usr/bin/ls");
  hub.releaseMessage(seen);  // freed: ASan checks nothing reads it after
}

TEST_F(Facility, AuthAnswersCombineDenyWinsAndOpensNeedTheirFlags) {
  Seen a, b;
  es_client_t* ca = client(a, {ES_EVENT_TYPE_AUTH_EXEC, ES_EVENT_TYPE_AUTH_OPEN});
  es_client_t* cb = client(b, {ES_EVENT_TYPE_AUTH_EXEC});

  // Both allow: one kernel answer, after the second.
  std::vector<bool> answers;
  hub.deliver(message(ES_EVENT_TYPE_AUTH_EXEC, proc(60, "/usr/bin/a"), into(answers)));
  const es_message_t* m1 = a.at(0);
  EXPECT_EQ(m1->deadline, clock.now() + 1000);
  EXPECT_EQ(hub.respondAuthResult(ca, m1, ES_AUTH_RESULT_ALLOW, false), ES_RESPOND_RESULT_SUCCESS);
  EXPECT_TRUE(answers.empty());
  EXPECT_EQ(hub.respondAuthResult(ca, m1, ES_AUTH_RESULT_ALLOW, false),
            ES_RESPOND_RESULT_ERR_DUPLICATE_RESPONSE);
  EXPECT_EQ(hub.respondAuthResult(cb, m1, ES_AUTH_RESULT_ALLOW, true), ES_RESPOND_RESULT_SUCCESS);
  EXPECT_EQ(answers, std::vector<bool>{true});
  // Flags answers are for opens only.
  EXPECT_EQ(hub.respondFlagsResult(ca, m1, 0xFFFFFFFF, false), ES_RESPOND_RESULT_ERR_EVENT_TYPE);

  // One denial decides at once; the late allow changes nothing.
  answers.clear();
  hub.deliver(message(ES_EVENT_TYPE_AUTH_EXEC, proc(61, "/usr/bin/b"), into(answers)));
  const es_message_t* m2 = a.at(1);
  EXPECT_EQ(hub.respondAuthResult(cb, m2, ES_AUTH_RESULT_DENY, false), ES_RESPOND_RESULT_SUCCESS);
  EXPECT_EQ(hub.respondAuthResult(ca, m2, ES_AUTH_RESULT_ALLOW, false), ES_RESPOND_RESULT_SUCCESS);
  EXPECT_EQ(answers, std::vector<bool>{false});
  EXPECT_EQ(hub.counters().authDenied.load(), 1u);

  // A client that never got the message can't answer it; notifications
  // take no answers.
  Seen c;
  es_client_t* cc = client(c, {ES_EVENT_TYPE_NOTIFY_EXIT});
  EXPECT_EQ(hub.respondAuthResult(cc, m2, ES_AUTH_RESULT_DENY, false), ES_RESPOND_RESULT_NOT_FOUND);
  hub.deliver(message(ES_EVENT_TYPE_NOTIFY_EXIT, proc(62, "/x")));
  EXPECT_EQ(hub.respondAuthResult(cc, c.at(0), ES_AUTH_RESULT_ALLOW, false),
            ES_RESPOND_RESULT_ERR_EVENT_TYPE);

  // An open is allowed only if the flags cover all it asked for.
  answers.clear();
  for (const auto& [requested, authorized] :
       {std::pair{0x3u, 0x1u}, std::pair{0x1u, 0x1u}, std::pair{0x3u, 0xFFFFFFFFu}}) {
    Message* open = message(ES_EVENT_TYPE_AUTH_OPEN, proc(70, "/usr/bin/cat"), into(answers));
    open->es.event.open.file = open->addFile("/mnt/usb/a", nullptr);
    open->requestedFlags = requested;
    hub.deliver(open);
    EXPECT_EQ(hub.respondAuthResult(ca, a.back(), ES_AUTH_RESULT_ALLOW, false),
              ES_RESPOND_RESULT_ERR_EVENT_TYPE);
    EXPECT_EQ(hub.respondFlagsResult(ca, a.back(), authorized, false), ES_RESPOND_RESULT_SUCCESS);
  }
  EXPECT_EQ(answers, (std::vector<bool>{false, true, true}));

  for (auto* seen : {&a, &b, &c}) release(*seen);
  EXPECT_EQ(hub.counters().authReleasedUnanswered.load(), 0u);
}

TEST_F(Facility, UnansweredAuthIsAllowedAtTheDeadlineOrAtTheLastRelease) {
  // Nobody subscribed: allowed at once.
  std::vector<bool> answers;
  hub.deliver(message(ES_EVENT_TYPE_AUTH_EXEC, proc(80, "/usr/bin/x"), into(answers)));
  EXPECT_EQ(answers, std::vector<bool>{true});

  Seen a;
  es_client_t* ca = client(a, {ES_EVENT_TYPE_AUTH_EXEC});
  answers.clear();
  hub.deliver(message(ES_EVENT_TYPE_AUTH_EXEC, proc(81, "/usr/bin/stuck"), into(answers)));
  ASSERT_EQ(dispatch.pendingTimers().size(), 1u);
  fireAt(999);
  EXPECT_TRUE(answers.empty());
  fireAt(1);
  EXPECT_EQ(answers, std::vector<bool>{true});
  EXPECT_EQ(hub.counters().authFailsafe.load(), 1u);
  // The client's late answer is taken but changes nothing.
  EXPECT_EQ(hub.respondAuthResult(ca, a[0], ES_AUTH_RESULT_DENY, false), ES_RESPOND_RESULT_SUCCESS);
  EXPECT_EQ(answers, std::vector<bool>{true});
  hub.releaseMessage(a[0]);

  // Released without an answer before the deadline: allowed right then,
  // and only then.
  answers.clear();
  hub.deliver(message(ES_EVENT_TYPE_AUTH_EXEC, proc(82, "/usr/bin/y"), into(answers)));
  hub.releaseMessage(a[1]);
  EXPECT_EQ(answers, std::vector<bool>{true});
  EXPECT_EQ(hub.counters().authReleasedUnanswered.load(), 1u);
  fireAt(5000);
  EXPECT_EQ(answers.size(), 1u);
}

// Deliveries from several source threads, answers from a queue's threads,
// while the control side mutes and resubscribes: every AUTH message gets
// exactly one kernel answer and every message is freed. The sanitizer
// builds run it for the hub's locking.
TEST(FacilityThreads, ConcurrentDeliveryAnswersAndControl) {
  constexpr int kSources = 3, kPerSource = 400;
  std::atomic<int> answers{0}, denials{0}, held{0};
  tarvex::itx::rtn::linux_platform::MonotonicClock clock;
  tarvex::itx::rtn::linux_platform::LinuxDispatch dispatch(clock);
  LinuxEndpointSecurity hub(clock, dispatch);
  hub.addSource(std::make_unique<FakeSource>(setOf({ES_EVENT_TYPE_AUTH_EXEC})));
  auto answerers = dispatch.createConcurrentQueue("t.answers", tarvex::itx::rtn::QosClass::Default);
  const es_event_type_t exec = ES_EVENT_TYPE_AUTH_EXEC;
  auto handler = [&](es_client_t* c, const es_message_t* m) {
    hub.retainMessage(m);
    ++held;
    answerers->async([&, c, m] {
      const bool allow = audit_token_to_pid(m->process->audit_token) % 7;
      hub.respondAuthResult(c, m, allow ? ES_AUTH_RESULT_ALLOW : ES_AUTH_RESULT_DENY, false);
      hub.releaseMessage(m);
      --held;
    });
  };
  es_client_t* clients[2] = {};
  for (es_client_t*& client : clients) {
    ASSERT_EQ(hub.newClient(&client, handler), ES_NEW_CLIENT_RESULT_SUCCESS);
    ASSERT_EQ(hub.subscribe(client, &exec, 1), ES_RETURN_SUCCESS);
  }
  std::vector<std::thread> sources;
  for (int s = 0; s < kSources; ++s) {
    sources.emplace_back([&, s] {
      for (int i = 0; i < kPerSource; ++i) {
        auto* m = message(ES_EVENT_TYPE_AUTH_EXEC, proc(s * kPerSource + i + 1, "/usr/bin/x"),
                          [&](bool allow) { ++answers, denials += !allow; });
        m->budgetNanos = 5'000'000'000ull;
        hub.deliver(m);
      }
    });
  }
  for (int i = 0; i < 50; ++i) {
    hub.mutePathPrefix(clients[1], "/usr/bin/");
    hub.unsubscribe(clients[0], &exec, 1);
    hub.unmuteAllPaths(clients[1]);
    hub.subscribe(clients[0], &exec, 1);
  }
  for (auto& t : sources) t.join();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while ((answers < kSources * kPerSource || held > 0) && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(answers.load(), kSources * kPerSource);
  ASSERT_EQ(held.load(), 0);
  EXPECT_GT(denials.load(), 0);
  EXPECT_EQ(hub.counters().authFailsafe.load(), 0u);
  EXPECT_EQ(hub.counters().authReleasedUnanswered.load(), 0u);
}

}  // namespace
}  // namespace endpointsecurity::linux_es
