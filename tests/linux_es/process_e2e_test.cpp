// Process events from the real kernel through lumo-es to the daemon.
#include <unistd.h>

#include <filesystem>

#include "linux_es/realextension.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::RealExtension;

constexpr const char* kStart = "handleProcessStartEvent:";
constexpr const char* kExit = "handleProcessExitEvent:";

class ProcessEvents : public RealExtension {
 protected:
  // Each tier: the BPF one where the kernel has it, and the fallback.
  void checkExecWithArguments(const char* tier) {
    startWithPolicy(true, false, false, {std::string("LUMO_PROCESS_TIER=") + tier});
    const pid_t pid = run({"/bin/echo", "lumo-e2e", "two words", "-n"});
    // The fork of the test comes first, with the test's image; then the exec.
    auto start = waitEvent(kStart, [&](const Received& r) {
      return number(r, "pid") == (uint64_t)pid && text(r, "path") == fs::canonical("/bin/echo");
    });
    ASSERT_TRUE(start) << "no start record for pid " << pid;
    EXPECT_EQ(text(*start, "cmd"), "lumo-e2e two words -n");
    EXPECT_EQ(number(*start, "ppid"), (uint64_t)getpid());
    EXPECT_EQ(number(*start, "uid"), 0u);
    auto exit = waitEvent(kExit, [&](const Received& r) { return number(r, "pid") == (uint64_t)pid; });
    ASSERT_TRUE(exit);
    EXPECT_EQ(text(*exit, "path"), fs::canonical("/bin/echo").string());
  }
};

TEST_F(ProcessEvents, ExecWithArgumentsYieldsAStartRecordOnTheBestTier) {
  checkExecWithArguments("auto");
}

TEST_F(ProcessEvents, ExecWithArgumentsYieldsAStartRecordOnTheConnectorTier) {
  // The fallback reads /proc after the fact: the program must live long
  // enough to be read, which a sleep does.
  startWithPolicy(true, false, false, {"LUMO_PROCESS_TIER=connector"});
  ASSERT_TRUE(extensionLogs("Process events: netlink process connector tier"));
  const pid_t pid = run({"/bin/sleep", "0.3"});
  auto start = waitEvent(kStart, [&](const Received& r) {
    return number(r, "pid") == (uint64_t)pid && text(r, "cmd") == "0.3";
  });
  ASSERT_TRUE(start) << "no start record for pid " << pid;
  EXPECT_EQ(text(*start, "path"), fs::canonical("/bin/sleep").string());
}

TEST_F(ProcessEvents, ForkedChildIsReportedAsAStart) {
  startWithPolicy(true, false, false);
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  auto start = waitEvent(kStart, [&](const Received& r) { return number(r, "pid") == (uint64_t)child; });
  ASSERT_TRUE(start);
  EXPECT_EQ(number(*start, "ppid"), (uint64_t)getpid());
  EXPECT_EQ(text(*start, "path"), fs::read_symlink("/proc/self/exe").string());
}

TEST_F(ProcessEvents, MutedPathsStopAProcessesEvents) {
  startWithPolicy(true, false, false);
  const std::string tools = dir + "/tools";
  fs::create_directories(tools);
  fs::copy_file("/bin/true", tools + "/quiet");
  fs::copy_file("/bin/true", tools + "/prefixed");
  fs::create_directories(tools + "/sub");
  fs::copy_file("/bin/true", tools + "/sub/inner");
  exclude({{"process_path", tools + "/quiet"}, {"process_dir_path", tools + "/sub/"}});

  const pid_t quiet = run({tools + "/quiet", "a"});
  const pid_t inner = run({tools + "/sub/inner", "b"});
  const pid_t loud = run({tools + "/prefixed", "c"});
  ASSERT_TRUE(waitEvent(kExit, [&](const Received& r) { return number(r, "pid") == (uint64_t)loud; }));
  // The reported one went through after the muted ones: they had their
  // chance and left nothing but the fork of the test itself.
  for (pid_t muted : {quiet, inner}) {
    for (const auto& r : events(kStart, [&](const Received& r) { return number(r, "pid") == (uint64_t)muted; })) {
      EXPECT_NE(text(r, "path"), tools + (muted == quiet ? "/quiet" : "/sub/inner"));
    }
    EXPECT_TRUE(events(kExit, [&](const Received& r) { return number(r, "pid") == (uint64_t)muted; }).empty());
  }
}

}  // namespace
