// What the Linux facility reads from the kernel, of the test's making:
// fanotify FID-mode records into file messages (with a resolver that knows a
// few handles), the BPF process programs' records into process messages,
// /proc, the mount table and the system call a caller is blocked in. Each
// file message is checked as one line of text. Reading the real /proc and a
// real caller's execve arguments is the kernel tests' part (the connector
// tier, print filters held and denied by their arguments).
#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fanotify.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "es/bpf/processevent.h"
#include "es/procfs/execcall.h"
#include "es/procfs/execformat.h"
#include "es/decoders/fanotifydecoder.h"
#include "es/hub/message.h"
#include "es/procfs/mounts.h"
#include "es/decoders/processrecord.h"
#include "es/procfs/procinfo.h"
#include "es/procfs/socketmatch.h"
#include "text/byteescape.h"
#include "xpc/utf8.h"

namespace endpointsecurity::linux_es {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

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

// Builds one read() worth of records: events, each followed by its
// information records (an object's fid; a directory's fid and an entry name).
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
  Records& fid(uint32_t id) { return info(FAN_EVENT_INFO_TYPE_FID, id, nullptr); }
  Records& entry(uint32_t dir, const char* name) {
    return info(FAN_EVENT_INFO_TYPE_DFID_NAME, dir, name);
  }
  Records& from(uint32_t dir, const char* name) {
    return info(FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, dir, name);
  }
  Records& to(uint32_t dir, const char* name) {
    return info(FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, dir, name);
  }
  const std::vector<char>& bytes() {
    close();
    return buffer_;
  }

 private:
  Records& info(uint8_t type, uint32_t id, const char* name) {
    std::string body(4, '\0');  // header, filled below
    body += keyOf(id);
    if (name != nullptr) body += std::string(name) + '\0';
    while (body.size() % 4) body += '\0';
    fanotify_event_info_header h{};
    h.info_type = type;
    h.len = static_cast<uint16_t>(body.size());
    std::memcpy(body.data(), &h, sizeof h);
    append(body.data(), body.size());
    return *this;
  }
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

std::string path(const es_file_t* file) { return file->path.data ? file->path.data : "(none)"; }
std::string sized(const es_file_t* file) {
  return path(file) + " (" + std::to_string(file->stat.st_size) + ")";
}

// One message as a line of text.
std::string line(Message& m) {
  const es_events_t& e = m.es.event;
  switch (m.es.event_type) {
    case ES_EVENT_TYPE_NOTIFY_OPEN:
      return "open " + sized(e.open.file);
    case ES_EVENT_TYPE_NOTIFY_CLOSE:
      return (e.close.modified ? "modified " : "close ") + sized(e.close.target);
    case ES_EVENT_TYPE_NOTIFY_RENAME:
      return "rename " + sized(e.rename.source) +
             (e.rename.destination_type == ES_DESTINATION_TYPE_EXISTING_FILE
                  ? " over " + path(e.rename.destination.existing_file)
                  : " to " + path(e.rename.destination.new_path.dir) + " " +
                        e.rename.destination.new_path.filename.data);
    case ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA:
      return "exchange " + path(e.exchangedata.file1) + " " + path(e.exchangedata.file2);
    case ES_EVENT_TYPE_NOTIFY_LINK:
      return "link " + path(e.link.source) + " as " + path(e.link.target_dir) + " " +
             e.link.target_filename.data;
    case ES_EVENT_TYPE_NOTIFY_UNLINK:
      return "unlink " + path(e.unlink.target) + " in " + path(e.unlink.parent_dir);
    default:
      return "type " + std::to_string(m.es.event_type);
  }
}

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
  void catchUpOthers(const IEventSource*) override {}
  bool path(std::string_view key, std::string& out) override {
    auto it = paths.find(key);
    if (it == paths.end()) return false;
    out = it->second;
    return true;
  }
  bool stat(const std::string& path, struct stat* st) override {
    auto it = sizes.find(path);
    if (it == sizes.end()) return false;
    st->st_size = it->second;
    return true;
  }
  bool statObject(std::string_view key, struct stat* st) override {
    return stat(std::string(key), st);
  }
  // The lines of what was delivered since the last call.
  Lines lines() {
    Lines out;
    for (; taken < delivered.size(); ++taken) out.push_back(line(*delivered[taken]));
    return out;
  }

  EventSet wanted = EventSet().set();
  std::vector<Message*> delivered;
  size_t taken = 0;
  std::map<std::string, std::string, std::less<>> paths{{keyOf(1), "/media/usb"},
                                                        {keyOf(2), "/media/usb/sub"}};
  // By path for directories, by handle for the files events name.
  std::map<std::string, off_t> sizes{{"/media/usb/a", 5}, {"/media/usb/b", 7}, {keyOf(10), 5},
                                     {keyOf(11), 7}};
  ProcReader reader{"/nonexistent-proc"};
  ProcessCache cache;
};

class Decoder : public ::testing::Test {
 protected:
  Lines feed(Records& r) {
    decoder.handle(r.bytes().data(), r.bytes().size());
    return sink.lines();
  }

  Sink sink;
  FanotifyDecoder decoder{sink, sink, kSelf};
};

TEST_F(Decoder, OpensClosesLinksAndDeletesCarryPathsSizesAndTheTrueModifiedFlag) {
  Records r;
  r.event(FAN_OPEN).entry(1, "a").fid(10);
  r.event(FAN_OPEN | FAN_OPEN_EXEC).entry(1, "a").fid(10);  // an exec's: reported as the exec
  r.event(FAN_MODIFY).entry(1, "a").fid(10);
  r.event(FAN_CLOSE_WRITE).entry(1, "a").fid(10);
  r.event(FAN_CLOSE_WRITE).entry(1, "a").fid(10);               // the modification was forgotten
  r.event(FAN_CLOSE_WRITE).entry(1, "b").fid(11);               // opened for writing only
  r.event(FAN_MODIFY | FAN_CLOSE_WRITE).entry(1, "b").fid(11);  // merged in the queue
  r.event(FAN_ATTRIB).fid(10);
  r.event(FAN_CREATE).entry(2, "hard").fid(10);
  r.event(FAN_CREATE).entry(1, "new").fid(12);  // a plain create: no message
  EXPECT_EQ(feed(r), (Lines{"open /media/usb/a (5)", "modified /media/usb/a (5)",
                            "close /media/usb/a (5)", "close /media/usb/b (7)",
                            "modified /media/usb/b (7)", "link /media/usb/a as /media/usb/sub hard"}));
  EXPECT_EQ(audit_token_to_pid(sink.delivered[0]->es.process->audit_token), kPid);
  // A file deleted within the same read is not looked up: no size.
  Records gone;
  gone.event(FAN_MODIFY | FAN_CLOSE_WRITE).entry(1, "b").fid(11);
  gone.event(FAN_DELETE).entry(1, "b").fid(11);
  EXPECT_EQ(feed(gone), (Lines{"modified /media/usb/b (0)", "unlink /media/usb/b in /media/usb"}));
}

TEST_F(Decoder, RenamesTellNewPathOverwriteAndExchangeApart) {
  // A rename followed by something unrelated: a new path. The size is the
  // moved file's own, by its handle, wherever its name went.
  Records plain;
  plain.event(FAN_RENAME).from(1, "a").to(2, "a2").fid(10);
  plain.event(FAN_OPEN).entry(1, "b").fid(11);
  EXPECT_EQ(feed(plain),
            (Lines{"rename /media/usb/a (5) to /media/usb/sub a2", "open /media/usb/b (7)"}));
  // The victim's link count drops right after, here in the next read (the
  // first one's buffer gone by then): an existing file.
  {
    Records over;
    over.event(FAN_RENAME).from(1, "a").to(1, "b").fid(10);
    EXPECT_EQ(feed(over), Lines{});
  }
  Records victim;
  victim.event(FAN_ATTRIB).fid(11);
  EXPECT_EQ(feed(victim), Lines{"rename /media/usb/a (5) over /media/usb/b"});
  // Two mirrored renames of one pid: an exchange, not two renames.
  Records swap;
  swap.event(FAN_RENAME).from(1, "a").to(1, "b").fid(10);
  swap.event(FAN_RENAME).from(1, "b").to(1, "a").fid(11);
  EXPECT_EQ(feed(swap), Lines{"exchange /media/usb/a /media/usb/b"});
  // Mirrored, but by two processes: two renames, the last one held until
  // something follows or the read is flushed.
  Records two;
  two.event(FAN_RENAME, 1).from(1, "a").to(1, "b").fid(10);
  two.event(FAN_RENAME, 2).from(1, "b").to(1, "a").fid(11);
  EXPECT_EQ(feed(two).size(), 1u);
  EXPECT_TRUE(decoder.holding());
  decoder.flush();
  EXPECT_FALSE(decoder.holding());
  EXPECT_EQ(sink.lines(), Lines{"rename /media/usb/b (7) to /media/usb a"});
}

TEST_F(Decoder, DroppedAndBadRecordsAreCountedNeverTrusted) {
  sink.wanted.reset();
  sink.wanted.set(ES_EVENT_TYPE_NOTIFY_CLOSE);
  Records r;
  r.event(FAN_OPEN).entry(1, "a").fid(10);                // not wanted
  r.event(FAN_CLOSE_WRITE, kSelf).entry(1, "a").fid(10);  // the facility's own
  r.event(FAN_CLOSE_WRITE).entry(77, "a").fid(10);        // directory gone (ESTALE)
  r.event(FAN_Q_OVERFLOW);
  EXPECT_TRUE(feed(r).empty());
  EXPECT_EQ(decoder.counters().unresolved, 1u);
  EXPECT_EQ(decoder.counters().overflows, 1u);

  Records ok;
  ok.event(FAN_CLOSE_WRITE).entry(1, "a").fid(10);
  const std::vector<char> good = ok.bytes();
  // The entry's header, then fsid, handle size and type, handle, name.
  const size_t handleSize = sizeof(fanotify_event_metadata) + 4 + 8;
  auto broken = [&](size_t at, const void* with, size_t n, size_t cut = 0) {
    std::vector<char> bytes(good.begin(), good.end() - cut);
    std::memcpy(bytes.data() + at, with, n);
    decoder.handle(bytes.data(), bytes.size());
  };
  const uint32_t huge = 4096;
  const uint8_t version = 1;
  broken(handleSize + 12, "abcd", 4);  // a name without its terminating NUL
  broken(handleSize, &huge, 4);        // a handle longer than its record
  // A wrong version, and an event length past the read: the rest of the
  // read is dropped.
  broken(offsetof(fanotify_event_metadata, vers), &version, 1);
  broken(0, good.data(), 0, 4);
  EXPECT_EQ(decoder.counters().malformed, 4u);
  EXPECT_TRUE(sink.lines().empty());
  // And the decoder still works.
  decoder.handle(good.data(), good.size());
  EXPECT_EQ(sink.lines(), Lines{"close /media/usb/a (5)"});
}

TEST(LinuxMounts, ParsesMountInfoAndSkipsPseudoFileSystems) {
  const std::string text =
      "22 1 0:21 / /proc rw,nosuid shared:12 - proc proc rw\n"
      "29 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
      "40 29 0:35 / /media/My\\040Stick rw master:3 - vfat /dev/sdb1 rw\n"
      "garbage line\n"
      "41 29 0:36 / /mnt/x rw -\n";
  const auto mounts = parseMountInfo(text);
  ASSERT_EQ(mounts.size(), 3u);
  EXPECT_EQ(mounts[0].path, "/proc");
  EXPECT_EQ(mounts[2].path, "/media/My Stick");
  EXPECT_EQ(mounts[2].fsType, "vfat");
  EXPECT_FALSE(watchableFsType("proc") || watchableFsType("cgroup2"));
  EXPECT_TRUE(watchableFsType("ext4") && watchableFsType("tmpfs"));
}

// Exec, fork and exit records decoded into messages are the kernel tests'
// part (the BPF tier); here what must never be trusted.
TEST(LinuxProcessRecords, UnwantedTypesOnlyFeedTheCacheAndBadRecordsAreCounted) {
  lumo_proc_event exec;
  std::memset(&exec, 0, sizeof exec);
  exec.kind = LUMO_PROC_EXEC;
  exec.proc.pid = 600;
  exec.proc.start_ns = 2'500'000'000ull;  // 250 ticks at 100 Hz
  std::strcpy(exec.filename, "/bin/true");
  exec.filename_len = sizeof "/bin/true";
  exec.args_len = 5;
  std::memcpy(exec.args, "true", 5);
  const size_t size = offsetof(lumo_proc_event, args) + exec.args_len;
  Sink sink;
  sink.wanted.reset();
  ProcessRecordDecoder decoder(sink);
  ASSERT_TRUE(decoder.handle(&exec, size));
  EXPECT_TRUE(sink.cache.lookup(600, 250));
  // Too short for any record; an exec cut inside its arguments; an
  // unknown kind; a length field past the buffer.
  EXPECT_FALSE(decoder.handle(&exec, 8));
  EXPECT_FALSE(decoder.handle(&exec, size - 1));
  lumo_proc_event odd = exec;
  odd.kind = 99;
  EXPECT_FALSE(decoder.handle(&odd, size));
  lumo_proc_event huge = exec;
  huge.args_len = LUMO_ARGS_MAX + 1;
  EXPECT_FALSE(decoder.handle(&huge, sizeof huge));
  EXPECT_FALSE(decoder.handle(nullptr, 0));
  EXPECT_EQ(decoder.malformed(), 5u);
  EXPECT_TRUE(sink.lines().empty());
}

std::string statLine(pid_t pid, const std::string& comm, pid_t ppid, uint64_t start) {
  return std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid) +
         " 100 200 0 -1 4194560 10 0 0 0 1 2 0 0 20 0 1 0 " + std::to_string(start) +
         " 1000 100 18446744073709551615\n";
}

TEST(LinuxProcInfo, ParsesStatStatusAndSyscallAndRefusesGarbage) {
  ProcessInfo info;
  // A command name with blanks and parentheses.
  ASSERT_TRUE(ProcReader::parseStat(statLine(42, "a) (b c", 7, 12345), info));
  EXPECT_EQ(std::tie(info.pid, info.ppid, info.pgid, info.sid, info.startTicks),
            std::make_tuple(42, 7, 100, 200, 12345u));
  for (const std::string& bad : {std::string(), std::string("42 (x) S 1 2"),
                                 std::string("x (y) S 1 2 3 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 9"),
                                 statLine(42, "x", 7, 1).replace(0, 2, "-1")}) {
    EXPECT_FALSE(ProcReader::parseStat(bad, info)) << bad;
  }

  ASSERT_TRUE(
      ProcReader::parseStatus("Name:\tx\nUid:\t1000\t0\t0\t0\nGid:\t1001\t1002\t0\t0\n", info));
  EXPECT_EQ(std::tie(info.ruid, info.euid, info.rgid, info.egid),
            std::make_tuple(1000u, 0u, 1001u, 1002u));
  EXPECT_FALSE(ProcReader::parseStatus("Uid:\tx\t0\nGid:\t1\t1\n", info));
  EXPECT_FALSE(ProcReader::parseStatus("Name:\tx\n", info));

  EXPECT_EQ(ProcReader::splitNul(std::string("ls\0-l\0\0b\0", 9)),
            (std::vector<std::string>{"ls", "-l", "", "b"}));
  EXPECT_TRUE(ProcReader::splitNul("").empty());

  // /proc/PID/syscall of a caller in execve; nothing for the others.
  auto call = parseSyscall("59 0x55d0c0 0x7ffd10 0x7ffd20 0x0 0x0 0x8 0x7ffd00 0x7f1234\n");
  ASSERT_TRUE(call);
  EXPECT_EQ(call->number, 59);
  EXPECT_EQ(call->args[0], 0x55d0c0u);
  EXPECT_EQ(call->args[5], 0x8u);
  for (const char* other :
       {"running\n", "-1 0x7ffd00 0x7f1234\n", "59 0x1 0x2", "59 1 2 3 4 5 6", ""}) {
    EXPECT_FALSE(parseSyscall(other)) << other;
  }
}

// Reading the real /proc is the connector tier's kernel test; here the
// image path of a replaced binary and the cache, over a /proc that has
// nothing else.
TEST(LinuxProcInfo, TheCacheNeverAnswersForAnotherProcessUnderThePid) {
  const fs::path root = fs::temp_directory_path() / ("lumo-proc-" + std::to_string(getpid()));
  fs::create_directories(root / "300");
  fs::create_symlink("/usr/bin/tool (deleted)", root / "300" / "exe");
  const ProcReader reader(root.string());
  EXPECT_EQ(reader.exe(300), "/usr/bin/tool");
  auto process = [](pid_t pid, uint64_t start, const char* exe) {
    ProcessInfo info;
    info.pid = pid;
    info.startTicks = start;
    info.exe = exe;
    return info;
  };

  ProcessCache cache(reader, 2);
  cache.put(process(400, 50, "/usr/bin/old"));
  EXPECT_EQ(cache.lookup(400)->exe, "/usr/bin/old");
  EXPECT_FALSE(cache.lookup(400, 60));  // the pid came back as another process
  // Bounded: a full cache starts over.
  for (pid_t pid : {1, 2}) cache.put(process(pid, 1, "/x"));
  EXPECT_LE(cache.size(), 2u);

  // A miss first lets the tier's pending records land in the cache.
  int catchUps = 0;
  cache.setCatchUp([&] {
    ++catchUps;
    cache.put(process(500, 9, "/usr/bin/short"));
    EXPECT_TRUE(cache.lookup(500));  // a nested lookup is answered, not re-entered
  });
  EXPECT_EQ(cache.lookup(500)->exe, "/usr/bin/short");
  EXPECT_EQ(catchUps, 1);
  // Exited and gone from procfs: its queued events still find it, but not
  // under another start time.
  cache.setCatchUp(nullptr);
  cache.forget(500);
  ASSERT_TRUE(cache.lookup(500, 9));
  EXPECT_FALSE(cache.lookup(500, 10));
  // A new process under the pid replaces the exited one.
  cache.put(process(500, 11, "/usr/bin/next"));
  cache.forget(500);
  EXPECT_EQ(cache.lookup(500)->exe, "/usr/bin/next");
  fs::remove_all(root);
}

// An ELF64 file: the header, its program headers and, when `loader` is
// given, a PT_INTERP naming it at `loaderAt`.
std::string elf(const std::string& loader, uint64_t loaderAt = 0x200) {
  Elf64_Ehdr header{};
  std::memcpy(header.e_ident, ELFMAG, SELFMAG);
  header.e_ident[EI_CLASS] = ELFCLASS64;
  header.e_ident[EI_DATA] = ELFDATA2LSB;
  header.e_phoff = sizeof header;
  header.e_phentsize = sizeof(Elf64_Phdr);
  header.e_phnum = loader.empty() ? 1 : 2;
  std::string file(reinterpret_cast<const char*>(&header), sizeof header);
  Elf64_Phdr load{};
  load.p_type = PT_LOAD;
  file.append(reinterpret_cast<const char*>(&load), sizeof load);
  if (!loader.empty()) {
    Elf64_Phdr interp{};
    interp.p_type = PT_INTERP;
    interp.p_offset = loaderAt;
    interp.p_filesz = loader.size() + 1;
    file.append(reinterpret_cast<const char*>(&interp), sizeof interp);
    file.resize(loaderAt, '\0');
    file.append(loader.c_str(), loader.size() + 1);
  }
  return file;
}

TEST(LinuxExecFormat, ScriptsLoadersAndUnknownFormatsNeedAnInterpreterAndCraftedHeadersAreSafe) {
  const fs::path dir = fs::temp_directory_path() / ("lumo-format-" + std::to_string(getpid()));
  fs::create_directories(dir);
  const std::string loader = "/lib64/ld-linux-x86-64.so.2";
  auto formatOf = [&](const std::string& bytes, const std::string& known) {
    const fs::path path = dir / "f";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const ExecFormat format = execFormatOf(fd, known);
    EXPECT_EQ(elfInterpreter(fd), bytes.size() > 0x200 ? loader : "");
    close(fd);
    return format;
  };
  constexpr ExecFormat kSelf = ExecFormat::kSelfContained;
  constexpr ExecFormat kInterp = ExecFormat::kNeedsInterpreter;
  EXPECT_EQ(formatOf("#!/bin/sh\n", loader), kInterp);
  EXPECT_EQ(formatOf(elf(""), ""), kSelf);  // static
  EXPECT_EQ(formatOf(elf(loader), loader), kSelf);
  EXPECT_EQ(formatOf(elf(loader), ""), kInterp);
  EXPECT_EQ(formatOf(elf(loader), "/lib/ld-musl-x86_64.so.1"), kInterp);
  // The loader's name beyond the first kilobyte is read all the same.
  EXPECT_EQ(formatOf(elf(loader, 0x2000), loader), kSelf);
  // A binfmt_misc format or garbage: the next exec open is checked.
  EXPECT_EQ(formatOf("MZ\x90\0", loader), kInterp);
  EXPECT_EQ(formatOf("", loader), kInterp);
  // Headers pointing anywhere: nothing read out of bounds, and the file
  // is not trusted to be self-contained.
  std::string wild = elf("");
  reinterpret_cast<Elf64_Ehdr*>(wild.data())->e_phoff = ~uint64_t{0} - 8;
  EXPECT_EQ(formatOf(wild, loader), kInterp);
  wild = elf("");
  reinterpret_cast<Elf64_Ehdr*>(wild.data())->e_phnum = 0xffff;
  EXPECT_EQ(formatOf(wild, loader), kInterp);
  EXPECT_EQ(formatOf(elf("").substr(0, 40), loader), kInterp);
  fs::remove_all(dir);
}

TEST(LinuxNames, BytesThatAreNotUtf8GoEscapedAndComeBackExactlyWithoutCollisions) {
  using namespace tarvex::itx::rtn::linux_platform;
  // Valid names, even with a backslash that starts no escape, go as they are.
  for (const std::string plain : {"/usb/report é.pdf", "a\\.b", "printf %s\\n", "a\\x4", "\\", ""}) {
    EXPECT_FALSE(needsEscape(plain)) << plain;
  }
  // Invalid bytes (stray, truncated, surrogate, overlong), and valid names
  // that read like an escape, go escaped; each comes back as it was, and no
  // two meet.
  std::set<std::string> seen;
  for (const std::string name : {"ev\xffil", "ev\\xffil", "ev\\\\xffil", "\x80", "\xc3(",
                                 "\xed\xa0\x80", "tail\xe2\x82", "\xf8\x88\x80\x80\x80", "\\\xff"}) {
    ASSERT_TRUE(needsEscape(name)) << name;
    const std::string out = escapeBytes(name);
    EXPECT_TRUE(tarvex::itx::xpc::isValidUtf8(out)) << out;
    EXPECT_EQ(unescapeBytes(out), name);
    EXPECT_TRUE(seen.insert(out).second) << out;
  }
  EXPECT_EQ(escapeBytes("ev\xffil"), "ev\\xffil");
  EXPECT_EQ(escapeBytes("ev\\xffil"), "ev\\\\xffil");
}

TEST(LinuxSockets, AConnectIsMatchedToTheSchedulerSocketByWhatItReachesNotItsSpelling) {
  const fs::path dir = fs::temp_directory_path() / ("lumo-sock-" + std::to_string(getpid()));
  fs::create_directories(dir / "real");
  auto bindAt = [](const fs::path& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    return fd;
  };
  const std::string known = (dir / "real/cups.sock").string();
  const int a = bindAt(known);
  const int b = bindAt(dir / "other.sock");
  fs::create_directory_symlink(dir / "real", dir / "link");
  const pid_t self = getpid();
  EXPECT_EQ(matchKnownSocket(self, (dir / "link/cups.sock").string(), known), known);
  EXPECT_EQ(matchKnownSocket(self, (dir / "real/../real/cups.sock").string(), known), known);
  const fs::path cwd = fs::current_path();
  fs::current_path(dir);
  EXPECT_EQ(matchKnownSocket(self, "link/cups.sock", known), known);
  fs::current_path(cwd);
  // Another socket, however alike its name, and what does not resolve,
  // stay as they were given.
  for (const std::string& other : {(dir / "other.sock").string(), std::string("@cups.sock"),
                                  (dir / "gone/cups.sock").string()}) {
    EXPECT_EQ(matchKnownSocket(self, other, known), other);
  }
  close(a);
  close(b);
  fs::remove_all(dir);
}

}  // namespace
}  // namespace endpointsecurity::linux_es
