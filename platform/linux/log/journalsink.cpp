#include "log/journalsink.h"

#include <syslog.h>

// Keep the journal from recording this file and line as the entry's origin.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

namespace tarvex::itx::log::linux_platform {

int journalPriority(LogType type) {
  switch (type) {
    case LogType::Debug:
      return LOG_DEBUG;
    case LogType::Error:
      return LOG_ERR;
    case LogType::Fault:
      return LOG_CRIT;
    case LogType::Default:
    case LogType::Info:
      break;
  }
  return LOG_INFO;
}

void JournalSink::write(const LogObject& log, LogType type, std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  const char* subsystem = log.subsystem ? log.subsystem : "";
  const char* category = log.category ? log.category : "";
  // The journal has nowhere to report its own failure; a lost line is lost.
  sd_journal_send("MESSAGE=%.*s", static_cast<int>(line.size()), line.data(), "PRIORITY=%d",
                  journalPriority(type), "SYSLOG_IDENTIFIER=lumo-es", "LUMO_SUBSYSTEM=%s",
                  subsystem, "LUMO_CATEGORY=%s", category, nullptr);
}

}  // namespace tarvex::itx::log::linux_platform
