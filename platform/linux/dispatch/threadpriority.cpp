#include "dispatch/threadpriority.h"

#include <sys/resource.h>
#include <unistd.h>

namespace tarvex::itx::rtn::linux_platform {

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
  // it is the default.
  setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), nicenessOf(qos));
}

}  // namespace tarvex::itx::rtn::linux_platform
