#pragma once

#include <string_view>

namespace tarvex::itx::rtn::linux_platform {

// Names the calling thread for ps/top/gdb. The kernel keeps 15 characters;
// labels are reverse-DNS, so the tail is the part worth keeping.
void nameThread(std::string_view name);

}  // namespace tarvex::itx::rtn::linux_platform
