#include "dispatch/threadname.h"

#include <pthread.h>

#include <string>

namespace tarvex::itx::rtn::linux_platform {

void nameThread(std::string_view name) {
  constexpr size_t kMaxName = 15;
  if (name.size() > kMaxName) name.remove_prefix(name.size() - kMaxName);
  const std::string copy(name);
  pthread_setname_np(pthread_self(), copy.c_str());
}

}  // namespace tarvex::itx::rtn::linux_platform
