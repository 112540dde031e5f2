#include "es/decoders/fanotifydecoder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "es/hub/message.h"
#include "es/procfs/procinfo.h"
#include "log/log.h"

LUMO_LOG_MODULE("LINUX_ES")

namespace endpointsecurity::linux_es {

namespace {

constexpr size_t kRememberedPaths = 4096;
constexpr size_t kMaxModified = 65536;
constexpr uint32_t kFRead = 0x1;

// file_handle as the kernel lays it out: bytes, type, then the handle.
struct HandleHeader {
  uint32_t bytes;
  int32_t type;
};

}  // namespace

FanotifyDecoder::FanotifyDecoder(IEventSink& sink, IHandleResolver& resolver, pid_t self)
    : sink_(sink), resolver_(resolver), self_(self) {}

bool FanotifyDecoder::parse(const fanotify_event_metadata& metadata, const char* raw,
                            Record& out) {
  out.mask = metadata.mask;
  out.pid = metadata.pid;
  out.raw = std::string_view(raw, metadata.event_len);
  const char* cursor = raw + metadata.metadata_len;
  const char* end = raw + metadata.event_len;
  while (cursor < end) {
    if (static_cast<size_t>(end - cursor) < sizeof(fanotify_event_info_header)) return false;
    fanotify_event_info_header header;
    std::memcpy(&header, cursor, sizeof header);
    if (header.len < sizeof header || header.len > static_cast<size_t>(end - cursor)) return false;
    const char* body = cursor;
    cursor += header.len;
    switch (header.info_type) {
      case FAN_EVENT_INFO_TYPE_FID:
      case FAN_EVENT_INFO_TYPE_DFID:
      case FAN_EVENT_INFO_TYPE_DFID_NAME:
      case FAN_EVENT_INFO_TYPE_OLD_DFID_NAME:
      case FAN_EVENT_INFO_TYPE_NEW_DFID_NAME:
        break;
      default:
        continue;  // types this build doesn't use
    }
    const size_t fixed = sizeof(fanotify_event_info_fid) + sizeof(HandleHeader);
    if (header.len < fixed) return false;
    HandleHeader handle;
    std::memcpy(&handle, body + sizeof(fanotify_event_info_fid), sizeof handle);
    if (handle.bytes > header.len - fixed) return false;
    // The key: fsid, then the whole file_handle, which the kernel lays out
    // right after it.
    static_assert(offsetof(fanotify_event_info_fid, fsid) + sizeof(__kernel_fsid_t) ==
                  sizeof(fanotify_event_info_fid));
    const std::string_view key(body + offsetof(fanotify_event_info_fid, fsid),
                               sizeof(__kernel_fsid_t) + sizeof(HandleHeader) + handle.bytes);
    if (header.info_type == FAN_EVENT_INFO_TYPE_FID) {
      out.objectKey = key;
      continue;
    }
    if (header.info_type == FAN_EVENT_INFO_TYPE_DFID) {
      out.entry = Named{key, {}};
      continue;
    }
    const char* name = body + fixed + handle.bytes;
    const size_t room = header.len - fixed - handle.bytes;
    const size_t length = strnlen(name, room);
    if (length == room) return false;  // no terminating NUL
    const Named named{key, std::string_view(name, length)};
    if (header.info_type == FAN_EVENT_INFO_TYPE_DFID_NAME) {
      out.entry = named;
    } else if (header.info_type == FAN_EVENT_INFO_TYPE_OLD_DFID_NAME) {
      out.oldEntry = named;
    } else {
      out.newEntry = named;
    }
  }
  return true;
}

void FanotifyDecoder::handle(const char* buffer, size_t length) {
  // Records are 4-byte aligned and the metadata holds a 64-bit mask: read
  // each through a copy.
  size_t offset = 0;
  while (length - offset >= sizeof(fanotify_event_metadata)) {
    fanotify_event_metadata metadata;
    std::memcpy(&metadata, buffer + offset, sizeof metadata);
    const size_t left = length - offset;
    if (metadata.vers != FANOTIFY_METADATA_VERSION ||
        metadata.event_len < sizeof(fanotify_event_metadata) || metadata.event_len > left ||
        metadata.metadata_len < sizeof(fanotify_event_metadata) ||
        metadata.metadata_len > metadata.event_len) {
      ++counters_.malformed;
      LOG_ERROR("fanotify record malformed (version %d, %u bytes of %zu); rest of the read dropped.",
                metadata.vers, metadata.event_len, left);
      break;
    }
    if (metadata.fd >= 0) close(metadata.fd);  // not in FID mode, but never leak one
    if (metadata.mask & FAN_Q_OVERFLOW) {
      ++counters_.overflows;
      LOG_ERROR("fanotify queue overflowed: file events were lost (%llu overflows in all).",
                static_cast<unsigned long long>(counters_.overflows.load()));
    } else if (metadata.pid != self_) {
      Record& record = records_.emplace_back();
      if (!parse(metadata, buffer + offset, record)) {
        records_.pop_back();
        ++counters_.malformed;
        LOG_ERROR("fanotify record with mask 0x%llx has malformed information; dropped.",
                  static_cast<unsigned long long>(metadata.mask));
      }
    }
    offset += metadata.event_len;
  }
  // Files deleted later in the same read are not looked up: they are gone,
  // and asking the kernel for a dying inode waits for its eviction.
  for (const Record& r : records_) {
    if ((r.mask & FAN_DELETE) && r.objectKey) gone_.insert(*r.objectKey);
  }
  for (Record& r : records_) dispatch(r);
  records_.clear();
  gone_.clear();
}

void FanotifyDecoder::flush() {
  if (!pending_) return;
  Record held = *pending_;
  pending_.reset();
  emitRename(held, false);
}

void FanotifyDecoder::hold(const Record& record) {
  // The read's buffer is reused: the record is copied and read again from
  // the copy, which parsed once already.
  pendingBytes_.assign(record.raw.begin(), record.raw.end());
  fanotify_event_metadata metadata;
  std::memcpy(&metadata, pendingBytes_.data(), sizeof metadata);
  parse(metadata, pendingBytes_.data(), pending_.emplace());
}

void FanotifyDecoder::dispatch(Record& r) {
  if (pending_) {
    const Record& p = *pending_;
    const bool mirrored = (r.mask & FAN_RENAME) && r.pid == p.pid && r.oldEntry && r.newEntry &&
                          p.oldEntry && p.newEntry && r.oldEntry->dirKey == p.newEntry->dirKey &&
                          r.oldEntry->name == p.newEntry->name &&
                          r.newEntry->dirKey == p.oldEntry->dirKey &&
                          r.newEntry->name == p.oldEntry->name;
    if (mirrored) {
      Record first = *pending_;
      pending_.reset();
      emitExchange(first);
      return;
    }
    // The replaced file loses its link right after the rename.
    const bool victim = r.mask == FAN_ATTRIB && r.pid == p.pid && r.objectKey &&
                        r.objectKey != p.objectKey;
    if (victim) {
      Record held = *pending_;
      pending_.reset();
      emitRename(held, true);
      return;
    }
    flush();
  }
  if (r.mask & FAN_RENAME) {
    hold(r);
    lastAttrib_.reset();
    return;
  }
  if (r.mask & FAN_CREATE) {
    const bool link = lastAttrib_ && lastAttrib_->pid == r.pid && r.objectKey &&
                      lastAttrib_->objectKey == *r.objectKey;
    lastAttrib_.reset();
    if (r.entry && pathOf(*r.entry, path_)) {
      if (link) {
        emitLink(r, path_);
      } else if (r.objectKey) {
        rememberPath(*r.objectKey, path_);
      }
    }
  }
  if (r.mask & FAN_ATTRIB) {
    if (r.objectKey) {
      lastAttrib_ = Attrib{r.pid, std::string(*r.objectKey)};
    } else {
      lastAttrib_.reset();  // could start no link
    }
  }
  bool named = false;
  const bool opened = (r.mask & FAN_OPEN) && !(r.mask & FAN_OPEN_EXEC);
  if ((opened || (r.mask & FAN_CLOSE_WRITE)) && r.entry) {
    named = pathOf(*r.entry, path_);
    if (named && r.objectKey) rememberPath(*r.objectKey, path_);
  }
  if (opened && named) emitOpen(r, path_);
  if (r.mask & FAN_CLOSE_WRITE) {
    // Opened for writing is not modified: only a MODIFY since the open is.
    const bool modified = (r.mask & FAN_MODIFY) || (r.objectKey && forgetModified(*r.objectKey));
    if (named) emitClose(r, path_, modified);
  } else if ((r.mask & FAN_MODIFY) && r.objectKey) {
    if (modified_.size() >= kMaxModified) {
      LOG_ERROR("Too many files open for writing are tracked; modified flags start over.");
      modified_.clear();
    }
    modified_.emplace(*r.objectKey);
  }
  if ((r.mask & FAN_DELETE) && r.entry) {
    if (r.objectKey) forgetModified(*r.objectKey);
    if (pathOf(*r.entry, path_)) emitUnlink(r, path_);
  }
}

bool FanotifyDecoder::forgetModified(std::string_view objectKey) {
  auto it = modified_.find(objectKey);
  if (it == modified_.end()) return false;
  modified_.erase(it);
  return true;
}

void FanotifyDecoder::join(std::string& out, const std::string& dir, std::string_view name) {
  out = dir;
  if (name.empty()) return;
  if (out != "/") out += '/';
  out += name;
}

bool FanotifyDecoder::pathOf(const Named& entry, std::string& out) {
  if (!resolver_.path(entry.dirKey, dir_)) {
    ++counters_.unresolved;
    LOG_DEBUG("A directory handle did not resolve (%{public}s); event dropped.",
              std::string(entry.name).c_str());
    return false;
  }
  join(out, dir_, entry.name);
  return true;
}

void FanotifyDecoder::rememberPath(std::string_view objectKey, std::string_view path) {
  if (knownPaths_.empty()) knownPaths_.resize(kRememberedPaths);
  KnownPath& slot = knownPaths_[HandleKeyHash{}(objectKey) % kRememberedPaths];
  slot.key.assign(objectKey);
  slot.path.assign(path);
}

const std::string* FanotifyDecoder::knownPath(std::string_view objectKey) const {
  if (knownPaths_.empty()) return nullptr;
  const KnownPath& slot = knownPaths_[HandleKeyHash{}(objectKey) % kRememberedPaths];
  return slot.key == objectKey ? &slot.path : nullptr;
}

Message* FanotifyDecoder::begin(es_event_type_t type, pid_t pid) {
  auto* m = new Message(type, ES_ACTION_TYPE_NOTIFY);
  if (!sink_.processes().lookup(pid, process_)) {
    process_ = ProcessInfo{};
    process_.pid = pid;
  }
  m->es.process = m->addProcess(process_);
  return m;
}

es_file_t* FanotifyDecoder::file(Message& m, const std::string& path, bool withStat) {
  struct stat st{};
  const bool ok = withStat && resolver_.stat(path, &st);
  return m.addFile(path, ok ? &st : nullptr);
}

bool FanotifyDecoder::statObject(std::string_view key, struct stat* st) {
  // Gone since: no size, rather than another file's that took the name.
  return gone_.count(key) == 0 && resolver_.statObject(key, st);
}

es_file_t* FanotifyDecoder::object(Message& m, const std::string& path,
                                   const std::optional<std::string_view>& key) {
  if (!key) return file(m, path, true);
  struct stat st{};
  const bool ok = statObject(*key, &st);
  return m.addFile(path, ok ? &st : nullptr);
}

void FanotifyDecoder::emitOpen(const Record& r, const std::string& path) {
  if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_OPEN)) return;
  Message* m = begin(ES_EVENT_TYPE_NOTIFY_OPEN, r.pid);
  m->es.event.open.fflag = kFRead;
  m->es.event.open.file = object(*m, path, r.objectKey);
  sink_.deliver(m);
}

void FanotifyDecoder::emitClose(const Record& r, const std::string& path, bool modified) {
  if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_CLOSE)) return;
  Message* m = begin(ES_EVENT_TYPE_NOTIFY_CLOSE, r.pid);
  m->es.event.close.modified = modified;
  m->es.event.close.target = object(*m, path, r.objectKey);
  sink_.deliver(m);
}

void FanotifyDecoder::emitRename(const Record& r, bool existing) {
  if (!r.oldEntry || !r.newEntry) return;
  // path_: where it was; dir_: the directory it went to (most often the
  // one it was in); other_: its new path.
  if (!pathOf(*r.oldEntry, path_)) return;
  if (r.newEntry->dirKey != r.oldEntry->dirKey && !resolver_.path(r.newEntry->dirKey, dir_)) {
    ++counters_.unresolved;
    return;
  }
  join(other_, dir_, r.newEntry->name);
  if (r.objectKey) rememberPath(*r.objectKey, other_);
  if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_RENAME)) return;
  Message* m = begin(ES_EVENT_TYPE_NOTIFY_RENAME, r.pid);
  es_event_rename_t& rename = m->es.event.rename;
  // The moved file now lives at its new path: its size is read there.
  struct stat st{};
  const bool ok = r.objectKey ? statObject(*r.objectKey, &st) : resolver_.stat(other_, &st);
  rename.source = m->addFile(path_, ok ? &st : nullptr);
  if (existing) {
    rename.destination_type = ES_DESTINATION_TYPE_EXISTING_FILE;
    rename.destination.existing_file = m->addFile(other_, ok ? &st : nullptr);
  } else {
    rename.destination_type = ES_DESTINATION_TYPE_NEW_PATH;
    rename.destination.new_path.dir = file(*m, dir_, true);
    rename.destination.new_path.filename = m->addString(r.newEntry->name);
  }
  sink_.deliver(m);
}

void FanotifyDecoder::emitExchange(const Record& first) {
  if (!pathOf(*first.oldEntry, path_) || !pathOf(*first.newEntry, other_) ||
      !sink_.wants(ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA)) {
    return;
  }
  Message* m = begin(ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA, first.pid);
  m->es.event.exchangedata.file1 = file(*m, path_, true);
  m->es.event.exchangedata.file2 = file(*m, other_, true);
  sink_.deliver(m);
}

void FanotifyDecoder::emitLink(const Record& r, const std::string& targetPath) {
  const std::string* known = knownPath(*r.objectKey);
  if (known != nullptr && *known != targetPath) {
    other_ = *known;
  } else if (!resolver_.path(*r.objectKey, other_) || other_ == targetPath) {
    LOG_DEBUG("Link source of %{public}s is not known; the new name stands for it.",
              targetPath.c_str());
    other_ = targetPath;
  }
  if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_LINK)) return;
  Message* m = begin(ES_EVENT_TYPE_NOTIFY_LINK, r.pid);
  m->es.event.link.source = object(*m, other_, r.objectKey);
  m->es.event.link.target_dir = file(*m, dir_, true);
  m->es.event.link.target_filename = m->addString(r.entry->name);
  sink_.deliver(m);
}

void FanotifyDecoder::emitUnlink(const Record& r, const std::string& path) {
  if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_UNLINK)) return;
  Message* m = begin(ES_EVENT_TYPE_NOTIFY_UNLINK, r.pid);
  m->es.event.unlink.target = m->addFile(path, nullptr);
  m->es.event.unlink.parent_dir = file(*m, dir_, true);
  sink_.deliver(m);
}

}  // namespace endpointsecurity::linux_es
