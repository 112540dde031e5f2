#include "log/stderrsink.h"

#include <string>

namespace tarvex::itx::log::linux_platform {

void StderrSink::write(const LogObject&, LogType, std::string_view line) {
  std::string text;
  text.reserve(line.size() + 1);
  text.append(line);
  if (text.empty() || text.back() != '\n') text.push_back('\n');
  std::lock_guard lock(mutex_);
  std::fwrite(text.data(), 1, text.size(), out_);
  std::fflush(out_);
}

}  // namespace tarvex::itx::log::linux_platform
