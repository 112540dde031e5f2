#include "refdaemon/eventfilter.h"

#include <algorithm>
#include <charconv>
#include <type_traits>

#include "xpc/selectors.h"

namespace lumo::refdaemon {

namespace selectors = tarvex::itx::xpc::linux_platform::selectors;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Value;

const char* eventKindName(EventKind kind) {
  switch (kind) {
    case EventKind::Exec: return "exec";
    case EventKind::Exit: return "exit";
    case EventKind::File: return "file";
    case EventKind::Print: return "print";
  }
  return "?";
}

std::optional<EventKind> eventKindNamed(std::string_view name) {
  for (EventKind kind : kEventKinds) {
    if (name == eventKindName(kind)) return kind;
  }
  return std::nullopt;
}

std::optional<EventKind> eventKindOfSelector(std::string_view selector) {
  if (selector == selectors::kHandleProcessStartEvent) return EventKind::Exec;
  if (selector == selectors::kHandleProcessExitEvent) return EventKind::Exit;
  if (selector == selectors::kHandleFileEvent) return EventKind::File;
  if (selector == selectors::kHandlePrinterEvent) return EventKind::Print;
  return std::nullopt;
}

namespace {

const std::string* stringAt(const Dictionary& event, const char* key) {
  const Value* value = event.find(key);
  return value != nullptr ? value->string() : nullptr;
}

std::optional<uint64_t> pidOf(const Dictionary& event) {
  const Value* value = event.find("pid");
  if (value == nullptr || value->number() == nullptr) return std::nullopt;
  return value->number()->bits;
}

// "/a/b" is under "/a" and "/a/", not under "/a/b/c" or "/ab".
bool under(std::string_view path, std::string_view prefix) {
  while (prefix.size() > 1 && prefix.back() == '/') prefix.remove_suffix(1);
  if (prefix == "/") return !path.empty() && path.front() == '/';
  if (path.substr(0, prefix.size()) != prefix) return false;
  return path.size() == prefix.size() || path[prefix.size()] == '/';
}

// The paths an event is about, by kind.
std::vector<const std::string*> pathsOf(EventKind kind, const Dictionary& event) {
  std::vector<const char*> keys;
  switch (kind) {
    case EventKind::Exec:
    case EventKind::Exit: keys = {"path"}; break;
    case EventKind::File: keys = {"filename1", "filename2"}; break;
    case EventKind::Print: keys = {"filename"}; break;
  }
  std::vector<const std::string*> paths;
  for (const char* key : keys) {
    const std::string* path = stringAt(event, key);
    if (path != nullptr && !path->empty()) paths.push_back(path);
  }
  return paths;
}

std::vector<std::string_view> commaList(std::string_view text) {
  std::vector<std::string_view> items;
  while (!text.empty()) {
    const size_t comma = text.find(',');
    items.push_back(text.substr(0, comma));
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
    if (text.empty()) items.push_back(text);  // a trailing comma is an empty item
  }
  return items;
}

template <typename T>
std::string joined(const std::vector<T>& items) {
  std::string out;
  for (const T& item : items) {
    if (!out.empty()) out += ",";
    if constexpr (std::is_same_v<T, std::string>) {
      out += item;
    } else if constexpr (std::is_same_v<T, EventKind>) {
      out += eventKindName(item);
    } else {
      out += std::to_string(item);
    }
  }
  return out;
}

}  // namespace

bool EventFilter::empty() const {
  return kinds.empty() && pathPrefixes.empty() && pids.empty() && executables.empty();
}

bool EventFilter::matches(
    EventKind kind, const Dictionary& event,
    const std::function<std::optional<std::string>(uint64_t pid)>& executableOf) const {
  if (!kinds.empty() && std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) return false;
  if (!pathPrefixes.empty()) {
    const auto paths = pathsOf(kind, event);
    const bool any = std::any_of(paths.begin(), paths.end(), [&](const std::string* path) {
      return std::any_of(pathPrefixes.begin(), pathPrefixes.end(),
                         [&](const std::string& prefix) { return under(*path, prefix); });
    });
    if (!any) return false;
  }
  const std::optional<uint64_t> pid = pidOf(event);
  if (!pids.empty() && (!pid || std::find(pids.begin(), pids.end(), *pid) == pids.end())) {
    return false;
  }
  if (!executables.empty()) {
    std::optional<std::string> executable;
    if (kind == EventKind::Exec || kind == EventKind::Exit) {
      if (const std::string* path = stringAt(event, "path")) executable = *path;
    } else if (pid && executableOf) {
      executable = executableOf(*pid);
    }
    if (!executable ||
        std::find(executables.begin(), executables.end(), *executable) == executables.end()) {
      return false;
    }
  }
  return true;
}

std::string EventFilter::describe() const {
  if (empty()) return "none";
  std::string out;
  const auto add = [&out](const char* what, const std::string& values) {
    if (values.empty()) return;
    if (!out.empty()) out += " ";
    out += std::string(what) + "=" + values;
  };
  add("kind", joined(kinds));
  add("path", joined(pathPrefixes));
  add("pid", joined(pids));
  add("exe", joined(executables));
  return out;
}

std::string addFilterCriterion(std::string_view what, std::string_view value,
                               EventFilter* filter) {
  const std::vector<std::string_view> items = commaList(value);
  if (items.empty()) return "filter " + std::string(what) + " needs a value";
  EventFilter changed = *filter;
  for (std::string_view item : items) {
    const std::string text(item);
    if (what == "kind") {
      const std::optional<EventKind> kind = eventKindNamed(item);
      if (!kind) return "unknown event kind \"" + text + "\" (exec, exit, file, print)";
      changed.kinds.push_back(*kind);
    } else if (what == "path" || what == "exe") {
      if (item.empty() || item.front() != '/') return "\"" + text + "\" is not an absolute path";
      (what == "path" ? changed.pathPrefixes : changed.executables).push_back(text);
    } else if (what == "pid") {
      uint64_t pid = 0;
      const auto [end, error] = std::from_chars(item.data(), item.data() + item.size(), pid);
      if (error != std::errc() || end != item.data() + item.size() || item.empty()) {
        return "\"" + text + "\" is not a pid";
      }
      changed.pids.push_back(pid);
    } else {
      return "unknown filter \"" + std::string(what) + "\" (kind, path, pid, exe)";
    }
  }
  *filter = std::move(changed);
  return {};
}

}  // namespace lumo::refdaemon
