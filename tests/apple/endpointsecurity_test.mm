#include "es/appleendpointsecurity.h"

#include <gtest/gtest.h>

using endpointsecurity::apple_platform::AppleEndpointSecurity;

// The test executable carries no Endpoint Security entitlement: the
// facility itself must answer, and refuse.
TEST(AppleEndpointSecurity, AnUnentitledProcessIsRefused) {
  AppleEndpointSecurity es;
  es.releaseMutedProcesses(nullptr, 0);  // nothing to release is safe
  es_client_t* client = nullptr;
  const es_new_client_result_t result =
      es.newClient(&client, [](es_client_t*, const es_message_t*) {});
  if (result == ES_NEW_CLIENT_RESULT_SUCCESS) {
    es.deleteClient(client);
    GTEST_SKIP() << "this test executable is entitled";
  }
  EXPECT_EQ(client, nullptr);
  EXPECT_TRUE(result == ES_NEW_CLIENT_RESULT_ERR_NOT_ENTITLED ||
              result == ES_NEW_CLIENT_RESULT_ERR_NOT_PRIVILEGED ||
              result == ES_NEW_CLIENT_RESULT_ERR_NOT_PERMITTED)
      << "result " << result;
}
