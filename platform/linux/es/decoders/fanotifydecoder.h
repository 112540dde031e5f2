#pragma once

#include <atomic>
#include <linux/fanotify.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "es/hub/eventsource.h"
#include "es/procfs/procinfo.h"

struct file_handle;

namespace endpointsecurity::linux_es {

class Message;

// Turns file handles into paths. A handle names an object as it is when it
// is resolved, not when the event happened; callers resolve directories
// and add the event's name.
class IHandleResolver {
 public:
  virtual ~IHandleResolver() = default;
  // Sets `out` to the path, reusing its room; false, with `out`
  // unspecified, when the key does not resolve. Key is the fsid bytes followed by the handle bytes.
  virtual bool path(std::string_view key, std::string& out) = 0;
  virtual bool stat(const std::string& path, struct stat* st) = 0;
  // The object itself, by its key: what the event was about even if its
  // name has moved on, and no lookup in a directory its writer holds.
  virtual bool statObject(std::string_view key, struct stat* st) = 0;
};

// Hashes a handle key, so that tables of keys are searched with a view into
// the read and no string is made to ask.
struct HandleKeyHash {
  using is_transparent = void;
  size_t operator()(std::string_view key) const { return std::hash<std::string_view>{}(key); }
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
// Records are read in place: keys and names point into the read, and only
// what outlives it is copied.
class FanotifyDecoder {
 public:
  FanotifyDecoder(IEventSink& sink, IHandleResolver& resolver, pid_t self);

  // One read() worth of records.
  void handle(const char* buffer, size_t length);
  void flush();
  bool holding() const { return pending_.has_value(); }
  const FileDecoderCounters& counters() const { return counters_; }

 private:
  // Views into the read being decoded, or into the held rename's copy.
  struct Named {
    std::string_view dirKey;
    std::string_view name;
  };
  struct Record {
    uint64_t mask = 0;
    pid_t pid = 0;
    std::optional<Named> entry;    // DFID_NAME
    std::optional<Named> oldEntry; // OLD_DFID_NAME
    std::optional<Named> newEntry; // NEW_DFID_NAME
    std::optional<std::string_view> objectKey;  // FID
    std::string_view raw;          // the whole record
  };
  struct Attrib {
    pid_t pid;
    std::string objectKey;
  };
  struct KnownPath {
    std::string key;
    std::string path;
  };
  bool parse(const fanotify_event_metadata& metadata, const char* raw, Record& out);
  // Copies a rename that must outlive its read.
  void hold(const Record& record);
  void dispatch(Record& record);
  // Fills `out` with the entry's path and dir_ with its directory; false
  // when the directory's handle does not resolve.
  bool pathOf(const Named& entry, std::string& out);
  // `dir` and `name` joined into `out`; the directory itself for no name.
  static void join(std::string& out, const std::string& dir, std::string_view name);
  // Whether a MODIFY of the object was seen since it was opened; forgets it.
  bool forgetModified(std::string_view objectKey);
  void rememberPath(std::string_view objectKey, std::string_view path);
  const std::string* knownPath(std::string_view objectKey) const;

  void emitOpen(const Record& r, const std::string& path);
  void emitClose(const Record& r, const std::string& path, bool modified);
  void emitRename(const Record& r, bool existing);
  void emitExchange(const Record& first);
  // These two follow pathOf(r.entry): the path it gave, its dir_.
  void emitLink(const Record& r, const std::string& targetPath);
  void emitUnlink(const Record& r, const std::string& path);
  Message* begin(es_event_type_t type, pid_t pid);
  es_file_t* file(Message& m, const std::string& path, bool withStat);
  // A file by its handle, unless it was deleted in the read being decoded.
  bool statObject(std::string_view key, struct stat* st);
  // A file the record names by its object: stat by handle.
  es_file_t* object(Message& m, const std::string& path,
                    const std::optional<std::string_view>& key);

  IEventSink& sink_;
  IHandleResolver& resolver_;
  const pid_t self_;
  FileDecoderCounters counters_;
  std::vector<Record> records_;         // the read being decoded
  std::unordered_set<std::string_view> gone_;  // its objects deleted, into records_
  std::optional<Record> pending_;       // a rename waiting for what follows
  std::vector<char> pendingBytes_;      // its record, which pending_ points into
  std::optional<Attrib> lastAttrib_;    // the ATTRIB a link would start with
  std::unordered_set<std::string, HandleKeyHash, std::equal_to<>> modified_;
  // Recently seen paths by object, for a link's source: a handle of an
  // inode with two names may resolve to either. One slot per hash, so a
  // newer object pushes out an older one; slots keep their strings' room,
  // and remembering allocates nothing once they are warm.
  std::vector<KnownPath> knownPaths_;
  // Reused for every event: the path it names, a directory (pathOf's, so
  // the emitters that follow it need not resolve it again), a second path.
  std::string path_;
  std::string dir_;
  std::string other_;
  ProcessInfo process_;
};

}  // namespace endpointsecurity::linux_es
