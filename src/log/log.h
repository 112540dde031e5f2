#pragma once

// Level macros. Every line is one format literal: "[function file@line] ",
// the level word with its spacing, then the caller's message (which carries
// its own "\n" where the line has one). Arguments are built only when the
// level is enabled. A module declares its log objects once, at the top of
// its source file, with LUMO_LOG_MODULE("CATEGORY").

#include "log/logsink.h"

#define LUMO_SUBSYSTEM "com.tarvex.lumo"
#define LUMO_SUBSYSTEM_TRACE "com.tarvex.lumo.trace"
#define LUMO_SUBSYSTEM_DUMP "com.tarvex.lumo.dump"

#if defined(__APPLE__)
#define LUMO_DEFINE_MODULE_LOG(var, category)                                              \
  const ::tarvex::itx::log::ModuleLog var{                                                 \
      ::tarvex::itx::log::makeLog(LUMO_SUBSYSTEM, category),                               \
      ::tarvex::itx::log::makeLog(LUMO_SUBSYSTEM_TRACE, category),                         \
      ::tarvex::itx::log::makeLog(LUMO_SUBSYSTEM_DUMP, category)}
#else
#define LUMO_DEFINE_MODULE_LOG(var, category)                                              \
  [[maybe_unused]] constexpr ::tarvex::itx::log::LogObject var##Main{LUMO_SUBSYSTEM, category}; \
  [[maybe_unused]] constexpr ::tarvex::itx::log::LogObject var##Trace{LUMO_SUBSYSTEM_TRACE,     \
                                                                      category};               \
  [[maybe_unused]] constexpr ::tarvex::itx::log::LogObject var##Dump{LUMO_SUBSYSTEM_DUMP,       \
                                                                     category};                \
  [[maybe_unused]] constexpr ::tarvex::itx::log::ModuleLog var{&var##Main, &var##Trace,        \
                                                               &var##Dump}
#endif

// The module's own triple, used by the level macros below.
#define LUMO_LOG_MODULE(category) \
  namespace {                     \
  LUMO_DEFINE_MODULE_LOG(kLumoModuleLog, category); \
  }
// A further triple of the module, created and not written to.
#define LUMO_LOG_EXTRA_MODULE(name, category) \
  namespace {                                 \
  LUMO_DEFINE_MODULE_LOG(name, category);     \
  }

#define LUMO_LOG_AT(fn, handle, type, fmt, ...) \
  LUMO_LOG_EMIT_RAW(handle, type, fmt, fn, __FILE_NAME__, __LINE__, ##__VA_ARGS__)

// Variants taking the function name, for code whose lines name a method
// other than the enclosing C++ function.
#define LOG_DEBUG_AT(fn, fmt, ...) \
  LUMO_LOG_AT(fn, kLumoModuleLog.main, LUMO_LOG_TYPE_DEBUG, "[%s %s@%d] Debug:  " fmt, ##__VA_ARGS__)
#define LOG_TRACE_AT(fn, fmt, ...) \
  LUMO_LOG_AT(fn, kLumoModuleLog.trace, LUMO_LOG_TYPE_DEBUG, "[%s %s@%d] Trace:  " fmt, ##__VA_ARGS__)
#define LOG_FUNC_AT(fn, fmt, ...) \
  LUMO_LOG_AT(fn, kLumoModuleLog.trace, LUMO_LOG_TYPE_DEBUG, "[%s %s@%d] Func:  " fmt, ##__VA_ARGS__)
#define LOG_INFO_AT(fn, fmt, ...) \
  LUMO_LOG_AT(fn, kLumoModuleLog.main, LUMO_LOG_TYPE_INFO, "[%s %s@%d] Info:  " fmt, ##__VA_ARGS__)
#define LOG_WARN_AT(fn, fmt, ...) \
  LUMO_LOG_AT(fn, kLumoModuleLog.main, LUMO_LOG_TYPE_INFO, "[%s %s@%d] Warn:  " fmt, ##__VA_ARGS__)
#define LOG_ERROR_AT(fn, fmt, ...) \
  LUMO_LOG_AT(fn, kLumoModuleLog.main, LUMO_LOG_TYPE_ERROR, "[%s %s@%d] Error: " fmt, ##__VA_ARGS__)
// Logs when cond is false, with condText as the condition's text; never
// aborts: the caller goes on along its own failure path.
#define LOG_ASSERT_TEXT_AT(fn, cond, condText, fmt, ...)                                    \
  do {                                                                                     \
    if (!(cond)) {                                                                         \
      LUMO_LOG_AT(fn, kLumoModuleLog.main, LUMO_LOG_TYPE_ERROR,                            \
                  "[%s %s@%d] Assert:  Assertion failed: [ " condText "]" fmt, ##__VA_ARGS__); \
    }                                                                                      \
  } while (0)

#define LOG_DEBUG(fmt, ...) LOG_DEBUG_AT(__func__, fmt, ##__VA_ARGS__)
#define LOG_TRACE(fmt, ...) LOG_TRACE_AT(__func__, fmt, ##__VA_ARGS__)
#define LOG_FUNC(fmt, ...) LOG_FUNC_AT(__func__, fmt, ##__VA_ARGS__)
#define LOG_INFO(fmt, ...) LOG_INFO_AT(__func__, fmt, ##__VA_ARGS__)
#define LOG_WARN(fmt, ...) LOG_WARN_AT(__func__, fmt, ##__VA_ARGS__)
#define LOG_ERROR(fmt, ...) LOG_ERROR_AT(__func__, fmt, ##__VA_ARGS__)
#define LOG_ASSERT(cond, fmt, ...) LOG_ASSERT_TEXT_AT(__func__, cond, #cond, fmt, ##__VA_ARGS__)
#define LOG_ASSERT_TEXT(cond, condText, fmt, ...) \
  LOG_ASSERT_TEXT_AT(__func__, cond, condText, fmt, ##__VA_ARGS__)

namespace tarvex::itx::log {

// Logs entry on construction and exit on destruction (any exit path) of a
// traced function, on the module's trace log. Defined out of line, so that
// the .mm files share the C++ compilation of it.
class ScopeTracer {
 public:
  ScopeTracer(LogHandle trace, const char* function);
  ~ScopeTracer();
  ScopeTracer(const ScopeTracer&) = delete;
  ScopeTracer& operator=(const ScopeTracer&) = delete;

 private:
  LogHandle trace_;
  const char* function_;
};

}  // namespace tarvex::itx::log

#define LOG_TRACE_SCOPE_NAMED(name) \
  const ::tarvex::itx::log::ScopeTracer lumoScopeTracer_(kLumoModuleLog.trace, name)
#define LOG_TRACE_SCOPE() LOG_TRACE_SCOPE_NAMED(__func__)
