#include "es/hub/message.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "text/byteescape.h"

namespace endpointsecurity::linux_es {

using tarvex::itx::rtn::linux_platform::escapeBytes;
using tarvex::itx::rtn::linux_platform::needsEscape;

namespace {

// Under AddressSanitizer every message is new, so that a use after its
// last release is caught.
#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kSpareMessages = 0;
#else
constexpr size_t kSpareMessages = 256;
#endif

struct SpareBlocks {
  SpareBlocks() { blocks.reserve(kSpareMessages); }
  std::mutex mutex;
  std::vector<void*> blocks;
};

SpareBlocks& spares() {
  static SpareBlocks* const pool = new SpareBlocks;  // outlives late releases
  return *pool;
}

}  // namespace

void* Message::operator new(size_t size) {
  if (kSpareMessages > 0 && size == sizeof(Message)) {
    SpareBlocks& pool = spares();
    std::lock_guard<std::mutex> lock(pool.mutex);
    if (!pool.blocks.empty()) {
      void* block = pool.blocks.back();
      pool.blocks.pop_back();
      return block;
    }
  }
  return ::operator new(size);
}

void Message::operator delete(void* block, size_t size) {
  if (kSpareMessages > 0 && size == sizeof(Message)) {
    SpareBlocks& pool = spares();
    std::lock_guard<std::mutex> lock(pool.mutex);
    if (pool.blocks.size() < kSpareMessages) {
      pool.blocks.push_back(block);
      return;
    }
  }
  ::operator delete(block);
}

Message::Message(es_event_type_t type, es_action_type_t action) {
  es.version = 1;
  es.event_type = type;
  es.action_type = action;
  es.reserved_facility = this;
}

es_string_token_t TextArena::add(std::string_view text) {
  // The daemon takes UTF-8 only, and names on Linux are bytes.
  if (needsEscape(text)) return copy(escapeBytes(text));
  return copy(text);
}

es_string_token_t TextArena::copy(std::string_view text) {
  const size_t need = text.size() + 1;
  if (need > room_) {
    const size_t size = std::max(need, kBlock);
    blocks_.push_back(std::make_unique_for_overwrite<char[]>(size));
    free_ = blocks_.back().get();
    room_ = size;
  }
  char* copy = free_;
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  free_ += need;
  room_ -= need;
  return {text.size(), copy};
}

es_file_t* Message::addFile(std::string_view path, const struct stat* st) {
  es_file_t& file = files_.add();
  file.path = addString(path);
  if (st != nullptr) file.stat = *st;
  return &file;
}

// Linux has no code signing the way the ES API means it: signing and team
// ids stay absent, is_platform_binary stays false.
es_process_t* Message::addProcess(const ProcessInfo& info) {
  es_process_t& process = processes_.add();
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
  args_ = std::move(args);
  for (std::string& a : args_) {
    if (needsEscape(a)) a = escapeBytes(a);
  }
  argTokens_.clear();
  argTokens_.reserve(args_.size());
  for (const std::string& a : args_) argTokens_.push_back({a.size(), a.c_str()});
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
