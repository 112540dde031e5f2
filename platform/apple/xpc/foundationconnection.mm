#import "xpc/foundationconnection.h"

#include <functional>
#include <string>
#include <utility>

#import "xpc/exportedobject.h"
#import "xpc/protocols.h"
#import "xpc/remotedaemon.h"

namespace tarvex::itx::xpc::apple_platform {

namespace {

void (^_Nullable blockFor(std::function<void()> handler))(void) {
  if (!handler) return nil;
  const std::function<void()> run = std::move(handler);
  return ^{
    run();
  };
}

std::string describe(NSError* _Nullable error) {
  const char* text = error.localizedDescription.UTF8String;
  return text != nullptr ? text : "";
}

// The core calls in from its own threads, one of which never returns to a
// dispatch pool (the control loop): every call drains what it autoreleased.
class Connection final : public IXPCConnection {
 public:
  explicit Connection(NSXPCConnection* connection) : connection_(connection) {}

  void setExportedObject(SysextXPCInterface* exported) override {
    @autoreleasepool {
      connection_.exportedInterface =
          [NSXPCInterface interfaceWithProtocol:@protocol(SysextXPCInterface)];
      connection_.exportedObject =
          exported != nullptr ? [[LumoSysextXPCExport alloc] initWithTarget:exported] : nil;
    }
  }

  void resume() override {
    @autoreleasepool {
      // The daemon's side is configured after the exported one, then the
      // connection starts.
      connection_.remoteObjectInterface =
          [NSXPCInterface interfaceWithProtocol:@protocol(ProtectionDaemonXPCInterface)];
      [connection_ resume];
    }
  }

  void invalidate() override {
    @autoreleasepool {
      [connection_ invalidate];
    }
  }

  void setInterruptionHandler(std::function<void()> handler) override {
    connection_.interruptionHandler = blockFor(std::move(handler));
  }

  void setInvalidationHandler(std::function<void()> handler) override {
    connection_.invalidationHandler = blockFor(std::move(handler));
  }

  std::shared_ptr<ProtectionDaemonXPCInterface> remoteObjectProxyWithErrorHandler(
      ErrorHandler handler) override {
    const ErrorHandler report = std::move(handler);
    @autoreleasepool {
      id proxy = [connection_ remoteObjectProxyWithErrorHandler:^(NSError* error) {
        if (report) report(describe(error));
      }];
      if (proxy == nil) return nullptr;
      return makeRemoteDaemon(proxy);
    }
  }

 private:
  NSXPCConnection* const connection_;
};

}  // namespace

std::shared_ptr<IXPCConnection> wrapConnection(NSXPCConnection* connection) {
  return std::make_shared<Connection>(connection);
}

}  // namespace tarvex::itx::xpc::apple_platform
