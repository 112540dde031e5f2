#include "rtnmac/productfolders.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "rtnmac/productpaths.h"
#include "rtnmac/productroot.h"
#include "support/capture_sink.h"

namespace {

namespace fs = std::filesystem;
using tarvex::itx::rtnmac::productfolders::restoreProductFolders;

constexpr fs::perms kShared = fs::perms::all;

// The product's paths under a scratch root that the test owns.
class ProductFolders : public ::testing::Test {
 protected:
  ProductFolders() { tarvex::itx::rtnmac::setProductRoot(root.string()); }
  ~ProductFolders() override {
    tarvex::itx::rtnmac::setProductRoot("");
    fs::remove_all(root);
  }
  static void make(const fs::path& path, fs::perms perms, bool folder = true) {
    fs::create_directories(folder ? path : path.parent_path());
    if (!folder) std::ofstream(path) << "key";
    fs::permissions(path, perms);
  }
  static fs::perms mode(const fs::path& path) { return fs::status(path).permissions(); }

  lumo::testing::CaptureSink sink;
  const fs::path root = [] {
    std::string pattern = (fs::temp_directory_path() / "lumo-product-XXXXXX").string();
    return fs::path(mkdtemp(pattern.data()));
  }();
  const std::string ep = root.string() + tarvex::itx::rtnmac::productPaths().deploymentFolder;
  const fs::path keys = fs::path(ep) / ".curve";
};

TEST_F(ProductFolders, MissingFoldersAreCreatedAndModesRepairedExactlyOnlyWhenDeployed) {
  restoreProductFolders();
  EXPECT_TRUE(sink.contains("The Lumo ES product is not installed. Folder " + ep + " not found."));
  EXPECT_TRUE(fs::is_empty(root));

  // Sticky and set-id bits count as a difference.
  make(ep + "IPC/MB/", fs::perms(01777));
  make(ep + "Temp/", fs::perms(02777));
  make(keys / "prv" / "tx", fs::perms(0700));
  make(keys / "prv" / "tx" / "txserver", fs::perms(0600), false);
  restoreProductFolders();
  for (const fs::path& dir : {fs::path(ep + "IPC/Pro/"), fs::path(ep + "IPC/MB/"),
                              fs::path(ep + "Temp/"), keys, keys / "prv", keys / "prv" / "tx"}) {
    EXPECT_EQ(mode(dir), kShared) << dir;
  }
  EXPECT_EQ(mode(keys / "prv" / "tx" / "txserver"), fs::perms(0644));
  // The keys are the installer's: nothing of them is created.
  EXPECT_FALSE(fs::exists(keys / "pub") || fs::exists(keys / "prv" / "tx" / "txclient"));
  EXPECT_EQ(sink.count("Error"), 1u);
}

}  // namespace
