#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "esclient/esapi.h"
#include "rtn/clock.h"
#include "support/message_builder.h"

namespace lumo::testing {

// An Endpoint Security facility for the extension's test build: it reads
// one event a line from a FIFO, delivers it to the clients subscribed to its
// type (unless the process is muted), and reports what the extension asks
// of it as "es: ..." lines on stdout, so process tests can watch both ends.
//
// Event lines (key=value, values without blanks; args comma-separated):
//   exec pid=N ppid=N uid=N path=P args=a,b,c [signing=ID] [platform=1]
//   fork pid=N child=N
//   exit pid=N
//   close path=P size=N [modified=1] [pid=N]
//   open path=P size=N [pid=N]
//   auth-exec pid=N path=P args=a,b [deadline_ms=N] [seq=N]
class ScriptedEndpointSecurity : public endpointsecurity::IEndpointSecurityApi {
 public:
  ScriptedEndpointSecurity(std::string fifoPath, tarvex::itx::rtn::IClock& clock);
  ~ScriptedEndpointSecurity() override;

  es_new_client_result_t newClient(es_client_t** client,
                                   endpointsecurity::MessageHandler handler) override;
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

 private:
  struct ClientState {
    endpointsecurity::MessageHandler handler;
    std::set<es_event_type_t> subscribed;
    std::vector<std::string> prefixes;
    std::vector<std::string> literals;
    std::vector<pid_t> mutedPids;
    bool deleted = false;
  };

  void readLoop();
  void handleLine(const std::string& line);
  void deliver(std::unique_ptr<TestMessage> message);
  bool mutedFor(const ClientState& client, const es_message_t* message) const;
  void report(const std::string& line);

  std::string fifoPath_;
  tarvex::itx::rtn::IClock& clock_;
  int fd_ = -1;
  std::thread reader_;
  mutable std::mutex mutex_;
  std::vector<std::unique_ptr<ClientState>> clients_;
  std::map<const es_message_t*, std::pair<std::unique_ptr<TestMessage>, int>> live_;
  uint64_t seq_ = 0;
};

}  // namespace lumo::testing
