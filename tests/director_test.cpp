#include <gtest/gtest.h>

#include "director/sysextstartable.h"
#include "shield/selfprotection.h"
#include "support/capture_sink.h"

namespace {

using namespace endpointsecurity;
using lumo::testing::CaptureSink;

// A component that records what the director asks of it.
class Component : public ISysExtManagable {
 public:
  Component(std::string name, ObserverTags tags, std::vector<std::string>* trail)
      : name_(std::move(name)), trail_(trail) {
    setTags(tags);
  }
  bool start() override { return true; }
  bool stop() override {
    trail_->push_back(name_ + ".stop");
    return true;
  }
  bool init() override {
    trail_->push_back(name_ + ".init");
    return initResult;
  }
  void uninit() override { trail_->push_back(name_ + ".uninit"); }
  std::string getName() const override { return name_; }
  void setName(const std::string& name) override { name_ = name; }
  bool switchMode(const ObserverTags&, bool mode) override {
    trail_->push_back(name_ + ".switch" + (mode ? "On" : "Off"));
    return switchResult;
  }
  void activate() override { trail_->push_back(name_ + ".activate"); }
  void deactivate() override { trail_->push_back(name_ + ".deactivate"); }

  bool initResult = true;
  bool switchResult = true;

 private:
  std::string name_;
  std::vector<std::string>* trail_;
};

class Director : public ::testing::Test {
 protected:
  void SetUp() override {
    for (auto* c : {&dup, &shield, &proc, &file}) ASSERT_TRUE(director.pushBackManagable(c));
  }

  CaptureSink sink;
  std::vector<std::string> trail;
  Component dup{"ClientDUP", TagAllClients | TagClientDup, &trail};
  Component shield{"ClientShield", TagAllClients | TagClientShield, &trail};
  Component proc{"ProcEventObserver", TagAllObservers | TagProcObserver, &trail};
  Component file{"FileEventObserver", TagAllObservers | TagFileObserver, &trail};
  ISysextDirector director;
};

TEST_F(Director, InitStopsAtTheFirstFailingComponent) {
  EXPECT_FALSE(director.pushBackManagable(nullptr));
  EXPECT_TRUE(sink.contains("] Error: Argument is null\n"));
  shield.initResult = false;
  EXPECT_FALSE(director.init());
  EXPECT_EQ(trail, (std::vector<std::string>{"ClientDUP.init", "ClientShield.init"}));
  EXPECT_TRUE(sink.contains("] Info:  Succeeded to init ClientDUP\n"));
  EXPECT_TRUE(sink.contains("] Error: failed to init ClientShield\n"));
  EXPECT_TRUE(sink.contains("Func:   Entering: init \n "));
  EXPECT_TRUE(sink.contains("Func:   Exiting: init \n "));
}

TEST_F(Director, SwitchModeSwitchesClientsFirstThenObserversInListOrder) {
  dup.switchResult = false;
  EXPECT_TRUE(director.switchMode(TagClientDup, TagProcObserver | TagFileObserver, true));
  EXPECT_EQ(trail, (std::vector<std::string>{"ClientDUP.switchOn", "ProcEventObserver.activate",
                                             "FileEventObserver.activate"}));
  EXPECT_TRUE(sink.contains("] Warn:  Failed to switch client ClientDUP to mode true\n"));
  // Every component gets its line, clients too.
  for (const char* name : {"ClientDUP", "ClientShield", "ProcEventObserver", "FileEventObserver"}) {
    EXPECT_TRUE(sink.contains(std::string("] Trace:  Working on observer ") + name + "\n"));
  }
  EXPECT_TRUE(sink.contains("] Trace:  Going to activate observer FileEventObserver\n"));

  trail.clear();
  EXPECT_TRUE(director.switchMode(TagAllClients, TagAllObservers, false));
  EXPECT_EQ(trail, (std::vector<std::string>{"ClientDUP.switchOff", "ClientShield.switchOff",
                                             "ProcEventObserver.deactivate",
                                             "FileEventObserver.deactivate"}));
  EXPECT_TRUE(sink.contains("] Info:  Switched client ClientShield to mode false\n"));
  EXPECT_TRUE(sink.contains("] Trace:  Going to de-activate observer ProcEventObserver\n"));

  // No client named: observers still follow.
  trail.clear();
  EXPECT_TRUE(director.switchMode({}, TagFileObserver, true));
  EXPECT_EQ(trail, (std::vector<std::string>{"FileEventObserver.activate"}));
}

TEST_F(Director, StopUninitAndClearedList) {
  director.stop();
  director.uninit();
  EXPECT_EQ(trail.size(), 8u);
  EXPECT_EQ(trail.front(), "ClientDUP.stop");
  EXPECT_EQ(trail.back(), "FileEventObserver.uninit");
  director.clear();
  trail.clear();
  EXPECT_TRUE(director.init());
  EXPECT_TRUE(director.switchMode(TagAllClients, TagAllObservers, true));
  EXPECT_TRUE(trail.empty());
}

TEST(FlagSet, OrAndIntersect) {
  ObserverTags printer = TagPrinterObserver | TagPrinterGroup;
  printer |= TagAllObservers;
  EXPECT_TRUE(printer.test(TagAllObservers));
  EXPECT_FALSE(printer.test(TagFileObserver));
  EXPECT_TRUE(printer.intersects(ObserverTags(TagPrinterGroup)));
  EXPECT_FALSE(printer.intersects(TagClientDup | TagFileObserver));
  EXPECT_FALSE(ObserverTags().any());

  SelfProtectionObserver slot;
  EXPECT_TRUE(slot.init() && slot.start() && slot.switchMode(TagShieldObserver, true));
}

}  // namespace
