// Muting by audit token on the real kernel, through the facility itself:
// the extension has no way to name a process that way on Linux (there are
// no signing identifiers to mute on the fly), so a client here does it.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "setup/facility.h"

namespace {

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
    if (write(go[1], "", 1) != 1) return;
    close(go[1]);
    waitpid(pid, nullptr, 0);
  }
  int go[2] = {-1, -1};
  pid_t pid = -1;
};

TEST(FacilityMuting, AProcessMutedByItsTokenIsSilentUntilUnmuted) {
  if (geteuid() != 0) GTEST_SKIP() << "the facility needs root";
  tarvex::itx::rtn::linux_platform::MonotonicClock clock;
  tarvex::itx::rtn::linux_platform::LinuxDispatch dispatch(clock);
  std::unique_ptr<endpointsecurity::IEndpointSecurityApi> es(
      tarvex::itx::rtn::linux_platform::makeEndpointSecurity(clock, dispatch));
  ASSERT_TRUE(es);

  // Per message: its type, the pid it is about (a fork's child) and that
  // process's token.
  struct Seen {
    es_event_type_t type;
    pid_t pid;
    audit_token_t token;
  };
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Seen> seen;
  es_client_t* client = nullptr;
  ASSERT_EQ(es->newClient(&client,
                          [&](es_client_t*, const es_message_t* m) {
                            const audit_token_t token = m->event_type == ES_EVENT_TYPE_NOTIFY_FORK
                                                            ? m->event.fork.child->audit_token
                                                            : m->process->audit_token;
                            std::lock_guard lock(mutex);
                            seen.push_back({m->event_type, audit_token_to_pid(token), token});
                            changed.notify_all();
                          }),
            ES_NEW_CLIENT_RESULT_SUCCESS);
  const es_event_type_t types[] = {ES_EVENT_TYPE_NOTIFY_FORK, ES_EVENT_TYPE_NOTIFY_EXEC,
                                   ES_EVENT_TYPE_NOTIFY_EXIT};
  ASSERT_EQ(es->subscribe(client, types, 3), ES_RETURN_SUCCESS);
  auto find = [&](es_event_type_t type, pid_t pid) -> std::optional<Seen> {
    std::unique_lock lock(mutex);
    std::optional<Seen> found;
    changed.wait_for(lock, std::chrono::seconds(10), [&] {
      for (const Seen& s : seen) {
        if (s.type == type && s.pid == pid) found = s;
      }
      return found.has_value();
    });
    return found;
  };
  HeldChild muted;
  auto fork = find(ES_EVENT_TYPE_NOTIFY_FORK, muted.pid);
  ASSERT_TRUE(fork) << "the fork of the child was not seen";
  ASSERT_EQ(es->muteProcess(client, &fork->token), ES_RETURN_SUCCESS);
  muted.release();

  // Another child, unmuted, goes through after it: by the time its exit
  // arrives, the muted one's exec and exit had their chance.
  HeldChild loud;
  loud.release();
  ASSERT_TRUE(find(ES_EVENT_TYPE_NOTIFY_EXEC, loud.pid));
  ASSERT_TRUE(find(ES_EVENT_TYPE_NOTIFY_EXIT, loud.pid));
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(std::count_if(seen.begin(), seen.end(),
                            [&](const Seen& s) {
                              return s.pid == muted.pid && s.type != ES_EVENT_TYPE_NOTIFY_FORK;
                            }),
              0);
  }
  EXPECT_EQ(es->unmuteProcess(client, &fork->token), ES_RETURN_SUCCESS);
  es->deleteClient(client);
}

}  // namespace
