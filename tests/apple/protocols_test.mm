// The link's selectors and type encodings as the runtime hands them to the
// connection, which checks every call against them.
#import <Foundation/Foundation.h>
#import <objc/runtime.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#import "xpc/protocols.h"

namespace {

std::string typesOf(Protocol* protocol, SEL selector) {
  const objc_method_description method =
      protocol_getMethodDescription(protocol, selector, YES, YES);
  return method.types != nullptr ? method.types : "(not declared)";
}

unsigned requiredMethodCount(Protocol* protocol) {
  unsigned count = 0;
  std::free(protocol_copyMethodDescriptionList(protocol, YES, YES, &count));
  return count;
}

}  // namespace

TEST(Protocols, ExportedInterfaceMatchesTheDaemonContract) {
  Protocol* exported = @protocol(SysextXPCInterface);
  EXPECT_EQ(requiredMethodCount(exported), 6u);
  EXPECT_EQ(typesOf(exported, @selector(addMountPoint:mountType:)), "v32@0:8@16Q24");
  EXPECT_EQ(typesOf(exported, @selector(removeMountPoint:)), "v24@0:8@16");
  EXPECT_EQ(typesOf(exported, @selector(clearMountPoints)), "v16@0:8");
  EXPECT_EQ(typesOf(exported, @selector(setPolicy:withTimestamp:andCompletionHandler:)),
            "v40@0:8@16Q24@?32");
  EXPECT_EQ(typesOf(exported, @selector(setExclusions:withTimestamp:andCompletionHandler:)),
            "v40@0:8@16Q24@?32");
  // BOOL is "c" on Intel and "B" on Apple silicon.
  EXPECT_EQ(typesOf(exported, @selector(setPrinter:verdict:)),
            std::string("v28@0:8@16") + @encode(BOOL) + "24");
}

TEST(Protocols, DaemonInterfaceMatchesTheDaemonContract) {
  Protocol* daemon = @protocol(ProtectionDaemonXPCInterface);
  EXPECT_EQ(requiredMethodCount(daemon), 7u);
  EXPECT_EQ(typesOf(daemon, @selector(registerWithCompletionHandler:)), "v24@0:8@?16");
  EXPECT_EQ(typesOf(daemon, @selector(handleFileEvent:)), "v24@0:8@16");
  EXPECT_EQ(typesOf(daemon, @selector(handlePrinterEvent:)), "v24@0:8@16");
  EXPECT_EQ(typesOf(daemon, @selector(handleProcessStartEvent:)), "v24@0:8@16");
  EXPECT_EQ(typesOf(daemon, @selector(handleProcessExitEvent:)), "v24@0:8@16");
  EXPECT_EQ(typesOf(daemon, @selector(startNetworkExtensionTunnelWithCompletionHandler:)),
            "v24@0:8@?16");
  EXPECT_EQ(typesOf(daemon, @selector(activateNetworkExtensionWithCompletionHandler:)),
            "v24@0:8@?16");
}
