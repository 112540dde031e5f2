#pragma once

#include <EndpointSecurity/EndpointSecurity.h>

#include <atomic>
#include <string>
#include <vector>

#include "director/managable.h"

namespace endpointsecurity {

// Base of every observer: the event types it wants and whether it is on.
// The client calls an observer only while it is active.
class EventObserver : public ISysExtManagable {
 public:
  bool start() override { return true; }
  bool stop() override { return true; }
  bool init() override { return true; }
  void uninit() override {}
  void setName(const std::string&) override {}
  bool switchMode(const flag_set<CLIENT_OBSERVER_TAGS>&, bool) override { return true; }
  void activate() override { active.store(true); }
  void deactivate() override { active.store(false); }

  virtual void onNotify(const es_message_t* /*message*/, es_client_t* /*client*/) {}
  // True when the observer answered the message itself on `client`.
  virtual bool onAuth(const es_message_t* /*message*/, es_client_t* /*client*/) { return false; }

  const std::vector<es_event_type_t>& eventTypes() const { return events; }
  bool isActive() const { return active.load(); }

 protected:
  std::vector<es_event_type_t> events;
  std::atomic<bool> active{false};
};

}  // namespace endpointsecurity
