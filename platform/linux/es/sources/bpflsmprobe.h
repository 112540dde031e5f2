#pragma once

#include <string>

namespace endpointsecurity::linux_es {

// Whether BPF LSM programs load and attach here. Authorisation needs an
// answer from user space, which an LSM hook can't wait for, so answers
// always come from fanotify permission events; the probe tells the log
// whether in-kernel decisions would be possible on this machine.
bool bpfLsmAvailable(std::string* why);

}  // namespace endpointsecurity::linux_es
