// os_log checks every argument against its format literal.
// expect: format specifies type 'int' but the argument has type
#include <string>

#include "log/log.h"

LUMO_LOG_MODULE("MAC_ESCLIENT")

void report(const std::string& path, int pid) {
#if LUMO_MISUSE
  LOG_INFO("process %d at %{public}s\n", path.c_str(), pid);
#else
  LOG_INFO("process %d at %{public}s\n", pid, path.c_str());
#endif
}
