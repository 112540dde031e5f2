#pragma once

#include <cstdlib>
#include <functional>

#include "rtn/dispatch.h"

namespace tarvex::itx::rtn::linux_platform {

// The platform's dispatch, telling `onMain` when the entry point parks in
// main(): by then the extension has built its components and, installed,
// started them (the facility's sources are open), or gone to sleep.
class ReadyDispatch final : public IDispatch {
 public:
  ReadyDispatch(IDispatch& inner, std::function<void()> onMain)
      : inner_(inner), onMain_(std::move(onMain)) {}

  QueueRef createConcurrentQueue(const char* label, QosClass target) override {
    return inner_.createConcurrentQueue(label, target);
  }
  QueueRef globalQueue(QosClass qos) override { return inner_.globalQueue(qos); }
  TimerRef after(uint64_t when, const QueueRef& queue, Task task) override {
    return inner_.after(when, queue, std::move(task));
  }
  [[noreturn]] void main() override {
    onMain_();
    inner_.main();
    std::abort();  // never reached: the compiler can't see that through a virtual call
  }

 private:
  IDispatch& inner_;
  const std::function<void()> onMain_;
};

}  // namespace tarvex::itx::rtn::linux_platform
