#include "dispatch/appledispatch.h"

#include <dispatch/dispatch.h>

#include <memory>
#include <string>
#include <utility>

namespace tarvex::itx::rtn::apple_platform {

// The core names QoS classes by their numeric values; keep them in step.
static_assert(static_cast<unsigned>(QosClass::UserInteractive) == QOS_CLASS_USER_INTERACTIVE);
static_assert(static_cast<unsigned>(QosClass::UserInitiated) == QOS_CLASS_USER_INITIATED);
static_assert(static_cast<unsigned>(QosClass::Default) == QOS_CLASS_DEFAULT);
static_assert(static_cast<unsigned>(QosClass::Utility) == QOS_CLASS_UTILITY);
static_assert(static_cast<unsigned>(QosClass::Background) == QOS_CLASS_BACKGROUND);
static_assert(kLatestDispatchTime < DISPATCH_TIME_FOREVER);
static_assert(DISPATCH_TIME_NOW == 0);

namespace {

// Tasks travel as heap objects through the function-pointer variants: one
// allocation, no copy of the closure, and nothing for ARC to manage.
void runTask(void* context) {
  const std::unique_ptr<Task> task(static_cast<Task*>(context));
  (*task)();
}

class DispatchQueue final : public IQueue {
 public:
  DispatchQueue(dispatch_queue_t queue, std::string label)
      : queue_(queue), label_(std::move(label)) {}

  void async(Task task) override { dispatch_async_f(queue_, new Task(std::move(task)), runTask); }
  const char* label() const override { return label_.c_str(); }
  dispatch_queue_t native() const { return queue_; }

 private:
  const dispatch_queue_t queue_;
  const std::string label_;
};

// The global queues take a QoS class where they once took a priority; the
// core's high priority is DISPATCH_QUEUE_PRIORITY_HIGH's class.
dispatch_queue_t globalFor(QosClass qos) {
  return dispatch_get_global_queue(static_cast<intptr_t>(qos), 0);
}

}  // namespace

QueueRef AppleDispatch::createConcurrentQueue(const char* label, QosClass target) {
  dispatch_queue_t queue = dispatch_queue_create(label, DISPATCH_QUEUE_CONCURRENT);
  if (queue == nullptr) return nullptr;
  dispatch_set_target_queue(queue, globalFor(target));
  return std::make_shared<DispatchQueue>(queue, label != nullptr ? label : "");
}

QueueRef AppleDispatch::globalQueue(QosClass qos) {
  dispatch_queue_t queue = globalFor(qos);
  return std::make_shared<DispatchQueue>(queue, dispatch_queue_get_label(queue));
}

namespace {

// A block that dispatch_block_cancel can stop before it runs.
class BlockTimer final : public ITimer {
 public:
  explicit BlockTimer(Task task) {
    auto shared = std::make_shared<Task>(std::move(task));
    block_ = dispatch_block_create(static_cast<dispatch_block_flags_t>(0), ^{
      (*shared)();
    });
  }
  void cancel() override { dispatch_block_cancel(block_); }
  dispatch_block_t block() const { return block_; }

 private:
  dispatch_block_t block_;
};

class NoTimer final : public ITimer {
 public:
  void cancel() override {}
};

}  // namespace

TimerRef AppleDispatch::after(uint64_t when, const QueueRef& queue, Task task) {
  // Never due: drop it now.
  if (when > kLatestDispatchTime || !queue) return std::make_shared<NoTimer>();
  dispatch_queue_t native = globalFor(QosClass::Default);
  if (const auto* own = dynamic_cast<const DispatchQueue*>(queue.get())) {
    native = own->native();
  } else {
    // A queue of another kind (a test's) gets the task when it is due.
    QueueRef target = queue;
    task = [target, inner = std::move(task)]() mutable { target->async(std::move(inner)); };
  }
  auto timer = std::make_shared<BlockTimer>(std::move(task));
  dispatch_after(when, native, timer->block());
  return timer;
}

void AppleDispatch::main() { dispatch_main(); }

}  // namespace tarvex::itx::rtn::apple_platform
