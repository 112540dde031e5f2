// Muting by audit token on the real kernel, through the facility itself:
// the extension has no way to name a process that way on Linux (there are
// no signing identifiers to mute on the fly), so a client here does it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "linux_es/realfacility.h"

namespace {

// A child that stops itself, then becomes /bin/true once continued.
pid_t stoppedChild() {
  const pid_t pid = fork();
  if (pid == 0) {
    raise(SIGSTOP);
    execl("/bin/true", "true", "muted-or-not", nullptr);
    _exit(127);
  }
  waitpid(pid, nullptr, WUNTRACED);
  return pid;
}

void finish(pid_t pid) {
  kill(pid, SIGCONT);
  waitpid(pid, nullptr, 0);
}

TEST(FacilityMuting, AProcessMutedByItsTokenIsSilentUntilUnmuted) {
  if (geteuid() != 0) GTEST_SKIP() << "the facility needs root";
  lumo::testing::RealFacility facility;
  auto& es = facility.es;
  ASSERT_TRUE(es);

  // Per message, the process it is about (a fork's child) and its type.
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::pair<audit_token_t, es_event_type_t>> seen;
  es_client_t* client = nullptr;
  ASSERT_EQ(es->newClient(&client,
                          [&](es_client_t*, const es_message_t* m) {
                            const bool fork = m->event_type == ES_EVENT_TYPE_NOTIFY_FORK;
                            std::lock_guard lock(mutex);
                            seen.emplace_back(
                                fork ? m->event.fork.child->audit_token : m->process->audit_token,
                                m->event_type);
                            changed.notify_all();
                          }),
            ES_NEW_CLIENT_RESULT_SUCCESS);
  const es_event_type_t types[] = {ES_EVENT_TYPE_NOTIFY_FORK, ES_EVENT_TYPE_NOTIFY_EXEC,
                                   ES_EVENT_TYPE_NOTIFY_EXIT};
  ASSERT_EQ(es->subscribe(client, types, 3), ES_RETURN_SUCCESS);
  // The tokens of the messages of `type` about pid (under the lock), and
  // the same once there is one.
  auto matching = [&](pid_t pid, es_event_type_t type) {
    std::vector<audit_token_t> tokens;
    for (const auto& [token, t] : seen) {
      if (t == type && audit_token_to_pid(token) == pid) tokens.push_back(token);
    }
    return tokens;
  };
  auto waitFor = [&](pid_t pid, es_event_type_t type) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(10), [&] { return !matching(pid, type).empty(); });
    return matching(pid, type);
  };

  const pid_t muted = stoppedChild();
  const std::vector<audit_token_t> forks = waitFor(muted, ES_EVENT_TYPE_NOTIFY_FORK);
  ASSERT_EQ(forks.size(), 1u) << "the fork of the child was not seen";
  ASSERT_EQ(es->muteProcess(client, &forks[0]), ES_RETURN_SUCCESS);
  finish(muted);
  // Another child, unmuted, goes through after it: by the time its exit
  // arrives, the muted one's exec and exit had their chance.
  const pid_t loud = stoppedChild();
  finish(loud);
  EXPECT_EQ(waitFor(loud, ES_EVENT_TYPE_NOTIFY_EXEC).size(), 1u);
  EXPECT_EQ(waitFor(loud, ES_EVENT_TYPE_NOTIFY_EXIT).size(), 1u);
  {
    std::lock_guard lock(mutex);
    EXPECT_TRUE(matching(muted, ES_EVENT_TYPE_NOTIFY_EXEC).empty());
    EXPECT_TRUE(matching(muted, ES_EVENT_TYPE_NOTIFY_EXIT).empty());
  }
  EXPECT_EQ(es->unmuteProcess(client, &forks[0]), ES_RETURN_SUCCESS);
  es->deleteClient(client);
}

}  // namespace
