#include "dispatch/threadpriority.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

namespace tarvex::itx::rtn::linux_platform {

namespace {

// Whether a thread of qos may preempt a running program when it wakes:
// only the classes that execs and callers wait on.
bool preemptsOnWake(QosClass qos) {
  return qos == QosClass::UserInteractive || qos == QosClass::UserInitiated;
}

}  // namespace

int nicenessOf(QosClass qos) {
  switch (qos) {
    case QosClass::UserInteractive:
      return -10;
    case QosClass::UserInitiated:
      return -5;
    case QosClass::Default:
      return 0;
    case QosClass::Utility:
      return 5;
    case QosClass::Background:
      return 10;
  }
  return 0;
}

void prioritiseThread(QosClass qos) {
  // Per thread on Linux, and inherited by threads it starts: set even when
  // it is the default. SCHED_BATCH keeps a thread's fair share of the CPU
  // but never lets its wake-up preempt a running program: a notification
  // can wait for the next tick, the machine's own work should not wait for
  // a notification.
  const sched_param none{};
  sched_setscheduler(0, preemptsOnWake(qos) ? SCHED_OTHER : SCHED_BATCH, &none);
  setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), nicenessOf(qos));
}

}  // namespace tarvex::itx::rtn::linux_platform
