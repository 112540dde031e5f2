// The daemon link on Unix sockets: calls both ways across a real socket,
// how either end going is reported, bad frames, the socket file and the
// peer-credential check.
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
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

using lumo::testing::CaptureSink;
using lumo::testing::ExtensionEnd;
using lumo::testing::Journal;
using lumo::testing::valueText;

constexpr auto kPatience = Journal::kPatience;
const std::string kService = lumo::testing::kDaemonService;

// The daemon's end: a listener whose connections export this object, which
// notes every call and its connection's endings.
class TestDaemon : public ProtectionDaemonXPCInterface {
 public:
  TestDaemon(const std::string& runtimeDir, Journal& journal, uint64_t options = 0)
      : journal_(journal), listener_(kService, options, runtimeDir) {}
  ~TestDaemon() override { listener_.stop(); }

  bool start() {
    return listener_.start([this](std::shared_ptr<DaemonConnection> connection) {
      connection->setExportedObject(this);
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

  void registerWithCompletionHandler(ReplyBlock reply) override {
    journal_.add("register");
    reply(true);
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
  UnixSocketListener listener_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::shared_ptr<DaemonConnection> connection_;
};

std::string encoded(const Frame& frame) {
  std::string error;
  return encodeFrame(frame, &error).value_or("");
}

class LinuxXpcTransport : public ::testing::Test {
 protected:
  LinuxXpcTransport() {
    char pattern[] = "/tmp/lumo-xpc-test-XXXXXX";
    dir_ = mkdtemp(pattern);
    chmod(dir_.c_str(), 0755);  // reachable by unprivileged peers
  }
  ~LinuxXpcTransport() override { std::filesystem::remove_all(dir_); }
  void TearDown() override {
    // Link threads leave once their handles are gone; none may outlive the sink.
    EXPECT_TRUE(waitForLinkThreads(kPatience));
  }

  uint64_t options() const { return geteuid() == 0 ? IXPCConnector::kPrivileged : 0; }
  std::string socket() const { return dir_ + "/" + kService + ".sock"; }
  static void close(ExtensionEnd& end) {
    end.connection.reset();
    end.daemon.reset();
  }

  CaptureSink sink_;
  std::string dir_;
};

TEST_F(LinuxXpcTransport, CarriesCallsBothWaysWithNumberKindsNilsAndReplies) {
  Journal daemonSide;
  Journal extensionSide;
  TestDaemon daemon(dir_, daemonSide, options());
  ASSERT_TRUE(daemon.start());
  ExtensionEnd extension(dir_, extensionSide, options());
  extension.resumeAndRegister();
  // Every kind of value; their edges are the codec's.
  const Dictionary event{{
      {"filename1", Value("/media/usb/ä")},
      {"pid", Value(Number::ofUnsignedInt(4000000000u))},
      {"list", Value(Array{{Value(Dictionary{{{"none", Value()}}}), Value(Number::ofBool(true))}})},
  }};
  extension.daemon->handleFileEvent(event);
  std::vector<std::string> expected{"register", "file " + valueText(Value(event))};
  for (unsigned i = 0; i < 50; ++i) {
    extension.daemon->handleProcessStartEvent(Dictionary{{{"pid", Number::ofUnsignedInt(i)}}});
    expected.push_back("start {pid=u" + std::to_string(i) + ";}");
  }
  extension.daemon->handlePrinterEvent(Dictionary{});
  extension.daemon->handleProcessExitEvent(
      Dictionary{{{"timestamp", Number::ofUnsignedLongLong(7)}}});
  expected.insert(expected.end(), {"printer {}", "exit {timestamp=ull7;}"});
  ASSERT_TRUE(daemonSide.waitForSize(expected.size()));
  EXPECT_EQ(daemonSide.entries(), expected);

  auto toExtension = daemon.waitForConnection()->remoteObjectProxyWithErrorHandler(
      [&](const std::string& error) { daemonSide.add("error: " + error); });
  const std::string volume = "/media/usb";
  const std::string job = "job-7";
  const Dictionary policy{{{"dupon", Value(Number::ofBool(true))}}};
  const Array exclusions{{Value(Dictionary{{{"application_description", Value(Dictionary{})}}})}};
  const auto note = [&](std::string what) {
    return [&daemonSide, what](bool ok) { daemonSide.add(what + (ok ? " YES" : " NO")); };
  };
  toExtension->addMountPoint(&volume, 2);
  toExtension->removeMountPoint(nullptr);
  toExtension->clearMountPoints();
  toExtension->setPolicy(&policy, 1700000000000000000ull, note("policy"));
  toExtension->setExclusions(nullptr, 5, note("exclusions"));
  toExtension->setExclusions(&exclusions, 6, nullptr);  // an empty block is not answered
  toExtension->setPrinter(&job, true);
  toExtension->setPrinter(nullptr, false);
  toExtension->setPolicy(nullptr, 0, note("nil policy"));

  ASSERT_TRUE(daemonSide.waitFor("nil policy YES"));
  ASSERT_TRUE(extensionSide.waitForSize(10));
  EXPECT_EQ(extensionSide.entries(),
            (std::vector<std::string>{
                "registered YES", "addMountPoint '/media/usb' 2", "removeMountPoint nil",
                "clearMountPoints", "setPolicy {dupon=b1;}", "setExclusions nil",
                "setExclusions [{application_description={};},]", "setPrinter 'job-7' YES",
                "setPrinter nil NO", "setPolicy nil"}));
  EXPECT_EQ(extension.exported.timestamps,
            (std::vector<uint64_t>{1700000000000000000ull, 5, 6, 0}));
  // Only the first of the exported object's two answers goes back.
  EXPECT_EQ(daemonSide.count("policy YES"), 1u);
  EXPECT_EQ(daemonSide.count("exclusions NO"), 1u);
  EXPECT_EQ(daemonSide.count("exclusions YES"), 0u);

  // Everything on the extension's side ran on one thread, the link's own.
  const std::vector<std::thread::id> threads = extensionSide.threads();
  EXPECT_NE(threads.front(), std::this_thread::get_id());
  for (std::thread::id id : threads) EXPECT_EQ(id, threads.front());
  EXPECT_FALSE(sink_.contains("Error:"));

  // We go: the daemon's end is interrupted, then invalidated; its handlers
  // must be done before its journal is.
  close(extension);
  ASSERT_TRUE(daemonSide.waitFor("daemon: invalidated"));
  const std::vector<std::string> ends = daemonSide.entries();
  EXPECT_EQ(std::vector<std::string>(ends.end() - 2, ends.end()),
            (std::vector<std::string>{"daemon: interrupted", "daemon: invalidated"}));
}

TEST_F(LinuxXpcTransport, EndingsAreReportedOnceOnTheLinksThread) {
  {
    // No daemon listens: only invalidated; later calls fail on the link's
    // thread, and once we invalidate they are dropped without a word.
    Journal journal;
    ExtensionEnd extension(dir_, journal, options());
    extension.resumeAndRegister();
    ASSERT_TRUE(journal.waitFor("invalidated"));
    const std::string invalid = "error: the connection to " + kService +
                                " is invalid: cannot connect to " + socket() +
                                ": No such file or directory";
    extension.daemon->handleFileEvent(Dictionary{});
    ASSERT_TRUE(journal.waitFor(invalid, 2));
    EXPECT_NE(journal.threads().back(), std::this_thread::get_id());
    extension.connection->invalidate();
    extension.daemon->handleFileEvent(Dictionary{});
    // A link never resumed reports its invalidation too, once.
    Journal idle;
    ExtensionEnd never(dir_, idle, options());
    never.connection->invalidate();
    never.connection->invalidate();
    ASSERT_TRUE(idle.waitFor("invalidated"));
    close(extension);
    close(never);
    EXPECT_TRUE(waitForLinkThreads(kPatience));
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{invalid, "invalidated", invalid}));
    EXPECT_EQ(idle.entries(), std::vector<std::string>{"invalidated"});
    EXPECT_NE(idle.threads().back(), std::this_thread::get_id());
  }

  // The daemon goes: we are interrupted, then invalidated, with no error.
  sink_.clear();
  Journal daemonSide;
  TestDaemon daemon(dir_, daemonSide, options());
  ASSERT_TRUE(daemon.start());
  Journal journal;
  ExtensionEnd extension(dir_, journal, options());
  // As the XPC client does: the interruption handler invalidates.
  extension.connection->setInterruptionHandler([&] {
    journal.add("interrupted");
    extension.connection->invalidate();
  });
  extension.resumeAndRegister();
  ASSERT_TRUE(journal.waitFor("registered YES"));
  daemon.listener().stop();  // accepted links outlive the listener
  EXPECT_FALSE(std::filesystem::exists(socket()));
  extension.daemon->handleFileEvent(Dictionary{});
  ASSERT_TRUE(daemonSide.waitFor("file {}"));
  daemon.drop();
  ASSERT_TRUE(journal.waitFor("invalidated"));
  EXPECT_FALSE(sink_.contains("Error:"));
  extension.daemon->handleFileEvent(Dictionary{});  // invalidated by the handler: silent
  close(extension);
  ASSERT_TRUE(waitForLinkThreads(kPatience));
  EXPECT_EQ(journal.entries(),
            (std::vector<std::string>{"registered YES", "interrupted", "invalidated"}));
}

TEST_F(LinuxXpcTransport, BadFramesFromEitherEndAreLoggedAndDropTheLink) {
  const std::string valid =
      encoded(CallFrame{"setPolicy:withTimestamp:andCompletionHandler:",
                        {Value(Dictionary{{{"dupon", Value(Number::ofBool(true))}}}),
                         Value(Number::ofUnsignedLongLong(5))},
                        7});
  const struct {
    std::string bytes;
    const char* logged;  // what the Error line must say
  } cases[] = {
      {encoded(CallFrame{"formatDisk:", {}, std::nullopt}),
       "unknown selector \"formatDisk:\" for SysextXPCInterface"},
      {encoded(CallFrame{"addMountPoint:mountType:",
                         {Value("/media/usb"), Value(Number::ofInt(2))}, std::nullopt}),
       "argument 2 of addMountPoint:mountType: must be an unsigned long long number, got an "
       "int number"},
      {encoded(CallFrame{"removeMountPoint:", {}, std::nullopt}),
       "removeMountPoint: takes 1 argument(s), got 0"},
      {encoded(CallFrame{"setPolicy:withTimestamp:andCompletionHandler:",
                         {Value(), Value(Number::ofUnsignedLongLong(1))}, std::nullopt}),
       "takes a reply block but carries no reply id"},
      {valid.substr(0, valid.size() - 3), "unparseable frame of"},
      {encoded(ReplyFrame{999, true}), "reply for unknown id 999"},
      {std::string(kMaxFrameBytes + 1, '\x0a'),
       "frame of 1048577 bytes exceeds the 1048576-byte limit"},
  };
  for (const auto& bad : cases) {
    SCOPED_TRACE(bad.logged);
    sink_.clear();
    ino_t inode;
    std::string error;
    const int listener = bindListeningSocket(socket(), &inode, &error);
    ASSERT_GE(listener, 0) << error;
    Journal journal;
    ExtensionEnd extension(dir_, journal);
    extension.resumeAndRegister();
    pollfd p{listener, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 10000), 1);
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listener);
    unlink(socket().c_str());
    ASSERT_GE(fd, 0);
    sizeFrameBuffers(fd);
    char buffer[4096];
    ASSERT_GT(recv(fd, buffer, sizeof buffer, 0), 0);  // the registration
    int sendBuffer = 0;
    socklen_t length = sizeof sendBuffer;
    getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, &length);
    if (bad.bytes.size() + 32 >= static_cast<size_t>(sendBuffer)) {
      // Without privilege the socket's buffers cap messages below the limit.
      EXPECT_NE(geteuid(), 0u);
      ::close(fd);
      continue;
    }
    ASSERT_EQ(send(fd, bad.bytes.data(), bad.bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bad.bytes.size()));
    ASSERT_TRUE(journal.waitFor("invalidated"));
    EXPECT_EQ(recv(fd, buffer, sizeof buffer, MSG_DONTWAIT), 0);  // closed by the extension
    ::close(fd);
    // Established, so interrupted first; the pending registration fails.
    const std::vector<std::string> entries = journal.entries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0], "interrupted");
    EXPECT_TRUE(entries[1].starts_with("error: the connection to " + kService + " is invalid: "))
        << entries[1];
    EXPECT_EQ(entries[2], "invalidated");
    EXPECT_TRUE(sink_.contains("Error: Dropping the link to " + kService + ": "));
    EXPECT_TRUE(sink_.contains(bad.logged));
  }

  // The daemon's end checks the extension's calls the same way: a nil
  // event, where its interface takes events by reference.
  Journal daemonSide;
  TestDaemon daemon(dir_, daemonSide);
  ASSERT_TRUE(daemon.start());
  const int fd = openSeqpacketSocket();
  ASSERT_GE(fd, 0);
  const sockaddr_un address = socketAddress(socket());
  ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const std::string bytes = encoded(CallFrame{"handleFileEvent:", {Value()}, std::nullopt});
  ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  ASSERT_TRUE(daemonSide.waitFor("daemon: invalidated"));
  EXPECT_EQ(daemonSide.entries(),
            (std::vector<std::string>{"daemon: interrupted", "daemon: invalidated"}));
  EXPECT_TRUE(sink_.contains("argument 1 of handleFileEvent: must be a dictionary, got nil"));
  ::close(fd);
  daemon.drop();
}

TEST_F(LinuxXpcTransport, SocketFilesAreNamedPlacedAndReplacedOnlyWhenStale) {
  const char* saved = getenv(kRuntimeDirVariable);
  const std::string restore = saved ? saved : "";
  unsetenv(kRuntimeDirVariable);
  EXPECT_EQ(resolveRuntimeDir(""), "/run/tarvex");
  setenv(kRuntimeDirVariable, "/tmp/trial", 1);
  EXPECT_EQ(resolveRuntimeDir(""), "/tmp/trial");
  EXPECT_EQ(resolveRuntimeDir("/var/run/x"), "/var/run/x");
  EXPECT_EQ(UnixSocketConnector().runtimeDir(), "/tmp/trial");
  saved ? setenv(kRuntimeDirVariable, restore.c_str(), 1) : unsetenv(kRuntimeDirVariable);
  std::string error;
  EXPECT_EQ(socketPathFor(kService, "/run/tarvex", &error),
            "/run/tarvex/com.tarvex.lumo.protectiond.xpc.sock");
  EXPECT_EQ(socketPathFor("../etc/x", "/run/tarvex", &error), "");
  EXPECT_NE(error.find("cannot name a socket file"), std::string::npos);
  EXPECT_EQ(socketPathFor(std::string(120, 'a'), "/run/tarvex", &error), "");
  EXPECT_NE(error.find("longer than a socket address holds"), std::string::npos);

  // A daemon that died without cleaning up leaves its socket behind.
  Journal journal;
  ino_t inode;
  const int stale = bindListeningSocket(socket(), &inode, &error);
  ASSERT_GE(stale, 0) << error;
  ::close(stale);
  TestDaemon first(dir_, journal);
  ASSERT_TRUE(first.start());
  TestDaemon second(dir_, journal);
  EXPECT_FALSE(second.start());
  EXPECT_TRUE(sink_.contains("Cannot listen for " + kService + ": another listener is live at " +
                             socket()));
  // The loser's stop leaves the winner's socket alone.
  second.listener().stop();
  struct stat st {};
  ASSERT_EQ(stat(dir_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0755u);
  ASSERT_EQ(stat(socket().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0666u);
}

// The extension refusing a daemon that is not root is a process test.
TEST_F(LinuxXpcTransport, PrivilegedDaemonRefusesANonRootExtension) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to start a peer of another uid";
  Journal daemonSide;
  TestDaemon daemon(dir_, daemonSide, IXPCConnector::kPrivileged);
  ASSERT_TRUE(daemon.start());
  const sockaddr_un address = socketAddress(socket());
  const std::string frame = encoded(CallFrame{"registerWithCompletionHandler:", {}, 1});
  // The child becomes nobody and exits 0 when the daemon closes on it
  // unanswered. Only async-signal-safe calls in it: the parent has threads.
  const pid_t child = fork();
  if (child == 0) {
    if (syscall(SYS_setgid, 65534) != 0 || syscall(SYS_setuid, 65534) != 0) _exit(90);
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) _exit(1);
    send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
    char buffer[64];
    _exit(recv(fd, buffer, sizeof buffer, 0) <= 0 ? 0 : 2);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(sink_.contains("uid 65534 of " + kService +
                             ": the link is privileged and the peer is not root"));
  EXPECT_EQ(daemonSide.count("register"), 0u);
}

}  // namespace
}  // namespace tarvex::itx::xpc::linux_platform
