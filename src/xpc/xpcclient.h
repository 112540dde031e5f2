#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

#include "sysext.pb.h"
#include "xpc/xpcconnection.h"

namespace endpointsecurity {
class ClientProxy;
}

// The extension's link to the protection daemon: a process-wide singleton
// that carries event records out as dictionaries and the daemon's control
// calls in.
class SysExtXPCClient {
 public:
  using Dictionary = tarvex::itx::xpc::Dictionary;

  static SysExtXPCClient& sharedInstance();

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

  friend class SysExtXPCClientTestPeer;
};
