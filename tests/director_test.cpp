#include <gtest/gtest.h>

#include <utility>

#include "director/sysextstartable.h"
#include "support/capture_sink.h"

namespace {

using namespace endpointsecurity;
using Texts = std::vector<std::string>;

// A component that notes what the director asks of it.
class Component : public ISysExtManagable {
 public:
  Component(std::string name, ObserverTags tags, Texts* trail) : name_(name), trail_(trail) {
    setTags(tags);
  }
  bool start() override { return true; }
  bool stop() override { return note(".stop"); }
  bool init() override { return note(".init") && initResult; }
  void uninit() override { note(".uninit"); }
  std::string getName() const override { return name_; }
  void setName(const std::string& name) override { name_ = name; }
  bool switchMode(const ObserverTags&, bool on) override {
    return note(on ? ".switchOn" : ".switchOff") && switchResult;
  }
  void activate() override { note(".activate"); }
  void deactivate() override { note(".deactivate"); }

  bool initResult = true;
  bool switchResult = true;

 private:
  bool note(const char* call) {
    trail_->push_back(name_ + call);
    return true;
  }
  std::string name_;
  Texts* trail_;
};

class Director : public ::testing::Test {
 protected:
  void SetUp() override {
    for (auto* c : {&dup, &shield, &proc, &file}) ASSERT_TRUE(director.pushBackManagable(c));
  }
  Texts take() { return std::exchange(trail, {}); }

  lumo::testing::CaptureSink sink;
  Texts trail;
  Component dup{"ClientDUP", TagAllClients | TagClientDup, &trail};
  Component shield{"ClientShield", TagAllClients | TagClientShield, &trail};
  Component proc{"ProcEventObserver", TagAllObservers | TagProcObserver, &trail};
  Component file{"FileEventObserver", TagAllObservers | TagFileObserver, &trail};
  ISysextDirector director;
};

TEST_F(Director, InitStopsAtTheFirstFailingComponentAndStopGoesThroughAll) {
  EXPECT_FALSE(director.pushBackManagable(nullptr));
  shield.initResult = false;
  EXPECT_FALSE(director.init());
  EXPECT_EQ(take(), (Texts{"ClientDUP.init", "ClientShield.init"}));
  EXPECT_TRUE(sink.contains("] Error: failed to init ClientShield\n"));
  director.stop();
  director.uninit();
  const Texts calls = take();
  EXPECT_EQ(calls.size(), 8u);
  EXPECT_EQ(calls.front(), "ClientDUP.stop");
  EXPECT_EQ(calls.back(), "FileEventObserver.uninit");
  director.clear();
  EXPECT_TRUE(director.init());
  EXPECT_TRUE(trail.empty());
}

TEST_F(Director, SwitchModeSwitchesClientsFirstThenObserversInListOrder) {
  dup.switchResult = false;  // logged; its observers follow all the same
  EXPECT_TRUE(director.switchMode(TagClientDup, TagProcObserver | TagFileObserver, true));
  EXPECT_EQ(take(), (Texts{"ClientDUP.switchOn", "ProcEventObserver.activate",
                           "FileEventObserver.activate"}));
  EXPECT_TRUE(sink.contains("] Warn:  Failed to switch client ClientDUP to mode true\n"));
  EXPECT_TRUE(director.switchMode(TagAllClients, TagAllObservers, false));
  EXPECT_EQ(take(), (Texts{"ClientDUP.switchOff", "ClientShield.switchOff",
                           "ProcEventObserver.deactivate", "FileEventObserver.deactivate"}));
  // No client named: observers still follow.
  EXPECT_TRUE(director.switchMode({}, TagFileObserver, true));
  EXPECT_EQ(take(), Texts{"FileEventObserver.activate"});
}

}  // namespace
