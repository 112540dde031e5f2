#pragma once

#include <vector>

#include "director/managable.h"

namespace endpointsecurity {

// Runs lifecycle operations over the extension's components in list order.
// It does not own them and takes no lock: callers serialise.
class ISysextDirector {
 public:
  bool pushBackManagable(ISysExtManagable* component);
  bool init();
  void uninit();
  void stop();
  // Switches the clients that carry any of `clients` (they subscribe or
  // unsubscribe their observers' events), then activates or deactivates
  // every component that carries any of `observers`. Always true: a failed
  // client switch is only logged.
  bool switchMode(const flag_set<CLIENT_OBSERVER_TAGS>& clients,
                  const flag_set<CLIENT_OBSERVER_TAGS>& observers, bool mode);
  void clear() { components_.clear(); }
  const std::vector<ISysExtManagable*>& components() const { return components_; }

 private:
  std::vector<ISysExtManagable*> components_;
};

}  // namespace endpointsecurity
