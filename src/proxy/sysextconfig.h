#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace endpointsecurity {

// The daemon's policy switches, as last received.
struct SysextSettings {
  bool antitampering = false;  // self-protection
  bool dup = false;            // data protection, "dupon"
  bool webcontrol = false;     // "webcontrolon"
  bool devicecontrol = false;  // "devicecontrolon"
};

// What must not be watched. Copies are snapshots: nobody shares the arrays.
struct SysextExclusions {
  std::vector<std::string> processPaths;  // exact executable paths
  std::vector<std::string> pathPrefixes;
  std::vector<std::string> bundleIds;  // code-signing identifiers
};

// Last policy and exclusions from the daemon, in memory only, so that every
// start and wake-up can apply them again. A new process starts from the
// defaults: nothing switched on, other vendors' security products excluded.
class SysextConfig {
 public:
  SysextConfig();

  SysextSettings settings() const;
  int settings(const SysextSettings& settings);
  SysextExclusions exclusions() const;
  // Replaces all three arrays, the defaults included.
  int exclusions(const SysextExclusions& exclusions);

 private:
  SysextSettings settings_;
  SysextExclusions exclusions_;
  mutable std::mutex mutex_;
};

}  // namespace endpointsecurity
