#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <string>
#include <vector>

#include "refdaemon/eventfilter.h"
#include "refdaemon/pushconfig.h"
#include "xpc/daemonconnection.h"

namespace lumo::refdaemon {

// Stands in for the protection daemon on Linux. It answers the extension's
// registration (YES, or NO when told to reject), reports every call it
// receives (those its filter lets through) and every reply as one JSON
// line, keeps counts for `stats`, and pushes policy, exclusions,
// mount points and print verdicts: the configured ones to each extension as
// it registers, changes to every registered extension at once. Policy and
// exclusions carry a fresh, increasing timestamp (nanoseconds since the
// epoch) on every push, as the extension refuses older ones.
class RefDaemon : public std::enable_shared_from_this<RefDaemon> {
 public:
  struct Settings {
    bool reject = false;
    std::optional<PolicySwitches> policy;              // pushed when set
    std::optional<std::vector<Exclusion>> exclusions;  // pushed when set, even empty
    std::vector<Mount> mounts;                         // pushed after a clearMountPoints
    std::optional<bool> printVerdict;                  // answer to every print event
    EventFilter filter;                                // which events are printed
  };
  // Takes each output line; called from several threads, one line at a time.
  using Output = std::function<void(const std::string& line)>;
  using DaemonConnection = tarvex::itx::xpc::linux_platform::DaemonConnection;

  static std::shared_ptr<RefDaemon> create(Settings settings, Output out);
  ~RefDaemon();
  RefDaemon(const RefDaemon&) = delete;
  RefDaemon& operator=(const RefDaemon&) = delete;

  // The listener's accept handler.
  void accept(std::shared_ptr<DaemonConnection> connection);
  void disconnectAll();
  size_t registeredCount() const;

  // Changes: kept for later registrations, pushed to registered extensions.
  void setPolicy(const PolicySwitches& policy);
  PolicySwitches policy() const;  // all off until one is set
  void addExclusion(Exclusion exclusion);
  void clearExclusions();
  void addMount(Mount mount);     // replaces an entry of the same path
  bool removeMount(const std::string& path);
  void clearMounts();
  void replaceMounts(std::vector<Mount> mounts);
  void sendVerdict(const std::string& file, bool allow);

  void setFilter(EventFilter filter);
  EventFilter filter() const;
  // {"stats":{...}}: events received and shown per kind, the links, and
  // the drops the extension counted in its metrics file, when there is one.
  std::string statsLine(const std::string& metricsFile) const;

 private:
  class Peer;
  using PeerRef = std::shared_ptr<Peer>;

  RefDaemon(Settings settings, Output out);

  void onRegister(Peer& peer, const tarvex::itx::xpc::ReplyBlock& reply);
  void onEvent(Peer& peer, const char* selector, const tarvex::itx::xpc::Dictionary& event);
  bool shownLocked(const char* selector, const tarvex::itx::xpc::Dictionary& event);
  std::optional<std::string> executableLocked(uint64_t pid) const;
  void onClosed(uint64_t id);

  uint64_t nextTimestampLocked();
  std::vector<PeerRef> registeredLocked() const;
  void pushConfigLocked(Peer& peer);
  void pushPolicyLocked(Peer& peer);
  void pushExclusionsLocked(Peer& peer);
  void pushAddMountLocked(Peer& peer, const Mount& mount);
  void pushRemoveMountLocked(Peer& peer, const std::string& path);
  void pushClearMountsLocked(Peer& peer);
  void pushVerdictLocked(Peer& peer, const std::string& file, bool allow);
  void reportReply(const char* selector, int pid, uint64_t timestamp, bool value);

  const Output out_;
  mutable std::mutex mutex_;
  Settings settings_;
  uint64_t lastTimestamp_ = 0;
  uint64_t nextPeerId_ = 1;
  std::map<uint64_t, PeerRef> peers_;
  struct Counts {
    uint64_t received = 0;
    uint64_t shown = 0;
  };
  std::map<EventKind, Counts> counts_;
  uint64_t accepted_ = 0;
  uint64_t closed_ = 0;
  // Executables by pid, from exec events, for filtering the others.
  std::unordered_map<uint64_t, std::string> executables_;
};

}  // namespace lumo::refdaemon
