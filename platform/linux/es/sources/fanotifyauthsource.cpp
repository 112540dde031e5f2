#include "es/sources/fanotifyauthsource.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "dispatch/callerhelps.h"
#include "dispatch/threadname.h"
#include "dispatch/threadpriority.h"
#include "es/procfs/execcall.h"
#include "es/procfs/execformat.h"
#include "es/procfs/fdpath.h"
#include "es/hub/linuxendpointsecurity.h"
#include "es/hub/message.h"
#include "es/procfs/mounts.h"
#include "log/log.h"
#include "watchdog/heartbeat.h"
#include "watchdog/stallwatchdog.h"

LUMO_LOG_MODULE("LINUX_ES")

namespace endpointsecurity::linux_es {

using tarvex::itx::rtn::linux_platform::heartbeat;
using tarvex::itx::rtn::linux_platform::HeartbeatPage;
using tarvex::itx::rtn::linux_platform::LoopRelay;

namespace {

constexpr uint32_t kFRead = 0x1;

std::atomic<uint64_t> gLateAnswers{0};

// Gives the kernel the answer for one permission event and closes its
// descriptor.
void answer(int group, int eventFd, bool allow) {
  fanotify_response response{eventFd, static_cast<__u32>(allow ? FAN_ALLOW : FAN_DENY)};
  if (write(group, &response, sizeof response) != sizeof response) {
    // The stall watchdog allowed it while this process stood still.
    if (errno == ENOENT && heartbeat().releases.load() > 0) {
      gLateAnswers.fetch_add(1, std::memory_order_relaxed);
    } else {
      LOG_ERROR("Answering a permission event failed: %{public}s", strerror(errno));
    }
  }
  close(eventFd);
}

// Whether the file behind fd is the one the exec call names, resolved the
// way the kernel did: from the caller's working directory.
bool namesFile(pid_t pid, const std::string& filename, const std::string& openedPath, int fd) {
  if (filename.empty()) return false;
  if (filename == openedPath) return true;  // the common case, without a lookup
  const std::string path =
      filename[0] == '/' ? "/proc/" + std::to_string(pid) + "/root" + filename
                         : "/proc/" + std::to_string(pid) + "/cwd/" + filename;
  struct stat named{}, opened{};
  return ::stat(path.c_str(), &named) == 0 && fstat(fd, &opened) == 0 &&
         named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

// The ELF loader named in this program's own header: the loader of the
// machine's native binaries, as written there.
std::string nativeLoader() {
  const int self = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  if (self < 0) return "";
  std::string name = elfInterpreter(self);
  close(self);
  return name;
}

std::string resolved(const std::string& path) {
  char buffer[PATH_MAX];
  return !path.empty() && realpath(path.c_str(), buffer) != nullptr ? buffer : "";
}

// How long an observer may hold the reader before another thread reads on,
// and how many may be held at once. Not shorter than the time the timer
// thread's kernel timer is set ahead when idle, so that arming and
// cancelling the check for every exec costs no system call: only an
// observer that waits (a print filter for its verdict) is ever taken over.
constexpr std::chrono::milliseconds kPatience{100};
constexpr unsigned kMaxReaders = 4;

// Callers awaiting an interpreter are few at a time; past this many, some
// exec failed unseen and the oldest guesses are worthless.
constexpr size_t kMaxAwaiting = 4096;

}  // namespace

FanotifyAuthSource::FanotifyAuthSource(LinuxEndpointSecurity& hub, LoopRelay::Arm arm)
    : hub_(hub),
      self_(getpid()),
      watchdog_(tarvex::itx::rtn::linux_platform::stallWatchdogPid()),
      loaderName_(nativeLoader()),
      loader_(resolved(loaderName_)),
      arm_(std::move(arm)) {}

uint64_t FanotifyAuthSource::lateAnswers() { return gLateAnswers.load(); }

void FanotifyAuthSource::recover() {
  std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (!lock.owns_lock() || stopping_.load()) return;  // the next wake tries again
  HeartbeatPage& page = heartbeat();
  seenRecoveries_ = page.recoveries.load();
  const uint64_t unseen = page.allowedUnseen.load();
  const uint64_t pending = page.allowedPending.load();
  // The watchdog took every mark: all of them again, the loader's ignore
  // mark when it is next seen.
  devices_.clear();
  marked_.clear();
  loaderIgnored_ = false;
  awaiting_.clear();
  markMounts(readMountTable());
  const uint64_t stalledFor = page.recoveredAt.load() - page.stalledSince.load();
  LOG_WARN("Permission path recovered after %.1f s stalled: %llu permission events were allowed "
           "unseen and %llu delivered ones allowed unanswered (%llu and %llu since start); "
           "permission checks resume on %d file systems.",
           stalledFor / 1e9, static_cast<unsigned long long>(unseen - reportedUnseen_),
           static_cast<unsigned long long>(pending - reportedPending_),
           static_cast<unsigned long long>(unseen), static_cast<unsigned long long>(pending),
           static_cast<int>(marked_.size()));
  reportedUnseen_ = unseen;
  reportedPending_ = pending;
}

FanotifyAuthSource::~FanotifyAuthSource() { stop(); }

EventSet FanotifyAuthSource::types() const {
  EventSet set;
  set.set(ES_EVENT_TYPE_AUTH_EXEC);
  set.set(ES_EVENT_TYPE_AUTH_OPEN);
  return set;
}

void FanotifyAuthSource::closeGroup() {
  stopping_.store(true);
  if (relay_) relay_->stop();
  relay_.reset();
  stopping_.store(false);
  if (mountsFd_ >= 0) close(mountsFd_);
  mountsFd_ = -1;
  pendingTable_.clear();
  allowUnhandled();
  heartbeat().groupFd.store(-1);
  group_.reset();  // closed once no answer is pending; the kernel allows the rest
  marked_.clear();
  devices_.clear();
  awaiting_.clear();
  loaderIgnored_ = false;
  mask_ = 0;
}

// Read but not handled when the loop stopped: allowed, as the kernel allows
// what was never read once the group is closed, and their descriptors closed.
void FanotifyAuthSource::allowUnhandled() {
  while (group_ && readPos_ < readEnd_) {
    const auto* metadata = reinterpret_cast<const fanotify_event_metadata*>(&buffer_[readPos_]);
    ssize_t left = static_cast<ssize_t>(readEnd_ - readPos_);
    if (!FAN_EVENT_OK(metadata, left)) break;
    readPos_ += metadata->event_len;
    if (metadata->fd >= 0) answer(*group_, metadata->fd, true);
  }
  readPos_ = readEnd_ = 0;
}

void FanotifyAuthSource::markMounts(const std::string& mountInfo) {
  for (const MountEntry& mount : parseMountInfo(mountInfo)) {
    if (!watchableFsType(mount.fsType)) continue;
    struct stat st{};
    if (::stat(mount.path.c_str(), &st) != 0 || !devices_.insert(st.st_dev).second) continue;
    if (fanotify_mark(*group_, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask_, AT_FDCWD,
                      mount.path.c_str()) != 0) {
      LOG_DEBUG("No permission events on %{public}s (%{public}s): %{public}s",
                mount.path.c_str(), mount.fsType.c_str(), strerror(errno));
      continue;
    }
    marked_.insert(mount.path);
  }
}

bool FanotifyAuthSource::apply(const EventSet& wanted) {
  std::lock_guard<std::mutex> lock(mutex_);
  uint64_t mask = 0;
  if (wanted.test(ES_EVENT_TYPE_AUTH_EXEC)) mask |= FAN_OPEN_EXEC_PERM;
  if (wanted.test(ES_EVENT_TYPE_AUTH_OPEN)) mask |= FAN_OPEN_PERM;
  if (mask == mask_) return true;
  if (mask == 0) {
    closeGroup();
    LOG_INFO("Authorisation events: permission group closed (nothing subscribed).");
    return true;
  }
  if (!group_) {
    const int fd = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_UNLIMITED_QUEUE |
                                     FAN_UNLIMITED_MARKS,
                                 O_RDONLY | O_LARGEFILE | O_CLOEXEC);
    if (fd < 0) {
      LOG_ERROR("Authorisation events: fanotify permission events unavailable (%{public}s); "
                "AUTH types stay silent.",
                strerror(errno));
      return false;
    }
    group_ = std::shared_ptr<int>(new int(fd), [](int* p) {
      close(*p);
      delete p;
    });
    mask_ = mask;
    markMounts(readMountTable());
    heartbeat().groupGeneration.fetch_add(1);
    heartbeat().groupFd.store(fd);
    seenRecoveries_ = heartbeat().recoveries.load();
    LOG_INFO("Authorisation events: fanotify permission group (%{public}s%{public}s) on %d file "
             "systems.",
             (mask & FAN_OPEN_EXEC_PERM) ? "exec " : "", (mask & FAN_OPEN_PERM) ? "open" : "",
             static_cast<int>(marked_.size()));
    mountsFd_ = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    relay_ = std::make_unique<LoopRelay>([this] { run(); }, arm_, kPatience, kMaxReaders);
    relay_->start();
    return true;
  }
  bool ok = true;
  for (const std::string& path : marked_) {
    const uint64_t gone = mask_ & ~mask;
    if (gone != 0) {
      fanotify_mark(*group_, FAN_MARK_REMOVE | FAN_MARK_FILESYSTEM, gone, AT_FDCWD, path.c_str());
    }
    if (fanotify_mark(*group_, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD,
                      path.c_str()) != 0) {
      LOG_ERROR("Updating the permission marks on %{public}s failed: %{public}s", path.c_str(),
                strerror(errno));
      ok = false;
    }
  }
  mask_ = mask;
  return ok;
}

void FanotifyAuthSource::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  closeGroup();
}

void FanotifyAuthSource::sawInterpreter(int eventFd, const std::string& path) {
  if (loader_.empty() || path != loader_) return;
  // On the inode behind the event: a loader replaced by an update is a new
  // inode, seen and marked again. Opens for reading still come.
  if (fanotify_mark(*group_, FAN_MARK_ADD | FAN_MARK_IGNORED_MASK | FAN_MARK_IGNORED_SURV_MODIFY,
                    FAN_OPEN_EXEC_PERM, eventFd, nullptr) == 0) {
    LOG_INFO("Exec permission events of the loader %{public}s are no longer asked for.",
             path.c_str());
    loaderIgnored_ = true;
  } else {
    LOG_ERROR("Ignoring exec permission events of %{public}s failed: %{public}s", path.c_str(),
              strerror(errno));
    loader_.clear();  // not again for every exec
  }
}

bool FanotifyAuthSource::isImage(int eventFd, pid_t pid, const std::string& path) {
  bool image = true;
  // The loader itself is checked too: once updated it is a new inode that
  // its ignore mark does not cover, opened for images thought complete.
  if (awaiting_.erase(pid) != 0 || (!loader_.empty() && path == loader_)) {
    // The call tells. When it can't be read, the open counts as the image:
    // a question too many is harmless, one not asked is not.
    const std::optional<ExecCall> call = readExecCall(pid, /*withArgs=*/false);
    image = !call || namesFile(pid, call->filename, path, eventFd);
    if (!call) LOG_DEBUG("Exec call of pid %d unreadable; its exec open is the image.", pid);
    if (!image) {
      sawInterpreter(eventFd, path);
      LOG_DEBUG("Exec open by pid %d is not the image an execve names; allowed.", pid);
    }
  }
  if (execFormatOf(eventFd, loaderIgnored_ ? loaderName_ : std::string()) ==
      ExecFormat::kNeedsInterpreter) {
    if (awaiting_.size() >= kMaxAwaiting) awaiting_.clear();
    awaiting_.insert(pid);
  }
  return image;
}

void FanotifyAuthSource::handle(int eventFd, uint64_t mask, pid_t pid) {
  // Never make ourselves wait: our handlers may open watched files.
  if (pid == self_ || pid == watchdog_) {
    answer(*group_, eventFd, true);
    return;
  }
  const bool exec = (mask & FAN_OPEN_EXEC_PERM) && hub_.wants(ES_EVENT_TYPE_AUTH_EXEC);
  const bool open = (mask & FAN_OPEN_PERM) && hub_.wants(ES_EVENT_TYPE_AUTH_OPEN);
  bool image = false;
  std::string path;
  if (exec) {
    path = pathOfFd(eventFd);
    image = isImage(eventFd, pid, path);
  }
  if (!image && !open) {
    answer(*group_, eventFd, true);
    return;
  }
  const es_event_type_t type = image ? ES_EVENT_TYPE_AUTH_EXEC : ES_EVENT_TYPE_AUTH_OPEN;
  auto* message = new Message(type, ES_ACTION_TYPE_AUTH);
  std::optional<ProcessInfo> caller = hub_.processes().lookup(pid);
  ProcessInfo info = caller ? *caller : ProcessInfo{};
  if (!caller) info.pid = pid;
  message->es.process = message->addProcess(info);
  if (path.empty()) path = pathOfFd(eventFd);
  if (type == ES_EVENT_TYPE_AUTH_EXEC) {
    ProcessInfo target = info;
    target.exe = path;
    message->es.event.exec.target = message->addProcess(target);
    message->budgetNanos = hub_.budgets().authExecNanos;
    // Read when an observer asks: the caller waits in execve until answered.
    message->setExecArgsFetcher([pid] {
      std::optional<ExecCall> full = readExecCall(pid);
      return full ? std::move(full->argv) : std::vector<std::string>();
    });
  } else {
    struct stat st{};
    const bool statted = fstat(eventFd, &st) == 0;
    message->es.event.open.fflag = kFRead;
    message->es.event.open.file = message->addFile(path, statted ? &st : nullptr);
    message->budgetNanos = hub_.budgets().authOpenNanos;
  }
  std::shared_ptr<int> group = group_;
  message->verdict = std::make_shared<AuthVerdict>(
      [group, eventFd](bool allow) { answer(*group, eventFd, allow); });
  hub_.deliver(message);
}

// One turn at the loop: until stopped, or taken up by another thread while
// this one answered for an observer that held it.
void FanotifyAuthSource::run() {
  tarvex::itx::rtn::linux_platform::nameThread("lumo-es-fanauth");
  // Every exec on the machine waits on this thread.
  tarvex::itx::rtn::linux_platform::prioritiseThread(tarvex::itx::rtn::QosClass::UserInteractive);
  const int fd = *group_;
  HeartbeatPage& page = heartbeat();
  while (!stopping_.load()) {
    if (readPos_ == readEnd_) {
      pollfd fds[2] = {{fd, POLLIN, 0}, {mountsFd_, POLLPRI, 0}};
      const int ready = poll(fds, mountsFd_ >= 0 ? 2 : 1, 200);
      page.readerBeats.fetch_add(1, std::memory_order_relaxed);
      if (page.recoveries.load(std::memory_order_relaxed) != seenRecoveries_) recover();
      if (ready <= 0) continue;
      if (mountsFd_ >= 0 && (fds[1].revents & (POLLPRI | POLLERR))) {
        pendingTable_ = readMountTable(mountsFd_);
      }
      if (!pendingTable_.empty()) {
        std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
        if (lock.owns_lock() && !stopping_.load()) {
          markMounts(pendingTable_);
          pendingTable_.clear();
        }
      }
      if (!(fds[0].revents & POLLIN)) continue;
      const ssize_t n = read(fd, buffer_.data(), buffer_.size());
      if (n <= 0) continue;
      readPos_ = 0;
      readEnd_ = static_cast<size_t>(n);
    }
    const auto* metadata = reinterpret_cast<const fanotify_event_metadata*>(&buffer_[readPos_]);
    ssize_t left = static_cast<ssize_t>(readEnd_ - readPos_);
    if (!FAN_EVENT_OK(metadata, left)) {
      readPos_ = readEnd_;
      continue;
    }
    if (metadata->vers != FANOTIFY_METADATA_VERSION) {
      LOG_ERROR("Permission event of version %d; rest of the read dropped.", metadata->vers);
      readPos_ = readEnd_;
      continue;
    }
    // Taken before it is handled: should this thread's turn end while it
    // answers, the next one goes on after it.
    readPos_ += metadata->event_len;
    if (metadata->mask & FAN_Q_OVERFLOW) {
      LOG_ERROR("Permission event queue overflowed; the kernel allowed what was lost.");
      continue;
    }
    if (metadata->fd < 0) continue;
    // The observers' answer is run here rather than on a worker woken for
    // it; should an observer hold it, another thread reads on meanwhile.
    tarvex::itx::rtn::linux_platform::CallerHelps helps;
    handle(metadata->fd, metadata->mask, metadata->pid);
    page.readerBeats.fetch_add(1, std::memory_order_relaxed);
    if (helps.holding() && !relay_->stepAway([&helps] { helps.help(); })) return;
  }
}

}  // namespace endpointsecurity::linux_es
