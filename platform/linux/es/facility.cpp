// The kernel-backed facility of the real extension binary: the hub and the
// event sources this machine's kernel allows, probed once at start.
#include <cstdlib>
#include <cstring>
#include <string>

#ifdef LUMO_HAVE_BPF
#include "es/bpflsmprobe.h"
#include "es/bpfprocesssource.h"
#include "es/bpfuipcsource.h"
#endif
#include "es/fanotifyauthsource.h"
#include "es/fanotifyfilesource.h"
#include "es/linuxendpointsecurity.h"
#include "es/procconnectorsource.h"
#include "log/log.h"
#include "setup/facility.h"

LUMO_LOG_MODULE("LINUX_ES")

namespace tarvex::itx::rtn::linux_platform {

#ifdef LUMO_HAVE_BPF
using endpointsecurity::linux_es::BpfProcessSource;
#endif
using endpointsecurity::linux_es::LinuxEndpointSecurity;
using endpointsecurity::linux_es::ProcConnectorSource;

namespace {

// LUMO_PROCESS_TIER=bpf|connector pins the process tier (trials, tests).
std::string pinnedTier(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr ? value : "";
}

void addProcessTier(LinuxEndpointSecurity& hub) {
  const std::string pinned = pinnedTier("LUMO_PROCESS_TIER");
  std::string why = "not built with BPF";
#ifdef LUMO_HAVE_BPF
  if (pinned != "connector") {
    if (auto source = BpfProcessSource::open(hub, &why)) {
      LOG_INFO("Process events: BPF tier (tp_btf exec, fork, exit with ring buffer).");
      hub.addSource(std::move(source));
      return;
    }
    LOG_WARN("Process events: BPF tier unavailable (%{public}s); trying the process connector.",
             why.c_str());
  }
#endif
  if (auto source = ProcConnectorSource::open(hub, &why)) {
    LOG_INFO("Process events: netlink process connector tier (fallback; enrichment from /proc).");
    hub.addSource(std::move(source));
    return;
  }
  LOG_ERROR("Process events: no tier available (%{public}s); exec, fork and exit stay silent.",
            why.c_str());
}

void probeLsmTier() {
#ifdef LUMO_HAVE_BPF
  std::string why;
  if (endpointsecurity::linux_es::bpfLsmAvailable(&why)) {
    LOG_INFO("Authorisation: BPF LSM programs run here; answers still come from fanotify "
             "permission events, which can wait for the observers.");
    return;
  }
  LOG_INFO("Authorisation: BPF LSM tier unavailable (%{public}s); fanotify permission events "
           "only.",
           why.c_str());
#endif
}

void addUipcTier(LinuxEndpointSecurity& hub) {
#ifdef LUMO_HAVE_BPF
  std::string why;
  if (auto source = endpointsecurity::linux_es::BpfUipcSource::open(hub, &why)) {
    LOG_INFO("Local-socket connects: BPF cgroup/connect_unix on the cgroup2 root.");
    hub.addSource(std::move(source));
    return;
  }
  LOG_WARN("Local-socket connects unavailable (%{public}s); print jobs get no submitter pid.",
           why.c_str());
#else
  (void)hub;
  LOG_WARN("Local-socket connects unavailable (not built with BPF).");
#endif
}

}  // namespace

endpointsecurity::IEndpointSecurityApi* makeEndpointSecurity(IClock& clock, IDispatch& dispatch) {
  // Lives as long as the process: the sources' threads call into it.
  auto* hub = new LinuxEndpointSecurity(clock, dispatch);
  addProcessTier(*hub);
  // Before the files: a catch-up delivers a job's submitter (its connect)
  // before the spooler's data file.
  addUipcTier(*hub);
  // Opened on the first file subscription; it logs then what it could mark.
  hub->addSource(std::make_unique<endpointsecurity::linux_es::FanotifyFileSource>(*hub));
  hub->addSource(std::make_unique<endpointsecurity::linux_es::FanotifyAuthSource>(*hub));
  probeLsmTier();
  return hub;
}

}  // namespace tarvex::itx::rtn::linux_platform
