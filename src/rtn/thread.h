#pragma once

#include <pthread.h>

namespace tarvex::itx::rtn {

// Plain non-recursive mutex; lock and unlock failures are not reported.
class thread_mutex_t {
 public:
  thread_mutex_t() { pthread_mutex_init(&mutex_, nullptr); }
  ~thread_mutex_t() { pthread_mutex_destroy(&mutex_); }
  thread_mutex_t(const thread_mutex_t&) = delete;
  thread_mutex_t& operator=(const thread_mutex_t&) = delete;

  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }
  pthread_mutex_t* native() { return &mutex_; }

 private:
  pthread_mutex_t mutex_;
};

// Scope lock over a thread_mutex_t.
class mutex_guard_t {
 public:
  mutex_guard_t(thread_mutex_t& mutex, bool lockNow) : mutex_(&mutex), locked_(false) {
    if (lockNow) lock();
  }
  ~mutex_guard_t() {
    if (locked_) mutex_->unlock();
  }
  mutex_guard_t(const mutex_guard_t&) = delete;
  mutex_guard_t& operator=(const mutex_guard_t&) = delete;

  void lock() {
    mutex_->lock();
    locked_ = true;
  }
  void unlock() {
    if (locked_) {
      mutex_->unlock();
      locked_ = false;
    }
  }
  thread_mutex_t& mutex() { return *mutex_; }

 private:
  thread_mutex_t* mutex_;
  bool locked_;
};

class thread_cond_t {
 public:
  // A time-out of kInfinite waits without limit.
  static constexpr unsigned int kInfinite = 0xFFFFFFFFu;

  thread_cond_t() { pthread_cond_init(&cond_, nullptr); }
  ~thread_cond_t() { pthread_cond_destroy(&cond_); }
  thread_cond_t(const thread_cond_t&) = delete;
  thread_cond_t& operator=(const thread_cond_t&) = delete;

  void signal() { pthread_cond_signal(&cond_); }
  void broadcast() { pthread_cond_broadcast(&cond_); }

  // 0 when woken, ETIMEDOUT when the time ran out, another error otherwise.
  // The caller holds mutex.
  int timed_wait(thread_mutex_t& mutex, unsigned int ms);
  int timed_wait(mutex_guard_t& guard, unsigned int ms) { return timed_wait(guard.mutex(), ms); }

 private:
  pthread_cond_t cond_;
};

}  // namespace tarvex::itx::rtn
