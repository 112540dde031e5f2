#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/capture_sink.h"
#include "support/link_journal.h"
#include "xpc/framecodec.h"
#include "xpc/linkchannel.h"
#include "xpc/seqpacket.h"
#include "xpc/socketbind.h"
#include "xpc/socketpath.h"
#include "xpc/unixsocketconnector.h"
#include "xpc/unixsocketlistener.h"

namespace tarvex::itx::xpc::linux_platform {
namespace {

using namespace std::chrono_literals;
using lumo::testing::CaptureSink;
using lumo::testing::Journal;
using lumo::testing::valueText;
using lumo::testing::valueTextOrNil;

// Only reached when something is broken; passing runs never wait this long.
constexpr auto kPatience = 10s;
constexpr const char* kService = "com.tarvex.lumo.protectiond.xpc";
constexpr uid_t kNobody = 65534;

// The extension's exported object: notes each call and answers reply blocks.
class RecordingSysext : public SysextXPCInterface {
 public:
  explicit RecordingSysext(Journal& journal) : journal_(journal) {}
  void addMountPoint(const std::string* volume, uint64_t type) override {
    journal_.add("addMountPoint " + valueTextOrNil(volume) + " " + std::to_string(type));
  }
  void removeMountPoint(const std::string* volume) override {
    journal_.add("removeMountPoint " + valueTextOrNil(volume));
  }
  void clearMountPoints() override { journal_.add("clearMountPoints"); }
  void setPolicy(const Dictionary* policy, uint64_t timestamp, ReplyBlock reply) override {
    journal_.add("setPolicy " + valueTextOrNil(policy) + " " + std::to_string(timestamp));
    reply(true);
  }
  void setExclusions(const Array* exclusions, uint64_t timestamp, ReplyBlock reply) override {
    journal_.add("setExclusions " + valueTextOrNil(exclusions) + " " + std::to_string(timestamp));
    reply(false);
    reply(true);  // a block answers once; this one is not sent
  }
  void setPrinter(const std::string* printer, bool verdict) override {
    journal_.add("setPrinter " + valueTextOrNil(printer) + " " + (verdict ? "YES" : "NO"));
  }

 private:
  Journal& journal_;
};

// The daemon's exported object.
class RecordingDaemon : public ProtectionDaemonXPCInterface {
 public:
  explicit RecordingDaemon(Journal& journal, bool accept = true)
      : journal_(journal), accept_(accept) {}
  void registerWithCompletionHandler(ReplyBlock reply) override {
    journal_.add("register");
    reply(accept_);
  }
  void handleFileEvent(const Dictionary& e) override { note("file", e); }
  void handlePrinterEvent(const Dictionary& e) override { note("printer", e); }
  void handleProcessStartEvent(const Dictionary& e) override { note("start", e); }
  void handleProcessExitEvent(const Dictionary& e) override { note("exit", e); }

 private:
  void note(const char* what, const Dictionary& e) {
    journal_.add(std::string(what) + " " + valueText(Value(e)));
  }
  Journal& journal_;
  const bool accept_;
};

// A temporary runtime dir, reachable by unprivileged peers.
class RuntimeDir {
 public:
  RuntimeDir() {
    char pattern[] = "/tmp/lumo-xpc-test-XXXXXX";
    path_ = mkdtemp(pattern);
    chmod(path_.c_str(), 0755);
  }
  ~RuntimeDir() { std::filesystem::remove_all(path_); }
  const std::string& path() const { return path_; }
  std::string socket() const { return path_ + "/" + kService + ".sock"; }

 private:
  std::string path_;
};

// The daemon's end: a listener whose connections export a RecordingDaemon.
class TestDaemon {
 public:
  TestDaemon(const std::string& runtimeDir, Journal& journal, uint64_t options = 0)
      : journal_(journal), exported_(journal), listener_(kService, options, runtimeDir) {}
  ~TestDaemon() { listener_.stop(); }

  bool start() {
    return listener_.start([this](std::shared_ptr<DaemonConnection> connection) {
      connection->setExportedObject(&exported_);
      connection->setInterruptionHandler([this] { journal_.add("daemon: interrupted"); });
      connection->setInvalidationHandler([this] { journal_.add("daemon: invalidated"); });
      connection->resume();
      std::lock_guard lock(mutex_);
      connection_ = std::move(connection);
      changed_.notify_all();
    });
  }
  std::shared_ptr<DaemonConnection> waitForConnection() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return connection_ != nullptr; });
    return connection_;
  }
  void drop() {
    std::lock_guard lock(mutex_);
    connection_.reset();
  }
  UnixSocketListener& listener() { return listener_; }

 private:
  Journal& journal_;
  RecordingDaemon exported_;
  UnixSocketListener listener_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::shared_ptr<DaemonConnection> connection_;
};

// Handlers of the extension's connection, noted in the journal.
void watch(IXPCConnection& connection, Journal& journal) {
  connection.setInterruptionHandler([&journal] { journal.add("interrupted"); });
  connection.setInvalidationHandler([&journal] { journal.add("invalidated"); });
}

ErrorHandler noteErrors(Journal& journal) {
  return [&journal](const std::string& description) { journal.add("error: " + description); };
}

Dictionary everyKind() {
  Dictionary nested{{{"path", Value("/bin/ls")}, {"none", Value()}}};
  return Dictionary{{
      {"filename1", Value("/media/usb/ä")},
      {"fileop", Value(Number::ofInt(-2))},
      {"pid", Value(Number::ofUnsignedInt(4000000000u))},
      {"delta", Value(Number::ofLongLong(-5000000000))},
      {"filesize", Value(Number::ofUnsignedLongLong(0xFFFFFFFFFFFFFFFFull))},
      {"on", Value(Number::ofBool(true))},
      {"list", Value(Array{{Value(nested), Value(Number::ofInt(0))}})},
  }};
}

class LinuxXpcTransport : public ::testing::Test {
 protected:
  void TearDown() override {
    // Link threads leave once their handles are gone; none may outlive the sink.
    EXPECT_TRUE(waitForLinkThreads(kPatience));
  }

  uint64_t options() const { return geteuid() == 0 ? IXPCConnector::kPrivileged : 0; }

  CaptureSink sink_;
  RuntimeDir dir_;
};

TEST_F(LinuxXpcTransport, CarriesCallsBothWaysWithNumberKindsNilsAndReplies) {
  Journal daemonSide;
  Journal extensionSide;
  TestDaemon daemon(dir_.path(), daemonSide, options());
  ASSERT_TRUE(daemon.start());

  UnixSocketConnector connector(dir_.path());
  RecordingSysext exported(extensionSide);
  auto connection = connector.connect(kService, options());
  connection->setExportedObject(&exported);
  connection->resume();
  watch(*connection, extensionSide);
  auto proxy = connection->remoteObjectProxyWithErrorHandler(noteErrors(extensionSide));
  proxy->registerWithCompletionHandler(
      [&](bool accepted) { extensionSide.add(accepted ? "registered YES" : "registered NO"); });
  const Dictionary event = everyKind();
  proxy->handleFileEvent(event);
  for (int i = 0; i < 50; ++i) {
    proxy->handleProcessStartEvent(Dictionary{{{"pid", Value(Number::ofUnsignedInt(i))}}});
  }
  proxy->handlePrinterEvent(Dictionary{});
  proxy->handleProcessExitEvent(Dictionary{{{"timestamp", Number::ofUnsignedLongLong(7)}}});

  ASSERT_TRUE(extensionSide.waitFor("registered YES"));
  ASSERT_TRUE(daemonSide.waitForSize(54));
  std::vector<std::string> received = daemonSide.entries();
  EXPECT_EQ(received[0], "register");
  EXPECT_EQ(received[1], "file " + valueText(Value(event)));
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(received[2 + i], "start {pid=u" + std::to_string(i) + ";}");
  }
  EXPECT_EQ(received[52], "printer {}");
  EXPECT_EQ(received[53], "exit {timestamp=ull7;}");

  auto toExtension = daemon.waitForConnection()->remoteObjectProxyWithErrorHandler(
      noteErrors(daemonSide));
  const std::string volume = "/media/usb";
  const std::string job = "job-7";
  const Dictionary policy{{{"dupon", Value(Number::ofBool(true))}}};
  const Array exclusions{{Value(Dictionary{{{"application_description", Value(Dictionary{})}}})}};
  toExtension->addMountPoint(&volume, 2);
  toExtension->removeMountPoint(nullptr);
  toExtension->clearMountPoints();
  toExtension->setPolicy(&policy, 1700000000000000000ull,
                         [&](bool ok) { daemonSide.add(ok ? "policy YES" : "policy NO"); });
  toExtension->setExclusions(nullptr, 5,
                             [&](bool ok) { daemonSide.add(ok ? "excl YES" : "excl NO"); });
  toExtension->setExclusions(&exclusions, 6, nullptr);  // an empty block is not answered
  toExtension->setPrinter(&job, true);
  toExtension->setPrinter(nullptr, false);
  toExtension->setPolicy(nullptr, 0, [&](bool ok) { daemonSide.add(ok ? "p2 YES" : "p2 NO"); });

  ASSERT_TRUE(extensionSide.waitForSize(10));
  ASSERT_TRUE(daemonSide.waitFor("p2 YES"));
  EXPECT_EQ(extensionSide.entries(),
            (std::vector<std::string>{
                "registered YES",
                "addMountPoint '/media/usb' 2",
                "removeMountPoint nil",
                "clearMountPoints",
                "setPolicy {dupon=b1;} 1700000000000000000",
                "setExclusions nil 5",
                "setExclusions [{application_description={};},] 6",
                "setPrinter 'job-7' YES",
                "setPrinter nil NO",
                "setPolicy nil 0",
            }));
  EXPECT_EQ(daemonSide.count("policy YES"), 1u);
  EXPECT_EQ(daemonSide.count("excl NO"), 1u);
  EXPECT_EQ(daemonSide.count("excl YES"), 0u);

  // Everything on the extension's side ran on one thread, the link's own.
  const std::vector<std::thread::id> threads = extensionSide.threads();
  EXPECT_NE(threads.front(), std::this_thread::get_id());
  for (std::thread::id id : threads) EXPECT_EQ(id, threads.front());
  EXPECT_FALSE(sink_.contains("Error:"));

  // The daemon's handlers run when we go; they must be done before its journal is.
  connection.reset();
  proxy.reset();
  EXPECT_TRUE(daemonSide.waitFor("daemon: invalidated"));
}

TEST_F(LinuxXpcTransport, MissingSocketInvalidatesOnlyAndLaterCallsReportErrors) {
  Journal journal;
  UnixSocketConnector connector(dir_.path());
  auto connection = connector.connect(kService, options());
  connection->resume();
  watch(*connection, journal);
  auto proxy = connection->remoteObjectProxyWithErrorHandler(noteErrors(journal));
  proxy->registerWithCompletionHandler([&](bool) { journal.add("replied"); });

  ASSERT_TRUE(journal.waitFor("invalidated"));
  const std::string invalid = "error: the connection to " + std::string(kService) +
                              " is invalid: cannot connect to " + dir_.socket() +
                              ": No such file or directory";
  EXPECT_EQ(journal.entries(), (std::vector<std::string>{invalid, "invalidated"}));
  EXPECT_TRUE(sink_.contains("Error: No link to " + std::string(kService) +
                             ": cannot connect to " + dir_.socket()));

  // Later calls fail on the link's thread, not the caller's.
  proxy->handleFileEvent(Dictionary{});
  ASSERT_TRUE(journal.waitFor(invalid, 2));
  EXPECT_NE(journal.threads().back(), std::this_thread::get_id());

  // Once we invalidate, calls are dropped without a word and nothing runs twice.
  connection->invalidate();
  proxy->handleFileEvent(Dictionary{});
  connection.reset();
  proxy.reset();
  EXPECT_TRUE(waitForLinkThreads(kPatience));
  EXPECT_EQ(journal.count(invalid), 2u);
  EXPECT_EQ(journal.count("invalidated"), 1u);
}

TEST_F(LinuxXpcTransport, InvalidateRunsTheInvalidationHandlerOnceOnTheLinksThread) {
  Journal daemonSide;
  TestDaemon daemon(dir_.path(), daemonSide, options());
  ASSERT_TRUE(daemon.start());
  for (bool established : {false, true}) {
    SCOPED_TRACE(established ? "established" : "never resumed");
    Journal journal;
    UnixSocketConnector connector(dir_.path());
    auto connection = connector.connect(kService, options());
    watch(*connection, journal);
    auto proxy = connection->remoteObjectProxyWithErrorHandler(noteErrors(journal));
    if (established) {
      connection->resume();
      proxy->registerWithCompletionHandler([&](bool) { journal.add("replied"); });
      ASSERT_TRUE(journal.waitFor("replied"));
    }
    connection->invalidate();
    connection->invalidate();
    proxy->handleFileEvent(Dictionary{});
    ASSERT_TRUE(journal.waitFor("invalidated"));
    EXPECT_NE(journal.threads().back(), std::this_thread::get_id());
    connection.reset();
    proxy.reset();
    if (established) {
      // The daemon saw the extension go: its connection is interrupted.
      EXPECT_TRUE(daemonSide.waitFor("daemon: invalidated"));
      EXPECT_EQ(daemonSide.count("daemon: interrupted"), 1u);
      daemon.drop();
    }
    ASSERT_TRUE(waitForLinkThreads(kPatience));
    EXPECT_EQ(journal.count("invalidated"), 1u);
    EXPECT_EQ(journal.count("interrupted"), 0u);
    EXPECT_EQ(journal.entries().size(), established ? 2u : 1u);
  }
}

TEST_F(LinuxXpcTransport, DaemonClosingInterruptsThenInvalidates) {
  Journal daemonSide;
  Journal journal;
  TestDaemon daemon(dir_.path(), daemonSide, options());
  ASSERT_TRUE(daemon.start());
  UnixSocketConnector connector(dir_.path());
  auto connection = connector.connect(kService, options());
  connection->resume();
  // As the XPC client does: the interruption handler invalidates.
  connection->setInterruptionHandler([&] {
    journal.add("interrupted");
    connection->invalidate();
  });
  connection->setInvalidationHandler([&] { journal.add("invalidated"); });
  auto proxy = connection->remoteObjectProxyWithErrorHandler(noteErrors(journal));
  proxy->registerWithCompletionHandler([&](bool) { journal.add("replied"); });
  ASSERT_TRUE(journal.waitFor("replied"));

  daemon.listener().stop();  // accepted links outlive the listener
  EXPECT_FALSE(std::filesystem::exists(dir_.socket()));
  proxy->handleFileEvent(Dictionary{});
  ASSERT_TRUE(daemonSide.waitFor("file {}"));

  daemon.drop();
  ASSERT_TRUE(journal.waitFor("invalidated"));
  EXPECT_EQ(journal.entries(), (std::vector<std::string>{"replied", "interrupted", "invalidated"}));
  EXPECT_TRUE(sink_.contains("The peer of " + std::string(kService) + " closed the link"));
  EXPECT_FALSE(sink_.contains("Error:"));
  proxy->handleFileEvent(Dictionary{});  // invalidated by the handler: silent
  connection.reset();
  proxy.reset();
  ASSERT_TRUE(waitForLinkThreads(kPatience));
  EXPECT_EQ(journal.entries().size(), 3u);
}

// A daemon that speaks raw frames, to feed the extension what a broken or
// hostile peer would.
class RawDaemon {
 public:
  explicit RawDaemon(const std::string& path) {
    ino_t inode;
    std::string error;
    listenFd_ = bindListeningSocket(path, &inode, &error);
    EXPECT_GE(listenFd_, 0) << error;
  }
  ~RawDaemon() {
    if (fd_ >= 0) close(fd_);
    if (listenFd_ >= 0) close(listenFd_);
  }
  // Accepts the extension and reads its first frame.
  bool acceptAndReadFirst() {
    pollfd p{listenFd_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) != 1) {
      return false;
    }
    fd_ = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    sizeFrameBuffers(fd_);
    char buffer[4096];
    return fd_ >= 0 && recv(fd_, buffer, sizeof buffer, 0) > 0;
  }
  // Whether a message of this size can leave this socket at all.
  bool canSend(size_t size) {
    int bytes = 0;
    socklen_t len = sizeof bytes;
    getsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &bytes, &len);
    return size + 32 < static_cast<size_t>(bytes);
  }
  bool send(const std::string& bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // True once the extension has closed its end.
  bool waitForClose() {
    pollfd p{fd_, POLLIN, 0};
    char buffer[4096];
    for (;;) {
      if (poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) != 1) {
        return false;
      }
      const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
      if (n == 0) return true;
      if (n < 0) return false;
    }
  }

 private:
  int listenFd_ = -1;
  int fd_ = -1;
};

std::string encoded(const Frame& frame) {
  std::string error;
  return encodeFrame(frame, &error).value_or("");
}

struct BadFrame {
  const char* name;
  std::function<std::string()> bytes;
  const char* logged;  // what the Error line must say
};

TEST_F(LinuxXpcTransport, BadFramesFromTheDaemonAreLoggedAndDropTheLink) {
  const std::string valid =
      encoded(CallFrame{"setPolicy:withTimestamp:andCompletionHandler:",
                        {Value(Dictionary{{{"dupon", Value(Number::ofBool(true))}}}),
                         Value(Number::ofUnsignedLongLong(5))},
                        7});
  const BadFrame cases[] = {
      {"unknown selector", [] { return encoded(CallFrame{"formatDisk:", {}, std::nullopt}); },
       "unknown selector \"formatDisk:\" for SysextXPCInterface"},
      {"wrong type",
       [] {
         return encoded(CallFrame{"addMountPoint:mountType:",
                                  {Value("/media/usb"), Value(Number::ofInt(2))}, std::nullopt});
       },
       "argument 2 of addMountPoint:mountType: must be an unsigned long long number, got an "
       "int number"},
      {"wrong count",
       [] { return encoded(CallFrame{"removeMountPoint:", {}, std::nullopt}); },
       "removeMountPoint: takes 1 argument(s), got 0"},
      {"reply block missing",
       [] {
         return encoded(CallFrame{"setPolicy:withTimestamp:andCompletionHandler:",
                                  {Value(), Value(Number::ofUnsignedLongLong(1))}, std::nullopt});
       },
       "takes a reply block but carries no reply id"},
      {"truncated", [&] { return valid.substr(0, valid.size() - 3); }, "unparseable frame of"},
      {"garbage", [] { return std::string("\xff\xff\xff\xff", 4); }, "unparseable frame of 4"},
      {"empty body", [] { return std::string("\x1a\x00", 2); }, "is neither a call nor a reply"},
      {"reply to nothing", [] { return encoded(ReplyFrame{999, true}); },
       "reply for unknown id 999"},
      {"oversized", [] { return std::string(kMaxFrameBytes + 1, '\x0a'); },
       "frame of 1048577 bytes exceeds the 1048576-byte limit"},
  };
  for (const BadFrame& bad : cases) {
    SCOPED_TRACE(bad.name);
    sink_.clear();
    Journal journal;
    RawDaemon raw(dir_.socket());
    UnixSocketConnector connector(dir_.path());
    RecordingSysext exported(journal);
    auto connection = connector.connect(kService, 0);
    connection->setExportedObject(&exported);
    connection->resume();
    watch(*connection, journal);
    auto proxy = connection->remoteObjectProxyWithErrorHandler(noteErrors(journal));
    proxy->registerWithCompletionHandler([&](bool) { journal.add("replied"); });
    ASSERT_TRUE(raw.acceptAndReadFirst());
    const std::string bytes = bad.bytes();
    if (!raw.canSend(bytes.size())) {
      // Without privilege the socket's buffers cap messages below the limit.
      EXPECT_NE(geteuid(), 0u);
      continue;
    }
    ASSERT_TRUE(raw.send(bytes));
    ASSERT_TRUE(journal.waitFor("invalidated"));
    EXPECT_TRUE(raw.waitForClose());
    // Established, so interrupted first; the pending registration fails.
    const std::vector<std::string> entries = journal.entries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0], "interrupted");
    EXPECT_EQ(entries[1].rfind("error: the connection to " + std::string(kService) +
                                   " is invalid: ",
                               0),
              0u)
        << entries[1];
    EXPECT_EQ(entries[2], "invalidated");
    EXPECT_TRUE(sink_.contains("Error: Dropping the link to " + std::string(kService) + ": "));
    EXPECT_TRUE(sink_.contains(bad.logged));
  }
}

TEST_F(LinuxXpcTransport, BadFramesFromTheExtensionDropTheDaemonsConnection) {
  Journal daemonSide;
  TestDaemon daemon(dir_.path(), daemonSide);
  ASSERT_TRUE(daemon.start());
  const int fd = openSeqpacketSocket();
  ASSERT_GE(fd, 0);
  const sockaddr_un address = socketAddress(dir_.socket());
  ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  // A nil event: the daemon's interface takes events by reference.
  const std::string bytes = encoded(CallFrame{"handleFileEvent:", {Value()}, std::nullopt});
  ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  ASSERT_TRUE(daemonSide.waitFor("daemon: invalidated"));
  EXPECT_EQ(daemonSide.entries(),
            (std::vector<std::string>{"daemon: interrupted", "daemon: invalidated"}));
  EXPECT_TRUE(sink_.contains(
      "argument 1 of handleFileEvent: must be a dictionary, got nil"));
  close(fd);
  daemon.drop();
}

TEST_F(LinuxXpcTransport, ListenerReplacesAStaleSocketButNotALiveListener) {
  Journal journal;
  {
    // A daemon that died without cleaning up leaves its socket behind.
    ino_t inode;
    std::string error;
    const int stale = bindListeningSocket(dir_.socket(), &inode, &error);
    ASSERT_GE(stale, 0) << error;
    close(stale);
  }
  TestDaemon first(dir_.path(), journal);
  ASSERT_TRUE(first.start());
  TestDaemon second(dir_.path(), journal);
  EXPECT_FALSE(second.start());
  EXPECT_TRUE(sink_.contains("Cannot listen for " + std::string(kService) +
                             ": another listener is live at " + dir_.socket()));
  // The loser's stop leaves the winner's socket alone.
  second.listener().stop();
  EXPECT_TRUE(std::filesystem::exists(dir_.socket()));
  struct stat st {};
  ASSERT_EQ(stat(dir_.path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0755u);
  ASSERT_EQ(stat(dir_.socket().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0666u);
}

TEST(LinuxXpcSocketPath, ArgumentThenEnvironmentThenRunTarvex) {
  const char* saved = getenv(kRuntimeDirVariable);
  const std::string restore = saved ? saved : "";
  unsetenv(kRuntimeDirVariable);
  EXPECT_EQ(resolveRuntimeDir(""), "/run/tarvex");
  setenv(kRuntimeDirVariable, "/tmp/trial", 1);
  EXPECT_EQ(resolveRuntimeDir(""), "/tmp/trial");
  EXPECT_EQ(resolveRuntimeDir("/var/run/x"), "/var/run/x");
  EXPECT_EQ(UnixSocketConnector().runtimeDir(), "/tmp/trial");
  if (saved) {
    setenv(kRuntimeDirVariable, restore.c_str(), 1);
  } else {
    unsetenv(kRuntimeDirVariable);
  }

  std::string error;
  EXPECT_EQ(socketPathFor(kService, "/run/tarvex", &error),
            "/run/tarvex/com.tarvex.lumo.protectiond.xpc.sock");
  EXPECT_EQ(socketPathFor("../etc/x", "/run/tarvex", &error), "");
  EXPECT_NE(error.find("cannot name a socket file"), std::string::npos);
  EXPECT_EQ(socketPathFor(std::string(120, 'a'), "/run/tarvex", &error), "");
  EXPECT_NE(error.find("longer than a socket address holds"), std::string::npos);
}

// Starts `body` in a child that has become nobody; its result is the exit
// code. Only async-signal-safe calls in the child: the parent has threads.
pid_t spawnAsNobody(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (syscall(SYS_setgid, kNobody) != 0 || syscall(SYS_setuid, kNobody) != 0) _exit(90);
    _exit(body());
  }
  return pid;
}

int exitCodeOf(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(LinuxXpcTransport, PrivilegedDaemonRefusesANonRootExtension) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to start a peer of another uid";
  Journal daemonSide;
  TestDaemon daemon(dir_.path(), daemonSide, IXPCConnector::kPrivileged);
  ASSERT_TRUE(daemon.start());
  const sockaddr_un address = socketAddress(dir_.socket());
  const std::string frame = encoded(CallFrame{"registerWithCompletionHandler:", {}, 1});
  // 0: the daemon closed on us without answering.
  const int code = exitCodeOf(spawnAsNobody([&] {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return 1;
    send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
    char buffer[64];
    return recv(fd, buffer, sizeof buffer, 0) <= 0 ? 0 : 2;
  }));
  EXPECT_EQ(code, 0);
  EXPECT_TRUE(sink_.contains("uid 65534 of " + std::string(kService) +
                             ": the link is privileged and the peer is not root"));
  EXPECT_EQ(daemonSide.count("register"), 0u);
}

TEST_F(LinuxXpcTransport, PrivilegedExtensionRefusesANonRootDaemon) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to start a peer of another uid";
  const std::string nobodysDir = dir_.path() + "/nobody";
  ASSERT_EQ(mkdir(nobodysDir.c_str(), 0755), 0);
  ASSERT_EQ(chown(nobodysDir.c_str(), kNobody, kNobody), 0);
  int ready[2], done[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(done), 0);
  const sockaddr_un address = socketAddress(nobodysDir + "/" + kService + ".sock");
  // The child listens as nobody until we close `done`.
  const pid_t child = spawnAsNobody([&] {
    close(ready[0]);
    close(done[1]);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return 1;
    if (listen(fd, 4) != 0) return 2;
    if (write(ready[1], "r", 1) != 1) return 3;
    char c;
    return read(done[0], &c, 1) == 0 ? 0 : 4;
  });
  close(ready[1]);
  close(done[0]);
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1) << "the child did not get to listen: " << exitCodeOf(child);
  close(ready[0]);

  Journal journal;
  UnixSocketConnector connector(nobodysDir);
  auto connection = connector.connect(kService, IXPCConnector::kPrivileged);
  connection->resume();
  watch(*connection, journal);
  auto proxy = connection->remoteObjectProxyWithErrorHandler(noteErrors(journal));
  proxy->registerWithCompletionHandler([&](bool) { journal.add("replied"); });
  EXPECT_TRUE(journal.waitFor("invalidated"));
  close(done[1]);
  EXPECT_EQ(exitCodeOf(child), 0);
  EXPECT_EQ(journal.count("interrupted"), 0u);
  EXPECT_EQ(journal.count("replied"), 0u);
  EXPECT_TRUE(sink_.contains("Refusing peer pid " + std::to_string(child) + " uid 65534 of " +
                             kService + ": the link is privileged and the peer is not root"));
}

}  // namespace
}  // namespace tarvex::itx::xpc::linux_platform
