#include "observers/fileeventobserver.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "support/message_builder.h"
#include "support/value_text.h"

namespace {

using lumo::testing::MessageBuilder;
using lumo::testing::ProcessSpec;
using Texts = std::vector<std::string>;

constexpr const char* kSkip = "] Debug:  event skipped as it whitelisted for process: ";
constexpr const char* kAssert = "] Assert:  Assertion failed: [ ";
// Real and effective user differ so the record shows which one it took.
const ProcessSpec kUser{.pid = 321, .ruid = 502, .euid = 0, .asid = 77};
const ProcessSpec kFinder{.signingId = "com.apple.finder", .platform = true};
const ProcessSpec kXpcProxy{.signingId = "com.apple.xpc.proxy", .platform = true};

MessageBuilder event(es_event_type_t type, const ProcessSpec& process = kUser) {
  MessageBuilder builder = MessageBuilder::notify(type);
  builder.process(process);
  return builder;
}

// What the daemon receives for kUser.
std::string record(int op, int mount, int size, const std::string& name1,
                   const std::string& name2 = "") {
  return "{filename1='" + name1 + "';filename2='" + name2 + "';fileop=i" + std::to_string(op) +
         ";mounttype=i" + std::to_string(mount) + ";filesize=ull" + std::to_string(size) +
         ";pid=u321;sid=u77;uid=u502;}";
}

class FileEventObserverTest : public ::testing::Test {
 protected:
  void notify(MessageBuilder& builder) { observer.onNotify(builder.build()->get(), nullptr); }
  Texts sent() {
    Texts texts;
    for (const auto& r : link.daemon().received()) {
      texts.push_back(lumo::testing::valueText(r.event));
    }
    link.daemon().clear();
    return texts;
  }
  std::pair<sysext::MountType, bool> lookup(const std::string& path) {
    bool found = false;
    const sysext::MountType type = observer.getMountTypeFromFilePath(path, found);
    return {type, found};
  }

  lumo::testing::CaptureSink sink;
  lumo::testing::FakeDaemonLink link;
  endpointsecurity::FileEventObserver observer;
};

TEST_F(FileEventObserverTest, MountTableMatchesWholeComponentsAndTheFirstKeyWins) {
  observer.addMountPoint("/Volumes/A/B", sysext::kRemovable);
  observer.addMountPoint("/Volumes/A", sysext::kNetwork);
  observer.addMountPoint("/Volumes/R", static_cast<sysext::MountType>(7));
  EXPECT_TRUE(sink.contains("] Info:  new volume: /Volumes/A <network> was registered"));
  EXPECT_TRUE(sink.contains("] Info:  new volume: /Volumes/A/B <removable> was registered"));
  EXPECT_TRUE(sink.contains("] Info:  new volume: /Volumes/R <regular> was registered"));

  using P = std::pair<sysext::MountType, bool>;
  EXPECT_EQ(lookup("/Volumes/A/B/c"), P(sysext::kNetwork, true));  // outer key sorts first
  for (const char* outside : {"/Volumes/A", "/Volumes/AB/c", "/x/Volumes/A/c"}) {
    EXPECT_EQ(lookup(outside), P(sysext::kRegular, false)) << outside;
  }
  observer.addMountPoint("/Volumes/A", sysext::kRemovable);
  EXPECT_EQ(lookup("/Volumes/A/c"), P(sysext::kRemovable, true));

  sink.clear();
  observer.removeMountPoint("/Volumes/A/");
  EXPECT_TRUE(sink.lines().empty());
  observer.removeMountPoint("/Volumes/A");
  EXPECT_TRUE(sink.contains("] Info:  volume: /Volumes/A was unregistered"));
  EXPECT_EQ(lookup("/Volumes/A/B/c"), P(sysext::kRemovable, true));
  observer.clearMountPoints();
  EXPECT_TRUE(sink.contains("] Info:  mountpoints were cleared"));
  EXPECT_EQ(lookup("/Volumes/A/B/c"), P(sysext::kRegular, false));
}

TEST_F(FileEventObserverTest, OpensNeedAVolumeAndClosesAModificationOutsideTheFinderList) {
  observer.addMountPoint("/Volumes/USB", sysext::kRemovable);
  notify(event(ES_EVENT_TYPE_NOTIFY_OPEN).open({"/Volumes/USB/a.txt", 1234}));
  notify(event(ES_EVENT_TYPE_NOTIFY_OPEN).open({"/Users/x/a.txt", 1}));
  notify(event(ES_EVENT_TYPE_NOTIFY_OPEN).open({"/Volumes/USB", 1}));
  notify(event(ES_EVENT_TYPE_NOTIFY_CLOSE).close({"/Users/x/a.txt", 10}, false));
  notify(event(ES_EVENT_TYPE_NOTIFY_CLOSE).close({"/Users/x/a.txt", 10}, true));
  EXPECT_EQ(sent(),
            (Texts{record(sysext::kFileOpen, sysext::kRemovable, 1234, "/Volumes/USB/a.txt"),
                   record(sysext::kFileCloseModified, sysext::kRegular, 10, "/Users/x/a.txt")}));

  auto closeBy = [&](const ProcessSpec& process, const char* path) {
    notify(event(ES_EVENT_TYPE_NOTIFY_CLOSE, process).close({path, 1}, true));
    return sent().size();
  };
  EXPECT_EQ(closeBy(kFinder, "/x/.DS_Store"), 0u);
  EXPECT_TRUE(sink.contains(std::string(kSkip) + "com.apple.finder </x/.DS_Store>"));
  EXPECT_EQ(closeBy(kFinder, ".DS_Store"), 0u);
  EXPECT_EQ(closeBy(kFinder, "/x/a.txt") + closeBy(kFinder, "/x/.ds_store"), 2u);
  EXPECT_EQ(closeBy({.signingId = "com.apple.finder"}, "/x/.DS_Store"), 1u);
  EXPECT_EQ(closeBy(kXpcProxy, "/x/a.txt"), 0u);
  // Opens have no exclusion.
  notify(event(ES_EVENT_TYPE_NOTIFY_OPEN, kXpcProxy).open({"/Volumes/USB/.DS_Store", 1}));
  notify(event(ES_EVENT_TYPE_NOTIFY_OPEN, kFinder).open({"/Volumes/USB/.DS_Store", 1}));
  EXPECT_EQ(sent().size(), 2u);
}

TEST_F(FileEventObserverTest, RenameLinkExchangeAndDeleteAreSkippedOnlyForListedProcesses) {
  observer.addMountPoint("/tmp", sysext::kRemovable);
  // Rename and link are typed by their destination, exchange by its first file.
  notify(event(ES_EVENT_TYPE_NOTIFY_RENAME).renameToNewPath({"/Users/a", 55}, "/tmp", "b"));
  notify(event(ES_EVENT_TYPE_NOTIFY_RENAME).renameToExisting({"/tmp/a", 56}, {"/Users/b", 1}));
  notify(event(ES_EVENT_TYPE_NOTIFY_LINK).link({"/tmp/src", 9}, "/", "n"));
  notify(event(ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA).exchange({"/tmp/one", 1}, {"/u/two", 2}));
  notify(event(ES_EVENT_TYPE_NOTIFY_UNLINK).unlink({"/tmp/gone", 99}));
  EXPECT_EQ(sent(),
            (Texts{record(sysext::kFileRename, sysext::kRemovable, 55, "/Users/a", "/tmp/b"),
                   record(sysext::kFileRename, sysext::kRegular, 56, "/tmp/a", "/Users/b"),
                   record(sysext::kFileLink, sysext::kRegular, 9, "/tmp/src", "//n"),
                   record(sysext::kFileExchange, sysext::kRemovable, 2, "/tmp/one", "/u/two"),
                   record(sysext::kFileDelete, sysext::kRemovable, 0, "/tmp/gone")}));

  for (const ProcessSpec& listed : {kFinder, kXpcProxy}) {
    sink.clear();
    notify(event(ES_EVENT_TYPE_NOTIFY_RENAME, listed).renameToNewPath({"/x/a", 1}, "/x", "b"));
    notify(event(ES_EVENT_TYPE_NOTIFY_LINK, listed).link({"/x/a", 1}, "/x", "c"));
    notify(event(ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA, listed).exchange({"/x/1", 1}, {"/x/2", 2}));
    notify(event(ES_EVENT_TYPE_NOTIFY_RENAME, listed).renameToExisting({}, {}));  // no assertion
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(sink.count(std::string(kSkip) + *listed.signingId), 4u);
    EXPECT_EQ(sink.lines().size(), 4u);
    notify(event(ES_EVENT_TYPE_NOTIFY_UNLINK, listed).unlink({"/x/a", 1}));
    EXPECT_EQ(sent().size(), 1u);
  }
}

TEST_F(FileEventObserverTest, MissingPathsLogTheirAssertionAndSendNothing) {
  std::pair<std::unique_ptr<lumo::testing::TestMessage>, const char*> cases[] = {
      {event(ES_EVENT_TYPE_NOTIFY_OPEN).open({}).build(), "fileName]Unexpected null filename"},
      {event(ES_EVENT_TYPE_NOTIFY_CLOSE).close({}, true).build(),
       "fileName]Unexpected null filename"},
      {event(ES_EVENT_TYPE_NOTIFY_UNLINK).unlink({}).build(), "fileName]Unexpected null filename"},
      {event(ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA).exchange({"/a"}, {}).build(),
       "fileName1 && fileName2]Unexpected null filename"},
      {event(ES_EVENT_TYPE_NOTIFY_LINK).link({"/a"}, "/d", std::nullopt).build(),
       "targetDirPath && targetFileName && srcFileName]Unexpected null paths"},
      {event(ES_EVENT_TYPE_NOTIFY_RENAME).renameToExisting({}, {}).build(),
       "srcFileName]Unexpected null filename"},
      {event(ES_EVENT_TYPE_NOTIFY_RENAME).renameToExisting({"/a"}, {}).build(),
       "destFileName]Unexpected null filename"},
      {event(ES_EVENT_TYPE_NOTIFY_RENAME).renameToNewPath({"/a"}, std::nullopt, "b").build(),
       "newDirPath]Unexpected null path"},
      {event(ES_EVENT_TYPE_NOTIFY_WRITE).build(), "false]Usupported event 33"},
  };
  for (const auto& [msg, line] : cases) {
    sink.clear();
    observer.onNotify(msg->get(), nullptr);
    ASSERT_EQ(sink.lines().size(), 1u) << line;
    EXPECT_TRUE(sink.lines()[0].text.ends_with(kAssert + std::string(line)));
  }
  EXPECT_TRUE(sent().empty());
}

TEST_F(FileEventObserverTest, MountTableChangesRaceSafelyWithEvents) {
  auto open = event(ES_EVENT_TYPE_NOTIFY_OPEN).open({"/Volumes/USB/a", 1}).build();
  std::thread daemon([&] {
    for (int i = 0; i < 200; ++i) {
      observer.addMountPoint("/Volumes/USB", sysext::kRemovable);
      observer.addMountPoint("/Volumes/T", sysext::kNetwork);
      observer.removeMountPoint("/Volumes/T");
    }
  });
  for (int i = 0; i < 200; ++i) observer.onNotify(open->get(), nullptr);
  daemon.join();
  for (const std::string& text : sent()) {
    EXPECT_EQ(text, record(sysext::kFileOpen, sysext::kRemovable, 1, "/Volumes/USB/a"));
  }
}

}  // namespace
