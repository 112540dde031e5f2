#import "xpc/valuebridge.h"

#include <gtest/gtest.h>

#include <cstdint>

#import "nsexpect.h"
#include "xpc/xpcclient.h"

using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::NumberKind;
using tarvex::itx::xpc::Value;
using namespace tarvex::itx::xpc::apple_platform;

namespace {

sysext::FileEvent sampleFileEvent() {
  sysext::FileEvent file;
  file.set_filename1("/Volumes/USB Stick/report.docx");
  file.set_filename2("");
  file.set_fileop(sysext::kFileCloseModified);
  file.set_mounttype(sysext::kRemovable);
  file.set_filesize(UINT64_MAX);
  file.set_pid(0xFFFFFFFFu);
  file.set_sid(100004);
  file.set_uid(501);
  return file;
}

}  // namespace

TEST(ValueBridge, IntIsMadeAsAnInt) {
  NSNumber* number = toNSNumber(Number::ofInt(-5));
  EXPECT_STREQ(number.objCType, @encode(int));
  EXPECT_EQ(number.intValue, -5);
}

TEST(ValueBridge, UnsignedIntKeepsItsTopBit) {
  NSNumber* number = toNSNumber(Number::ofUnsignedInt(0xFFFFFFFFu));
  EXPECT_EQ(number.unsignedIntValue, 0xFFFFFFFFu);
  // Made as an int, it would read back as -1.
  EXPECT_EQ(number.longLongValue, 4294967295LL);
}

TEST(ValueBridge, UnsignedLongLongKeepsAllBits) {
  NSNumber* number = toNSNumber(Number::ofUnsignedLongLong(UINT64_MAX));
  EXPECT_EQ(number.unsignedLongLongValue, UINT64_MAX);
  EXPECT_TRUE([number isEqualToNumber:[NSNumber numberWithUnsignedLongLong:UINT64_MAX]]);
}

TEST(ValueBridge, LongLongStaysSigned) {
  EXPECT_EQ(toNSNumber(Number::ofLongLong(-1)).longLongValue, -1);
}

TEST(ValueBridge, BoolIsTheBooleanObject) {
  EXPECT_EQ((__bridge CFBooleanRef)toNSNumber(Number::ofBool(true)), kCFBooleanTrue);
  EXPECT_EQ((__bridge CFBooleanRef)toNSNumber(Number::ofBool(false)), kCFBooleanFalse);
}

TEST(ValueBridge, FileEventHasTheDaemonsKeysAndNumbers) {
  const sysext::FileEvent file = sampleFileEvent();
  NSDictionary* event = toNSDictionary(*SysExtXPCClient::convertFileEventToDict(&file));
  ASSERT_EQ(event.count, 8u);
  EXPECT_NSEQ(event[@"filename1"], @"/Volumes/USB Stick/report.docx");
  EXPECT_NSEQ(event[@"filename2"], @"");
  EXPECT_STREQ([event[@"fileop"] objCType], @encode(int));
  EXPECT_EQ([event[@"fileop"] intValue], sysext::kFileCloseModified);
  EXPECT_EQ([event[@"mounttype"] intValue], sysext::kRemovable);
  EXPECT_EQ([event[@"filesize"] unsignedLongLongValue], UINT64_MAX);
  EXPECT_EQ([event[@"pid"] unsignedIntValue], 0xFFFFFFFFu);
  EXPECT_EQ([event[@"pid"] longLongValue], 4294967295LL);
  EXPECT_EQ([event[@"sid"] unsignedIntValue], 100004u);
  EXPECT_EQ([event[@"uid"] unsignedIntValue], 501u);
}

TEST(ValueBridge, ProcessEventCarriesItsTimestamp) {
  sysext::ProcEvent proc;
  proc.set_path("/bin/zsh");
  proc.set_cmd("zsh -c true");
  proc.set_ppid(1);
  proc.set_timestamp(0x8000000000000001ull);
  NSDictionary* event = toNSDictionary(*SysExtXPCClient::convertProcEventToDict(&proc));
  ASSERT_EQ(event.count, 7u);
  EXPECT_NSEQ(event[@"cmd"], @"zsh -c true");
  EXPECT_EQ([event[@"ppid"] unsignedIntValue], 1u);
  EXPECT_EQ([event[@"timestamp"] unsignedLongLongValue], 0x8000000000000001ull);
}

TEST(ValueBridge, StringKeepsEveryByte) {
  NSString* text = toObjC(Value(std::string("a\0b", 3)));
  EXPECT_EQ(text.length, 3u);
  EXPECT_EQ(*fromNSString(text), std::string("a\0b", 3));
  EXPECT_NSEQ(toObjC(Value("Zürich")), @"Zürich");
}

TEST(ValueBridge, EntriesWithoutAPropertyListValueAreLeftOut) {
  Dictionary dictionary;
  dictionary.entries.push_back({"kept", Value("yes")});
  dictionary.entries.push_back({"nil", Value()});
  dictionary.entries.push_back({"latin1", Value(std::string("caf\xE9"))});
  NSDictionary* converted = toNSDictionary(dictionary);
  EXPECT_NSEQ(converted.allKeys, @[ @"kept" ]);

  Array array;
  array.items = {Value(), Value(Number::ofInt(1))};
  EXPECT_NSEQ(toNSArray(array), @[ @1 ]);
}

TEST(ValueBridge, NilAndForeignObjectsBecomeNil) {
  EXPECT_TRUE(fromObjC(nil).isNil());
  EXPECT_TRUE(fromObjC([NSNull null]).isNil());
  EXPECT_TRUE(fromObjC([NSDate date]).isNil());
  EXPECT_FALSE(fromNSString(nil).has_value());
}

TEST(ValueBridge, NumbersComeBackWithTheirKind) {
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

TEST(ValueBridge, ExclusionsKeepTheirShape) {
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
}

TEST(ValueBridge, DictionariesSurviveTheRoundTrip) {
  Dictionary policy;
  policy.entries.push_back({"dupon", Number::ofBool(true)});
  policy.entries.push_back({"webcontrolon", Number::ofBool(false)});
  policy.entries.push_back({"nested", Array{{Value("x"), Value(Number::ofInt(3))}}});
  const Value back = fromObjC(toObjC(policy));
  ASSERT_NE(back.dictionary(), nullptr);
  EXPECT_EQ(back.dictionary()->size(), 3u);
  EXPECT_EQ(*back.dictionary()->find("dupon")->number(), Number::ofBool(true));
  EXPECT_EQ(*back.dictionary()->find("webcontrolon")->number(), Number::ofBool(false));
  EXPECT_EQ(*back.dictionary()->find("nested"),
            Value(Array{{Value("x"), Value(Number::ofInt(3))}}));
}
