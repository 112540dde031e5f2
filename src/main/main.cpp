// Process entry: signals, the control loop that carries out uninstall, sleep
// and wake-up, folder recovery, and the one client proxy.
#include <signal.h>

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

void sig_handler(int sig) {
  const std::string text = std::string("System Extension has been signaled with ") + signalWord(sig);
  if (sig == SIGTERM) gStop.store(true);
  if (sig == SIGUSR1) gWakeup.store(true);
  if (sig == SIGUSR2) gSleep.store(true);
  LOG_INFO("%{public}s\n", text.c_str());
  mutex_guard_t guard(gStopmtx, true);
  gStoprdy.signal();
}

// The handler's work is done on this thread, which takes the signals from
// sigwait: logging and locking are not safe in signal context.
void routeSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : kSignals) sigaddset(&set, sig);
  // Every thread started after this inherits the mask, so only sigwait
  // sees these signals.
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::thread([set] {
    for (;;) {
      int sig = 0;
      if (sigwait(&set, &sig) == 0) sig_handler(sig);
    }
  }).detach();
}

void process_signals_block_invoke() {
  mutex_guard_t guard(gStopmtx, true);
  while (!gStop.load()) {
    if (gStoprdy.timed_wait(guard, 10000) == ETIMEDOUT) continue;
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
