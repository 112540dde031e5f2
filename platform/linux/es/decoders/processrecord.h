#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <unordered_map>

#include "es/hub/eventsource.h"
#include "es/procfs/procinfo.h"

struct lumo_proc_event;
struct lumo_proc_ident;

namespace endpointsecurity::linux_es {

// Turns one record of the process programs into a message for the hub and
// keeps the process cache current. Shared by the BPF tier and its tests;
// a record shorter than its kind needs is refused (false) and not guessed at.
class ProcessRecordDecoder {
 public:
  explicit ProcessRecordDecoder(IEventSink& sink);
  bool handle(const void* data, size_t size);
  uint64_t malformed() const { return malformed_; }

 private:
  ProcessInfo infoOf(const lumo_proc_ident& ident) const;
  // The image's path: the kernel's name resolved against the process's
  // working directory, symlinks followed.
  std::string resolveImage(const std::string& name, pid_t pid);
  void onExec(const lumo_proc_event& record);
  void onFork(const lumo_proc_event& record);
  void onExit(const lumo_proc_event& record);

  struct Resolved {
    std::string path;
    std::chrono::steady_clock::time_point at;
  };
  static constexpr auto kImageTtl = std::chrono::seconds(1);
  static constexpr size_t kImages = 1024;

  IEventSink& sink_;
  const long ticksPerSecond_;
  uint64_t malformed_ = 0;
  std::unordered_map<std::string, Resolved> images_;  // by the kernel's name, made absolute
};

}  // namespace endpointsecurity::linux_es
