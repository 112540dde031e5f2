// The Linux seams, built once at process start. They live until the
// process ends and are never destroyed: threads of theirs may still run
// while the process exits.
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "log/log.h"
#include "log/stderrsink.h"
#include "log/systemsink.h"
#include "rtn/platform.h"
#include "rtnmac/productroot.h"
#include "service/servicenotifier.h"
#include "service/servicestatus.h"
#include "setup/entryoptions.h"
#include "setup/facility.h"
#include "watchdog/stallwatchdog.h"
#include "xpc/unixsocketconnector.h"

LUMO_LOG_MODULE("MAC_SPECIFIC")

namespace tarvex::itx::rtn {

namespace {

bool flagSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0' && std::strcmp(value, "0") != 0;
}

}  // namespace

// Knobs of the Linux build, for trials and tests (the product itself takes
// no configuration):
//   LUMO_LOG_DEBUG=1     debug-level lines (Debug, Trace, Func) on
//   LUMO_LOG_STDERR=1    log to stderr even when the journal is there
//   LUMO_PRODUCT_ROOT=D  look for the product's folders under D
//   LUMO_RUNTIME_DIR=D   the daemon's socket lives in D (default /run/tarvex)
//   LUMO_METRICS_FILE=F  write the counters to F in the Prometheus text format
bool installPlatform(int argc, char** argv) {
  linux_platform::answerEntryOptions(argc, argv);
  // Few cores and bursts of short tasks on many threads: an arena per
  // thread would keep each burst's memory resident in every one of them.
  mallopt(M_ARENA_MAX, 2);
  log::ILogSink* sink = flagSet("LUMO_LOG_STDERR")
                            ? new log::linux_platform::StderrSink()
                            : log::linux_platform::makeSystemSink().release();
  // The service status reads the mode and tiers off the log.
  log::setSink(new linux_platform::StatusTap(*sink));
  log::setDebugEnabled(flagSet("LUMO_LOG_DEBUG"));
  // Forked before the platform starts its threads: the child copies
  // little and holds no lock of theirs.
  linux_platform::startStallWatchdog();
  if (const char* root = std::getenv("LUMO_PRODUCT_ROOT")) rtnmac::setProductRoot(root);

  auto* clock = new linux_platform::MonotonicClock();
  auto* dispatch = new linux_platform::LinuxDispatch(*clock);
  IOpenScope* opens = nullptr;
  endpointsecurity::IEndpointSecurityApi* es =
      linux_platform::makeEndpointSecurity(*clock, *dispatch, &opens);
  if (es == nullptr) {
    LOG_ERROR("No Endpoint Security facility on this machine.\n");
    return false;
  }
  auto* connector = new xpc::linux_platform::UnixSocketConnector();
  setPlatform({es, &linux_platform::startServiceSide(*dispatch), clock, connector, opens});
  return true;
}

}  // namespace tarvex::itx::rtn
