// The client proxy and its director, and the daemon link that feeds it and
// carries the records out.
#include "proxy/clientproxy.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <stdexcept>

#include "rtn/platform.h"
#include "rtnmac/productpaths.h"
#include "rtnmac/productroot.h"
#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "support/fake_es.h"
#include "support/manual_dispatch.h"
#include "xpc/xpcclient.h"

namespace {

namespace fs = std::filesystem;
using namespace endpointsecurity;
using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::Value;
using Call = lumo::testing::FakeEndpointSecurity::Call;
using Modes = std::vector<bool>;  // process, file and printer observer on
using Texts = std::vector<std::string>;
using Replies = std::vector<bool>;

Dictionary policy(bool dup, bool webcontrol = false, bool devicecontrol = false) {
  return {{{"antitamperingon", Number::ofBool(false)},
           {"dupon", Number::ofBool(dup)},
           {"webcontrolon", Number::ofBool(webcontrol)},
           {"devicecontrolon", Number::ofBool(devicecontrol)}}};
}

// An initialised proxy over the fake facility and fake daemons, with
// queues the test runs by hand.
class ClientProxyTest : public ::testing::Test {
 protected:
  ClientProxyTest() : dispatch(clock) {
    tarvex::itx::rtn::setPlatform({&es, &dispatch, &clock, &connector});
    SysExtXPCClientTestPeer::reset();
    proxy = std::make_unique<ClientProxy>();
    EXPECT_TRUE(proxy->init());
  }
  ~ClientProxyTest() override {
    SysExtXPCClientTestPeer::reset();
    dispatch.runQueued();
    proxy.reset();
    tarvex::itx::rtn::setPlatform({});
  }

  bool apply(const Dictionary& payload) { return proxy->applySettings(&payload); }
  template <typename T>
  T& part() {
    for (ISysExtManagable* c : proxy->director().components()) {
      if (auto* t = dynamic_cast<T*>(c)) return *t;
    }
    throw std::logic_error("the proxy has no such part");
  }
  // The observers' modes; the subscriptions must be what the active ones want.
  Modes modes(bool subscribed = true) {
    Modes on;
    std::set<es_event_type_t> wanted;
    for (EventObserver* o : std::initializer_list<EventObserver*>{&part<ProcEventObserver>(),
                                                                  &part<FileEventObserver>(),
                                                                  &part<PrinterEventObserver>()}) {
      on.push_back(o->isActive());
      if (o->isActive()) wanted.insert(o->eventTypes().begin(), o->eventTypes().end());
    }
    if (subscribed) {
      EXPECT_EQ(es.record().clients[0].subscribed, wanted);
    }
    return on;
  }
  SysExtXPCClient& xpc() { return SysExtXPCClient::sharedInstance(); }

  lumo::testing::CaptureSink sink;
  lumo::testing::FakeClock clock;
  lumo::testing::ManualDispatch dispatch;
  lumo::testing::FakeEndpointSecurity es;
  lumo::testing::FakeConnector connector;
  std::unique_ptr<ClientProxy> proxy;
};

TEST_F(ClientProxyTest, EachFeatureSwitchesTheObserversItNeeds) {
  // Nothing on at first; other vendors' security products are muted from
  // the start, by both clients.
  EXPECT_EQ(modes(), (Modes{false, false, false}));
  const auto defaults = proxy->config().exclusions().pathPrefixes;
  for (const auto& client : es.record().clients) EXPECT_EQ(client.mutedPrefixes[0], defaults[0]);
  const struct {
    bool dup, webcontrol, devicecontrol;
    Modes modes;
  } cases[] = {
      {false, true, false, {true, false, false}},
      {true, false, false, {true, true, true}},
      // The file observer keeps the rename it shares with the printer.
      {false, false, true, {true, true, false}},
      {false, false, false, {false, false, false}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.dup << c.webcontrol << c.devicecontrol);
    ASSERT_TRUE(apply(policy(c.dup, c.webcontrol, c.devicecontrol)));
    EXPECT_EQ(modes(), c.modes);
    EXPECT_EQ(proxy->config().settings().devicecontrol, c.devicecontrol);
  }
  // Any non-zero number is on; a client that fails to switch is logged and
  // its observers follow all the same.
  Dictionary numbers = policy(false);
  numbers.entries[1].value = Number::ofInt(7);
  es.failCall(Call::Subscribe);
  ASSERT_TRUE(apply(numbers));
  EXPECT_EQ(modes(/*subscribed=*/false), (Modes{true, true, true}));
  EXPECT_TRUE(sink.contains("] Warn:  Failed to switch client ClientDUP to mode true\n"));
}

TEST_F(ClientProxyTest, InitStopsAtTheFirstClientTheFacilityRefuses) {
  es.setNewClientResult(ES_NEW_CLIENT_RESULT_ERR_NOT_PERMITTED);
  EXPECT_FALSE(ClientProxy().init());
  EXPECT_EQ(es.record().calls[Call::NewClient], 3u);  // the fixture's two, then the refused one
}

// Switching off and deleting the clients is the process test's uninstall.
TEST_F(ClientProxyTest, StopKeepsTheExclusionsAndTheDaemonsCallsFindNothingToCall) {
  ASSERT_TRUE(apply(policy(true)));
  // False: both clients took them. The daemon link inverts it again.
  EXPECT_FALSE(proxy->applyExclusions({"/usr/local/bin/agent"}, {"/opt/backup/"}, {}));
  proxy->stop();
  // No client is left to take exclusions; they are stored all the same.
  EXPECT_TRUE(proxy->applyExclusions({}, {"/opt/other/"}, {"com.x.y"}));
  EXPECT_EQ(proxy->config().exclusions().bundleIds, Texts{"com.x.y"});
  const sysext::PrinterVerdict verdict;
  const sysext::AddMountPoint add;
  EXPECT_TRUE(proxy->setPrinterVerdict(nullptr, &verdict, nullptr).ok());
  EXPECT_TRUE(proxy->addMountPoint(nullptr, &add, nullptr).ok());
  EXPECT_TRUE(proxy->start());
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

// The shared link, started for the proxy, with the product installed under
// a scratch root.
class XPCLink : public ClientProxyTest {
 protected:
  XPCLink() {
    tarvex::itx::rtnmac::setProductRoot(root.string());
    install(true);
    xpc().start(proxy.get());
  }
  ~XPCLink() override {
    tarvex::itx::rtnmac::setProductRoot("");
    fs::remove_all(root);
  }

  void install(bool installed) {
    const fs::path app = tarvex::itx::rtnmac::underProductRoot(
        tarvex::itx::rtnmac::productPaths().applicationBundle);
    installed ? fs::create_directories(app) : fs::remove_all(app);
  }
  // Plays the daemon going away on the newest connection.
  void dropConnection() {
    auto& connection = *connector.opened.back().connection;
    connection.interruption();
    EXPECT_TRUE(connection.invalidated);
    connection.invalidation();
  }
  std::function<void(bool)> collect() {
    return [this](bool ok) { replies.push_back(ok); };
  }

  const fs::path root = fs::temp_directory_path() / ("lumo-xpclink-" + std::to_string(getpid()));
  Replies replies;
};

// The service's name, the root-only option and the one-second reconnection
// are the process tests' to check, on the real socket.
TEST_F(XPCLink, StartsOnceAndADaemonAnsweringNoIsNotRetried) {
  EXPECT_TRUE(xpc().isXPCServiceListening());
  xpc().start(proxy.get());  // already started: refused
  EXPECT_EQ(connector.opened.size(), 1u);

  // A daemon that answers NO leaves the link deaf, without retries.
  xpc().stop();
  connector.acceptRegistration = false;
  xpc().start(proxy.get());
  EXPECT_FALSE(xpc().isXPCServiceListening());
  EXPECT_TRUE(
      sink.contains("] Assert:  Assertion failed: [ 0]Failed to register to XPC service. "
                    "The Daemon XPC is not listening.\n"));
  EXPECT_TRUE(dispatch.pendingTimers().empty());
}

TEST_F(XPCLink, NoReconnectionAfterStopOrWithoutTheProduct) {
  auto first = connector.opened.back().connection;
  xpc().stop();
  EXPECT_TRUE(first->invalidated);
  EXPECT_FALSE(xpc().isXPCServiceListening());
  first->invalidation();
  EXPECT_TRUE(dispatch.pendingTimers().empty());
  sysext::FileEvent lost;
  xpc().sendFileEvent(&lost);  // no connection: dropped with a Warn line
  EXPECT_TRUE(sink.contains("] Warn:  No connection. -[SysExtXPCClient sendFileEvent:]\n"));

  install(false);
  xpc().start(proxy.get());
  // Whichever connection reports an interruption, the current one ends.
  first->interruption();
  auto& current = *connector.opened.back().connection;
  EXPECT_TRUE(current.invalidated);
  current.invalidation();
  EXPECT_TRUE(dispatch.pendingTimers().empty());

  // A reconnection already scheduled when the link stops does nothing.
  install(true);
  dropConnection();
  xpc().stop();
  clock.advance(1'000'000'000);
  dispatch.fireDueTimers();
  dispatch.runQueued();
  EXPECT_EQ(connector.opened.size(), 2u);
}

// Whichever connection reports it, an interruption ends the current one.
TEST_F(XPCLink, AnInterruptionInvalidatesTheCurrentConnection) {
  auto first = connector.opened.back().connection;
  xpc().stop();
  xpc().start(proxy.get());
  auto current = connector.opened.back().connection;
  first->interruption();
  EXPECT_TRUE(current->invalidated);
}

// Stale timestamps and wrong-typed switches are the process tests' to check.
TEST_F(XPCLink, PolicyAndExclusionsKeepTheirOwnTimestampsAndAStoppedLinkAnswersNo) {
  const Dictionary on = policy(true);
  const Array none;
  xpc().setPolicy(&on, 10, collect());
  xpc().setExclusions(&none, 5, collect());
  Dictionary broken = policy(false);
  broken.entries.pop_back();  // checked whole before anything is stored
  xpc().setPolicy(&broken, 11, collect());
  EXPECT_TRUE(proxy->config().settings().dup);
  xpc().stop();
  xpc().setPolicy(&on, 12, collect());
  EXPECT_TRUE(sink.contains("] Assert:  Assertion failed: [ _clientProxy]Missing _clientProxy.\n"));
  EXPECT_EQ(replies, (Replies{true, true, false, false}));
}

TEST_F(XPCLink, ExclusionEntriesGiveOneKindOfMuteEach) {
  Array list;
  list.items.push_back(exclusion("com.vendor.agent", "", 0, "", 0));
  list.items.push_back(exclusion("", "/opt/x/bin/x", 1, "/opt/x/", 1));
  list.items.push_back(exclusion("", "/opt/y/bin/y", 2, "/opt/y/", 1));
  list.items.push_back(exclusion("com.vendor.z", "/opt/z/bin/z", 1, "", 0));
  list.items.push_back(Value("not a dictionary"));
  xpc().setExclusions(&list, 1, collect());

  EXPECT_EQ(replies, Replies{true});  // both clients took them
  const auto stored = proxy->config().exclusions();
  EXPECT_EQ(stored.processPaths, Texts{"/opt/z/bin/z"});
  EXPECT_EQ(stored.pathPrefixes, Texts{"/opt/y/"});
  EXPECT_EQ(stored.bundleIds, (Texts{"com.vendor.agent", "com.vendor.z"}));
}

TEST_F(XPCLink, MountPointsAndVerdictsReachTheObservers) {
  const auto mounted = [&] {
    bool found = false;
    part<FileEventObserver>().getMountTypeFromFilePath("/media/usb/a", found);
    return found;
  };
  const std::string usb = "/media/usb";
  xpc().addMountPoint(&usb, 2);
  EXPECT_TRUE(mounted());
  xpc().removeMountPoint(nullptr);
  EXPECT_TRUE(sink.contains("] Assert:  Assertion failed: [ volume]Missing argument.\n"));
  xpc().clearMountPoints();
  EXPECT_FALSE(mounted());
  // The job's name is not passed on: the verdict lands under "".
  const std::string job = "job-17";
  xpc().setPrinter(&job, true);
  EXPECT_EQ(part<PrinterEventObserver>().getPrinterEventVerdict(""),
            PrinterEventObserver::AuthResult::Allowed);
}

}  // namespace
