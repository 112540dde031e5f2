#include "xpc/xpcclient.h"

#include "log/log.h"

LUMO_LOG_MODULE("MAC_ES_SERVICE_XPC")
LUMO_LOG_EXTRA_MODULE(kClientModuleLog, "MAC_ESCLIENT")

using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::ProtectionDaemonXPCInterface;

SysExtXPCClient& SysExtXPCClient::sharedInstance() {
  static SysExtXPCClient* instance = [] {
    auto* client = new SysExtXPCClient();
    client->setListenerActive(false);
    return client;
  }();
  return *instance;
}

void SysExtXPCClient::setLink(ConnectionRef connection, DaemonRef daemon) {
  std::lock_guard<std::mutex> lock(linkMutex_);
  currentConnection_ = std::move(connection);
  providerProxy_ = std::move(daemon);
}

std::pair<SysExtXPCClient::ConnectionRef, SysExtXPCClient::DaemonRef> SysExtXPCClient::link()
    const {
  std::lock_guard<std::mutex> lock(linkMutex_);
  return {currentConnection_, providerProxy_};
}

template <typename Event, typename Send>
void SysExtXPCClient::send(const char* method, const Event* event,
                           std::optional<Dictionary> (*convert)(const Event*),
                           bool creatingWording, Send deliver) {
  auto [connection, daemon] = link();
  if (!connection || !daemon) {
    LOG_WARN_AT(method, "No connection. %{public}s\n", method);
    return;
  }
  std::optional<Dictionary> eventDict = convert(event);
  if (!eventDict) {
    // The two wordings differ between event kinds; both are kept.
    if (creatingWording) {
      LOG_ASSERT_TEXT_AT(method, false, "eventDict", "Error creating event dictionary.\n");
    } else {
      LOG_ASSERT_TEXT_AT(method, false, "eventDict", "Error converting event to dictionary.\n");
    }
    return;
  }
  deliver(*daemon, *eventDict);
}

void SysExtXPCClient::sendFileEvent(const sysext::FileEvent* event) {
  send("-[SysExtXPCClient sendFileEvent:]", event, &convertFileEventToDict, false,
       [](ProtectionDaemonXPCInterface& d, const Dictionary& dict) { d.handleFileEvent(dict); });
}

void SysExtXPCClient::sendPrinterEvent(const sysext::PrinterEvent* event) {
  send("-[SysExtXPCClient sendPrinterEvent:]", event, &convertPrinterEventToDict, false,
       [](ProtectionDaemonXPCInterface& d, const Dictionary& dict) { d.handlePrinterEvent(dict); });
}

void SysExtXPCClient::sendProcessStartEvent(const sysext::ProcEvent* event) {
  send("-[SysExtXPCClient sendProcessStartEvent:]", event, &convertProcEventToDict, false,
       [](ProtectionDaemonXPCInterface& d, const Dictionary& dict) {
         d.handleProcessStartEvent(dict);
       });
}

void SysExtXPCClient::sendProcessExitEvent(const sysext::ProcEvent* event) {
  send("-[SysExtXPCClient sendProcessExitEvent:]", event, &convertProcEventToDict, true,
       [](ProtectionDaemonXPCInterface& d, const Dictionary& dict) {
         d.handleProcessExitEvent(dict);
       });
}
