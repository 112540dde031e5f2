// The log objects: os_log_create's reference is kept for the life of the
// process, as every module's objects are.
#include "log/logsink.h"

namespace tarvex::itx::log {

LogHandle makeLog(const char* subsystem, const char* category) {
  return reinterpret_cast<LogHandle>(os_log_create(subsystem, category));
}

}  // namespace tarvex::itx::log
