#include "log/systemsink.h"

#include <sys/stat.h>

#include "log/journalsink.h"
#include "log/stderrsink.h"

namespace tarvex::itx::log::linux_platform {

std::unique_ptr<ILogSink> makeSystemSink(const char* journalSocket) {
  struct stat st {};
  if (stat(journalSocket, &st) == 0 && S_ISSOCK(st.st_mode)) {
    return std::make_unique<JournalSink>();
  }
  return std::make_unique<StderrSink>();
}

}  // namespace tarvex::itx::log::linux_platform
