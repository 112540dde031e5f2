#import "xpc/remotedaemon.h"

#include <gtest/gtest.h>

#include <cstdint>

#import "fakedaemon.h"
#import "nsexpect.h"
#include "xpc/xpcclient.h"

using tarvex::itx::xpc::apple_platform::makeRemoteDaemon;

TEST(RemoteDaemon, EachEventGoesToItsSelector) {
  LumoFakeDaemon* fake = [[LumoFakeDaemon alloc] init];
  const auto daemon = makeRemoteDaemon(fake);
  sysext::ProcEvent proc;
  proc.set_path("/usr/bin/lp");
  sysext::PrinterEvent printer;
  printer.set_filename("/private/var/spool/cups/d00012-001");
  printer.set_pid(77);
  daemon->handleProcessStartEvent(*SysExtXPCClient::convertProcEventToDict(&proc));
  daemon->handlePrinterEvent(*SysExtXPCClient::convertPrinterEventToDict(&printer));
  daemon->handleProcessExitEvent(*SysExtXPCClient::convertProcEventToDict(&proc));
  EXPECT_NSEQ(
      fake.selectors,
      (@[ @"handleProcessStartEvent:", @"handlePrinterEvent:", @"handleProcessExitEvent:" ]));
  ASSERT_EQ(fake.events.count, 3u);
  EXPECT_NSEQ(fake.events[0][@"path"], @"/usr/bin/lp");
  EXPECT_NSEQ(fake.events[1][@"filename"], @"/private/var/spool/cups/d00012-001");
  EXPECT_EQ([fake.events[1][@"pid"] unsignedIntValue], 77u);
}

TEST(RemoteDaemon, FileEventKeepsItsNumbers) {
  LumoFakeDaemon* fake = [[LumoFakeDaemon alloc] init];
  sysext::FileEvent file;
  file.set_filename1("/Volumes/NAS/a");
  file.set_mounttype(sysext::kNetwork);
  file.set_filesize(1ull << 40);
  file.set_uid(0xFFFFFFFEu);
  makeRemoteDaemon(fake)->handleFileEvent(*SysExtXPCClient::convertFileEventToDict(&file));
  NSDictionary* event = fake.events.firstObject;
  ASSERT_NE(event, nil);
  EXPECT_NSEQ(fake.selectors, @[ @"handleFileEvent:" ]);
  EXPECT_EQ([event[@"mounttype"] intValue], sysext::kNetwork);
  EXPECT_EQ([event[@"filesize"] unsignedLongLongValue], 1ull << 40);
  EXPECT_EQ([event[@"uid"] unsignedIntValue], 0xFFFFFFFEu);
}

TEST(RemoteDaemon, RegistrationAnswerComesBack) {
  LumoFakeDaemon* fake = [[LumoFakeDaemon alloc] init];
  const auto daemon = makeRemoteDaemon(fake);
  int answers = 0;
  bool accepted = false;
  daemon->registerWithCompletionHandler([&](bool ok) {
    ++answers;
    accepted = ok;
  });
  EXPECT_EQ(answers, 1);
  EXPECT_TRUE(accepted);

  fake.answer = NO;
  daemon->registerWithCompletionHandler([&](bool ok) {
    ++answers;
    accepted = ok;
  });
  EXPECT_EQ(answers, 2);
  EXPECT_FALSE(accepted);
  // An empty reply is allowed: the daemon's answer is dropped.
  daemon->registerWithCompletionHandler(nullptr);
  EXPECT_EQ(fake.selectors.count, 3u);
}
