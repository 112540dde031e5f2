#pragma once

#include <bsm/libbsm.h>
#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
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
// that a recycled pid never answers with another process's data. Reading
// procfs costs several system calls, so a miss first lets the process
// tier catch up with the records it has not taken yet, and processes that
// just exited are kept a little longer for the events they left queued.
class ProcessCache {
 public:
  explicit ProcessCache(const ProcReader& reader, size_t capacity = 8192)
      : reader_(reader), capacity_(capacity) {}

  // The process as cached, or read now. startTicks 0 accepts any entry.
  std::optional<ProcessInfo> lookup(pid_t pid, uint64_t startTicks = 0);
  // The same into `out`, whose strings keep their room: a hot path that
  // reuses one ProcessInfo allocates nothing on a hit. False, with `out`
  // unspecified, when the process is not known.
  bool lookup(pid_t pid, ProcessInfo& out, uint64_t startTicks = 0);
  void put(const ProcessInfo& info);
  // The process exited: it is remembered among the recent exits.
  void forget(pid_t pid);
  size_t size();

  // Called on a miss, on the missing thread, before procfs is read. Set
  // by a process tier whose records are in order with the kernel's other
  // events; it may call back into the cache. Null to clear.
  void setCatchUp(std::function<void()> catchUp);

 private:
  bool cached(pid_t pid, uint64_t startTicks, bool exitedToo, ProcessInfo& out);

  const ProcReader& reader_;
  const size_t capacity_;
  std::mutex mutex_;
  std::unordered_map<pid_t, ProcessInfo> entries_;
  std::unordered_map<pid_t, ProcessInfo> exited_;
  std::deque<pid_t> exitOrder_;
  std::mutex catchUpMutex_;
  std::function<void()> catchUp_;
};

}  // namespace endpointsecurity::linux_es
