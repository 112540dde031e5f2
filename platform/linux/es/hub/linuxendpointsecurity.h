#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <vector>

#include "es/hub/eventsource.h"
#include "es/hub/heldmoves.h"
#include "es/hub/message.h"
#include "es/procfs/procinfo.h"
#include "esclient/esapi.h"
#include "rtn/clock.h"
#include "rtn/dispatch.h"

namespace endpointsecurity::linux_es {

// One client of the facility: its handler, what it subscribed and muted.
struct ClientState {
  MessageHandler handler;
  std::mutex mutex;  // guards everything below
  EventSet subscribed;
  std::set<std::string, std::less<>> mutedLiterals;
  std::vector<std::string> mutedPrefixes;
  // Keyed by (pid, pid version): a recycled pid is another process.
  std::map<std::pair<pid_t, unsigned>, audit_token_t> mutedProcesses;
  bool deleted = false;
};

struct FacilityCounters {
  std::atomic<uint64_t> delivered{0};
  std::atomic<uint64_t> unwanted{0};  // no client subscribed or all muted
  std::atomic<uint64_t> authAllowed{0};
  std::atomic<uint64_t> authDenied{0};
  std::atomic<uint64_t> authFailsafe{0};            // allowed at the deadline
  std::atomic<uint64_t> authReleasedUnanswered{0};  // allowed at the last release
  std::atomic<uint64_t> authAheadOfMoves{0};  // a client held earlier moves too long
};

// The Linux Endpoint Security facility: the hub between the kernel event
// sources and the clients. Sources follow the union of the clients'
// subscriptions; messages go to every subscribed client that has not muted
// the process; AUTH answers are combined per message (any denial wins) into
// one kernel response, and a fail-safe allows at the deadline whatever no
// client answered, so no process can hang on the extension.
//
// Differences from the ES framework, by design: no signing identifiers
// (signing_id and team_id are empty, is_platform_binary is false), the
// cache flag of an answer is ignored (nothing is cached), and an exec into
// a muted image is muted too.
class LinuxEndpointSecurity final : public IEndpointSecurityApi, public IEventSink {
 public:
  struct Budgets {
    uint64_t authExecNanos = 3'000'000'000ull;
    uint64_t authOpenNanos = 1'000'000'000ull;
    uint64_t authOtherNanos = 3'000'000'000ull;
  };

  LinuxEndpointSecurity(tarvex::itx::rtn::IClock& clock, tarvex::itx::rtn::IDispatch& dispatch,
                        std::string procRoot = "/proc");
  ~LinuxEndpointSecurity() override;

  // Sources are added before the first client subscribes.
  void addSource(std::unique_ptr<IEventSource> source);
  const Budgets& budgets() const { return budgets_; }
  const FacilityCounters& counters() const { return counters_; }
  // Stops every source (their threads are joined).
  void shutdown();

  // IEndpointSecurityApi
  es_new_client_result_t newClient(es_client_t** client, MessageHandler handler) override;
  es_return_t deleteClient(es_client_t* client) override;
  es_clear_cache_result_t clearCache(es_client_t* client) override;
  es_return_t subscribe(es_client_t* client, const es_event_type_t* events,
                        uint32_t count) override;
  es_return_t unsubscribe(es_client_t* client, const es_event_type_t* events,
                          uint32_t count) override;
  es_respond_result_t respondAuthResult(es_client_t* client, const es_message_t* message,
                                        es_auth_result_t result, bool cache) override;
  es_respond_result_t respondFlagsResult(es_client_t* client, const es_message_t* message,
                                         uint32_t authorizedFlags, bool cache) override;
  void retainMessage(const es_message_t* message) override;
  void releaseMessage(const es_message_t* message) override;
  es_return_t muteProcess(es_client_t* client, const audit_token_t* token) override;
  es_return_t unmuteProcess(es_client_t* client, const audit_token_t* token) override;
  es_return_t mutedProcesses(es_client_t* client, size_t* count,
                             audit_token_t** tokens) override;
  void releaseMutedProcesses(audit_token_t* tokens, size_t count) override;
  es_return_t mutePathPrefix(es_client_t* client, const char* prefix) override;
  es_return_t mutePathLiteral(es_client_t* client, const char* path) override;
  es_return_t unmuteAllPaths(es_client_t* client) override;
  uint32_t execArgCount(const es_event_exec_t* event) override;
  es_string_token_t execArg(const es_event_exec_t* event, uint32_t index) override;

  // IEventSink
  void deliver(Message* message) override;
  bool wants(es_event_type_t type) const override;
  void catchUpOthers(const IEventSource* asking) override;
  ProcessCache& processes() override { return cache_; }
  uint64_t now() override { return clock_.now(); }

 private:
  ClientState* stateOf(es_client_t* client);
  static Message* ownerOf(const es_event_exec_t* event);
  static bool muted(ClientState& client, const es_message_t& message);
  es_respond_result_t answer(es_client_t* client, const es_message_t* message, bool deny);
  es_return_t changeSubscription(es_client_t* client, const es_event_type_t* events,
                                 uint32_t count, bool on);
  // Recomputes the union and tells the sources. Takes sourcesMutex_.
  void applyUnion();
  void scheduleFailsafe(Message& message);
  // Every source delivers what the kernel queued for it so far.
  void catchUp();

  tarvex::itx::rtn::IClock& clock_;
  tarvex::itx::rtn::IDispatch& dispatch_;
  tarvex::itx::rtn::QueueRef failsafeQueue_;
  const Budgets budgets_;
  ProcReader reader_;
  ProcessCache cache_;
  FacilityCounters counters_;
  std::atomic<uint64_t> seq_{0};
  HeldMoves moves_;

  // Shared while a message is handed out, exclusive to add or delete a
  // client, so a deleted client's handler is never called afterwards.
  mutable std::shared_mutex clientsMutex_;
  // Never shrinks: messages in flight point at their targets.
  std::vector<std::unique_ptr<ClientState>> clients_;

  std::mutex sourcesMutex_;
  std::vector<std::unique_ptr<IEventSource>> sources_;
  // The same sources, for catch-ups: never under sourcesMutex_, which is
  // held while a source joins the thread that may be asking.
  std::mutex catchUpMutex_;
  std::vector<IEventSource*> catchUpSources_;
  EventSet warnedMissing_;
  std::atomic<uint64_t> wanted_[2] = {0, 0};
};

}  // namespace endpointsecurity::linux_es
