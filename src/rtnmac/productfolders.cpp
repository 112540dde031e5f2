#include "rtnmac/productfolders.h"

#include <string>
#include <system_error>

#include "log/log.h"
#include "rtnmac/productpaths.h"
#include "rtnmac/productroot.h"

LUMO_LOG_MODULE("MAC_PRODUCT_FOLDERS_RECOVERY")

namespace tarvex::itx::rtnmac::productfolders {

namespace fs = std::filesystem;

namespace {

constexpr const char* kIpc = "IPC/";
constexpr const char* kPro = "Pro/";
constexpr const char* kMb = "MB/";
constexpr const char* kTemp = "Temp/";

// Every process of the product, whatever its user, works in these.
constexpr fs::perms kShared = fs::perms::all;
constexpr fs::perms kKeyFile = fs::perms::owner_read | fs::perms::owner_write |
                               fs::perms::group_read | fs::perms::others_read;

// Anything the status call can see counts, also a file of the wrong kind.
bool present(const fs::path& path, std::error_code& ec) {
  const fs::file_type type = fs::status(path, ec).type();
  return type != fs::file_type::none && type != fs::file_type::not_found;
}

bool present(const fs::path& path) {
  std::error_code ec;
  return present(path, ec);
}

// A folder inside IPC/; false when it is missing and could not be created.
bool restoreIpcSubfolder(const std::string& ipcFolder, const char* name) {
  const std::string folder = ipcFolder + name;
  if (present(folder)) {
    LOG_TRACE("(Recovering Missing Product Folders) '%{public}s%{public}s' folder exists in "
              "deployment.\n",
              kIpc, name);
    return true;
  }
  LOG_INFO("(Recovering Missing Product Folders) re-creating '%{public}s%{public}s' folder in "
           "deployment.\n",
           kIpc, name);
  std::error_code ec;
  fs::create_directory(folder, ec);
  if (ec) {
    LOG_ERROR("(Recovering Missing Product Folders) Could not create the '%{public}s' folder in "
              "deployment. Code:%d Error:%{public}s\n",
              (std::string(kIpc) + name).c_str(), ec.value(), ec.message().c_str());
    LOG_ASSERT(false, "Could not create the '%{public}s' folder in deployment.\n",
               folder.c_str());
    return false;
  }
  return true;
}

bool restoreIpcFolder(const std::string& deployment) {
  const std::string ipcFolder = deployment + kIpc;
  if (present(ipcFolder)) {
    LOG_TRACE("(Recovering Missing Product Folders) '%{public}s' folder exists in deployment.\n",
              kIpc);
    return true;
  }
  LOG_INFO("(Recovering Missing Product Folders) re-creating '%{public}s' folder in deployment.\n",
           kIpc);
  std::error_code ec;
  fs::create_directory(ipcFolder, ec);
  if (ec) {
    LOG_ERROR("(Recovering Missing Product Folders) Could not create the '%{public}s' folder in "
              "deployment. Code:%d Error:%{public}s\n",
              kIpc, ec.value(), ec.message().c_str());
    LOG_ASSERT(false, "Could not create the folder '%{public}s' in deployment.\n",
               ipcFolder.c_str());
    return false;
  }
  return true;
}

bool restoreTempFolder(const std::string& tempFolder) {
  std::error_code ec;
  if (!present(tempFolder)) {
    LOG_INFO("(Recovering Missing Temp Folders) re-creating '%{public}s' folder in deployment.\n",
             tempFolder.c_str());
    fs::create_directory(tempFolder, ec);
    if (ec) {
      LOG_ERROR("(Recovering Missing Temp Folders) Could not create the '%{public}s' folder in "
                "deployment. Code:%d Error:%{public}s\n",
                tempFolder.c_str(), ec.value(), ec.message().c_str());
      LOG_ASSERT(false, "Could not create the '%{public}s' folder in deployment.\n",
                 tempFolder.c_str());
      return false;
    }
  }
  const fs::file_status status = fs::status(tempFolder, ec);
  if (ec) {
    LOG_ERROR("Cannot get status of the folder '%{public}s', errno=%u, error: %{public}s\n",
              tempFolder.c_str(), static_cast<unsigned>(ec.value()), ec.message().c_str());
    return false;
  }
  if (status.permissions() != kShared) {
    LOG_INFO("Recovering Missing Temp Folders permissions '%{public}s' folder in deployment.\n",
             tempFolder.c_str());
    fs::permissions(tempFolder, kShared, fs::perm_options::replace, ec);
    if (ec) {
      LOG_WARN("Cannot chmod of the folder \"%{public}s\"; errno=%u, error: %{public}s\n",
               tempFolder.c_str(), static_cast<unsigned>(ec.value()), ec.message().c_str());
    }
  }
  return true;
}

}  // namespace

void restoreProductFolders() {
  const std::string deployment = underProductRoot(productPaths().deploymentFolder);
  std::error_code ec;
  if (!present(deployment, ec)) {
    LOG_ERROR("(Recovering Missing Product Folders) The Lumo ES product is not installed. Folder "
              "%{public}s not found. Code:%d Error:%{public}s\n",
              deployment.c_str(), ec.value(), ec.message().c_str());
    return;
  }

  if (!restoreIpcFolder(deployment)) return;
  const std::string ipcFolder = deployment + kIpc;
  if (!restoreIpcSubfolder(ipcFolder, kPro)) return;
  fixPermissionsIfNeeded(ipcFolder + kPro, kShared);
  if (!restoreIpcSubfolder(ipcFolder, kMb)) return;
  fixPermissionsIfNeeded(ipcFolder + kMb, kShared);

  if (!restoreTempFolder(deployment + kTemp)) return;

  // The key tree belongs to the product's installer: only permissions here.
  const fs::path keys = fs::path(deployment) / ".curve";
  fixPermissionsIfNeeded(keys, kShared);
  fixPermissionsIfNeeded(keys / "pub", kShared);
  fixPermissionsIfNeeded(keys / "pub" / "tx", kShared);
  fixPermissionsIfNeeded(keys / "prv", kShared);
  fixPermissionsIfNeeded(keys / "prv" / "tx", kShared);
  fixPermissionsIfNeeded(keys / "prv" / "tx" / "txserver", kKeyFile);
  fixPermissionsIfNeeded(keys / "prv" / "tx" / "txclient", kKeyFile);
}

void fixPermissionsIfNeeded(const fs::path& path, const fs::perms& perms) {
  if (!present(path)) return;
  if (fs::status(path).permissions() == perms) return;
  std::error_code ec;
  fs::permissions(path, perms, fs::perm_options::replace, ec);
  if (fs::status(path).permissions() == perms) return;
  LOG_ERROR("(Recovering Missing Product Folders) Could not set permissions the '%{public}s' "
            "folder in deployment.\n",
            path.c_str());
  LOG_ASSERT(false, "Could not set permissions the '%{public}s' folder in deployment.\n",
             path.c_str());
}

}  // namespace tarvex::itx::rtnmac::productfolders
