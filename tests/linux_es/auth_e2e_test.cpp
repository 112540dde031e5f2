// Exec authorisation on the real kernel, through the facility itself: the
// kernel opens a script's interpreters and an ELF's loader for exec too, but
// only the file an execve names is asked about.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "linux_es/realfacility.h"

namespace {

namespace fs = std::filesystem;

std::string script(const fs::path& dir, const std::string& name, const std::string& text) {
  const fs::path path = dir / name;
  std::ofstream(path) << text;
  fs::permissions(path, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
  return path.string();
}

// Runs `path`; if that exec fails, the shell instead, which exits 3.
int runChild(const std::string& path, pid_t* pid) {
  *pid = fork();
  if (*pid == 0) {
    execl(path.c_str(), path.c_str(), nullptr);
    execl("/bin/sh", "sh", "-c", "exit 3", nullptr);
    _exit(127);
  }
  int status = 0;
  waitpid(*pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ExecAuthorisation, OnlyTheImageAnExecNamesIsAskedAboutAndADeniedScriptLeavesNoGap) {
  if (geteuid() != 0) GTEST_SKIP() << "the facility needs root";
  const fs::path dir = fs::canonical(fs::temp_directory_path()) /
                       ("lumo-auth-" + std::to_string(getpid()));
  fs::create_directories(dir);
  const std::string inner = script(dir, "inner", "#!/bin/sh\nexit 0\n");
  const std::string outer = script(dir, "outer", "#!" + inner + "\n");
  const std::string denied = script(dir, "denied", "#!/bin/sh\nexit 0\n");
  const std::string shell = fs::canonical("/bin/sh");
  const std::string truePath = fs::canonical("/bin/true");

  lumo::testing::RealFacility facility;
  auto& es = facility.es;
  ASSERT_TRUE(es);
  std::mutex mutex;
  std::vector<std::pair<pid_t, std::string>> asked;  // caller, target
  es_client_t* client = nullptr;
  ASSERT_EQ(es->newClient(&client,
                          [&](es_client_t* c, const es_message_t* m) {
                            const std::string target = m->event.exec.target->executable->path.data;
                            {
                              std::lock_guard lock(mutex);
                              asked.emplace_back(audit_token_to_pid(m->process->audit_token),
                                                 target);
                            }
                            es->respondAuthResult(c, m,
                                                  target == denied ? ES_AUTH_RESULT_DENY
                                                                   : ES_AUTH_RESULT_ALLOW,
                                                  false);
                          }),
            ES_NEW_CLIENT_RESULT_SUCCESS);
  const es_event_type_t types[] = {ES_EVENT_TYPE_AUTH_EXEC};
  ASSERT_EQ(es->subscribe(client, types, 1), ES_RETURN_SUCCESS);
  auto targetsOf = [&](pid_t pid) {
    std::lock_guard lock(mutex);
    std::vector<std::string> targets;
    for (const auto& [caller, target] : asked) {
      if (caller == pid) targets.push_back(target);
    }
    return targets;
  };

  // Twice: the first ELF exec teaches the facility the system's loader.
  for (int round = 0; round < 2; ++round) {
    pid_t pid = 0;
    EXPECT_EQ(runChild(truePath, &pid), 0);
    EXPECT_EQ(targetsOf(pid), std::vector<std::string>{truePath}) << "round " << round;
  }
  // A script run by a script: neither interpreter is asked about.
  pid_t pid = 0;
  EXPECT_EQ(runChild(outer, &pid), 0);
  EXPECT_EQ(targetsOf(pid), std::vector<std::string>{outer});
  // Refused, the script's interpreter is never opened; the shell the caller
  // runs next is an exec of its own and asked about like any other.
  EXPECT_EQ(runChild(denied, &pid), 3);
  EXPECT_EQ(targetsOf(pid), (std::vector<std::string>{denied, shell}));

  es->deleteClient(client);
  fs::remove_all(dir);
}

}  // namespace
