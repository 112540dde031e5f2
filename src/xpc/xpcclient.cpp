#include "xpc/xpcclient.h"

#include "log/log.h"
#include "rtn/clock.h"
#include "rtn/dispatch.h"
#include "rtn/platform.h"
#include "rtnmac/machelper.h"

LUMO_LOG_MODULE("MAC_ES_SERVICE_XPC")
LUMO_LOG_EXTRA_MODULE(kClientModuleLog, "MAC_ESCLIENT")

using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::IXPCConnection;
using tarvex::itx::xpc::IXPCConnector;
using tarvex::itx::xpc::ProtectionDaemonXPCInterface;

namespace {

constexpr uint64_t kReconnectDelayNanos = 1'000'000'000;

// The entry and exit lines of the link's methods.
class MethodTrace {
 public:
  explicit MethodTrace(const char* method) : method_(method) {
    LOG_FUNC_AT(method_, "Entering %s. \n", method_);
  }
  ~MethodTrace() { LOG_FUNC_AT(method_, "Exiting %s. \n", method_); }
  MethodTrace(const MethodTrace&) = delete;
  MethodTrace& operator=(const MethodTrace&) = delete;

 private:
  const char* method_;
};

}  // namespace

SysExtXPCClient& SysExtXPCClient::sharedInstance() {
  static SysExtXPCClient* instance = [] {
    auto* client = new SysExtXPCClient();
    client->setListenerActive(false);
    return client;
  }();
  return *instance;
}

void SysExtXPCClient::setLink(ConnectionRef connection, DaemonRef daemon) {
  {
    std::lock_guard<std::mutex> lock(linkMutex_);
    std::swap(currentConnection_, connection);
    std::swap(providerProxy_, daemon);
  }
  // The old connection and proxy die here, outside the lock.
}

std::pair<SysExtXPCClient::ConnectionRef, SysExtXPCClient::DaemonRef> SysExtXPCClient::link()
    const {
  std::lock_guard<std::mutex> lock(linkMutex_);
  return {currentConnection_, providerProxy_};
}

void SysExtXPCClient::start(endpointsecurity::ClientProxy* proxy) {
  constexpr const char* kSelf = "-[SysExtXPCClient start:]";
  MethodTrace trace(kSelf);
  LOG_INFO_AT(kSelf, "XPC client start requested.\n");
  if (clientProxy_.load() != nullptr) {
    LOG_INFO_AT(kSelf, "XPC client start request rejected, it is already started.\n");
    return;
  }
  startWithClientProxy(proxy);
}

void SysExtXPCClient::stop() {
  constexpr const char* kSelf = "-[SysExtXPCClient stop]";
  MethodTrace trace(kSelf);
  LOG_INFO_AT(kSelf, "XPC client stop requested.\n");
  // Cleared before the connection goes, so that its invalidation finds the
  // link stopped and does not reconnect.
  clientProxy_.store(nullptr);
  setListenerActive(false);
  ConnectionRef connection;
  {
    std::lock_guard<std::mutex> lock(linkMutex_);
    connection = std::move(currentConnection_);
    currentConnection_.reset();
  }
  if (connection) connection->invalidate();
}

void SysExtXPCClient::startWithClientProxy(endpointsecurity::ClientProxy* proxy) {
  constexpr const char* kSelf = "-[SysExtXPCClient startWithClientProxy:]";
  MethodTrace trace(kSelf);
  clientProxy_.store(proxy);
  registerWithServiceName(kServiceName, [this](bool accepted) {
    constexpr const char* kBlock = "-[SysExtXPCClient startWithClientProxy:]_block_invoke";
    if (accepted) {
      LOG_INFO_AT(kBlock, "Registration success. The Daemon XPC is listening.\n");
      setListenerActive(true);
    } else {
      setListenerActive(false);
      LOG_ASSERT_TEXT_AT(kBlock, false, "0",
                         "Failed to register to XPC service. The Daemon XPC is not listening.\n");
    }
  });
}

void SysExtXPCClient::registerWithServiceName(const std::string& serviceName,
                                              ReplyBlock completion) {
  constexpr const char* kSelf = "-[SysExtXPCClient registerWithServiceName:withCompletionHandler:]";
  MethodTrace trace(kSelf);
  IXPCConnector* connector = tarvex::itx::rtn::platform().xpc;
  if (connector == nullptr) {
    LOG_ERROR_AT(kSelf, "No connector to reach %{public}s.\n", serviceName.c_str());
    return;
  }
  ConnectionRef connection = connector->connect(serviceName, IXPCConnector::kPrivileged);
  if (!connection) {
    LOG_ERROR_AT(kSelf, "Could not create a connection to %{public}s.\n", serviceName.c_str());
    return;
  }
  connection->setExportedObject(this);
  {
    std::lock_guard<std::mutex> lock(linkMutex_);
    currentConnection_ = connection;
  }
  connection->resume();

  // An interruption ends the link's current connection; recovery goes
  // through its invalidation. The interrupted one, held weakly, is ended
  // too should it be an older one, so that it never lingers half alive.
  std::weak_ptr<IXPCConnection> weak = connection;
  connection->setInterruptionHandler([this, weak] {
    LOG_ERROR_AT("-[SysExtXPCClient registerWithServiceName:withCompletionHandler:]_block_invoke",
                 "Interruption. Remote process stopped !\n");
    const ConnectionRef current = link().first;
    if (current) current->invalidate();
    const ConnectionRef interrupted = weak.lock();
    if (interrupted && interrupted != current) interrupted->invalidate();
  });
  connection->setInvalidationHandler([this] {
    LOG_ERROR_AT("-[SysExtXPCClient registerWithServiceName:withCompletionHandler:]_block_invoke_2",
                 "Invalidation. Connection terminated !\n");
    handleServiceConnectionFailure();
  });

  DaemonRef daemon = connection->remoteObjectProxyWithErrorHandler([](const std::string& error) {
    LOG_ERROR_AT("-[SysExtXPCClient registerWithServiceName:withCompletionHandler:]_block_invoke_3",
                 "Failed to get remote object proxy. Error: %{public}s.\n", error.c_str());
  });
  {
    std::lock_guard<std::mutex> lock(linkMutex_);
    if (currentConnection_ == connection) providerProxy_ = daemon;
  }
  if (daemon) daemon->registerWithCompletionHandler(std::move(completion));
}

void SysExtXPCClient::handleServiceConnectionFailure() {
  constexpr const char* kSelf = "-[SysExtXPCClient handleServiceConnectionFailure]";
  MethodTrace trace(kSelf);
  if (!tarvex::itx::rtnmac::MacHelper::isLumoInstalled()) {
    LOG_INFO_AT(kSelf,
                "Lumo is not installed. Extension in sleep mode. There will be no reconnection "
                "attempts.\n");
    return;
  }
  if (clientProxy_.load() == nullptr) {
    LOG_INFO_AT(kSelf,
                "The XPC connection has been stopped. There will be no reconnection attempts.\n");
    return;
  }
  LOG_ERROR_AT(kSelf, "Attempting reconnection after disconnection !\n");
  setLink(nullptr, nullptr);
  setListenerActive(false);

  const tarvex::itx::rtn::Platform& seams = tarvex::itx::rtn::platform();
  seams.dispatch->after(seams.clock->now() + seams.clock->nanosToTicks(kReconnectDelayNanos),
                        seams.dispatch->globalQueue(tarvex::itx::rtn::kPriorityDefault), [this] {
                          if (endpointsecurity::ClientProxy* proxy = clientProxy_.load()) {
                            startWithClientProxy(proxy);
                          } else {
                            LOG_INFO_AT(
                                "-[SysExtXPCClient handleServiceConnectionFailure]_block_invoke",
                                "The XPC connection has been stopped.\n");
                          }
                        });
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
