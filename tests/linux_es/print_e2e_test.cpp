// Printing on the real kernel: a job through Debian's CUPS to a PDF queue is
// reported once with its submitter and its filters are held; the printer
// observer holds and denies print filters through AUTH_EXEC and every
// other exec gets its answer, also while a filter is held.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "linux_es/realextension.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::RealExtension;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kFilter = "/usr/lib/cups/filter/gziptoany";
constexpr const char* kSpool = "/var/spool/cups";
constexpr const char* kQueue = "LumoE2E";

// A scheduler that died leaves its socket behind: only a connect tells.
bool schedulerRunning() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, "/run/cups/cups.sock", sizeof address.sun_path - 1);
  const bool up = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return up;
}

class Printing : public RealExtension {
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
  static std::vector<std::string> filterCall(const std::string& data) {
    return {kFilter, "7", "root", "title", "1", "", data};
  }
  std::vector<std::string> made;
};

TEST_F(Printing, AJobIsReportedOnceWithItsSubmitterAndItsFiltersAreHeld) {
  if (!fs::exists("/usr/sbin/cupsd") || !fs::exists("/usr/bin/lp") ||
      !fs::exists("/usr/lib/cups/backend/cups-pdf")) {
    GTEST_SKIP() << "needs cups, cups-client and printer-driver-cups-pdf (scripts/deps.sh run)";
  }
  if (!schedulerRunning()) run({"/usr/sbin/cupsd"});
  for (int i = 0; i < 50 && !schedulerRunning(); ++i)
    std::this_thread::sleep_for(milliseconds(100));
  if (run({"/usr/sbin/lpadmin", "-p", kQueue, "-E", "-v", "cups-pdf:/", "-m",
           "lsb/usr/cups-pdf/CUPS-PDF_opt.ppd"}) != 0) {
    GTEST_SKIP() << "can't set up a CUPS PDF queue";
  }
  start({"LUMO_LOG_DEBUG=1"});
  const std::string doc = dir + "/page.txt";
  std::ofstream(doc) << "Lumo print test\n";
  // Through the scheduler's socket by another path (/var/run is a symlink
  // to /run on Debian): known by the socket it reaches.
  pid_t lp = 0;
  ASSERT_EQ(run({"/usr/bin/env", "CUPS_SERVER=/var/run/cups/cups.sock", "/usr/bin/lp", "-d",
                 kQueue, doc},
                &lp),
            0);

  auto job = waitEvent("handlePrinterEvent:",
                       [&](const Received& r) { return number(r, "pid") == (uint64_t)lp; });
  ASSERT_TRUE(job) << "no printer record for lp (pid " << lp << ")";
  const std::string data = text(*job, "filename");
  EXPECT_EQ(data.rfind("/var/spool/cups/d", 0), 0u) << data;
  // A filter reads the data file after the observer looked at it. The
  // scheduler runs the first one right after moving the file into the
  // spool: it is judged knowing the job, never denied as an unknown one.
  EXPECT_TRUE(
      lumo::testing::waitFor(logPath, "access to data file: " + data, 1, std::chrono::seconds(30)));
  EXPECT_EQ(lumo::testing::countIn(logPath, "failed to find auth verdict for " + data), 0u);
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_EQ(
      events("handlePrinterEvent:", [&](const Received& r) { return text(r, "filename") == data; })
          .size(),
      1u);
}

TEST_F(Printing, FiltersAreHeldOrDeniedAndEveryOtherExecIsAnswered) {
  start();
  const std::string data = spoolDataFile(1);
  ASSERT_TRUE(waitEvent("handlePrinterEvent:", [&](const Received& r) {
    return text(r, "filename") == data;
  })) << "the job was not reported";
  // The pending job's filter is held: six waits of 200 ms, then the
  // client's default answer. Other execs are answered meanwhile.
  auto start = steady_clock::now();
  std::thread filter([&] { EXPECT_EQ(run(filterCall(data)), 0); });
  std::this_thread::sleep_for(milliseconds(300));
  const auto other = steady_clock::now();
  EXPECT_EQ(run({"/bin/true"}), 0);
  // Not the 900 ms left of the filter's hold.
  EXPECT_LT(steady_clock::now() - other, milliseconds(600)) << "an exec waited for the held filter";
  filter.join();
  EXPECT_GE(steady_clock::now() - start, milliseconds(1100));
  EXPECT_LT(steady_clock::now() - start, milliseconds(2900));
  // A filter for a data file never reported is denied; anything else runs,
  // each exec answered in time.
  const std::string never = std::string(kSpool) + "/d99999-999";
  EXPECT_EQ(run(filterCall(never)), 126);
  // A storm of four exec loops: each exec answered in time, and the stall
  // watchdog never mistakes a busy extension for a stalled one.
  start = steady_clock::now();
  std::atomic<int> refused = 0;
  std::vector<std::thread> loops;
  for (int loop = 0; loop < 4; ++loop) {
    loops.emplace_back([&] {
      for (int i = 0; i < 250; ++i) refused += run({"/bin/true", never}) != 0;
    });
  }
  for (auto& loop : loops) loop.join();
  EXPECT_EQ(refused, 0);
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(60));
  EXPECT_EQ(lumo::testing::countIn(logPath, "was not answered by its deadline"), 0u);
  EXPECT_EQ(lumo::testing::countIn(logPath, "Auth deadline is reached"), 0u);
  EXPECT_EQ(lumo::testing::countIn(logPath, "Stall watchdog:"), 0u);
}

// The kernel waits for a permission answer without limit, and the
// fail-safe lives in the stopped process: the stall watchdog releases the
// machine within the exec deadline (3 s) plus 2 s, and the extension says
// how it came back and denies again.
TEST_F(Printing, AStoppedExtensionHoldsNoExecPastTheDeadlineAndJudgesAgainOnceBack) {
  start();
  ASSERT_TRUE(extensionLogs("Authorisation events: fanotify permission group"));
  extension->signal(SIGSTOP);
  const auto begin = steady_clock::now();
  EXPECT_EQ(run({"/bin/true"}), 0);
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(5));
  extension->signal(SIGCONT);
  EXPECT_TRUE(lumo::testing::waitFor(logPath, "Permission path recovered after"));
  EXPECT_EQ(lumo::testing::countIn(logPath, "Stall watchdog: the permission reader is silent"), 1u);
  EXPECT_EQ(lumo::testing::countIn(logPath, "on 0 file systems"), 0u);
  EXPECT_EQ(run(filterCall(std::string(kSpool) + "/d99999-998")), 126);
}

}  // namespace
