#pragma once

#include <filesystem>

namespace tarvex::itx::rtnmac::productfolders {

// Re-creates the product's working folders in its deployment folder when
// they have gone missing and puts back the permissions that the product's
// processes need on them and on the message-transport key files. Run once
// at start; every outcome is logged.
void restoreProductFolders();

// Brings an existing path to exactly `perms` (set-id and sticky bits
// included); a missing path is left alone.
void fixPermissionsIfNeeded(const std::filesystem::path& path,
                            const std::filesystem::perms& perms);

}  // namespace tarvex::itx::rtnmac::productfolders
