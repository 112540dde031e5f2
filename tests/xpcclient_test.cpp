#include <gtest/gtest.h>

#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "xpc/utf8.h"
#include "xpc/xpcclient.h"

namespace {

using lumo::testing::CaptureSink;
using lumo::testing::FakeDaemonLink;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::NumberKind;

std::vector<std::string> keysOf(const Dictionary& d) {
  std::vector<std::string> keys;
  for (const auto& e : d.entries) keys.push_back(e.key);
  return keys;
}

NumberKind kindOf(const Dictionary& d, const char* key) { return d.find(key)->number()->kind; }

sysext::FileEvent fileEvent() {
  sysext::FileEvent e;
  e.set_fileop(sysext::kFileRename);
  e.set_mounttype(sysext::kRemovable);
  e.set_filesize(5'000'000'000ull);
  e.set_pid(10);
  e.set_sid(11);
  e.set_uid(12);
  e.set_filename1("/Volumes/USB/a");
  e.set_filename2("/Volumes/USB/b");
  e.set_sn(99);
  return e;
}

sysext::ProcEvent procEvent() {
  sysext::ProcEvent e;
  e.set_pid(20);
  e.set_ppid(1);
  e.set_uid(501);
  e.set_sid(100007);
  e.set_path("/bin/ls");
  e.set_cmd("-l /tmp");
  e.set_timestamp(0xFFFF'FFFF'0000'0001ull);
  e.set_sn(7);
  return e;
}

TEST(XPCEventDictionaries, CarryExactlyTheDaemonsKeysInOrderWithTheirNumberKinds) {
  const auto file = fileEvent();
  auto dict = SysExtXPCClient::convertFileEventToDict(&file);
  ASSERT_TRUE(dict);
  EXPECT_EQ(keysOf(*dict), (std::vector<std::string>{"filename1", "filename2", "fileop",
                                                     "mounttype", "filesize", "pid", "sid",
                                                     "uid"}));
  EXPECT_EQ(*dict->find("filename2")->string(), "/Volumes/USB/b");
  EXPECT_EQ(*dict->find("fileop")->number(), Number::ofInt(sysext::kFileRename));
  EXPECT_EQ(*dict->find("mounttype")->number(), Number::ofInt(2));
  EXPECT_EQ(*dict->find("filesize")->number(), Number::ofUnsignedLongLong(5'000'000'000ull));
  for (const char* key : {"pid", "sid", "uid"}) {
    EXPECT_EQ(kindOf(*dict, key), NumberKind::UnsignedInt) << key;
  }
  EXPECT_EQ(dict->find("uid")->number()->unsignedIntValue(), 12u);

  const auto proc = procEvent();
  dict = SysExtXPCClient::convertProcEventToDict(&proc);
  ASSERT_TRUE(dict);
  EXPECT_EQ(keysOf(*dict), (std::vector<std::string>{"path", "cmd", "pid", "sid", "uid", "ppid",
                                                     "timestamp"}));
  EXPECT_EQ(*dict->find("timestamp")->number(),
            Number::ofUnsignedLongLong(0xFFFF'FFFF'0000'0001ull));
  EXPECT_EQ(*dict->find("sid")->number(), Number::ofUnsignedInt(100007));

  sysext::PrinterEvent printer;
  printer.set_filename("/var/spool/cups/d00012-001");
  printer.set_pid(500);
  printer.set_sn(3);
  dict = SysExtXPCClient::convertPrinterEventToDict(&printer);
  ASSERT_TRUE(dict);
  EXPECT_EQ(keysOf(*dict), (std::vector<std::string>{"filename", "pid"}));
  EXPECT_EQ(*dict->find("pid")->number(), Number::ofUnsignedInt(500));

  // Unset strings still travel, as empty strings.
  sysext::ProcEvent fork;
  fork.set_pid(3);
  dict = SysExtXPCClient::convertProcEventToDict(&fork);
  ASSERT_TRUE(dict);
  EXPECT_EQ(*dict->find("cmd")->string(), "");
}

TEST(XPCSend, EventsGoToTheirDaemonMethodsOrAreDroppedWithoutConnection) {
  CaptureSink sink;
  const auto file = fileEvent();
  const auto proc = procEvent();
  sysext::PrinterEvent printer;
  {
    FakeDaemonLink link;
    EXPECT_TRUE(SysExtXPCClient::sharedInstance().isXPCServiceListening());
    auto& xpc = SysExtXPCClient::sharedInstance();
    xpc.sendFileEvent(&file);
    xpc.sendPrinterEvent(&printer);
    xpc.sendProcessStartEvent(&proc);
    xpc.sendProcessExitEvent(&proc);
    auto got = link.daemon().received();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].selector, "handleFileEvent:");
    EXPECT_EQ(got[1].selector, "handlePrinterEvent:");
    EXPECT_EQ(got[2].selector, "handleProcessStartEvent:");
    EXPECT_EQ(got[3].selector, "handleProcessExitEvent:");
    EXPECT_EQ(got[0].event, *SysExtXPCClient::convertFileEventToDict(&file));
  }
  EXPECT_FALSE(SysExtXPCClient::sharedInstance().isXPCServiceListening());
  SysExtXPCClient::sharedInstance().sendFileEvent(&file);
  SysExtXPCClient::sharedInstance().sendProcessExitEvent(&proc);
  EXPECT_TRUE(sink.contains(
      "[-[SysExtXPCClient sendFileEvent:] xpcclient.cpp@"));
  EXPECT_TRUE(sink.contains("] Warn:  No connection. -[SysExtXPCClient sendFileEvent:]\n"));
  EXPECT_TRUE(
      sink.contains("] Warn:  No connection. -[SysExtXPCClient sendProcessExitEvent:]\n"));
}

TEST(XPCSend, UnrepresentableStringsDropTheEventWithTheirAssertLines) {
  CaptureSink sink;
  FakeDaemonLink link;
  auto file = fileEvent();
  file.set_filename1(std::string("/tmp/\xff\xfe", 7));
  auto proc = procEvent();
  proc.set_cmd(std::string("bad \xc0\xaf", 6));  // overlong encoding
  auto& xpc = SysExtXPCClient::sharedInstance();
  xpc.sendFileEvent(&file);
  xpc.sendProcessStartEvent(&proc);
  xpc.sendProcessExitEvent(&proc);
  EXPECT_EQ(link.daemon().count(), 0u);
  EXPECT_EQ(sink.count("] Assert:  Assertion failed: [ eventDict]Error converting event to "
                       "dictionary.\n"),
            2u);
  EXPECT_EQ(sink.count("] Assert:  Assertion failed: [ eventDict]Error creating event "
                       "dictionary.\n"),
            1u);
  EXPECT_EQ(sink.count("] Assert:  Assertion failed: [ 0]Error creating event dictionary. "
                       "Reason:"),
            3u);
}

TEST(Utf8, AcceptsWellFormedTextOnly) {
  using tarvex::itx::xpc::isValidUtf8;
  EXPECT_TRUE(isValidUtf8(""));
  EXPECT_TRUE(isValidUtf8("/Users/jörg/日本/😀"));
  EXPECT_FALSE(isValidUtf8("\xc3"));              // truncated
  EXPECT_FALSE(isValidUtf8("\xe0\x80\xaf"));      // overlong
  EXPECT_FALSE(isValidUtf8("\xed\xa0\x80"));      // surrogate
  EXPECT_FALSE(isValidUtf8("\xf4\x90\x80\x80"));  // past U+10FFFF
  EXPECT_FALSE(isValidUtf8("a\x80"));
}

}  // namespace
