#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "dispatch/looprelay.h"
#include "es/hub/eventsource.h"

namespace endpointsecurity::linux_es {

class LinuxEndpointSecurity;

// AUTH_EXEC from FAN_OPEN_EXEC_PERM and AUTH_OPEN from FAN_OPEN_PERM, on a
// permission-class fanotify group with filesystem marks. Each permission
// bit is marked only while its type is subscribed (an open permission
// costs every open on the machine). The facility's own accesses are
// allowed at once, before anything else: its handlers may touch watched
// files and must never wait on themselves.
//
// Only the opening of the image an execve names becomes an AUTH_EXEC (its
// loader and a script's interpreter are allowed at once); a script is the
// target itself. The system's own ELF loader, once seen opened for an
// exec, gets an ignore mark: the kernel stops asking for it, which halves
// the round trips of an exec. Run directly (`ld.so prog`), it then goes
// without an AUTH_EXEC, as the program it loads does anyway (that one is
// opened, not executed). Its arguments are read from the blocked caller only when
// an observer asks for them. An AUTH_OPEN does not know the access the
// caller asked for (the event's descriptor is the group's): answer flags
// of 0 deny, any others allow.
//
// The reader runs the observers' answer itself once it has delivered an
// event (CallerHelps), which spares every exec the wake-up of a worker;
// should an observer hold it for 100 ms, another thread takes the reading
// up (LoopRelay).
class FanotifyAuthSource final : public IEventSource {
 public:
  FanotifyAuthSource(LinuxEndpointSecurity& hub,
                     tarvex::itx::rtn::linux_platform::LoopRelay::Arm arm);
  ~FanotifyAuthSource() override;

  const char* name() const override { return "fanotify-auth"; }
  EventSet types() const override;
  bool apply(const EventSet& wanted) override;
  void stop() override;

  // Answers that came after the stall watchdog had allowed their event.
  static uint64_t lateAnswers();

 private:
  void closeGroup();
  void allowUnhandled();
  void markMounts(const std::string& mountInfo);
  void run();
  void handle(int eventFd, uint64_t mask, pid_t pid);
  // Whether an exec open is the image the caller's execve names, rather
  // than a file the kernel opens for it (its loader, a script's
  // interpreter). Those come only after an image that needs one, so only
  // then is the blocked call read to tell them apart.
  bool isImage(int eventFd, pid_t pid, const std::string& path);
  // An exec open that was not the image: the native loader gets its ignore
  // mark.
  void sawInterpreter(int eventFd, const std::string& path);
  // After the stall watchdog released the group: marks it again.
  void recover();

  LinuxEndpointSecurity& hub_;
  const pid_t self_;
  const pid_t watchdog_;
  const std::string loaderName_;  // the native ELF loader, as binaries name it
  std::string loader_;            // and resolved; empty once marking it failed
  bool loaderIgnored_ = false;
  // Callers whose next exec open may be an interpreter (the thread at the loop only).
  std::unordered_set<pid_t> awaiting_;
  std::mutex mutex_;
  // Shared with pending answers: the group stays open until the last one.
  std::shared_ptr<int> group_;
  uint64_t mask_ = 0;
  std::set<std::string> marked_;  // mount paths
  std::set<dev_t> devices_;
  const tarvex::itx::rtn::linux_platform::LoopRelay::Arm arm_;
  // Its threads take turns at run(), which keeps what it has read below so
  // that the next turn goes on where the last one stopped.
  std::unique_ptr<tarvex::itx::rtn::linux_platform::LoopRelay> relay_;
  std::atomic<bool> stopping_{false};
  int mountsFd_ = -1;
  std::string pendingTable_;  // a mount table not marked yet
  std::vector<char> buffer_ = std::vector<char>(64 * 1024);
  size_t readPos_ = 0;
  size_t readEnd_ = 0;
  // Stall releases: recoveries acted on, and the counts already logged
  // (the thread at the loop only).
  uint64_t seenRecoveries_ = 0;
  uint64_t reportedUnseen_ = 0;
  uint64_t reportedPending_ = 0;
};

}  // namespace endpointsecurity::linux_es
