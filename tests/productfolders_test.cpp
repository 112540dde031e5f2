#include "rtnmac/productfolders.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "rtnmac/machelper.h"
#include "rtnmac/productpaths.h"
#include "rtnmac/productroot.h"
#include "support/capture_sink.h"

namespace {

namespace fs = std::filesystem;
using tarvex::itx::rtnmac::productfolders::restoreProductFolders;
using Texts = std::vector<std::string>;

constexpr fs::perms kShared = fs::perms::all;

// The product's paths under a scratch root that the test owns.
class ProductFolders : public ::testing::Test {
 protected:
  ProductFolders() { tarvex::itx::rtnmac::setProductRoot(root.string()); }
  ~ProductFolders() override {
    tarvex::itx::rtnmac::setProductRoot("");
    fs::remove_all(root);
  }

  static void folder(const fs::path& path, fs::perms perms) {
    fs::create_directories(path);
    fs::permissions(path, perms);
  }
  static void file(const fs::path& path, fs::perms perms) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "key";
    fs::permissions(path, perms);
  }
  static fs::perms mode(const fs::path& path) { return fs::status(path).permissions(); }
  // Lines without their "[function file@line] " prefix.
  Texts linesWith(const std::string& part) const {
    Texts texts;
    for (const auto& line : sink.matching(part)) {
      texts.push_back(line.text.substr(line.text.find("] ") + 2));
    }
    return texts;
  }

  lumo::testing::CaptureSink sink;
  const fs::path root = [] {
    std::string pattern = (fs::temp_directory_path() / "lumo-product-XXXXXX").string();
    return fs::path(mkdtemp(pattern.data()));
  }();
  const std::string ep = root.string() + tarvex::itx::rtnmac::productPaths().deploymentFolder;
  const fs::path keys = fs::path(ep) / ".curve";
};

TEST_F(ProductFolders, MissingFoldersAreCreatedInOrderOnlyWhenDeployed) {
  restoreProductFolders();
  EXPECT_EQ(linesWith(""), Texts{"Error: (Recovering Missing Product Folders) The Lumo ES product "
                                 "is not installed. Folder " +
                                 ep + " not found. Code:2 Error:No such file or directory\n"});
  EXPECT_TRUE(fs::is_empty(root));

  fs::create_directories(ep);
  sink.clear();
  restoreProductFolders();
  const std::string product = "Info:  (Recovering Missing Product Folders) re-creating '";
  EXPECT_EQ(linesWith("re-creating"),
            (Texts{product + "IPC/' folder in deployment.\n",
                   product + "IPC/Pro/' folder in deployment.\n",
                   product + "IPC/MB/' folder in deployment.\n",
                   "Info:  (Recovering Missing Temp Folders) re-creating '" + ep +
                       "Temp/' folder in deployment.\n"}));
  for (const char* name : {"IPC/Pro/", "IPC/MB/", "Temp/"}) EXPECT_EQ(mode(ep + name), kShared);
  EXPECT_FALSE(fs::exists(keys));  // the keys are the installer's
  EXPECT_TRUE(sink.matching("Error").empty());

  // A plain file where a folder belongs ends the recovery.
  fs::remove_all(ep + "IPC");
  fs::remove_all(ep + "Temp");
  file(ep + "IPC", fs::perms(0644));
  restoreProductFolders();
  const Texts errors = linesWith("Error: ");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(
      errors[0].starts_with("Error: (Recovering Missing Product Folders) Could not "
                            "create the 'IPC/' folder in deployment. Code:"));
  EXPECT_EQ(linesWith("Assert:"), Texts{"Assert:  Assertion failed: [ false]Could not create the "
                                        "folder '" +
                                        ep + "IPC/' in deployment.\n"});
  EXPECT_FALSE(fs::exists(ep + "Temp/"));
}

TEST_F(ProductFolders, ModesAreRepairedExactlyAndMissingKeysIgnored) {
  folder(ep + "IPC/", fs::perms::owner_all);
  folder(ep + "IPC/Pro/", fs::perms(0755));
  // Sticky and set-id bits count as a difference.
  folder(ep + "IPC/MB/", fs::perms(01777));
  folder(ep + "Temp/", fs::perms(02777));
  folder(keys / "pub" / "tx", fs::perms(0700));
  folder(keys / "prv" / "tx", fs::perms(0700));
  file(keys / "prv" / "tx" / "txserver", fs::perms(0600));
  restoreProductFolders();

  EXPECT_TRUE(sink.matching("re-creating").empty());
  EXPECT_EQ(mode(ep + "IPC/"), fs::perms::owner_all);
  for (const char* name : {"IPC/Pro/", "IPC/MB/", "Temp/"}) EXPECT_EQ(mode(ep + name), kShared);
  for (const fs::path& dir :
       {keys, keys / "pub", keys / "pub" / "tx", keys / "prv", keys / "prv" / "tx"}) {
    EXPECT_EQ(mode(dir), kShared) << dir;
  }
  EXPECT_EQ(mode(keys / "prv" / "tx" / "txserver"), fs::perms(0644));
  EXPECT_FALSE(fs::exists(keys / "prv" / "tx" / "txclient"));
  EXPECT_TRUE(sink.matching("Error").empty());

  // Installed means the application is a directory.
  using tarvex::itx::rtnmac::MacHelper;
  const std::string app = root.string() + tarvex::itx::rtnmac::productPaths().applicationBundle;
  EXPECT_FALSE(MacHelper::isLumoInstalled());
  file(app, fs::perms(0755));
  EXPECT_FALSE(MacHelper::isLumoInstalled());
  fs::remove(app);
  fs::create_directory(app);
  EXPECT_TRUE(MacHelper::isLumoInstalled());
}

}  // namespace
