// Muting by audit token on the real kernel, through the facility itself:
// the extension has no way to name a process that way on Linux (there are
// no signing identifiers to mute on the fly), so a client here does it.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "setup/facility.h"

namespace {

using tarvex::itx::rtn::linux_platform::LinuxDispatch;
using tarvex::itx::rtn::linux_platform::MonotonicClock;

struct Seen {
  es_event_type_t type;
  pid_t pid;
  audit_token_t child;  // of a fork
};

// A child that waits on a pipe, then becomes /bin/true.
struct HeldChild {
  HeldChild() {
    if (pipe(go) != 0) return;
    pid = fork();
    if (pid == 0) {
      char byte;
      close(go[1]);
      if (read(go[0], &byte, 1) == 1) execl("/bin/true", "true", "muted-or-not", nullptr);
      _exit(127);
    }
    close(go[0]);
  }
  void release() {
    const char byte = 1;
    if (write(go[1], &byte, 1) != 1) return;
    close(go[1]);
    waitpid(pid, nullptr, 0);
  }
  int go[2] = {-1, -1};
  pid_t pid = -1;
};

TEST(FacilityMuting, AProcessMutedByItsTokenIsSilentUntilUnmuted) {
  if (geteuid() != 0) GTEST_SKIP() << "the facility needs root";
  MonotonicClock clock;
  LinuxDispatch dispatch(clock);
  std::unique_ptr<endpointsecurity::IEndpointSecurityApi> es(
      tarvex::itx::rtn::linux_platform::makeEndpointSecurity(clock, dispatch));
  ASSERT_TRUE(es);

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Seen> seen;
  es_client_t* client = nullptr;
  ASSERT_EQ(es->newClient(&client,
                          [&](es_client_t*, const es_message_t* m) {
                            Seen s{m->event_type, audit_token_to_pid(m->process->audit_token), {}};
                            if (m->event_type == ES_EVENT_TYPE_NOTIFY_FORK) {
                              s.child = m->event.fork.child->audit_token;
                            }
                            std::lock_guard lock(mutex);
                            seen.push_back(s);
                            changed.notify_all();
                          }),
            ES_NEW_CLIENT_RESULT_SUCCESS);
  const es_event_type_t types[] = {ES_EVENT_TYPE_NOTIFY_FORK, ES_EVENT_TYPE_NOTIFY_EXEC,
                                   ES_EVENT_TYPE_NOTIFY_EXIT};
  ASSERT_EQ(es->subscribe(client, types, 3), ES_RETURN_SUCCESS);

  auto waitFor = [&](es_event_type_t type, pid_t pid) -> std::optional<Seen> {
    std::unique_lock lock(mutex);
    std::optional<Seen> found;
    changed.wait_for(lock, std::chrono::seconds(10), [&] {
      for (const Seen& s : seen) {
        const pid_t of = type == ES_EVENT_TYPE_NOTIFY_FORK ? audit_token_to_pid(s.child) : s.pid;
        if (s.type == type && of == pid) found = s;
      }
      return found.has_value();
    });
    return found;
  };
  auto count = [&](pid_t pid) {
    std::lock_guard lock(mutex);
    return std::count_if(seen.begin(), seen.end(), [&](const Seen& s) {
      return s.pid == pid && s.type != ES_EVENT_TYPE_NOTIFY_FORK;
    });
  };

  HeldChild muted;
  auto fork = waitFor(ES_EVENT_TYPE_NOTIFY_FORK, muted.pid);
  ASSERT_TRUE(fork) << "the fork of the child was not seen";
  ASSERT_EQ(es->muteProcess(client, &fork->child), ES_RETURN_SUCCESS);
  size_t listed = 0;
  audit_token_t* tokens = nullptr;
  ASSERT_EQ(es->mutedProcesses(client, &listed, &tokens), ES_RETURN_SUCCESS);
  EXPECT_TRUE(std::any_of(tokens, tokens + listed,
                          [&](const audit_token_t& t) { return audit_token_to_pid(t) == muted.pid; }));
  es->releaseMutedProcesses(tokens, listed);
  muted.release();

  // Another child, unmuted, goes through after it: by the time its exit
  // arrives, the muted one's exec and exit had their chance.
  HeldChild loud;
  loud.release();
  ASSERT_TRUE(waitFor(ES_EVENT_TYPE_NOTIFY_EXEC, loud.pid));
  ASSERT_TRUE(waitFor(ES_EVENT_TYPE_NOTIFY_EXIT, loud.pid));
  EXPECT_EQ(count(muted.pid), 0);

  ASSERT_EQ(es->unmuteProcess(client, &fork->child), ES_RETURN_SUCCESS);
  ASSERT_EQ(es->mutedProcesses(client, &listed, &tokens), ES_RETURN_SUCCESS);
  EXPECT_EQ(std::count_if(tokens, tokens + listed,
                          [&](const audit_token_t& t) { return audit_token_to_pid(t) == muted.pid; }),
            0);
  es->releaseMutedProcesses(tokens, listed);
  es->deleteClient(client);
}

}  // namespace
