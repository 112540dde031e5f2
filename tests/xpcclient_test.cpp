// What the link sends; the dictionaries themselves are checked with the
// observers that fill them.
#include <gtest/gtest.h>

#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "xpc/utf8.h"
#include "xpc/xpcclient.h"

namespace {

using lumo::testing::CaptureSink;
using lumo::testing::FakeDaemonLink;

TEST(XPCSend, EventsGoToTheirDaemonMethodsOrAreDroppedWithoutConnection) {
  CaptureSink sink;
  auto& xpc = SysExtXPCClient::sharedInstance();
  sysext::FileEvent file;
  file.set_filename1("/media/usb/a");
  sysext::ProcEvent proc;
  sysext::PrinterEvent printer;
  {
    FakeDaemonLink link;
    xpc.sendFileEvent(&file);
    xpc.sendPrinterEvent(&printer);
    xpc.sendProcessStartEvent(&proc);
    xpc.sendProcessExitEvent(&proc);
    std::vector<std::string> selectors;
    for (const auto& r : link.daemon().received()) selectors.push_back(r.selector);
    EXPECT_EQ(selectors, (std::vector<std::string>{"handleFileEvent:", "handlePrinterEvent:",
                                                   "handleProcessStartEvent:",
                                                   "handleProcessExitEvent:"}));
    EXPECT_EQ(link.daemon().received()[0].event, *SysExtXPCClient::convertFileEventToDict(&file));
  }
  xpc.sendFileEvent(&file);
  xpc.sendProcessExitEvent(&proc);
  EXPECT_TRUE(sink.contains("[-[SysExtXPCClient sendFileEvent:] xpcclient.cpp@"));
  EXPECT_TRUE(sink.contains("] Warn:  No connection. -[SysExtXPCClient sendFileEvent:]\n"));
  EXPECT_TRUE(sink.contains("] Warn:  No connection. -[SysExtXPCClient sendProcessExitEvent:]\n"));
}

TEST(XPCSend, UnrepresentableStringsDropTheEventWithTheirAssertLines) {
  CaptureSink sink;
  FakeDaemonLink link;
  sysext::FileEvent file;
  file.set_filename1(std::string("/tmp/\xff\xfe", 7));
  sysext::ProcEvent proc;
  proc.set_cmd(std::string("bad \xc0\xaf", 6));  // overlong encoding
  sysext::PrinterEvent printer;
  printer.set_filename("\xed\xa0\x80");  // a surrogate
  auto& xpc = SysExtXPCClient::sharedInstance();
  xpc.sendFileEvent(&file);
  xpc.sendPrinterEvent(&printer);
  xpc.sendProcessStartEvent(&proc);
  xpc.sendProcessExitEvent(&proc);
  EXPECT_EQ(link.daemon().count(), 0u);
  const std::string assertion = "] Assert:  Assertion failed: [ ";
  EXPECT_EQ(sink.count(assertion + "eventDict]Error converting event to dictionary.\n"), 3u);
  EXPECT_EQ(sink.count(assertion + "eventDict]Error creating event dictionary.\n"), 1u);
  EXPECT_EQ(sink.count(assertion + "0]Error creating event dictionary. Reason:"), 4u);
}

TEST(Utf8, AcceptsWellFormedTextOnly) {
  using tarvex::itx::xpc::isValidUtf8;
  EXPECT_TRUE(isValidUtf8(""));
  EXPECT_TRUE(isValidUtf8("/Users/jörg/日本/😀"));
  for (const char* bad : {"\xc3", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "a\x80"}) {
    EXPECT_FALSE(isValidUtf8(bad)) << bad;  // truncated, overlong, surrogate, too high, stray
  }
}

}  // namespace
