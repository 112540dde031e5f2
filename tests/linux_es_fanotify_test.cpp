// fanotify FID-mode records into file messages: the decoder with records of
// the test's making and a resolver that knows a few handles.
#include <gtest/gtest.h>
#include <linux/fanotify.h>

#include <cstring>
#include <map>
#include <vector>

#include "es/fanotifydecoder.h"
#include "es/message.h"
#include "es/procinfo.h"
#include "es/mounts.h"

namespace {

using endpointsecurity::linux_es::EventSet;
using endpointsecurity::linux_es::FanotifyDecoder;
using endpointsecurity::linux_es::IEventSink;
using endpointsecurity::linux_es::IHandleResolver;
using endpointsecurity::linux_es::Message;
using endpointsecurity::linux_es::ProcessCache;
using endpointsecurity::linux_es::ProcReader;

constexpr pid_t kSelf = 999;
constexpr pid_t kPid = 4321;

// fsid, then a file_handle of 4 bytes holding the id.
std::string keyOf(uint32_t id) {
  std::string key(8, '\x01');
  const uint32_t bytes = 4;
  const int32_t type = 1;
  key.append(reinterpret_cast<const char*>(&bytes), 4);
  key.append(reinterpret_cast<const char*>(&type), 4);
  key.append(reinterpret_cast<const char*>(&id), 4);
  return key;
}

// Builds one read() worth of records.
class Records {
 public:
  Records& event(uint64_t mask, pid_t pid = kPid) {
    close();
    start_ = buffer_.size();
    fanotify_event_metadata m{};
    m.vers = FANOTIFY_METADATA_VERSION;
    m.metadata_len = sizeof m;
    m.mask = mask;
    m.fd = FAN_NOFD;
    m.pid = pid;
    append(&m, sizeof m);
    return *this;
  }
  Records& info(uint8_t type, uint32_t id, const std::string& name = "", bool withName = false) {
    const std::string key = keyOf(id);
    std::string body(4, '\0');  // header, filled below
    body += key;
    if (withName) body += name + '\0';
    while (body.size() % 4) body += '\0';
    fanotify_event_info_header h{};
    h.info_type = type;
    h.len = static_cast<uint16_t>(body.size());
    std::memcpy(body.data(), &h, sizeof h);
    append(body.data(), body.size());
    return *this;
  }
  Records& fid(uint32_t id) { return info(FAN_EVENT_INFO_TYPE_FID, id); }
  Records& entry(uint32_t dir, const std::string& name) {
    return info(FAN_EVENT_INFO_TYPE_DFID_NAME, dir, name, true);
  }
  Records& from(uint32_t dir, const std::string& name) {
    return info(FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, dir, name, true);
  }
  Records& to(uint32_t dir, const std::string& name) {
    return info(FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, dir, name, true);
  }
  const std::vector<char>& bytes() {
    close();
    return buffer_;
  }

 private:
  void append(const void* p, size_t n) {
    const char* c = static_cast<const char*>(p);
    buffer_.insert(buffer_.end(), c, c + n);
  }
  void close() {
    if (start_ == SIZE_MAX) return;
    const uint32_t len = static_cast<uint32_t>(buffer_.size() - start_);
    std::memcpy(buffer_.data() + start_ + offsetof(fanotify_event_metadata, event_len), &len, 4);
    start_ = SIZE_MAX;
  }
  std::vector<char> buffer_;
  size_t start_ = SIZE_MAX;
};

class Sink : public IEventSink, public IHandleResolver {
 public:
  Sink() : cache(reader) {}
  ~Sink() override {
    for (Message* m : delivered) delete m;
  }
  void deliver(Message* m) override { delivered.push_back(m); }
  bool wants(es_event_type_t type) const override { return wanted.test(type); }
  ProcessCache& processes() override { return cache; }
  uint64_t now() override { return 0; }
  std::optional<std::string> path(const std::string& key) override {
    auto it = paths.find(key);
    if (it == paths.end()) return std::nullopt;
    return it->second;
  }
  bool stat(const std::string& path, struct stat* st) override {
    auto it = sizes.find(path);
    if (it == sizes.end()) return false;
    st->st_size = it->second;
    return true;
  }

  std::vector<es_event_type_t> types() const {
    std::vector<es_event_type_t> out;
    for (auto* m : delivered) out.push_back(m->es.event_type);
    return out;
  }

  EventSet wanted = EventSet().set();
  std::vector<Message*> delivered;
  std::map<std::string, std::string> paths{{keyOf(1), "/media/usb"}, {keyOf(2), "/media/usb/sub"}};
  std::map<std::string, off_t> sizes{{"/media/usb/a", 5}, {"/media/usb/b", 7}};
  ProcReader reader{"/nonexistent-proc"};
  ProcessCache cache;
};

class Decoder : public ::testing::Test {
 protected:
  void feed(Records& r) { decoder.handle(r.bytes().data(), r.bytes().size()); }
  const es_message_t& at(size_t i) { return sink.delivered.at(i)->es; }

  Sink sink;
  FanotifyDecoder decoder{sink, sink, kSelf};
};

TEST_F(Decoder, OpenAndCloseCarryPathSizeAndTheTrueModifiedFlag) {
  Records r;
  r.event(FAN_OPEN).entry(1, "a").fid(10);
  r.event(FAN_MODIFY).entry(1, "a").fid(10);
  r.event(FAN_CLOSE_WRITE).entry(1, "a").fid(10);
  r.event(FAN_CLOSE_WRITE).entry(1, "b").fid(11);             // opened for writing only
  r.event(FAN_MODIFY | FAN_CLOSE_WRITE).entry(1, "b").fid(11);  // merged in the queue
  feed(r);
  ASSERT_EQ(sink.types(), (std::vector<es_event_type_t>{ES_EVENT_TYPE_NOTIFY_OPEN,
                                                        ES_EVENT_TYPE_NOTIFY_CLOSE,
                                                        ES_EVENT_TYPE_NOTIFY_CLOSE,
                                                        ES_EVENT_TYPE_NOTIFY_CLOSE}));
  EXPECT_STREQ(at(0).event.open.file->path.data, "/media/usb/a");
  EXPECT_EQ(at(0).event.open.file->stat.st_size, 5);
  EXPECT_EQ(audit_token_to_pid(at(0).process->audit_token), kPid);
  EXPECT_TRUE(at(1).event.close.modified);
  EXPECT_EQ(at(1).event.close.target->stat.st_size, 5);
  EXPECT_FALSE(at(2).event.close.modified);
  EXPECT_STREQ(at(2).event.close.target->path.data, "/media/usb/b");
  EXPECT_TRUE(at(3).event.close.modified);

  // A modification is forgotten at its close: the next close is clean.
  Records again;
  again.event(FAN_CLOSE_WRITE).entry(1, "a").fid(10);
  feed(again);
  EXPECT_FALSE(at(4).event.close.modified);
}

TEST_F(Decoder, RenamesTellNewPathOverwriteAndExchangeApart) {
  // A rename followed by something unrelated: a new path.
  Records r;
  r.event(FAN_RENAME).from(1, "a").to(2, "a2").fid(10);
  r.event(FAN_OPEN).entry(1, "b").fid(11);
  feed(r);
  ASSERT_EQ(sink.delivered.size(), 2u);
  const es_event_rename_t& plain = at(0).event.rename;
  EXPECT_STREQ(plain.source->path.data, "/media/usb/a");
  EXPECT_EQ(plain.destination_type, ES_DESTINATION_TYPE_NEW_PATH);
  EXPECT_STREQ(plain.destination.new_path.dir->path.data, "/media/usb/sub");
  EXPECT_STREQ(plain.destination.new_path.filename.data, "a2");

  // The victim's link count drops right after: an existing file.
  Records over;
  over.event(FAN_RENAME).from(1, "a").to(1, "b").fid(10);
  over.event(FAN_ATTRIB).fid(11);
  feed(over);
  ASSERT_EQ(sink.delivered.size(), 3u);
  EXPECT_EQ(at(2).event.rename.destination_type, ES_DESTINATION_TYPE_EXISTING_FILE);
  EXPECT_STREQ(at(2).event.rename.destination.existing_file->path.data, "/media/usb/b");
  EXPECT_EQ(at(2).event.rename.source->stat.st_size, 7);  // the moved file, read at b

  // Two mirrored renames of one pid: an exchange, not two renames.
  Records swap;
  swap.event(FAN_RENAME).from(1, "a").to(1, "b").fid(10);
  swap.event(FAN_RENAME).from(1, "b").to(1, "a").fid(11);
  feed(swap);
  ASSERT_EQ(sink.delivered.size(), 4u);
  EXPECT_EQ(at(3).event_type, ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA);
  EXPECT_STREQ(at(3).event.exchangedata.file1->path.data, "/media/usb/a");
  EXPECT_STREQ(at(3).event.exchangedata.file2->path.data, "/media/usb/b");

  // Mirrored, but by two processes: two renames.
  Records two;
  two.event(FAN_RENAME, 1).from(1, "a").to(1, "b").fid(10);
  two.event(FAN_RENAME, 2).from(1, "b").to(1, "a").fid(11);
  feed(two);
  EXPECT_TRUE(decoder.holding());
  decoder.flush();  // nothing followed the last one
  EXPECT_FALSE(decoder.holding());
  ASSERT_EQ(sink.delivered.size(), 6u);
  EXPECT_EQ(at(4).event_type, ES_EVENT_TYPE_NOTIFY_RENAME);
  EXPECT_EQ(at(5).event_type, ES_EVENT_TYPE_NOTIFY_RENAME);
}

TEST_F(Decoder, HardLinksAndDeletes) {
  Records r;
  r.event(FAN_CLOSE_WRITE).entry(1, "a").fid(10);  // the decoder learns a's path
  r.event(FAN_ATTRIB).fid(10);
  r.event(FAN_CREATE).entry(2, "hard").fid(10);
  r.event(FAN_CREATE).entry(1, "new").fid(12);  // a plain create: no message
  r.event(FAN_DELETE).entry(1, "a").fid(10);
  feed(r);
  ASSERT_EQ(sink.types(), (std::vector<es_event_type_t>{ES_EVENT_TYPE_NOTIFY_CLOSE,
                                                        ES_EVENT_TYPE_NOTIFY_LINK,
                                                        ES_EVENT_TYPE_NOTIFY_UNLINK}));
  const es_event_link_t& link = at(1).event.link;
  EXPECT_STREQ(link.source->path.data, "/media/usb/a");
  EXPECT_STREQ(link.target_dir->path.data, "/media/usb/sub");
  EXPECT_STREQ(link.target_filename.data, "hard");
  EXPECT_STREQ(at(2).event.unlink.target->path.data, "/media/usb/a");
  EXPECT_STREQ(at(2).event.unlink.parent_dir->path.data, "/media/usb");
}

TEST_F(Decoder, UnwantedOwnAndUnresolvableEventsAreDropped) {
  sink.wanted.reset();
  sink.wanted.set(ES_EVENT_TYPE_NOTIFY_CLOSE);
  Records r;
  r.event(FAN_OPEN).entry(1, "a").fid(10);               // not wanted
  r.event(FAN_CLOSE_WRITE, kSelf).entry(1, "a").fid(10);  // the facility's own
  r.event(FAN_CLOSE_WRITE).entry(77, "a").fid(10);        // directory gone
  feed(r);
  EXPECT_TRUE(sink.delivered.empty());
  EXPECT_EQ(decoder.counters().unresolved, 1u);
}

TEST_F(Decoder, BadRecordsAreCountedNeverTrusted) {
  Records ok;
  ok.event(FAN_CLOSE_WRITE).entry(1, "a").fid(10);
  std::vector<char> good = ok.bytes();

  // An overflow is counted and logged.
  Records overflow;
  overflow.event(FAN_Q_OVERFLOW);
  feed(overflow);
  EXPECT_EQ(decoder.counters().overflows, 1u);

  // A name without its terminating NUL.
  Records unterminated;
  unterminated.event(FAN_CLOSE_WRITE).fid(10).entry(1, "abc");  // "abc\0" fills 4 bytes
  std::vector<char> bytes = unterminated.bytes();
  bytes[bytes.size() - 1] = 'd';
  decoder.handle(bytes.data(), bytes.size());
  EXPECT_EQ(decoder.counters().malformed, 1u);

  // A handle longer than its record.
  std::vector<char> longHandle = good;
  const size_t handleAt = sizeof(fanotify_event_metadata) + 4 + 8;
  const uint32_t huge = 4096;
  std::memcpy(longHandle.data() + handleAt, &huge, 4);
  decoder.handle(longHandle.data(), longHandle.size());
  EXPECT_EQ(decoder.counters().malformed, 2u);

  // A wrong version, and an event length past the read: the rest of the
  // read is dropped.
  std::vector<char> version = good;
  version[offsetof(fanotify_event_metadata, vers)] = 1;
  decoder.handle(version.data(), version.size());
  std::vector<char> cut(good.begin(), good.end() - 4);
  decoder.handle(cut.data(), cut.size());
  EXPECT_EQ(decoder.counters().malformed, 4u);
  EXPECT_TRUE(sink.delivered.empty());

  // And the decoder still works.
  decoder.handle(good.data(), good.size());
  EXPECT_EQ(sink.delivered.size(), 1u);
}

TEST(LinuxMounts, ParsesMountInfoAndSkipsPseudoFileSystems) {
  const std::string text =
      "22 1 0:21 / /proc rw,nosuid shared:12 - proc proc rw\n"
      "29 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
      "40 29 0:35 / /media/My\\040Stick rw master:3 - vfat /dev/sdb1 rw\n"
      "garbage line\n"
      "41 29 0:36 / /mnt/x rw -\n";
  const auto mounts = endpointsecurity::linux_es::parseMountInfo(text);
  ASSERT_EQ(mounts.size(), 3u);
  EXPECT_EQ(mounts[0].path, "/proc");
  EXPECT_EQ(mounts[2].path, "/media/My Stick");
  EXPECT_EQ(mounts[2].fsType, "vfat");
  EXPECT_FALSE(endpointsecurity::linux_es::watchableFsType("proc"));
  EXPECT_FALSE(endpointsecurity::linux_es::watchableFsType("cgroup2"));
  EXPECT_TRUE(endpointsecurity::linux_es::watchableFsType("ext4"));
  EXPECT_TRUE(endpointsecurity::linux_es::watchableFsType("tmpfs"));
}

}  // namespace
