// lumo-refdaemon: the reference daemon (see options.cpp for its usage).
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include "dispatch/threadpriority.h"
#include "log/logsink.h"
#include "log/stderrsink.h"
#include "refdaemon/commands.h"
#include "refdaemon/jsonline.h"
#include "refdaemon/mountscan.h"
#include "refdaemon/options.h"
#include "xpc/linkchannel.h"
#include "xpc/unixsocketlistener.h"

namespace {

using namespace lumo::refdaemon;
using tarvex::itx::xpc::IXPCConnector;
namespace transport = tarvex::itx::xpc::linux_platform;

// stdout, one whole line per call. A pipe sees the lines within kFlushDelay:
// a busy machine sends thousands a second, and a write each would cost the
// machine more than the watching does.
class LineWriter {
 public:
  LineWriter() {
    std::setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
    std::thread([this] { flushLoop(); }).detach();
  }

  void write(const std::string& line) {
    std::lock_guard lock(mutex_);
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    if (!dirty_) {
      dirty_ = true;
      written_.notify_one();
    }
  }

 private:
  static constexpr auto kFlushDelay = std::chrono::milliseconds(100);

  void flushLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      written_.wait(lock, [this] { return dirty_; });
      lock.unlock();
      std::this_thread::sleep_for(kFlushDelay);
      lock.lock();
      std::fflush(stdout);
      dirty_ = false;
    }
  }

  std::mutex mutex_;
  std::condition_variable written_;
  bool dirty_ = false;
};

void readCommands(RefDaemon& daemon, const Options& options, LineWriter& out) {
  std::string line;
  while (std::getline(std::cin, line)) {
    const CommandResult result = runCommand(line, daemon);
    if (!result.error.empty()) out.write(JsonLine().text("error", result.error).str());
    if (!result.output.empty()) out.write(result.output);
    if (result.stats) out.write(daemon.statsLine(options.metricsFile));
    if (result.help) std::fputs(kCommandHelp, stderr);
    if (result.quit) {
      kill(getpid(), SIGTERM);
      return;
    }
  }
  // End of input keeps the daemon running (it may run detached from a
  // terminal); a signal or "quit" ends it.
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const std::string error = parseOptions(argc, argv, &options);
  if (!error.empty()) {
    std::fprintf(stderr, "lumo-refdaemon: %s\n\n%s", error.c_str(), kUsage);
    return 2;
  }
  if (options.help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  // It only prints what it is sent: its threads, which inherit this, keep a
  // fair share of the CPU but never preempt a program on waking.
  tarvex::itx::rtn::linux_platform::prioritiseThread(tarvex::itx::rtn::QosClass::Default);
  tarvex::itx::log::linux_platform::StderrSink sink;
  tarvex::itx::log::setSink(&sink);
  tarvex::itx::log::setDebugEnabled(options.verbose);
  if (options.announceMounts) {
    std::string scanError;
    for (Mount& mount : scanMounts(&scanError)) options.settings.mounts.push_back(mount);
    if (!scanError.empty()) std::fprintf(stderr, "lumo-refdaemon: %s\n", scanError.c_str());
  }

  // Signals are taken by sigwait below; every thread started later inherits the mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  // Never destroyed: the command reader and the flusher outlive main's scope.
  static LineWriter& out = *new LineWriter;
  auto daemon = RefDaemon::create(options.settings, [](const std::string& line) {
    out.write(line);
  });
  transport::UnixSocketListener listener(options.serviceName,
                                    options.privileged ? IXPCConnector::kPrivileged : 0,
                                    options.runtimeDir);
  if (!listener.start([daemon](std::shared_ptr<transport::DaemonConnection> connection) {
        daemon->accept(std::move(connection));
      })) {
    return 1;
  }
  out.write(JsonLine()
                .text("listening", listener.socketPath())
                .flag("privileged", options.privileged)
                .str());
  std::thread([daemon, options] { readCommands(*daemon, options, out); }).detach();

  int signal = 0;
  sigwait(&stopSignals, &signal);
  listener.stop();
  daemon->disconnectAll();
  transport::waitForLinkThreads(std::chrono::seconds(2));
  tarvex::itx::log::setSink(nullptr);
  std::fflush(stdout);
  // The command reader may be blocked reading stdin; nothing is left to clean up.
  std::_Exit(0);
}
