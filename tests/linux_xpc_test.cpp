// The daemon link on Unix sockets: the frame codec, calls both ways across
// a real socket, how either end going is reported, bad frames and the socket
// file. Refusing a peer that is not root is the process tests' part.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemonlink.pb.h"
#include "dispatch/wakebatch.h"
#include "support/capture_sink.h"
#include "support/link_journal.h"
#include "xpc/callcheck.h"
#include "xpc/framecodec.h"
#include "xpc/linkchannel.h"
#include "xpc/seqpacket.h"
#include "xpc/socketbind.h"
#include "xpc/socketpath.h"
#include "xpc/unixsocketconnector.h"
#include "xpc/unixsocketlistener.h"
#include "xpc/wirereader.h"

namespace tarvex::itx::xpc::linux_platform {
namespace {

using lumo::testing::CaptureSink;
using lumo::testing::ExtensionEnd;
using lumo::testing::Journal;
using lumo::testing::valueText;

constexpr auto kPatience = Journal::kPatience;
const std::string kService = lumo::testing::kDaemonService;
using Strings = std::vector<std::string>;

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

Value nested(int depth) {
  Value v("leaf");
  for (int i = 1; i < depth; ++i) v = Value(Array{{v}});
  return v;
}

// What the generated classes would make of a value: the encoder writes the
// bytes itself and must write these.
void toMessage(const Value& in, ::lumo::link::Value* out) {
  if (in.isNil()) out->mutable_nil();
  if (const std::string* s = in.string()) out->set_string(*s);
  if (const Number* n = in.number()) {
    switch (n->kind) {
      case NumberKind::Int: out->set_int_(n->intValue()); break;
      case NumberKind::UnsignedInt: out->set_unsigned_int(n->unsignedIntValue()); break;
      case NumberKind::LongLong: out->set_long_long(n->asSigned()); break;
      case NumberKind::UnsignedLongLong: out->set_unsigned_long_long(n->bits); break;
      case NumberKind::Bool: out->set_bool_(n->bits != 0); break;
    }
  }
  if (const Dictionary* d = in.dictionary()) {
    auto* dict = out->mutable_dictionary();
    for (const DictEntry& e : d->entries) {
      auto* entry = dict->add_entries();
      entry->set_key(e.key);
      toMessage(e.value, entry->mutable_value());
    }
  }
  if (const Array* a = in.array()) {
    auto* array = out->mutable_array();
    for (const Value& item : a->items) toMessage(item, array->add_items());
  }
}

std::string generatedBytes(const Frame& frame) {
  ::lumo::link::Frame out;
  if (const CallFrame* call = std::get_if<CallFrame>(&frame)) {
    auto* c = out.mutable_call();
    c->set_selector(call->selector);
    for (const Value& arg : call->args) toMessage(arg, c->add_args());
    if (call->replyId) c->set_reply_id(*call->replyId);
  } else {
    out.mutable_reply()->set_reply_id(std::get<ReplyFrame>(frame).replyId);
    out.mutable_reply()->set_value(std::get<ReplyFrame>(frame).value);
  }
  return out.SerializeAsString();
}

// Every kind of value at its edges, byte for byte as the generated classes
// write it and read back directly as they would read it (the transport test
// takes them across the socket), and what the encoder refuses to send.
TEST(LinuxXpcFrames, TheCodecWritesAndReadsAsTheGeneratedClassesAndNothingThePeerWouldReject) {
  const Dictionary numbers{{
      {"i0", Number::ofInt(0)},
      {"i-", Number::ofInt(-1)},
      {"imin", Number::ofInt(INT32_MIN)},
      {"imax", Number::ofInt(INT32_MAX)},
      {"u0", Number::ofUnsignedInt(0)},
      {"umax", Number::ofUnsignedInt(UINT32_MAX)},
      {"ll0", Number::ofLongLong(0)},
      {"ll-", Number::ofLongLong(-300)},
      {"llmin", Number::ofLongLong(INT64_MIN)},
      {"llmax", Number::ofLongLong(INT64_MAX)},
      {"ull0", Number::ofUnsignedLongLong(0)},
      {"ull", Number::ofUnsignedLongLong(48503506513470ull)},
      {"ullmax", Number::ofUnsignedLongLong(UINT64_MAX)},
      {"no", Number::ofBool(false)},
      {"yes", Number::ofBool(true)},
  }};
  const Dictionary others{{
      {"", Value("empty key")},
      {"nil", Value()},
      {"empty", Value("")},
      {"text", Value("/media/usb/report ü/\n")},
      {"long", Value(std::string(20000, 'a'))},  // lengths of three varint bytes
      {"dict", Value(Dictionary{})},
      {"list", Value(Array{{Value(), Value(Array{}), Value(numbers), Value(Dictionary{})}})},
  }};
  const Frame frames[] = {
      CallFrame{"handleFileEvent:", {Value(numbers), Value(others)}, std::nullopt},
      CallFrame{"", {}, std::nullopt},
      CallFrame{"x", {Value(), Value(""), Value(Number::ofInt(0))}, 0},
      CallFrame{"x", {nested(kMaxValueDepth), Value(Array{{Value(others)}})}, UINT64_MAX},
      ReplyFrame{0, false},
      ReplyFrame{0, true},
      ReplyFrame{300, false},
      ReplyFrame{UINT64_MAX, true},
  };
  std::string error;
  for (const Frame& frame : frames) {
    const std::string bytes = encoded(frame);
    EXPECT_EQ(bytes, generatedBytes(frame));
    EXPECT_EQ(CanonicalReader::read(bytes), std::vector<Frame>{frame});
    EXPECT_EQ(decodeMessageParsed(bytes, &error), std::vector<Frame>{frame}) << error;
  }
  // A record sent where it lies is the same call as one copied into a frame.
  for (const Dictionary* record : {&numbers, &others}) {
    EXPECT_EQ(encodeRecordCall("handleFileEvent:", *record, &error),
              encoded(CallFrame{"handleFileEvent:", {Value(*record)}, std::nullopt}));
  }
  // Out of the writer's order (the id before the selector) the generated
  // classes read it, to the same frame.
  const std::string reordered = std::string("\x0a\x05\x18\x07\x0a\x01x", 7);
  EXPECT_FALSE(CanonicalReader::read(reordered));
  const std::vector<Frame> idFirst{CallFrame{"x", {}, uint64_t{7}}};
  EXPECT_EQ(decodeMessage(reordered, &error), idFirst) << error;

  EXPECT_FALSE(encodeFrame(CallFrame{"x", {nested(kMaxValueDepth + 1)}, std::nullopt}, &error));
  EXPECT_EQ(error, "values nested deeper than 32 levels");
  EXPECT_FALSE(
      encodeFrame(CallFrame{"x", {Value(std::string(100, 'a'))}, std::nullopt}, &error, 64));
  EXPECT_EQ(error, "frame of 109 bytes exceeds the 64-byte limit");
  EXPECT_FALSE(encodeRecordCall("x", Dictionary{{{"deep", nested(kMaxValueDepth)}}}, &error));
  EXPECT_EQ(error, "values nested deeper than 32 levels");
}

TEST(LinuxXpcFrames, DecoderAndCallCheckNameWhatIsWrong) {
  ::lumo::link::Frame frame;
  auto* call = frame.mutable_call();
  call->set_selector("handleFileEvent:");
  auto* entries = call->add_args()->mutable_dictionary();
  entries->add_entries()->set_key("pid");
  entries->mutable_entries(0)->mutable_value()->set_unsigned_int(1);
  entries->add_entries()->set_key("pid");
  entries->mutable_entries(1)->mutable_value()->set_unsigned_int(2);
  auto decodeError = [&](std::string bytes = "") {
    if (bytes.empty()) frame.SerializeToString(&bytes);
    std::string error;
    EXPECT_FALSE(decodeMessage(bytes, &error));
    return error;
  };
  const std::string arg = "argument 1 of \"handleFileEvent:\": ";
  EXPECT_EQ(decodeError(), arg + "dictionary key \"pid\" appears twice");
  {
    // Past the keys the direct read checks by a scan: the first repeated last.
    ::lumo::link::Frame large = frame;
    auto* many = large.mutable_call()->mutable_args(0)->mutable_dictionary();
    many->mutable_entries(1)->set_key("k1");
    for (int i = 2; i < 40; ++i) *many->add_entries() = many->entries(1);
    for (int i = 2; i < 40; ++i) many->mutable_entries(i)->set_key("k" + std::to_string(i));
    many->mutable_entries(39)->set_key("pid");
    std::string bytes;
    large.SerializeToString(&bytes);
    EXPECT_EQ(decodeError(bytes), arg + "dictionary key \"pid\" appears twice");
  }
  entries->mutable_entries(1)->set_key("\xc3\x28");
  EXPECT_EQ(decodeError(), arg + "dictionary key is not valid UTF-8");
  entries->mutable_entries(1)->set_key("uid");
  // A surrogate, past a run of ASCII.
  entries->mutable_entries(1)->mutable_value()->set_string("/media/usb/folder\xed\xa0\x80");
  EXPECT_EQ(decodeError(), arg + "string value is not valid UTF-8");
  entries->mutable_entries(1)->mutable_value()->clear_kind();
  EXPECT_EQ(decodeError(), arg + "value of no known kind");
  call->set_selector("\xff");
  EXPECT_EQ(decodeError(), "selector is not valid UTF-8");
  EXPECT_EQ(decodeError(std::string(kMaxFrameBytes + 1, '\0')),
            "frame of 1048577 bytes exceeds the 1048576-byte limit");
  EXPECT_EQ(decodeError(std::string("\x1a\x00", 2)),
            "frame of 2 bytes is neither a call nor a reply");

  // Frames written together come in one pack, in order; a pack holds calls
  // and replies only, and a bad one drops the whole message.
  std::string error;
  const Frame reply = ReplyFrame{9, true};
  const Frame event = CallFrame{"handleProcessExitEvent:", {Value(Dictionary{})}, std::nullopt};
  const std::string replyBytes = *encodeFrame(reply, &error);
  const std::string eventBytes = *encodeFrame(event, &error);
  const std::string pack = packFrames({&eventBytes, &replyBytes, &eventBytes});
  EXPECT_EQ(decodeMessage(pack, &error), (std::vector<Frame>{event, reply, event}));
  EXPECT_EQ(decodeError(packFrames({&eventBytes, &pack})),
            "frame 2 of a pack: frame of " + std::to_string(pack.size()) +
                " bytes is neither a call nor a reply");
  EXPECT_EQ(decodeError(std::string("\x22\x00", 2)), "empty pack of 2 bytes");
  frame.mutable_call()->set_selector("\xff");
  std::string bad;
  frame.SerializeToString(&bad);
  EXPECT_EQ(decodeError(packFrames({&replyBytes, &bad})),
            "frame 2 of a pack: selector is not valid UTF-8");

  // Decoded calls are checked against what the receiving end exports.
  const std::string policy = "setPolicy:withTimestamp:andCompletionHandler:";
  const Value ull = Value(Number::ofUnsignedLongLong(1));
  const struct {
    Protocol protocol;
    CallFrame call;
    std::string error;
  } checks[] = {
      {Protocol::Sysext, {policy, {Value(), ull}, 7}, ""},  // a nil policy is allowed
      {Protocol::Sysext,
       {"formatDisk:", {}, std::nullopt},
       "unknown selector \"formatDisk:\" for SysextXPCInterface"},
      {Protocol::Sysext,
       {"removeMountPoint:", {}, std::nullopt},
       "removeMountPoint: takes 1 argument(s), got 0"},
      {Protocol::Sysext,
       {"addMountPoint:mountType:", {Value("/a"), Value(Number::ofInt(2))}, 3},
       "argument 2 of addMountPoint:mountType: must be an unsigned long long number, got an "
       "int number"},
      {Protocol::Sysext,
       {"clearMountPoints", {}, 3},
       "clearMountPoints takes no reply block but carries a reply id"},
      {Protocol::Sysext,
       {policy, {Value(), ull}, std::nullopt},
       policy + " takes a reply block but carries no reply id"},
      // The daemon's interface takes events by reference.
      {Protocol::ProtectionDaemon,
       {"handleFileEvent:", {Value()}, std::nullopt},
       "argument 1 of handleFileEvent: must be a dictionary, got nil"},
  };
  for (const auto& check : checks) {
    EXPECT_EQ(checkCall(check.protocol, check.call), check.error) << check.call.selector;
  }
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
  // Every kind of value at its edges.
  const Dictionary event{{
      {"s", Value("ü/\n")},
      {"i", Value(Number::ofInt(INT32_MIN))},
      {"u", Value(Number::ofUnsignedInt(UINT32_MAX))},
      {"ll", Value(Number::ofLongLong(INT64_MIN))},
      {"ull", Value(Number::ofUnsignedLongLong(UINT64_MAX))},
      {"b", Value(Number::ofBool(false))},
      {"list", Value(Array{{Value(Dictionary{{{"none", Value()}}}), Value(Array{})}})},
      {"deep", nested(kMaxValueDepth - 1)},  // the deepest a peer takes
  }};
  extension.daemon->handleFileEvent(event);
  extension.daemon->handleProcessStartEvent(Dictionary{{{"pid", Number::ofUnsignedInt(7)}}});
  ASSERT_TRUE(daemonSide.waitForSize(3));
  ASSERT_TRUE(extensionSide.waitFor("registered YES"));
  {
    // Sent from a notification worker's run: written once the run ends.
    rtn::linux_platform::WakeBatch run;
    extension.daemon->handlePrinterEvent(Dictionary{});
    extension.daemon->handleProcessExitEvent(
        Dictionary{{{"timestamp", Number::ofUnsignedLongLong(7)}}});
  }
  const Strings expected{"register", "file " + valueText(Value(event)), "start {pid=u7;}",
                         "printer {}", "exit {timestamp=ull7;}"};
  ASSERT_TRUE(daemonSide.waitForSize(expected.size()));
  EXPECT_EQ(daemonSide.entries(), expected);

  // Values of the daemon's calls are the reference daemon test's; here nils
  // and reply blocks.
  auto toExtension = daemon.waitForConnection()->remoteObjectProxyWithErrorHandler(
      [&](const std::string& error) { daemonSide.add("error: " + error); });
  const auto note = [&](std::string what) {
    return [&daemonSide, what](bool ok) { daemonSide.add(what + (ok ? " YES" : " NO")); };
  };
  const Array exclusions{};
  toExtension->removeMountPoint(nullptr);
  toExtension->setPrinter(nullptr, false);
  toExtension->setExclusions(nullptr, 5, note("exclusions"));
  toExtension->setExclusions(&exclusions, 6, nullptr);  // an empty block is not answered
  toExtension->setPolicy(nullptr, 1700000000000000000ull, note("policy"));
  ASSERT_TRUE(daemonSide.waitFor("policy YES"));
  EXPECT_EQ(extensionSide.entries(),
            (Strings{"registered YES", "removeMountPoint nil", "setPrinter nil NO",
                     "setExclusions nil", "setExclusions []", "setPolicy nil"}));
  EXPECT_EQ(extension.exported.timestamps, (std::vector<uint64_t>{5, 6, 1700000000000000000ull}));
  // Only the first of the exported object's two answers goes back.
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
  const Strings ends = daemonSide.entries();
  EXPECT_EQ(Strings(ends.end() - 2, ends.end()),
            (Strings{"daemon: interrupted", "daemon: invalidated"}));
}

// The daemon goes: we are interrupted, then invalidated, with no error; the
// XPC client's reconnection after either is the process tests' part.
TEST_F(LinuxXpcTransport, ADaemonGoingInterruptsThenInvalidatesOnce) {
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
  EXPECT_EQ(journal.entries(), (Strings{"registered YES", "interrupted", "invalidated"}));
}

// Either end reads its peer's frames the same way; here the daemon's, for
// what the extension's process test can't send: replies and oversized frames.
TEST_F(LinuxXpcTransport, BadFramesAreLoggedAndDropTheLink) {
  const struct {
    std::string bytes;
    const char* logged;  // what the Error line must say
  } cases[] = {
      {encoded(ReplyFrame{999, true}), "reply for unknown id 999"},
      {std::string(kMaxFrameBytes + 1, '\x0a'),
       "frame of 1048577 bytes exceeds the 1048576-byte limit"},
  };
  for (const auto& bad : cases) {
    SCOPED_TRACE(bad.logged);
    sink_.clear();
    Journal daemonSide;
    TestDaemon daemon(dir_, daemonSide);
    ASSERT_TRUE(daemon.start());
    const int fd = openSeqpacketSocket();
    ASSERT_GE(fd, 0);
    const sockaddr_un address = socketAddress(socket());
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    int sendBuffer = 0;
    socklen_t length = sizeof sendBuffer;
    getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, &length);
    if (bad.bytes.size() + 32 >= static_cast<size_t>(sendBuffer)) {
      // Without privilege the socket's buffers cap messages below the limit.
      EXPECT_NE(geteuid(), 0u);
    } else {
      ASSERT_EQ(send(fd, bad.bytes.data(), bad.bytes.size(), MSG_NOSIGNAL),
                static_cast<ssize_t>(bad.bytes.size()));
      ASSERT_TRUE(daemonSide.waitFor("daemon: invalidated"));
      char byte;
      EXPECT_EQ(recv(fd, &byte, 1, 0), 0);  // closed on us
      EXPECT_EQ(daemonSide.entries(), (Strings{"daemon: interrupted", "daemon: invalidated"}));
      EXPECT_TRUE(sink_.contains("Error: Dropping the link to " + kService + ": "));
      EXPECT_TRUE(sink_.contains(bad.logged));
    }
    ::close(fd);
    daemon.drop();
  }
}

TEST_F(LinuxXpcTransport, SocketFilesAreNamedPlacedAndReplacedOnlyWhenStale) {
  // The runtime directory: the argument, else $LUMO_RUNTIME_DIR, else /run/tarvex.
  const char* saved = getenv(kRuntimeDirVariable);
  const std::string restore = saved ? saved : "";
  setenv(kRuntimeDirVariable, "/tmp/trial", 1);
  EXPECT_EQ(resolveRuntimeDir("/var/run/x"), "/var/run/x");
  EXPECT_EQ(resolveRuntimeDir(""), "/tmp/trial");
  unsetenv(kRuntimeDirVariable);
  EXPECT_EQ(resolveRuntimeDir(""), "/run/tarvex");
  if (saved) setenv(kRuntimeDirVariable, restore.c_str(), 1);
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

}  // namespace
}  // namespace tarvex::itx::xpc::linux_platform
