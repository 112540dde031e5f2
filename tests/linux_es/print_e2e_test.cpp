// A print job through Debian's CUPS to a PDF queue: the printer observer
// sees the submitter's socket connect, the spool file and the filters.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include <filesystem>
#include <fstream>
#include <thread>

#include "linux_es/realextension.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::RealExtension;

constexpr const char* kQueue = "LumoE2E";
constexpr const char* kSchedulerSocket = "/run/cups/cups.sock";

// A scheduler that died leaves its socket behind: only a connect tells.
bool schedulerRunning() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, kSchedulerSocket, sizeof address.sun_path - 1);
  const bool up = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return up;
}

int runQuietly(const std::vector<std::string>& argv, pid_t* pidOut = nullptr) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    freopen("/dev/null", "w", stdout);
    freopen("/dev/null", "w", stderr);
    execv(args[0], args.data());
    _exit(127);
  }
  if (pidOut) *pidOut = pid;
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Printing : public RealExtension {
 protected:
  void SetUp() override {
    RealExtension::SetUp();
    if (IsSkipped()) return;
    if (!fs::exists("/usr/sbin/cupsd") || !fs::exists("/usr/bin/lp") ||
        !fs::exists("/usr/lib/cups/backend/cups-pdf")) {
      GTEST_SKIP() << "needs cups, cups-client and printer-driver-cups-pdf (scripts/deps.sh run)";
    }
    if (!schedulerRunning()) runQuietly({"/usr/sbin/cupsd"});
    for (int i = 0; i < 50 && !schedulerRunning(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (runQuietly({"/usr/sbin/lpadmin", "-p", kQueue, "-E", "-v", "cups-pdf:/", "-m",
                    "lsb/usr/cups-pdf/CUPS-PDF_opt.ppd"}) != 0) {
      GTEST_SKIP() << "can't set up a CUPS PDF queue";
    }
  }
};

TEST_F(Printing, AJobIsReportedOnceWithItsSubmitterAndItsFiltersAreHeld) {
  startWithPolicy(true, false, false, {"LUMO_LOG_DEBUG=1"});
  const std::string doc = dir + "/page.txt";
  { std::ofstream(doc) << "Lumo print test\n"; }
  pid_t lp = 0;
  ASSERT_EQ(runQuietly({"/usr/bin/lp", "-d", kQueue, doc}, &lp), 0);

  auto job = waitEvent("handlePrinterEvent:", [&](const Received& r) {
    return number(r, "pid") == (uint64_t)lp;
  });
  ASSERT_TRUE(job) << "no printer record for lp (pid " << lp << ")";
  const std::string data = text(*job, "filename");
  EXPECT_EQ(data.rfind("/var/spool/cups/d", 0), 0u) << data;
  // A filter reads the data file after the observer looked at it.
  EXPECT_TRUE(lumo::testing::waitFor(logPath, "access to data file: " + data, 1, std::chrono::seconds(30)));
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_EQ(events("handlePrinterEvent:", [&](const Received& r) {
              return text(r, "filename") == data;
            }).size(),
            1u);
}

}  // namespace
