// Times single execs of a program, start to reaped, and prints the median,
// the 99th percentile and the mean in microseconds as one JSON line: what a
// monitor adds to one exec, as opposed to a loop's throughput.
//   lumo-execlatency [COUNT [PROGRAM]]
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <vector>

extern char** environ;

namespace {

double nowMicros() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::max(1, std::atoi(argv[1])) : 2000;
  char* program = const_cast<char*>(argc > 2 ? argv[2] : "/bin/true");
  char* args[] = {program, nullptr};
  std::vector<double> took;
  took.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    const double start = nowMicros();
    pid_t pid = 0;
    if (posix_spawn(&pid, program, nullptr, nullptr, args, environ) != 0) {
      std::perror("posix_spawn");
      return 1;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    took.push_back(nowMicros() - start);
  }
  std::sort(took.begin(), took.end());
  auto at = [&](double q) { return took[static_cast<size_t>(q * (took.size() - 1))]; };
  std::printf("{\"count\":%d,\"p50_us\":%.1f,\"p99_us\":%.1f,\"mean_us\":%.1f}\n", count, at(0.5),
              at(0.99), std::accumulate(took.begin(), took.end(), 0.0) / took.size());
  return 0;
}
