#include "es/execcall.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <cstdlib>
#include <sstream>

namespace endpointsecurity::linux_es {

namespace {

constexpr size_t kMaxArgs = 4096;
constexpr size_t kMaxArgBytes = 128 * 1024;
constexpr size_t kMaxString = 4096;

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

bool readWord(int mem, uint64_t address, uint64_t& out) {
  return pread(mem, &out, sizeof out, static_cast<off_t>(address)) == sizeof out;
}

std::optional<std::string> readString(int mem, uint64_t address, size_t limit) {
  std::string out;
  char chunk[512];
  while (out.size() < limit) {
    const ssize_t n = pread(mem, chunk, sizeof chunk, static_cast<off_t>(address + out.size()));
    if (n <= 0) return out.empty() ? std::nullopt : std::optional<std::string>(out);
    for (ssize_t i = 0; i < n; ++i) {
      if (chunk[i] == '\0') return out;
      out += chunk[i];
    }
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
  // Read on the caller's exec path: one plain read, no streams.
  char text[512];
  ssize_t length = -1;
  {
    const Fd syscallFile(open((dir + "/syscall").c_str(), O_RDONLY | O_CLOEXEC));
    if (syscallFile.get() >= 0) length = read(syscallFile.get(), text, sizeof text - 1);
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
  const Fd mem(open((dir + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
  if (mem.get() < 0) return std::nullopt;
  ExecCall call;
  if (auto name = readString(mem.get(), filenameAt, kMaxString)) call.filename = *name;
  size_t bytes = 0;
  for (size_t i = 0; withArgs && argvAt != 0 && i < kMaxArgs && bytes < kMaxArgBytes; ++i) {
    uint64_t pointer = 0;
    if (!readWord(mem.get(), argvAt + i * sizeof(uint64_t), pointer) || pointer == 0) break;
    std::optional<std::string> arg = readString(mem.get(), pointer, kMaxArgBytes - bytes);
    if (!arg) break;
    bytes += arg->size() + 1;
    call.argv.push_back(std::move(*arg));
  }
  return call;
}

}  // namespace endpointsecurity::linux_es
