#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "xpc/xpcvalue.h"

namespace lumo::testing {

// What happened on a daemon link, in order, from any thread; tests wait for
// entries. Waits give up after ten seconds, which passing runs never need.
class Journal {
 public:
  void add(std::string entry) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
    threads_.push_back(std::this_thread::get_id());
    changed_.notify_all();
  }
  bool waitFor(const std::string& entry, size_t times = 1) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return countLocked(entry) >= times; });
  }
  bool waitForSize(size_t n) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return entries_.size() >= n; });
  }
  size_t count(const std::string& entry) {
    std::lock_guard lock(mutex_);
    return countLocked(entry);
  }
  std::vector<std::string> entries() {
    std::lock_guard lock(mutex_);
    return entries_;
  }
  std::vector<std::thread::id> threads() {
    std::lock_guard lock(mutex_);
    return threads_;
  }

  static constexpr std::chrono::seconds kPatience{10};

 private:
  size_t countLocked(const std::string& entry) const {
    return static_cast<size_t>(std::count(entries_.begin(), entries_.end(), entry));
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> entries_;
  std::vector<std::thread::id> threads_;
};

// Spells a value with its number kinds (i, u, ll, ull, b before the bits),
// so a kind lost on the way shows in a comparison.
inline std::string valueText(const tarvex::itx::xpc::Value& v) {
  using namespace tarvex::itx::xpc;
  if (v.isNil()) return "nil";
  if (const std::string* s = v.string()) return "'" + *s + "'";
  if (const Dictionary* d = v.dictionary()) {
    std::string out = "{";
    for (const DictEntry& e : d->entries) out += e.key + "=" + valueText(e.value) + ";";
    return out + "}";
  }
  if (const Array* a = v.array()) {
    std::string out = "[";
    for (const Value& item : a->items) out += valueText(item) + ",";
    return out + "]";
  }
  static const char* kKinds[] = {"i", "u", "ll", "ull", "b"};
  return kKinds[static_cast<int>(v.number()->kind)] + std::to_string(v.number()->bits);
}

template <typename T>
std::string valueTextOrNil(const T* object) {
  return object ? valueText(tarvex::itx::xpc::Value(*object)) : "nil";
}

}  // namespace lumo::testing
