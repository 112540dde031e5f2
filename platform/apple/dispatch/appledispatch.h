#pragma once

#include <cstdint>

#include "rtn/dispatch.h"

namespace tarvex::itx::rtn::apple_platform {

// Latest absolute time after() schedules; dispatch_time_t keeps its top two
// bits as clock flags, so anything above this would be read as another
// clock. No uptime reaches it: such a time is never due.
inline constexpr uint64_t kLatestDispatchTime = (uint64_t{1} << 62) - 1;

// Queues, timers and the main loop over libdispatch. Private concurrent
// queues target the global queue of their QoS class; when an observer
// blocks, the system brings up more threads for that class, so a stuck
// AUTH worker does not hold back the deadline queue.
class AppleDispatch final : public IDispatch {
 public:
  QueueRef createConcurrentQueue(const char* label, QosClass target) override;
  QueueRef globalQueue(QosClass qos) override;
  // `when` is mach absolute time, which dispatch_time_t is on this platform.
  TimerRef after(uint64_t when, const QueueRef& queue, Task task) override;
  [[noreturn]] void main() override;
};

}  // namespace tarvex::itx::rtn::apple_platform
