#include "xpc/linkcounters.h"

#include <string>

#include "xpc/selectors.h"

namespace tarvex::itx::xpc::linux_platform {

using rtn::linux_platform::CounterReading;

LinkCounters& linkCounters() {
  static LinkCounters* const counters = new LinkCounters;  // link threads outlive main
  return *counters;
}

int eventKindOf(std::string_view selector) {
  static constexpr const char* kSelectors[LinkCounters::kEventKinds] = {
      selectors::kHandleProcessStartEvent, selectors::kHandleProcessExitEvent,
      selectors::kHandleFileEvent, selectors::kHandlePrinterEvent};
  for (int i = 0; i < LinkCounters::kEventKinds; ++i) {
    if (selector == kSelectors[i]) return i;
  }
  return -1;
}

rtn::linux_platform::CounterRegistration registerLinkCounters() {
  return rtn::linux_platform::registerCounters([](std::vector<CounterReading>& out) {
    const LinkCounters& c = linkCounters();
    const auto value = [](const std::atomic<uint64_t>& n) { return n.load(); };
    out.push_back({"lumo_es_link_up", "1 while the link to the protection daemon is established",
                   "", c.established.load() > 0 ? 1u : 0u});
    out.push_back({"lumo_es_link_connections_total",
                   "Links to the protection daemon established (the first and every reconnection)",
                   "", value(c.connections)});
    out.push_back({"lumo_es_link_send_queue_drops_total",
                   "Calls dropped because the link's send queue was full", "",
                   value(c.sendQueueDrops)});
    for (int i = 0; i < LinkCounters::kEventKinds; ++i) {
      const std::string labels = std::string("type=\"") + LinkCounters::kEventKindNames[i] + "\"";
      out.push_back({"lumo_es_events_delivered_total",
                     "Event records queued on the link to the protection daemon, by type", labels,
                     value(c.eventsQueued[i])});
      out.push_back({"lumo_es_events_dropped_total",
                     "Event records lost on the link (full send queue, or the link ended first), "
                     "by type",
                     labels, value(c.eventsDropped[i])});
    }
  });
}

}  // namespace tarvex::itx::xpc::linux_platform
