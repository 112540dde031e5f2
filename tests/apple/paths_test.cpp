// The macOS layout the core reads.
#include <gtest/gtest.h>

#include "rtnmac/productpaths.h"

using tarvex::itx::rtnmac::productPaths;

// The product's own directories are muted by prefix: without the slash
// "/Applications/Tarvex Lumo.appx" would be muted too.
TEST(ApplePaths, OwnDirectoriesAreTheProductsFoldersWithTheirSlash) {
  ASSERT_EQ(productPaths().ownDirectories.size(), 2u);
  EXPECT_EQ(productPaths().ownDirectories[0], productPaths().deploymentFolder);
  EXPECT_EQ(productPaths().ownDirectories[1], productPaths().applicationBundle + "/");
  for (const std::string& own : productPaths().ownDirectories) EXPECT_EQ(own.back(), '/') << own;
}
