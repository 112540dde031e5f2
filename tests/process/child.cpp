#include "process/child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

namespace lumo::testing {

Child::Child(const Options& options) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    const int out = open(options.outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(pipeFds[0], STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    for (const std::string& kv : options.env) putenv(const_cast<char*>(kv.c_str()));
    std::vector<char*> argv;
    for (const std::string& a : options.argv) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(pipeFds[0]);
  stdin_ = pipeFds[1];
}

Child::~Child() {
  kill();
  if (stdin_ >= 0) close(stdin_);
}

void Child::write(const std::string& text) {
  if (stdin_ >= 0) (void)!::write(stdin_, text.data(), text.size());
}

void Child::signal(int sig) {
  if (pid_ > 0) ::kill(pid_, sig);
}

bool Child::suspend() {
  int status = 0;
  return pid_ > 0 && ::kill(pid_, SIGSTOP) == 0 && waitpid(pid_, &status, WUNTRACED) == pid_ &&
         WIFSTOPPED(status);
}

void Child::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

bool Child::running() { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }

size_t countIn(const std::string& path, const std::string& text) {
  std::stringstream all;
  all << std::ifstream(path).rdbuf();
  const std::string s = all.str();
  size_t count = 0;
  for (size_t at = s.find(text); at != std::string::npos; at = s.find(text, at + 1)) ++count;
  return count;
}

bool waitFor(const std::string& path, const std::string& text, size_t times,
             std::chrono::milliseconds timeout) {
  const auto until = std::chrono::steady_clock::now() + timeout;
  while (countIn(path, text) < times) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace lumo::testing
