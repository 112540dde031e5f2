#include "rtnmac/machelper.h"

#include <filesystem>
#include <system_error>

#include "log/log.h"
#include "rtnmac/productpaths.h"
#include "rtnmac/productroot.h"

LUMO_LOG_MODULE("MACHELPER")

namespace tarvex::itx::rtnmac {

bool MacHelper::isLumoInstalled() {
  LOG_TRACE_SCOPE();
  // Only the application counts: a deployment left behind by an uninstall
  // does not make the product installed.
  std::error_code ec;
  return std::filesystem::is_directory(underProductRoot(productPaths().applicationBundle), ec);
}

}  // namespace tarvex::itx::rtnmac
