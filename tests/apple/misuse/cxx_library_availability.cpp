// The SDK's C++ library marks what the oldest supported macOS lacks.
// expect: 'wait' is unavailable
#include <atomic>
#include <chrono>
#include <thread>

void drain(const std::atomic<int>& pending) {
#if LUMO_MISUSE
  for (int seen = pending.load(); seen != 0; seen = pending.load()) pending.wait(seen);
#else
  while (pending.load() != 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
#endif
}
