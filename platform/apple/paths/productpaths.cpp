#include "rtnmac/productpaths.h"

namespace tarvex::itx::rtnmac {

// The product's macOS layout: its deployment under Application Support and
// the application in /Applications, whose presence means installed.
const ProductPaths& productPaths() {
  static const ProductPaths paths{
      "/Library/Application Support/Tarvex/Lumo/EP/",
      "/Applications/Tarvex Lumo.app",
      {"/Library/Application Support/Tarvex/Lumo/EP/", "/Applications/Tarvex Lumo.app/"},
  };
  return paths;
}

}  // namespace tarvex::itx::rtnmac
