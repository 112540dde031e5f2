// The kernel-backed facility of the real extension binary: the hub and the
// event sources this machine's kernel allows, probed once at start.
#include <cstdlib>
#include <functional>
#include <cstring>
#include <string>

#ifdef LUMO_HAVE_BPF
#include "es/sources/bpflsmprobe.h"
#include "es/sources/bpfprocesssource.h"
#include "es/sources/bpfuipcsource.h"
#endif
#include "es/sources/fanotifyauthsource.h"
#include "es/sources/fanotifyfilesource.h"
#include "es/hub/linuxendpointsecurity.h"
#include "es/sources/procconnectorsource.h"
#include "log/log.h"
#include "memory/freedmemory.h"
#include "metrics/counters.h"
#include "metrics/countersummary.h"
#include "setup/facility.h"
#include "text/byteescape.h"
#include "watchdog/heartbeat.h"

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

using endpointsecurity::linux_es::FanotifyAuthSource;
using endpointsecurity::linux_es::FanotifyFileSource;

// The sources whose counts go beyond the hub's; null where not loaded.
struct CountingSources {
  const FanotifyFileSource* files = nullptr;
  std::function<uint64_t()> processDrops;
  std::function<uint64_t()> uipcDrops;
};

void addProcessTier(LinuxEndpointSecurity& hub, CountingSources& counting) {
  const std::string pinned = pinnedTier("LUMO_PROCESS_TIER");
  std::string why = "not built with BPF";
#ifdef LUMO_HAVE_BPF
  if (pinned != "connector") {
    if (auto source = BpfProcessSource::open(hub, &why)) {
      LOG_INFO("Process events: BPF tier (tp_btf exec, fork, exit with ring buffer).");
      counting.processDrops = [s = source.get()] { return s->dropped(); };
      hub.addSource(std::move(source));
      return;
    }
    LOG_WARN("Process events: BPF tier unavailable (%{public}s); trying the process connector.",
             why.c_str());
  }
#endif
  if (auto source = ProcConnectorSource::open(hub, &why)) {
    LOG_INFO("Process events: netlink process connector tier (fallback; enrichment from /proc).");
    counting.processDrops = [s = source.get()] { return s->overruns(); };
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

void addUipcTier(LinuxEndpointSecurity& hub, CountingSources& counting) {
#ifdef LUMO_HAVE_BPF
  std::string why;
  if (auto source = endpointsecurity::linux_es::BpfUipcSource::open(hub, &why)) {
    LOG_INFO("Local-socket connects: BPF cgroup/connect_unix on the cgroup2 root.");
    counting.uipcDrops = [s = source.get()] { return s->dropped(); };
    hub.addSource(std::move(source));
    return;
  }
  LOG_WARN("Local-socket connects unavailable (%{public}s); print jobs get no submitter pid.",
           why.c_str());
#else
  (void)hub;
  (void)counting;
  LOG_WARN("Local-socket connects unavailable (not built with BPF).");
#endif
}

void registerFacilityCounters(const LinuxEndpointSecurity& hub, CountingSources counting) {
  // The hub and its sources live as long as the process.
  static CounterRegistration registration = registerCounters([&hub, counting](auto& out) {
    const auto& c = hub.counters();
    auto add = [&out](const char* name, const char* help, const char* labels, uint64_t value) {
      out.push_back({name, help, labels, value});
    };
    add("lumo_es_messages_delivered_total", "Facility messages handed to the clients.", "",
        c.delivered.load());
    add("lumo_es_messages_unwanted_total",
        "Facility messages no client subscribed to or all had muted.", "", c.unwanted.load());
    const char* answers = "AUTH answers given to the kernel, by how they came.";
    add("lumo_es_auth_answers_total", answers, "answer=\"allow\"", c.authAllowed.load());
    add("lumo_es_auth_answers_total", answers, "answer=\"deny\"", c.authDenied.load());
    add("lumo_es_auth_answers_total", answers, "answer=\"failsafe\"", c.authFailsafe.load());
    add("lumo_es_auth_answers_total", answers, "answer=\"unanswered\"",
        c.authReleasedUnanswered.load());
    add("lumo_es_auth_ahead_of_moves_total",
        "AUTH messages that went ahead of moves a client held too long.", "",
        c.authAheadOfMoves.load());
    if (counting.files != nullptr) {
      const auto& f = counting.files->counters();
      add("lumo_es_file_overflows_total", "File event queue overflows (events lost).", "",
          f.overflows.load());
      add("lumo_es_file_malformed_total", "File event records dropped as malformed.", "",
          f.malformed.load());
      add("lumo_es_file_unresolved_total", "File events whose directory no longer resolved.", "",
          f.unresolved.load());
    }
    if (counting.processDrops) {
      add("lumo_es_process_lost_total", "Process events lost to ring or connector overruns.", "",
          counting.processDrops());
    }
    if (counting.uipcDrops) {
      add("lumo_es_uipc_lost_total", "Local-socket connects lost to ring overruns.", "",
          counting.uipcDrops());
    }
    add("lumo_es_names_escaped_total", "Names and arguments escaped for not being UTF-8.", "",
        escapedStrings());
    const HeartbeatPage& page = heartbeat();
    add("lumo_es_stall_releases_total",
        "Times the stall watchdog released a stalled permission path.", "",
        page.releases.load());
    const char* allowed = "Permission events the stall watchdog allowed.";
    add("lumo_es_stall_allowed_total", allowed, "state=\"unseen\"", page.allowedUnseen.load());
    add("lumo_es_stall_allowed_total", allowed, "state=\"delivered\"",
        page.allowedPending.load());
    add("lumo_es_stall_late_answers_total",
        "Answers that came after the stall watchdog had allowed their event.", "",
        FanotifyAuthSource::lateAnswers());
  });
}

}  // namespace

endpointsecurity::IEndpointSecurityApi* makeEndpointSecurity(IClock& clock, IDispatch& dispatch,
                                                             IOpenScope** opens) {
  // Lives as long as the process: the sources' threads call into it.
  auto* hub = new LinuxEndpointSecurity(clock, dispatch);
  CountingSources counting;
  addProcessTier(*hub, counting);
  // Before the files: a catch-up delivers a job's submitter (its connect)
  // before the spooler's data file.
  addUipcTier(*hub, counting);
  // Opened on the first file subscription; it logs then what it could mark.
  auto files = std::make_unique<FanotifyFileSource>(*hub);
  counting.files = files.get();
  if (opens != nullptr) *opens = files.get();
  hub->addSource(std::move(files));
  // A reader held by an observer is relieved from the global interactive
  // queue, which wakes only when that happens.
  QueueRef relief = dispatch.globalQueue(QosClass::UserInteractive);
  auto arm = [&clock, &dispatch, relief](std::chrono::microseconds delay, Task check) {
    const auto nanos = static_cast<uint64_t>(delay.count()) * 1000;
    return dispatch.after(clock.now() + clock.nanosToTicks(nanos), relief, std::move(check));
  };
  hub->addSource(std::make_unique<FanotifyAuthSource>(*hub, arm));
  probeLsmTier();
  registerFacilityCounters(*hub, std::move(counting));
  startCounterSummary(clock, dispatch);
  // Loading the BPF programs parsed the kernel's type information, some
  // megabytes freed since: give them back rather than keep them resident.
  returnFreedMemory();
  return hub;
}

}  // namespace tarvex::itx::rtn::linux_platform
