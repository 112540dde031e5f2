#include "xpc/framecodec.h"

#include <unordered_set>
#include <utility>

#include <google/protobuf/arena.h>

#include "daemonlink.pb.h"
#include "xpc/utf8.h"
#include "xpc/wireformat.h"
#include "xpc/wirereader.h"
#include "xpc/wirewriter.h"

namespace tarvex::itx::xpc::linux_platform {

namespace {

namespace wire = ::lumo::link;

std::string quoted(std::string_view text) {
  constexpr size_t kShown = 64;
  std::string out = "\"";
  out.append(text.substr(0, kShown));
  if (text.size() > kShown) out += "...";
  return out + "\"";
}

std::string tooDeep() {
  return "values nested deeper than " + std::to_string(kMaxValueDepth) + " levels";
}

bool fromWire(const wire::Value& in, Value* out, int depth, std::string* error) {
  if (depth > kMaxValueDepth) {
    *error = tooDeep();
    return false;
  }
  switch (in.kind_case()) {
    case wire::Value::kNil: *out = Value(); return true;
    case wire::Value::kString:
      if (!isValidUtf8(in.string())) {
        *error = "string value is not valid UTF-8";
        return false;
      }
      *out = Value(in.string());
      return true;
    case wire::Value::kInt: *out = Value(Number::ofInt(in.int_())); return true;
    case wire::Value::kUnsignedInt:
      *out = Value(Number::ofUnsignedInt(in.unsigned_int()));
      return true;
    case wire::Value::kLongLong: *out = Value(Number::ofLongLong(in.long_long())); return true;
    case wire::Value::kUnsignedLongLong:
      *out = Value(Number::ofUnsignedLongLong(in.unsigned_long_long()));
      return true;
    case wire::Value::kBool: *out = Value(Number::ofBool(in.bool_())); return true;
    case wire::Value::kDictionary: {
      Dictionary dict;
      dict.entries.reserve(in.dictionary().entries_size());
      std::unordered_set<std::string_view> keys;
      for (const wire::DictEntry& e : in.dictionary().entries()) {
        if (!isValidUtf8(e.key())) {
          *error = "dictionary key is not valid UTF-8";
          return false;
        }
        if (!keys.insert(e.key()).second) {
          *error = "dictionary key " + quoted(e.key()) + " appears twice";
          return false;
        }
        DictEntry entry{e.key(), Value()};
        if (!fromWire(e.value(), &entry.value, depth + 1, error)) return false;
        dict.entries.push_back(std::move(entry));
      }
      *out = Value(std::move(dict));
      return true;
    }
    case wire::Value::kArray: {
      Array array;
      array.items.reserve(in.array().items_size());
      for (const wire::Value& item : in.array().items()) {
        array.items.emplace_back();
        if (!fromWire(item, &array.items.back(), depth + 1, error)) return false;
      }
      *out = Value(std::move(array));
      return true;
    }
    case wire::Value::KIND_NOT_SET: break;
  }
  *error = "value of no known kind";
  return false;
}

std::string tooLarge(size_t size, size_t limit) {
  return "frame of " + std::to_string(size) + " bytes exceeds the " + std::to_string(limit) +
         "-byte limit";
}

// Measures, checks the size, then writes: the writer's two passes.
template <typename Measure, typename Write>
std::optional<std::string> encodeWith(Measure measure, Write write, std::string* error,
                                      size_t maxBytes) {
  const std::optional<size_t> size = measure();
  if (!size) {
    *error = tooDeep();
    return std::nullopt;
  }
  if (*size > maxBytes) {
    *error = tooLarge(*size, maxBytes);
    return std::nullopt;
  }
  std::string bytes(*size, '\0');
  write(bytes.data());
  return bytes;
}

}  // namespace

std::optional<std::string> encodeFrame(const Frame& frame, std::string* error, size_t maxBytes) {
  FrameWriter writer;
  return encodeWith([&] { return writer.measure(frame); },
                    [&](char* out) { writer.write(frame, out); }, error, maxBytes);
}

std::optional<std::string> encodeRecordCall(std::string_view selector, const Dictionary& record,
                                            std::string* error, size_t maxBytes) {
  FrameWriter writer;
  return encodeWith([&] { return writer.measureRecordCall(selector, record); },
                    [&](char* out) { writer.writeRecordCall(selector, record, out); }, error,
                    maxBytes);
}

namespace {

void appendVarint(std::string& out, uint64_t value) {
  while (value >= 0x80) {
    out.push_back(static_cast<char>((value & 0x7f) | 0x80));
    value >>= 7;
  }
  out.push_back(static_cast<char>(value));
}


std::optional<Frame> fromWireFrame(const wire::Frame& in, size_t size, std::string* error) {
  switch (in.body_case()) {
    case wire::Frame::kCall: {
      const wire::Call& c = in.call();
      if (!isValidUtf8(c.selector())) {
        *error = "selector is not valid UTF-8";
        return std::nullopt;
      }
      CallFrame call;
      call.selector = c.selector();
      call.args.resize(c.args_size());
      for (int i = 0; i < c.args_size(); ++i) {
        if (!fromWire(c.args(i), &call.args[i], 1, error)) {
          *error = "argument " + std::to_string(i + 1) + " of " + quoted(call.selector) + ": " +
                   *error;
          return std::nullopt;
        }
      }
      if (c.has_reply_id()) call.replyId = c.reply_id();
      return Frame(std::move(call));
    }
    case wire::Frame::kReply:
      return Frame(ReplyFrame{in.reply().reply_id(), in.reply().value()});
    case wire::Frame::kPack:
    case wire::Frame::BODY_NOT_SET: break;
  }
  *error = "frame of " + std::to_string(size) + " bytes is neither a call nor a reply";
  return std::nullopt;
}

}  // namespace

std::string packFrames(const std::vector<const std::string*>& encoded) {
  std::string body;
  for (const std::string* frame : encoded) {
    body.push_back(linktag::kPackedFrame);
    appendVarint(body, frame->size());
    body += *frame;
  }
  std::string out(1, linktag::kPack);
  appendVarint(out, body.size());
  return out + body;
}

std::optional<std::vector<Frame>> decodeMessage(std::string_view bytes, std::string* error) {
  if (bytes.size() <= kMaxFrameBytes) {
    if (std::optional<std::vector<Frame>> frames = CanonicalReader::read(bytes)) return frames;
  }
  return decodeMessageParsed(bytes, error);
}

std::optional<std::vector<Frame>> decodeMessageParsed(std::string_view bytes, std::string* error) {
  if (bytes.size() > kMaxFrameBytes) {
    *error = tooLarge(bytes.size(), kMaxFrameBytes);
    return std::nullopt;
  }
  google::protobuf::Arena arena;
  wire::Frame& in = *google::protobuf::Arena::CreateMessage<wire::Frame>(&arena);
  if (!in.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
    *error = "unparseable frame of " + std::to_string(bytes.size()) +
             " bytes (truncated, or not a link frame)";
    return std::nullopt;
  }
  std::vector<Frame> frames;
  if (!in.has_pack()) {
    std::optional<Frame> frame = fromWireFrame(in, bytes.size(), error);
    if (!frame) return std::nullopt;
    frames.push_back(std::move(*frame));
    return frames;
  }
  const auto& packed = in.pack().frames();
  if (packed.empty()) {
    *error = "empty pack of " + std::to_string(bytes.size()) + " bytes";
    return std::nullopt;
  }
  frames.reserve(packed.size());
  for (int i = 0; i < packed.size(); ++i) {
    std::optional<Frame> frame = fromWireFrame(packed[i], packed[i].ByteSizeLong(), error);
    if (!frame) {
      *error = "frame " + std::to_string(i + 1) + " of a pack: " + *error;
      return std::nullopt;
    }
    frames.push_back(std::move(*frame));
  }
  return frames;
}

}  // namespace tarvex::itx::xpc::linux_platform
