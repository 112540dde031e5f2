// The macOS seams, built once at process start and never destroyed: the
// facility and the queues may still call into them while the process exits.
// Logging needs nothing here: the log macros are os_log itself.
#include "clock/machclock.h"
#include "dispatch/appledispatch.h"
#include "es/appleendpointsecurity.h"
#include "log/log.h"
#include "rtn/platform.h"
#include "xpc/machserviceconnector.h"

// The runtime's log objects, created at load and not written to.
LUMO_LOG_EXTRA_MODULE(kRuntimeLog, "MAC_SPECIFIC")

namespace tarvex::itx::rtn {

bool installPlatform(int /*argc*/, char** /*argv*/) {
  auto* clock = new apple_platform::MachClock();
  auto* dispatch = new apple_platform::AppleDispatch();
  auto* es = new endpointsecurity::apple_platform::AppleEndpointSecurity();
  auto* connector = new xpc::apple_platform::MachServiceConnector();
  setPlatform({es, dispatch, clock, connector});
  return true;
}

}  // namespace tarvex::itx::rtn
