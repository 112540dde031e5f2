#include "rtn/platform.h"

namespace tarvex::itx::rtn {

namespace {
Platform gPlatform;
}

Platform& platform() { return gPlatform; }

void setPlatform(const Platform& seams) { gPlatform = seams; }

}  // namespace tarvex::itx::rtn
