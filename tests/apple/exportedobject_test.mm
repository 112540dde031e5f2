#import "xpc/exportedobject.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "recordingtarget.h"

using lumo::apple_testing::RecordingTarget;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;

namespace {

class ExportedObjectTest : public ::testing::Test {
 protected:
  RecordingTarget target;
  LumoSysextXPCExport* exported = [[LumoSysextXPCExport alloc] initWithTarget:&target];
};

}  // namespace

TEST_F(ExportedObjectTest, ConformsToTheExportedProtocol) {
  EXPECT_TRUE([exported conformsToProtocol:@protocol(SysextXPCInterface)]);
}

TEST_F(ExportedObjectTest, MountPointsArriveWithPathAndType) {
  [exported addMountPoint:@"/Volumes/Backup Disk" mountType:2];
  [exported removeMountPoint:@"/Volumes/Backup Disk"];
  [exported clearMountPoints];
  const auto calls = target.calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].selector, "addMountPoint:mountType:");
  EXPECT_EQ(calls[0].text, "/Volumes/Backup Disk");
  EXPECT_EQ(calls[0].number, 2u);
  EXPECT_EQ(calls[1].selector, "removeMountPoint:");
  EXPECT_EQ(calls[1].text, "/Volumes/Backup Disk");
  EXPECT_EQ(calls[2].selector, "clearMountPoints");
}

TEST_F(ExportedObjectTest, NilArgumentsArriveAsNullPointers) {
  [exported addMountPoint:nil mountType:1];
  [exported removeMountPoint:nil];
  [exported setPrinter:nil verdict:YES];
  [exported setPolicy:nil
             withTimestamp:5
      andCompletionHandler:^(BOOL){
      }];
  [exported setExclusions:nil
             withTimestamp:6
      andCompletionHandler:^(BOOL){
      }];
  const auto calls = target.calls();
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_FALSE(calls[0].text.has_value());
  EXPECT_FALSE(calls[1].text.has_value());
  EXPECT_FALSE(calls[2].text.has_value());
  EXPECT_EQ(calls[2].number, 1u);
  EXPECT_FALSE(calls[3].value.has_value());
  EXPECT_FALSE(calls[4].value.has_value());
}

TEST_F(ExportedObjectTest, PolicyKeepsTimestampAndBooleansAndRepliesOnce) {
  target.answer = false;
  __block int replies = 0;
  __block BOOL accepted = YES;
  [exported setPolicy:@{@"dupon" : @YES, @"webcontrolon" : @NO}
             withTimestamp:UINT64_MAX
      andCompletionHandler:^(BOOL ok) {
        ++replies;
        accepted = ok;
      }];
  const auto calls = target.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].number, UINT64_MAX);
  ASSERT_TRUE(calls[0].value.has_value());
  const Dictionary* policy = calls[0].value->dictionary();
  ASSERT_NE(policy, nullptr);
  EXPECT_EQ(*policy->find("dupon")->number(), Number::ofBool(true));
  EXPECT_EQ(*policy->find("webcontrolon")->number(), Number::ofBool(false));
  EXPECT_EQ(replies, 1);
  EXPECT_EQ(accepted, NO);
}

TEST_F(ExportedObjectTest, APolicyOfAnotherClassCountsAsMissing) {
  [exported setPolicy:(NSDictionary*)@[ @1 ]
             withTimestamp:1
      andCompletionHandler:^(BOOL){
      }];
  [exported setExclusions:(NSArray*)@{@"a" : @1}
             withTimestamp:1
      andCompletionHandler:^(BOOL){
      }];
  const auto calls = target.calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_FALSE(calls[0].value.has_value());
  EXPECT_FALSE(calls[1].value.has_value());
}

TEST_F(ExportedObjectTest, ExclusionsArriveAsAnArrayOfDictionaries) {
  __block BOOL accepted = NO;
  [exported setExclusions:@[ @{@"application_description" : @{@"process_bundle_id" : @"com.x"}} ]
             withTimestamp:9
      andCompletionHandler:^(BOOL ok) {
        accepted = ok;
      }];
  const auto calls = target.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].number, 9u);
  ASSERT_TRUE(calls[0].value.has_value());
  ASSERT_NE(calls[0].value->array(), nullptr);
  ASSERT_EQ(calls[0].value->array()->items.size(), 1u);
  const Dictionary* entry = calls[0].value->array()->items[0].dictionary();
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(*entry->find("application_description")->dictionary()->find("process_bundle_id")
                 ->string(),
            "com.x");
  EXPECT_EQ(accepted, YES);
}

TEST_F(ExportedObjectTest, PrinterVerdictArrivesWithTheJob) {
  [exported setPrinter:@"job-12" verdict:NO];
  const auto calls = target.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].selector, "setPrinter:verdict:");
  EXPECT_EQ(calls[0].text, "job-12");
  EXPECT_EQ(calls[0].number, 0u);
}
