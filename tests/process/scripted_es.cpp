#include "process/scripted_es.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "rtn/clock.h"

namespace lumo::testing {

namespace {

std::map<std::string, std::string> fieldsOf(std::istringstream& in) {
  std::map<std::string, std::string> fields;
  std::string word;
  while (in >> word) {
    const auto eq = word.find('=');
    if (eq != std::string::npos) fields[word.substr(0, eq)] = word.substr(eq + 1);
  }
  return fields;
}

std::vector<std::string> splitArgs(const std::string& text) {
  std::vector<std::string> args;
  std::string part;
  std::istringstream in(text);
  while (std::getline(in, part, ',')) args.push_back(part);
  return args;
}

long number(const std::map<std::string, std::string>& f, const char* key, long fallback) {
  auto it = f.find(key);
  return it == f.end() ? fallback : std::stol(it->second);
}

std::string text(const std::map<std::string, std::string>& f, const char* key) {
  auto it = f.find(key);
  return it == f.end() ? std::string() : it->second;
}

ProcessSpec processOf(const std::map<std::string, std::string>& f, const char* pidKey = "pid") {
  ProcessSpec shape;
  shape.pid = static_cast<pid_t>(number(f, pidKey, 4242));
  shape.ppid = static_cast<pid_t>(number(f, "ppid", 1));
  shape.ruid = static_cast<uid_t>(number(f, "uid", 0));
  shape.euid = shape.ruid;
  if (f.count("path")) shape.path = text(f, "path");
  if (f.count("signing")) shape.signingId = text(f, "signing");
  shape.platform = number(f, "platform", 0) != 0;
  return shape;
}

}  // namespace

ScriptedEndpointSecurity::ScriptedEndpointSecurity(std::string fifoPath,
                                                   tarvex::itx::rtn::IClock& clock)
    : fifoPath_(std::move(fifoPath)), clock_(clock) {
  // Opened for writing too, so that a writer closing its end is no EOF.
  fd_ = open(fifoPath_.c_str(), O_RDWR | O_CLOEXEC);
  if (fd_ < 0) {
    std::perror(("es: cannot open " + fifoPath_).c_str());
    return;
  }
  reader_ = std::thread([this] { readLoop(); });
  reader_.detach();
}

ScriptedEndpointSecurity::~ScriptedEndpointSecurity() = default;

void ScriptedEndpointSecurity::report(const std::string& line) {
  std::printf("es: %s\n", line.c_str());
  std::fflush(stdout);
}

void ScriptedEndpointSecurity::readLoop() {
  std::string pending;
  char buf[4096];
  for (;;) {
    const ssize_t n = read(fd_, buf, sizeof buf);
    if (n <= 0) return;
    pending.append(buf, static_cast<size_t>(n));
    size_t eol;
    while ((eol = pending.find('\n')) != std::string::npos) {
      handleLine(pending.substr(0, eol));
      pending.erase(0, eol + 1);
    }
  }
}

void ScriptedEndpointSecurity::handleLine(const std::string& line) {
  std::istringstream in(line);
  std::string kind;
  if (!(in >> kind)) return;
  const auto f = fieldsOf(in);
  tarvex::itx::rtn::IClock& clock = clock_;
  std::unique_ptr<TestMessage> message;
  if (kind == "exec") {
    message = MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC)
                  .process(processOf(f))
                  .exec(processOf(f), splitArgs(text(f, "args")))
                  .build();
  } else if (kind == "fork") {
    message = MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_FORK)
                  .process(processOf(f))
                  .fork(processOf(f, "child"))
                  .build();
  } else if (kind == "exit") {
    message = MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXIT).process(processOf(f)).build();
  } else if (kind == "open" || kind == "close") {
    const FileSpec file{text(f, "path"), static_cast<off_t>(number(f, "size", 0))};
    ProcessSpec actor = processOf(f);
    actor.path = std::string("/usr/bin/cp");
    auto builder = kind == "open" ? MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_OPEN)
                                  : MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_CLOSE);
    builder.process(actor);
    if (kind == "open") {
      builder.open(file);
    } else {
      builder.close(file, number(f, "modified", 1) != 0);
    }
    message = builder.build();
  } else if (kind == "auth-exec") {
    const uint64_t deadline =
        clock.now() + clock.nanosToTicks(static_cast<uint64_t>(number(f, "deadline_ms", 5000)) *
                                         1'000'000ull);
    message = MessageBuilder::auth(ES_EVENT_TYPE_AUTH_EXEC)
                  .process(processOf(f))
                  .exec(processOf(f), splitArgs(text(f, "args")))
                  .deadline(deadline)
                  .build();
  } else {
    report("unknown event line: " + line);
    return;
  }
  message->get()->mach_time = clock.now();
  message->get()->seq_num = static_cast<uint64_t>(number(f, "seq", static_cast<long>(++seq_)));
  deliver(std::move(message));
}

bool ScriptedEndpointSecurity::mutedFor(const ClientState& client,
                                        const es_message_t* message) const {
  const es_process_t* process = message->process;
  if (process == nullptr) return false;
  for (pid_t pid : client.mutedPids) {
    if (pid == audit_token_to_pid(process->audit_token)) return true;
  }
  const es_file_t* exe = process->executable;
  if (exe == nullptr || exe->path.data == nullptr) return false;
  const std::string path(exe->path.data, exe->path.length);
  for (const std::string& literal : client.literals) {
    if (path == literal) return true;
  }
  for (const std::string& prefix : client.prefixes) {
    if (path.compare(0, prefix.size(), prefix) == 0) return true;
  }
  return false;
}

void ScriptedEndpointSecurity::deliver(std::unique_ptr<TestMessage> owned) {
  const es_message_t* message = owned->get();
  std::vector<std::pair<endpointsecurity::MessageHandler, es_client_t*>> targets;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& client : clients_) {
      if (client->deleted || client->subscribed.count(message->event_type) == 0) continue;
      if (mutedFor(*client, message)) continue;
      targets.emplace_back(client->handler, reinterpret_cast<es_client_t*>(client.get()));
    }
    if (targets.empty()) {
      report("dropped seq=" + std::to_string(message->seq_num) + " (unsubscribed or muted)");
      return;
    }
    live_[message] = {std::move(owned), 1};
  }
  for (auto& [handler, handle] : targets) handler(handle, message);
  releaseMessage(message);
}

es_new_client_result_t ScriptedEndpointSecurity::newClient(
    es_client_t** client, endpointsecurity::MessageHandler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  clients_.push_back(std::make_unique<ClientState>());
  clients_.back()->handler = std::move(handler);
  *client = reinterpret_cast<es_client_t*>(clients_.back().get());
  return ES_NEW_CLIENT_RESULT_SUCCESS;
}

es_return_t ScriptedEndpointSecurity::deleteClient(es_client_t* client) {
  std::lock_guard<std::mutex> lock(mutex_);
  reinterpret_cast<ClientState*>(client)->deleted = true;
  report("delete client");
  return ES_RETURN_SUCCESS;
}

es_clear_cache_result_t ScriptedEndpointSecurity::clearCache(es_client_t*) {
  return ES_CLEAR_CACHE_RESULT_SUCCESS;
}

es_return_t ScriptedEndpointSecurity::subscribe(es_client_t* client,
                                                const es_event_type_t* events, uint32_t count) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string list;
  for (uint32_t i = 0; i < count; ++i) {
    reinterpret_cast<ClientState*>(client)->subscribed.insert(events[i]);
    list += (i ? "," : "") + std::to_string(events[i]);
  }
  report("subscribe " + list);
  return ES_RETURN_SUCCESS;
}

es_return_t ScriptedEndpointSecurity::unsubscribe(es_client_t* client,
                                                  const es_event_type_t* events,
                                                  uint32_t count) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string list;
  for (uint32_t i = 0; i < count; ++i) {
    reinterpret_cast<ClientState*>(client)->subscribed.erase(events[i]);
    list += (i ? "," : "") + std::to_string(events[i]);
  }
  report("unsubscribe " + list);
  return ES_RETURN_SUCCESS;
}

es_respond_result_t ScriptedEndpointSecurity::respondAuthResult(es_client_t*,
                                                               const es_message_t* message,
                                                               es_auth_result_t result,
                                                               bool cache) {
  report("answer seq=" + std::to_string(message->seq_num) +
         (result == ES_AUTH_RESULT_ALLOW ? " allow" : " deny") + " cache=" +
         std::to_string(cache));
  return ES_RESPOND_RESULT_SUCCESS;
}

es_respond_result_t ScriptedEndpointSecurity::respondFlagsResult(es_client_t*,
                                                                const es_message_t* message,
                                                                uint32_t flags, bool cache) {
  report("answer seq=" + std::to_string(message->seq_num) + " flags=" + std::to_string(flags) +
         " cache=" + std::to_string(cache));
  return ES_RESPOND_RESULT_SUCCESS;
}

void ScriptedEndpointSecurity::retainMessage(const es_message_t* message) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++live_[message].second;
}

void ScriptedEndpointSecurity::releaseMessage(const es_message_t* message) {
  std::unique_ptr<TestMessage> done;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = live_.find(message);
    if (it == live_.end()) return;
    if (--it->second.second == 0) {
      done = std::move(it->second.first);
      live_.erase(it);
    }
  }
}

es_return_t ScriptedEndpointSecurity::muteProcess(es_client_t* client,
                                                  const audit_token_t* token) {
  std::lock_guard<std::mutex> lock(mutex_);
  reinterpret_cast<ClientState*>(client)->mutedPids.push_back(audit_token_to_pid(*token));
  report("mute pid=" + std::to_string(audit_token_to_pid(*token)));
  return ES_RETURN_SUCCESS;
}

es_return_t ScriptedEndpointSecurity::unmuteProcess(es_client_t* client,
                                                    const audit_token_t* token) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto& pids = reinterpret_cast<ClientState*>(client)->mutedPids;
  std::erase(pids, audit_token_to_pid(*token));
  return ES_RETURN_SUCCESS;
}

es_return_t ScriptedEndpointSecurity::mutedProcesses(es_client_t* client, size_t* count,
                                                     audit_token_t** tokens) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto& pids = reinterpret_cast<ClientState*>(client)->mutedPids;
  *count = pids.size();
  *tokens = new audit_token_t[pids.size() + 1]();
  for (size_t i = 0; i < pids.size(); ++i) (*tokens)[i].val[5] = static_cast<unsigned>(pids[i]);
  return ES_RETURN_SUCCESS;
}

void ScriptedEndpointSecurity::releaseMutedProcesses(audit_token_t* tokens, size_t) {
  delete[] tokens;
}

es_return_t ScriptedEndpointSecurity::mutePathPrefix(es_client_t* client, const char* prefix) {
  std::lock_guard<std::mutex> lock(mutex_);
  reinterpret_cast<ClientState*>(client)->prefixes.emplace_back(prefix);
  return ES_RETURN_SUCCESS;
}

es_return_t ScriptedEndpointSecurity::mutePathLiteral(es_client_t* client, const char* path) {
  std::lock_guard<std::mutex> lock(mutex_);
  reinterpret_cast<ClientState*>(client)->literals.emplace_back(path);
  return ES_RETURN_SUCCESS;
}

es_return_t ScriptedEndpointSecurity::unmuteAllPaths(es_client_t* client) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto* state = reinterpret_cast<ClientState*>(client);
  state->prefixes.clear();
  state->literals.clear();
  return ES_RETURN_SUCCESS;
}

uint32_t ScriptedEndpointSecurity::execArgCount(const es_event_exec_t* event) {
  return static_cast<uint32_t>(event->args.size);
}

es_string_token_t ScriptedEndpointSecurity::execArg(const es_event_exec_t* event,
                                                    uint32_t index) {
  const auto* args = reinterpret_cast<const std::string*>(event->args.data);
  if (args == nullptr || index >= event->args.size) return {0, nullptr};
  return {args[index].size(), args[index].c_str()};
}

}  // namespace lumo::testing
