#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "xpc/xpcvalue.h"

namespace tarvex::itx::xpc::linux_platform {

// Largest socket message either end sends or accepts.
constexpr size_t kMaxFrameBytes = size_t{1} << 20;

// A method call on the peer's exported object. Methods with a reply block
// carry replyId instead of the block.
struct CallFrame {
  std::string selector;
  std::vector<Value> args;
  std::optional<uint64_t> replyId;

  bool operator==(const CallFrame& o) const {
    return selector == o.selector && args == o.args && replyId == o.replyId;
  }
};

// The value a reply block was called with, for the call of the same id.
struct ReplyFrame {
  uint64_t replyId = 0;
  bool value = false;

  bool operator==(const ReplyFrame& o) const { return replyId == o.replyId && value == o.value; }
};

using Frame = std::variant<CallFrame, ReplyFrame>;

}  // namespace tarvex::itx::xpc::linux_platform
