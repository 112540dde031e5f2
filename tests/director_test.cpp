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
  Component(std::string name, ObserverTags tags, Texts& trail) : name_(name), trail_(trail) {
    setTags(tags);
  }
  bool start() override { return true; }
  bool stop() override { return true; }
  bool init() override { return note(".init") && succeeds; }
  void uninit() override {}
  std::string getName() const override { return name_; }
  void setName(const std::string& name) override { name_ = name; }
  bool switchMode(const ObserverTags&, bool on) override {
    return note(on ? ".on" : ".off") && succeeds;
  }
  void activate() override { note(".activate"); }
  void deactivate() override { note(".deactivate"); }

  bool succeeds = true;

 private:
  bool note(const char* call) {
    trail_.push_back(name_ + call);
    return true;
  }
  std::string name_;
  Texts& trail_;
};

TEST(Director, InitStopsAtTheFirstFailureAndSwitchModeGoesToClientsThenObservers) {
  lumo::testing::CaptureSink sink;
  Texts trail;
  Component dup{"Dup", TagAllClients | TagClientDup, trail};
  Component shield{"Shield", TagAllClients | TagClientShield, trail};
  Component proc{"Proc", TagAllObservers | TagProcObserver, trail};
  Component file{"File", TagAllObservers | TagFileObserver, trail};
  ISysextDirector director;
  EXPECT_FALSE(director.pushBackManagable(nullptr));
  for (auto* c : {&dup, &shield, &proc, &file}) ASSERT_TRUE(director.pushBackManagable(c));
  shield.succeeds = false;
  EXPECT_FALSE(director.init());
  EXPECT_EQ(std::exchange(trail, {}), (Texts{"Dup.init", "Shield.init"}));

  // A client that fails to switch is logged; its observers follow all the same.
  EXPECT_TRUE(director.switchMode(TagAllClients, TagProcObserver | TagFileObserver, true));
  EXPECT_EQ(std::exchange(trail, {}),
            (Texts{"Dup.on", "Shield.on", "Proc.activate", "File.activate"}));
  EXPECT_TRUE(sink.contains("] Warn:  Failed to switch client Shield to mode true\n"));
  EXPECT_TRUE(director.switchMode({}, TagFileObserver, false));
  EXPECT_EQ(std::exchange(trail, {}), Texts{"File.deactivate"});
}

}  // namespace
