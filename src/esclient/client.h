#pragma once

#include <EndpointSecurity/EndpointSecurity.h>
#include <mach/mach_time.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "director/managable.h"
#include "esclient/esapi.h"
#include "esclient/eventobserver.h"
#include "rtn/dispatch.h"
#include "rtn/platform.h"

namespace endpointsecurity {

// One Endpoint Security client: subscribes the union of its observers'
// event types, hands each message to the active observers of its type on
// its own queues, answers every AUTH message before the deadline, and mutes
// what must not be watched.
class Client : public ISysExtManagable {
 public:
  explicit Client(const tarvex::itx::rtn::Platform& seams = tarvex::itx::rtn::platform());
  ~Client() override;

  bool start() override;
  bool stop() override;
  bool init() override;
  void uninit() override {}
  std::string getName() const override { return name; }
  void setName(const std::string& newName) override { name = newName; }
  bool switchMode(const flag_set<CLIENT_OBSERVER_TAGS>& tags, bool activate) override;

  bool registerObserver(EventObserver* observer);

  // Walk the observers of the message's type (called on the client's queues).
  void onAuth(const es_message_t* message);
  void onNotify(const es_message_t* message);

  // Muting.
  bool checkAndMute(const es_message_t* message);
  void setBundleIdsToMute(const std::vector<std::string>& bundleIds);
  bool applyExclusions(const std::vector<std::string>& processFiles,
                       const std::vector<std::string>& pathPrefixes,
                       const std::vector<std::string>& bundleIds);
  bool unMuteAllExclusions();
  void muteLumoProcesses();
  void muteIrrelevantProcesses();

  // Allow, never cached: all flags for AUTH_OPEN, ALLOW for the rest.
  void respondDefault(const es_message_t* message);

 private:
  struct HeldMessage;

  void handleMessage(const es_message_t* message);
  void dispatchAuth(const es_message_t* message);
  void onDeadline(HeldMessage& auth);
  void leaveFlight();

  IEndpointSecurityApi& api;
  tarvex::itx::rtn::IDispatch& dispatch;
  tarvex::itx::rtn::IClock& clock;

  std::atomic<es_client_t*> esClient{nullptr};
  std::multimap<es_event_type_t, EventObserver*> observers;
  tarvex::itx::rtn::QueueRef authQueue;
  tarvex::itx::rtn::QueueRef authDeadlineQueue;
  tarvex::itx::rtn::QueueRef notifyQueue;
  int32_t pid = 0;
  std::atomic<bool> shuttingDown{false};
  std::mutex muteListMutex;
  std::set<std::string, std::less<>> bundleIdsToMute;
  std::string name;
  mach_timebase_info_data_t timebase{};
  // Messages retained and queued, not yet handled; the destructor waits.
  std::atomic<int> inFlight{0};
};

}  // namespace endpointsecurity
