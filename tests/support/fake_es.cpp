#include "support/fake_es.h"

#include <gtest/gtest.h>

#include <cstring>

namespace lumo::testing {

FakeEndpointSecurity::~FakeEndpointSecurity() {
  for (const auto& [message, count] : record_.retained) {
    // The message itself may be gone by now: name it by address only.
    EXPECT_EQ(count, 0) << "message " << static_cast<const void*>(message) << " leaked: retained "
                        << count << " more time(s) than released";
  }
}

bool FakeEndpointSecurity::act(Call call, es_client_t* client,
                               const std::function<void(Client&)>& change) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++record_.calls[call];
  if (failing_.count(call) != 0) return false;
  const auto index = reinterpret_cast<uintptr_t>(client) - 1;
  if (index >= record_.clients.size()) {
    ADD_FAILURE() << "call on an unknown ES client handle " << client;
    return false;
  }
  change(record_.clients[index]);
  changed_.notify_all();
  return true;
}

void FakeEndpointSecurity::deliver(const es_message_t* message, size_t clientIndex) {
  endpointsecurity::MessageHandler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ASSERT_LT(clientIndex, record_.clients.size()) << "no ES client to deliver to";
    ASSERT_FALSE(record_.clients[clientIndex].deleted) << "delivery to a deleted client";
    handler = handlers_[clientIndex];
    ++record_.retained[message];
  }
  handler(reinterpret_cast<es_client_t*>(clientIndex + 1), message);
  releaseMessage(message);
}

es_new_client_result_t FakeEndpointSecurity::newClient(es_client_t** client,
                                                       endpointsecurity::MessageHandler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++record_.calls[Call::NewClient];
  *client = nullptr;
  if (newClientResult_ != ES_NEW_CLIENT_RESULT_SUCCESS) return newClientResult_;
  record_.clients.emplace_back();
  handlers_.push_back(std::move(handler));
  *client = reinterpret_cast<es_client_t*>(record_.clients.size());
  return ES_NEW_CLIENT_RESULT_SUCCESS;
}

es_return_t FakeEndpointSecurity::deleteClient(es_client_t* client) {
  return result(act(Call::DeleteClient, client, [](Client& s) {
    EXPECT_FALSE(s.deleted) << "ES client deleted twice";
    s.deleted = true;
  }));
}

es_respond_result_t FakeEndpointSecurity::respond(Call call, es_client_t* client,
                                                  const es_message_t* message, const Answer& a) {
  const bool ok = act(call, client, [&](Client&) {
    EXPECT_GT(record_.retained[message], 0) << "answer to a message that is no longer retained";
    record_.answers[message].push_back(a);
  });
  return ok ? ES_RESPOND_RESULT_SUCCESS : ES_RESPOND_RESULT_ERR_INTERNAL;
}

void FakeEndpointSecurity::retainMessage(const es_message_t* message) {
  std::lock_guard<std::mutex> lock(mutex_);
  const int before = record_.retained[message]++;
  EXPECT_GT(before, 0) << "retain of a message that was already released";
}

void FakeEndpointSecurity::releaseMessage(const es_message_t* message) {
  std::lock_guard<std::mutex> lock(mutex_);
  const int before = record_.retained[message]--;
  EXPECT_GT(before, 0) << "message " << message << " released more often than retained";
  changed_.notify_all();
}

es_return_t FakeEndpointSecurity::unmuteProcess(es_client_t* client, const audit_token_t* token) {
  return result(act(Call::UnmuteProcess, client, [&](Client& s) {
    std::erase_if(s.mutedProcesses,
                  [&](const audit_token_t& t) { return !std::memcmp(&t, token, sizeof t); });
  }));
}

}  // namespace lumo::testing
