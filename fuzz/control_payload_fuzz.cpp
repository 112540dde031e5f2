// The daemon's policy and exclusion payloads, from the socket to the
// client proxy: a frame that passes the link's checks is handed to the
// extension's link object over a proxy running on a facility that accepts
// everything. Whatever the payload, the process must neither crash nor let
// a payload it refused change the stored settings.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "log/logsink.h"
#include "proxy/clientproxy.h"
#include "rtn/platform.h"
#include "xpc/callcheck.h"
#include "xpc/calldispatch.h"
#include "xpc/framecodec.h"
#include "xpc/xpcclient.h"

namespace transport = tarvex::itx::xpc::linux_platform;

namespace {

// A facility that says yes to every call and delivers nothing.
class AcceptingFacility : public endpointsecurity::IEndpointSecurityApi {
 public:
  es_new_client_result_t newClient(es_client_t** c, endpointsecurity::MessageHandler) override {
    *c = reinterpret_cast<es_client_t*>(this);
    return ES_NEW_CLIENT_RESULT_SUCCESS;
  }
  es_return_t deleteClient(es_client_t*) override { return ES_RETURN_SUCCESS; }
  es_clear_cache_result_t clearCache(es_client_t*) override {
    return ES_CLEAR_CACHE_RESULT_SUCCESS;
  }
  es_return_t subscribe(es_client_t*, const es_event_type_t*, uint32_t) override {
    return ES_RETURN_SUCCESS;
  }
  es_return_t unsubscribe(es_client_t*, const es_event_type_t*, uint32_t) override {
    return ES_RETURN_SUCCESS;
  }
  es_respond_result_t respondAuthResult(es_client_t*, const es_message_t*, es_auth_result_t,
                                        bool) override {
    return ES_RESPOND_RESULT_SUCCESS;
  }
  es_respond_result_t respondFlagsResult(es_client_t*, const es_message_t*, uint32_t,
                                         bool) override {
    return ES_RESPOND_RESULT_SUCCESS;
  }
  void retainMessage(const es_message_t*) override {}
  void releaseMessage(const es_message_t*) override {}
  es_return_t muteProcess(es_client_t*, const audit_token_t*) override { return ES_RETURN_SUCCESS; }
  es_return_t unmuteProcess(es_client_t*, const audit_token_t*) override {
    return ES_RETURN_SUCCESS;
  }
  es_return_t mutedProcesses(es_client_t*, size_t* count, audit_token_t** tokens) override {
    *count = 0;
    *tokens = nullptr;
    return ES_RETURN_SUCCESS;
  }
  void releaseMutedProcesses(audit_token_t*, size_t) override {}
  es_return_t mutePathPrefix(es_client_t*, const char*) override { return ES_RETURN_SUCCESS; }
  es_return_t mutePathLiteral(es_client_t*, const char*) override { return ES_RETURN_SUCCESS; }
  es_return_t unmuteAllPaths(es_client_t*) override { return ES_RETURN_SUCCESS; }
  uint32_t execArgCount(const es_event_exec_t*) override { return 0; }
  es_string_token_t execArg(const es_event_exec_t*, uint32_t) override { return {0, nullptr}; }
};

class NullSink : public tarvex::itx::log::ILogSink {
 public:
  void write(const tarvex::itx::log::LogObject&, tarvex::itx::log::LogType,
             std::string_view) override {}
};

struct World {
  World() : dispatch(clock) {
    tarvex::itx::log::setSink(&sink);
    tarvex::itx::rtn::setPlatform({&facility, &dispatch, &clock, nullptr});
    proxy = std::make_unique<endpointsecurity::ClientProxy>();
    proxy->init();
    // Started without a connector: the link stays down but takes calls.
    SysExtXPCClient::sharedInstance().start(proxy.get());
  }
  NullSink sink;
  AcceptingFacility facility;
  tarvex::itx::rtn::linux_platform::MonotonicClock clock;
  tarvex::itx::rtn::linux_platform::LinuxDispatch dispatch;
  std::unique_ptr<endpointsecurity::ClientProxy> proxy;
};

uint64_t gTimestamp = 0;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World* world = new World();
  std::string error;
  auto frames = transport::decodeMessage(
      std::string_view(reinterpret_cast<const char*>(data), size), &error);
  if (!frames || frames->size() != 1) return 0;
  auto* call = std::get_if<transport::CallFrame>(&frames->front());
  if (call == nullptr || !transport::checkCall(transport::Protocol::Sysext, *call).empty()) {
    return 0;
  }
  // Fresh timestamps, so that every payload gets applied rather than
  // refused as stale.
  if (call->args.size() >= 2 && call->args[1].number() != nullptr) {
    call->args[1] = tarvex::itx::xpc::Value(tarvex::itx::xpc::Number::ofUnsignedLongLong(++gTimestamp));
  }
  const auto before = world->proxy->config().settings();
  bool replied = false;
  bool accepted = false;
  transport::dispatchCall(*call, SysExtXPCClient::sharedInstance(), [&](bool ok) {
    replied = true;
    accepted = ok;
  });
  if (call->selector == "setPolicy:withTimestamp:andCompletionHandler:" && replied && !accepted) {
    const auto after = world->proxy->config().settings();
    if (after.dup != before.dup || after.webcontrol != before.webcontrol ||
        after.devicecontrol != before.devicecontrol || after.antitampering != before.antitampering) {
      std::fprintf(stderr, "a refused policy changed the stored settings\n");
      std::abort();
    }
  }
  return 0;
}
