#include "proxy/sysextconfig.h"

#include <gtest/gtest.h>

namespace {

using endpointsecurity::SysextConfig;
using endpointsecurity::SysextExclusions;
using Texts = std::vector<std::string>;

TEST(SysextConfig, StartsWithNothingOnAndOtherVendorsExcluded) {
  const SysextConfig config;
  EXPECT_FALSE(config.settings().dup || config.settings().webcontrol ||
               config.settings().devicecontrol);

  const SysextExclusions exclusions = config.exclusions();
  EXPECT_TRUE(exclusions.processPaths.empty());
  ASSERT_EQ(exclusions.pathPrefixes.size(), 20u);
  EXPECT_EQ(exclusions.pathPrefixes.front(),
            "/Applications/AVGAntivirus.app/Contents/Backend/services/");
  EXPECT_EQ(exclusions.pathPrefixes[12], "/Library/Sophos Anti-Virus/");
  EXPECT_EQ(exclusions.pathPrefixes.back(), "/Applications/Bitdefender/");
  ASSERT_EQ(exclusions.bundleIds.size(), 9u);
  EXPECT_EQ(exclusions.bundleIds.front(), "com.bitdefender.agentui.sp");
  EXPECT_EQ(exclusions.bundleIds.back(), "com.crowdstrike.falcon.Agent");
}

TEST(SysextConfig, NewExclusionsReplaceTheDefaultsAndReadersGetCopies) {
  SysextConfig config;
  SysextExclusions snapshot = config.exclusions();
  EXPECT_EQ(config.exclusions({{"/usr/bin/backup"}, {"/opt/scanner/"}, {}}), 0);
  EXPECT_EQ(snapshot.bundleIds.size(), 9u);

  const SysextExclusions stored = config.exclusions();
  EXPECT_EQ(stored.processPaths, Texts{"/usr/bin/backup"});
  EXPECT_EQ(stored.pathPrefixes, Texts{"/opt/scanner/"});
  EXPECT_TRUE(stored.bundleIds.empty());
}

}  // namespace
