#pragma once

#include <string_view>

#include "log/logsink.h"

namespace tarvex::itx::log::linux_platform {

// Journal priority (syslog level) of a log type.
int journalPriority(LogType type);

// Sends each line to the systemd journal as a structured entry tagged with
// the log object's subsystem and category, so they can be filtered on.
class JournalSink final : public ILogSink {
 public:
  void write(const LogObject& log, LogType type, std::string_view line) override;
};

}  // namespace tarvex::itx::log::linux_platform
