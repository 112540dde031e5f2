#include "proxy/sysextconfig.h"

namespace endpointsecurity {

namespace {

// Other vendors' security products: their services' churn is of no interest.
constexpr const char* kDefaultPathPrefixes[] = {
    "/Applications/AVGAntivirus.app/Contents/Backend/services/",
    "/Applications/AVGAntivirus.app/Contents/XPCServices/",
    "/Applications/AVGAntivirus.app/Contents/Backend/utils/",
    "/Library/Application Support/AVGHUB/com.avg.hub.app/",
    "/Applications/Avast.app/Contents/Backend/services/",
    "/Applications/Avast.app/Contents/XPCServices/",
    "/Applications/Avast.app/Contents/Backend/utils/",
    "/Library/Application Support/AvastHUB/com.avast.hub.app/",
    "/Library/Application Support/Malwarebytes/MBAM/",
    "/Library/Intego/netbarrier.bundle/",
    "/Library/Intego/virusbarrier.bundle/",
    "/Library/SophosCBR/",
    "/Library/Sophos Anti-Virus/",
    "/Library/Application Support/Kaspersky Lab/KAV/",
    "/Applications/Kaspersky Anti-Virus For Mac.app/",
    "/Library/Application Support/TrendMicro/",
    "/Applications/TrendMicro.localized/",
    "/Applications/Falcon.app/",
    "/Library/Bitdefender/",
    "/Applications/Bitdefender/",
};

constexpr const char* kDefaultBundleIds[] = {
    "com.bitdefender.agentui.sp",
    "com.trendmicro.icore.netfilter",
    "com.trendmicro.icore.es",
    "com.avg.Antivirus.SystemExtension",
    "com.avast.Antivirus.SystemExtension",
    "com.sophos.endpoint.networkextension",
    "com.sophos.endpoint.scanextension",
    "com.kaspersky.kav.sysext",
    "com.crowdstrike.falcon.Agent",
};

}  // namespace

SysextConfig::SysextConfig()
    : exclusions_{{},
                  {std::begin(kDefaultPathPrefixes), std::end(kDefaultPathPrefixes)},
                  {std::begin(kDefaultBundleIds), std::end(kDefaultBundleIds)}} {}

SysextSettings SysextConfig::settings() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return settings_;
}

int SysextConfig::settings(const SysextSettings& settings) {
  std::lock_guard<std::mutex> lock(mutex_);
  settings_ = settings;
  return 0;
}

SysextExclusions SysextConfig::exclusions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return exclusions_;
}

int SysextConfig::exclusions(const SysextExclusions& exclusions) {
  std::lock_guard<std::mutex> lock(mutex_);
  exclusions_ = exclusions;
  return 0;
}

}  // namespace endpointsecurity
