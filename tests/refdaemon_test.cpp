#include "refdaemon/refdaemon.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "metrics/textfile.h"
#include "refdaemon/commands.h"
#include "refdaemon/eventfilter.h"
#include "refdaemon/mountscan.h"
#include "refdaemon/options.h"
#include "support/capture_sink.h"
#include "support/link_journal.h"
#include "xpc/linkchannel.h"
#include "xpc/unixsocketlistener.h"

namespace lumo::refdaemon {
namespace {

using lumo::testing::ExtensionEnd;
using lumo::testing::Journal;
using namespace tarvex::itx::xpc;
using Texts = std::vector<std::string>;

// A reference daemon on a scratch runtime directory; its output lines go
// to a journal.
class RefDaemonLink : public ::testing::Test {
 protected:
  void start(RefDaemon::Settings settings) {
    daemon_ = RefDaemon::create(std::move(settings),
                                [this](const std::string& line) { output_.add(line); });
    ASSERT_TRUE(listener_.start([daemon = daemon_](auto c) { daemon->accept(std::move(c)); }));
  }
  void TearDown() override {
    listener_.stop();
    if (daemon_) daemon_->disconnectAll();
    EXPECT_TRUE(linux_platform::waitForLinkThreads(Journal::kPatience));
    std::filesystem::remove_all(dir_);
  }

  lumo::testing::CaptureSink sink_;
  Journal output_;
  const std::string dir_ = [] {
    char pattern[] = "/tmp/lumo-refdaemon-test-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  linux_platform::UnixSocketListener listener_{lumo::testing::kDaemonService, 0, dir_};
  std::shared_ptr<RefDaemon> daemon_;
  const std::string pid_ = std::to_string(getpid());
};

TEST_F(RefDaemonLink, PushesConfigurationAndCommandsToEveryExtensionAndPrintsEventsAsJson) {
  RefDaemon::Settings settings;
  settings.printVerdict = true;
  settings.policy = PolicySwitches{true, false, true, false};
  settings.exclusions = {{Exclusion::Kind::Path, "/usr/bin/rsync"},
                         {Exclusion::Kind::Prefix, "/opt/backup/"},
                         {Exclusion::Kind::Bundle, "com.example.tool"}};
  settings.mounts = {{"/media/usb", MountKind::Removable}, {"/mnt/nas", MountKind::Network}};
  start(settings);
  Texts expected{
      "registered YES",
      "setPolicy {dupon=b1;webcontrolon=b0;devicecontrolon=b1;antitamperingon=b0;}",
      "setExclusions [{application_description={process_path={comp_value='/usr/bin/rsync';"
      "operator=u1;};};},{application_description={process_dir_path={comp_value="
      "'/opt/backup/';operator=u1;};};},{application_description={process_bundle_id="
      "'com.example.tool';};},]",
      "clearMountPoints",
      "addMountPoint '/media/usb' 2",
      "addMountPoint '/mnt/nas' 1",
  };
  Journal first;
  Journal second;
  ExtensionEnd a(dir_, first);
  ExtensionEnd b(dir_, second);
  a.resumeAndRegister();
  ASSERT_TRUE(first.waitForSize(expected.size()));
  b.resumeAndRegister();
  ASSERT_TRUE(second.waitForSize(expected.size()));
  EXPECT_EQ(first.entries(), expected);
  EXPECT_EQ(second.entries(), expected);
  // Fresh, increasing timestamps on every push are the process test's to
  // see: the extension refuses old ones, also from a restarted daemon.
  // A policy command changes the switches it names and keeps the others.
  for (const char* line :
       {"policy dup=0,antitampering=on", "exclude clear", "  exclude bundle com.x.y ",
        "mount /media/my usb=removable", "unmount /media/my usb",
        "verdict /var/spool/cups/d0042-001 block", ""}) {
    EXPECT_EQ(runCommand(line, *daemon_).error, "") << line;
  }
  expected.insert(expected.end(),
                  {"setPolicy {dupon=b0;webcontrolon=b0;devicecontrolon=b1;antitamperingon=b1;}",
                   "setExclusions []",
                   "setExclusions [{application_description={process_bundle_id='com.x.y';};},]",
                   "addMountPoint '/media/my usb' 2", "removeMountPoint '/media/my usb'",
                   "setPrinter '/var/spool/cups/d0042-001' NO"});
  // Bad lines change nothing and say what is wrong.
  for (const char* line : {"policy dup=maybe", "exclude path", "unmount /never/mounted",
                           "verdict /x maybe", "format /"}) {
    EXPECT_NE(runCommand(line, *daemon_).error, "") << line;
  }
  for (Journal* journal : {&first, &second}) {
    ASSERT_TRUE(journal->waitForSize(expected.size()));
    EXPECT_EQ(journal->entries(), expected);
  }

  // Each event is one JSON line, numbers tagged by kind; a print job is
  // answered with the verdict the daemon was given.
  a.daemon->handlePrinterEvent(
      Dictionary{{{"filename", Value("/tmp/spool/\"d\"\n\x01é")},
                  {"pid", Value(Number::ofUnsignedInt(77))},
                  {"size", Value(Number::ofLongLong(-7))},
                  {"nested", Value(Array{{Value(), Value(Number::ofBool(true))}})},
                  {"path", Value("/u/ev\\xffil")}}});
  ASSERT_TRUE(first.waitFor("setPrinter '/tmp/spool/\"d\"\n\x01é' YES"));
  EXPECT_EQ(output_.count("{\"event\":\"handlePrinterEvent:\",\"filename\":\"/tmp/spool/\\\"d\\\"\\n"
                          "\\u0001é\",\"pid\":{\"uint\":77},\"size\":{\"longlong\":-7},"
                          "\"nested\":[null,{\"bool\":true}],"
                          // A name the extension escaped: its bytes beside it.
                          "\"path\":\"/u/ev\\\\xffil\",\"path_bytes\":\"2f752f6576ff696c\"}"),
            1u);

  // An extension that goes is forgotten.
  b.connection.reset();
  b.daemon.reset();
  ASSERT_TRUE(output_.waitFor("{\"connection\":\"closed\",\"peer_pid\":" + pid_ + "}"));
  EXPECT_EQ(daemon_->registeredCount(), 1u);
}

TEST_F(RefDaemonLink, FiltersEventsNamesEnumsAndCountsForStats) {
  RefDaemon::Settings settings;
  ASSERT_EQ(addFilterCriterion("kind", "file", &settings.filter), "");
  start(settings);
  Journal journal;
  ExtensionEnd a(dir_, journal);
  a.resumeAndRegister();
  ASSERT_TRUE(journal.waitFor("registered YES"));
  const auto fileEvent = [](int op, int mount) {
    return Dictionary{{{"filename1", Value("/media/usb/a")},
                       {"fileop", Value(Number::ofInt(op))},
                       {"mounttype", Value(Number::ofInt(mount))},
                       {"pid", Value(Number::ofUnsignedInt(7))}}};
  };
  a.daemon->handleProcessStartEvent(
      Dictionary{{{"path", Value("/bin/ls")}, {"pid", Value(Number::ofUnsignedInt(7))}}});
  a.daemon->handleFileEvent(fileEvent(6, 2));
  a.daemon->handleFileEvent(fileEvent(99, 2));  // a number the schema doesn't name
  const std::string named =
      "{\"event\":\"handleFileEvent:\",\"filename1\":\"/media/usb/a\",\"fileop\":{\"int\":6},"
      "\"fileop_name\":\"kFileRename\",\"mounttype\":{\"int\":2},\"mounttype_name\":"
      "\"kRemovable\",\"pid\":{\"uint\":7}}";
  ASSERT_TRUE(output_.waitFor(named));
  ASSERT_TRUE(output_.waitFor(
      "{\"event\":\"handleFileEvent:\",\"filename1\":\"/media/usb/a\",\"fileop\":{\"int\":99},"
      "\"mounttype\":{\"int\":2},\"mounttype_name\":\"kRemovable\",\"pid\":{\"uint\":7}}"));
  // The exec was counted, not shown; pid 7's executable is known from it.
  EXPECT_EQ(runCommand("filter exe /bin/ls", *daemon_).error, "");
  EXPECT_EQ(runCommand("filter", *daemon_).output, "{\"filter\":\"kind=file exe=/bin/ls\"}");
  a.daemon->handleFileEvent(fileEvent(1, 0));
  ASSERT_TRUE(output_.waitFor(
      "{\"event\":\"handleFileEvent:\",\"filename1\":\"/media/usb/a\",\"fileop\":{\"int\":1},"
      "\"fileop_name\":\"kFileCreate\",\"mounttype\":{\"int\":0},\"mounttype_name\":"
      "\"kRegular\",\"pid\":{\"uint\":7}}"));

  // Drops come from the extension's metrics file, as lumo-es writes it.
  const std::string metrics = dir_ + "/lumo-es.prom";
  std::string error;
  ASSERT_TRUE(tarvex::itx::rtn::linux_platform::replaceFile(
      metrics,
      "# HELP lumo_es_events_dropped_total Lost.\n# TYPE lumo_es_events_dropped_total counter\n"
      "lumo_es_events_dropped_total{type=\"file\"} 3\nlumo_es_link_up 1\n",
      &error))
      << error;
  EXPECT_TRUE(runCommand("stats", *daemon_).stats);
  EXPECT_EQ(daemon_->statsLine(metrics),
            "{\"stats\":{\"events\":{\"exec\":{\"received\":1,\"shown\":0},"
            "\"exit\":{\"received\":0,\"shown\":0},\"file\":{\"received\":3,\"shown\":3},"
            "\"print\":{\"received\":0,\"shown\":0}},\"filter\":\"kind=file exe=/bin/ls\","
            "\"link\":{\"registered\":1,\"accepted\":1,\"closed\":0},\"extension_drops\":"
            "{\"lumo_es_events_dropped_total{type=\\\"file\\\"}\":3},\"metrics_file\":\"" +
                metrics + "\"}}");
  EXPECT_NE(daemon_->statsLine(dir_ + "/none").find("\"extension_drops\":null"), std::string::npos);
  EXPECT_EQ(runCommand("filter clear", *daemon_).error, "");
  EXPECT_EQ(runCommand("filter", *daemon_).output, "{\"filter\":\"none\"}");
}

// Criteria of different kinds must all hold, values of one are
// alternatives; paths match whole directory names.
TEST(RefDaemonFilter, MatchesKindsPathsUnderDirectoriesPidsAndExecutables) {
  const auto exec = [](const char* path, uint32_t pid) {
    return Dictionary{{{"path", Value(path)}, {"pid", Value(Number::ofUnsignedInt(pid))}}};
  };
  const auto rename = [](const char* from, const char* to, uint32_t pid) {
    return Dictionary{{{"filename1", Value(from)},
                       {"filename2", Value(to)},
                       {"pid", Value(Number::ofUnsignedInt(pid))}}};
  };
  const auto noExecutable = [](uint64_t) { return std::optional<std::string>(); };
  const auto cpIs42 = [](uint64_t pid) {
    return pid == 42 ? std::optional<std::string>("/usr/bin/cp") : std::nullopt;
  };
  EventFilter none;
  EXPECT_TRUE(none.matches(EventKind::Print, Dictionary{}, noExecutable));

  EventFilter home;
  ASSERT_EQ(addFilterCriterion("path", "/home/,/srv", &home), "");
  EXPECT_TRUE(home.matches(EventKind::File, rename("/tmp/a", "/home/me/a", 1), noExecutable));
  EXPECT_TRUE(home.matches(EventKind::Exec, exec("/srv", 1), noExecutable));
  EXPECT_FALSE(home.matches(EventKind::Exec, exec("/homer/x", 1), noExecutable));
  EXPECT_FALSE(home.matches(EventKind::Exec, exec("/srvx", 1), noExecutable));
  EXPECT_FALSE(home.matches(EventKind::Print, Dictionary{}, noExecutable));
  EventFilter root;
  ASSERT_EQ(addFilterCriterion("path", "/", &root), "");
  EXPECT_TRUE(root.matches(EventKind::Exec, exec("/bin/sh", 1), noExecutable));

  EventFilter filesOfCp;
  ASSERT_EQ(addFilterCriterion("kind", "file,print", &filesOfCp), "");
  ASSERT_EQ(addFilterCriterion("exe", "/usr/bin/cp", &filesOfCp), "");
  EXPECT_TRUE(filesOfCp.matches(EventKind::File, rename("/a", "/b", 42), cpIs42));
  EXPECT_FALSE(filesOfCp.matches(EventKind::File, rename("/a", "/b", 43), cpIs42));
  EXPECT_FALSE(filesOfCp.matches(EventKind::Exec, exec("/usr/bin/cp", 42), cpIs42));
  EXPECT_EQ(filesOfCp.describe(), "kind=file,print exe=/usr/bin/cp");

  EventFilter pids;
  ASSERT_EQ(addFilterCriterion("pid", "7,42", &pids), "");
  EXPECT_TRUE(pids.matches(EventKind::Exit, exec("/x", 42), noExecutable));
  EXPECT_FALSE(pids.matches(EventKind::Exit, exec("/x", 4), noExecutable));
  EXPECT_FALSE(pids.matches(EventKind::Print, Dictionary{}, noExecutable));
}

// A bad list changes nothing, on the command line as at the prompt.
TEST(RefDaemonFilter, BadCriteriaAreRefusedWhole) {
  EventFilter filter;
  ASSERT_EQ(addFilterCriterion("kind", "exec", &filter), "");
  for (const auto& [what, value] :
       std::vector<std::pair<const char*, const char*>>{{"kind", "file,,print"},
                                                        {"kind", "file,"},
                                                        {"kind", "files"},
                                                        {"kind", ""},
                                                        {"pid", "12x"},
                                                        {"pid", "-1"},
                                                        {"pid", "1,99999999999999999999"},
                                                        {"path", "home"},
                                                        {"exe", "/bin/ls,ls"},
                                                        {"user", "root"}}) {
    EXPECT_NE(addFilterCriterion(what, value, &filter), "") << what << " " << value;
  }
  EXPECT_EQ(filter.describe(), "kind=exec");

  std::vector<std::string> args{"lumo-refdaemon", "--kind", "exec", "--pid=3,4", "--kind", "bogus"};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  Options options;
  EXPECT_NE(parseOptions(static_cast<int>(argv.size()), argv.data(), &options), "");
  argv.pop_back();
  argv.pop_back();
  Options good;
  EXPECT_EQ(parseOptions(static_cast<int>(argv.size()), argv.data(), &good), "");
  EXPECT_EQ(good.settings.filter.describe(), "kind=exec pid=3,4");
  EXPECT_NE(runCommand("filter pid", *RefDaemon::create({}, [](const std::string&) {})).error,
            "");
}

TEST(RefDaemonMounts, NetworkAndBlockDeviceMountsAreAnnouncedByKind) {
  const std::string mountinfo =
      "22 1 8:2 / / rw,relatime shared:1 - ext4 /dev/sda2 rw\n"
      "23 22 0:21 / /proc rw,nosuid shared:12 - proc proc rw\n"
      "24 22 0:5 / /dev/shm rw shared:3 - tmpfs tmpfs rw\n"
      "40 22 8:17 / /media/my\\040usb rw,nosuid shared:30 - vfat /dev/sdb1 rw\n"
      "41 22 0:52 / /mnt/nas rw shared:31 - nfs4 nas:/export rw\n"
      "42 22 0:53 / /mnt/ssh rw shared:32 master:2 - fuse.sshfs me@host: rw\n"
      "43 22 0:54 / /mnt/win rw - cifs //srv/share rw\n"
      "malformed line\n";
  Texts seen;
  for (const Mount& m : classifyMounts(mountinfo, [](unsigned major, unsigned minor) {
         return std::optional<bool>(major == 8 && minor == 17);
       })) {
    seen.push_back(m.path + "=" + mountKindName(m.kind));
  }
  EXPECT_EQ(seen, (Texts{"/=regular", "/media/my usb=removable", "/mnt/nas=network",
                         "/mnt/ssh=network", "/mnt/win=network"}));
}

}  // namespace
}  // namespace lumo::refdaemon
