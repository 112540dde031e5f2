// Process events from the real kernel through lumo-es to the daemon.
#include <unistd.h>

#include <filesystem>

#include "linux_es/realextension.h"
#include "text/byteescape.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::RealExtension;

constexpr const char* kStart = "handleProcessStartEvent:";
constexpr const char* kExit = "handleProcessExitEvent:";

class ProcessEvents : public RealExtension {
 protected:
  // Each tier: the BPF one where the kernel has it, and the fallback, which
  // reads /proc after the fact: the program lives long enough to be read.
  void checkExecWithArguments(const std::string& tier) {
    start({"LUMO_PROCESS_TIER=" + tier});
    if (tier == "connector") {
      ASSERT_TRUE(extensionLogs("Process events: netlink process connector tier"));
    }
    pid_t pid = 0;
    ASSERT_EQ(run({"/bin/sleep", "0.1", "0.2"}, &pid), 0);
    const std::string sleep = fs::canonical("/bin/sleep");
    auto start = waitEvent(kStart, [&](const Received& r) {
      return number(r, "pid") == (uint64_t)pid && text(r, "path") == sleep;
    });
    ASSERT_TRUE(start) << "no start record for pid " << pid;
    EXPECT_EQ(text(*start, "cmd"), "0.1 0.2");
    EXPECT_EQ(number(*start, "ppid"), (uint64_t)getpid());
    EXPECT_EQ(number(*start, "uid"), 0u);
    auto exit =
        waitEvent(kExit, [&](const Received& r) { return number(r, "pid") == (uint64_t)pid; });
    ASSERT_TRUE(exit);
    EXPECT_EQ(text(*exit, "path"), sleep);
    if (tier != "auto") return;
    // Before the exec, the fork of the test, with the test's image.
    EXPECT_TRUE(waitEvent(kStart, [&](const Received& r) {
      return number(r, "pid") == (uint64_t)pid &&
             text(r, "path") == fs::read_symlink("/proc/self/exe").string();
    }));
  }
};

TEST_F(ProcessEvents, ExecWithArgumentsYieldsStartAndExitRecordsOnTheBestTier) {
  checkExecWithArguments("auto");
}

TEST_F(ProcessEvents, ExecWithArgumentsYieldsStartAndExitRecordsOnTheConnectorTier) {
  checkExecWithArguments("connector");
}

// Names and arguments are bytes on Linux: those that are not UTF-8 reach
// the daemon escaped (the original bytes come back from them), and
// exclusions match that form.
TEST_F(ProcessEvents, MutedPathsStopAProcessesEventsAndOtherNamesInAnyBytesAreReported) {
  start();
  const std::string tools = dir + "/tools";
  fs::create_directories(tools + "/sub");
  for (const char* name : {"/quiet", "/prefixed", "/sub/inner", "/odd\xff", "/muted\xff"})
    fs::copy_file("/bin/true", tools + name);
  exclude({{"process_path", tools + "/quiet"},
           {"process_dir_path", tools + "/sub/"},
           {"process_path", tools + "/muted\\xff"}});

  pid_t quiet = 0, inner = 0, odd = 0, mutedOdd = 0, loud = 0;
  run({tools + "/quiet", "a"}, &quiet);
  run({tools + "/sub/inner", "b"}, &inner);
  run({tools + "/muted\xff", "d"}, &mutedOdd);
  run({tools + "/odd\xff", "\xfe", "x"}, &odd);
  run({tools + "/prefixed", "c"}, &loud);
  ASSERT_TRUE(
      waitEvent(kExit, [&](const Received& r) { return number(r, "pid") == (uint64_t)loud; }));
  auto start = waitEvent(kStart, [&](const Received& r) {
    return number(r, "pid") == (uint64_t)odd && text(r, "path") == tools + "/odd\\xff";
  });
  ASSERT_TRUE(start) << "no start record for the odd name";
  EXPECT_EQ(text(*start, "cmd"), "\\xfe x");
  EXPECT_EQ(tarvex::itx::rtn::linux_platform::unescapeBytes(text(*start, "cmd")), "\xfe x");
  // The reported ones went through after the muted ones: they had their
  // chance and left nothing but the fork of the test itself.
  for (pid_t muted : {quiet, inner, mutedOdd}) {
    auto of = [&](const Received& r) { return number(r, "pid") == (uint64_t)muted; };
    for (const auto& r : events(kStart, of))
      EXPECT_EQ(text(r, "path").find(tools), std::string::npos);
    EXPECT_TRUE(events(kExit, of).empty());
  }
}

}  // namespace
