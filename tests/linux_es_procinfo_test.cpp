// What the Linux facility reads of processes: /proc parsing, the process
// cache, and the exec call of a caller blocked in execve.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "es/execcall.h"
#include "es/procinfo.h"

namespace {

using endpointsecurity::linux_es::ProcessCache;
using endpointsecurity::linux_es::ProcessInfo;
using endpointsecurity::linux_es::ProcReader;
namespace fs = std::filesystem;

// A /proc of the test's making.
class FakeProc {
 public:
  FakeProc() : root(fs::temp_directory_path() / ("lumo-proc-" + std::to_string(getpid()))) {
    fs::create_directories(root);
  }
  ~FakeProc() { fs::remove_all(root); }
  void add(pid_t pid, const std::string& stat, const std::string& exe = "") {
    const fs::path dir = root / std::to_string(pid);
    fs::remove_all(dir);
    fs::create_directories(dir);
    std::ofstream(dir / "stat") << stat;
    std::ofstream(dir / "status") << kStatus;
    std::ofstream(dir / "sessionid") << "7";
    std::ofstream(dir / "loginuid") << "1000";
    if (!exe.empty()) fs::create_symlink(exe, dir / "exe");
  }
  static constexpr const char* kStatus = "Name:\tx\nUid:\t1000\t0\t0\t0\nGid:\t1001\t1002\t0\t0\n";
  fs::path root;
};

std::string statLine(pid_t pid, const std::string& comm, pid_t ppid, uint64_t start) {
  return std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid) +
         " 100 200 0 -1 4194560 10 0 0 0 1 2 0 0 20 0 1 0 " + std::to_string(start) +
         " 1000 100 18446744073709551615\n";
}

TEST(LinuxProcInfo, ParsesStatStatusAndRefusesGarbage) {
  ProcessInfo info;
  // A command name with blanks and parentheses.
  ASSERT_TRUE(ProcReader::parseStat(statLine(42, "a) (b c", 7, 12345), info));
  EXPECT_EQ(info.pid, 42);
  EXPECT_EQ(info.ppid, 7);
  EXPECT_EQ(info.pgid, 100);
  EXPECT_EQ(info.sid, 200);
  EXPECT_EQ(info.startTicks, 12345u);
  for (const std::string& bad : {std::string(), std::string("42 (x) S 1 2"),
                                 std::string("x (y) S 1 2 3 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 9"),
                                 statLine(42, "x", 7, 1).replace(0, 2, "-1")}) {
    EXPECT_FALSE(ProcReader::parseStat(bad, info)) << bad;
  }

  ASSERT_TRUE(ProcReader::parseStatus(FakeProc::kStatus, info));
  EXPECT_EQ(info.ruid, 1000u);
  EXPECT_EQ(info.euid, 0u);
  EXPECT_EQ(info.rgid, 1001u);
  EXPECT_EQ(info.egid, 1002u);
  EXPECT_FALSE(ProcReader::parseStatus("Uid:\tx\t0\nGid:\t1\t1\n", info));
  EXPECT_FALSE(ProcReader::parseStatus("Name:\tx\n", info));

  EXPECT_EQ(ProcReader::splitNul(std::string("ls\0-l\0\0b\0", 9)),
            (std::vector<std::string>{"ls", "-l", "", "b"}));
  EXPECT_TRUE(ProcReader::splitNul("").empty());

  // /proc/PID/syscall of a caller in execve; nothing for the others.
  auto call = endpointsecurity::linux_es::parseSyscall(
      "59 0x55d0c0 0x7ffd10 0x7ffd20 0x0 0x0 0x8 0x7ffd00 0x7f1234\n");
  ASSERT_TRUE(call);
  EXPECT_EQ(call->number, 59);
  EXPECT_EQ(call->args[0], 0x55d0c0u);
  EXPECT_EQ(call->args[5], 0x8u);
  for (const char* other : {"running\n", "-1 0x7ffd00 0x7f1234\n", "59 0x1 0x2", "59 1 2 3 4 5 6", ""}) {
    EXPECT_FALSE(endpointsecurity::linux_es::parseSyscall(other)) << other;
  }
}

TEST(LinuxProcInfo, ReadsAProcessTreeAndItsOwnProcess) {
  FakeProc proc;
  proc.add(300, statLine(300, "tool", 1, 999), "/usr/bin/tool (deleted)");
  proc.add(301, "garbage");
  const ProcReader reader(proc.root.string());
  ProcessInfo info;
  ASSERT_TRUE(reader.read(300, info));
  EXPECT_EQ(info.exe, "/usr/bin/tool");
  EXPECT_EQ(info.asid, 7u);
  EXPECT_EQ(info.auid, 1000u);
  EXPECT_FALSE(reader.read(301, info));
  EXPECT_FALSE(reader.read(302, info));

  // The real /proc: this process.
  ProcessInfo self;
  ASSERT_TRUE(ProcReader().read(getpid(), self));
  EXPECT_EQ(self.pid, getpid());
  EXPECT_EQ(self.ppid, getppid());
  EXPECT_EQ(self.ruid, getuid());
  EXPECT_EQ(self.exe, fs::read_symlink("/proc/self/exe").string());
  EXPECT_GT(self.startTicks, 0u);
}

TEST(LinuxProcInfo, CacheNeverAnswersForAnotherProcessUnderThePid) {
  FakeProc proc;
  proc.add(400, statLine(400, "old", 1, 50), "/usr/bin/old");
  const ProcReader reader(proc.root.string());
  ProcessCache cache(reader, 2);
  ASSERT_TRUE(cache.lookup(400));
  // The pid comes back as another process: the cached entry does not fit.
  proc.add(400, statLine(400, "new", 1, 60), "/usr/bin/new");
  EXPECT_EQ(cache.lookup(400, 60)->exe, "/usr/bin/new");
  EXPECT_FALSE(cache.lookup(400, 70));
  // Bounded: a full cache starts over.
  for (pid_t pid : {1, 2}) {
    ProcessInfo other;
    other.pid = pid;
    cache.put(other);
  }
  EXPECT_LE(cache.size(), 2u);

  // A miss first lets the tier's pending records land in the cache.
  ProcessInfo started;
  started.pid = 500;
  started.startTicks = 9;
  started.exe = "/usr/bin/short";
  int catchUps = 0;
  cache.setCatchUp([&] {
    ++catchUps;
    cache.put(started);
    EXPECT_TRUE(cache.lookup(500));  // a nested lookup is answered, not re-entered
  });
  EXPECT_EQ(cache.lookup(500)->exe, "/usr/bin/short");
  EXPECT_EQ(catchUps, 1);
  // Exited and gone from procfs: its queued events still find it, but not
  // under another start time.
  cache.setCatchUp(nullptr);
  cache.forget(500);
  ASSERT_TRUE(cache.lookup(500, 9));
  EXPECT_FALSE(cache.lookup(500, 10));
  // A new process under the pid replaces the exited one.
  started.startTicks = 11;
  started.exe = "/usr/bin/next";
  cache.put(started);
  cache.forget(500);
  EXPECT_EQ(cache.lookup(500)->exe, "/usr/bin/next");
}

TEST(LinuxProcInfo, ReadsTheArgumentsOfACallerStoppedInExecve) {
  if (geteuid() != 0) GTEST_SKIP() << "reading another process's memory needs root";
  // The child stops itself; the test lets it into execve under ptrace and
  // holds it at the syscall entry, where a fanotify wait would hold it.
  const pid_t child = fork();
  if (child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    char* const argv[] = {const_cast<char*>("true"), const_cast<char*>("--lumo"),
                          const_cast<char*>("two words"), nullptr};
    execv("/bin/true", argv);
    _exit(127);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSTOPPED(status));
  ASSERT_EQ(ptrace(PTRACE_SYSCALL, child, nullptr, nullptr), 0);
  ASSERT_EQ(waitpid(child, &status, 0), child);  // at the entry of execve
  auto call = endpointsecurity::linux_es::readExecCall(child);
  ptrace(PTRACE_KILL, child, nullptr, nullptr);
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  ASSERT_TRUE(call);
  EXPECT_EQ(call->filename, "/bin/true");
  EXPECT_EQ(call->argv, (std::vector<std::string>{"true", "--lumo", "two words"}));
  // A process that is not in execve gives nothing.
  EXPECT_FALSE(endpointsecurity::linux_es::readExecCall(getpid()));
}

}  // namespace
