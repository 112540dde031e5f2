#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "metrics/counters.h"

namespace tarvex::itx::xpc::linux_platform {

// What the extension's ends of the link did, for the service status and the
// metrics file. The daemon's ends (accepted sockets) are not counted.
struct LinkCounters {
  // The event calls, in the order of kEventKinds.
  static constexpr int kEventKinds = 4;
  static constexpr const char* kEventKindNames[kEventKinds] = {"process_start", "process_exit",
                                                               "file", "print"};

  std::atomic<int64_t> established{0};       // links up now
  std::atomic<uint64_t> connections{0};      // links established since start
  std::atomic<uint64_t> sendQueueDrops{0};   // calls refused by a full send queue
  std::atomic<uint64_t> eventsQueued[kEventKinds] = {};
  // Refused by a full queue, or lost with a link that ended before they went.
  std::atomic<uint64_t> eventsDropped[kEventKinds] = {};
};

LinkCounters& linkCounters();

// The index of an event call's selector in kEventKindNames, -1 for others.
int eventKindOf(std::string_view selector);

// The counters as readings of the metrics registry.
[[nodiscard]] rtn::linux_platform::CounterRegistration registerLinkCounters();

}  // namespace tarvex::itx::xpc::linux_platform
