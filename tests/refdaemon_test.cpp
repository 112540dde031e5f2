#include "refdaemon/refdaemon.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "refdaemon/commands.h"
#include "refdaemon/mountscan.h"
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
      Dictionary{{{"filename", Value("/tmp/\"d\"\n\x01é")},
                  {"pid", Value(Number::ofUnsignedInt(77))},
                  {"size", Value(Number::ofLongLong(-7))},
                  {"nested", Value(Array{{Value(), Value(Number::ofBool(true))}})},
                  {"path", Value("/u/ev\\xffil")}}});
  ASSERT_TRUE(first.waitFor("setPrinter '/tmp/\"d\"\n\x01é' YES"));
  EXPECT_EQ(output_.count("{\"event\":\"handlePrinterEvent:\",\"filename\":\"/tmp/\\\"d\\\"\\n"
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
