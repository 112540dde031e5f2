#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sysext.pb.h"
#include "xpc/xpcconnection.h"

namespace endpointsecurity {
class ClientProxy;
}

// The extension's link to the protection daemon: a process-wide singleton
// that registers with the daemon's service, carries event records out as
// dictionaries and hands the daemon's control calls to the client proxy.
// It is itself the object the connection exports.
class SysExtXPCClient : public tarvex::itx::xpc::SysextXPCInterface {
 public:
  using Dictionary = tarvex::itx::xpc::Dictionary;
  using Array = tarvex::itx::xpc::Array;
  using ReplyBlock = tarvex::itx::xpc::ReplyBlock;

  static constexpr const char* kServiceName = "com.tarvex.lumo.protectiond.xpc";

  static SysExtXPCClient& sharedInstance();

  // Starts the link for `proxy`; refused while already started.
  void start(endpointsecurity::ClientProxy* proxy);
  // Ends the link; the invalidation that follows does not reconnect.
  void stop();
  void startWithClientProxy(endpointsecurity::ClientProxy* proxy);
  void registerWithServiceName(const std::string& serviceName, ReplyBlock completion);
  // What to do when the connection is gone: retry in 1 s while started.
  void handleServiceConnectionFailure();

  // True once the daemon has accepted our registration.
  bool isXPCServiceListening() const { return listenerActive_.load(); }

  // Fire-and-forget: dropped with a Warn line while there is no connection.
  void sendFileEvent(const sysext::FileEvent* event);
  void sendPrinterEvent(const sysext::PrinterEvent* event);
  void sendProcessStartEvent(const sysext::ProcEvent* event);
  void sendProcessExitEvent(const sysext::ProcEvent* event);

  // The dictionaries the daemon receives; nullopt when a value can't be
  // represented (a string that is not UTF-8).
  static std::optional<Dictionary> convertFileEventToDict(const sysext::FileEvent* event);
  static std::optional<Dictionary> convertPrinterEventToDict(const sysext::PrinterEvent* event);
  static std::optional<Dictionary> convertProcEventToDict(const sysext::ProcEvent* event);

  // Calls from the daemon.
  void addMountPoint(const std::string* volume, uint64_t mountType) override;
  void removeMountPoint(const std::string* volume) override;
  void clearMountPoints() override;
  void setPolicy(const Dictionary* policy, uint64_t timestamp, ReplyBlock reply) override;
  void setExclusions(const Array* exclusions, uint64_t timestamp, ReplyBlock reply) override;
  void setPrinter(const std::string* printer, bool verdict) override;

 protected:
  SysExtXPCClient() = default;

  using ConnectionRef = std::shared_ptr<tarvex::itx::xpc::IXPCConnection>;
  using DaemonRef = std::shared_ptr<tarvex::itx::xpc::ProtectionDaemonXPCInterface>;

  void setListenerActive(bool active) { listenerActive_.store(active); }
  void setLink(ConnectionRef connection, DaemonRef daemon);
  // Snapshot of the connection and the daemon's proxy; either may be null.
  std::pair<ConnectionRef, DaemonRef> link() const;

 private:
  template <typename Event, typename Send>
  void send(const char* method, const Event* event,
            std::optional<Dictionary> (*convert)(const Event*), bool creatingWording,
            Send deliver);

  std::atomic<bool> listenerActive_{false};
  mutable std::mutex linkMutex_;  // leaf lock: guards the two pointers only
  ConnectionRef currentConnection_;
  DaemonRef providerProxy_;
  std::atomic<endpointsecurity::ClientProxy*> clientProxy_{nullptr};
  std::atomic<uint64_t> lastPolicySettingTimestamp_{0};
  std::atomic<uint64_t> lastExclusionsSettingTimestamp_{0};

  friend class SysExtXPCClientTestPeer;
};
