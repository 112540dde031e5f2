// Both directions of the daemon link's bridge to Foundation: the link's
// values as property-list objects, the daemon's calls through the exported
// object into the core, and the core's events through the remote daemon.
#import "xpc/valuebridge.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#import "fakedaemon.h"
#import "nsexpect.h"
#include "recordingtarget.h"
#import "xpc/exportedobject.h"
#import "xpc/remotedaemon.h"
#include "xpc/xpcclient.h"

using lumo::apple_testing::RecordingTarget;
using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::NumberKind;
using tarvex::itx::xpc::Value;
using namespace tarvex::itx::xpc::apple_platform;

TEST(ValueBridge, NumbersAreMadeAndReadByTheirKind) {
  NSNumber* signedInt = toNSNumber(Number::ofInt(-5));
  EXPECT_STREQ(signedInt.objCType, @encode(int));
  EXPECT_EQ(signedInt.intValue, -5);
  // Made as an int, it would read back as -1.
  EXPECT_EQ(toNSNumber(Number::ofUnsignedInt(0xFFFFFFFFu)).longLongValue, 4294967295LL);
  EXPECT_EQ(toNSNumber(Number::ofUnsignedLongLong(UINT64_MAX)).unsignedLongLongValue, UINT64_MAX);
  EXPECT_EQ(toNSNumber(Number::ofLongLong(-1)).longLongValue, -1);
  EXPECT_EQ((__bridge CFBooleanRef)toNSNumber(Number::ofBool(true)), kCFBooleanTrue);
  EXPECT_EQ((__bridge CFBooleanRef)toNSNumber(Number::ofBool(false)), kCFBooleanFalse);

  EXPECT_EQ(fromNSNumber(@YES), Number::ofBool(true));
  EXPECT_EQ(fromNSNumber(@NO), Number::ofBool(false));
  EXPECT_EQ(fromNSNumber([NSNumber numberWithInt:-7]), Number::ofInt(-7));
  EXPECT_EQ(fromNSNumber([NSNumber numberWithUnsignedLongLong:UINT64_MAX]),
            Number::ofUnsignedLongLong(UINT64_MAX));
  // Whatever the storage, an unsigned int reads back whole.
  EXPECT_EQ(fromNSNumber([NSNumber numberWithUnsignedInt:0xFFFFFFFFu]).unsignedIntValue(),
            0xFFFFFFFFu);
  EXPECT_EQ(fromNSNumber(@2.9).kind, NumberKind::LongLong);
  EXPECT_EQ(fromNSNumber(@2.9).intValue(), 2);
}

TEST(ValueBridge, StringsKeepEveryByteAndWhatAPropertyListCannotHoldIsLeftOut) {
  NSString* text = toObjC(Value(std::string("a\0b", 3)));
  EXPECT_EQ(text.length, 3u);
  EXPECT_EQ(*fromNSString(text), std::string("a\0b", 3));
  EXPECT_NSEQ(toObjC(Value("Zürich")), @"Zürich");

  Dictionary dictionary;
  dictionary.entries.push_back({"kept", Value("yes")});
  dictionary.entries.push_back({"nil", Value()});
  dictionary.entries.push_back({"latin1", Value(std::string("caf\xE9"))});
  EXPECT_NSEQ(toNSDictionary(dictionary).allKeys, @[ @"kept" ]);
  EXPECT_NSEQ(toNSArray(Array{{Value(), Value(Number::ofInt(1))}}), @[ @1 ]);

  EXPECT_TRUE(fromObjC(nil).isNil());
  EXPECT_TRUE(fromObjC([NSNull null]).isNil());
  EXPECT_TRUE(fromObjC([NSDate date]).isNil());
  EXPECT_FALSE(fromNSString(nil).has_value());
}

TEST(ValueBridge, ContainersKeepTheirShapeBothWays) {
  NSArray* exclusions = @[ @{
    @"application_description" : @{
      @"process_bundle_id" : @"com.example.tool",
      @"process_path" : @{@"comp_value" : @"/usr/local/bin/tool", @"operator" : @1},
    },
    @42 : @"a key that is not a string",
  } ];
  const Value value = fromObjC(exclusions);
  ASSERT_NE(value.array(), nullptr);
  ASSERT_EQ(value.array()->items.size(), 1u);
  const Dictionary* entry = value.array()->items[0].dictionary();
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->size(), 1u);
  const Dictionary* app = entry->find("application_description")->dictionary();
  ASSERT_NE(app, nullptr);
  EXPECT_EQ(*app->find("process_bundle_id")->string(), "com.example.tool");
  const Dictionary* path = app->find("process_path")->dictionary();
  ASSERT_NE(path, nullptr);
  EXPECT_EQ(*path->find("comp_value")->string(), "/usr/local/bin/tool");
  EXPECT_EQ(path->find("operator")->number()->unsignedIntValue(), 1u);

  const Dictionary policy{{{"dupon", Number::ofBool(true)},
                           {"webcontrolon", Number::ofBool(false)},
                           {"nested", Array{{Value("x"), Value(Number::ofInt(3))}}}}};
  // Dictionaries come back in the order of their hashes.
  const Value back = fromObjC(toObjC(policy));
  ASSERT_NE(back.dictionary(), nullptr);
  EXPECT_EQ(back.dictionary()->size(), 3u);
  for (const auto& [key, expected] : policy.entries) {
    EXPECT_EQ(*back.dictionary()->find(key), expected);
  }
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

TEST_F(ExportedObject, PolicyAndExclusionsKeepTimestampAndShapeAndReplyOnce) {
  __block std::vector<bool> replies;
  target.answer = false;
  [exported setPolicy:@{@"dupon" : @YES, @"webcontrolon" : @NO}
             withTimestamp:UINT64_MAX
      andCompletionHandler:^(BOOL ok) {
        replies.push_back(ok);
      }];
  target.answer = true;
  [exported setExclusions:@[ @{@"application_description" : @{@"process_bundle_id" : @"com.x"}} ]
             withTimestamp:9
      andCompletionHandler:^(BOOL ok) {
        replies.push_back(ok);
      }];
  EXPECT_EQ(replies, (std::vector<bool>{false, true}));
  EXPECT_EQ(target.calls(),
            (std::vector<std::string>{
                "setPolicy {dupon=b1;webcontrolon=b0;} 18446744073709551615",
                "setExclusions [{application_description={process_bundle_id='com.x';};},] 9"}));
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
  NSDictionary* event = fake.events[0];
  EXPECT_EQ(event.count, 8u);
  EXPECT_STREQ([event[@"fileop"] objCType], @encode(int));
  EXPECT_EQ([event[@"fileop"] intValue], sysext::kFileCloseModified);
  EXPECT_EQ([event[@"filesize"] unsignedLongLongValue], UINT64_MAX);
  EXPECT_EQ([event[@"pid"] longLongValue], 4294967295LL);
  EXPECT_EQ([fake.events[1][@"timestamp"] unsignedLongLongValue], 0x8000000000000001ull);
}

TEST(RemoteDaemon, RegistrationAnswerComesBack) {
  LumoFakeDaemon* fake = [[LumoFakeDaemon alloc] init];
  const auto daemon = makeRemoteDaemon(fake);
  std::vector<bool> answers;
  daemon->registerWithCompletionHandler([&](bool ok) { answers.push_back(ok); });
  fake.answer = NO;
  daemon->registerWithCompletionHandler([&](bool ok) { answers.push_back(ok); });
  EXPECT_EQ(answers, (std::vector<bool>{true, false}));
  // An empty reply is allowed: the daemon's answer is dropped.
  daemon->registerWithCompletionHandler(nullptr);
  EXPECT_EQ(fake.selectors.count, 3u);
}
