#include "es/appleendpointsecurity.h"

#include <cstdlib>
#include <utility>

namespace endpointsecurity::apple_platform {

namespace {

// The pre-12 calls are only reached on macOS 11. Were the deployment target
// ever raised to 12 their branches would be dead code, not a deprecation
// to act on, so the warning is silenced here and nowhere else.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"

es_return_t legacyMutePathPrefix(es_client_t* client, const char* prefix) {
  return es_mute_path_prefix(client, prefix);
}

es_return_t legacyMutePathLiteral(es_client_t* client, const char* path) {
  return es_mute_path_literal(client, path);
}

es_return_t legacyMutedProcesses(es_client_t* client, size_t* count, audit_token_t** tokens) {
  // The caller owns the array and frees it with free().
  return es_muted_processes(client, count, tokens);
}

#pragma clang diagnostic pop

}  // namespace

es_new_client_result_t AppleEndpointSecurity::newClient(es_client_t** client,
                                                        MessageHandler handler) {
  // The block keeps its own copy of the handler for the client's lifetime.
  const MessageHandler deliver = std::move(handler);
  return es_new_client(client, ^(es_client_t* c, const es_message_t* message) {
    deliver(c, message);
  });
}

es_return_t AppleEndpointSecurity::deleteClient(es_client_t* client) {
  return es_delete_client(client);
}

es_clear_cache_result_t AppleEndpointSecurity::clearCache(es_client_t* client) {
  return es_clear_cache(client);
}

es_return_t AppleEndpointSecurity::subscribe(es_client_t* client, const es_event_type_t* events,
                                             uint32_t count) {
  return es_subscribe(client, events, count);
}

es_return_t AppleEndpointSecurity::unsubscribe(es_client_t* client, const es_event_type_t* events,
                                               uint32_t count) {
  return es_unsubscribe(client, events, count);
}

es_respond_result_t AppleEndpointSecurity::respondAuthResult(es_client_t* client,
                                                             const es_message_t* message,
                                                             es_auth_result_t result, bool cache) {
  return es_respond_auth_result(client, message, result, cache);
}

es_respond_result_t AppleEndpointSecurity::respondFlagsResult(es_client_t* client,
                                                              const es_message_t* message,
                                                              uint32_t authorizedFlags,
                                                              bool cache) {
  return es_respond_flags_result(client, message, authorizedFlags, cache);
}

void AppleEndpointSecurity::retainMessage(const es_message_t* message) {
  es_retain_message(message);
}

void AppleEndpointSecurity::releaseMessage(const es_message_t* message) {
  es_release_message(message);
}

es_return_t AppleEndpointSecurity::muteProcess(es_client_t* client, const audit_token_t* token) {
  return es_mute_process(client, token);
}

es_return_t AppleEndpointSecurity::unmuteProcess(es_client_t* client, const audit_token_t* token) {
  return es_unmute_process(client, token);
}

es_return_t AppleEndpointSecurity::mutedProcesses(es_client_t* client, size_t* count,
                                                  audit_token_t** tokens) {
  *count = 0;
  *tokens = nullptr;
  if (@available(macOS 12.0, *)) {
    es_muted_processes_t* muted = nullptr;
    if (es_muted_processes_events(client, &muted) != ES_RETURN_SUCCESS) return ES_RETURN_ERROR;
    if (muted == nullptr) return ES_RETURN_SUCCESS;
    es_return_t result = ES_RETURN_SUCCESS;
    if (muted->count > 0) {
      auto* copy = static_cast<audit_token_t*>(std::calloc(muted->count, sizeof(audit_token_t)));
      if (copy == nullptr) {
        result = ES_RETURN_ERROR;
      } else {
        for (size_t i = 0; i < muted->count; ++i) copy[i] = muted->processes[i].audit_token;
        *count = muted->count;
        *tokens = copy;
      }
    }
    es_release_muted_processes(muted);
    return result;
  }
  return legacyMutedProcesses(client, count, tokens);
}

void AppleEndpointSecurity::releaseMutedProcesses(audit_token_t* tokens, size_t /*count*/) {
  std::free(tokens);
}

es_return_t AppleEndpointSecurity::mutePathPrefix(es_client_t* client, const char* prefix) {
  if (@available(macOS 12.0, *)) return es_mute_path(client, prefix, ES_MUTE_PATH_TYPE_PREFIX);
  return legacyMutePathPrefix(client, prefix);
}

es_return_t AppleEndpointSecurity::mutePathLiteral(es_client_t* client, const char* path) {
  if (@available(macOS 12.0, *)) return es_mute_path(client, path, ES_MUTE_PATH_TYPE_LITERAL);
  return legacyMutePathLiteral(client, path);
}

es_return_t AppleEndpointSecurity::unmuteAllPaths(es_client_t* client) {
  return es_unmute_all_paths(client);
}

uint32_t AppleEndpointSecurity::execArgCount(const es_event_exec_t* event) {
  return es_exec_arg_count(event);
}

es_string_token_t AppleEndpointSecurity::execArg(const es_event_exec_t* event, uint32_t index) {
  return es_exec_arg(event, index);
}

}  // namespace endpointsecurity::apple_platform
