#include <gtest/gtest.h>

#include <filesystem>

#include "proxy/clientproxy.h"
#include "rtn/platform.h"
#include "rtnmac/productpaths.h"
#include "rtnmac/productroot.h"
#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "support/fake_es.h"
#include "support/manual_dispatch.h"
#include "xpc/utf8.h"
#include "xpc/xpcclient.h"

namespace {

namespace fs = std::filesystem;
using endpointsecurity::ClientProxy;
using lumo::testing::CaptureSink;
using lumo::testing::FakeConnector;
using lumo::testing::FakeDaemonLink;
using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::Value;

constexpr uint64_t kSecond = 1'000'000'000;

// What goes out; the dictionaries themselves are checked with the observers
// that fill them.
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

Dictionary policy(bool dup) {
  return {{{"antitamperingon", Number::ofBool(false)},
           {"dupon", Number::ofBool(dup)},
           {"webcontrolon", Number::ofBool(false)},
           {"devicecontrolon", Number::ofBool(false)}}};
}

// One exclusion entry; an empty value leaves its key out.
Value exclusion(const std::string& bundleId, const std::string& path, unsigned pathOp,
                const std::string& prefix, unsigned prefixOp) {
  const auto compared = [](const std::string& value, unsigned op) {
    return Dictionary{{{"comp_value", value}, {"operator", Number::ofUnsignedInt(op)}}};
  };
  Dictionary app;
  if (!bundleId.empty()) app.entries.push_back({"process_bundle_id", bundleId});
  if (!path.empty()) app.entries.push_back({"process_path", compared(path, pathOp)});
  if (!prefix.empty()) app.entries.push_back({"process_dir_path", compared(prefix, prefixOp)});
  return Dictionary{{{"application_description", app}}};
}

// The shared link, started for a client proxy over fakes, with the product
// installed under a scratch root.
class XPCLink : public ::testing::Test {
 protected:
  XPCLink() : dispatch(clock) {
    root = fs::temp_directory_path() / ("lumo-xpclink-" + std::to_string(getpid()));
    tarvex::itx::rtnmac::setProductRoot(root.string());
    install(true);
    tarvex::itx::rtn::setPlatform({&es, &dispatch, &clock, &connector});
    SysExtXPCClientTestPeer::reset();
    proxy = std::make_unique<ClientProxy>();
    EXPECT_TRUE(proxy->init());
    xpc().start(proxy.get());
  }

  ~XPCLink() override {
    SysExtXPCClientTestPeer::reset();
    dispatch.runQueued();
    proxy.reset();
    tarvex::itx::rtn::setPlatform({});
    tarvex::itx::rtnmac::setProductRoot("");
    fs::remove_all(root);
  }

  void install(bool installed) {
    const fs::path app = tarvex::itx::rtnmac::underProductRoot(
        tarvex::itx::rtnmac::productPaths().applicationBundle);
    installed ? fs::create_directories(app) : fs::remove_all(app);
  }

  SysExtXPCClient& xpc() { return SysExtXPCClient::sharedInstance(); }

  // Plays the daemon going away on the newest connection.
  void dropConnection() {
    auto opened = connector.last();
    opened.connection->interruption();
    EXPECT_TRUE(opened.connection->invalidated);
    opened.connection->invalidation();
  }

  fs::path root;
  CaptureSink sink;
  lumo::testing::FakeClock clock;
  lumo::testing::ManualDispatch dispatch;
  lumo::testing::FakeEndpointSecurity es;
  FakeConnector connector;
  std::unique_ptr<ClientProxy> proxy;
};

TEST_F(XPCLink, StartRegistersWithThePrivilegedServiceOnce) {
  auto opened = connector.opened();
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_EQ(opened[0].serviceName, "com.tarvex.lumo.protectiond.xpc");
  EXPECT_EQ(opened[0].options, 4096u);
  EXPECT_EQ(opened[0].connection->exported(), &xpc());
  EXPECT_TRUE(opened[0].connection->resumed);
  EXPECT_TRUE(xpc().isXPCServiceListening());
  EXPECT_TRUE(sink.contains("] Func:  Entering -[SysExtXPCClient start:]. \n"));

  xpc().start(proxy.get());
  EXPECT_TRUE(sink.contains(
      "] Info:  XPC client start request rejected, it is already started.\n"));
  EXPECT_EQ(connector.opened().size(), 1u);
  sysext::PrinterEvent job;
  xpc().sendPrinterEvent(&job);
  EXPECT_EQ(opened[0].daemon->received("handlePrinterEvent:").size(), 1u);
}

TEST_F(XPCLink, RejectedRegistrationLeavesTheLinkDeafWithoutRetry) {
  xpc().stop();
  connector.acceptRegistration = false;
  xpc().start(proxy.get());
  EXPECT_FALSE(xpc().isXPCServiceListening());
  EXPECT_TRUE(dispatch.pendingTimers().empty());
}

TEST_F(XPCLink, ReconnectsOneSecondAfterEveryInvalidation) {
  for (size_t cycle = 1; cycle <= 3; ++cycle) {
    dropConnection();
    EXPECT_FALSE(xpc().isXPCServiceListening());
    sysext::FileEvent lost;
    xpc().sendFileEvent(&lost);  // dropped while the link is down
    EXPECT_EQ(connector.last().daemon->count(), 0u);
    clock.advance(kSecond - 1);
    EXPECT_EQ(dispatch.fireDueTimers(), 0u);
    clock.advance(1);
    EXPECT_EQ(dispatch.fireDueTimers(), 1u);
    dispatch.runQueued();
    EXPECT_EQ(connector.opened().size(), cycle + 1);
    EXPECT_TRUE(xpc().isXPCServiceListening());
  }
}

TEST_F(XPCLink, NoReconnectionAfterStopOrWithoutTheProduct) {
  auto first = connector.last();
  xpc().stop();
  EXPECT_TRUE(first.connection->invalidated);
  EXPECT_FALSE(xpc().isXPCServiceListening());
  first.connection->invalidation();
  EXPECT_TRUE(sink.contains(
      "] Info:  The XPC connection has been stopped. There will be no reconnection attempts.\n"));
  EXPECT_TRUE(dispatch.pendingTimers().empty());

  install(false);
  xpc().start(proxy.get());
  dropConnection();
  EXPECT_TRUE(sink.contains("] Info:  Lumo is not installed. Extension in sleep mode."));
  EXPECT_TRUE(dispatch.pendingTimers().empty());

  // A reconnection already scheduled when the link stops does nothing.
  install(true);
  dropConnection();
  xpc().stop();
  clock.advance(kSecond);
  dispatch.fireDueTimers();
  dispatch.runQueued();
  EXPECT_TRUE(sink.contains("] Info:  The XPC connection has been stopped.\n"));
  EXPECT_EQ(connector.opened().size(), 2u);
}

TEST_F(XPCLink, PolicyAndExclusionsObeyTheTimestampRule) {
  std::vector<bool> replies;
  auto reply = [&](bool ok) { replies.push_back(ok); };
  const Dictionary on = policy(true);

  xpc().setPolicy(&on, 0, reply);  // nothing stored yet is older than 0
  EXPECT_TRUE(sink.contains("] Warn:  A setPolicy with older timestamp ! Not applied.\n"));
  xpc().setPolicy(&on, 10, reply);
  xpc().setPolicy(&on, 10, reply);
  xpc().setPolicy(&on, 9, reply);
  EXPECT_EQ(replies, std::vector<bool>{true});
  EXPECT_TRUE(proxy->config().settings().dup);

  Dictionary broken = policy(false);
  broken.entries.pop_back();
  xpc().setPolicy(&broken, 11, reply);
  EXPECT_TRUE(proxy->config().settings().dup);  // unchanged
  xpc().setPolicy(nullptr, 12, reply);
  EXPECT_TRUE(sink.contains("] Assert:  Assertion failed: [ policy]Missing argument.\n"));
  EXPECT_EQ(replies, (std::vector<bool>{true, false, false}));

  const Array none;
  xpc().setExclusions(&none, 0, reply);
  EXPECT_TRUE(sink.contains("] Warn:  A setExclusions with older timestamp ! Not applied.\n"));
  EXPECT_EQ(replies.size(), 3u);

  // Timestamps outlive a stop; a stopped link answers NO.
  xpc().stop();
  xpc().setPolicy(&on, 12, reply);
  EXPECT_EQ(replies.size(), 3u);
  xpc().setPolicy(&on, 13, reply);
  EXPECT_TRUE(sink.contains("] Assert:  Assertion failed: [ _clientProxy]Missing _clientProxy.\n"));
  EXPECT_EQ(replies.back(), false);
}

TEST_F(XPCLink, ExclusionEntriesGiveOneKindOfMuteEach) {
  Array list;
  list.items.push_back(exclusion("com.vendor.agent", "", 0, "", 0));
  list.items.push_back(exclusion("", "/opt/x/bin/x", 1, "/opt/x/", 1));
  list.items.push_back(exclusion("", "/opt/y/bin/y", 2, "/opt/y/", 1));
  list.items.push_back(exclusion("com.vendor.z", "/opt/z/bin/z", 1, "", 0));
  list.items.push_back(Value("not a dictionary"));
  std::vector<bool> replies;
  xpc().setExclusions(&list, 1, [&](bool ok) { replies.push_back(ok); });

  EXPECT_EQ(replies, std::vector<bool>{true});  // both clients took them
  const auto stored = proxy->config().exclusions();
  EXPECT_EQ(stored.processPaths, std::vector<std::string>{"/opt/z/bin/z"});
  EXPECT_EQ(stored.pathPrefixes, std::vector<std::string>{"/opt/y/"});
  EXPECT_EQ(stored.bundleIds, (std::vector<std::string>{"com.vendor.agent", "com.vendor.z"}));
  EXPECT_EQ(sink.count("] Info:  Conflicting or empty settings of process to mute"), 2u);
  EXPECT_TRUE(sink.contains("] Trace:  process path [/opt/y/bin/y] operator [2]\n"));
  EXPECT_TRUE(sink.contains("] Trace:  pathPrefix [(null)] operator [0]\n"));
  EXPECT_TRUE(sink.contains("Exclusion entry is not a dictionary"));
}

TEST_F(XPCLink, MountPointsAndVerdictsReachTheObservers) {
  const std::string usb = "/media/usb";
  xpc().addMountPoint(&usb, 2);
  EXPECT_TRUE(sink.contains("] Info:  new volume: /media/usb <removable> was registered"));
  xpc().removeMountPoint(nullptr);
  EXPECT_TRUE(sink.contains("] Assert:  Assertion failed: [ volume]Missing argument.\n"));
  xpc().removeMountPoint(&usb);
  EXPECT_TRUE(sink.contains("] Info:  volume: /media/usb was unregistered"));
  xpc().clearMountPoints();
  EXPECT_TRUE(sink.contains("] Info:  mountpoints were cleared"));
  const std::string job = "job-17";
  xpc().setPrinter(&job, false);
  // The job's name is not passed on: the verdict lands under "".
  EXPECT_TRUE(sink.contains("] Debug:  <data file> recieved verdict for  0"));
}

}  // namespace
