#pragma once

#include <EndpointSecurity/EndpointSecurity.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace endpointsecurity {

// Called on the facility's delivery thread for every message of a client.
using MessageHandler = std::function<void(es_client_t*, const es_message_t*)>;

// The Endpoint Security calls the extension makes, one virtual per call, so
// that the core runs over the platform's facility or a test double.
class IEndpointSecurityApi {
 public:
  virtual ~IEndpointSecurityApi() = default;

  virtual es_new_client_result_t newClient(es_client_t** client, MessageHandler handler) = 0;
  virtual es_return_t deleteClient(es_client_t* client) = 0;
  virtual es_clear_cache_result_t clearCache(es_client_t* client) = 0;

  virtual es_return_t subscribe(es_client_t* client, const es_event_type_t* events,
                                uint32_t count) = 0;
  virtual es_return_t unsubscribe(es_client_t* client, const es_event_type_t* events,
                                  uint32_t count) = 0;

  virtual es_respond_result_t respondAuthResult(es_client_t* client, const es_message_t* message,
                                                es_auth_result_t result, bool cache) = 0;
  virtual es_respond_result_t respondFlagsResult(es_client_t* client,
                                                 const es_message_t* message,
                                                 uint32_t authorizedFlags, bool cache) = 0;

  virtual void retainMessage(const es_message_t* message) = 0;
  virtual void releaseMessage(const es_message_t* message) = 0;

  virtual es_return_t muteProcess(es_client_t* client, const audit_token_t* token) = 0;
  virtual es_return_t unmuteProcess(es_client_t* client, const audit_token_t* token) = 0;
  // On success *tokens holds *count tokens until releaseMutedProcesses.
  virtual es_return_t mutedProcesses(es_client_t* client, size_t* count,
                                     audit_token_t** tokens) = 0;
  virtual void releaseMutedProcesses(audit_token_t* tokens, size_t count) = 0;
  virtual es_return_t mutePathPrefix(es_client_t* client, const char* prefix) = 0;
  virtual es_return_t mutePathLiteral(es_client_t* client, const char* path) = 0;
  virtual es_return_t unmuteAllPaths(es_client_t* client) = 0;

  virtual uint32_t execArgCount(const es_event_exec_t* event) = 0;
  virtual es_string_token_t execArg(const es_event_exec_t* event, uint32_t index) = 0;
};

// Keeps one message retained for as long as it lives.
class RetainedMessage {
 public:
  RetainedMessage(IEndpointSecurityApi& api, const es_message_t* message)
      : api_(&api), message_(message) {
    api_->retainMessage(message_);
  }
  ~RetainedMessage() { reset(); }

  RetainedMessage(RetainedMessage&& other) noexcept
      : api_(other.api_), message_(other.message_) {
    other.message_ = nullptr;
  }
  RetainedMessage& operator=(RetainedMessage&& other) noexcept {
    if (this != &other) {
      reset();
      api_ = other.api_;
      message_ = other.message_;
      other.message_ = nullptr;
    }
    return *this;
  }
  RetainedMessage(const RetainedMessage&) = delete;
  RetainedMessage& operator=(const RetainedMessage&) = delete;

  const es_message_t* get() const { return message_; }
  const es_message_t* operator->() const { return message_; }

  void reset() {
    if (message_ != nullptr) {
      api_->releaseMessage(message_);
      message_ = nullptr;
    }
  }

 private:
  IEndpointSecurityApi* api_;
  const es_message_t* message_;
};

}  // namespace endpointsecurity
