#include "observers/fileeventobserver.h"

#include <bsm/libbsm.h>

#include <string_view>

#include "log/log.h"
#include "rtn/platform.h"
#include "xpc/xpcclient.h"

LUMO_LOG_MODULE("MAC_ESFILEEVENT")

namespace endpointsecurity {

namespace {

using Whitelist = std::map<std::string, internal::WhitelistItem, std::less<>>;

// Honoured only for platform binaries.
const Whitelist& whitelist() {
  static const Whitelist items{
      {"com.apple.finder", {{".DS_Store"}}},
      {"com.apple.xpc.proxy", {}},
  };
  return items;
}

const char* mountTypeName(sysext::MountType type) {
  switch (type) {
    case sysext::kNetwork:
      return "network";
    case sysext::kRemovable:
      return "removable";
    default:
      return "regular";
  }
}

const char* pathOf(const es_file_t* file) { return file != nullptr ? file->path.data : nullptr; }

uint64_t sizeOf(const es_file_t* file) { return static_cast<uint64_t>(file->stat.st_size); }

// Always dir + "/" + name, also for the root directory.
std::string joinPath(const char* dir, const char* name) {
  std::string path(dir);
  path += '/';
  if (name != nullptr) path += name;
  return path;
}

}  // namespace

FileEventObserver::FileEventObserver() : openScope(tarvex::itx::rtn::platform().opens) {
  events = {ES_EVENT_TYPE_NOTIFY_OPEN,   ES_EVENT_TYPE_NOTIFY_CLOSE,
            ES_EVENT_TYPE_NOTIFY_RENAME, ES_EVENT_TYPE_NOTIFY_LINK,
            ES_EVENT_TYPE_NOTIFY_UNLINK, ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA};
  publishOpenScope();
}

void FileEventObserver::publishOpenScope() {
  if (openScope == nullptr) return;
  // One at a time, each with the table as it is then: the last one told
  // is the latest table, while lookups never wait for the platform.
  std::lock_guard<std::mutex> publishing(publishMutex);
  std::vector<std::string> volumes;
  {
    std::lock_guard<std::mutex> lock(mountMutex);
    // Every volume whose opens fillOpen keeps: a nested regular one that
    // takes a path first only means more opens reach it than it reports.
    for (const auto& [volume, type] : mountPoints) {
      if (type != sysext::kRegular) volumes.push_back(volume);
    }
  }
  openScope->wantOpensUnder(volumes);
}

void FileEventObserver::addMountPoint(const std::string& volume, sysext::MountType type) {
  {
    std::lock_guard<std::mutex> lock(mountMutex);
    mountPoints[volume] = type;
  }
  publishOpenScope();
  LOG_INFO("new volume: %{public}s <%{public}s> was registered", volume.c_str(),
           mountTypeName(type));
}

void FileEventObserver::removeMountPoint(const std::string& volume) {
  {
    std::lock_guard<std::mutex> lock(mountMutex);
    if (mountPoints.erase(volume) == 0) return;
  }
  publishOpenScope();
  LOG_INFO("volume: %{public}s was unregistered", volume.c_str());
}

void FileEventObserver::clearMountPoints() {
  {
    std::lock_guard<std::mutex> lock(mountMutex);
    mountPoints.clear();
  }
  publishOpenScope();
  LOG_INFO("mountpoints were cleared");
}

sysext::MountType FileEventObserver::getMountTypeFromFilePath(const std::string& path,
                                                              bool& found) {
  std::lock_guard<std::mutex> lock(mountMutex);
  found = false;
  // First key wins, not the longest: a volume nested in another gets the
  // outer one's type.
  for (const auto& [volume, type] : mountPoints) {
    if (path.find(volume + "/") == 0) {
      found = true;
      return type;
    }
  }
  return sysext::kRegular;
}

void FileEventObserver::fillMountType(sysext::FileEvent* event, const char* filename) {
  LOG_ASSERT(event, "unexpected missing parameter");
  LOG_ASSERT(filename, "unexpected missing parameter");
  if (event == nullptr || filename == nullptr) return;
  bool found = false;
  event->set_mounttype(getMountTypeFromFilePath(filename, found));
}

bool FileEventObserver::isExcluded(const es_process_t* process, const char* filename) const {
  if (process == nullptr || !process->is_platform_binary || process->signing_id.data == nullptr) {
    return false;
  }
  const char* signingId = process->signing_id.data;
  auto it = whitelist().find(signingId);
  if (it == whitelist().end()) return false;
  const std::vector<std::string>& endings = it->second.fileEndings;
  if (endings.empty() || filename == nullptr) {
    LOG_DEBUG("event skipped as it whitelisted for process: %{public}s", signingId);
    return true;
  }
  const std::string_view name(filename);
  for (const std::string& ending : endings) {
    if (ending.size() <= name.size() && name.ends_with(ending)) {
      LOG_DEBUG("event skipped as it whitelisted for process: %{public}s <%{public}s>", signingId,
                filename);
      return true;
    }
  }
  return false;
}

void FileEventObserver::onNotify(const es_message_t* message, es_client_t* /*client*/) {
  const es_process_t* process = message->process;
  sysext::FileEvent event;
  event.set_pid(static_cast<uint32_t>(audit_token_to_pid(process->audit_token)));
  event.set_mounttype(sysext::kRegular);

  bool valid = true;
  switch (message->event_type) {
    case ES_EVENT_TYPE_NOTIFY_OPEN:
      valid = fillOpen(message, event);
      break;
    case ES_EVENT_TYPE_NOTIFY_CLOSE:
      valid = fillClose(message, event);
      break;
    case ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA:
      valid = fillExchange(message, event);
      break;
    case ES_EVENT_TYPE_NOTIFY_LINK:
      valid = fillLink(message, event);
      break;
    case ES_EVENT_TYPE_NOTIFY_RENAME:
      valid = fillRename(message, event);
      break;
    case ES_EVENT_TYPE_NOTIFY_UNLINK:
      valid = fillUnlink(message, event);
      break;
    default:
      LOG_ASSERT(false, "Usupported event %d", message->event_type);
      valid = false;
      break;
  }
  if (!valid) return;

  event.set_sid(static_cast<uint32_t>(audit_token_to_asid(process->audit_token)));
  event.set_uid(static_cast<uint32_t>(audit_token_to_ruid(process->audit_token)));
  SysExtXPCClient::sharedInstance().sendFileEvent(&event);
}

// Opens matter only off the system's own disks.
bool FileEventObserver::fillOpen(const es_message_t* message, sysext::FileEvent& event) {
  const es_file_t* file = message->event.open.file;
  const char* fileName = pathOf(file);
  LOG_ASSERT(fileName, "Unexpected null filename");
  if (fileName == nullptr) return false;
  fillMountType(&event, fileName);
  if (event.mounttype() == sysext::kRegular) return false;
  event.set_fileop(sysext::kFileOpen);
  event.set_filename1(fileName);
  event.set_filesize(sizeOf(file));
  return true;
}

// Content changes are reported once, when a modified file is closed.
bool FileEventObserver::fillClose(const es_message_t* message, sysext::FileEvent& event) {
  const es_event_close_t& close = message->event.close;
  const char* fileName = pathOf(close.target);
  if (!close.modified || isExcluded(message->process, fileName)) return false;
  LOG_ASSERT(fileName, "Unexpected null filename");
  if (fileName == nullptr) return false;
  event.set_fileop(sysext::kFileCloseModified);
  event.set_filename1(fileName);
  event.set_filesize(sizeOf(close.target));
  fillMountType(&event, fileName);
  return true;
}

bool FileEventObserver::fillExchange(const es_message_t* message, sysext::FileEvent& event) {
  if (isExcluded(message->process, nullptr)) return false;
  const es_event_exchangedata_t& exchange = message->event.exchangedata;
  const char* fileName1 = pathOf(exchange.file1);
  const char* fileName2 = pathOf(exchange.file2);
  LOG_ASSERT(fileName1 && fileName2, "Unexpected null filename");
  if (fileName1 == nullptr || fileName2 == nullptr) return false;
  event.set_fileop(sysext::kFileExchange);
  event.set_filename1(fileName1);
  event.set_filename2(fileName2);
  event.set_filesize(sizeOf(exchange.file2));
  fillMountType(&event, fileName1);
  return true;
}

bool FileEventObserver::fillLink(const es_message_t* message, sysext::FileEvent& event) {
  if (isExcluded(message->process, nullptr)) return false;
  const es_event_link_t& link = message->event.link;
  const char* targetDirPath = pathOf(link.target_dir);
  const char* targetFileName = link.target_filename.data;
  const char* srcFileName = pathOf(link.source);
  LOG_ASSERT(targetDirPath && targetFileName && srcFileName, "Unexpected null paths");
  if (targetDirPath == nullptr || targetFileName == nullptr || srcFileName == nullptr) {
    return false;
  }
  const std::string target = joinPath(targetDirPath, targetFileName);
  event.set_fileop(sysext::kFileLink);
  event.set_filename1(srcFileName);
  event.set_filename2(target);
  event.set_filesize(sizeOf(link.source));
  fillMountType(&event, target.c_str());
  return true;
}

bool FileEventObserver::fillRename(const es_message_t* message, sysext::FileEvent& event) {
  if (isExcluded(message->process, nullptr)) return false;
  const es_event_rename_t& rename = message->event.rename;
  const char* srcFileName = pathOf(rename.source);
  LOG_ASSERT(srcFileName, "Unexpected null filename");
  if (srcFileName == nullptr) return false;

  std::string destination;
  if (rename.destination_type == ES_DESTINATION_TYPE_EXISTING_FILE) {
    const char* destFileName = pathOf(rename.destination.existing_file);
    LOG_ASSERT(destFileName, "Unexpected null filename");
    if (destFileName == nullptr) return false;
    destination = destFileName;
  } else {
    const char* newDirPath = pathOf(rename.destination.new_path.dir);
    LOG_ASSERT(newDirPath, "Unexpected null path");
    if (newDirPath == nullptr) return false;
    destination = joinPath(newDirPath, rename.destination.new_path.filename.data);
  }
  event.set_fileop(sysext::kFileRename);
  event.set_filename1(srcFileName);
  event.set_filename2(destination);
  event.set_filesize(sizeOf(rename.source));
  fillMountType(&event, destination.c_str());
  return true;
}

// Deletes are reported on every volume and for every process.
bool FileEventObserver::fillUnlink(const es_message_t* message, sysext::FileEvent& event) {
  const char* fileName = pathOf(message->event.unlink.target);
  LOG_ASSERT(fileName, "Unexpected null filename");
  if (fileName == nullptr) return false;
  event.set_fileop(sysext::kFileDelete);
  event.set_filename1(fileName);
  fillMountType(&event, fileName);
  return true;
}

}  // namespace endpointsecurity
