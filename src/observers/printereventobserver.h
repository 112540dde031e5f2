#pragma once

#include <EndpointSecurity/EndpointSecurity.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "esclient/esapi.h"
#include "esclient/eventobserver.h"
#include "observers/cupspaths.h"
#include "rtn/platform.h"

namespace endpointsecurity {

// Holds print jobs for the daemon's verdict: remembers who connected to the
// printing system's socket, reports each job data file spooled, and denies
// the filter, backend or monitor programs of a blocked job.
class PrinterEventObserver : public EventObserver {
 public:
  enum class AuthResult : uint8_t {
    Pending = 0,  // reported, no verdict yet
    Blocked = 1,  // the daemon said no, or the file is unknown
    Allowed = 2,
  };

  using Sleeper = std::function<void(std::chrono::milliseconds)>;

  explicit PrinterEventObserver(IEndpointSecurityApi& api = *tarvex::itx::rtn::platform().es,
                                CupsPaths paths = cupsPaths(), Sleeper sleep = defaultSleep);
  ~PrinterEventObserver() override = default;

  bool init() override;
  std::string getName() const override { return "PrinterEventObserver"; }
  void onNotify(const es_message_t* message, es_client_t* client) override;
  bool onAuth(const es_message_t* message, es_client_t* client) override;

  void handleCupsSocketEvent(const es_message_t* message);
  void handleCupsFileEvent(const std::string& filename);
  // True when the execution must be denied.
  bool handleCupsFilterEvent(const es_message_t* message);
  void cmdArgs(const es_events_t* event, std::vector<std::string>& args) const;

  void setPrinterEventVerdict(const std::string& filename, bool verdict);
  AuthResult getPrinterEventVerdict(const std::string& filename);

 private:
  static void defaultSleep(std::chrono::milliseconds duration);

  IEndpointSecurityApi& api;
  const CupsPaths paths;
  const Sleeper sleep;

  std::set<std::string, std::less<>> filters;
  std::map<std::string, AuthResult, std::less<>> verdicts;
  // Lock order: filterMutex, then verdictMutex. socketMutex is never held
  // with either.
  std::mutex verdictMutex;
  std::mutex filterMutex;
  std::mutex socketMutex;
  uint32_t submitterPid = 0;
};

}  // namespace endpointsecurity
