#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "refdaemon/commands.h"
#include "refdaemon/jsonline.h"
#include "refdaemon/mountscan.h"
#include "refdaemon/options.h"
#include "refdaemon/refdaemon.h"
#include "support/capture_sink.h"
#include "support/link_journal.h"
#include "xpc/linkchannel.h"
#include "xpc/unixsocketconnector.h"
#include "xpc/unixsocketlistener.h"

namespace lumo::refdaemon {
namespace {

using lumo::testing::Journal;
using lumo::testing::valueText;
using lumo::testing::valueTextOrNil;
using namespace tarvex::itx::xpc;
using linux_platform::UnixSocketConnector;
using linux_platform::UnixSocketListener;

constexpr const char* kService = "com.tarvex.lumo.protectiond.xpc";

// The extension's side: notes every push and answers policy YES, exclusions NO.
class RecordingExtension : public SysextXPCInterface {
 public:
  explicit RecordingExtension(Journal& journal) : journal_(journal) {}
  void addMountPoint(const std::string* volume, uint64_t type) override {
    journal_.add("add " + valueTextOrNil(volume) + " " + std::to_string(type));
  }
  void removeMountPoint(const std::string* volume) override {
    journal_.add("remove " + valueTextOrNil(volume));
  }
  void clearMountPoints() override { journal_.add("clear"); }
  void setPolicy(const Dictionary* policy, uint64_t timestamp, ReplyBlock reply) override {
    timestamps.push_back(timestamp);
    journal_.add("policy " + valueTextOrNil(policy));
    reply(true);
  }
  void setExclusions(const Array* exclusions, uint64_t timestamp, ReplyBlock reply) override {
    timestamps.push_back(timestamp);
    journal_.add("exclusions " + valueTextOrNil(exclusions));
    reply(false);
  }
  void setPrinter(const std::string* printer, bool verdict) override {
    journal_.add("printer " + valueTextOrNil(printer) + (verdict ? " YES" : " NO"));
  }

  std::vector<uint64_t> timestamps;  // the link's thread only, read after a wait

 private:
  Journal& journal_;
};

// One extension connected to the daemon under test.
class Extension {
 public:
  Extension(const std::string& runtimeDir, Journal& journal)
      : exported_(journal), connector_(runtimeDir) {
    connection_ = connector_.connect(kService, 0);
    connection_->setExportedObject(&exported_);
    connection_->resume();
    connection_->setInvalidationHandler([&journal] { journal.add("invalidated"); });
    daemon_ = connection_->remoteObjectProxyWithErrorHandler(nullptr);
    daemon_->registerWithCompletionHandler(
        [&journal](bool yes) { journal.add(yes ? "registered YES" : "registered NO"); });
  }
  ProtectionDaemonXPCInterface& daemon() { return *daemon_; }
  const std::vector<uint64_t>& timestamps() const { return exported_.timestamps; }

 private:
  RecordingExtension exported_;
  UnixSocketConnector connector_;
  std::shared_ptr<IXPCConnection> connection_;
  std::shared_ptr<ProtectionDaemonXPCInterface> daemon_;
};

std::string makeTempDir() {
  char pattern[] = "/tmp/lumo-refdaemon-test-XXXXXX";
  return mkdtemp(pattern);
}

class RefDaemonLink : public ::testing::Test {
 protected:
  ~RefDaemonLink() override { std::filesystem::remove_all(dir_); }

  void start(RefDaemon::Settings settings) {
    daemon_ = RefDaemon::create(std::move(settings),
                                [this](const std::string& line) { output_.add(line); });
    ASSERT_TRUE(listener_.start([daemon = daemon_](auto connection) {
      daemon->accept(std::move(connection));
    }));
  }

  void TearDown() override {
    listener_.stop();
    if (daemon_) daemon_->disconnectAll();
    EXPECT_TRUE(linux_platform::waitForLinkThreads(Journal::kPatience));
  }

  lumo::testing::CaptureSink sink_;
  Journal output_;
  const std::string dir_ = makeTempDir();
  UnixSocketListener listener_{kService, 0, dir_};
  std::shared_ptr<RefDaemon> daemon_;
};

const std::string kPolicyOn =
    "policy {dupon=b1;webcontrolon=b0;devicecontrolon=b1;antitamperingon=b0;}";

TEST_F(RefDaemonLink, PushesItsConfigurationToEveryExtensionThatRegisters) {
  RefDaemon::Settings settings;
  settings.policy = PolicySwitches{true, false, true, false};
  settings.exclusions = {{Exclusion::Kind::Path, "/usr/bin/rsync"},
                         {Exclusion::Kind::Prefix, "/opt/backup/"},
                         {Exclusion::Kind::Bundle, "com.example.tool"}};
  settings.mounts = {{"/media/usb", MountKind::Removable}, {"/mnt/nas", MountKind::Network}};
  start(settings);

  const std::vector<std::string> expected{
      "registered YES",
      kPolicyOn,
      "exclusions [{application_description={process_path={comp_value='/usr/bin/rsync';"
      "operator=u1;};};},{application_description={process_dir_path={comp_value="
      "'/opt/backup/';operator=u1;};};},{application_description={process_bundle_id="
      "'com.example.tool';};},]",
      "clear",
      "add '/media/usb' 2",
      "add '/mnt/nas' 1",
  };
  uint64_t lastTimestamp = 0;
  for (int reconnect = 0; reconnect < 2; ++reconnect) {
    Journal journal;
    Extension extension(dir_, journal);
    ASSERT_TRUE(journal.waitForSize(expected.size()));
    EXPECT_EQ(journal.entries(), expected);
    // Fresh, increasing timestamps each time: the extension refuses old ones.
    ASSERT_EQ(extension.timestamps().size(), 2u);
    EXPECT_GT(extension.timestamps()[0], lastTimestamp);
    EXPECT_GT(extension.timestamps()[1], extension.timestamps()[0]);
    lastTimestamp = extension.timestamps()[1];
    const std::string ts = std::to_string(lastTimestamp);
    EXPECT_TRUE(output_.waitFor(
        "{\"reply\":\"setExclusions:withTimestamp:andCompletionHandler:\",\"peer_pid\":" +
        std::to_string(getpid()) + ",\"timestamp\":" + ts + ",\"value\":false}",
        1));
  }
  EXPECT_EQ(output_.count("{\"event\":\"registerWithCompletionHandler:\",\"peer_pid\":" +
                          std::to_string(getpid()) + ",\"answer\":true}"),
            2u);
}

TEST_F(RefDaemonLink, RejectingAnswersNoAndPushesNothing) {
  RefDaemon::Settings settings;
  settings.reject = true;
  settings.policy = PolicySwitches{};
  start(settings);
  Journal journal;
  Extension extension(dir_, journal);
  ASSERT_TRUE(journal.waitFor("registered NO"));
  daemon_->setPolicy(PolicySwitches{true, true, true, true});
  daemon_->sendVerdict("/var/spool/cups/d00001-001", true);
  // A later event still arrives: nothing was pushed in between.
  extension.daemon().handleProcessExitEvent(Dictionary{});
  ASSERT_TRUE(output_.waitFor("{\"event\":\"handleProcessExitEvent:\"}"));
  EXPECT_EQ(journal.entries(), std::vector<std::string>{"registered NO"});
  EXPECT_EQ(daemon_->registeredCount(), 0u);
}

TEST_F(RefDaemonLink, CommandsReachEveryRegisteredExtension) {
  start({});
  Journal first;
  Journal second;
  Extension a(dir_, first);
  Extension b(dir_, second);
  ASSERT_TRUE(first.waitFor("clear"));
  ASSERT_TRUE(second.waitFor("clear"));

  for (const char* line : {"policy dup=1,devicecontrol=on", "  exclude bundle com.x.y ",
                           "exclude clear", "mount /media/my usb=removable",
                           "mount /media/my usb=regular", "unmount /media/my usb",
                           "clear-mounts", "verdict /var/spool/cups/d0042-001 block", ""}) {
    const CommandResult result = runCommand(line, *daemon_);
    EXPECT_EQ(result.error, "") << line;
  }
  const std::vector<std::string> expected{
      "registered YES",
      "clear",
      kPolicyOn,
      "exclusions [{application_description={process_bundle_id='com.x.y';};},]",
      "exclusions []",
      "add '/media/my usb' 2",
      "remove '/media/my usb'",
      "add '/media/my usb' 0",
      "remove '/media/my usb'",
      "clear",
      "printer '/var/spool/cups/d0042-001' NO",
  };
  for (Journal* journal : {&first, &second}) {
    ASSERT_TRUE(journal->waitForSize(expected.size()));
    EXPECT_EQ(journal->entries(), expected);
  }

  const struct {
    const char* line;
    const char* error;
  } bad[] = {
      {"policy dup=maybe", "policy value \"maybe\" is not 1 or 0"},
      {"policy turbo=1", "unknown policy switch \"turbo\""},
      {"exclude path", "exclude path needs a value"},
      {"exclude everything /", "exclude takes path, prefix, bundle or clear"},
      {"mount /media/usb", "is not PATH=removable|network|regular"},
      {"unmount /never/mounted", "no mount /never/mounted in the table"},
      {"verdict /var/spool/cups/d1 maybe", "verdict \"maybe\" is not allow or block"},
      {"format /", "unknown command \"format /\"; try help"},
  };
  for (const auto& [line, error] : bad) {
    EXPECT_NE(runCommand(line, *daemon_).error.find(error), std::string::npos) << line;
  }
  EXPECT_TRUE(runCommand("help", *daemon_).help);
  EXPECT_TRUE(runCommand("quit", *daemon_).quit);
  EXPECT_EQ(first.entries().size(), expected.size());
}

TEST_F(RefDaemonLink, PrintsEachEventAsOneJsonLineAndAnswersPrintJobs) {
  RefDaemon::Settings settings;
  settings.printVerdict = true;
  start(settings);
  Journal journal;
  Extension extension(dir_, journal);
  ASSERT_TRUE(journal.waitFor("clear"));
  extension.daemon().handleFileEvent(Dictionary{{
      {"filename1", Value("/tmp/\"quoted\"\n\x01é")},
      {"fileop", Value(Number::ofInt(-2))},
      {"filesize", Value(Number::ofUnsignedLongLong(18446744073709551615ull))},
      {"pid", Value(Number::ofUnsignedInt(12))},
      {"delta", Value(Number::ofLongLong(-7))},
      {"on", Value(Number::ofBool(true))},
      {"nested", Value(Array{{Value(), Value(Dictionary{})}})},
  }});
  extension.daemon().handlePrinterEvent(
      Dictionary{{{"filename", Value("/var/spool/cups/d00007-001")},
                  {"pid", Value(Number::ofUnsignedInt(77))}}});
  ASSERT_TRUE(journal.waitFor("printer '/var/spool/cups/d00007-001' YES"));
  const std::vector<std::string> lines = output_.entries();
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "{\"event\":\"handleFileEvent:\",\"filename1\":\"/tmp/\\\"quoted\\\"\\n"
                      "\\u0001é\",\"fileop\":{\"int\":-2},\"filesize\":{\"ulonglong\":"
                      "18446744073709551615},\"pid\":{\"uint\":12},\"delta\":{\"longlong\":-7},"
                      "\"on\":{\"bool\":true},\"nested\":[null,{}]}"),
            lines.end());
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "{\"event\":\"handlePrinterEvent:\",\"filename\":"
                      "\"/var/spool/cups/d00007-001\",\"pid\":{\"uint\":77}}"),
            lines.end());
}

TEST(RefDaemonMounts, AnnouncesNetworkAndBlockDeviceMountsByKind) {
  const std::string mountinfo =
      "22 1 8:2 / / rw,relatime shared:1 - ext4 /dev/sda2 rw\n"
      "23 22 0:21 / /proc rw,nosuid shared:12 - proc proc rw\n"
      "24 22 0:5 / /dev/shm rw shared:3 - tmpfs tmpfs rw\n"
      "40 22 8:17 / /media/my\\040usb rw,nosuid shared:30 - vfat /dev/sdb1 rw\n"
      "41 22 0:52 / /mnt/nas rw shared:31 - nfs4 nas:/export rw\n"
      "42 22 0:53 / /mnt/ssh rw shared:32 master:2 - fuse.sshfs me@host: rw\n"
      "43 22 0:54 / /mnt/win rw - cifs //srv/share rw\n"
      "malformed line\n";
  const auto removable = [](unsigned major, unsigned minor) -> std::optional<bool> {
    return major == 8 && minor == 17;
  };
  const std::vector<Mount> mounts = classifyMounts(mountinfo, removable);
  std::vector<std::string> seen;
  for (const Mount& m : mounts) seen.push_back(m.path + "=" + mountKindName(m.kind));
  EXPECT_EQ(seen, (std::vector<std::string>{"/=regular", "/media/my usb=removable",
                                            "/mnt/nas=network", "/mnt/ssh=network",
                                            "/mnt/win=network"}));
}

TEST(RefDaemonOptions, ParsesTheCommandLineAndNamesWhatIsWrong) {
  const auto parse = [](std::vector<const char*> args, Options* options) {
    args.insert(args.begin(), "lumo-refdaemon");
    return parseOptions(static_cast<int>(args.size()), const_cast<char* const*>(args.data()),
                        options);
  };
  Options options;
  ASSERT_EQ(parse({"--policy", "dup=1", "--policy", "webcontrolon=yes", "--exclude-path", "/a",
                   "--exclude-bundle", "b.c", "--mount", "/x=network", "--print-verdict",
                   "block", "--reject", "--unprivileged", "--runtime-dir", "/tmp/r"},
                  &options),
            "");
  EXPECT_EQ(valueText(Value(options.settings.policy->toDictionary())),
            "{dupon=b1;webcontrolon=b1;devicecontrolon=b0;antitamperingon=b0;}");
  ASSERT_EQ(options.settings.exclusions->size(), 2u);
  EXPECT_EQ((*options.settings.exclusions)[1].kind, Exclusion::Kind::Bundle);
  ASSERT_EQ(options.settings.mounts.size(), 1u);
  EXPECT_EQ(options.settings.mounts[0].kind, MountKind::Network);
  EXPECT_EQ(options.settings.printVerdict, false);
  EXPECT_TRUE(options.settings.reject);
  EXPECT_FALSE(options.privileged);
  EXPECT_EQ(options.runtimeDir, "/tmp/r");

  Options fresh;
  EXPECT_EQ(parse({}, &fresh), "");
  EXPECT_TRUE(fresh.privileged);
  EXPECT_FALSE(fresh.settings.policy);
  EXPECT_FALSE(fresh.settings.exclusions);
  EXPECT_EQ(parse({"--policy", "dup=2"}, &fresh), "policy value \"2\" is not 1 or 0");
  EXPECT_EQ(parse({"--mount", "/x"}, &fresh),
            "mount \"/x\" is not PATH=removable|network|regular");
  EXPECT_EQ(parse({"--frobnicate"}, &fresh), "unknown option --frobnicate");
  EXPECT_EQ(parse({"--policy"}, &fresh), "option --policy needs a value");
  EXPECT_EQ(parse({"stray"}, &fresh), "unexpected argument stray");
}

}  // namespace
}  // namespace lumo::refdaemon
