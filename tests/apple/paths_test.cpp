// The macOS layout the core reads: product folders and the printing system.
#include <gtest/gtest.h>

#include "observers/cupspaths.h"
#include "rtnmac/productpaths.h"

using tarvex::itx::rtnmac::productPaths;

TEST(ApplePaths, ProductLayout) {
  EXPECT_EQ(productPaths().deploymentFolder, "/Library/Application Support/Tarvex/Lumo/EP/");
  EXPECT_EQ(productPaths().applicationBundle, "/Applications/Tarvex Lumo.app");
  for (const std::string& own : productPaths().ownDirectories) {
    // Muted by prefix: without the slash "/Applications/Tarvex Lumo.appx"
    // would be muted too.
    EXPECT_EQ(own.back(), '/') << own;
  }
  ASSERT_EQ(productPaths().ownDirectories.size(), 2u);
  EXPECT_EQ(productPaths().ownDirectories[0], productPaths().deploymentFolder);
  EXPECT_EQ(productPaths().ownDirectories[1], productPaths().applicationBundle + "/");
}

TEST(ApplePaths, PrintingSystemAsEndpointSecurityReportsIt) {
  const endpointsecurity::CupsPaths& cups = endpointsecurity::cupsPaths();
  EXPECT_EQ(cups.socket, "/private/var/run/cupsd");
  EXPECT_EQ(cups.spoolPrefix, "/private/var/spool/cups/d");
  ASSERT_EQ(cups.programDirs.size(), 3u);
  EXPECT_EQ(cups.programDirs[0], "/usr/libexec/cups/filter/");
  EXPECT_EQ(cups.programDirs[1], "/usr/libexec/cups/backend/");
  EXPECT_EQ(cups.programDirs[2], "/usr/libexec/cups/monitor/");
}
