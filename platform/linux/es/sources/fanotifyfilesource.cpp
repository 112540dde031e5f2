#include "es/sources/fanotifyfilesource.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <chrono>
#include <utility>
#include <vector>

#include "dispatch/threadname.h"
#include "dispatch/threadpriority.h"
#include "dispatch/wakebatch.h"
#include "es/sources/beat.h"
#include "es/procfs/fdpath.h"
#include "es/procfs/mounts.h"
#include "log/log.h"

LUMO_LOG_MODULE("LINUX_ES")

namespace endpointsecurity::linux_es {

namespace {

constexpr es_event_type_t kTypes[] = {
    ES_EVENT_TYPE_NOTIFY_OPEN, ES_EVENT_TYPE_NOTIFY_CLOSE,  ES_EVENT_TYPE_NOTIFY_RENAME,
    ES_EVENT_TYPE_NOTIFY_LINK, ES_EVENT_TYPE_NOTIFY_UNLINK, ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA};

// How long a rename waits for the record that tells what it was.
constexpr int kHoldMillis = 5;
// Directory paths remembered between events.
constexpr size_t kResolvedPaths = 4096;
// Reads a catch-up makes at most: a storm of events can't hold up an
// authorisation for long.
constexpr int kCatchUpReads = 4;
// A read this large means a storm of file events: read again on the
// shorter file beat, so the queue the kernel walks stays short.
constexpr ssize_t kLongQueueBytes = 16 * 1024;
// Bytes of moves the second group may hold while nobody asks.
constexpr int kMovedBacklog = 64 * 1024;

// Opens the object a key's handle names; the key is the fsid bytes and
// then the file_handle.
int openByKey(int mountFd, std::string_view key, int flags) {
  constexpr size_t kFsid = sizeof(__kernel_fsid_t);
  union {
    file_handle handle;
    char bytes[sizeof(file_handle) + MAX_HANDLE_SZ];
  } buffer;
  if (key.size() < kFsid + sizeof(file_handle) || key.size() - kFsid > sizeof buffer.bytes) {
    errno = EINVAL;
    return -1;
  }
  std::memcpy(buffer.bytes, key.data() + kFsid, key.size() - kFsid);
  return open_by_handle_at(mountFd, &buffer.handle, flags);
}

}  // namespace

FanotifyFileSource::FanotifyFileSource(IEventSink& sink)
    : sink_(sink), decoder_(sink, *this, getpid()), buffer_(256 * 1024) {}

FanotifyFileSource::~FanotifyFileSource() { stop(); }

EventSet FanotifyFileSource::types() const {
  EventSet set;
  for (es_event_type_t type : kTypes) set.set(type);
  return set;
}

uint64_t FanotifyFileSource::maskFor(const EventSet& wanted) {
  uint64_t mask = 0;
  // An exec's opens come with FAN_OPEN_EXEC set too, which tells them apart.
  if (wanted.test(ES_EVENT_TYPE_NOTIFY_OPEN)) mask |= FAN_OPEN | FAN_OPEN_EXEC;
  // A modification is remembered from MODIFY to the writer's close.
  if (wanted.test(ES_EVENT_TYPE_NOTIFY_CLOSE)) mask |= FAN_MODIFY | FAN_CLOSE_WRITE;
  // ATTRIB tells an overwriting rename (the victim's link count) and a
  // hard link (the source's) apart from the plain cases.
  if (wanted.test(ES_EVENT_TYPE_NOTIFY_RENAME) || wanted.test(ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA)) {
    mask |= FAN_RENAME | FAN_ATTRIB;
  }
  if (wanted.test(ES_EVENT_TYPE_NOTIFY_LINK)) mask |= FAN_CREATE | FAN_ATTRIB;
  if (wanted.test(ES_EVENT_TYPE_NOTIFY_UNLINK)) mask |= FAN_DELETE;
  return mask;
}

bool FanotifyFileSource::openGroup(std::string* why) {
  // Non-blocking: a catch-up reads only what is there.
  const int fd = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE |
                                   FAN_UNLIMITED_MARKS | FAN_REPORT_DFID_NAME_TARGET,
                               O_RDONLY | O_LARGEFILE | O_CLOEXEC);
  if (fd < 0) {
    *why = strerror(errno);
    return false;
  }
  // Without names, the moves into one directory by one process merge into
  // one queued event: the group stays a few records long however busy.
  const int moved = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_REPORT_FID,
                                  O_RDONLY | O_CLOEXEC);
  if (moved < 0) {
    LOG_WARN("No group for moves (%{public}s): every exec first reads the file events.",
             strerror(errno));
  }
  std::lock_guard<std::mutex> lock(readMutex_);
  fd_ = fd;
  movedFd_ = moved;
  return true;
}

void FanotifyFileSource::closeGroup() {
  stopping_.store(true);
  if (thread_.joinable()) thread_.join();
  stopping_.store(false);
  {
    std::lock_guard<std::mutex> lock(readMutex_);
    if (fd_ >= 0) close(fd_);
    if (movedFd_ >= 0) close(movedFd_);
    fd_ = -1;
    movedFd_ = -1;
  }
  std::lock_guard<std::mutex> lock(marksMutex_);
  marked_.clear();
  devices_.clear();
}

bool FanotifyFileSource::markMounts(const std::string& mountInfo) {
  bool ok = true;
  const std::vector<MountEntry> mounts = parseMountInfo(mountInfo);
  const std::set<dev_t> opens = openDevices(mounts);
  // Forget what is gone, so a later volume on a recycled device is marked.
  std::set<dev_t> present;
  std::set<std::string> paths;
  for (const MountEntry& mount : mounts) {
    struct stat st{};
    if (::stat(mount.path.c_str(), &st) == 0) present.insert(st.st_dev);
    paths.insert(mount.path);
  }
  std::erase_if(devices_, [&](dev_t dev) { return present.count(dev) == 0; });
  {
    std::lock_guard<std::mutex> lock(marksMutex_);
    std::erase_if(marked_, [&](const auto& entry) { return paths.count(entry.second.path) == 0; });
  }
  for (const MountEntry& mount : mounts) {
    if (!watchableFsType(mount.fsType)) continue;
    struct stat st{};
    if (::stat(mount.path.c_str(), &st) != 0 || devices_.count(st.st_dev) != 0) continue;
    struct statfs fs{};
    const uint64_t mask = maskOn(st.st_dev, opens);
    // Nothing to mark yet (only opens wanted, none here) is kept for later.
    if (statfs(mount.path.c_str(), &fs) != 0 ||
        (mask != 0 && fanotify_mark(fd_, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD,
                                    mount.path.c_str()) != 0)) {
      // File systems without file handles (and some FUSE ones) can't be
      // watched in FID mode.
      LOG_DEBUG("Not watching files on %{public}s (%{public}s): %{public}s", mount.path.c_str(),
                mount.fsType.c_str(), strerror(errno));
      devices_.insert(st.st_dev);
      continue;
    }
    devices_.insert(st.st_dev);
    if (movedFd_ >= 0 && fanotify_mark(movedFd_, FAN_MARK_ADD | FAN_MARK_FILESYSTEM,
                                       FAN_MOVED_TO | FAN_ONDIR, AT_FDCWD,
                                       mount.path.c_str()) != 0) {
      LOG_DEBUG("Moves on %{public}s unheard (%{public}s): every exec reads the file events.",
                mount.path.c_str(), strerror(errno));
      std::lock_guard<std::mutex> lock(readMutex_);
      close(movedFd_);
      movedFd_ = -1;
    }
    std::string fsid(reinterpret_cast<const char*>(&fs.f_fsid), sizeof fs.f_fsid);
    std::lock_guard<std::mutex> lock(marksMutex_);
    marked_.emplace(fsid, Marked{mount.path, st.st_dev, mask});
    LOG_DEBUG("Watching files on %{public}s (%{public}s).", mount.path.c_str(),
              mount.fsType.c_str());
  }
  // A volume mounted where none was lets the file system above it go.
  return remarkLocked(opens) && ok;
}

std::set<dev_t> FanotifyFileSource::openDevices(const std::vector<MountEntry>& mounts) const {
  std::set<dev_t> devices;
  if (!openVolumes_) return devices;
  for (const std::string& volume : *openVolumes_) {
    // A file under the volume is on the file system the volume's path is
    // on (or, not there yet, its nearest existing parent's), or on one
    // mounted beneath it.
    std::string path = volume;
    struct stat st{};
    bool found;
    while (!(found = ::stat(path.c_str(), &st) == 0)) {
      const size_t slash = path.find_last_of('/');
      if (slash == std::string::npos || path == "/") break;
      path.resize(slash == 0 ? 1 : slash);
    }
    if (found) devices.insert(st.st_dev);
    const std::string below = volume + "/";
    for (const MountEntry& mount : mounts) {
      if (mount.path != volume && mount.path.compare(0, below.size(), below) != 0) continue;
      if (::stat(mount.path.c_str(), &st) == 0) devices.insert(st.st_dev);
    }
  }
  return devices;
}

uint64_t FanotifyFileSource::maskOn(dev_t dev, const std::set<dev_t>& openDevices) const {
  if (!openVolumes_ || openDevices.count(dev) != 0) return mask_;
  return mask_ & ~static_cast<uint64_t>(FAN_OPEN | FAN_OPEN_EXEC);
}

std::set<dev_t> FanotifyFileSource::openDevicesNow() const {
  return openVolumes_ ? openDevices(parseMountInfo(readMountTable())) : std::set<dev_t>();
}

bool FanotifyFileSource::remarkLocked(const std::set<dev_t>& opens) {
  std::lock_guard<std::mutex> lock(marksMutex_);
  bool ok = true;
  for (auto& [fsid, marked] : marked_) {
    const uint64_t mask = maskOn(marked.dev, opens);
    if (mask == marked.mask) continue;
    const uint64_t gone = marked.mask & ~mask;
    if (gone != 0 && fanotify_mark(fd_, FAN_MARK_REMOVE | FAN_MARK_FILESYSTEM, gone, AT_FDCWD,
                                   marked.path.c_str()) != 0) {
      ok = false;
    }
    if (mask != 0 && fanotify_mark(fd_, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD,
                                   marked.path.c_str()) != 0) {
      LOG_ERROR("Updating the file marks on %{public}s failed: %{public}s", marked.path.c_str(),
                strerror(errno));
      ok = false;
    }
    marked.mask = mask;
  }
  return ok;
}

void FanotifyFileSource::wantOpensUnder(const std::vector<std::string>& volumes) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (openVolumes_ == volumes) return;
  openVolumes_ = volumes;
  if (fd_ < 0 || (mask_ & FAN_OPEN) == 0) return;
  remarkLocked(openDevicesNow());
  std::lock_guard<std::mutex> marksLock(marksMutex_);
  size_t withOpens = 0;
  for (const auto& [fsid, marked] : marked_) withOpens += (marked.mask & FAN_OPEN) != 0;
  LOG_INFO("File events: opens watched on %d of %d file systems.", static_cast<int>(withOpens),
           static_cast<int>(marked_.size()));
}

bool FanotifyFileSource::apply(const EventSet& wanted) {
  std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t mask = maskFor(wanted);
  if (mask == mask_) return true;
  if (mask == 0) {
    closeGroup();
    mask_ = 0;
    LOG_INFO("File events: fanotify group closed (nothing subscribed).");
    return true;
  }
  if (fd_ < 0) {
    std::string why;
    if (!openGroup(&why)) {
      LOG_ERROR("File events: fanotify in FID mode unavailable (%{public}s); files stay silent.",
                why.c_str());
      return false;
    }
    mask_ = mask;
    markMounts(readMountTable());
    LOG_INFO("File events: fanotify FID group with filesystem marks on %d file systems.",
             static_cast<int>(marked_.size()));
    thread_ = std::thread([this] { run(); });
    return true;
  }
  // Change the marks in place: drop what is no longer wanted, add the rest.
  mask_ = mask;
  return remarkLocked(openDevicesNow());
}

void FanotifyFileSource::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  closeGroup();
  mask_ = 0;
}

// Paths by handle, checked once per read: a directory renamed or replaced
// since no longer has the inode its cached path leads to, and is resolved
// again. Like a handle resolved afresh, a path is as of the read, not of the
// event. Nothing is held open, so volumes unmount freely.
bool FanotifyFileSource::path(std::string_view key, std::string& out) {
  constexpr size_t kFsid = sizeof(__kernel_fsid_t);
  if (key.size() < kFsid + sizeof(file_handle)) return false;
  auto cached = resolved_.find(key);
  if (cached != resolved_.end()) {
    Resolved& known = cached->second;
    struct stat st{};
    if (known.checkedIn != read_ &&
        (lstat(known.path.c_str(), &st) != 0 || st.st_dev != known.st.st_dev ||
         st.st_ino != known.st.st_ino)) {
      if (lastDir_ == &known) lastDir_ = nullptr;
      resolved_.erase(cached);
    } else {
      if (known.checkedIn != read_) {
        known.st = st;
        known.checkedIn = read_;
      }
      if (S_ISDIR(known.st.st_mode)) lastDir_ = &known;
      out = known.path;
      return true;
    }
  }
  const int mountFd = this->mountFd(key);
  if (mountFd < 0) return false;
  const int fd = openByKey(mountFd, key, O_PATH | O_CLOEXEC);
  if (fd < 0) return false;  // ESTALE: gone since
  std::string path = pathOfFd(fd);
  struct stat st{};
  const bool statted = fstat(fd, &st) == 0;
  close(fd);
  if (path.empty()) return false;
  const bool deleted = stripDeletedTail(path);
  out = path;
  if (!deleted && statted) {
    if (resolved_.size() >= kResolvedPaths) {
      resolved_.clear();
      lastDir_ = nullptr;
    }
    Resolved& known = resolved_[std::string(key)] = Resolved{std::move(path), st, read_};
    if (S_ISDIR(st.st_mode)) lastDir_ = &known;
  }
  return true;
}

bool FanotifyFileSource::statObject(std::string_view key, struct stat* st) {
  const int mountFd = this->mountFd(key);
  if (mountFd < 0) return false;
  const int fd = openByKey(mountFd, key, O_PATH | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = fstat(fd, st) == 0;
  close(fd);
  return ok;
}

int FanotifyFileSource::mountFd(std::string_view key) {
  constexpr size_t kFsid = sizeof(__kernel_fsid_t);
  if (key.size() < kFsid) return -1;
  const std::string_view fsid = key.substr(0, kFsid);
  auto open = mountFds_.find(fsid);
  if (open != mountFds_.end()) return open->second;
  std::string mountPath;
  {
    std::lock_guard<std::mutex> lock(marksMutex_);
    auto it = marked_.find(fsid);
    if (it == marked_.end()) return -1;
    mountPath = it->second.path;
  }
  // open_by_handle_at takes no O_PATH descriptor for the mount. Not kept
  // past the read, so volumes unmount freely.
  const int fd = ::open(mountPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) mountFds_.emplace(std::string(fsid), fd);
  return fd;
}

void FanotifyFileSource::releaseMounts() {
  for (const auto& [fsid, fd] : mountFds_) close(fd);
  mountFds_.clear();
}

bool FanotifyFileSource::stat(const std::string& path, struct stat* st) {
  if (lastDir_ != nullptr && lastDir_->checkedIn == read_ && lastDir_->path == path) {
    *st = lastDir_->st;
    return true;
  }
  return lstat(path.c_str(), st) == 0;
}

void FanotifyFileSource::run() {
  tarvex::itx::rtn::linux_platform::nameThread("lumo-es-fanotify");
  // A reader: its fair share, never ahead of the programs it reports on.
  tarvex::itx::rtn::linux_platform::prioritiseThread(tarvex::itx::rtn::QosClass::Default);
  const int mounts = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  std::string pendingTable;
  bool busy = false;
  bool longQueue = false;
  while (!stopping_.load()) {
    // While events keep coming, read them in batches on the file beat
    // instead of being woken for each one; idle, sleep in poll until the next.
    if (busy) sleepUntilNextBeat(longQueue ? kFileBeat : kBeat);
    bool holding;
    {
      std::lock_guard<std::mutex> lock(readMutex_);
      holding = decoder_.holding();
    }
    pollfd fds[2] = {{fd_, POLLIN, 0}, {mounts, POLLPRI, 0}};
    const int ready = poll(fds, mounts >= 0 ? 2 : 1, busy ? 0 : (holding ? kHoldMillis : 200));
    busy = ready > 0 && (fds[0].revents & POLLIN);
    if (ready == 0) {
      std::lock_guard<std::mutex> lock(readMutex_);
      tarvex::itx::rtn::linux_platform::WakeBatch batch;
      decoder_.flush();
      releaseMounts();
      continue;
    }
    if (ready < 0) continue;
    if (mounts >= 0 && (fds[1].revents & (POLLPRI | POLLERR))) {
      pendingTable = readMountTable(mounts);
    }
    if (!pendingTable.empty()) {
      // apply() holds the lock while it joins this thread: never wait for
      // it; a busy lock means another try on the next round.
      std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
      if (lock.owns_lock() && !stopping_.load()) {
        markMounts(pendingTable);
        pendingTable.clear();
      }
    }
    if (fds[0].revents & POLLIN) {
      sink_.catchUpOthers(this);
      longQueue = readQueued() > kLongQueueBytes;
    }
    boundMoves();
  }
  std::lock_guard<std::mutex> lock(readMutex_);
  decoder_.flush();
  releaseMounts();
  if (mounts >= 0) close(mounts);
}

ssize_t FanotifyFileSource::readQueued() {
  std::lock_guard<std::mutex> lock(readMutex_);
  if (fd_ < 0) return 0;
  const ssize_t n = read(fd_, buffer_.data(), buffer_.size());
  if (n <= 0) {
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
      LOG_ERROR("Reading file events failed: %{public}s", strerror(errno));
    }
    return 0;
  }
  ++read_;
  // The observers' queues are woken once for the whole read.
  tarvex::itx::rtn::linux_platform::WakeBatch batch;
  decoder_.handle(buffer_.data(), static_cast<size_t>(n));
  releaseMounts();
  return n;
}

bool FanotifyFileSource::movedSinceLastAsked() {
  if (movedFd_ < 0) return true;
  char drained[4096];
  bool moved = std::exchange(movedUnasked_, false);
  while (read(movedFd_, drained, sizeof drained) > 0) moved = true;
  return moved;
}

void FanotifyFileSource::boundMoves() {
  std::lock_guard<std::mutex> lock(readMutex_);
  int queued = 0;
  // Nobody asks while no AUTH type is subscribed: keep the group small,
  // and remember for the next one that asks that moves went unasked.
  if (movedFd_ >= 0 && ioctl(movedFd_, FIONREAD, &queued) == 0 && queued > kMovedBacklog) {
    movedUnasked_ = movedSinceLastAsked();
  }
}

void FanotifyFileSource::catchUp() {
  // A program renames a print job's data file into the spool and runs its
  // filter at once: the rename must be seen before the exec is asked about.
  // Reading every event before every exec would cost the exec a reader's
  // round (about a quarter of a millisecond here); moves are what tell.
  {
    std::lock_guard<std::mutex> lock(readMutex_);
    if (fd_ < 0 || (!movedSinceLastAsked() && !decoder_.holding())) return;
  }
  for (int reads = 0; reads < kCatchUpReads && readQueued() > 0; ++reads) {
  }
  std::lock_guard<std::mutex> lock(readMutex_);
  // A held rename goes as a move to a new path: what would tell an
  // overwrite may not have happened yet.
  tarvex::itx::rtn::linux_platform::WakeBatch batch;
  decoder_.flush();
  releaseMounts();
}

}  // namespace endpointsecurity::linux_es
