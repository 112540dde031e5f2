#pragma once

namespace tarvex::itx::rtnmac {

class MacHelper {
 public:
  // True when the product's application is there as a directory.
  static bool isLumoInstalled();
};

}  // namespace tarvex::itx::rtnmac
