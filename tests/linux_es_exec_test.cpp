// Reading an exec call from a blocked caller: /proc/PID/syscall parsing,
// and the real thing against a child stopped inside execve.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "es/execcall.h"

namespace {

using endpointsecurity::linux_es::parseSyscall;
using endpointsecurity::linux_es::readExecCall;

TEST(LinuxExecCall, ParsesSyscallLinesAndRefusesOthers) {
  auto state = parseSyscall("59 0x55d0c0 0x7ffd10 0x7ffd20 0x0 0x0 0x8 0x7ffd00 0x7f1234\n");
  ASSERT_TRUE(state);
  EXPECT_EQ(state->number, 59);
  EXPECT_EQ(state->args[0], 0x55d0c0u);
  EXPECT_EQ(state->args[1], 0x7ffd10u);
  EXPECT_EQ(state->args[5], 0x8u);
  // Not in a system call, or in none that can be read.
  EXPECT_FALSE(parseSyscall("running\n"));
  EXPECT_FALSE(parseSyscall("-1 0x7ffd00 0x7f1234\n"));
  EXPECT_FALSE(parseSyscall("59 0x1 0x2"));
  EXPECT_FALSE(parseSyscall("59 1 2 3 4 5 6"));
  EXPECT_FALSE(parseSyscall(""));
}

TEST(LinuxExecCall, ReadsTheArgumentsOfACallerStoppedInExecve) {
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
  auto call = readExecCall(child);
  ptrace(PTRACE_KILL, child, nullptr, nullptr);
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  ASSERT_TRUE(call);
  EXPECT_EQ(call->filename, "/bin/true");
  EXPECT_EQ(call->argv, (std::vector<std::string>{"true", "--lumo", "two words"}));
  // A process that is not in execve gives nothing.
  EXPECT_FALSE(readExecCall(getpid()));
}

}  // namespace
