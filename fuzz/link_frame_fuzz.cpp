// What a peer's socket message goes through before it reaches an exported
// object: decoding, the per-selector check and the dispatch. Besides the
// sanitizers' findings it checks that a decoded frame re-encodes to itself,
// and that a call that passes the check reaches the method it names with
// the arguments it carried (the dispatch feeds a remote proxy, which turns
// the method call back into a frame), and that a record encoded where it
// lies gives its call's bytes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "xpc/callcheck.h"
#include "xpc/calldispatch.h"
#include "xpc/framecodec.h"
#include "xpc/remoteproxies.h"
#include "xpc/wirereader.h"

namespace transport = tarvex::itx::xpc::linux_platform;
using tarvex::itx::xpc::ReplyBlock;

namespace {

void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "link frame fuzz: %s\n", what);
  std::abort();
}

// The call a dispatched method turns back into.
struct Echo {
  std::optional<transport::CallFrame> call;
  bool gotReplyBlock = false;
};

transport::CallSender recordInto(Echo& echo) {
  return [&echo](transport::CallFrame call, ReplyBlock reply) {
    require(!echo.call, "one call dispatched more than one method");
    echo.call = std::move(call);
    echo.gotReplyBlock = static_cast<bool>(reply);
  };
}

void checkDispatch(const transport::CallFrame& call, transport::Protocol protocol) {
  if (!transport::checkCall(protocol, call).empty()) return;
  Echo echo;
  const ReplyBlock reply = [](bool) {};
  if (protocol == transport::Protocol::Sysext) {
    transport::RemoteSysextProxy target(recordInto(echo));
    transport::dispatchCall(call, target, reply);
  } else {
    transport::RemoteDaemonProxy target(recordInto(echo));
    transport::dispatchCall(call, target, reply);
  }
  require(echo.call.has_value(), "a checked call reached no method");
  require(echo.call->selector == call.selector, "dispatch called another method");
  require(echo.call->args == call.args, "dispatch changed the arguments");
  require(echo.call->replyId.has_value() == call.replyId.has_value(),
          "dispatch lost or invented a reply block");
  require(echo.gotReplyBlock == call.replyId.has_value(), "reply block not handed on");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string error;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::optional<std::vector<transport::Frame>> frames =
      transport::decodeMessage(input, &error);
  // The direct read answers only what the generated classes would.
  if (const auto direct = transport::CanonicalReader::read(input)) {
    std::string parseError;
    const auto parsed = transport::decodeMessageParsed(input, &parseError);
    require(parsed.has_value() && *parsed == *direct, "the direct read differs from the parser");
  }
  if (!frames) {
    require(!error.empty(), "a rejected message without a reason");
    return 0;
  }
  require(!frames->empty(), "a message of no frames");
  // Canonical bytes may differ from the input, never the frames they carry,
  // alone or packed.
  std::vector<std::string> encoded;
  for (const transport::Frame& frame : *frames) {
    std::optional<std::string> bytes = transport::encodeFrame(frame, &error);
    if (!bytes) return 0;
    require(transport::CanonicalReader::read(*bytes).has_value(),
            "the writer's form is not read directly");
    const auto again = transport::decodeMessage(*bytes, &error);
    require(again && again->size() == 1, "a re-encoded frame does not decode");
    require(again->front() == frame, "a frame changed through encode and decode");
    // Records are written from where they lie, to the same bytes.
    const auto* call = std::get_if<transport::CallFrame>(&frame);
    if (call && !call->replyId && call->args.size() == 1 && call->args[0].dictionary()) {
      require(transport::encodeRecordCall(call->selector, *call->args[0].dictionary(), &error) ==
                  bytes,
              "a record written where it lies differs from its call");
    }
    encoded.push_back(std::move(*bytes));
  }
  std::vector<const std::string*> pack;
  for (const std::string& bytes : encoded) pack.push_back(&bytes);
  const auto unpacked = transport::decodeMessage(transport::packFrames(pack), &error);
  require(unpacked.has_value() && *unpacked == *frames, "frames changed through a pack");
  for (const transport::Frame& frame : *frames) {
    if (const transport::CallFrame* call = std::get_if<transport::CallFrame>(&frame)) {
      checkDispatch(*call, transport::Protocol::Sysext);
      checkDispatch(*call, transport::Protocol::ProtectionDaemon);
    }
  }
  return 0;
}
