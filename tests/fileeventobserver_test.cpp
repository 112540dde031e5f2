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

// Real and effective user differ so the record shows which one it took.
const ProcessSpec kUser{.pid = 321, .ruid = 502, .euid = 0, .asid = 77};
const ProcessSpec kFinder{.signingId = "com.apple.finder", .platform = true};
const ProcessSpec kXpcProxy{.signingId = "com.apple.xpc.proxy", .platform = true};

MessageBuilder event(es_event_type_t type, const ProcessSpec& process = kUser) {
  return std::move(MessageBuilder::notify(type).process(process));
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
    for (const auto& r : link.daemon().received("handleFileEvent:")) {
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
  EXPECT_TRUE(sink.contains("] Info:  new volume: /Volumes/R <regular> was registered"));
  using P = std::pair<sysext::MountType, bool>;
  EXPECT_EQ(lookup("/Volumes/A/B/c"), P(sysext::kNetwork, true));  // outer key sorts first
  for (const char* outside : {"/Volumes/A", "/Volumes/AB/c", "/x/Volumes/A/c"}) {
    EXPECT_EQ(lookup(outside), P(sysext::kRegular, false)) << outside;
  }
  observer.addMountPoint("/Volumes/A", sysext::kRemovable);
  EXPECT_EQ(lookup("/Volumes/A/c"), P(sysext::kRemovable, true));
  observer.removeMountPoint("/Volumes/A/");  // not a key: nothing happens
  observer.removeMountPoint("/Volumes/A");
  EXPECT_EQ(sink.count("] Info:  volume: /Volumes/A was unregistered"), 1u);
  EXPECT_EQ(lookup("/Volumes/A/B/c"), P(sysext::kRemovable, true));
  observer.clearMountPoints();
  EXPECT_EQ(lookup("/Volumes/A/B/c"), P(sysext::kRegular, false));
}

TEST_F(FileEventObserverTest, RecordsOfEachKindSkippingOnlyListedPlatformProcesses) {
  observer.addMountPoint("/Volumes/USB", sysext::kRemovable);
  // Opens need a volume, closes a modification; rename and link are typed
  // by their destination, exchange by its first file.
  notify(event(ES_EVENT_TYPE_NOTIFY_OPEN).open({"/Volumes/USB/a.txt", 1234}));
  notify(event(ES_EVENT_TYPE_NOTIFY_OPEN).open({"/Users/x/a.txt", 1}));
  notify(event(ES_EVENT_TYPE_NOTIFY_OPEN).open({"/Volumes/USB", 1}));
  notify(event(ES_EVENT_TYPE_NOTIFY_CLOSE).close({"/Users/x/a.txt", 10}, false));
  notify(event(ES_EVENT_TYPE_NOTIFY_CLOSE).close({"/Users/x/a.txt", 10}, true));
  notify(event(ES_EVENT_TYPE_NOTIFY_RENAME).renameToNewPath({"/Users/a", 55}, "/Volumes/USB", "b"));
  notify(
      event(ES_EVENT_TYPE_NOTIFY_RENAME).renameToExisting({"/Volumes/USB/a", 56}, {"/Users/b", 1}));
  notify(event(ES_EVENT_TYPE_NOTIFY_LINK).link({"/Volumes/USB/src", 9}, "/", "n"));
  notify(event(ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA).exchange({"/Volumes/USB/one", 1}, {"/u/two", 2}));
  notify(event(ES_EVENT_TYPE_NOTIFY_UNLINK).unlink({"/Volumes/USB/gone", 99}));
  const int usb = sysext::kRemovable, regular = sysext::kRegular;
  EXPECT_EQ(sent(), (Texts{record(sysext::kFileOpen, usb, 1234, "/Volumes/USB/a.txt"),
                           record(sysext::kFileCloseModified, regular, 10, "/Users/x/a.txt"),
                           record(sysext::kFileRename, usb, 55, "/Users/a", "/Volumes/USB/b"),
                           record(sysext::kFileRename, regular, 56, "/Volumes/USB/a", "/Users/b"),
                           record(sysext::kFileLink, regular, 9, "/Volumes/USB/src", "//n"),
                           record(sysext::kFileExchange, usb, 2, "/Volumes/USB/one", "/u/two"),
                           record(sysext::kFileDelete, usb, 0, "/Volumes/USB/gone")}));

  // The Finder's .DS_Store (exact ending) and everything of xpcproxy, but
  // for opens and deletes; honoured for platform binaries only.
  for (const ProcessSpec& listed : {kFinder, kXpcProxy}) {
    sink.clear();
    notify(event(ES_EVENT_TYPE_NOTIFY_CLOSE, listed).close({"/x/.DS_Store", 1}, true));
    notify(event(ES_EVENT_TYPE_NOTIFY_RENAME, listed).renameToNewPath({"/x/a", 1}, "/x", "b"));
    notify(event(ES_EVENT_TYPE_NOTIFY_LINK, listed).link({"/x/a", 1}, "/x", "c"));
    notify(event(ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA, listed).exchange({"/x/1", 1}, {"/x/2", 2}));
    notify(event(ES_EVENT_TYPE_NOTIFY_RENAME, listed).renameToExisting({}, {}));  // no assertion
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(
        sink.count("] Debug:  event skipped as it whitelisted for process: " + *listed.signingId),
        5u);
    EXPECT_EQ(sink.lines().size(), 5u);
    notify(event(ES_EVENT_TYPE_NOTIFY_UNLINK, listed).unlink({"/x/a", 1}));
    notify(event(ES_EVENT_TYPE_NOTIFY_OPEN, listed).open({"/Volumes/USB/.DS_Store", 1}));
    EXPECT_EQ(sent().size(), 2u);
  }
  for (const char* path : {"/x/a.txt", "/x/.ds_store", ".DS_Store"}) {
    notify(event(ES_EVENT_TYPE_NOTIFY_CLOSE, kFinder).close({path, 1}, true));
  }
  notify(event(ES_EVENT_TYPE_NOTIFY_CLOSE, {.signingId = "com.apple.finder"})
             .close({"/x/.DS_Store", 1}, true));
  EXPECT_EQ(sent().size(), 3u);
}

TEST_F(FileEventObserverTest, MissingPathsAndNamesThatAreNotUtf8LogTheirAssertionAndSendNothing) {
  std::pair<std::unique_ptr<lumo::testing::TestMessage>, const char*> cases[] = {
      {event(ES_EVENT_TYPE_NOTIFY_CLOSE).close({}, true).build(),
       "fileName]Unexpected null filename"},
      {event(ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA).exchange({"/a"}, {}).build(),
       "fileName1 && fileName2]Unexpected null filename"},
      {event(ES_EVENT_TYPE_NOTIFY_LINK).link({"/a"}, "/d", std::nullopt).build(),
       "targetDirPath && targetFileName && srcFileName]Unexpected null paths"},
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
    EXPECT_TRUE(
        sink.lines()[0].text.ends_with("] Assert:  Assertion failed: [ " + std::string(line)));
  }
  EXPECT_TRUE(sent().empty());

  // A name that is not UTF-8 can't go out: truncated, overlong, a surrogate,
  // too high, a stray continuation byte. Others can.
  for (const char* bad : {"\xc3", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "a\x80"}) {
    notify(event(ES_EVENT_TYPE_NOTIFY_UNLINK).unlink({std::string("/x/") + bad}));
  }
  EXPECT_EQ(
      sink.count("] Assert:  Assertion failed: [ eventDict]Error converting event to dictionary."),
      5u);
  notify(event(ES_EVENT_TYPE_NOTIFY_UNLINK).unlink({"/Users/jörg/日本/😀"}));
  EXPECT_EQ(sent(), Texts{record(sysext::kFileDelete, sysext::kRegular, 0, "/Users/jörg/日本/😀")});
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
