#pragma once

#include <memory>

#include "log/logsink.h"

namespace tarvex::itx::log::linux_platform {

inline constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

// The journal when its socket exists (running under systemd), stderr
// otherwise (containers, a shell, tests).
std::unique_ptr<ILogSink> makeSystemSink(const char* journalSocket = kJournalSocket);

}  // namespace tarvex::itx::log::linux_platform
