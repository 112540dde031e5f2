#include "es/procfs/procinfo.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "es/procfs/fdpath.h"

namespace endpointsecurity::linux_es {

namespace {

// Recent exits kept for the events still queued behind them.
constexpr size_t kRecentExits = 1024;

// procfs files are small and read on hot paths: plain reads, no streams.
std::optional<std::string> slurp(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string text;
  char chunk[1024];
  ssize_t n = 0;
  while ((n = read(fd, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<size_t>(n));
  close(fd);
  if (n < 0) return std::nullopt;
  return text;
}

bool toU64(const std::string& word, uint64_t& out) {
  if (word.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long v = std::strtoull(word.c_str(), &end, 10);
  if (errno != 0 || end == nullptr || *end != '\0') return false;
  out = v;
  return true;
}

bool toI64(const std::string& word, int64_t& out) {
  if (word.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(word.c_str(), &end, 10);
  if (errno != 0 || end == nullptr || *end != '\0') return false;
  out = v;
  return true;
}

}  // namespace

audit_token_t tokenOf(const ProcessInfo& info) {
  audit_token_t token{};
  token.val[0] = info.auid;
  token.val[1] = info.euid;
  token.val[2] = info.egid;
  token.val[3] = info.ruid;
  token.val[4] = info.rgid;
  token.val[5] = static_cast<unsigned>(info.pid);
  token.val[6] = info.asid;
  token.val[7] = static_cast<unsigned>(info.startTicks);
  return token;
}

// "pid (comm) state ppid pgrp session ..." where comm may hold blanks and
// parentheses: the fields after it start at the last ')'.
bool ProcReader::parseStat(const std::string& text, ProcessInfo& out) {
  const auto open = text.find('(');
  const auto close = text.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) return false;
  int64_t pid = 0;
  if (!toI64(text.substr(0, open > 0 ? open - 1 : 0), pid) || pid <= 0) return false;
  std::istringstream rest(text.substr(close + 1));
  std::vector<std::string> fields;  // fields[0] is field 3 (state)
  std::string word;
  while (rest >> word && fields.size() < 20) fields.push_back(word);
  if (fields.size() < 20) return false;
  int64_t ppid = 0, pgid = 0, sid = 0;
  uint64_t start = 0;
  if (!toI64(fields[1], ppid) || !toI64(fields[2], pgid) || !toI64(fields[3], sid) ||
      !toU64(fields[19], start)) {
    return false;
  }
  out.pid = static_cast<pid_t>(pid);
  out.ppid = static_cast<pid_t>(ppid);
  out.pgid = static_cast<pid_t>(pgid);
  out.sid = static_cast<pid_t>(sid);
  out.startTicks = start;
  return true;
}

bool ProcReader::parseStatus(const std::string& text, ProcessInfo& out) {
  std::istringstream lines(text);
  std::string line;
  bool uids = false, gids = false;
  while (std::getline(lines, line)) {
    const bool isUid = line.rfind("Uid:", 0) == 0;
    const bool isGid = line.rfind("Gid:", 0) == 0;
    if (!isUid && !isGid) continue;
    std::istringstream words(line.substr(4));
    std::string real, effective;
    uint64_t r = 0, e = 0;
    if (!(words >> real >> effective) || !toU64(real, r) || !toU64(effective, e)) return false;
    if (isUid) {
      out.ruid = static_cast<uid_t>(r);
      out.euid = static_cast<uid_t>(e);
      uids = true;
    } else {
      out.rgid = static_cast<gid_t>(r);
      out.egid = static_cast<gid_t>(e);
      gids = true;
    }
  }
  return uids && gids;
}

std::vector<std::string> ProcReader::splitNul(const std::string& text) {
  std::vector<std::string> parts;
  size_t from = 0;
  while (from < text.size()) {
    size_t end = text.find('\0', from);
    if (end == std::string::npos) end = text.size();
    parts.push_back(text.substr(from, end - from));
    from = end + 1;
  }
  return parts;
}

std::optional<std::string> ProcReader::exe(pid_t pid) const {
  char buf[PATH_MAX];
  const std::string link = root_ + "/" + std::to_string(pid) + "/exe";
  const ssize_t n = readlink(link.c_str(), buf, sizeof buf - 1);
  if (n <= 0) return std::nullopt;
  std::string path(buf, static_cast<size_t>(n));
  stripDeletedTail(path);  // a replaced or deleted image keeps its old path
  return path;
}

std::optional<std::vector<std::string>> ProcReader::cmdline(pid_t pid) const {
  auto text = slurp(root_ + "/" + std::to_string(pid) + "/cmdline");
  if (!text) return std::nullopt;
  return splitNul(*text);
}

bool ProcReader::read(pid_t pid, ProcessInfo& out) const {
  const std::string dir = root_ + "/" + std::to_string(pid);
  auto stat = slurp(dir + "/stat");
  auto status = slurp(dir + "/status");
  if (!stat || !status || !parseStat(*stat, out) || !parseStatus(*status, out)) return false;
  uint64_t v = 0;
  if (auto text = slurp(dir + "/loginuid"); text && toU64(*text, v)) {
    out.auid = static_cast<uint32_t>(v);
  }
  if (auto text = slurp(dir + "/sessionid"); text && toU64(*text, v)) {
    out.asid = static_cast<uint32_t>(v);
  }
  if (auto path = exe(pid)) out.exe = *path;
  return true;
}

bool ProcessCache::cached(pid_t pid, uint64_t startTicks, bool exitedToo, ProcessInfo& out) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto take = [&](const std::unordered_map<pid_t, ProcessInfo>& from) {
    auto it = from.find(pid);
    if (it == from.end() || (startTicks != 0 && it->second.startTicks != startTicks)) return false;
    out = it->second;
    return true;
  };
  return take(entries_) || (exitedToo && take(exited_));
}

std::optional<ProcessInfo> ProcessCache::lookup(pid_t pid, uint64_t startTicks) {
  std::optional<ProcessInfo> info(std::in_place);
  if (!lookup(pid, *info, startTicks)) info.reset();
  return info;
}

bool ProcessCache::lookup(pid_t pid, ProcessInfo& out, uint64_t startTicks) {
  if (cached(pid, startTicks, false, out)) return true;
  std::function<void()> catchUp;
  {
    std::lock_guard<std::mutex> lock(catchUpMutex_);
    catchUp = catchUp_;
  }
  if (catchUp) {
    catchUp();
    // The tier has seen everything up to now, its exits included, so a
    // recent exit is the process itself and not a pid since recycled.
    if (cached(pid, startTicks, true, out)) return true;
  }
  ProcessInfo read;  // fresh: the reader leaves what it can't read as it was
  if (!reader_.read(pid, read) || (startTicks != 0 && read.startTicks != startTicks)) {
    return cached(pid, startTicks, true, out);
  }
  put(read);
  out = std::move(read);
  return true;
}

void ProcessCache::put(const ProcessInfo& info) {
  std::lock_guard<std::mutex> lock(mutex_);
  // Exits are missed when events are lost; a full cache starts over rather
  // than keep stale entries.
  if (entries_.size() >= capacity_ && entries_.count(info.pid) == 0) entries_.clear();
  entries_[info.pid] = info;
  exited_.erase(info.pid);
}

void ProcessCache::forget(pid_t pid) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = entries_.find(pid);
  if (it == entries_.end()) return;
  if (exited_.insert_or_assign(pid, std::move(it->second)).second) exitOrder_.push_back(pid);
  entries_.erase(it);
  while (exitOrder_.size() > kRecentExits) {
    exited_.erase(exitOrder_.front());
    exitOrder_.pop_front();
  }
}

size_t ProcessCache::size() {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_.size();
}

void ProcessCache::setCatchUp(std::function<void()> catchUp) {
  std::lock_guard<std::mutex> lock(catchUpMutex_);
  catchUp_ = std::move(catchUp);
}

}  // namespace endpointsecurity::linux_es
