#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "xpc/xpcvalue.h"

namespace lumo::refdaemon {

// The kinds of event the extension sends, one per call.
enum class EventKind { Exec, Exit, File, Print };
constexpr std::array<EventKind, 4> kEventKinds = {EventKind::Exec, EventKind::Exit,
                                                  EventKind::File, EventKind::Print};

const char* eventKindName(EventKind kind);  // exec, exit, file, print
std::optional<EventKind> eventKindNamed(std::string_view name);
std::optional<EventKind> eventKindOfSelector(std::string_view selector);

// Which events are printed. Each set criterion must hold; within one, any
// of its values will do. Unset criteria let everything through.
struct EventFilter {
  std::vector<EventKind> kinds;
  // Directories: an event passes when one of its paths (a process's
  // executable, a file event's names, a print job's data file) is the
  // prefix or lies under it.
  std::vector<std::string> pathPrefixes;
  std::vector<uint64_t> pids;  // the process the event is about or comes from
  std::vector<std::string> executables;

  bool empty() const;
  // `executableOf` names the executable of a pid, when it can be known,
  // for events that don't carry it themselves.
  bool matches(EventKind kind, const tarvex::itx::xpc::Dictionary& event,
               const std::function<std::optional<std::string>(uint64_t pid)>& executableOf) const;
  // "kind=exec,file path=/home pid=42 exe=/usr/bin/cp", or "none".
  std::string describe() const;
};

// Adds one criterion: `what` is kind, path, pid or exe, `value` a
// comma-separated list. Empty on success, else what is wrong; the filter
// is then unchanged.
std::string addFilterCriterion(std::string_view what, std::string_view value,
                               EventFilter* filter);

}  // namespace lumo::refdaemon
