#include <gtest/gtest.h>

#include "support/client_fixture.h"

namespace {

using endpointsecurity::TagProcObserver;
using lumo::testing::ClientFixture;
using lumo::testing::FakeEndpointSecurity;
using lumo::testing::MessageBuilder;
using lumo::testing::ProcessSpec;
using lumo::testing::RecordingObserver;
using Call = FakeEndpointSecurity::Call;

class Muting : public ClientFixture {
 protected:
  void SetUp() override {
    watcher.activate();
    client->registerObserver(&watcher);
    ASSERT_TRUE(client->init());
  }

  static ProcessSpec signedBy(const std::string& id, pid_t pid = 900) {
    ProcessSpec shape;
    shape.pid = pid;
    shape.signingId = id;
    return shape;
  }

  RecordingObserver watcher{"Watcher",
                            {ES_EVENT_TYPE_AUTH_OPEN, ES_EVENT_TYPE_NOTIFY_EXEC},
                            TagProcObserver};
};

TEST_F(Muting, ExclusionsRebuildEveryKindOfMuteInOrder) {
  es.addMutedProcess(lumo::testing::makeToken(signedBy("old", 5)));
  ASSERT_TRUE(client->applyExclusions({"/opt/a/bin/tool"}, {"/opt/b/"}, {"com.vendor.agent"}));

  EXPECT_TRUE(es.mutedProcessTokens().empty());  // the old process mute is gone
  const auto literals = es.mutedLiterals();
  ASSERT_EQ(literals.size(), 9u);
  EXPECT_EQ(literals.front(), "/opt/a/bin/tool");
  EXPECT_EQ(literals.back(), "/usr/libexec/runningboardd");
  const auto prefixes = es.mutedPrefixes();
  ASSERT_EQ(prefixes.size(), 1u + 2u + 9u);  // daemon's, own directories, fixed table
  EXPECT_EQ(prefixes[0], "/opt/b/");
  EXPECT_EQ(prefixes[1], "/opt/tarvex/lumo/EP/");
  EXPECT_EQ(prefixes[3], "/System/Library/PrivateFrameworks/SkyLight.framework/");
  EXPECT_EQ(prefixes[8], "/System/Library/CoreServices/backupd.bundle");

  const char* expectedInOrder[] = {
      "] Info:  Got new exclusions. Removing existing exclusions",
      "Func:   Entering: unMuteAllExclusions",
      "] Trace:  es_unmute_all_paths succeded",
      "] Trace:  es_muted_processes succeded",
      "] Trace:  es_unmute_process succeded",
      "] Info:  Going to mute by process file",
      "] Debug:  Going to mute [/opt/a/bin/tool]",
      "] Info:  Going to mute by path prefix",
      "] Debug:  Going to mute path [/opt/b/]",
      "] Debug:  Adding bundle ID to the on the fly mute list[com.vendor.agent]",
      "] Debug:  Adding own bundle ID to the on the fly mute list[com.tarvex.lumo.ne]",
      "] Debug:  Adding own bundle ID to the on the fly mute list[com.tarvex.lumo.es]",
      "] Debug:  Going to mute path [/System/Library/PrivateFrameworks/SkyLight.framework/]",
      "] Debug:  Going to mute path [/usr/libexec/runningboardd]",
  };
  auto lines = sink.lines();
  size_t at = 0;
  for (const char* expected : expectedInOrder) {
    while (at < lines.size() && lines[at].text.find(expected) == std::string::npos) ++at;
    EXPECT_LT(at, lines.size()) << "missing or out of order: " << expected;
  }

  // Applying the same exclusions again gives the same mutes.
  ASSERT_TRUE(client->applyExclusions({"/opt/a/bin/tool"}, {"/opt/b/"}, {"com.vendor.agent"}));
  EXPECT_EQ(es.mutedLiterals(), literals);
  EXPECT_EQ(es.mutedPrefixes(), prefixes);
}

TEST_F(Muting, FailuresAreLoggedAndNeverFailTheUpdate) {
  es.failCall(Call::MutePathLiteral);
  es.failCall(Call::MutePathPrefix);
  es.failCall(Call::MutedProcesses);
  EXPECT_TRUE(client->applyExclusions({"/x/tool"}, {"/y/"}, {}));
  EXPECT_TRUE(sink.contains("] Error: es_muted_processes failed. Err:1"));
  EXPECT_TRUE(sink.contains("] Error: unmute all exclusions partialy failed."));
  EXPECT_EQ(es.callCount(Call::UnmuteAllPaths), 1u);  // paths were still unmuted
  EXPECT_EQ(es.callCount(Call::UnmuteProcess), 0u);
  EXPECT_TRUE(sink.contains("] Error: es_mute_path_literal failed for [/x/tool]. Err:1"));
  EXPECT_TRUE(sink.contains("] Error: es_mute_path_prefix failed for [/y/]. Err:1"));
  EXPECT_TRUE(sink.contains(
      "] Error: es_mute_path_prefix failed for own path [/opt/tarvex/lumo/EP/]. Err:1"));
  EXPECT_EQ(es.callCount(Call::MutePathLiteral), 1u + 8u);

  es.failCall(Call::MutedProcesses, false);
  es.failCall(Call::UnmuteAllPaths);
  es.addMutedProcess(lumo::testing::makeToken(signedBy("x")));
  es.failCall(Call::UnmuteProcess);
  EXPECT_FALSE(client->unMuteAllExclusions());
  EXPECT_TRUE(sink.contains("] Error: es_unmute_all_paths failed. Err:1"));
  EXPECT_TRUE(sink.contains("] Error: es_unmute_process failed. Err:1"));
}

TEST_F(Muting, ListedProcessesAreMutedOnTheFlyAndNeverReachObservers) {
  client->applyExclusions({}, {}, {"com.vendor.agent"});
  auto open = MessageBuilder::auth(ES_EVENT_TYPE_AUTH_OPEN)
                  .process(signedBy("com.vendor.agent", 31))
                  .deadline(clock.now() + 1000)
                  .build();
  auto exec = MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC)
                  .process(signedBy("com.tarvex.lumo.es", 32))
                  .build();
  es.deliver(open->get());
  es.deliver(exec->get());
  EXPECT_EQ(dispatch.pendingTasks(), 0u);
  dispatch.runQueued();
  EXPECT_EQ(watcher.authed + watcher.notified, 0);

  // The AUTH message was answered with the default answer before the mute.
  auto answers = es.answers(open->get());
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].flags, 0xFFFFFFFFu);
  EXPECT_FALSE(answers[0].cache);
  auto muted = es.mutedProcessTokens();
  ASSERT_EQ(muted.size(), 2u);
  EXPECT_EQ(audit_token_to_pid(muted[0]), 31);
  EXPECT_TRUE(sink.contains(
      "] Trace:  es_mute_process with bundle id [com.vendor.agent] succeded"));

  // Unsigned processes and identifiers not on the list pass.
  auto unsignedExec = MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC).build();
  auto otherExec =
      MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC).process(signedBy("com.vendor")).build();
  es.deliver(unsignedExec->get());
  es.deliver(otherExec->get());
  dispatch.runQueued();
  EXPECT_EQ(watcher.notified, 2);
}

TEST_F(Muting, FailedProcessMuteStillHandsTheMessageOn) {
  client->setBundleIdsToMute({});
  es.failCall(Call::MuteProcess);
  auto open = MessageBuilder::auth(ES_EVENT_TYPE_AUTH_OPEN)
                  .process(signedBy("com.tarvex.lumo.ne"))
                  .deadline(clock.now() + 1000)
                  .build();
  es.deliver(open->get());
  dispatch.runQueued();
  EXPECT_TRUE(sink.contains("] Error: es_mute_process failed. Err:1"));
  EXPECT_EQ(watcher.authed, 1);
  // Answered by the mute path and again after the observer walk.
  EXPECT_EQ(es.answers(open->get()).size(), 2u);
}

TEST_F(Muting, StoppedClientIgnoresNewExclusions) {
  client->stop();
  EXPECT_TRUE(client->applyExclusions({"/x"}, {"/y/"}, {"z"}));
  EXPECT_EQ(es.callCount(Call::UnmuteAllPaths), 0u);
  EXPECT_TRUE(es.mutedLiterals().empty());
  EXPECT_TRUE(sink.contains("] Debug:  Ignoring event because System Extension is shutting down."));
}

}  // namespace
