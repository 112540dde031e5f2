// The extension's test build as a process, against a daemon on the real
// socket: registration, events, policy, outages, signals and bad input.
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "process/extension_fixture.h"
#include "xpc/framecodec.h"
#include "xpc/seqpacket.h"
#include "xpc/socketpath.h"

namespace {

using lumo::testing::ExtensionProcess;
using lumo::testing::InProcessDaemon;
using lumo::testing::policyDict;
using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Value;

constexpr const char* kExec = "exec pid=321 ppid=1 uid=0 path=/bin/ls args=ls,-l,/tmp";

// Replies of the extension to policy and exclusions, collected across
// threads. The state is shared with the reply blocks, so a reply that comes
// in after the test is done lands in memory that is still there.
class Replies {
 public:
  tarvex::itx::xpc::ReplyBlock block() {
    return [state = state_](bool v) {
      std::lock_guard<std::mutex> lock(state->mutex);
      state->values.push_back(v);
      state->changed.notify_all();
    };
  }
  bool waitFor(size_t n) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->changed.wait_for(lock, std::chrono::seconds(10),
                                    [&] { return state_->values.size() >= n; });
  }
  std::vector<bool> values() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->values;
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<bool> values;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

TEST_F(ExtensionProcess, RegistersReceivesPolicyAndDeliversEvents) {
  InProcessDaemon daemon(runtimeDir);
  startExtension();
  auto extensionSide = daemon.waitForExtension();
  ASSERT_TRUE(extensionSide);
  ASSERT_TRUE(extensionLogs("Info:  Registration success. The Daemon XPC is listening.\n"));

  Replies replies;
  const Dictionary policy = policyDict(true, false, false);
  extensionSide->setPolicy(&policy, 1, replies.block());
  ASSERT_TRUE(replies.waitFor(1));
  EXPECT_TRUE(replies.values()[0]);
  ASSERT_TRUE(extensionLogs("es: subscribe 9,11,15\n"));

  event(kExec);
  ASSERT_TRUE(daemon.events().waitForCount(1));
  auto got = daemon.events().received("handleProcessStartEvent:");
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(*got[0].event.find("cmd")->string(), "-l /tmp");
  EXPECT_EQ(*got[0].event.find("path")->string(), "/bin/ls");
  EXPECT_EQ(got[0].event.find("pid")->number()->unsignedIntValue(), 321u);

  // Stale timestamps are refused without a reply.
  extensionSide->setPolicy(&policy, 1, replies.block());
  extensionSide->setPolicy(&policy, 0, replies.block());
  ASSERT_TRUE(extensionLogs("Warn:  A setPolicy with older timestamp ! Not applied.\n", 2));
  EXPECT_EQ(replies.values().size(), 1u);
}

TEST_F(ExtensionProcess, SurvivesDaemonOutagesAndReconnects) {
  startExtension();
  for (size_t cycle = 1; cycle <= 4; ++cycle) {
    {
      InProcessDaemon daemon(runtimeDir);
      auto extensionSide = daemon.waitForExtension();
      ASSERT_TRUE(extensionSide) << "cycle " << cycle;
      ASSERT_TRUE(extensionLogs("Registration success. The Daemon XPC is listening.", cycle));
      Replies replies;
      const Dictionary policy = policyDict(true, false, false);
      extensionSide->setPolicy(&policy, cycle * 10, replies.block());
      ASSERT_TRUE(replies.waitFor(1));
      event(kExec);
      ASSERT_TRUE(daemon.events().waitForCount(1)) << "cycle " << cycle;
    }
    // The daemon is gone: the extension notices and retries every second.
    ASSERT_TRUE(extensionLogs("Error: Interruption. Remote process stopped !\n", cycle));
    ASSERT_TRUE(extensionLogs("Error: Attempting reconnection after disconnection !\n", cycle));
    event(kExec);  // dropped while nobody listens
  }
  EXPECT_TRUE(extension->running());
}

TEST_F(ExtensionProcess, SignalsSleepWakeAndUninstall) {
  InProcessDaemon daemon(runtimeDir);
  startExtension();
  auto extensionSide = daemon.waitForExtension();
  ASSERT_TRUE(extensionSide);
  Replies replies;
  const Dictionary policy = policyDict(true, false, false);
  extensionSide->setPolicy(&policy, 1, replies.block());
  ASSERT_TRUE(extensionLogs("es: subscribe 9,11,15\n"));

  extension->signal(SIGUSR2);
  ASSERT_TRUE(extensionLogs("Info:  System Extension has been signaled with SIGUSR2.\n"));
  ASSERT_TRUE(extensionLogs("Info:  Sleep procedure finished\n"));
  // Data protection had all three observers on; the repeated 25 is two
  // observers' rename.
  EXPECT_TRUE(extensionLogs("es: unsubscribe 0,9,10,11,12,14,15,19,25,25,32,78\n"));
  EXPECT_TRUE(extensionLogs("Info:  XPC client stop requested.\n"));

  // Wake-up re-applies the stored policy and registers again.
  extension->signal(SIGUSR1);
  ASSERT_TRUE(extensionLogs("Info:  Wakeup procedure finished\n"));
  EXPECT_TRUE(extensionLogs("es: subscribe 9,11,15\n", 2));
  EXPECT_TRUE(daemon.waitForExtension(2));

  extension->signal(SIGINT);
  ASSERT_TRUE(extensionLogs("Info:  System Extension has been signaled with SIGINT.\n"));

  extension->signal(SIGTERM);
  ASSERT_TRUE(extensionLogs("Info:  Uninstall procedure finished\n"));
  EXPECT_TRUE(extensionLogs("es: delete client", 2));
  extension->signal(SIGUSR1);
  ASSERT_TRUE(extensionLogs("signaled with SIGUSR1.\n", 2));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(extensionCount("Wakeup procedure initiated"), 1u);
  EXPECT_TRUE(extension->running());
}

TEST_F(ExtensionProcess, RejectedRegistrationKeepsEventsAway) {
  InProcessDaemon daemon(runtimeDir, /*acceptRegistration=*/false);
  startExtension();
  auto extensionSide = daemon.waitForExtension();
  ASSERT_TRUE(extensionSide);
  ASSERT_TRUE(extensionLogs(
      "Assert:  Assertion failed: [ 0]Failed to register to XPC service. The Daemon XPC is not "
      "listening.\n"));
  Replies replies;
  const Dictionary policy = policyDict(true, false, false);
  extensionSide->setPolicy(&policy, 1, replies.block());
  ASSERT_TRUE(extensionLogs("es: subscribe 9,11,15\n"));
  event(kExec);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(daemon.events().count(), 0u);
}

TEST_F(ExtensionProcess, WrongTypedPayloadsLeaveSettingsAsTheyWere) {
  InProcessDaemon daemon(runtimeDir);
  startExtension();
  auto extensionSide = daemon.waitForExtension();
  ASSERT_TRUE(extensionSide);
  Replies replies;
  const Dictionary on = policyDict(true, false, false);
  extensionSide->setPolicy(&on, 1, replies.block());
  ASSERT_TRUE(replies.waitFor(1));

  Dictionary wrong = policyDict(false, false, false);
  wrong.entries[1].value = Value("no");
  extensionSide->setPolicy(&wrong, 2, replies.block());
  ASSERT_TRUE(replies.waitFor(2));
  EXPECT_FALSE(replies.values()[1]);
  EXPECT_TRUE(extensionLogs(
      "Assert:  Assertion failed: [ [dupState isKindOfClass:[NSNumber class]]]The setPolicy "
      "payload dupon key is not a boolean.\n"));
  EXPECT_EQ(extensionCount("es: unsubscribe"), 0u);

  Array exclusions;
  exclusions.items.push_back(Value(tarvex::itx::xpc::Number::ofInt(7)));
  extensionSide->setExclusions(&exclusions, 1, replies.block());
  ASSERT_TRUE(replies.waitFor(3));
  EXPECT_TRUE(extensionLogs("Exclusion entry is not a dictionary"));

  // Still working.
  event(kExec);
  EXPECT_TRUE(daemon.events().waitForCount(1));
}

TEST_F(ExtensionProcess, MalformedFramesDropTheLinkAndItRecovers) {
  namespace lp = tarvex::itx::xpc::linux_platform;
  std::string error;
  const std::string path = lp::socketPathFor(SysExtXPCClient::kServiceName, runtimeDir, &error);
  const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const sockaddr_un address = lp::socketAddress(path);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  startExtension();

  const std::vector<std::string> garbage = {
      std::string("\xff\xff\xff\x01 not a frame", 16),
      *lp::encodeFrame(lp::CallFrame{"bogusSelector:", {}, std::nullopt}, &error),
      *lp::encodeFrame(lp::CallFrame{"removeMountPoint:", {Value(tarvex::itx::xpc::Number::ofInt(3))},
                                     std::nullopt},
                       &error),
  };
  for (size_t i = 0; i < garbage.size(); ++i) {
    const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(peer, 0);
    ASSERT_EQ(send(peer, garbage[i].data(), garbage[i].size(), 0),
              static_cast<ssize_t>(garbage[i].size()));
    ASSERT_TRUE(extensionLogs("Error: Attempting reconnection after disconnection !\n", i + 1))
        << "frame " << i;
    close(peer);
  }
  close(listener);
  unlink(path.c_str());
  EXPECT_TRUE(extensionLogs("Error: Dropping the link to com.tarvex.lumo.protectiond.xpc", 3));
  EXPECT_TRUE(extension->running());

  // A proper daemon afterwards gets a working link.
  InProcessDaemon daemon(runtimeDir);
  ASSERT_TRUE(daemon.waitForExtension());
  EXPECT_TRUE(extensionLogs("Registration success. The Daemon XPC is listening."));
}

TEST_F(ExtensionProcess, NonRootDaemonIsRefused) {
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(1);
    tarvex::itx::xpc::linux_platform::UnixSocketListener listener(SysExtXPCClient::kServiceName,
                                                                  0, runtimeDir);
    if (!listener.start([](auto) {})) _exit(2);
    pause();
    _exit(0);
  }
  startExtension();
  EXPECT_TRUE(extensionLogs("uid 65534 of com.tarvex.lumo.protectiond.xpc"));
  EXPECT_TRUE(extensionLogs("Error: Attempting reconnection after disconnection !\n"));
  EXPECT_EQ(extensionCount("Registration success"), 0u);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

}  // namespace

namespace {

TEST_F(ExtensionProcess, WorksWithTheReferenceDaemonAcrossItsRestarts) {
  const std::string daemonLog = dir + "/daemon.log";
  auto startDaemon = [&] {
    return std::make_unique<lumo::testing::Child>(lumo::testing::Child::Options{
        {LUMO_REFDAEMON_PATH, "--runtime-dir", runtimeDir, "--policy",
         "dup=1,webcontrol=0,devicecontrol=0,antitampering=0"},
        {},
        daemonLog});
  };
  auto daemon = startDaemon();
  startExtension();
  ASSERT_TRUE(extensionLogs("Registration success. The Daemon XPC is listening."));
  ASSERT_TRUE(extensionLogs("es: subscribe 9,11,15\n"));
  event(kExec);
  ASSERT_TRUE(lumo::testing::waitFor(daemonLog, "\"event\":\"handleProcessStartEvent:\""));
  EXPECT_TRUE(lumo::testing::waitFor(daemonLog, "\"cmd\":\"-l /tmp\""));

  daemon->kill();
  ASSERT_TRUE(extensionLogs("Error: Attempting reconnection after disconnection !\n"));
  event(kExec);  // nobody listens: dropped

  daemon = startDaemon();
  ASSERT_TRUE(extensionLogs("Registration success. The Daemon XPC is listening.", 2));
  event("exit pid=321");
  ASSERT_TRUE(lumo::testing::waitFor(daemonLog, "\"event\":\"handleProcessExitEvent:\""));
  EXPECT_EQ(lumo::testing::countIn(daemonLog, "\"event\":\"handleProcessStartEvent:\""), 1u);

  // A policy typed at the daemon's prompt switches the extension at once.
  daemon->write("policy dup=0,webcontrol=0,devicecontrol=0,antitampering=0\n");
  EXPECT_TRUE(extensionLogs("es: unsubscribe"));
}

}  // namespace
