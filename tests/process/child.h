#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace lumo::testing {

// A program run by a process test: stdout and stderr go to a file the test
// reads, stdin is a pipe the test may write to. Killed when it goes.
class Child {
 public:
  struct Options {
    std::vector<std::string> argv;
    std::vector<std::string> env;  // added to the test's environment
    std::string outputPath;
  };

  explicit Child(const Options& options);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void write(const std::string& text);
  void signal(int sig);
  // SIGSTOP, returning once the child has stopped.
  bool suspend();
  // Kills (SIGKILL) and reaps.
  void kill();
  bool running();

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
};

// How often `text` occurs in a file; waitFor waits until it occurs at least
// `times` times.
size_t countIn(const std::string& path, const std::string& text);
bool waitFor(const std::string& path, const std::string& text, size_t times = 1,
             std::chrono::milliseconds timeout = std::chrono::seconds(15));

}  // namespace lumo::testing
