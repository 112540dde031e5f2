// The extension's test build as a process, against a daemon on the real
// socket: registration, events, policy, outages, signals and bad input.
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
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
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::Value;
namespace lp = tarvex::itx::xpc::linux_platform;
using std::chrono::milliseconds;

constexpr const char* kExec = "exec pid=321 path=/bin/ls args=ls,-l,/tmp";
constexpr const char* kRegistered = "Info:  Registration success. The Daemon XPC is listening.\n";
constexpr const char* kReconnecting = "Error: Attempting reconnection after disconnection !\n";
// What data protection subscribes: exec, exit and fork for the process
// observer; the file and printer observers' types come and go with theirs.
constexpr const char* kSubscribed = "es: subscribe 9,11,15\n";
const Dictionary kDataProtection = policyDict(true, false, false);

// ThreadSanitizer defers signal handlers and runs those pending together
// lowest-numbered first; its builds raise them one after the other.
#if defined(__SANITIZE_THREAD__)
constexpr bool kHandlersInKernelOrder = false;
#else
constexpr bool kHandlersInKernelOrder = true;
#endif

// Whether each text occurs in the file after the one before it.
bool inOrder(const std::string& path, std::initializer_list<const char*> texts) {
  std::stringstream all;
  all << std::ifstream(path).rdbuf();
  const std::string s = all.str();
  size_t at = 0;
  for (const char* text : texts) {
    at = s.find(text, at);
    if (at == std::string::npos) return false;
    ++at;
  }
  return true;
}

TEST_F(ExtensionProcess, RegistersTakesPolicyDeliversEventsAndRefusesBadSettings) {
  InProcessDaemon daemon(runtimeDir);
  startExtension();
  auto extensionSide = daemon.waitForExtension();
  ASSERT_TRUE(extensionSide);
  ASSERT_TRUE(extensionLogs(kRegistered));
  EXPECT_EQ(push(*extensionSide, 5, kDataProtection), true);
  ASSERT_TRUE(extensionLogs(kSubscribed));

  event(kExec);
  ASSERT_TRUE(daemon.events().waitForCount(1));
  const auto got = daemon.events().received("handleProcessStartEvent:");
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(*got[0].event.find("cmd")->string(), "-l /tmp");

  // Stale timestamps are refused without a reply.
  for (uint64_t stale : {5, 4}) {
    EXPECT_FALSE(push(*extensionSide, stale, kDataProtection, milliseconds(300)).has_value());
  }
  EXPECT_TRUE(extensionLogs("Warn:  A setPolicy with older timestamp ! Not applied.\n", 2));

  // A wrong-typed switch is refused with its Assert line; nothing changes.
  Dictionary wrong = policyDict(false, false, false);
  wrong.entries[1].value = Value("no");
  EXPECT_EQ(push(*extensionSide, 6, wrong), false);
  EXPECT_TRUE(extensionLogs(
      "Assert:  Assertion failed: [ [dupState isKindOfClass:[NSNumber class]]]The setPolicy "
      "payload dupon key is not a boolean.\n"));
  Array exclusions;
  exclusions.items.push_back(Value(Number::ofInt(7)));
  EXPECT_EQ(push(*extensionSide, 1, exclusions), true);
  EXPECT_TRUE(extensionLogs("Error: Exclusion entry is not a dictionary. Skipping...\n"));
  event(kExec);
  ASSERT_TRUE(daemon.events().waitForCount(2));
  EXPECT_EQ(lumo::testing::countIn(logPath, "es: unsubscribe"), 0u);
}

TEST_F(ExtensionProcess, ReconnectsASecondAfterEachOutageAndDropsWhatCameMeanwhile) {
  startExtension();
  auto gone = std::chrono::steady_clock::now();
  for (size_t cycle = 1; cycle <= 4; ++cycle) {
    SCOPED_TRACE(cycle);
    {
      InProcessDaemon daemon(runtimeDir);
      auto extensionSide = daemon.waitForExtension();
      ASSERT_TRUE(extensionSide);
      // A second after the last one went, not before.
      const auto waited = std::chrono::steady_clock::now() - gone;
      EXPECT_GE(waited, milliseconds(cycle > 1 ? 900 : 0));
      EXPECT_LE(waited, milliseconds(cycle > 1 ? 2500 : 15000));
      ASSERT_TRUE(extensionLogs(kRegistered, cycle));
      ASSERT_EQ(push(*extensionSide, cycle, kDataProtection), true);
      event(kExec);
      ASSERT_TRUE(daemon.events().waitForCount(1));
      // Only this one: what came while nobody listened was dropped.
      std::this_thread::sleep_for(milliseconds(100));
      EXPECT_EQ(daemon.events().count(), 1u);
    }
    ASSERT_TRUE(extensionLogs("Error: Interruption. Remote process stopped !\n", cycle));
    ASSERT_TRUE(extensionLogs(kReconnecting, cycle));
    gone = std::chrono::steady_clock::now();
    event(kExec);
  }
  EXPECT_TRUE(extension->running());
}

// SIGUSR2 and SIGUSR1 pending together (as when the daemon sends both while
// the extension is descheduled) run in the handlers' order: sleep, then
// wake-up. Whichever condition signal the control loop misses, its time-out
// picks up the flag.
TEST_F(ExtensionProcess, SignalsSleepWakeAndUninstall) {
  InProcessDaemon daemon(runtimeDir);
  startExtension();
  auto extensionSide = daemon.waitForExtension();
  ASSERT_TRUE(extensionSide);
  ASSERT_EQ(push(*extensionSide, 1, kDataProtection), true);

  if (kHandlersInKernelOrder) {
    ASSERT_TRUE(extension->suspend());
    extension->signal(SIGUSR2);
    extension->signal(SIGUSR1);
    extension->signal(SIGCONT);
  } else {
    extension->signal(SIGUSR2);
    ASSERT_TRUE(extensionLogs("signaled with SIGUSR2.\n"));
    extension->signal(SIGUSR1);
  }
  const auto resumed = std::chrono::steady_clock::now();
  ASSERT_TRUE(extensionLogs("Info:  Wakeup procedure finished\n"));
  EXPECT_LE(std::chrono::steady_clock::now() - resumed, milliseconds(11000));
  EXPECT_TRUE(inOrder(logPath, {"signaled with SIGUSR2.\n", "signaled with SIGUSR1.\n"}));
  EXPECT_TRUE(inOrder(logPath, {"Info:  Sleep procedure finished\n",
                                "Info:  Wakeup procedure initiated\n"}));
  // Sleep turned every observer off (RENAME twice, for the file and the
  // printer observer) and took the link down; wake-up re-applied the stored
  // policy and registered again.
  EXPECT_TRUE(extensionLogs("es: unsubscribe 0,9,10,11,12,14,15,19,25,25,32,78\n"));
  EXPECT_TRUE(extensionLogs("Info:  XPC client stop requested.\n"));
  EXPECT_TRUE(extensionLogs(kSubscribed, 2));
  EXPECT_TRUE(daemon.waitForExtension(2));

  extension->signal(SIGTERM);
  ASSERT_TRUE(extensionLogs("Info:  Uninstall procedure finished\n"));
  EXPECT_TRUE(extensionLogs("es: delete client", 2));
  // Uninstalled for good: a later wake-up signal is only logged.
  extension->signal(SIGUSR1);
  ASSERT_TRUE(extensionLogs("signaled with SIGUSR1.\n", 2));
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_EQ(lumo::testing::countIn(logPath, "Wakeup procedure initiated"), 1u);
  EXPECT_TRUE(extension->running());
}

TEST_F(ExtensionProcess, MalformedFramesAndNonRootDaemonsDropTheLinkAndItRecovers) {
  std::string error;
  const std::string path = lp::socketPathFor(SysExtXPCClient::kServiceName, runtimeDir, &error);
  const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const sockaddr_un address = lp::socketAddress(path);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  startExtension();
  const std::string garbage[] = {
      std::string("\xff\xff\xff\x01 not a frame", 16),
      *lp::encodeFrame(lp::CallFrame{"bogusSelector:", {}, std::nullopt}, &error),
      *lp::encodeFrame(lp::CallFrame{"removeMountPoint:", {Value(Number::ofInt(3))}, std::nullopt},
                       &error),
  };
  for (size_t i = 0; i < std::size(garbage); ++i) {
    const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(peer, 0);
    ASSERT_EQ(send(peer, garbage[i].data(), garbage[i].size(), 0),
              static_cast<ssize_t>(garbage[i].size()));
    ASSERT_TRUE(extensionLogs(kReconnecting, i + 1)) << "frame " << i;
    close(peer);
  }
  close(listener);
  unlink(path.c_str());
  EXPECT_TRUE(extensionLogs("Error: Dropping the link to com.tarvex.lumo.protectiond.xpc", 3));

  // A daemon that is not root is refused.
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(1);
    lp::UnixSocketListener nobody(SysExtXPCClient::kServiceName, 0, runtimeDir);
    if (nobody.start([](auto) {})) pause();
    _exit(2);
  }
  EXPECT_TRUE(extensionLogs("uid 65534 of com.tarvex.lumo.protectiond.xpc"));
  EXPECT_TRUE(extensionLogs(kReconnecting, 4));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(lumo::testing::countIn(logPath, "Registration success"), 0u);

  // A proper daemon afterwards gets a working link.
  unlink(path.c_str());
  InProcessDaemon daemon(runtimeDir);
  ASSERT_TRUE(daemon.waitForExtension());
  EXPECT_TRUE(extensionLogs(kRegistered));
}

TEST_F(ExtensionProcess, WorksWithTheReferenceDaemonAcrossItsRestarts) {
  const std::string daemonLog = dir + "/daemon.log";
  const auto daemonLogs = [&](const std::string& text) {
    return lumo::testing::waitFor(daemonLog, text);
  };
  auto startDaemon = [&] {
    return std::make_unique<lumo::testing::Child>(
        lumo::testing::Child::Options{{LUMO_REFDAEMON_PATH, "--runtime-dir", runtimeDir, "--policy",
                                       "dup=1,webcontrol=0,devicecontrol=0,antitampering=0"},
                                      {},
                                      daemonLog});
  };
  auto daemon = startDaemon();
  startExtension();
  ASSERT_TRUE(extensionLogs(kRegistered));
  ASSERT_TRUE(extensionLogs(kSubscribed));
  event(kExec);
  ASSERT_TRUE(daemonLogs("\"event\":\"handleProcessStartEvent:\""));
  EXPECT_TRUE(daemonLogs("\"cmd\":\"-l /tmp\",\"pid\":{\"uint\":321},"));

  daemon->kill();
  ASSERT_TRUE(extensionLogs(kReconnecting));
  event(kExec);  // nobody listens: dropped

  daemon = startDaemon();
  ASSERT_TRUE(extensionLogs(kRegistered, 2));
  event("exit pid=321");
  ASSERT_TRUE(daemonLogs("\"event\":\"handleProcessExitEvent:\""));
  EXPECT_EQ(lumo::testing::countIn(daemonLog, "\"event\":\"handleProcessStartEvent:\""), 1u);

  // A policy typed at the daemon's prompt switches the extension at once.
  daemon->write("policy dup=0,webcontrol=0,devicecontrol=0,antitampering=0\n");
  EXPECT_TRUE(extensionLogs("es: unsubscribe"));
  EXPECT_TRUE(extension->running());
}

}  // namespace
