#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "director/sysextstartable.h"
#include "esclient/client.h"
#include "observers/fileeventobserver.h"
#include "observers/printereventobserver.h"
#include "observers/proceventobserver.h"
#include "proxy/sysextconfig.h"
#include "shield/selfprotection.h"
#include "sysext.grpc.pb.h"
#include "xpc/xpcvalue.h"

namespace endpointsecurity {

// Owns the Endpoint Security clients and observers and is the one entry
// point for control: lifecycle from the control loop, policy, exclusions,
// mount points and print verdicts from the daemon link. Policy becomes
// director mode switches; policy and exclusions are kept for the next start.
class ClientProxy : public sysext::InService::Service {
 public:
  ClientProxy();
  ~ClientProxy() override;
  ClientProxy(const ClientProxy&) = delete;
  ClientProxy& operator=(const ClientProxy&) = delete;

  bool init();
  // Applies the stored policy, then brings the daemon link up.
  bool start();
  // Everything off and the link down; start wakes it again.
  void sleep();
  // Uninstall: everything off, stopped and released. Final.
  void stop();

  // Applies the stored settings; the caller holds the settings mutex.
  bool applySettings();
  // Validates, stores and applies a policy from the daemon.
  bool applySettings(const tarvex::itx::xpc::Dictionary* policy);
  // True when no client took the exclusions: the link's reply inverts it.
  bool applyExclusions(const std::vector<std::string>& processPaths,
                       const std::vector<std::string>& pathPrefixes,
                       const std::vector<std::string>& bundleIds);

  grpc::Status addMountPoint(grpc::ServerContext* context, const sysext::AddMountPoint* request,
                             sysext::AddMountPointReply* reply) override;
  grpc::Status removeMountPoint(grpc::ServerContext* context,
                                const sysext::RemoveMountPoint* request,
                                sysext::RemoveMountPointReply* reply) override;
  grpc::Status clearMountPoints(grpc::ServerContext* context,
                                const sysext::ClearMountPoints* request,
                                sysext::ClearMountPointsReply* reply) override;
  grpc::Status setPrinterVerdict(grpc::ServerContext* context,
                                 const sysext::PrinterVerdict* request,
                                 sysext::PrinterVerdictReply* reply) override;

  const SysextConfig& config() const { return *config_; }
  const ISysextDirector& director() const { return *director_; }

 private:
  std::unique_ptr<Client> dupClient_;
  std::unique_ptr<Client> shieldClient_;
  std::unique_ptr<ProcEventObserver> procObserver_;
  std::unique_ptr<FileEventObserver> fileObserver_;
  std::unique_ptr<PrinterEventObserver> printerObserver_;
  std::unique_ptr<SelfProtectionObserver> shieldObserver_;
  // Serialises start, policy and exclusions. Taken before the store's mutex.
  std::mutex settingsMutex_;
  std::unique_ptr<ISysextDirector> director_;
  std::unique_ptr<SysextConfig> config_;
};

}  // namespace endpointsecurity
