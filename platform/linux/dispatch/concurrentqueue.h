#pragma once

#include <memory>
#include <string>

#include "dispatch/workerpool.h"
#include "rtn/dispatch.h"

namespace tarvex::itx::rtn::linux_platform {

// A queue handle over its own worker pool. Dropping the last reference with
// work still queued is safe: the pool outlives the handle, runs what was
// queued and then lets its workers go.
class ConcurrentQueue final : public IQueue {
 public:
  ConcurrentQueue(std::string label, std::shared_ptr<WorkerPool> pool)
      : label_(std::move(label)), pool_(std::move(pool)) {}
  ~ConcurrentQueue() override { pool_->release(); }

  void async(Task task) override { pool_->post(std::move(task)); }
  const char* label() const override { return label_.c_str(); }

 private:
  const std::string label_;
  const std::shared_ptr<WorkerPool> pool_;
};

}  // namespace tarvex::itx::rtn::linux_platform
