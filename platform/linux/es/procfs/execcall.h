#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace endpointsecurity::linux_es {

// A process blocked in execve/execveat, as /proc/PID/syscall and
// /proc/PID/mem show it: the file name and argument vector it passed.
//
// Caveat: /proc/PID/syscall is the thread-group leader's. When another
// thread of a multithreaded process calls execve, the leader is in some
// other call: then nothing is read and the exec goes without arguments.
struct ExecCall {
  std::string filename;
  std::vector<std::string> argv;
};

struct SyscallState {
  long number = -1;
  std::array<uint64_t, 6> args{};
};

std::optional<SyscallState> parseSyscall(const std::string& text);
// The exec call of pid, or nothing when it is not in one (or is gone);
// the argument vector only when asked for.
std::optional<ExecCall> readExecCall(pid_t pid, bool withArgs = true,
                                     const std::string& procRoot = "/proc");

}  // namespace endpointsecurity::linux_es
