// Process side of the Linux facility: /proc parsing, the process cache and
// the decoding of the BPF programs' records into messages.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "es/bpf/processevent.h"
#include "es/message.h"
#include "es/procinfo.h"
#include "es/processrecord.h"

namespace {

using endpointsecurity::linux_es::EventSet;
using endpointsecurity::linux_es::IEventSink;
using endpointsecurity::linux_es::Message;
using endpointsecurity::linux_es::ProcessCache;
using endpointsecurity::linux_es::ProcessInfo;
using endpointsecurity::linux_es::ProcessRecordDecoder;
using endpointsecurity::linux_es::ProcReader;
namespace fs = std::filesystem;

// A /proc of the test's making.
class FakeProc {
 public:
  FakeProc() : root(fs::temp_directory_path() / ("lumo-proc-" + std::to_string(getpid()))) {
    fs::create_directories(root);
  }
  ~FakeProc() { fs::remove_all(root); }
  void add(pid_t pid, const std::string& stat, const std::string& status,
           const std::string& exe = "") {
    const fs::path dir = root / std::to_string(pid);
    fs::create_directories(dir);
    std::ofstream(dir / "stat") << stat;
    std::ofstream(dir / "status") << status;
    std::ofstream(dir / "sessionid") << "7";
    std::ofstream(dir / "loginuid") << "1000";
    if (!exe.empty()) fs::create_symlink(exe, dir / "exe");
  }
  fs::path root;
};

std::string statLine(pid_t pid, const std::string& comm, pid_t ppid, uint64_t start) {
  return std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid) +
         " 100 200 0 -1 4194560 10 0 0 0 1 2 0 0 20 0 1 0 " + std::to_string(start) +
         " 1000 100 18446744073709551615\n";
}

constexpr const char* kStatus = "Name:\tx\nUid:\t1000\t0\t0\t0\nGid:\t1001\t1002\t0\t0\n";

TEST(LinuxProcInfo, ParsesStatStatusAndRefusesGarbage) {
  ProcessInfo info;
  // A command name with blanks and parentheses.
  ASSERT_TRUE(ProcReader::parseStat(statLine(42, "a) (b c", 7, 12345), info));
  EXPECT_EQ(info.pid, 42);
  EXPECT_EQ(info.ppid, 7);
  EXPECT_EQ(info.pgid, 100);
  EXPECT_EQ(info.sid, 200);
  EXPECT_EQ(info.startTicks, 12345u);
  EXPECT_FALSE(ProcReader::parseStat("", info));
  EXPECT_FALSE(ProcReader::parseStat("42 (x) S 1 2", info));
  EXPECT_FALSE(ProcReader::parseStat("x (y) S 1 2 3 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 9", info));
  EXPECT_FALSE(ProcReader::parseStat(statLine(42, "x", 7, 1).replace(0, 2, "-1"), info));

  ASSERT_TRUE(ProcReader::parseStatus(kStatus, info));
  EXPECT_EQ(info.ruid, 1000u);
  EXPECT_EQ(info.euid, 0u);
  EXPECT_EQ(info.rgid, 1001u);
  EXPECT_EQ(info.egid, 1002u);
  EXPECT_FALSE(ProcReader::parseStatus("Uid:\tx\t0\nGid:\t1\t1\n", info));
  EXPECT_FALSE(ProcReader::parseStatus("Name:\tx\n", info));

  EXPECT_EQ(ProcReader::splitNul(std::string("ls\0-l\0/tmp\0", 11)),
            (std::vector<std::string>{"ls", "-l", "/tmp"}));
  EXPECT_EQ(ProcReader::splitNul(std::string("a\0\0b", 4)),
            (std::vector<std::string>{"a", "", "b"}));
  EXPECT_TRUE(ProcReader::splitNul("").empty());
}

TEST(LinuxProcInfo, ReadsAProcessTreeAndItsOwnProcess) {
  FakeProc proc;
  proc.add(300, statLine(300, "tool", 1, 999), kStatus, "/usr/bin/tool (deleted)");
  proc.add(301, "garbage", kStatus);
  const ProcReader reader(proc.root.string());
  ProcessInfo info;
  ASSERT_TRUE(reader.read(300, info));
  EXPECT_EQ(info.exe, "/usr/bin/tool");
  EXPECT_EQ(info.asid, 7u);
  EXPECT_EQ(info.auid, 1000u);
  EXPECT_FALSE(reader.read(301, info));
  EXPECT_FALSE(reader.read(302, info));

  // The real /proc: this process.
  ProcessInfo self;
  ASSERT_TRUE(ProcReader().read(getpid(), self));
  EXPECT_EQ(self.pid, getpid());
  EXPECT_EQ(self.ppid, getppid());
  EXPECT_EQ(self.ruid, getuid());
  EXPECT_EQ(self.exe, fs::read_symlink("/proc/self/exe").string());
  EXPECT_GT(self.startTicks, 0u);
}

TEST(LinuxProcInfo, CacheNeverAnswersForARecycledPid) {
  FakeProc proc;
  proc.add(400, statLine(400, "old", 1, 50), kStatus, "/usr/bin/old");
  const ProcReader reader(proc.root.string());
  ProcessCache cache(reader, 2);
  auto first = cache.lookup(400);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->startTicks, 50u);
  // The pid comes back as another process: the cached entry does not fit.
  fs::remove_all(proc.root / "400");
  proc.add(400, statLine(400, "new", 1, 60), kStatus, "/usr/bin/new");
  auto second = cache.lookup(400, 60);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->exe, "/usr/bin/new");
  EXPECT_FALSE(cache.lookup(400, 70));
  // Bounded: a full cache starts over.
  ProcessInfo a, b;
  a.pid = 1;
  b.pid = 2;
  cache.put(a);
  cache.put(b);
  EXPECT_LE(cache.size(), 2u);
  cache.forget(2);
  EXPECT_LE(cache.size(), 1u);
}

TEST(LinuxProcInfo, MissesCatchUpFirstAndRecentExitsStillAnswer) {
  FakeProc proc;  // empty: any read of procfs fails
  const ProcReader reader(proc.root.string());
  ProcessCache cache(reader);
  ProcessInfo started;
  started.pid = 500;
  started.startTicks = 9;
  started.exe = "/usr/bin/short";
  int catchUps = 0;
  // The tier's pending records land in the cache on the missing thread.
  cache.setCatchUp([&] {
    ++catchUps;
    cache.put(started);
    EXPECT_TRUE(cache.lookup(500));  // a nested lookup is answered, not re-entered
  });
  auto found = cache.lookup(500);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->exe, "/usr/bin/short");
  EXPECT_EQ(catchUps, 1);
  // Exited and gone from procfs: its queued events still find it, but not
  // under another start time.
  cache.setCatchUp(nullptr);
  cache.forget(500);
  EXPECT_EQ(cache.size(), 0u);
  ASSERT_TRUE(cache.lookup(500, 9));
  EXPECT_FALSE(cache.lookup(500, 10));
  // A new process under the pid replaces the exited one.
  started.startTicks = 11;
  started.exe = "/usr/bin/next";
  cache.put(started);
  cache.forget(500);
  EXPECT_EQ(cache.lookup(500)->exe, "/usr/bin/next");
}

// Keeps what the decoder delivers.
class RecordingSink : public IEventSink {
 public:
  RecordingSink() : cache(reader) {}
  ~RecordingSink() override {
    for (Message* m : delivered) delete m;
  }
  void deliver(Message* message) override { delivered.push_back(message); }
  bool wants(es_event_type_t type) const override { return wanted.test(type); }
  ProcessCache& processes() override { return cache; }
  uint64_t now() override { return 0; }

  EventSet wanted = EventSet().set();
  std::vector<Message*> delivered;
  ProcReader reader{"/nonexistent-proc"};
  ProcessCache cache;
};

lumo_proc_event execRecord(pid_t pid, const char* interp, const std::string& args) {
  lumo_proc_event e;
  std::memset(&e, 0, sizeof e);
  e.kind = LUMO_PROC_EXEC;
  e.proc.pid = static_cast<__u32>(pid);
  e.proc.ppid = 1;
  e.proc.ruid = 1000;
  e.proc.euid = 1000;
  e.proc.asid = 3;
  e.proc.start_ns = 2'500'000'000ull;  // 250 ticks at 100 Hz
  std::strncpy(e.filename, interp, sizeof e.filename - 1);
  e.filename_len = static_cast<__u32>(std::strlen(interp) + 1);
  std::strncpy(e.interp, interp, sizeof e.interp - 1);
  e.interp_len = e.filename_len;
  std::memcpy(e.args, args.data(), args.size());
  e.args_len = static_cast<__u32>(args.size());
  return e;
}

size_t execSize(const lumo_proc_event& e) { return offsetof(lumo_proc_event, args) + e.args_len; }

TEST(LinuxProcessRecords, ExecForkAndExitBecomeMessages) {
  RecordingSink sink;
  ProcessRecordDecoder decoder(sink);
  const lumo_proc_event exec = execRecord(500, "/bin/sh", std::string("sh\0-c\0true\0", 11));
  ASSERT_TRUE(decoder.handle(&exec, execSize(exec)));
  ASSERT_EQ(sink.delivered.size(), 1u);
  const es_message_t& m = sink.delivered[0]->es;
  EXPECT_EQ(m.event_type, ES_EVENT_TYPE_NOTIFY_EXEC);
  const es_process_t* target = m.event.exec.target;
  EXPECT_EQ(audit_token_to_pid(target->audit_token), 500);
  EXPECT_EQ(audit_token_to_ruid(target->audit_token), 1000u);
  EXPECT_EQ(audit_token_to_asid(target->audit_token), 3);
  EXPECT_EQ(audit_token_to_pidversion(target->audit_token), 250);
  // Symlinks resolved, as the kernel would name the file.
  EXPECT_EQ(std::string(target->executable->path.data),
            fs::canonical("/bin/sh").string());
  ASSERT_EQ(sink.delivered[0]->argCount(), 3u);
  EXPECT_STREQ(sink.delivered[0]->arg(2).data, "true");

  // The fork child takes the parent's image from the cache.
  lumo_proc_event fork;
  std::memset(&fork, 0, sizeof fork);
  fork.kind = LUMO_PROC_FORK;
  fork.parent = exec.proc;
  fork.proc = exec.proc;
  fork.proc.pid = 501;
  fork.proc.ppid = 500;
  fork.proc.start_ns = 2'600'000'000ull;
  ASSERT_TRUE(decoder.handle(&fork, offsetof(lumo_proc_event, filename)));
  ASSERT_EQ(sink.delivered.size(), 2u);
  const es_message_t& f = sink.delivered[1]->es;
  EXPECT_EQ(f.event_type, ES_EVENT_TYPE_NOTIFY_FORK);
  EXPECT_EQ(audit_token_to_pid(f.process->audit_token), 500);
  EXPECT_EQ(audit_token_to_pid(f.event.fork.child->audit_token), 501);
  EXPECT_EQ(f.event.fork.child->ppid, 500);
  EXPECT_STREQ(f.event.fork.child->executable->path.data, target->executable->path.data);

  lumo_proc_event exit = fork;
  exit.kind = LUMO_PROC_EXIT;
  exit.exit_code = 256;
  ASSERT_TRUE(decoder.handle(&exit, offsetof(lumo_proc_event, filename)));
  ASSERT_EQ(sink.delivered.size(), 3u);
  const es_message_t& x = sink.delivered[2]->es;
  EXPECT_EQ(x.event_type, ES_EVENT_TYPE_NOTIFY_EXIT);
  EXPECT_EQ(x.event.exit.stat, 256);
  EXPECT_STREQ(x.process->executable->path.data, target->executable->path.data);
  EXPECT_EQ(decoder.malformed(), 0u);
}

TEST(LinuxProcessRecords, UnwantedTypesOnlyFeedTheCacheAndBadRecordsAreCounted) {
  RecordingSink sink;
  sink.wanted.reset();
  ProcessRecordDecoder decoder(sink);
  const lumo_proc_event exec = execRecord(600, "/bin/true", std::string("true\0", 5));
  ASSERT_TRUE(decoder.handle(&exec, execSize(exec)));
  EXPECT_TRUE(sink.delivered.empty());
  EXPECT_TRUE(sink.cache.lookup(600, 250));

  // Too short for any record; an exec cut inside its arguments; an
  // unknown kind; a length field past the buffer.
  EXPECT_FALSE(decoder.handle(&exec, 8));
  EXPECT_FALSE(decoder.handle(&exec, execSize(exec) - 1));
  lumo_proc_event odd = exec;
  odd.kind = 99;
  EXPECT_FALSE(decoder.handle(&odd, execSize(odd)));
  lumo_proc_event huge = exec;
  huge.args_len = LUMO_ARGS_MAX + 1;
  EXPECT_FALSE(decoder.handle(&huge, sizeof huge));
  EXPECT_FALSE(decoder.handle(nullptr, 0));
  EXPECT_EQ(decoder.malformed(), 5u);
  EXPECT_TRUE(sink.delivered.empty());
}

}  // namespace
