#pragma once

#include <EndpointSecurity/EndpointSecurity.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace lumo::testing {

struct ProcessSpec {
  pid_t pid = 4242;
  pid_t ppid = 1;
  uid_t ruid = 501;
  uid_t euid = 501;
  int asid = 100007;
  int pidversion = 1;
  // nullopt: the process has no executable path.
  std::optional<std::string> path = std::string("/usr/bin/true");
  // nullopt: unsigned (no signing identifier).
  std::optional<std::string> signingId;
  bool platform = false;
};

// A file as an event names it; a missing path gives a null path pointer.
struct FileSpec {
  std::optional<std::string> path;
  off_t size = 0;
};

inline audit_token_t makeToken(const ProcessSpec& shape) {
  audit_token_t token{};
  token.val[0] = token.val[3] = shape.ruid;
  token.val[1] = shape.euid;
  token.val[5] = static_cast<unsigned>(shape.pid);
  token.val[6] = static_cast<unsigned>(shape.asid);
  token.val[7] = static_cast<unsigned>(shape.pidversion);
  return token;
}

// A message and everything it points to.
class TestMessage {
 public:
  es_message_t* get() { return &message_; }
  const es_message_t* get() const { return &message_; }
  const es_message_t* operator->() const { return &message_; }

  es_string_token_t token(const std::optional<std::string>& text) {
    if (!text) return {0, nullptr};
    const std::string& kept = strings_.emplace_back(*text);
    return {kept.size(), kept.c_str()};
  }
  es_file_t* file(const FileSpec& shape) {
    es_file_t& f = files_.emplace_back();
    f.path = token(shape.path);
    f.stat.st_size = shape.size;
    return &f;
  }
  es_process_t* process(const ProcessSpec& shape) {
    es_process_t& p = processes_.emplace_back();
    p.audit_token = makeToken(shape);
    p.ppid = p.original_ppid = shape.ppid;
    p.session_id = shape.asid;
    p.is_platform_binary = shape.platform;
    p.signing_id = token(shape.signingId);
    p.executable = file({shape.path, 0});
    return &p;
  }
  // Kept as an array of strings, which the fake facilities read back.
  void setArgs(std::vector<std::string> args) {
    args_ = std::move(args);
    message_.event.exec.args.size = args_.size();
    message_.event.exec.args.data = reinterpret_cast<const uint8_t*>(args_.data());
  }

 private:
  es_message_t message_{};
  std::deque<std::string> strings_;
  std::deque<es_file_t> files_;
  std::deque<es_process_t> processes_;
  std::vector<std::string> args_;
};

// Builds messages field by field, e.g.
//   auto msg = MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC)
//                  .exec({.pid = 7, .path = "/bin/ls"}, {"ls", "-l"})
//                  .build();
class MessageBuilder {
 public:
  static MessageBuilder notify(es_event_type_t type) { return {type, ES_ACTION_TYPE_NOTIFY}; }
  static MessageBuilder auth(es_event_type_t type) { return {type, ES_ACTION_TYPE_AUTH}; }

  MessageBuilder& process(const ProcessSpec& shape) { return set(m().process, shape); }
  MessageBuilder& deadline(uint64_t absolute) { return set(m().deadline, absolute); }
  MessageBuilder& machTime(uint64_t time) { return set(m().mach_time, time); }

  MessageBuilder& exec(const ProcessSpec& target, std::vector<std::string> argv) {
    msg_->setArgs(std::move(argv));
    return set(m().event.exec.target, target);
  }
  MessageBuilder& fork(const ProcessSpec& child) { return set(m().event.fork.child, child); }
  MessageBuilder& open(const FileSpec& file) { return set(m().event.open.file, file); }
  MessageBuilder& close(const FileSpec& file, bool modified) {
    m().event.close.modified = modified;
    return set(m().event.close.target, file);
  }
  MessageBuilder& renameToExisting(const FileSpec& source, const FileSpec& existing) {
    m().event.rename.destination_type = ES_DESTINATION_TYPE_EXISTING_FILE;
    set(m().event.rename.destination.existing_file, existing);
    return set(m().event.rename.source, source);
  }
  MessageBuilder& renameToNewPath(const FileSpec& source, const std::optional<std::string>& dir,
                                  const std::optional<std::string>& name) {
    es_event_rename_t& r = m().event.rename;
    r.destination_type = ES_DESTINATION_TYPE_NEW_PATH;
    r.destination.new_path.filename = msg_->token(name);
    set(r.destination.new_path.dir, FileSpec{dir});
    return set(r.source, source);
  }
  MessageBuilder& link(const FileSpec& source, const std::optional<std::string>& dir,
                       const std::optional<std::string>& name) {
    m().event.link.target_filename = msg_->token(name);
    set(m().event.link.target_dir, FileSpec{dir});
    return set(m().event.link.source, source);
  }
  MessageBuilder& unlink(const FileSpec& target) { return set(m().event.unlink.target, target); }
  MessageBuilder& exchange(const FileSpec& file1, const FileSpec& file2) {
    set(m().event.exchangedata.file1, file1);
    return set(m().event.exchangedata.file2, file2);
  }
  MessageBuilder& uipcConnect(const std::optional<std::string>& path) {
    return set(m().event.uipc_connect.file, FileSpec{path});
  }

  std::unique_ptr<TestMessage> build() { return std::move(msg_); }

 private:
  MessageBuilder(es_event_type_t type, es_action_type_t action) {
    m().version = 4;
    m().event_type = type;
    m().action_type = action;
    process(ProcessSpec{});
  }
  es_message_t& m() { return *msg_->get(); }
  template <typename T>
  MessageBuilder& set(T& field, T value) {
    field = value;
    return *this;
  }
  MessageBuilder& set(es_process_t*& field, const ProcessSpec& shape) {
    field = msg_->process(shape);
    return *this;
  }
  MessageBuilder& set(es_file_t*& field, const FileSpec& shape) {
    field = msg_->file(shape);
    return *this;
  }

  std::unique_ptr<TestMessage> msg_ = std::make_unique<TestMessage>();
};

}  // namespace lumo::testing
