#pragma once

#include "esclient/esapi.h"

namespace endpointsecurity::apple_platform {

// The seam over libEndpointSecurity. Calls that macOS 12 replaced go to the
// replacement where the running system has it and to the old call on
// macOS 11; either way the core sees one behaviour.
class AppleEndpointSecurity final : public IEndpointSecurityApi {
 public:
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
  // The tokens are a malloc'd copy on every system, so that one release
  // fits both the old and the new listing call.
  es_return_t mutedProcesses(es_client_t* client, size_t* count, audit_token_t** tokens) override;
  void releaseMutedProcesses(audit_token_t* tokens, size_t count) override;
  es_return_t mutePathPrefix(es_client_t* client, const char* prefix) override;
  es_return_t mutePathLiteral(es_client_t* client, const char* path) override;
  es_return_t unmuteAllPaths(es_client_t* client) override;

  uint32_t execArgCount(const es_event_exec_t* event) override;
  es_string_token_t execArg(const es_event_exec_t* event, uint32_t index) override;
};

}  // namespace endpointsecurity::apple_platform
