// What the macOS platform hands the core: the Endpoint Security facility
// and the product's layout.
#include "es/appleendpointsecurity.h"

#include <gtest/gtest.h>

#include "rtnmac/productpaths.h"

using endpointsecurity::apple_platform::AppleEndpointSecurity;
using tarvex::itx::rtnmac::productPaths;

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

// The product's own directories are muted by prefix: without the slash
// "/Applications/Tarvex Lumo.appx" would be muted too.
TEST(ApplePaths, OwnDirectoriesAreTheProductsFoldersWithTheirSlash) {
  ASSERT_EQ(productPaths().ownDirectories.size(), 2u);
  EXPECT_EQ(productPaths().ownDirectories[0], productPaths().deploymentFolder);
  EXPECT_EQ(productPaths().ownDirectories[1], productPaths().applicationBundle + "/");
  for (const std::string& own : productPaths().ownDirectories) EXPECT_EQ(own.back(), '/') << own;
}
