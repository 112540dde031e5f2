#import "xpc/remotedaemon.h"

#include <utility>

#import "xpc/valuebridge.h"

namespace tarvex::itx::xpc::apple_platform {

namespace {

class RemoteDaemon final : public ProtectionDaemonXPCInterface {
 public:
  explicit RemoteDaemon(id<ProtectionDaemonXPCInterface> daemon) : daemon_(daemon) {}

  void registerWithCompletionHandler(ReplyBlock reply) override {
    const ReplyBlock done = std::move(reply);
    @autoreleasepool {
      [daemon_ registerWithCompletionHandler:^(BOOL accepted) {
        if (done) done(accepted == YES);
      }];
    }
  }
  void handleFileEvent(const Dictionary& event) override {
    @autoreleasepool {
      [daemon_ handleFileEvent:toNSDictionary(event)];
    }
  }
  void handlePrinterEvent(const Dictionary& event) override {
    @autoreleasepool {
      [daemon_ handlePrinterEvent:toNSDictionary(event)];
    }
  }
  void handleProcessStartEvent(const Dictionary& event) override {
    @autoreleasepool {
      [daemon_ handleProcessStartEvent:toNSDictionary(event)];
    }
  }
  void handleProcessExitEvent(const Dictionary& event) override {
    @autoreleasepool {
      [daemon_ handleProcessExitEvent:toNSDictionary(event)];
    }
  }

 private:
  const id<ProtectionDaemonXPCInterface> daemon_;
};

}  // namespace

std::shared_ptr<ProtectionDaemonXPCInterface> makeRemoteDaemon(
    id<ProtectionDaemonXPCInterface> daemon) {
  return std::make_shared<RemoteDaemon>(daemon);
}

}  // namespace tarvex::itx::xpc::apple_platform
