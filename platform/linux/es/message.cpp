#include "es/message.h"

#include <cstring>

namespace endpointsecurity::linux_es {

Message::Message(es_event_type_t type, es_action_type_t action) {
  es.version = 1;
  es.event_type = type;
  es.action_type = action;
  es.reserved_facility = this;
}

es_string_token_t Message::addString(std::string text) {
  strings_.push_back(std::move(text));
  return {strings_.back().size(), strings_.back().c_str()};
}

es_file_t* Message::addFile(std::string path, const struct stat* st) {
  es_file_t& file = files_.emplace_back();
  std::memset(&file, 0, sizeof file);
  file.path = addString(std::move(path));
  if (st != nullptr) file.stat = *st;
  return &file;
}

// Linux has no code signing the way the ES API means it: signing and team
// ids stay absent, is_platform_binary stays false.
es_process_t* Message::addProcess(const ProcessInfo& info) {
  es_process_t& process = processes_.emplace_back();
  std::memset(&process, 0, sizeof process);
  process.audit_token = tokenOf(info);
  process.ppid = info.ppid;
  process.original_ppid = info.ppid;
  process.group_id = info.pgid;
  process.session_id = info.sid;
  process.is_platform_binary = false;
  process.signing_id = {0, nullptr};
  process.team_id = {0, nullptr};
  const long hz = 100;  // USER_HZ, the unit of startTicks
  process.start_time.tv_sec = static_cast<time_t>(info.startTicks / hz);
  process.start_time.tv_usec = static_cast<suseconds_t>((info.startTicks % hz) * (1000000 / hz));
  process.executable = addFile(info.exe, nullptr);
  // Unknown image (the process was gone before it could be read): no path
  // rather than an empty one.
  if (info.exe.empty()) process.executable->path = {0, nullptr};
  return &process;
}

void Message::setExecArgs(std::vector<std::string> args) {
  args_.clear();
  argTokens_.clear();
  for (auto& a : args) {
    args_.push_back(std::move(a));
    argTokens_.push_back({args_.back().size(), args_.back().c_str()});
  }
  // The facility reads arguments through the owning message.
  es.event.exec.args = {argTokens_.size(), reinterpret_cast<const uint8_t*>(this)};
}

}  // namespace endpointsecurity::linux_es

namespace endpointsecurity::linux_es {

void Message::setExecArgsFetcher(std::function<std::vector<std::string>()> fetch) {
  fetchArgs_ = std::move(fetch);
  // Marks the event as having arguments; the tokens come on first use.
  es.event.exec.args = {0, reinterpret_cast<const uint8_t*>(this)};
}

void Message::fetchArgs() {
  if (!fetchArgs_) return;
  std::call_once(argsOnce_, [this] {
    setExecArgs(fetchArgs_());
    fetchArgs_ = nullptr;
  });
}

}  // namespace endpointsecurity::linux_es
