// The daemon's control calls: policy, exclusions, mount points and printer
// verdicts, handed to the client proxy.
#include <memory>

#include "log/log.h"
#include "proxy/clientproxy.h"
#include "xpc/xpcclient.h"

LUMO_LOG_MODULE("MAC_ES_SERVICE_XPC")

using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Value;

namespace {

const Dictionary* dictionaryAt(const Dictionary* dict, const char* key) {
  const Value* v = dict != nullptr ? dict->find(key) : nullptr;
  return v != nullptr ? v->dictionary() : nullptr;
}

const std::string* stringAt(const Dictionary* dict, const char* key) {
  const Value* v = dict != nullptr ? dict->find(key) : nullptr;
  return v != nullptr ? v->string() : nullptr;
}

// unsignedIntValue of a number; a missing value reads as 0.
unsigned operatorAt(const Dictionary* dict) {
  const Value* v = dict != nullptr ? dict->find("operator") : nullptr;
  return v != nullptr && v->number() != nullptr ? v->number()->unsignedIntValue() : 0;
}

const char* orNull(const std::string* s) { return s != nullptr ? s->c_str() : "(null)"; }
bool isEmpty(const std::string* s) { return s == nullptr || s->empty(); }

}  // namespace

void SysExtXPCClient::setPolicy(const Dictionary* policy, uint64_t timestamp, ReplyBlock reply) {
  constexpr const char* kSelf = "-[SysExtXPCClient setPolicy:withTimestamp:andCompletionHandler:]";
  endpointsecurity::ClientProxy* proxy = clientProxy_.load();
  LOG_ASSERT_TEXT_AT(kSelf, proxy != nullptr, "_clientProxy", "Missing _clientProxy.\n");
  LOG_ASSERT_TEXT_AT(kSelf, policy != nullptr, "policy", "Missing argument.\n");
  LOG_TRACE_AT(kSelf, "setPolicy.\n");
  if (timestamp <= lastPolicySettingTimestamp_.load()) {
    LOG_WARN_AT(kSelf, "A setPolicy with older timestamp ! Not applied.\n");
    return;
  }
  lastPolicySettingTimestamp_.store(timestamp);
  // A stopped link has no proxy to apply to: the daemon hears NO.
  const Dictionary empty;
  const bool applied = proxy != nullptr && proxy->applySettings(policy != nullptr ? policy : &empty);
  if (reply) reply(applied);
}

void SysExtXPCClient::setExclusions(const Array* exclusions, uint64_t timestamp,
                                    ReplyBlock reply) {
  constexpr const char* kSelf =
      "-[SysExtXPCClient setExclusions:withTimestamp:andCompletionHandler:]";
  endpointsecurity::ClientProxy* proxy = clientProxy_.load();
  LOG_ASSERT_TEXT_AT(kSelf, proxy != nullptr, "_clientProxy", "Missing _clientProxy.\n");
  LOG_ASSERT_TEXT_AT(kSelf, exclusions != nullptr, "exclusions", "Missing argument.\n");
  LOG_TRACE_AT(kSelf, "setExclusions.\n");
  if (timestamp <= lastExclusionsSettingTimestamp_.load()) {
    LOG_WARN_AT(kSelf, "A setExclusions with older timestamp ! Not applied.\n");
    return;
  }
  lastExclusionsSettingTimestamp_.store(timestamp);
  LOG_DEBUG_AT(kSelf, "Got exclusions\n");

  std::vector<std::string> processPaths;
  std::vector<std::string> pathPrefixes;
  std::vector<std::string> bundleIds;
  if (exclusions != nullptr) {
    for (const Value& item : exclusions->items) {
      const Dictionary* entry = item.dictionary();
      if (entry == nullptr) {
        LOG_ERROR_AT(kSelf, "Exclusion entry is not a dictionary. Skipping...\n");
        continue;
      }
      const Dictionary* app = dictionaryAt(entry, "application_description");
      const std::string* bundleId = stringAt(app, "process_bundle_id");
      if (!isEmpty(bundleId)) bundleIds.push_back(*bundleId);

      const Dictionary* pathDict = dictionaryAt(app, "process_path");
      const std::string* processPath = stringAt(pathDict, "comp_value");
      const unsigned pathOperator = operatorAt(pathDict);
      LOG_TRACE_AT(kSelf, "process path [%{public}s] operator [%d]\n", orNull(processPath),
                   pathOperator);
      if (pathOperator != 1) processPath = nullptr;

      const Dictionary* dirDict = dictionaryAt(app, "process_dir_path");
      const std::string* pathPrefix = stringAt(dirDict, "comp_value");
      const unsigned dirOperator = operatorAt(dirDict);
      LOG_TRACE_AT(kSelf, "pathPrefix [%{public}s] operator [%d]\n", orNull(pathPrefix),
                   dirOperator);
      if (dirOperator != 1) pathPrefix = nullptr;

      if (isEmpty(processPath) && !isEmpty(pathPrefix)) {
        pathPrefixes.push_back(*pathPrefix);
      } else if (!isEmpty(processPath) && isEmpty(pathPrefix)) {
        processPaths.push_back(*processPath);
      } else {
        LOG_INFO_AT(kSelf,
                    "Conflicting or empty settings of process to mute [%{public}s] and path "
                    "prefix to mute [%{public}s]. Skipping...\n",
                    orNull(processPath), orNull(pathPrefix));
      }
    }
  }
  // The proxy answers true when no client took the exclusions; the daemon
  // hears the opposite.
  const bool failed =
      proxy == nullptr || proxy->applyExclusions(processPaths, pathPrefixes, bundleIds);
  if (reply) reply(!failed);
}

void SysExtXPCClient::addMountPoint(const std::string* volume, uint64_t mountType) {
  constexpr const char* kSelf = "-[SysExtXPCClient addMountPoint:mountType:]";
  endpointsecurity::ClientProxy* proxy = clientProxy_.load();
  LOG_ASSERT_TEXT_AT(kSelf, proxy != nullptr, "_clientProxy", "Missing _clientProxy.\n");
  LOG_ASSERT_TEXT_AT(kSelf, volume != nullptr, "volume", "Missing argument.\n");
  LOG_TRACE_AT(kSelf, "addMountPoint.\n");
  auto request = std::make_unique<sysext::AddMountPoint>();
  if (volume != nullptr) request->set_volume(*volume);
  request->set_type(static_cast<sysext::MountType>(static_cast<int>(mountType)));
  if (proxy != nullptr) proxy->addMountPoint(nullptr, request.get(), nullptr);
}

void SysExtXPCClient::removeMountPoint(const std::string* volume) {
  constexpr const char* kSelf = "-[SysExtXPCClient removeMountPoint:]";
  endpointsecurity::ClientProxy* proxy = clientProxy_.load();
  LOG_ASSERT_TEXT_AT(kSelf, proxy != nullptr, "_clientProxy", "Missing _clientProxy.\n");
  LOG_ASSERT_TEXT_AT(kSelf, volume != nullptr, "volume", "Missing argument.\n");
  LOG_TRACE_AT(kSelf, "removeMountPoint.\n");
  auto request = std::make_unique<sysext::RemoveMountPoint>();
  if (volume != nullptr) request->set_volume(*volume);
  if (proxy != nullptr) proxy->removeMountPoint(nullptr, request.get(), nullptr);
}

void SysExtXPCClient::clearMountPoints() {
  constexpr const char* kSelf = "-[SysExtXPCClient clearMountPoints]";
  endpointsecurity::ClientProxy* proxy = clientProxy_.load();
  LOG_ASSERT_TEXT_AT(kSelf, proxy != nullptr, "_clientProxy", "Missing _clientProxy.\n");
  LOG_TRACE_AT(kSelf, "clearMountPoints.\n");
  auto request = std::make_unique<sysext::ClearMountPoints>();
  if (proxy != nullptr) proxy->clearMountPoints(nullptr, request.get(), nullptr);
}

void SysExtXPCClient::setPrinter(const std::string* printer, bool verdict) {
  constexpr const char* kSelf = "-[SysExtXPCClient setPrinter:verdict:]";
  endpointsecurity::ClientProxy* proxy = clientProxy_.load();
  LOG_ASSERT_TEXT_AT(kSelf, proxy != nullptr, "_clientProxy", "Missing _clientProxy.\n");
  LOG_ASSERT_TEXT_AT(kSelf, printer != nullptr, "printer", "Missing argument.\n");
  LOG_TRACE_AT(kSelf, "setPrinter verdict.\n");
  // The job's name is deliberately not passed on: the verdict is stored
  // under the empty file name.
  auto request = std::make_unique<sysext::PrinterVerdict>();
  request->set_verdict(verdict);
  if (proxy != nullptr) proxy->setPrinterVerdict(nullptr, request.get(), nullptr);
}
