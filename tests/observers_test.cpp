// The process, file and printer observers: the records they send and what
// they skip, hold or deny.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "observers/fileeventobserver.h"
#include "observers/printereventobserver.h"
#include "observers/proceventobserver.h"
#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "support/fake_es.h"
#include "support/message_builder.h"
#include "support/value_text.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::MessageBuilder;
using lumo::testing::ProcessSpec;
using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

// An observer's surroundings: the log, a listening daemon link, a facility.
class ObserverTest : public ::testing::Test {
 protected:
  // What the daemon got under `selector`, numbers with their kinds; the
  // daemon forgets all it got.
  Texts sent(const char* selector) {
    Texts texts;
    for (const auto& r : link.daemon().received(selector)) {
      texts.push_back(lumo::testing::valueText(r.event));
    }
    link.daemon().clear();
    return texts;
  }

  lumo::testing::CaptureSink sink;
  lumo::testing::FakeDaemonLink link;
  lumo::testing::FakeEndpointSecurity es;
};

constexpr auto kExec = ES_EVENT_TYPE_NOTIFY_EXEC;
constexpr auto kFork = ES_EVENT_TYPE_NOTIFY_FORK;
constexpr auto kExit = ES_EVENT_TYPE_NOTIFY_EXIT;

class ProcEventObserverTest : public ObserverTest {
 protected:
  void notify(MessageBuilder& builder) { observer.onNotify(builder.build()->get(), nullptr); }
  endpointsecurity::ProcEventObserver observer{es};
};

TEST_F(ProcEventObserverTest, RecordsDescribeTheNewImageOrChildAndListedPlatformShellsAreSkipped) {
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
  // A path that is not UTF-8 drops the record.
  notify(MessageBuilder::notify(kExit).process({.path = "/bin/\xc0\xaf"}));
  EXPECT_EQ(link.daemon().count(), 0u);
  EXPECT_TRUE(
      sink.contains("] Assert:  Assertion failed: [ eventDict]Error creating event dictionary.\n"));
}

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

class FileEventObserverTest : public ObserverTest {
 protected:
  void notify(MessageBuilder& builder) { observer.onNotify(builder.build()->get(), nullptr); }
  Texts sent() { return ObserverTest::sent("handleFileEvent:"); }
  std::pair<sysext::MountType, bool> lookup(const std::string& path) {
    bool found = false;
    const sysext::MountType type = observer.getMountTypeFromFilePath(path, found);
    return {type, found};
  }

  endpointsecurity::FileEventObserver observer;
};

TEST_F(FileEventObserverTest, MountTableMatchesWholeComponentsAndTheFirstKeyWins) {
  observer.addMountPoint("/Volumes/A/B", sysext::kRemovable);
  observer.addMountPoint("/Volumes/A", sysext::kNetwork);
  observer.addMountPoint("/Volumes/R", static_cast<sysext::MountType>(7));
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
  const std::unique_ptr<lumo::testing::TestMessage> missing[] = {
      event(ES_EVENT_TYPE_NOTIFY_CLOSE).close({}, true).build(),
      event(ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA).exchange({"/a"}, {}).build(),
      event(ES_EVENT_TYPE_NOTIFY_LINK).link({"/a"}, "/d", std::nullopt).build(),
      event(ES_EVENT_TYPE_NOTIFY_RENAME).renameToExisting({"/a"}, {}).build(),
      event(ES_EVENT_TYPE_NOTIFY_RENAME).renameToNewPath({"/a"}, {}, "b").build(),
      event(ES_EVENT_TYPE_NOTIFY_WRITE).build()};
  for (const auto& m : missing) observer.onNotify(m->get(), nullptr);
  EXPECT_EQ(sink.count("] Assert:  Assertion failed: [ "), 6u);
  EXPECT_TRUE(sink.contains("[ targetDirPath && targetFileName && srcFileName]Unexpected null"));
  EXPECT_TRUE(sink.contains("[ false]Usupported event 33"));
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

constexpr const char* kSocket = "/run/cups/cups.sock";
const std::string kJob1 = "/var/spool/cups/d00012-001";
const std::string kJob2 = "/var/spool/cups/d00013-001";

// Programs in a scratch directory: filter/ and backend/ exist, monitor/ not.
class PrinterEventObserverTest : public ObserverTest {
 protected:
  PrinterEventObserverTest() {
    fs::create_directories(root / "filter" / "sub");
    fs::create_directories(root / "backend");
    std::ofstream(root / "filter" / "pdftops") << "#!/bin/sh\n";
    std::ofstream(root / "backend" / "usb") << "#!/bin/sh\n";
    fs::create_symlink(root / "filter" / "pdftops", root / "filter" / "link");
    es_client_t* client;
    es.newClient(&client, [this](es_client_t* c, const es_message_t* m) {
      m->action_type == ES_ACTION_TYPE_AUTH ? void(answered = observer.onAuth(m, c))
                                            : observer.onNotify(m, c);
    });
  }
  ~PrinterEventObserverTest() override { fs::remove_all(root); }

  std::string program(const char* name) const { return (root / name).string(); }
  // Kept to the end: the fake keys answers by message address.
  const es_message_t* deliver(MessageBuilder& builder) {
    kept.push_back(builder.build());
    es.deliver(kept.back()->get());
    return kept.back()->get();
  }
  void connect(const lumo::testing::ProcessSpec& process,
               const std::optional<std::string>& path = kSocket) {
    deliver(MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT)
                .process(process)
                .uipcConnect(path));
  }
  void spool(const std::string& name, const std::optional<std::string>& dir = "/var/spool/cups") {
    deliver(MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_RENAME)
                .renameToNewPath({"/var/spool/cups/tmp/x"}, dir, name));
  }
  // True when the observer denied the run (uncached, and said so to the
  // client); false when it left it.
  bool exec(const std::string& path, std::vector<std::string> args) {
    args.insert(args.begin(), path);
    const auto answers = es.answers(deliver(
        MessageBuilder::auth(ES_EVENT_TYPE_AUTH_EXEC).exec({.path = path}, std::move(args))));
    EXPECT_EQ(answered, !answers.empty());
    for (const auto& a : answers) EXPECT_TRUE(a.result == ES_AUTH_RESULT_DENY && !a.cache);
    return answers.size() == 1;
  }
  Texts reports() { return sent("handlePrinterEvent:"); }

  const fs::path root = [] {
    std::string pattern = (fs::temp_directory_path() / "lumo-cups-XXXXXX").string();
    return fs::path(mkdtemp(pattern.data()));
  }();
  std::vector<milliseconds> sleeps;
  std::function<void(size_t)> onSleep;
  endpointsecurity::PrinterEventObserver observer{
      es,
      {kSocket,
       "/var/spool/cups/d",
       {program("filter/"), program("backend/"), program("monitor/")}},
      [this](milliseconds wait) {
        sleeps.push_back(wait);
        if (onSleep) onSleep(sleeps.size());
      }};
  bool answered = false;
  std::vector<std::unique_ptr<lumo::testing::TestMessage>> kept;
};

TEST_F(PrinterEventObserverTest, EachSpooledFileIsReportedOnceWithTheLastSubmitter) {
  connect({.pid = 500});
  spool("d00012-001");
  spool("d00012-001");
  // Platform print utilities don't submit jobs; look-alikes do.
  connect({.pid = 600, .signingId = "com.apple.printuitool", .platform = true});
  spool("d00013-001");
  connect({.pid = 601, .signingId = "com.apple.printuitool"});
  // The socket must match exactly; a null path is logged.
  connect({.pid = 700}, std::string(kSocket) + "2");
  connect({.pid = 702}, std::nullopt);
  deliver(MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_RENAME)
              .renameToExisting({"/a"}, {"/var/spool/cups/d00014-001"}));
  spool("c00015-001");
  spool("d00015-001", "/tmp");
  spool("d00016-001", std::nullopt);
  EXPECT_EQ(sink.count("] Assert:  Assertion failed: [ name]Unexpected null event data field"), 1u);
  EXPECT_EQ(sink.count("Assertion failed: [ newPath]Unexpected null event data field"), 1u);
  EXPECT_EQ(reports(),
            (Texts{"{filename='" + kJob1 + "';pid=u500;}", "{filename='" + kJob2 + "';pid=u500;}",
                   "{filename='/var/spool/cups/d00014-001';pid=u601;}"}));
}

TEST_F(PrinterEventObserverTest, ProgramsOfBlockedPendingOrUnknownJobsAreHeldOrDenied) {
  // Only regular files of the program directories count, once listed.
  const std::string pdftops = program("filter/pdftops");
  const std::string unknown = "/var/spool/cups/d00099-001";  // never reported: denied
  EXPECT_FALSE(exec(pdftops, {unknown}));
  EXPECT_TRUE(observer.init());
  EXPECT_TRUE(
      sink.contains("] Error: failed to enumerate cups filter dir: " + program("monitor/")));
  EXPECT_TRUE(exec(program("backend/usb"), {unknown}) && exec(pdftops, {unknown}));
  EXPECT_FALSE(exec(program("filter/link"), {unknown}) || exec("/usr/bin/lp", {unknown}));

  spool("d00012-001");
  spool("d00013-001");
  observer.setPrinterEventVerdict(kJob1, false);
  observer.setPrinterEventVerdict(kJob2, true);
  // The usual filter line: job id, user, title, copies, options, file.
  EXPECT_TRUE(exec(pdftops, {"12", "user", "title", "1", "", kJob1}));
  EXPECT_FALSE(exec(pdftops, {"12", "user", "title", "1", "", kJob2}));
  EXPECT_TRUE(exec(pdftops, {kJob2, kJob1}));
  EXPECT_FALSE(exec(pdftops, {"/tmp/d00012-001"}));  // no data file: never denied
  EXPECT_TRUE(sleeps.empty());

  // Pending: six waits of 200 ms, then left to the client even if a denial
  // arrives meanwhile; the denial applies to the next run.
  spool("d00014-001");
  const std::string pending = "/var/spool/cups/d00014-001";
  onSleep = [&](size_t n) {
    if (n == 3) observer.setPrinterEventVerdict(pending, false);
  };
  EXPECT_FALSE(exec(pdftops, {pending}));
  EXPECT_EQ(sleeps, std::vector<milliseconds>(6, milliseconds(200)));
  EXPECT_TRUE(exec(pdftops, {pending}));
  onSleep = nullptr;
  spool("d00015-001");
  spool("d00016-001");
  EXPECT_FALSE(exec(pdftops, {"/var/spool/cups/d00015-001", "/var/spool/cups/d00016-001"}));
  EXPECT_EQ(sleeps.size(), 18u);
}

TEST_F(PrinterEventObserverTest, VerdictsAndReportsProceedWhileAFilterWaits) {
  observer.init();
  spool("d00012-001");
  std::promise<void> waiting;
  std::promise<void> release;
  onSleep = [&, released = release.get_future().share()](size_t n) {
    if (n != 1) return;
    waiting.set_value();
    released.wait();
  };
  // Built here: the fixture's helpers are not for two threads.
  auto filter = MessageBuilder::auth(ES_EVENT_TYPE_AUTH_EXEC)
                    .exec({.path = program("filter/pdftops")}, {"pdftops", kJob1})
                    .build();
  std::thread spooler([&] { es.deliver(filter->get()); });
  waiting.get_future().wait();
  // Neither may need a lock the waiting filter holds.
  observer.setPrinterEventVerdict(kJob1, false);
  connect({.pid = 900});
  spool("d00013-001");
  release.set_value();
  spooler.join();
  EXPECT_TRUE(es.answers(filter->get()).empty());
  EXPECT_EQ(sleeps.size(), 6u);
  EXPECT_EQ(reports().back(), "{filename='" + kJob2 + "';pid=u900;}");
}

}  // namespace
