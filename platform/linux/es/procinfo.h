#pragma once

#include <bsm/libbsm.h>
#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace endpointsecurity::linux_es {

// What the facility knows of one process. startTicks is the process start
// time in clock ticks since boot (field 22 of /proc/PID/stat), which makes
// (pid, startTicks) unique across pid reuse: it is the token's pid version.
struct ProcessInfo {
  pid_t pid = 0;
  pid_t ppid = 0;
  pid_t pgid = 0;
  pid_t sid = 0;
  uid_t ruid = 0;
  uid_t euid = 0;
  gid_t rgid = 0;
  gid_t egid = 0;
  // Audit login uid and session id; (uint32_t)-1 when unset, as the
  // kernel reports them.
  uint32_t auid = UINT32_MAX;
  uint32_t asid = UINT32_MAX;
  uint64_t startTicks = 0;
  std::string exe;
};

audit_token_t tokenOf(const ProcessInfo& info);

// Reads one process from procfs (root as /proc, or a test tree). Parsing
// refuses malformed files instead of guessing.
class ProcReader {
 public:
  explicit ProcReader(std::string root = "/proc") : root_(std::move(root)) {}
  // False when the process is gone or its files don't parse.
  bool read(pid_t pid, ProcessInfo& out) const;
  std::optional<std::string> exe(pid_t pid) const;
  // NUL-separated argument vector, split.
  std::optional<std::vector<std::string>> cmdline(pid_t pid) const;

  // Parsers, public for tests.
  static bool parseStat(const std::string& text, ProcessInfo& out);
  static bool parseStatus(const std::string& text, ProcessInfo& out);
  static std::vector<std::string> splitNul(const std::string& text);

 private:
  std::string root_;
};

// A small cache of ProcessInfo by pid, checked against the start time so
// that a recycled pid never answers with another process's data.
class ProcessCache {
 public:
  explicit ProcessCache(const ProcReader& reader, size_t capacity = 8192)
      : reader_(reader), capacity_(capacity) {}

  // The process as cached, or read now. startTicks 0 accepts any entry.
  std::optional<ProcessInfo> lookup(pid_t pid, uint64_t startTicks = 0);
  void put(const ProcessInfo& info);
  void forget(pid_t pid);
  size_t size();

 private:
  const ProcReader& reader_;
  const size_t capacity_;
  std::mutex mutex_;
  std::unordered_map<pid_t, ProcessInfo> entries_;
};

}  // namespace endpointsecurity::linux_es
