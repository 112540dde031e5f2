#include "observers/proceventobserver.h"

#include <gtest/gtest.h>

#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "support/fake_es.h"
#include "support/message_builder.h"
#include "support/value_text.h"

namespace {

using lumo::testing::MessageBuilder;
using lumo::testing::ProcessSpec;
using Texts = std::vector<std::string>;

constexpr auto kExec = ES_EVENT_TYPE_NOTIFY_EXEC;
constexpr auto kFork = ES_EVENT_TYPE_NOTIFY_FORK;
constexpr auto kExit = ES_EVENT_TYPE_NOTIFY_EXIT;

class ProcEventObserverTest : public ::testing::Test {
 protected:
  void notify(MessageBuilder& builder) { observer.onNotify(builder.build()->get(), nullptr); }
  Texts sent(const char* selector) {
    Texts texts;
    for (const auto& r : link.daemon().received(selector)) {
      texts.push_back(lumo::testing::valueText(r.event));
    }
    return texts;
  }

  lumo::testing::CaptureSink sink;
  lumo::testing::FakeDaemonLink link;
  lumo::testing::FakeEndpointSecurity es;
  endpointsecurity::ProcEventObserver observer{es};
};

TEST_F(ProcEventObserverTest, StartRecordsDescribeTheNewImageOrTheChild) {
  // Real and effective user differ so the record shows which one it took.
  const ProcessSpec ls{
      .pid = 700, .ppid = 600, .ruid = 501, .euid = 0, .asid = 9, .path = "/bin/ls"};
  notify(MessageBuilder::notify(kExec)
             .process({.path = "/bin/zsh"})
             .machTime(1234567890123)
             .exec(ls, {"ls", "-l", "/tmp"}));
  notify(MessageBuilder::notify(kExec).exec(ls, {"ls"}));
  notify(MessageBuilder::notify(kFork)
             .process({.pid = 600})
             .fork({.pid = 701, .ppid = 600, .ruid = 0, .asid = 9, .path = std::nullopt}));
  const std::string ids = "pid=u700;sid=u9;uid=u501;ppid=u600;timestamp=";
  EXPECT_EQ(sent("handleProcessStartEvent:"),
            (Texts{"{path='/bin/ls';cmd='-l /tmp';" + ids + "ull1234567890123;}",
                   "{path='/bin/ls';cmd='';" + ids + "ull0;}",
                   "{path='';cmd='';pid=u701;sid=u9;uid=u0;ppid=u600;timestamp=ull0;}"}));
  EXPECT_TRUE(sent("handleProcessExitEvent:").empty());
}

TEST_F(ProcEventObserverTest, ExitsAreReportedAsExitsUnlessAPlatformShellOrDaemonLeaves) {
  const ProcessSpec zsh{.pid = 800, .signingId = "com.apple.zsh", .platform = true};
  notify(MessageBuilder::notify(kExec).exec(zsh, {"zsh"}));
  notify(MessageBuilder::notify(kFork).fork(zsh));
  notify(MessageBuilder::notify(kExit).process(zsh));
  EXPECT_EQ(link.daemon().count(), 0u);
  EXPECT_EQ(sink.count("] Debug:  event skipped as it whitelisted for process: com.apple.zsh"), 3u);
  // Unsigned, unlisted or look-alike: reported.
  for (const ProcessSpec& reported :
       {ProcessSpec{.pid = 5, .signingId = "com.apple.zsh"},
        ProcessSpec{.pid = 5, .platform = true},
        ProcessSpec{.pid = 5, .signingId = "com.apple.ZSH", .platform = true}}) {
    notify(MessageBuilder::notify(kExit).process(reported).machTime(7));
  }
  EXPECT_EQ(sent("handleProcessExitEvent:"),
            Texts(3,
                  "{path='/usr/bin/true';cmd='';pid=u5;sid=u100007;uid=u501;ppid=u1;"
                  "timestamp=ull7;}"));
  EXPECT_EQ(link.daemon().count(), 3u);
  // A path that is not UTF-8 drops the record.
  notify(MessageBuilder::notify(kExit).process({.path = "/bin/\xc0\xaf"}));
  EXPECT_EQ(link.daemon().count(), 3u);
  EXPECT_TRUE(
      sink.contains("] Assert:  Assertion failed: [ eventDict]Error creating event dictionary.\n"));
}

}  // namespace
