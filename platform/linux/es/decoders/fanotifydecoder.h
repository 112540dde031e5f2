#pragma once

#include <atomic>
#include <linux/fanotify.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "es/hub/eventsource.h"

struct file_handle;

namespace endpointsecurity::linux_es {

class Message;

// Turns file handles into paths. A handle names an object as it is when it
// is resolved, not when the event happened; callers resolve directories
// and add the event's name.
class IHandleResolver {
 public:
  virtual ~IHandleResolver() = default;
  // Key is the fsid bytes followed by the handle bytes.
  virtual std::optional<std::string> path(const std::string& key) = 0;
  virtual bool stat(const std::string& path, struct stat* st) = 0;
  // The object itself, by its key: what the event was about even if its
  // name has moved on, and no lookup in a directory its writer holds.
  virtual bool statObject(const std::string& key, struct stat* st) = 0;
};

// Written by the reader, read by anyone.
struct FileDecoderCounters {
  std::atomic<uint64_t> malformed{0};
  std::atomic<uint64_t> overflows{0};
  std::atomic<uint64_t> unresolved{0};
};

// Decodes fanotify FID-mode records (FAN_REPORT_DFID_NAME with the object's
// FID) into file messages:
//   FAN_OPEN                      -> NOTIFY_OPEN, unless it is an exec's
//                                    (FAN_OPEN_EXEC): the kernel's opening
//                                    of an image and its loader is the
//                                    exec, not an open by the program
//   FAN_MODIFY .. FAN_CLOSE_WRITE -> NOTIFY_CLOSE, modified only if data
//                                    changed between open and close
//   FAN_RENAME                    -> NOTIFY_RENAME; new path, or existing
//                                    file when the victim's link-count
//                                    ATTRIB follows from the same pid
//   two mirrored FAN_RENAMEs      -> NOTIFY_EXCHANGEDATA
//   FAN_ATTRIB then FAN_CREATE of the same inode -> NOTIFY_LINK
//   FAN_DELETE                    -> NOTIFY_UNLINK
// A rename is held until the next record shows what it was; flush() lets
// it go when nothing follows. Records of the facility's own pid are skipped.
class FanotifyDecoder {
 public:
  FanotifyDecoder(IEventSink& sink, IHandleResolver& resolver, pid_t self);

  // One read() worth of records.
  void handle(const char* buffer, size_t length);
  void flush();
  bool holding() const { return pending_.has_value(); }
  const FileDecoderCounters& counters() const { return counters_; }

 private:
  struct Named {
    std::string dirKey;
    std::string name;
  };
  struct Record {
    uint64_t mask = 0;
    pid_t pid = 0;
    std::optional<Named> entry;    // DFID_NAME
    std::optional<Named> oldEntry; // OLD_DFID_NAME
    std::optional<Named> newEntry; // NEW_DFID_NAME
    std::optional<std::string> objectKey;  // FID
  };

  bool parse(const fanotify_event_metadata& metadata, const char* raw, Record& out);
  // Takes what it keeps for later from the record.
  void dispatch(Record& record);
  std::optional<std::string> pathOf(const Named& entry);
  void rememberPath(const std::string& objectKey, const std::string& path);
  std::optional<std::string> knownPath(const std::string& objectKey);

  void emitOpen(const Record& r, const std::string& path);
  void emitClose(const Record& r, const std::string& path, bool modified);
  void emitRename(const Record& r, bool existing);
  void emitExchange(const Record& first);
  void emitLink(const Record& r, const std::string& targetPath);
  void emitUnlink(const Record& r, const std::string& path);
  Message* begin(es_event_type_t type, pid_t pid);
  es_file_t* file(Message& m, const std::string& path, bool withStat);
  // A file by its handle, unless it was deleted in the read being decoded.
  bool statObject(const std::string& key, struct stat* st);
  // A file the record names by its object: stat by handle.
  es_file_t* object(Message& m, const std::string& path, const std::optional<std::string>& key);

  IEventSink& sink_;
  IHandleResolver& resolver_;
  const pid_t self_;
  FileDecoderCounters counters_;
  std::vector<Record> records_;         // the read being decoded
  std::unordered_set<std::string_view> gone_;  // its objects deleted, into records_
  std::optional<Record> pending_;       // a rename waiting for what follows
  struct Attrib {
    pid_t pid;
    std::string objectKey;
  };
  std::optional<Attrib> lastAttrib_;    // the ATTRIB a link would start with
  std::unordered_set<std::string> modified_;
  // Recently seen paths by object, for a link's source: a handle of an
  // inode with two names may resolve to either.
  std::list<std::pair<std::string, std::string>> pathOrder_;
  std::unordered_map<std::string, std::list<std::pair<std::string, std::string>>::iterator>
      paths_;
};

}  // namespace endpointsecurity::linux_es
