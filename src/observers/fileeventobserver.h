#pragma once

#include <EndpointSecurity/EndpointSecurity.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "esclient/eventobserver.h"
#include "rtn/openscope.h"
#include "sysext.pb.h"

namespace endpointsecurity {

namespace internal {

// Events of a listed process are skipped for files whose names end with one
// of these; an empty list skips every event of the process.
struct WhitelistItem {
  std::vector<std::string> fileEndings;
};

}  // namespace internal

// Reports file opens on network and removable volumes, and modifications,
// deletions, renames, links and exchanges everywhere. Keeps the daemon's
// table of mounted volumes, which types every record.
class FileEventObserver : public EventObserver {
 public:
  FileEventObserver();
  ~FileEventObserver() override = default;

  std::string getName() const override { return "FileEventObserver"; }
  void onNotify(const es_message_t* message, es_client_t* client) override;

  void addMountPoint(const std::string& volume, sysext::MountType type);
  void removeMountPoint(const std::string& volume);
  void clearMountPoints();

  // The type of the first volume, in key order, that contains the path.
  sysext::MountType getMountTypeFromFilePath(const std::string& path, bool& found);
  void fillMountType(sysext::FileEvent* event, const char* filename);
  bool isExcluded(const es_process_t* process, const char* filename) const;

 private:
  // Each fills the record; false drops the event.
  bool fillOpen(const es_message_t* message, sysext::FileEvent& event);
  bool fillClose(const es_message_t* message, sysext::FileEvent& event);
  bool fillExchange(const es_message_t* message, sysext::FileEvent& event);
  bool fillLink(const es_message_t* message, sysext::FileEvent& event);
  bool fillRename(const es_message_t* message, sysext::FileEvent& event);
  bool fillUnlink(const es_message_t* message, sysext::FileEvent& event);
  // Tells the platform's open scope, if any, which volumes opens are
  // reported on.
  void publishOpenScope();

  std::mutex publishMutex;  // taken before mountMutex, never after
  std::mutex mountMutex;
  std::map<std::string, sysext::MountType, std::less<>> mountPoints;
  tarvex::itx::rtn::IOpenScope* const openScope;
};

}  // namespace endpointsecurity
