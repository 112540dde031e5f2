// The test build's facility: the fake one, fed one event a line from the
// FIFO named by LUMO_SCRIPT_FIFO and delivering each to the clients
// subscribed to its type. Subscription changes and deleted clients show as
// "es: ..." lines on stdout, so process tests watch both ends. Event lines:
//   exec pid=N path=P args=a,b,c
//   exit pid=N
#include <fcntl.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <sstream>
#include <thread>

#include "setup/facility.h"
#include "support/fake_es.h"
#include "support/message_builder.h"

namespace {

using lumo::testing::MessageBuilder;

class ScriptedEndpointSecurity : public lumo::testing::FakeEndpointSecurity {
 public:
  explicit ScriptedEndpointSecurity(FILE* script) {
    std::thread([this, script] {
      char* line = nullptr;
      size_t size = 0;
      while (getline(&line, &size, script) > 0) handle(line);
    }).detach();
  }

  es_return_t subscribe(es_client_t* client, const es_event_type_t* events,
                        uint32_t count) override {
    report("subscribe", events, count);
    return FakeEndpointSecurity::subscribe(client, events, count);
  }
  es_return_t unsubscribe(es_client_t* client, const es_event_type_t* events,
                          uint32_t count) override {
    report("unsubscribe", events, count);
    return FakeEndpointSecurity::unsubscribe(client, events, count);
  }
  es_return_t deleteClient(es_client_t* client) override {
    report("delete client", nullptr, 0);
    return FakeEndpointSecurity::deleteClient(client);
  }

 private:
  static void report(const char* what, const es_event_type_t* events, uint32_t count) {
    std::string line = std::string("es: ") + what;
    for (uint32_t i = 0; i < count; ++i) line += (i ? "," : " ") + std::to_string(events[i]);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }

  void handle(const std::string& line) {
    std::istringstream in(line);
    std::string kind, word;
    std::map<std::string, std::string> f;
    in >> kind;
    while (in >> word) f[word.substr(0, word.find('='))] = word.substr(word.find('=') + 1);
    const lumo::testing::ProcessSpec process{
        .pid = std::stoi(f["pid"]), .ruid = 0, .euid = 0, .path = f["path"]};
    std::vector<std::string> args;
    for (std::istringstream list(f["args"]); std::getline(list, word, ',');) args.push_back(word);
    // Kept for good: the extension may hold them on its queues.
    kept_.push_back(
        kind == "exec"
            ? MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC)
                  .process(process)
                  .exec(process, args)
                  .build()
            : MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXIT).process(process).build());
    const es_message_t* message = kept_.back()->get();
    const auto clients = record().clients;
    for (size_t i = 0; i < clients.size(); ++i) {
      if (!clients[i].deleted && clients[i].subscribed.count(message->event_type)) {
        deliver(message, i);
      }
    }
  }

  std::deque<std::unique_ptr<lumo::testing::TestMessage>> kept_;
};

}  // namespace

namespace tarvex::itx::rtn::linux_platform {

endpointsecurity::IEndpointSecurityApi* makeEndpointSecurity(IClock&, IDispatch&, IOpenScope**) {
  const char* path = std::getenv("LUMO_SCRIPT_FIFO");
  // Opened for writing too, so that a writer closing its end is no EOF.
  const int fd = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
  if (fd < 0) {
    std::fprintf(stderr, "LUMO_SCRIPT_FIFO is not set or cannot be opened\n");
    return nullptr;
  }
  return new ScriptedEndpointSecurity(fdopen(fd, "r"));
}

}  // namespace tarvex::itx::rtn::linux_platform
