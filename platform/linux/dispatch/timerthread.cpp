#include "dispatch/timerthread.h"

#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>
#include <vector>

#include "dispatch/threadname.h"
#include "dispatch/threadpriority.h"
#include "watchdog/heartbeat.h"

namespace tarvex::itx::rtn::linux_platform {

namespace {
// Far-off deadlines are looked at again after this long, which keeps the
// time arithmetic in range.
constexpr uint64_t kMaxWaitNanos = 3600ull * 1000 * 1000 * 1000;
// A kernel timer setting this close is moved when its timer is cancelled.
constexpr uint64_t kSoonNanos = 100ull * 1000 * 1000;
}  // namespace

struct TimerThread::Book {
  struct Key {
    uint64_t when;
    uint64_t seq;
    bool operator<(const Key& other) const {
      return when != other.when ? when < other.when : seq < other.seq;
    }
  };
  struct Due {
    QueueRef queue;
    Task task;
  };

  explicit Book(IClock& c) : clock(c), fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "timerfd_create");
  }
  ~Book() { close(fd); }

  // Sets the kernel timer for the earliest pending timer. A setting that
  // goes off no later than needed stays: going off early costs one wake-up,
  // while moving it would cost a system call for every AUTH scheduled and
  // answered in time. Only a setting due soon whose own timer was cancelled
  // (a stall check's) is moved, since its wake-up would come at once; with
  // nothing pending it is parked kSoonNanos ahead, early enough for the
  // AUTH timers that follow to need no setting. Under mutex.
  void armLocked(uint64_t cancelled = 0) {
    uint64_t when = pending.empty() ? 0 : pending.begin()->first.when;
    // The stall watchdog tells a stuck timer thread by a timer overdue.
    heartbeat().timerDue.store(when == 0 ? 0 : clock.ticksToNanos(when), std::memory_order_relaxed);
    if (when == armed) return;
    const uint64_t now = clock.now();
    if (armed != 0 && (when == 0 || armed <= when)) {
      if (cancelled != armed || armed <= now || clock.ticksToNanos(armed - now) >= kSoonNanos) {
        return;
      }
      if (when == 0) when = now + clock.nanosToTicks(kSoonNanos);
    }
    if (when == 0) return;
    uint64_t nanos = when > now ? clock.ticksToNanos(when - now) : 0;
    nanos = std::clamp<uint64_t>(nanos, 1, kMaxWaitNanos);  // 0 would disarm
    itimerspec setting{};
    setting.it_value.tv_sec = static_cast<time_t>(nanos / 1'000'000'000);
    setting.it_value.tv_nsec = static_cast<long>(nanos % 1'000'000'000);
    timerfd_settime(fd, 0, &setting, nullptr);
    armed = when;
  }

  // Nothing to post is dropped under the lock: a task's captures may
  // schedule or cancel timers as they go.
  void cancel(const Key& key) {
    Due dropped;
    {
      std::lock_guard lock(mutex);
      auto it = pending.find(key);
      if (it == pending.end()) return;
      dropped = std::move(it->second);
      pending.erase(it);
      armLocked(/*cancelled=*/key.when);
    }
  }

  IClock& clock;
  const int fd;
  std::mutex mutex;
  std::map<Key, Due> pending;
  uint64_t armed = 0;  // the kernel timer's deadline; 0 while cleared
  uint64_t nextSeq = 0;
  bool stopping = false;
};

class TimerThread::Handle final : public ITimer {
 public:
  Handle(std::weak_ptr<Book> book, Book::Key key) : book_(std::move(book)), key_(key) {}
  void cancel() override {
    if (auto book = book_.lock()) book->cancel(key_);
  }

 private:
  const std::weak_ptr<Book> book_;
  const Book::Key key_;
};

TimerRef TimerThread::unset() {
  class Unset final : public ITimer {
   public:
    void cancel() override {}
  };
  static const TimerRef none = std::make_shared<Unset>();
  return none;
}

TimerThread::TimerThread(IClock& clock)
    : book_(std::make_shared<Book>(clock)), thread_([this] { run(); }) {}

TimerThread::~TimerThread() { stop(); }

TimerRef TimerThread::schedule(uint64_t when, QueueRef queue, Task task) {
  std::lock_guard lock(book_->mutex);
  if (book_->stopping) return unset();
  const Book::Key key{std::max<uint64_t>(when, 1), book_->nextSeq++};
  book_->pending.emplace(key, Book::Due{std::move(queue), std::move(task)});
  book_->armLocked();
  return std::make_shared<Handle>(book_, key);
}

void TimerThread::stop() {
  std::map<Book::Key, Book::Due> dropped;
  {
    std::lock_guard lock(book_->mutex);
    if (book_->stopping) return;
    book_->stopping = true;
    dropped.swap(book_->pending);
    // Wakes the thread to see it is over.
    const itimerspec now{{0, 0}, {0, 1}};
    timerfd_settime(book_->fd, 0, &now, nullptr);
  }
  if (thread_.joinable()) thread_.join();
}

void TimerThread::run() {
  nameThread("lumo.timer");
  // AUTH deadlines come from here.
  prioritiseThread(QosClass::UserInteractive);
  Book& book = *book_;
  std::vector<Book::Due> due;
  for (;;) {
    pollfd fds{book.fd, POLLIN, 0};
    if (poll(&fds, 1, -1) < 0) continue;  // EINTR
    uint64_t expirations = 0;
    (void)!read(book.fd, &expirations, sizeof expirations);
    {
      std::lock_guard lock(book.mutex);
      if (book.stopping) return;
      const uint64_t now = book.clock.now();
      while (!book.pending.empty() && book.pending.begin()->first.when <= now) {
        due.push_back(std::move(book.pending.begin()->second));
        book.pending.erase(book.pending.begin());
      }
      // Fired, so the kernel timer is clear; set it for what is left.
      book.armed = 0;
      book.armLocked();
    }
    for (Book::Due& timer : due) timer.queue->async(std::move(timer.task));
    due.clear();
  }
}

}  // namespace tarvex::itx::rtn::linux_platform
