// Process entry: signals, the control loop that carries out uninstall, sleep
// and wake-up, folder recovery, and the one client proxy.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include "log/log.h"
#include "proxy/clientproxy.h"
#include "rtn/dispatch.h"
#include "rtn/platform.h"
#include "rtn/thread.h"
#include "rtnmac/machelper.h"
#include "rtnmac/productfolders.h"

LUMO_LOG_MODULE("MAC_ESCLIENT")

using endpointsecurity::ClientProxy;
using tarvex::itx::rtn::mutex_guard_t;
using tarvex::itx::rtn::thread_cond_t;
using tarvex::itx::rtn::thread_mutex_t;

namespace {

std::atomic<bool> gStop{false};
std::atomic<bool> gSleep{false};
std::atomic<bool> gWakeup{false};
// Never destroyed: the control loop may still wait on them while the
// process exits.
thread_mutex_t& gStopmtx = *new thread_mutex_t;
thread_cond_t& gStoprdy = *new thread_cond_t;
std::unique_ptr<ClientProxy> gClientProxy;

constexpr int kSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGKILL, SIGABRT, SIGUSR1, SIGUSR2};

const char* signalWord(int sig) {
  switch (sig) {
    case SIGINT: return "SIGINT.";
    case SIGQUIT: return "SIGQUIT.";
    case SIGABRT: return "SIGABRT.";
    case SIGKILL: return "SIGKILL.";
    case SIGTERM: return "SIGTERM.";
    case SIGUSR1: return "SIGUSR1.";
    case SIGUSR2: return "SIGUSR2.";
    default: return "unknown signal.";
  }
}

// The handler's work: done on the thread of handleSignals, since logging and
// locking are not safe in signal context.
void sig_handler(int sig) {
  const std::string text = std::string("System Extension has been signaled with ") + signalWord(sig);
  if (sig == SIGTERM) gStop.store(true);
  if (sig == SIGUSR1) gWakeup.store(true);
  if (sig == SIGUSR2) gSleep.store(true);
  LOG_INFO("%{public}s\n", text.c_str());
  mutex_guard_t guard(gStopmtx, true);
  gStoprdy.signal();
}

// Signal number per byte, in the order the handlers ran.
int gSignalPipe[2] = {-1, -1};

// The installed handler: only the write is safe here. Signals pending
// together reach it in the kernel's order (on Linux the later-numbered one
// first, its frame on top), which the pipe keeps for sig_handler.
void forwardSignal(int sig) {
  const int saved = errno;
  const unsigned char byte = static_cast<unsigned char>(sig);
  (void)!write(gSignalPipe[1], &byte, 1);
  errno = saved;
}

// The one thread the signals reach: their handlers run here, so signals
// pending together nest in one thread and keep their order in the pipe.
void handleSignals(sigset_t set) {
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  for (;;) {
    unsigned char sigs[64];
    const ssize_t n = read(gSignalPipe[0], sigs, sizeof sigs);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    for (ssize_t i = 0; i < n; ++i) sig_handler(sigs[i]);
  }
}

void routeSignals() {
  if (pipe(gSignalPipe) != 0) return;
  for (int fd : gSignalPipe) fcntl(fd, F_SETFD, FD_CLOEXEC);
  // A handler never blocks, even on a full pipe.
  fcntl(gSignalPipe[1], F_SETFL, O_NONBLOCK);
  sigset_t set;
  sigemptyset(&set);
  for (int sig : kSignals) {
    // SIGKILL can't be caught; trying is harmless.
    signal(sig, forwardSignal);
    sigaddset(&set, sig);
  }
  // Blocked in every thread started after this but the one below.
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::thread(handleSignals, set).detach();
}

void process_signals_block_invoke() {
  mutex_guard_t guard(gStopmtx, true);
  while (!gStop.load()) {
    // A time-out checks the flags too: a condition signal that comes after
    // the loop was woken, before it takes the lock again, is lost, and its
    // flag waits for the next time-out.
    gStoprdy.timed_wait(guard, 10000);
    if (gStop.load()) {
      LOG_INFO("Uninstall procedure initiated\n");
      if (gClientProxy) gClientProxy->stop();
      LOG_INFO("Uninstall procedure finished\n");
    } else if (gSleep.load()) {
      LOG_INFO("Sleep procedure initiated\n");
      gSleep.store(false);
      if (gClientProxy) gClientProxy->sleep();
      LOG_INFO("Sleep procedure finished\n");
    } else if (gWakeup.load()) {
      LOG_INFO("Wakeup procedure initiated\n");
      gWakeup.store(false);
      if (gClientProxy) gClientProxy->start();
      LOG_INFO("Wakeup procedure finished\n");
    }
  }
}

void process_signals() {
  tarvex::itx::rtn::IDispatch& dispatch = *tarvex::itx::rtn::platform().dispatch;
  dispatch.globalQueue(tarvex::itx::rtn::kPriorityHigh)->async(process_signals_block_invoke);
}

}  // namespace

int main(int argc, char** argv) {
  routeSignals();
  if (!tarvex::itx::rtn::installPlatform(argc, argv)) return 0;

  process_signals();
  tarvex::itx::rtnmac::productfolders::restoreProductFolders();

  gClientProxy = std::make_unique<ClientProxy>();
  if (!gClientProxy->init()) {
    LOG_ERROR("Error initializing ES Sysext.\n");
    return 0;
  }
  if (tarvex::itx::rtnmac::MacHelper::isLumoInstalled()) {
    LOG_INFO("Lumo is installed. ES sysext will start in normal mode.\n");
    if (!gClientProxy->start()) {
      LOG_ERROR("Error starting ES Sysext.\n");
      return 0;
    }
  } else {
    LOG_INFO("Lumo is not installed. ES sysext will start in sleep mode.\n");
  }
  tarvex::itx::rtn::platform().dispatch->main();
}
