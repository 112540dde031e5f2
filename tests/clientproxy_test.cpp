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
using EventSet = std::set<es_event_type_t>;
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
  // Which of process, file and printer observer are on.
  std::vector<bool> modes() {
    return {component("ProcEventObserver")->isActive(),
            component("FileEventObserver")->isActive(),
            component("PrinterEventObserver")->isActive()};
  }
  EventSet wantedByActiveObservers() {
    EventSet wanted;
    for (const char* name : {"ProcEventObserver", "FileEventObserver", "PrinterEventObserver"}) {
      const EventObserver* o = component(name);
      if (o->isActive()) wanted.insert(o->eventTypes().begin(), o->eventTypes().end());
    }
    return wanted;
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
  EXPECT_EQ(sink.count("] Debug:  Going to mute path [/Library/Bitdefender/]"), 2u);
  // Registration alone subscribes nothing; policy does.
  EXPECT_TRUE(es.subscriptionCalls(0).empty());
  EXPECT_TRUE(sink.contains("] Info:  protection is enabled\n"));
}

TEST_F(ClientProxyTest, EachFeatureSwitchesTheObserversItNeeds) {
  struct Case {
    bool dup, webcontrol, devicecontrol;
    std::vector<bool> modes;  // process, file, printer
  };
  const Case cases[] = {
      {false, true, false, {true, false, false}},
      {true, false, false, {true, true, true}},
      // The file observer keeps the rename it shares with the printer.
      {false, false, true, {true, true, false}},
      {false, false, false, {false, false, false}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.dup << c.webcontrol << c.devicecontrol);
    ASSERT_TRUE(apply(policy(c.dup, c.webcontrol, c.devicecontrol)));
    EXPECT_EQ(modes(), c.modes);
    EXPECT_EQ(es.subscriptions(0), wantedByActiveObservers());
    EXPECT_EQ(proxy->config().settings().devicecontrol, c.devicecontrol);
  }
  // Any non-zero number is on.
  Dictionary numbers = policy(false, false, false);
  numbers.entries[1].value = Number::ofInt(7);
  ASSERT_TRUE(apply(numbers));
  EXPECT_EQ(modes(), (std::vector<bool>{true, true, true}));
}

TEST_F(ClientProxyTest, MalformedPolicyChangesNeitherSettingsNorModes) {
  ASSERT_TRUE(apply(policy(true, false, false)));
  const size_t switches = es.subscriptionCalls(0).size();

  Dictionary noDeviceControl = policy(false, true, true);
  noDeviceControl.entries.pop_back();
  EXPECT_FALSE(apply(noDeviceControl));
  EXPECT_TRUE(sink.contains("] Assert:  Assertion failed: [ webControlState]The setPolicy "
                            "payload has no devicecontrolon key.\n"));
  Dictionary textDup = policy(false, true, true);
  textDup.entries[1].value = "yes";
  EXPECT_FALSE(apply(textDup));
  EXPECT_TRUE(sink.contains("] Assert:  Assertion failed: [ [dupState isKindOfClass:[NSNumber "
                            "class]]]The setPolicy payload dupon key is not a boolean.\n"));
  EXPECT_FALSE(proxy->applySettings(nullptr));
  EXPECT_TRUE(sink.contains("[ antitamperingState]The setPolicy payload has no antitamperingon"));

  EXPECT_TRUE(proxy->config().settings().dup);
  EXPECT_FALSE(proxy->config().settings().webcontrol);
  EXPECT_EQ(es.subscriptionCalls(0).size(), switches);
}

TEST_F(ClientProxyTest, WakeUpAfterSleepRestoresTheModesAndTheLink) {
  ASSERT_TRUE(apply(policy(false, false, true)));
  ASSERT_TRUE(proxy->start());
  const EventSet awake = es.subscriptions(0);
  EXPECT_TRUE(SysExtXPCClient::sharedInstance().isXPCServiceListening());

  proxy->sleep();
  EXPECT_EQ(modes(), (std::vector<bool>{false, false, false}));
  EXPECT_TRUE(es.subscriptions(0).empty());
  EXPECT_FALSE(SysExtXPCClient::sharedInstance().isXPCServiceListening());

  ASSERT_TRUE(proxy->start());
  EXPECT_EQ(modes(), (std::vector<bool>{true, true, false}));
  EXPECT_EQ(es.subscriptions(0), awake);
  EXPECT_EQ(connector.opened().size(), 2u);
}

TEST_F(ClientProxyTest, ExclusionsAreStoredWhateverTheClientsSay) {
  // False: both clients took them. The daemon link inverts it again.
  EXPECT_FALSE(proxy->applyExclusions({"/usr/local/bin/agent"}, {"/opt/backup/"}, {}));
  EXPECT_EQ(sink.count("] Debug:  Going to mute [/usr/local/bin/agent]"), 2u);
  EXPECT_EQ(proxy->config().exclusions().pathPrefixes, Texts{"/opt/backup/"});

  // After uninstall no client is left to take them.
  proxy->stop();
  EXPECT_TRUE(es.clientDeleted(0) && es.clientDeleted(1));
  EXPECT_TRUE(proxy->applyExclusions({}, {"/opt/other/"}, {"com.x.y"}));
  EXPECT_EQ(proxy->config().exclusions().bundleIds, Texts{"com.x.y"});
}

TEST_F(ClientProxyTest, CancelledRequestsStillDoTheirWork) {
  auto* files = component<FileEventObserver>("FileEventObserver");
  const auto typed = [&](const std::string& path) {
    bool found = false;
    files->getMountTypeFromFilePath(path, found);
    return found;
  };
  lumo::testing::CancelledContext cancelled;
  sysext::AddMountPoint add;
  add.set_volume("/Volumes/USB");
  add.set_type(sysext::kRemovable);
  EXPECT_TRUE(proxy->addMountPoint(&cancelled, &add, nullptr).ok());
  EXPECT_TRUE(typed("/Volumes/USB/report.doc"));
  EXPECT_TRUE(sink.contains("] Error: addMountPoint cancelled\n"));

  sysext::RemoveMountPoint remove;
  remove.set_volume("/Volumes/USB");
  EXPECT_TRUE(proxy->removeMountPoint(&cancelled, &remove, nullptr).ok());
  EXPECT_FALSE(typed("/Volumes/USB/report.doc"));
  EXPECT_TRUE(proxy->addMountPoint(nullptr, &add, nullptr).ok());
  EXPECT_TRUE(proxy->clearMountPoints(&cancelled, nullptr, nullptr).ok());
  EXPECT_FALSE(typed("/Volumes/USB/report.doc"));
  EXPECT_EQ(sink.count(" cancelled\n"), 3u);
}

TEST_F(ClientProxyTest, PrinterVerdictsGoNowhereAfterStop) {
  ASSERT_TRUE(apply(policy(true, false, false)));
  auto* printer = component<PrinterEventObserver>("PrinterEventObserver");
  sysext::PrinterVerdict verdict;
  verdict.set_filename("/var/spool/cups/d00012-001");
  verdict.set_verdict(true);
  EXPECT_TRUE(proxy->setPrinterVerdict(nullptr, &verdict, nullptr).ok());
  EXPECT_EQ(printer->getPrinterEventVerdict("/var/spool/cups/d00012-001"),
            PrinterEventObserver::AuthResult::Allowed);

  proxy->stop();
  // Switched off before the clients went.
  EXPECT_TRUE(es.subscriptions(0).empty());
  EXPECT_TRUE(proxy->director().components().empty());
  sink.clear();
  lumo::testing::CancelledContext cancelled;
  EXPECT_TRUE(proxy->setPrinterVerdict(&cancelled, &verdict, nullptr).ok());
  EXPECT_EQ(sink.lines().size(), 1u);
  EXPECT_TRUE(sink.contains("] Error: setPrinterVerdict cancelled\n"));
  EXPECT_TRUE(proxy->start());
}

}  // namespace
