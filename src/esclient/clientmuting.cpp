// Muting: the daemon's exclusions, the on-the-fly list of signing
// identifiers, the product's own directories and a fixed table of system
// programs whose events are of no interest.
#include <string_view>

#include "esclient/client.h"
#include "log/log.h"
#include "rtnmac/productpaths.h"

LUMO_LOG_MODULE("MAC_ESCLIENT")

namespace endpointsecurity {

namespace {

constexpr const char* kOwnBundleIds[] = {"com.tarvex.lumo.ne", "com.tarvex.lumo.es"};

constexpr const char* kIrrelevantPrefixes[] = {
    "/System/Library/PrivateFrameworks/SkyLight.framework/",
    "/System/Library/Frameworks/CoreServices.framework/Versions/A/Frameworks/Metadata.framework/",
    "/System/Library/Frameworks/CoreServices.framework/Frameworks/Metadata.framework/",
    "/System/Library/Frameworks/CoreServices.framework/Versions/A/Frameworks/FSEvents.framework/",
    "/System/Library/Frameworks/CoreServices.framework/Frameworks/FSEvents.framework/",
    "/System/Library/CoreServices/backupd.bundle",
    "/System/Library/PrivateFrameworks/StorageKit.framework/",
    "/System/Library/PrivateFrameworks/XprotectFramework.framework/",
    "/System/Library/CoreServices/CoreServicesUIAgent.app/",
};

constexpr const char* kIrrelevantPaths[] = {
    "/System/Library/PrivateFrameworks/GenerationalStorage.framework/Versions/A/Support/revisiond",
    "/System/Library/CoreServices/iconservicesagent",
    "/System/Library/CoreServices/ScopedBookmarkAgent",
    "/usr/sbin/filecoordinationd",
    "/usr/libexec/nsurlsessiond",
    "/usr/libexec/diagnosticd",
    "/usr/libexec/lsd",
    "/usr/libexec/runningboardd",
};

}  // namespace

bool Client::checkAndMute(const es_message_t* message) {
  const es_process_t* process = message->process;
  if (process == nullptr || process->signing_id.data == nullptr) return false;
  const std::string_view signingId(process->signing_id.data, process->signing_id.length);
  {
    std::lock_guard<std::mutex> lock(muteListMutex);
    if (bundleIdsToMute.find(signingId) == bundleIdsToMute.end()) return false;
  }
  if (message->action_type == ES_ACTION_TYPE_AUTH) respondDefault(message);

  const es_return_t result = api.muteProcess(esClient.load(), &process->audit_token);
  if (result != ES_RETURN_SUCCESS) {
    LOG_ERROR("es_mute_process failed. Err:%d", result);
    return false;
  }
  LOG_TRACE("es_mute_process with bundle id [%{public}s] succeded",
            std::string(signingId).c_str());
  return true;
}

void Client::setBundleIdsToMute(const std::vector<std::string>& bundleIds) {
  std::lock_guard<std::mutex> lock(muteListMutex);
  bundleIdsToMute.clear();
  for (const std::string& id : bundleIds) {
    LOG_DEBUG("Adding bundle ID to the on the fly mute list[%{public}s]", id.c_str());
    bundleIdsToMute.insert(id);
  }
  for (const char* own : kOwnBundleIds) {
    LOG_DEBUG("Adding own bundle ID to the on the fly mute list[%{public}s]", own);
    bundleIdsToMute.insert(own);
  }
}

bool Client::applyExclusions(const std::vector<std::string>& processFiles,
                             const std::vector<std::string>& pathPrefixes,
                             const std::vector<std::string>& bundleIds) {
  if (shuttingDown.load()) {
    LOG_DEBUG("Ignoring event because System Extension is shutting down.");
    return true;
  }
  LOG_INFO("Got new exclusions. Removing existing exclusions");
  if (!unMuteAllExclusions()) LOG_ERROR("unmute all exclusions partialy failed.");

  es_client_t* handle = esClient.load();
  LOG_INFO("Going to mute by process file");
  for (const std::string& path : processFiles) {
    LOG_DEBUG("Going to mute [%{public}s]", path.c_str());
    const es_return_t result = api.mutePathLiteral(handle, path.c_str());
    if (result != ES_RETURN_SUCCESS) {
      LOG_ERROR("es_mute_path_literal failed for [%{public}s]. Err:%d", path.c_str(), result);
    }
  }
  LOG_INFO("Going to mute by path prefix");
  for (const std::string& prefix : pathPrefixes) {
    LOG_DEBUG("Going to mute path [%{public}s]", prefix.c_str());
    const es_return_t result = api.mutePathPrefix(handle, prefix.c_str());
    if (result != ES_RETURN_SUCCESS) {
      LOG_ERROR("es_mute_path_prefix failed for [%{public}s]. Err:%d", prefix.c_str(), result);
    }
  }
  setBundleIdsToMute(bundleIds);
  muteLumoProcesses();
  muteIrrelevantProcesses();
  return true;
}

bool Client::unMuteAllExclusions() {
  LOG_TRACE_SCOPE();
  es_client_t* handle = esClient.load();
  bool ok = true;
  es_return_t result = api.unmuteAllPaths(handle);
  if (result != ES_RETURN_SUCCESS) {
    LOG_ERROR("es_unmute_all_paths failed. Err:%d", result);
    ok = false;
  } else {
    LOG_TRACE("es_unmute_all_paths succeded");
  }

  size_t count = 0;
  audit_token_t* tokens = nullptr;
  result = api.mutedProcesses(handle, &count, &tokens);
  if (result != ES_RETURN_SUCCESS) {
    LOG_ERROR("es_muted_processes failed. Err:%d", result);
    return false;
  }
  LOG_TRACE("es_muted_processes succeded");
  for (size_t i = 0; i < count; ++i) {
    result = api.unmuteProcess(handle, &tokens[i]);
    if (result != ES_RETURN_SUCCESS) {
      LOG_ERROR("es_unmute_process failed. Err:%d", result);
      ok = false;
    } else {
      LOG_TRACE("es_unmute_process succeded");
    }
  }
  if (tokens != nullptr) api.releaseMutedProcesses(tokens, count);
  return ok;
}

void Client::muteLumoProcesses() {
  es_client_t* handle = esClient.load();
  for (const std::string& dir : tarvex::itx::rtnmac::productPaths().ownDirectories) {
    const es_return_t result = api.mutePathPrefix(handle, dir.c_str());
    if (result != ES_RETURN_SUCCESS) {
      LOG_ERROR("es_mute_path_prefix failed for own path [%{public}s]. Err:%d", dir.c_str(),
                result);
    }
  }
}

void Client::muteIrrelevantProcesses() {
  es_client_t* handle = esClient.load();
  for (const char* prefix : kIrrelevantPrefixes) {
    LOG_DEBUG("Going to mute path [%{public}s]", prefix);
    const es_return_t result = api.mutePathPrefix(handle, prefix);
    if (result != ES_RETURN_SUCCESS) {
      LOG_ERROR("es_mute_path_prefix failed for [%{public}s]. Err:%d", prefix, result);
    }
  }
  for (const char* path : kIrrelevantPaths) {
    LOG_DEBUG("Going to mute path [%{public}s]", path);
    const es_return_t result = api.mutePathLiteral(handle, path);
    if (result != ES_RETURN_SUCCESS) {
      LOG_ERROR("es_mute_path_literal failed for [%{public}s]. Err:%d", path, result);
    }
  }
}

}  // namespace endpointsecurity
