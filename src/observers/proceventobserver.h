#pragma once

#include <EndpointSecurity/EndpointSecurity.h>

#include <string>

#include "esclient/esapi.h"
#include "esclient/eventobserver.h"
#include "rtn/platform.h"
#include "sysext.pb.h"

namespace endpointsecurity {

// Reports process starts (exec, fork) and exits to the daemon. Never answers
// an AUTH message.
class ProcEventObserver : public EventObserver {
 public:
  explicit ProcEventObserver(IEndpointSecurityApi& api = *tarvex::itx::rtn::platform().es);
  ~ProcEventObserver() override = default;

  std::string getName() const override { return "ProcEventObserver"; }
  void onNotify(const es_message_t* message, es_client_t* client) override;

  // The exec's command line without the program name, one blank between
  // arguments.
  std::string collectArgs(const es_events_t* event) const;
  // Shells and system daemons whose churn the daemon doesn't want.
  bool isExcluded(const es_process_t* process) const;

  void onProcessExit(const sysext::ProcEvent* event);
  // A fork and an exec give the same kind of start record.
  void onProcessConnect(const sysext::ProcEvent* event, bool isFork);

 private:
  IEndpointSecurityApi& api;
};

}  // namespace endpointsecurity
