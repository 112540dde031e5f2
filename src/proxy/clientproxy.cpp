#include "proxy/clientproxy.h"

#include "log/log.h"
#include "xpc/xpcclient.h"

LUMO_LOG_MODULE("MAC_ESCLIENT")

namespace endpointsecurity {

using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::Value;

namespace {

const Value* lookUp(const Dictionary* policy, const char* key) {
  return policy != nullptr ? policy->find(key) : nullptr;
}

const Number* numberOf(const Value* value) {
  return value != nullptr ? value->number() : nullptr;
}

}  // namespace

ClientProxy::ClientProxy()
    : dupClient_(std::make_unique<Client>()),
      shieldClient_(std::make_unique<Client>()),
      procObserver_(std::make_unique<ProcEventObserver>()),
      fileObserver_(std::make_unique<FileEventObserver>()),
      printerObserver_(std::make_unique<PrinterEventObserver>()),
      shieldObserver_(std::make_unique<SelfProtectionObserver>()),
      director_(std::make_unique<ISysextDirector>()),
      config_(std::make_unique<SysextConfig>()) {
  director_->pushBackManagable(dupClient_.get());
  director_->pushBackManagable(shieldClient_.get());
  director_->pushBackManagable(procObserver_.get());
  director_->pushBackManagable(fileObserver_.get());
  director_->pushBackManagable(printerObserver_.get());
  director_->pushBackManagable(shieldObserver_.get());

  dupClient_->setName("ClientDUP");
  dupClient_->setTags(TagAllClients | TagClientDup);
  shieldClient_->setName("ClientShield");
  shieldClient_->setTags(TagAllClients | TagClientShield);
  procObserver_->setTags(TagProcObserver | TagAllObservers);
  fileObserver_->setTags(TagFileObserver | TagAllObservers);
  printerObserver_->setTags((TagPrinterObserver | TagPrinterGroup) | TagAllObservers);
  shieldObserver_->setTags((TagShieldObserver | TagShieldGroup) | TagAllObservers);
}

ClientProxy::~ClientProxy() {
  SysExtXPCClient::sharedInstance().stop();
  // Clients before observers: blocks still queued on a client call them.
  dupClient_.reset();
  shieldClient_.reset();
}

bool ClientProxy::init() {
  if (!director_->init()) return false;

  const SysextExclusions stored = config_->exclusions();
  applyExclusions(stored.processPaths, stored.pathPrefixes, stored.bundleIds);

  dupClient_->registerObserver(procObserver_.get());
  dupClient_->registerObserver(fileObserver_.get());
  dupClient_->registerObserver(printerObserver_.get());
  // The self-protection slot has no event types to register yet.

  LOG_INFO("protection is enabled\n");
  return true;
}

bool ClientProxy::start() {
  LOG_TRACE_SCOPE();
  bool applied = false;
  {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    applied = applySettings();
  }
  if (!applied) {
    LOG_WARN("Failed to apply settigns\n");
    return false;
  }
  SysExtXPCClient::sharedInstance().start(this);
  return true;
}

void ClientProxy::sleep() {
  director_->switchMode(TagAllClients, TagAllObservers, false);
  SysExtXPCClient::sharedInstance().stop();
  LOG_INFO("sleeping\n");
}

void ClientProxy::stop() {
  director_->switchMode(TagAllClients, TagAllObservers, false);
  director_->stop();
  director_->uninit();
  director_->clear();
  dupClient_.reset();
  shieldClient_.reset();
  procObserver_.reset();
  fileObserver_.reset();
  printerObserver_.reset();
  shieldObserver_.reset();
  LOG_INFO("stopped\n");
}

bool ClientProxy::applySettings() {
  LOG_TRACE_SCOPE();
  const SysextSettings settings = config_->settings();

  LOG_DEBUG("Going to set Self Protection to %{bool}d\n", settings.antitampering);
  // The self-protection client has no event of its own to subscribe yet;
  // only its observer follows the switch.
  if (!director_->switchMode({}, TagShieldObserver, settings.antitampering)) {
    LOG_WARN("failed to start system extension Self Protection component\n");
    return false;
  }

  // The process observer serves all three features, the file observer data
  // protection and device control, the printer observer data protection.
  const bool common = settings.dup || settings.webcontrol || settings.devicecontrol;
  LOG_DEBUG("Going to set Common observers for DUP, Web Control and Device Control to %{bool}d\n",
            common);
  if (!director_->switchMode(TagClientDup, TagProcObserver, common)) {
    LOG_WARN("failed to start system extension for DUP, WebControl and Device Control "
             "components\n");
    return false;
  }

  const bool files = settings.dup || settings.devicecontrol;
  LOG_DEBUG("Going to set Common observers for DUP and Device Control to %{bool}d\n", files);
  if (!director_->switchMode(TagClientDup, TagFileObserver, files)) {
    LOG_WARN("failed to start system extension DUP and Device Control components\n");
    return false;
  }

  LOG_DEBUG("Going to set DUP to %{bool}d\n", settings.dup);
  if (!director_->switchMode(TagClientDup, TagPrinterObserver, settings.dup)) {
    LOG_WARN("failed to start system extension DUP component\n");
    return false;
  }
  return true;
}

bool ClientProxy::applySettings(const Dictionary* policy) {
  std::lock_guard<std::mutex> lock(settingsMutex_);

  // Every key is checked before anything is stored: a rejected payload
  // leaves settings and modes as they were.
  const Value* antitamperingState = lookUp(policy, "antitamperingon");
  LOG_ASSERT_TEXT(antitamperingState, "antitamperingState",
                  "The setPolicy payload has no antitamperingon key.\n");
  if (antitamperingState == nullptr) return false;
  const Number* antitampering = numberOf(antitamperingState);
  LOG_ASSERT_TEXT(antitampering, "[antitamperingState isKindOfClass:[NSNumber class]]",
                  "The setPolicy payload antitamperingon key is not a boolean.\n");
  if (antitampering == nullptr) return false;

  const Value* dupState = lookUp(policy, "dupon");
  LOG_ASSERT_TEXT(dupState, "dupState", "The setPolicy payload has no dupon key.\n");
  if (dupState == nullptr) return false;
  const Number* dup = numberOf(dupState);
  LOG_ASSERT_TEXT(dup, "[dupState isKindOfClass:[NSNumber class]]",
                  "The setPolicy payload dupon key is not a boolean.\n");
  if (dup == nullptr) return false;

  const Value* webControlState = lookUp(policy, "webcontrolon");
  LOG_ASSERT_TEXT(webControlState, "webControlState",
                  "The setPolicy payload has no webcontrolon key.\n");
  if (webControlState == nullptr) return false;
  const Number* webControl = numberOf(webControlState);
  LOG_ASSERT_TEXT(webControl, "[webControlState isKindOfClass:[NSNumber class]]",
                  "The setPolicy payload webControlState key is not a boolean.\n");
  if (webControl == nullptr) return false;

  // The device-control lines name "webControlState"; that is how they read.
  const Value* deviceControlState = lookUp(policy, "devicecontrolon");
  LOG_ASSERT_TEXT(deviceControlState, "webControlState",
                  "The setPolicy payload has no devicecontrolon key.\n");
  if (deviceControlState == nullptr) return false;
  const Number* deviceControl = numberOf(deviceControlState);
  LOG_ASSERT_TEXT(deviceControl, "[webControlState isKindOfClass:[NSNumber class]]",
                  "The setPolicy payload deviceControlState key is not a boolean.\n");
  if (deviceControl == nullptr) return false;

  config_->settings({antitampering->intValue() != 0, dup->intValue() != 0,
                     webControl->intValue() != 0, deviceControl->intValue() != 0});
  return applySettings();
}

bool ClientProxy::applyExclusions(const std::vector<std::string>& processPaths,
                                  const std::vector<std::string>& pathPrefixes,
                                  const std::vector<std::string>& bundleIds) {
  std::lock_guard<std::mutex> lock(settingsMutex_);
  LOG_INFO("applying exclusions\n");
  int applied = 0;
  for (Client* client : {dupClient_.get(), shieldClient_.get()}) {
    if (client != nullptr && client->applyExclusions(processPaths, pathPrefixes, bundleIds)) {
      ++applied;
    }
  }
  // Stored whatever the clients said, so the next start applies them.
  config_->exclusions({processPaths, pathPrefixes, bundleIds});
  return applied == 0;
}

grpc::Status ClientProxy::addMountPoint(grpc::ServerContext* context,
                                        const sysext::AddMountPoint* request,
                                        sysext::AddMountPointReply* /*reply*/) {
  if (fileObserver_) fileObserver_->addMountPoint(request->volume(), request->type());
  // Too late to undo anything: a cancelled request is only reported.
  if (context != nullptr && context->IsCancelled()) LOG_ERROR("addMountPoint cancelled\n");
  return grpc::Status::OK;
}

grpc::Status ClientProxy::removeMountPoint(grpc::ServerContext* context,
                                           const sysext::RemoveMountPoint* request,
                                           sysext::RemoveMountPointReply* /*reply*/) {
  if (fileObserver_) fileObserver_->removeMountPoint(request->volume());
  if (context != nullptr && context->IsCancelled()) LOG_ERROR("removeMountPoint cancelled\n");
  return grpc::Status::OK;
}

grpc::Status ClientProxy::clearMountPoints(grpc::ServerContext* context,
                                           const sysext::ClearMountPoints* /*request*/,
                                           sysext::ClearMountPointsReply* /*reply*/) {
  if (fileObserver_) fileObserver_->clearMountPoints();
  if (context != nullptr && context->IsCancelled()) LOG_ERROR("clearMountPoints cancelled\n");
  return grpc::Status::OK;
}

grpc::Status ClientProxy::setPrinterVerdict(grpc::ServerContext* context,
                                            const sysext::PrinterVerdict* request,
                                            sysext::PrinterVerdictReply* /*reply*/) {
  if (printerObserver_) {
    printerObserver_->setPrinterEventVerdict(request->filename(), request->verdict());
  }
  if (context != nullptr && context->IsCancelled()) LOG_ERROR("setPrinterVerdict cancelled\n");
  return grpc::Status::OK;
}

}  // namespace endpointsecurity
