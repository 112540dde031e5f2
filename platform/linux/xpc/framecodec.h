#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "xpc/linkframe.h"

namespace tarvex::itx::xpc::linux_platform {

// Values nested deeper than this are refused both ways; the link's own
// payloads stay within four levels.
constexpr int kMaxValueDepth = 32;

// One socket message's bytes for a frame: a lumo.link.Frame. Nullopt, with
// `error` saying why, when the frame is larger than maxBytes or a value is
// nested too deep.
std::optional<std::string> encodeFrame(const Frame& frame, std::string* error,
                                       size_t maxBytes = kMaxFrameBytes);

// The same for a one-way call with one dictionary argument, straight from
// the dictionary: byte for byte encodeFrame(CallFrame{selector, {record}}).
std::optional<std::string> encodeRecordCall(std::string_view selector, const Dictionary& record,
                                            std::string* error, size_t maxBytes = kMaxFrameBytes);

// One socket message for several frames written together, in order, from
// their encodings (encodeFrame's): a pack. It adds at most 11 bytes per
// frame and 11 for the pack.
std::string packFrames(const std::vector<const std::string*>& encoded);

// The frames in one socket message: one frame, or a pack of them. Nullopt,
// with `error` naming the problem, for a message that is oversized,
// unparseable (truncated, not a Frame), neither a call nor a reply nor a
// pack of them, or carries a value the link cannot hold (text that is not
// UTF-8, a value of no kind, a repeated dictionary key, too deep).
std::optional<std::vector<Frame>> decodeMessage(std::string_view bytes, std::string* error);

// The same, always through the generated classes: without the direct read
// of messages in the writer's own form, which this checks.
std::optional<std::vector<Frame>> decodeMessageParsed(std::string_view bytes, std::string* error);

}  // namespace tarvex::itx::xpc::linux_platform
