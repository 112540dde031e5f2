#include "es/procfs/execcall.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <cstdlib>
#include <sstream>
#include <string_view>
#include <thread>

namespace endpointsecurity::linux_es {

namespace {

constexpr size_t kMaxArgs = 4096;
constexpr size_t kMaxArgBytes = 128 * 1024;
constexpr size_t kMaxString = 4096;
constexpr std::string_view kRunning = "running";
// How long a caller shown "running" is waited for: woken on a busy machine,
// it may queue for the CPU for milliseconds before it looks again.
constexpr auto kRunningPatience = std::chrono::milliseconds(50);

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

// The memory of a process stopped in execve. process_vm_readv takes one
// call a read; /proc/PID/mem, where that is refused or for a test's tree,
// an open more. Reads stop at page ends so that a string near unmapped
// memory still reads up to it.
class RemoteMemory {
 public:
  RemoteMemory(pid_t pid, std::string dir, bool direct)
      : pid_(pid), dir_(std::move(dir)), direct_(direct) {}

  ssize_t read(uint64_t address, void* out, size_t length) {
    static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    length = std::min(length, page - address % page);
    if (direct_) {
      iovec local{out, length};
      iovec remote{reinterpret_cast<void*>(address), length};
      const ssize_t n = process_vm_readv(pid_, &local, 1, &remote, 1, 0);
      if (n >= 0 || errno == EFAULT || errno == ESRCH) return n;
      direct_ = false;
    }
    if (!mem_) mem_.emplace(open((dir_ + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
    return pread(mem_->get(), out, length, static_cast<off_t>(address));
  }

 private:
  const pid_t pid_;
  const std::string dir_;
  bool direct_;
  std::optional<Fd> mem_;
};

bool readWord(RemoteMemory& mem, uint64_t address, uint64_t& out) {
  return mem.read(address, &out, sizeof out) == sizeof out;
}

std::optional<std::string> readString(RemoteMemory& mem, uint64_t address, size_t limit) {
  std::string out;
  char chunk[512];
  while (out.size() < limit) {
    const ssize_t n = mem.read(address + out.size(), chunk, sizeof chunk);
    if (n <= 0) return out.empty() ? std::nullopt : std::optional<std::string>(out);
    const size_t length = strnlen(chunk, static_cast<size_t>(n));
    out.append(chunk, std::min(length, limit - out.size()));
    if (length < static_cast<size_t>(n)) return out;
  }
  return out;
}

}  // namespace

std::optional<SyscallState> parseSyscall(const std::string& text) {
  std::istringstream words(text);
  std::string word;
  if (!(words >> word)) return std::nullopt;
  SyscallState state;
  char* end = nullptr;
  errno = 0;
  state.number = std::strtol(word.c_str(), &end, 10);
  if (errno != 0 || end == word.c_str() || *end != '\0' || state.number < 0) return std::nullopt;
  for (auto& arg : state.args) {
    if (!(words >> word) || word.rfind("0x", 0) != 0) return std::nullopt;
    errno = 0;
    arg = std::strtoull(word.c_str() + 2, &end, 16);
    if (errno != 0 || *end != '\0') return std::nullopt;
  }
  return state;
}

std::optional<ExecCall> readExecCall(pid_t pid, bool withArgs, const std::string& procRoot) {
  const std::string dir = procRoot + "/" + std::to_string(pid);
  // Read on the caller's exec path: plain reads, no streams. A caller
  // waiting for a permission answer is woken whenever the group answers any
  // event and looks for its own; meanwhile the file says "running": read
  // again, backing off, until it shows the call (kRunningPatience at most).
  char text[512];
  ssize_t length = -1;
  {
    const Fd syscallFile(open((dir + "/syscall").c_str(), O_RDONLY | O_CLOEXEC));
    const auto giveUp = std::chrono::steady_clock::now() + kRunningPatience;
    auto pause = std::chrono::microseconds(20);
    while (syscallFile.get() >= 0) {
      length = pread(syscallFile.get(), text, sizeof text - 1, 0);
      const std::string_view shown(text, length > 0 ? static_cast<size_t>(length) : 0);
      if (!shown.starts_with(kRunning) || std::chrono::steady_clock::now() >= giveUp) break;
      std::this_thread::sleep_for(pause);
      pause = std::min(pause * 2, std::chrono::microseconds(2000));
    }
  }
  if (length <= 0) return std::nullopt;
  const std::string line(text, strnlen(text, static_cast<size_t>(length)));
  const std::optional<SyscallState> state = parseSyscall(line.substr(0, line.find('\n')));
  if (!state) return std::nullopt;
  uint64_t filenameAt = 0, argvAt = 0;
  if (state->number == SYS_execve) {
    filenameAt = state->args[0];
    argvAt = state->args[1];
  } else if (state->number == SYS_execveat) {
    filenameAt = state->args[1];
    argvAt = state->args[2];
  } else {
    return std::nullopt;
  }
  RemoteMemory mem(pid, dir, procRoot == "/proc");
  ExecCall call;
  if (auto name = readString(mem, filenameAt, kMaxString)) call.filename = *name;
  size_t bytes = 0;
  for (size_t i = 0; withArgs && argvAt != 0 && i < kMaxArgs && bytes < kMaxArgBytes; ++i) {
    uint64_t pointer = 0;
    if (!readWord(mem, argvAt + i * sizeof(uint64_t), pointer) || pointer == 0) break;
    std::optional<std::string> arg = readString(mem, pointer, kMaxArgBytes - bytes);
    if (!arg) break;
    bytes += arg->size() + 1;
    call.argv.push_back(std::move(*arg));
  }
  return call;
}

}  // namespace endpointsecurity::linux_es
