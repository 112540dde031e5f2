// Exec authorisation on the real kernel: the printer observer holds and
// denies print filters through AUTH_EXEC, and every exec gets its answer.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "linux_es/realextension.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::RealExtension;

constexpr const char* kFilter = "/usr/lib/cups/filter/gziptoany";
constexpr const char* kSpool = "/var/spool/cups";

// Runs argv with its output thrown away; the exit status, or 126 when the
// exec itself was refused.
int runQuietly(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    freopen("/dev/null", "w", stdout);
    freopen("/dev/null", "w", stderr);
    execv(args[0], args.data());
    _exit(errno == EACCES || errno == EPERM ? 126 : 127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ExecAuthorisation : public RealExtension {
 protected:
  void SetUp() override {
    RealExtension::SetUp();
    if (IsSkipped()) return;
    if (!fs::exists(kFilter) || !fs::is_directory(std::string(kSpool) + "/tmp")) {
      GTEST_SKIP() << "needs Debian's cups (scripts/deps.sh run)";
    }
  }
  void TearDown() override {
    for (const auto& f : made) fs::remove(f);
    RealExtension::TearDown();
  }
  // A job data file moved into the spool the way the scheduler does it.
  std::string spoolDataFile(int n) {
    const std::string staged = std::string(kSpool) + "/tmp/lumo-e2e-" + std::to_string(n);
    const std::string data =
        std::string(kSpool) + "/d9" + std::to_string(getpid() % 10000) + std::to_string(n) + "-001";
    std::ofstream(staged) << "%!PS\n";
    fs::rename(staged, data);
    made.push_back(data);
    return data;
  }
  std::vector<std::string> filterCall(const std::string& data) {
    return {kFilter, "7", "root", "title", "1", "", data};
  }
  std::vector<std::string> made;
};

TEST_F(ExecAuthorisation, PendingJobHoldsItsFilterThenLetsItRun) {
  startWithPolicy(true, false, false);
  const std::string data = spoolDataFile(1);
  ASSERT_TRUE(waitEvent("handlePrinterEvent:", [&](const Received& r) {
    return text(r, "filename") == data;
  })) << "the job was not reported";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(runQuietly(filterCall(data)), 0);
  const auto held = std::chrono::steady_clock::now() - start;
  // Pending: six waits of 200 ms, then the client's default answer.
  EXPECT_GE(held, std::chrono::milliseconds(1100));
  EXPECT_LT(held, std::chrono::milliseconds(2900));
}

TEST_F(ExecAuthorisation, FilterForAnUnreportedDataFileIsDenied) {
  startWithPolicy(true, false, false);
  const std::string never = std::string(kSpool) + "/d99999-999";
  EXPECT_EQ(runQuietly(filterCall(never)), 126);
  // Anything else runs.
  EXPECT_EQ(runQuietly({"/bin/true", never}), 0);
}

TEST_F(ExecAuthorisation, EveryExecIsAnswered) {
  startWithPolicy(true, false, false);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 300; ++i) ASSERT_EQ(runQuietly({"/bin/true"}), 0) << "exec " << i;
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  EXPECT_EQ(lumo::testing::countIn(logPath, "was not answered by its deadline"), 0u);
  EXPECT_EQ(lumo::testing::countIn(logPath, "Auth deadline is reached"), 0u);
}

}  // namespace
