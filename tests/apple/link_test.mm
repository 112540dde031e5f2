// The daemon link's bridge to Foundation: the link's values as
// property-list objects, the daemon's calls through the exported object into
// the core, the core's events through the remote daemon, and all of it over
// a real NSXPCConnection to an in-process listener that plays the daemon.
#import "xpc/foundationconnection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#import "fakedaemon.h"
#import "nsexpect.h"
#include "recordingtarget.h"
#include "waiting.h"
#import "xpc/exportedobject.h"
#import "xpc/remotedaemon.h"
#import "xpc/valuebridge.h"
#include "xpc/xpcclient.h"

using lumo::apple_testing::RecordingTarget;
using lumo::apple_testing::Signal;
using lumo::apple_testing::text;
using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::IXPCConnection;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::ProtectionDaemonXPCInterface;
using tarvex::itx::xpc::Value;
using namespace tarvex::itx::xpc::apple_platform;

// Kinds met in the events and calls are the exported object's and the
// remote daemon's tests; here the edges.
TEST(ValueBridge, FoundationObjectsComeInWithTheirKindsAndShape) {
  NSArray* objects = @[
    @YES, [NSNumber numberWithInt:-7], @2.9, [NSNull null], [NSDate date], @"Zürich", @{
      @"application_description" : @{@"process_path" : @{@"operator" : @1}},
      @42 : @"a key that is not a string",
    }
  ];
  EXPECT_EQ(text(fromObjC(objects)),
            "[b1,i-7,ll2,nil,nil,'Zürich',"
            "{application_description={process_path={operator=i1;};};},]");
  // Whatever the storage, an unsigned int reads back whole.
  EXPECT_EQ(fromNSNumber([NSNumber numberWithUnsignedInt:0xFFFFFFFFu]).unsignedIntValue(),
            0xFFFFFFFFu);
  EXPECT_FALSE(fromNSString(nil).has_value());
}

TEST(ValueBridge, ValuesGoOutWhole) {
  EXPECT_EQ(toNSNumber(Number::ofLongLong(-1)).longLongValue, -1);
  EXPECT_EQ((__bridge CFBooleanRef)toNSNumber(Number::ofBool(true)), kCFBooleanTrue);
  EXPECT_EQ((__bridge CFBooleanRef)toNSNumber(Number::ofBool(false)), kCFBooleanFalse);
  NSString* text = toObjC(Value(std::string("a\0b", 3)));
  EXPECT_EQ(text.length, 3u);
  EXPECT_EQ(*fromNSString(text), std::string("a\0b", 3));
  EXPECT_NSEQ(toObjC(Value("Zürich")), @"Zürich");
  // What a property list cannot hold is left out.
  Dictionary dictionary;
  dictionary.entries.push_back({"kept", Value("yes")});
  dictionary.entries.push_back({"nil", Value()});
  dictionary.entries.push_back({"latin1", Value(std::string("caf\xE9"))});
  EXPECT_NSEQ(toNSDictionary(dictionary).allKeys, @[ @"kept" ]);
  EXPECT_NSEQ(toNSArray(Array{{Value(), Value(Number::ofInt(1))}}), @[ @1 ]);
}

namespace {

class ExportedObject : public ::testing::Test {
 protected:
  RecordingTarget target;
  LumoSysextXPCExport* exported = [[LumoSysextXPCExport alloc] initWithTarget:&target];
};

}  // namespace

TEST_F(ExportedObject, CallsArriveWithTheirArgumentsNilAndStrangersAsNull) {
  [exported addMountPoint:@"/Volumes/Backup Disk" mountType:2];
  [exported removeMountPoint:nil];
  [exported clearMountPoints];
  [exported setPrinter:@"job-12" verdict:NO];
  [exported setPrinter:nil verdict:YES];
  // Nil, or an object of another class: missing.
  void (^ignored)(BOOL) = ^(BOOL) {
  };
  NSDictionary* notADictionary = (NSDictionary*)@[ @1 ];
  NSArray* notAnArray = (NSArray*)@{@"a" : @1};
  [exported setPolicy:nil withTimestamp:5 andCompletionHandler:ignored];
  [exported setPolicy:notADictionary withTimestamp:1 andCompletionHandler:ignored];
  [exported setExclusions:nil withTimestamp:6 andCompletionHandler:ignored];
  [exported setExclusions:notAnArray withTimestamp:1 andCompletionHandler:ignored];
  EXPECT_EQ(target.calls(),
            (std::vector<std::string>{"addMountPoint '/Volumes/Backup Disk' 2",
                                      "removeMountPoint nil", "clearMountPoints",
                                      "setPrinter 'job-12' NO", "setPrinter nil YES",
                                      "setPolicy nil 5", "setPolicy nil 1", "setExclusions nil 6",
                                      "setExclusions nil 1"}));
}

// The field conversions are the core's; here each number must reach the
// daemon as the kind it reads back.
TEST(RemoteDaemon, EventsGoToTheirSelectorsWithTheirNumbersKinds) {
  LumoFakeDaemon* fake = [[LumoFakeDaemon alloc] init];
  const auto daemon = makeRemoteDaemon(fake);
  sysext::FileEvent file;
  file.set_fileop(sysext::kFileCloseModified);
  file.set_filesize(UINT64_MAX);
  file.set_pid(0xFFFFFFFFu);
  sysext::ProcEvent proc;
  proc.set_timestamp(0x8000000000000001ull);
  sysext::PrinterEvent printer;
  daemon->handleFileEvent(*SysExtXPCClient::convertFileEventToDict(&file));
  daemon->handleProcessStartEvent(*SysExtXPCClient::convertProcEventToDict(&proc));
  daemon->handlePrinterEvent(*SysExtXPCClient::convertPrinterEventToDict(&printer));
  daemon->handleProcessExitEvent(*SysExtXPCClient::convertProcEventToDict(&proc));
  NSArray* selectors = @[
    @"handleFileEvent:", @"handleProcessStartEvent:", @"handlePrinterEvent:",
    @"handleProcessExitEvent:"
  ];
  EXPECT_NSEQ(fake.selectors, selectors);
  ASSERT_EQ(fake.events.count, 4u);
  NSDictionary<NSString*, NSNumber*>* fileDict = fake.events[0];
  NSDictionary<NSString*, NSNumber*>* startDict = fake.events[1];
  EXPECT_EQ(fileDict.count, 8u);
  EXPECT_STREQ(fileDict[@"fileop"].objCType, @encode(int));
  EXPECT_EQ(fileDict[@"fileop"].intValue, sysext::kFileCloseModified);
  EXPECT_EQ(fileDict[@"filesize"].unsignedLongLongValue, UINT64_MAX);
  EXPECT_EQ(fileDict[@"pid"].longLongValue, 4294967295LL);
  EXPECT_EQ(startDict[@"timestamp"].unsignedLongLongValue, 0x8000000000000001ull);
  // Registration answers across a connection are the link test's; an empty
  // reply block is allowed, and the daemon's answer dropped.
  daemon->registerWithCompletionHandler(nullptr);
  EXPECT_EQ(fake.selectors.count, 5u);
}


@interface LumoTestListenerDelegate : NSObject <NSXPCListenerDelegate>
@property(nonatomic, strong) LumoFakeDaemon* daemon;
@property(atomic, strong, nullable) NSXPCConnection* accepted;
@end

@implementation LumoTestListenerDelegate
@synthesize daemon = _daemon;
@synthesize accepted = _accepted;

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
    connection = wrapConnection(
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
