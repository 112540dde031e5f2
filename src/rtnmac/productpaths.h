#pragma once

#include <string>
#include <vector>

namespace tarvex::itx::rtnmac {

// Where the product lives on this platform. Each platform supplies its own.
struct ProductPaths {
  // Deployment folder, ending in "/".
  std::string deploymentFolder;
  // The installed application; its presence means the product is installed.
  std::string applicationBundle;
  // Directories whose processes are the product's own, muted by prefix.
  std::vector<std::string> ownDirectories;
};

const ProductPaths& productPaths();

}  // namespace tarvex::itx::rtnmac
