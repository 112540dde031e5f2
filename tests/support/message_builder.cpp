#include "support/message_builder.h"

namespace lumo::testing {

audit_token_t makeToken(const ProcessSpec& shape) {
  audit_token_t token{};
  token.val[0] = shape.ruid;
  token.val[1] = shape.euid;
  token.val[3] = shape.ruid;
  token.val[5] = static_cast<unsigned>(shape.pid);
  token.val[6] = static_cast<unsigned>(shape.asid);
  token.val[7] = static_cast<unsigned>(shape.pidversion);
  return token;
}

es_string_token_t TestMessage::token(const std::optional<std::string>& text) {
  if (!text) return {0, nullptr};
  const std::string& kept = strings_.emplace_back(*text);
  return {kept.size(), kept.c_str()};
}

es_file_t* TestMessage::file(const FileSpec& shape) {
  es_file_t& f = files_.emplace_back();
  f.path = token(shape.path);
  f.stat.st_size = shape.size;
  return &f;
}

es_process_t* TestMessage::process(const ProcessSpec& shape) {
  es_process_t& p = processes_.emplace_back();
  p.audit_token = makeToken(shape);
  p.ppid = shape.ppid;
  p.original_ppid = shape.ppid;
  p.session_id = shape.asid;
  p.is_platform_binary = shape.platform;
  p.signing_id = token(shape.signingId);
  p.executable = file({shape.path, 0});
  return &p;
}

void TestMessage::setArgs(std::vector<std::string> args) {
  args_ = std::move(args);
  message_.event.exec.args.size = args_.size();
  message_.event.exec.args.data = reinterpret_cast<const uint8_t*>(args_.data());
}

MessageBuilder::MessageBuilder(es_event_type_t type, es_action_type_t action)
    : msg_(std::make_unique<TestMessage>()) {
  es_message_t* m = msg_->get();
  m->version = 4;
  m->event_type = type;
  m->action_type = action;
  m->process = msg_->process(ProcessSpec{});
}

MessageBuilder MessageBuilder::notify(es_event_type_t type) {
  return MessageBuilder(type, ES_ACTION_TYPE_NOTIFY);
}

MessageBuilder MessageBuilder::auth(es_event_type_t type) {
  return MessageBuilder(type, ES_ACTION_TYPE_AUTH);
}

MessageBuilder& MessageBuilder::process(const ProcessSpec& shape) {
  msg_->get()->process = msg_->process(shape);
  return *this;
}

MessageBuilder& MessageBuilder::deadline(uint64_t absolute) {
  msg_->get()->deadline = absolute;
  return *this;
}

MessageBuilder& MessageBuilder::machTime(uint64_t time) {
  msg_->get()->mach_time = time;
  return *this;
}

MessageBuilder& MessageBuilder::exec(const ProcessSpec& target, std::vector<std::string> argv) {
  msg_->get()->event.exec.target = msg_->process(target);
  msg_->setArgs(std::move(argv));
  return *this;
}

MessageBuilder& MessageBuilder::fork(const ProcessSpec& child) {
  msg_->get()->event.fork.child = msg_->process(child);
  return *this;
}

MessageBuilder& MessageBuilder::exitStatus(int status) {
  msg_->get()->event.exit.stat = status;
  return *this;
}

MessageBuilder& MessageBuilder::open(const FileSpec& file) {
  msg_->get()->event.open.file = msg_->file(file);
  return *this;
}

MessageBuilder& MessageBuilder::close(const FileSpec& file, bool modified) {
  msg_->get()->event.close.target = msg_->file(file);
  msg_->get()->event.close.modified = modified;
  return *this;
}

MessageBuilder& MessageBuilder::renameToExisting(const FileSpec& source,
                                                 const FileSpec& existing) {
  es_event_rename_t& r = msg_->get()->event.rename;
  r.source = msg_->file(source);
  r.destination_type = ES_DESTINATION_TYPE_EXISTING_FILE;
  r.destination.existing_file = msg_->file(existing);
  return *this;
}

MessageBuilder& MessageBuilder::renameToNewPath(const FileSpec& source,
                                                const std::optional<std::string>& dir,
                                                const std::optional<std::string>& name) {
  es_event_rename_t& r = msg_->get()->event.rename;
  r.source = msg_->file(source);
  r.destination_type = ES_DESTINATION_TYPE_NEW_PATH;
  r.destination.new_path.dir = msg_->file({dir, 0});
  r.destination.new_path.filename = msg_->token(name);
  return *this;
}

MessageBuilder& MessageBuilder::link(const FileSpec& source, const std::optional<std::string>& dir,
                                     const std::optional<std::string>& name) {
  es_event_link_t& l = msg_->get()->event.link;
  l.source = msg_->file(source);
  l.target_dir = msg_->file({dir, 0});
  l.target_filename = msg_->token(name);
  return *this;
}

MessageBuilder& MessageBuilder::unlink(const FileSpec& target) {
  msg_->get()->event.unlink.target = msg_->file(target);
  return *this;
}

MessageBuilder& MessageBuilder::exchange(const FileSpec& file1, const FileSpec& file2) {
  msg_->get()->event.exchangedata.file1 = msg_->file(file1);
  msg_->get()->event.exchangedata.file2 = msg_->file(file2);
  return *this;
}

MessageBuilder& MessageBuilder::uipcConnect(const std::optional<std::string>& path) {
  msg_->get()->event.uipc_connect.file = msg_->file({path, 0});
  return *this;
}

std::unique_ptr<TestMessage> MessageBuilder::build() { return std::move(msg_); }

}  // namespace lumo::testing
