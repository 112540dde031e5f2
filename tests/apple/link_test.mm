// The daemon link over a real NSXPCConnection, to an in-process listener
// that plays the daemon: registration and the daemon's calls cross the
// connection's encoding and come out as the core expects them.
#import "xpc/foundationconnection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#import "fakedaemon.h"
#include "recordingtarget.h"
#include "waiting.h"
#import "xpc/machserviceconnector.h"

using lumo::apple_testing::RecordingTarget;
using lumo::apple_testing::Signal;
using tarvex::itx::xpc::IXPCConnection;
using tarvex::itx::xpc::ProtectionDaemonXPCInterface;

@interface LumoTestListenerDelegate : NSObject <NSXPCListenerDelegate>
@property(nonatomic, strong) LumoFakeDaemon* daemon;
@property(atomic, strong, nullable) NSXPCConnection* accepted;
@end

@implementation LumoTestListenerDelegate
- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection {
  (void)listener;
  connection.exportedInterface =
      [NSXPCInterface interfaceWithProtocol:@protocol(ProtectionDaemonXPCInterface)];
  connection.exportedObject = self.daemon;
  connection.remoteObjectInterface =
      [NSXPCInterface interfaceWithProtocol:@protocol(SysextXPCInterface)];
  self.accepted = connection;
  [connection resume];
  return YES;
}
@end

namespace {

class LinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    delegate.daemon = fake;
    listener.delegate = delegate;
    [listener resume];
    connection = tarvex::itx::xpc::apple_platform::wrapConnection(
        [[NSXPCConnection alloc] initWithListenerEndpoint:listener.endpoint]);
    connection->setExportedObject(&target);
    connection->resume();
    daemon = connection->remoteObjectProxyWithErrorHandler(
        [](const std::string& error) { ADD_FAILURE() << error; });
    ASSERT_TRUE(daemon);
  }
  void TearDown() override {
    connection->invalidate();
    [listener invalidate];
  }

  // Registers and waits for the answer, which also establishes the
  // connection on the listener's side.
  bool registerAndWait() {
    // Shared: a late answer after a time-out must not touch this frame.
    struct Answer {
      Signal arrived;
      std::atomic<bool> accepted{false};
    };
    auto answer = std::make_shared<Answer>();
    daemon->registerWithCompletionHandler([answer](bool ok) {
      answer->accepted = ok;
      answer->arrived.notify();
    });
    return answer->arrived.wait() && answer->accepted;
  }

  LumoFakeDaemon* fake = [[LumoFakeDaemon alloc] init];
  LumoTestListenerDelegate* delegate = [[LumoTestListenerDelegate alloc] init];
  NSXPCListener* listener = [NSXPCListener anonymousListener];
  RecordingTarget target;
  std::shared_ptr<IXPCConnection> connection;
  std::shared_ptr<ProtectionDaemonXPCInterface> daemon;
};

}  // namespace

TEST_F(LinkTest, RegistrationAndTheDaemonsCallsAreAnsweredAcrossTheConnection) {
  ASSERT_TRUE(registerAndWait());
  NSXPCConnection* accepted = delegate.accepted;
  ASSERT_NE(accepted, nil);
  id<SysextXPCInterface> extension = [accepted remoteObjectProxyWithErrorHandler:^(NSError* error) {
    ADD_FAILURE() << error.localizedDescription.UTF8String;
  }];

  target.answer = false;
  dispatch_semaphore_t replied = dispatch_semaphore_create(0);
  __block BOOL answer = YES;
  [extension setPolicy:@{@"dupon" : @YES}
             withTimestamp:42
      andCompletionHandler:^(BOOL ok) {
        answer = ok;
        dispatch_semaphore_signal(replied);
      }];
  ASSERT_TRUE(target.waitForCall());
  ASSERT_EQ(dispatch_semaphore_wait(replied, dispatch_time(DISPATCH_TIME_NOW, 10 * NSEC_PER_SEC)),
            0);
  EXPECT_EQ(answer, NO);

  [extension addMountPoint:@"/Volumes/Share" mountType:1];
  ASSERT_TRUE(target.waitForCall());
  [extension setPrinter:nil verdict:YES];
  ASSERT_TRUE(target.waitForCall());

  EXPECT_EQ(target.calls(),
            (std::vector<std::string>{"setPolicy {dupon=b1;} 42",
                                      "addMountPoint '/Volumes/Share' 1", "setPrinter nil YES"}));

  fake.answer = NO;
  EXPECT_FALSE(registerAndWait());

  Signal invalidated;
  connection->setInvalidationHandler([&] { invalidated.notify(); });
  connection->invalidate();
  EXPECT_TRUE(invalidated.wait());
}

TEST(MachServiceConnector, AServiceNobodyOffersEndsInAnError) {
  tarvex::itx::xpc::apple_platform::MachServiceConnector connector;
  const auto connection = connector.connect("com.tarvex.lumo.test.nobody-offers-this", 0);
  ASSERT_TRUE(connection);
  Signal invalidated;
  Signal failed;
  connection->setExportedObject(nullptr);
  connection->resume();
  connection->setInvalidationHandler([&] { invalidated.notify(); });
  auto daemon = connection->remoteObjectProxyWithErrorHandler([&](const std::string& error) {
    EXPECT_FALSE(error.empty());
    failed.notify();
  });
  ASSERT_TRUE(daemon);
  daemon->registerWithCompletionHandler([](bool) { ADD_FAILURE() << "answered"; });
  EXPECT_TRUE(failed.wait());
  EXPECT_TRUE(invalidated.wait());
}
