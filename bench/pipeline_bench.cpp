// Throughput of the NOTIFY pipeline and latency of AUTH answers, from a
// delivery thread through the client's queues, an observer, the record, the
// dictionary and a daemon link that only counts.
#include <benchmark/benchmark.h>
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <utility>
#include <vector>

#include "clock/monotonicclock.h"
#include "dispatch/callerhelps.h"
#include "dispatch/linuxdispatch.h"
#include "esclient/client.h"
#include "latencycounters.h"
#include "observers/proceventobserver.h"
#include "rtn/platform.h"
#include "support/fake_daemon_link.h"
#include "support/message_builder.h"

namespace {

using lumo::testing::MessageBuilder;
using lumo::testing::TestMessage;
using tarvex::itx::rtn::linux_platform::CallerHelps;
using tarvex::itx::rtn::linux_platform::LinuxDispatch;
using tarvex::itx::rtn::linux_platform::MonotonicClock;

// A facility with counters only, so that bookkeeping does not weigh on the
// figures. Answer times are stored by the message's seq_num.
class CountingEs : public endpointsecurity::IEndpointSecurityApi {
 public:
  explicit CountingEs(MonotonicClock& clock) : clock_(clock) {}

  void deliver(const es_message_t* m) {
    retained.fetch_add(1, std::memory_order_relaxed);
    handler_(client(), m);
    releaseMessage(m);
  }
  es_client_t* client() { return reinterpret_cast<es_client_t*>(this); }

  es_new_client_result_t newClient(es_client_t** c, endpointsecurity::MessageHandler h) override {
    handler_ = std::move(h);
    *c = client();
    return ES_NEW_CLIENT_RESULT_SUCCESS;
  }
  es_return_t deleteClient(es_client_t*) override { return ES_RETURN_SUCCESS; }
  es_clear_cache_result_t clearCache(es_client_t*) override {
    return ES_CLEAR_CACHE_RESULT_SUCCESS;
  }
  es_return_t subscribe(es_client_t*, const es_event_type_t*, uint32_t) override {
    return ES_RETURN_SUCCESS;
  }
  es_return_t unsubscribe(es_client_t*, const es_event_type_t*, uint32_t) override {
    return ES_RETURN_SUCCESS;
  }
  es_respond_result_t respondAuthResult(es_client_t*, const es_message_t* m, es_auth_result_t,
                                        bool) override {
    if (m->seq_num < answeredAt.size()) answeredAt[m->seq_num] = clock_.now();
    answers.fetch_add(1, std::memory_order_release);
    return ES_RESPOND_RESULT_SUCCESS;
  }
  es_respond_result_t respondFlagsResult(es_client_t* c, const es_message_t* m, uint32_t,
                                         bool cache) override {
    return respondAuthResult(c, m, ES_AUTH_RESULT_ALLOW, cache);
  }
  void retainMessage(const es_message_t*) override {
    retained.fetch_add(1, std::memory_order_relaxed);
  }
  void releaseMessage(const es_message_t*) override {
    retained.fetch_sub(1, std::memory_order_relaxed);
  }
  es_return_t muteProcess(es_client_t*, const audit_token_t*) override { return ES_RETURN_SUCCESS; }
  es_return_t unmuteProcess(es_client_t*, const audit_token_t*) override {
    return ES_RETURN_SUCCESS;
  }
  es_return_t mutedProcesses(es_client_t*, size_t* count, audit_token_t** tokens) override {
    *count = 0;
    *tokens = nullptr;
    return ES_RETURN_SUCCESS;
  }
  void releaseMutedProcesses(audit_token_t*, size_t) override {}
  es_return_t mutePathPrefix(es_client_t*, const char*) override { return ES_RETURN_SUCCESS; }
  es_return_t mutePathLiteral(es_client_t*, const char*) override { return ES_RETURN_SUCCESS; }
  es_return_t unmuteAllPaths(es_client_t*) override { return ES_RETURN_SUCCESS; }
  uint32_t execArgCount(const es_event_exec_t* e) override {
    return static_cast<uint32_t>(e->args.size);
  }
  es_string_token_t execArg(const es_event_exec_t* e, uint32_t i) override {
    const auto* args = reinterpret_cast<const std::string*>(e->args.data);
    return {args[i].size(), args[i].c_str()};
  }

  std::atomic<int64_t> retained{0};
  std::atomic<uint64_t> answers{0};
  std::vector<uint64_t> answeredAt;

 private:
  MonotonicClock& clock_;
  endpointsecurity::MessageHandler handler_;
};

// A daemon that only counts what reaches it.
class CountingDaemon : public tarvex::itx::xpc::ProtectionDaemonXPCInterface {
 public:
  void registerWithCompletionHandler(tarvex::itx::xpc::ReplyBlock reply) override { reply(true); }
  void handleFileEvent(const tarvex::itx::xpc::Dictionary&) override { count(); }
  void handlePrinterEvent(const tarvex::itx::xpc::Dictionary&) override { count(); }
  void handleProcessStartEvent(const tarvex::itx::xpc::Dictionary&) override { count(); }
  void handleProcessExitEvent(const tarvex::itx::xpc::Dictionary&) override { count(); }
  void count() { received.fetch_add(1, std::memory_order_release); }
  std::atomic<uint64_t> received{0};
};

// LUMO_BENCH_SPIN_US overrides how long idle AUTH workers spin.
tarvex::itx::rtn::linux_platform::DispatchLimits limits() {
  tarvex::itx::rtn::linux_platform::DispatchLimits l;
  if (const char* spin = std::getenv("LUMO_BENCH_SPIN_US")) {
    l.interactiveSpin = std::chrono::microseconds(std::atoi(spin));
  }
  return l;
}

struct Pipeline {
  Pipeline() : es(clock), dispatch(clock, limits()) {
    tarvex::itx::rtn::setPlatform({&es, &dispatch, &clock, nullptr});
    SysExtXPCClientTestPeer::setLink(
        std::make_shared<lumo::testing::FakeConnection>(nullptr), daemon, true);
    observer = std::make_unique<endpointsecurity::ProcEventObserver>(es);
    observer->activate();
    client = std::make_unique<endpointsecurity::Client>();
    client->registerObserver(observer.get());
    client->init();
  }
  ~Pipeline() {
    client->stop();
    client.reset();
    SysExtXPCClientTestPeer::setLink(nullptr, nullptr, false);
    tarvex::itx::rtn::setPlatform({});
  }

  MonotonicClock clock;
  CountingEs es;
  LinuxDispatch dispatch;
  std::shared_ptr<CountingDaemon> daemon = std::make_shared<CountingDaemon>();
  std::unique_ptr<endpointsecurity::ProcEventObserver> observer;
  std::unique_ptr<endpointsecurity::Client> client;
};

void waitUntil(const std::atomic<uint64_t>& counter, uint64_t target) {
  while (counter.load(std::memory_order_acquire) < target) std::this_thread::yield();
}

// Exec notifications with a command line, as fast as one delivery thread
// can push them; the time includes draining every record to the daemon.
void BM_NotifyPipeline(benchmark::State& state) {
  Pipeline p;
  constexpr int kDistinct = 64;
  std::vector<std::unique_ptr<TestMessage>> messages;
  for (int i = 0; i < kDistinct; ++i) {
    messages.push_back(MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC)
                           .exec({.pid = 1000 + i, .path = std::string("/usr/bin/make")},
                                 {"make", "-j2", "all"})
                           .build());
  }
  const int64_t batch = state.range(0);
  uint64_t sent = 0;
  for (auto _ : state) {
    for (int64_t i = 0; i < batch; ++i) p.es.deliver(messages[i % kDistinct]->get());
    sent += static_cast<uint64_t>(batch);
    waitUntil(p.daemon->received, sent);
  }
  state.SetItemsProcessed(static_cast<int64_t>(sent));
  state.counters["lost"] = static_cast<double>(sent - p.daemon->received.load());
  state.counters["still_retained"] = static_cast<double>(p.es.retained.load());
}
BENCHMARK(BM_NotifyPipeline)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

// AUTH_EXEC that no observer answers, delivered at a steady rate; latency
// from delivery to the client's default answer. With the second argument
// the delivering thread answers itself, as the permission reader does
// (CallerHelps); without, a worker of the AUTH queue is handed each one.
void BM_AuthAnswerLatency(benchmark::State& state) {
  Pipeline p;
  const int64_t rate = state.range(0);
  const bool helping = state.range(1) != 0;
  const int64_t count = rate / 2;  // half a second of traffic per iteration
  std::vector<std::unique_ptr<TestMessage>> messages;
  for (int64_t i = 0; i < count; ++i) {
    auto m = MessageBuilder::auth(ES_EVENT_TYPE_AUTH_EXEC)
                 .exec({.pid = 2000, .path = std::string("/usr/bin/true")}, {"true"})
                 .build();
    m->get()->seq_num = static_cast<uint64_t>(i);
    messages.push_back(std::move(m));
  }
  std::vector<uint64_t> deliveredAt(static_cast<size_t>(count));
  prctl(PR_SET_TIMERSLACK, 1000UL);
  std::vector<double> latenciesUs;
  const auto gap = std::chrono::nanoseconds(1'000'000'000 / rate);
  for (auto _ : state) {
    p.es.answeredAt.assign(static_cast<size_t>(count), 0);
    const uint64_t before = p.es.answers.load();
    auto next = std::chrono::steady_clock::now();
    for (int64_t i = 0; i < count; ++i) {
      // Sleep rather than spin between messages, as a delivery thread
      // blocked in the kernel would; late ones go out back to back.
      if (std::chrono::steady_clock::now() < next) std::this_thread::sleep_until(next);
      next += gap;
      es_message_t* m = messages[static_cast<size_t>(i)]->get();
      m->deadline = p.clock.now() + 60'000'000'000ull;
      deliveredAt[static_cast<size_t>(i)] = p.clock.now();
      if (helping) {
        CallerHelps helps;
        p.es.deliver(m);
        helps.help();
      } else {
        p.es.deliver(m);
      }
    }
    waitUntil(p.es.answers, before + static_cast<uint64_t>(count));
    for (int64_t i = 0; i < count; ++i) {
      latenciesUs.push_back(
          static_cast<double>(p.es.answeredAt[static_cast<size_t>(i)] - deliveredAt[i]) / 1000.0);
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(latenciesUs.size()));
  lumo::bench::reportLatencies(state, std::move(latenciesUs));
}
BENCHMARK(BM_AuthAnswerLatency)
    ->Args({50000, 0})
    ->Args({50000, 1})
    ->Iterations(4)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
