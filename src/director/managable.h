#pragma once

#include <string>

#include "director/flagset.h"

namespace endpointsecurity {

// A component the director runs: an Endpoint Security client or an observer.
class ISysExtManagable {
 public:
  virtual bool start() = 0;
  virtual bool stop() = 0;
  virtual bool init() = 0;
  virtual void uninit() = 0;
  virtual std::string getName() const = 0;
  virtual void setName(const std::string& name) = 0;
  virtual bool switchMode(const flag_set<CLIENT_OBSERVER_TAGS>& observers, bool mode) = 0;
  virtual void activate() {}
  virtual void deactivate() {}
  virtual ~ISysExtManagable() = default;

  // Set once by the owner after construction.
  const ObserverTags& tags() const { return tags_; }
  void setTags(const ObserverTags& tags) { tags_ = tags; }

 private:
  ObserverTags tags_;
};

}  // namespace endpointsecurity
