#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "xpc/framecodec.h"
#include "xpc/utf8.h"
#include "xpc/wireformat.h"

namespace tarvex::itx::xpc::linux_platform {

// The frames of a socket message read straight into values, for messages
// in the form FrameWriter gives them: each field once, in field order,
// nothing unknown, every text UTF-8, no key repeated, no deeper than
// kMaxValueDepth. Building the generated messages first was half of what
// a daemon spent on a record. Nullopt for anything else, valid or not: the
// generated classes then read it and say what is wrong, so this only ever
// answers what they would.
// All in this header, as the writer is: the fuzz targets build the codec
// from a list of its sources.
class CanonicalReader {
 public:
  static std::optional<std::vector<Frame>> read(std::string_view bytes) {
    CanonicalReader in(bytes);
    std::vector<Frame> frames;
    uint64_t tag = 0;
    std::string_view body;
    if (!in.field(&tag, &body) || !in.done()) return std::nullopt;
    if (tag != linktag::kPack) {
      std::optional<Frame> frame = readFrame(tag, body);
      if (!frame) return std::nullopt;
      frames.push_back(std::move(*frame));
      return frames;
    }
    CanonicalReader pack(body);
    std::string_view inner;
    while (!pack.done()) {
      if (!pack.field(&tag, &inner) || tag != linktag::kPackedFrame) return std::nullopt;
      CanonicalReader one(inner);
      std::string_view frameBody;
      if (!one.field(&tag, &frameBody) || !one.done()) return std::nullopt;
      std::optional<Frame> frame = readFrame(tag, frameBody);
      if (!frame) return std::nullopt;
      frames.push_back(std::move(*frame));
    }
    if (frames.empty()) return std::nullopt;
    return frames;
  }

 private:
  explicit CanonicalReader(std::string_view bytes)
      : at_(bytes.data()), end_(bytes.data() + bytes.size()) {}

  bool done() const { return at_ == end_; }

  bool varint(uint64_t* value) {
    uint64_t v = 0;
    for (int shift = 0; shift < 64 && at_ != end_; shift += 7) {
      const auto byte = static_cast<uint8_t>(*at_++);
      if (shift == 63 && byte > 1) return false;
      v |= static_cast<uint64_t>(byte & 0x7f) << shift;
      if (byte < 0x80) {
        *value = v;
        return true;
      }
    }
    return false;
  }

  // The next field: its tag and, for a length-delimited one, its bytes;
  // for a varint one, `value`.
  bool field(uint64_t* tag, std::string_view* bytes, uint64_t* value = nullptr) {
    if (!varint(tag)) return false;
    uint64_t n = 0;
    if (!varint(&n)) return false;
    if ((*tag & 7) == 0) {
      if (value == nullptr) return false;
      *value = n;
      return true;
    }
    if ((*tag & 7) != 2 || n > static_cast<uint64_t>(end_ - at_)) return false;
    *bytes = std::string_view(at_, n);
    at_ += n;
    return true;
  }

  static std::optional<Frame> readFrame(uint64_t tag, std::string_view body) {
    CanonicalReader in(body);
    uint64_t field = 0;
    uint64_t number = 0;
    std::string_view bytes;
    if (tag == linktag::kReply) {
      ReplyFrame reply;
      uint64_t last = 0;
      while (!in.done()) {
        if (!in.field(&field, &bytes, &number) || field <= last) return std::nullopt;
        last = field;
        if (field == linktag::kReplyId) {
          reply.replyId = number;
        } else if (field == linktag::kReplyValue && number <= 1) {
          reply.value = number == 1;
        } else {
          return std::nullopt;
        }
      }
      return Frame(reply);
    }
    if (tag != linktag::kCall) return std::nullopt;
    CallFrame call;
    uint64_t last = 0;
    while (!in.done()) {
      if (!in.field(&field, &bytes, &number)) return std::nullopt;
      if (field < last || (field == last && field != linktag::kArg)) return std::nullopt;
      last = field;
      if (field == linktag::kSelector) {
        if (!isValidUtf8(bytes)) return std::nullopt;
        call.selector.assign(bytes);
      } else if (field == linktag::kArg) {
        call.args.emplace_back();
        if (!readValue(bytes, 1, &call.args.back())) return std::nullopt;
      } else if (field == linktag::kCallId) {
        call.replyId = number;
      } else {
        return std::nullopt;
      }
    }
    return Frame(std::move(call));
  }

  static bool readValue(std::string_view body, int depth, Value* out) {
    if (depth > kMaxValueDepth) return false;
    CanonicalReader in(body);
    uint64_t tag = 0;
    uint64_t n = 0;
    std::string_view bytes;
    if (!in.field(&tag, &bytes, &n) || !in.done()) return false;  // exactly one kind
    switch (tag) {
      case linktag::kNil: *out = Value(); return bytes.empty();
      case linktag::kString:
        if (!isValidUtf8(bytes)) return false;
        *out = Value(std::string(bytes));
        return true;
      case linktag::kInt:
        if (n > UINT32_MAX) return false;
        *out = Value(Number::ofInt(static_cast<int32_t>(linktag::unzigzag(n))));
        return true;
      case linktag::kUnsignedInt:
        if (n > UINT32_MAX) return false;
        *out = Value(Number::ofUnsignedInt(static_cast<uint32_t>(n)));
        return true;
      case linktag::kLongLong:
        *out = Value(Number::ofLongLong(linktag::unzigzag(n)));
        return true;
      case linktag::kUnsignedLongLong: *out = Value(Number::ofUnsignedLongLong(n)); return true;
      case linktag::kBool:
        if (n > 1) return false;
        *out = Value(Number::ofBool(n == 1));
        return true;
      case linktag::kDictionary: return readDictionary(bytes, depth, out);
      case linktag::kArray: {
        Array array;
        CanonicalReader items(bytes);
        while (!items.done()) {
          if (!items.field(&tag, &body) || tag != linktag::kItem) return false;
          array.items.emplace_back();
          if (!readValue(body, depth + 1, &array.items.back())) return false;
        }
        *out = Value(std::move(array));
        return true;
      }
      default: return false;
    }
  }

  static bool readDictionary(std::string_view body, int depth, Value* out) {
    static constexpr size_t kScannedKeys = 32;
    Dictionary dict;
    std::unordered_set<std::string> keys;  // only for large dictionaries
    CanonicalReader entries(body);
    uint64_t tag = 0;
    std::string_view entry;
    while (!entries.done()) {
      if (!entries.field(&tag, &entry) || tag != linktag::kEntry) return false;
      CanonicalReader in(entry);
      std::string_view key;
      std::string_view value;
      if (!in.field(&tag, &key)) return false;
      if (tag == linktag::kKey) {
        if (key.empty() || !in.field(&tag, &value)) return false;  // an empty key is left out
      } else {
        value = key;
        key = {};
      }
      if (tag != linktag::kEntryValue || !in.done() || !isValidUtf8(key)) return false;
      // A record's dozen keys are scanned faster than hashed.
      if (dict.entries.size() < kScannedKeys) {
        for (const DictEntry& e : dict.entries) {
          if (e.key == key) return false;
        }
      } else {
        if (keys.empty()) {
          for (const DictEntry& e : dict.entries) keys.insert(e.key);
        }
        if (!keys.insert(std::string(key)).second) return false;
      }
      dict.entries.push_back(DictEntry{std::string(key), Value()});
      if (!readValue(value, depth + 1, &dict.entries.back().value)) return false;
    }
    *out = Value(std::move(dict));
    return true;
  }

  const char* at_;
  const char* end_;
};

}  // namespace tarvex::itx::xpc::linux_platform
