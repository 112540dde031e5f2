#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>

namespace endpointsecurity::linux_es {

// Moves handed to the clients and not yet released by them. A client runs
// its notifications and its authorisations on queues of their own, side by
// side, so an AUTH can be judged before a move delivered ahead of it (a
// spooler's filter before the printer observer has seen the data file moved
// into the spool). An AUTH therefore waits, briefly, until the moves
// delivered before it are released.
class HeldMoves {
 public:
  explicit HeldMoves(std::chrono::milliseconds patience) : patience_(patience) {}

  // The move of this sequence number goes to the clients.
  void held(uint64_t seq);
  // Its last reference is gone.
  void released(uint64_t seq);
  // Waits until every move up to `seq` is released. False when the
  // patience ran out first: those moves are waited for no more.
  bool waitFor(uint64_t seq);

 private:
  const std::chrono::milliseconds patience_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<uint64_t> held_;
};

}  // namespace endpointsecurity::linux_es
