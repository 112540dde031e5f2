#include "proxy/clientproxy.h"

#include <gtest/gtest.h>

#include <set>

#include "rtn/platform.h"
#include "support/cancelled_context.h"
#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "support/fake_es.h"
#include "support/manual_dispatch.h"

namespace {

using namespace endpointsecurity;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using Modes = std::vector<bool>;  // process, file and printer observer on
using Texts = std::vector<std::string>;

Dictionary policy(bool dup, bool webcontrol, bool devicecontrol) {
  return {{{"antitamperingon", Number::ofBool(false)},
           {"dupon", Number::ofBool(dup)},
           {"webcontrolon", Number::ofBool(webcontrol)},
           {"devicecontrolon", Number::ofBool(devicecontrol)}}};
}

// An initialised proxy over the fake facility and a fake daemon, with
// queues the test runs by hand.
class ClientProxyTest : public ::testing::Test {
 protected:
  ClientProxyTest() : dispatch(clock) {
    tarvex::itx::rtn::setPlatform({&es, &dispatch, &clock, &connector});
    proxy = std::make_unique<ClientProxy>();
  }
  void SetUp() override { ASSERT_TRUE(proxy->init()); }
  void TearDown() override {
    dispatch.runQueued();
    proxy.reset();
    tarvex::itx::rtn::setPlatform({});
  }

  bool apply(const Dictionary& payload) { return proxy->applySettings(&payload); }
  template <typename T = EventObserver>
  T* component(const std::string& name) {
    for (ISysExtManagable* c : proxy->director().components()) {
      if (c->getName() == name) return dynamic_cast<T*>(c);
    }
    return nullptr;
  }
  // The observers' modes; the subscriptions must be what the active ones want.
  Modes modes() {
    Modes on;
    std::set<es_event_type_t> wanted;
    for (const char* name : {"ProcEventObserver", "FileEventObserver", "PrinterEventObserver"}) {
      const EventObserver* o = component(name);
      on.push_back(o->isActive());
      if (o->isActive()) wanted.insert(o->eventTypes().begin(), o->eventTypes().end());
    }
    EXPECT_EQ(es.subscriptions(0), wanted);
    return on;
  }
  bool mounted(const std::string& path) {
    bool found = false;
    component<FileEventObserver>("FileEventObserver")->getMountTypeFromFilePath(path, found);
    return found;
  }

  lumo::testing::FakeClock clock;
  lumo::testing::ManualDispatch dispatch;
  lumo::testing::FakeEndpointSecurity es;
  lumo::testing::FakeConnector connector;
  lumo::testing::CaptureSink sink;
  std::unique_ptr<ClientProxy> proxy;
};

TEST_F(ClientProxyTest, InitListsComponentsAndAppliesTheDefaultExclusionsToBothClients) {
  Texts names;
  for (ISysExtManagable* c : proxy->director().components()) names.push_back(c->getName());
  EXPECT_EQ(names, (Texts{"ClientDUP", "ClientShield", "ProcEventObserver", "FileEventObserver",
                          "PrinterEventObserver", "SelfProtectionObserver"}));
  EXPECT_EQ(es.clientCount(), 2u);
  EXPECT_EQ(es.mutedPrefixes()[0], proxy->config().exclusions().pathPrefixes[0]);
  EXPECT_EQ(sink.count("] Debug:  Going to mute path [" + es.mutedPrefixes()[0] + "]"), 2u);
  // Registration alone subscribes nothing; policy does.
  EXPECT_TRUE(es.subscriptionCalls(0).empty());
}

TEST_F(ClientProxyTest, EachFeatureSwitchesTheObserversItNeeds) {
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
  // Any non-zero number is on.
  Dictionary numbers = policy(false, false, false);
  numbers.entries[1].value = Number::ofInt(7);
  ASSERT_TRUE(apply(numbers));
  EXPECT_EQ(modes(), (Modes{true, true, true}));
}

TEST_F(ClientProxyTest, MalformedPolicyChangesNeitherSettingsNorModes) {
  ASSERT_TRUE(apply(policy(true, false, false)));
  const size_t switches = es.subscriptionCalls(0).size();
  Dictionary noDeviceControl = policy(false, true, true);
  noDeviceControl.entries.pop_back();
  Dictionary textDup = policy(false, true, true);
  textDup.entries[1].value = "yes";
  EXPECT_FALSE(apply(noDeviceControl));
  EXPECT_FALSE(apply(textDup));
  EXPECT_FALSE(proxy->applySettings(nullptr));
  // The device-control line names the web-control state; that is how it reads.
  EXPECT_TRUE(sink.contains("] Assert:  Assertion failed: [ webControlState]The setPolicy "
                            "payload has no devicecontrolon key.\n"));
  EXPECT_TRUE(sink.contains("[ antitamperingState]The setPolicy payload has no antitamperingon"));
  EXPECT_TRUE(proxy->config().settings().dup);
  EXPECT_FALSE(proxy->config().settings().webcontrol);
  EXPECT_EQ(es.subscriptionCalls(0).size(), switches);
}

TEST_F(ClientProxyTest, RequestsReachTheirObserversAndCancelledOnesAreOnlyLogged) {
  lumo::testing::CancelledContext cancelled;
  sysext::AddMountPoint add;
  add.set_volume("/Volumes/USB");
  add.set_type(sysext::kRemovable);
  EXPECT_TRUE(proxy->addMountPoint(&cancelled, &add, nullptr).ok());
  EXPECT_TRUE(mounted("/Volumes/USB/report.doc"));
  sysext::RemoveMountPoint remove;
  remove.set_volume("/Volumes/USB");
  EXPECT_TRUE(proxy->removeMountPoint(&cancelled, &remove, nullptr).ok());
  EXPECT_FALSE(mounted("/Volumes/USB/report.doc"));
  EXPECT_TRUE(proxy->addMountPoint(nullptr, &add, nullptr).ok());
  EXPECT_TRUE(proxy->clearMountPoints(&cancelled, nullptr, nullptr).ok());
  EXPECT_FALSE(mounted("/Volumes/USB/report.doc"));

  sysext::PrinterVerdict verdict;
  verdict.set_filename("/var/spool/cups/d00012-001");
  verdict.set_verdict(true);
  EXPECT_TRUE(proxy->setPrinterVerdict(&cancelled, &verdict, nullptr).ok());
  EXPECT_EQ(component<PrinterEventObserver>("PrinterEventObserver")
                ->getPrinterEventVerdict("/var/spool/cups/d00012-001"),
            PrinterEventObserver::AuthResult::Allowed);
  EXPECT_EQ(sink.count(" cancelled\n"), 4u);
  EXPECT_TRUE(sink.contains("] Error: setPrinterVerdict cancelled\n"));
}

TEST_F(ClientProxyTest, StopReleasesEverythingButKeepsTheExclusions) {
  ASSERT_TRUE(apply(policy(true, false, false)));
  // False: both clients took them. The daemon link inverts it again.
  EXPECT_FALSE(proxy->applyExclusions({"/usr/local/bin/agent"}, {"/opt/backup/"}, {}));
  EXPECT_EQ(sink.count("] Debug:  Going to mute [/usr/local/bin/agent]"), 2u);

  proxy->stop();
  // Switched off before the clients went.
  EXPECT_TRUE(es.subscriptions(0).empty());
  EXPECT_TRUE(es.clientDeleted(0) && es.clientDeleted(1));
  EXPECT_TRUE(proxy->director().components().empty());
  // No client is left to take exclusions; they are stored all the same.
  EXPECT_TRUE(proxy->applyExclusions({}, {"/opt/other/"}, {"com.x.y"}));
  EXPECT_EQ(proxy->config().exclusions().bundleIds, Texts{"com.x.y"});
  sink.clear();
  const sysext::PrinterVerdict verdict;
  const sysext::AddMountPoint add;
  EXPECT_TRUE(proxy->setPrinterVerdict(nullptr, &verdict, nullptr).ok());
  EXPECT_TRUE(proxy->addMountPoint(nullptr, &add, nullptr).ok());
  EXPECT_TRUE(sink.lines().empty());
  EXPECT_TRUE(proxy->start());
}

}  // namespace
