#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "es/hub/eventsource.h"
#include "es/decoders/fanotifydecoder.h"
#include "es/procfs/mounts.h"
#include "rtn/openscope.h"

namespace endpointsecurity::linux_es {

// File notifications from one fanotify group in FID mode with a filesystem
// mark on every watchable file system, new mounts included as they appear.
// The marked events follow the wanted types; with none wanted the group is
// closed. The queue is unlimited; an overflow is still counted and logged.
// Opens are marked only on the file systems that can hold a file under a
// volume the open scope names, once it has named any.
class FanotifyFileSource final : public IEventSource,
                                 public tarvex::itx::rtn::IOpenScope,
                                 private IHandleResolver {
 public:
  explicit FanotifyFileSource(IEventSink& sink);
  ~FanotifyFileSource() override;

  const FileDecoderCounters& counters() const { return decoder_.counters(); }
  const char* name() const override { return "fanotify-files"; }
  EventSet types() const override;
  bool apply(const EventSet& wanted) override;
  void stop() override;
  void catchUp() override;
  void wantOpensUnder(const std::vector<std::string>& volumes) override;

  // The fanotify mask for a set of wanted types, public for tests.
  static uint64_t maskFor(const EventSet& wanted);

 private:
  struct Marked {
    std::string path;  // the mount, for open_by_handle_at
    dev_t dev;
    uint64_t mask;  // as marked
  };
  struct Resolved {
    std::string path;
    struct stat st;      // as last checked
    uint64_t checkedIn;  // the read it was last found still true in
  };

  bool openGroup(std::string* why);
  void closeGroup();
  // Marks every watchable file system of the mount table not marked yet.
  bool markMounts(const std::string& mountInfo);
  // Devices of the file systems a file under a scoped volume can be on;
  // none while there is no scope. Now: of the mount table as it is.
  std::set<dev_t> openDevices(const std::vector<MountEntry>& mounts) const;
  std::set<dev_t> openDevicesNow() const;
  // The mask for a file system: mask_, less opens where none is wanted.
  uint64_t maskOn(dev_t dev, const std::set<dev_t>& openDevices) const;
  // Brings every mark to maskOn(); false when the kernel refused one.
  // Under mutex_.
  bool remarkLocked(const std::set<dev_t>& openDevices);
  void run();
  // Reads and decodes what is queued; the bytes read, 0 when nothing was.
  // Takes readMutex_.
  ssize_t readQueued();
  // Whether a file was moved since the last call. Under readMutex_.
  bool movedSinceLastAsked();
  // Drains the moves group when it grew large. Takes readMutex_.
  void boundMoves();

  // IHandleResolver
  bool path(std::string_view key, std::string& out) override;
  bool stat(const std::string& path, struct stat* st) override;
  bool statObject(std::string_view key, struct stat* st) override;
  // The marked mount of a key's file system, opened for open_by_handle_at
  // until releaseMounts(): one open per read, not one per handle. -1 when
  // the file system is not marked. Under readMutex_.
  int mountFd(std::string_view key);
  void releaseMounts();

  IEventSink& sink_;
  FanotifyDecoder decoder_;
  std::mutex mutex_;  // group, marks and the thread's start/stop
  int fd_ = -1;
  uint64_t mask_ = 0;
  // The volumes opens are wanted under; unset: everywhere. Under mutex_.
  std::optional<std::vector<std::string>> openVolumes_;
  std::mutex marksMutex_;               // marked_, read by the reader thread
  std::map<std::string, Marked, std::less<>> marked_;  // by fsid bytes
  std::set<dev_t> devices_;
  // The reader thread and catchUp() take turns: the decoder and what it
  // remembers, and fd_ once the group is open.
  std::mutex readMutex_;
  // A second group that only hears of moves: a catch-up reads the file
  // events only after one. -1 when it could not be had: every catch-up reads.
  int movedFd_ = -1;
  bool movedUnasked_ = false;
  std::vector<char> buffer_;
  std::unordered_map<std::string, Resolved, HandleKeyHash, std::equal_to<>> resolved_;
  std::map<std::string, int, std::less<>> mountFds_;  // by fsid bytes, during a read
  uint64_t read_ = 0;  // reads so far
  // The directory last resolved: its events' files and their parent's stat
  // come one after another.
  const Resolved* lastDir_ = nullptr;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
};

}  // namespace endpointsecurity::linux_es
