#pragma once

// The log seam: log objects, log types and the one emitting macro the level
// macros expand to. On Apple platforms it is os_log itself, which wants the
// format as a literal at the call site; elsewhere the same literal is
// rendered the way the unified log renders it and handed to an ILogSink.

#include <cstdint>

#if defined(__APPLE__)

#include <os/log.h>

namespace tarvex::itx::log {
// A log object, not owned. Under ARC an os_log_t is a retained Objective-C
// object, in C++ a plain pointer: a type holding one would mean two things
// to the .mm and .cpp files that share it. The handle means the same in
// both; the object behind it is never released.
struct AppleLogObject;
using LogHandle = AppleLogObject*;
LogHandle makeLog(const char* subsystem, const char* category);
}  // namespace tarvex::itx::log

#if __has_feature(objc_arc)
#define LUMO_OS_LOG(handle) ((__bridge os_log_t)(handle))
#else
#define LUMO_OS_LOG(handle) ((os_log_t)(handle))
#endif

#define LUMO_LOG_TYPE_DEBUG OS_LOG_TYPE_DEBUG
#define LUMO_LOG_TYPE_INFO OS_LOG_TYPE_INFO
#define LUMO_LOG_TYPE_ERROR OS_LOG_TYPE_ERROR

#define LUMO_LOG_EMIT_RAW(handle, type, fmt, ...)                           \
  do {                                                                     \
    if (os_log_type_enabled(LUMO_OS_LOG(handle), (type))) {                \
      os_log_with_type(LUMO_OS_LOG(handle), (type), fmt, ##__VA_ARGS__);   \
    }                                                                      \
  } while (0)

#else

#include <string_view>
#include <utility>

#include "log/oslogformat.h"

namespace tarvex::itx::log {

enum class LogType : uint8_t {
  Default = 0x00,
  Info = 0x01,
  Debug = 0x02,
  Error = 0x10,
  Fault = 0x11,
};

struct LogObject {
  const char* subsystem;
  const char* category;
};

using LogHandle = const LogObject*;

// Where rendered lines go: the journal, stderr, or a test's capture.
class ILogSink {
 public:
  virtual ~ILogSink() = default;
  virtual void write(const LogObject& log, LogType type, std::string_view line) = 0;
};

// Installs the sink (nullptr: lines go to stderr) and keeps the level mask.
void setSink(ILogSink* sink);
void setDebugEnabled(bool enabled);
bool debugEnabled();
void write(const LogObject& log, LogType type, std::string_view line);

inline bool enabled(LogType type) { return type != LogType::Debug || debugEnabled(); }

template <typename... Args>
void emit(LogHandle handle, LogType type, const char* fmt, Args&&... args) {
  const LogArg argv[] = {LogArg(std::forward<Args>(args))..., LogArg()};
  write(*handle, type, renderOsLog(fmt, argv, sizeof...(Args)));
}

}  // namespace tarvex::itx::log

#define LUMO_LOG_TYPE_DEBUG ::tarvex::itx::log::LogType::Debug
#define LUMO_LOG_TYPE_INFO ::tarvex::itx::log::LogType::Info
#define LUMO_LOG_TYPE_ERROR ::tarvex::itx::log::LogType::Error

#define LUMO_LOG_EMIT_RAW(handle, type, fmt, ...)                                 \
  do {                                                                           \
    if (::tarvex::itx::log::enabled(type)) {                                     \
      ::tarvex::itx::log::emit((handle), (type), fmt, ##__VA_ARGS__);            \
    }                                                                            \
  } while (0)

#endif

namespace tarvex::itx::log {

// The three log objects of a module.
struct ModuleLog {
  LogHandle main;
  LogHandle trace;
  LogHandle dump;
};

}  // namespace tarvex::itx::log
