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

audit_token_t makeToken(const ProcessSpec& shape);

// A message and everything it points to.
class TestMessage {
 public:
  es_message_t* get() { return &message_; }
  const es_message_t* get() const { return &message_; }
  const es_message_t* operator->() const { return &message_; }

  es_file_t* file(const FileSpec& shape);
  es_process_t* process(const ProcessSpec& shape);
  es_string_token_t token(const std::optional<std::string>& text);
  void setArgs(std::vector<std::string> args);

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
  static MessageBuilder notify(es_event_type_t type);
  static MessageBuilder auth(es_event_type_t type);

  MessageBuilder& process(const ProcessSpec& shape);
  MessageBuilder& deadline(uint64_t absolute);
  MessageBuilder& machTime(uint64_t time);

  MessageBuilder& exec(const ProcessSpec& target, std::vector<std::string> argv);
  MessageBuilder& fork(const ProcessSpec& child);
  MessageBuilder& exitStatus(int status);
  MessageBuilder& open(const FileSpec& file);
  MessageBuilder& close(const FileSpec& file, bool modified);
  MessageBuilder& renameToExisting(const FileSpec& source, const FileSpec& existing);
  MessageBuilder& renameToNewPath(const FileSpec& source, const std::optional<std::string>& dir,
                                  const std::optional<std::string>& name);
  MessageBuilder& link(const FileSpec& source, const std::optional<std::string>& dir,
                       const std::optional<std::string>& name);
  MessageBuilder& unlink(const FileSpec& target);
  MessageBuilder& exchange(const FileSpec& file1, const FileSpec& file2);
  MessageBuilder& uipcConnect(const std::optional<std::string>& path);

  std::unique_ptr<TestMessage> build();

 private:
  MessageBuilder(es_event_type_t type, es_action_type_t action);
  std::unique_ptr<TestMessage> msg_;
};

}  // namespace lumo::testing
