#pragma once

#include <EndpointSecurity/EndpointSecurity.h>

#include <bitset>
#include <cstdint>
#include <string>

namespace endpointsecurity::linux_es {

class IEventSource;
class Message;
class ProcessCache;

using EventSet = std::bitset<ES_EVENT_TYPE_LAST>;

// Where sources hand their messages: the facility hub.
class IEventSink {
 public:
  virtual ~IEventSink() = default;
  // Takes the source's reference. AUTH messages carry their verdict and
  // budget; the hub sets the deadline and answers them one way or another.
  virtual void deliver(Message* message) = 0;
  // Whether any client is subscribed to the type right now.
  virtual bool wants(es_event_type_t type) const = 0;
  virtual ProcessCache& processes() = 0;
  virtual uint64_t now() = 0;
  // Every other source delivers what its kernel queue holds so far. A
  // source calls this before it reads its own queue, so that across
  // sources an event does not reach the clients ahead of those that came
  // before it (a spooler's data file after its submitter's connect).
  virtual void catchUpOthers(const IEventSource* asking) = 0;
};

// One kernel mechanism feeding the hub. The hub tells it, under its own
// lock, which of its types clients want; a source with nothing wanted
// holds no kernel marks or programs.
class IEventSource {
 public:
  virtual ~IEventSource() = default;
  virtual const char* name() const = 0;
  // Types this source produces.
  virtual EventSet types() const = 0;
  // Brings kernel state in line with `wanted` (a subset of types()). False
  // when some of it could not be set up; the reason is logged.
  virtual bool apply(const EventSet& wanted) = 0;
  // Detaches everything and joins the source's threads.
  virtual void stop() = 0;
  // Called before an authorisation is delivered, on its thread, and
  // before another source reads its queue: delivers first what the kernel
  // queued for this source that a client must see before it, as it would
  // from the kernel. Never calls back into the hub's catch-up.
  virtual void catchUp() {}
};

}  // namespace endpointsecurity::linux_es
