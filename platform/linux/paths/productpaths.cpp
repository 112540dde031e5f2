#include "rtnmac/productpaths.h"

namespace tarvex::itx::rtnmac {

// On Linux the product installs under /opt/tarvex/lumo: the deployment
// folder EP/ and the application directory app/.
const ProductPaths& productPaths() {
  static const ProductPaths paths{
      "/opt/tarvex/lumo/EP/",
      "/opt/tarvex/lumo/app",
      {"/opt/tarvex/lumo/EP/", "/opt/tarvex/lumo/app/"},
  };
  return paths;
}

}  // namespace tarvex::itx::rtnmac
