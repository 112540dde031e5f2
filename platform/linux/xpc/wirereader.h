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
    if (tag != kPackTag) {
      std::optional<Frame> frame = readFrame(tag, body);
      if (!frame) return std::nullopt;
      frames.push_back(std::move(*frame));
      return frames;
    }
    CanonicalReader pack(body);
    std::string_view inner;
    while (!pack.done()) {
      if (!pack.field(&tag, &inner) || tag != kPackedFrameTag) return std::nullopt;
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
  // Tags as proto/daemonlink.proto numbers the fields: number << 3 | type.
  static constexpr uint64_t kCallTag = 1 << 3 | 2, kReplyTag = 2 << 3 | 2, kPackTag = 4 << 3 | 2;
  static constexpr uint64_t kPackedFrameTag = 1 << 3 | 2;
  static constexpr uint64_t kSelectorTag = 1 << 3 | 2, kArgTag = 2 << 3 | 2, kCallIdTag = 3 << 3;
  static constexpr uint64_t kReplyIdTag = 1 << 3, kReplyValueTag = 2 << 3;
  static constexpr uint64_t kEntryTag = 1 << 3 | 2, kKeyTag = 1 << 3 | 2,
                            kEntryValueTag = 2 << 3 | 2;
  static constexpr uint64_t kNilTag = 1 << 3 | 2, kStringTag = 2 << 3 | 2,
                            kIntTag = 3 << 3, kUnsignedIntTag = 4 << 3, kLongLongTag = 5 << 3,
                            kUnsignedLongLongTag = 6 << 3, kBoolTag = 7 << 3,
                            kDictionaryTag = 8 << 3 | 2, kArrayTag = 9 << 3 | 2;

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
    if (tag == kReplyTag) {
      ReplyFrame reply;
      uint64_t last = 0;
      while (!in.done()) {
        if (!in.field(&field, &bytes, &number) || field <= last) return std::nullopt;
        last = field;
        if (field == kReplyIdTag) {
          reply.replyId = number;
        } else if (field == kReplyValueTag && number <= 1) {
          reply.value = number == 1;
        } else {
          return std::nullopt;
        }
      }
      return Frame(reply);
    }
    if (tag != kCallTag) return std::nullopt;
    CallFrame call;
    uint64_t last = 0;
    while (!in.done()) {
      if (!in.field(&field, &bytes, &number)) return std::nullopt;
      if (field < last || (field == last && field != kArgTag)) return std::nullopt;
      last = field;
      if (field == kSelectorTag) {
        if (!isValidUtf8(bytes)) return std::nullopt;
        call.selector.assign(bytes);
      } else if (field == kArgTag) {
        call.args.emplace_back();
        if (!readValue(bytes, 1, &call.args.back())) return std::nullopt;
      } else if (field == kCallIdTag) {
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
      case kNilTag: *out = Value(); return bytes.empty();
      case kStringTag:
        if (!isValidUtf8(bytes)) return false;
        *out = Value(std::string(bytes));
        return true;
      case kIntTag:
        if (n > UINT32_MAX) return false;
        *out = Value(Number::ofInt(static_cast<int32_t>((n >> 1) ^ (~(n & 1) + 1))));
        return true;
      case kUnsignedIntTag:
        if (n > UINT32_MAX) return false;
        *out = Value(Number::ofUnsignedInt(static_cast<uint32_t>(n)));
        return true;
      case kLongLongTag:
        *out = Value(Number::ofLongLong(static_cast<int64_t>((n >> 1) ^ (~(n & 1) + 1))));
        return true;
      case kUnsignedLongLongTag: *out = Value(Number::ofUnsignedLongLong(n)); return true;
      case kBoolTag:
        if (n > 1) return false;
        *out = Value(Number::ofBool(n == 1));
        return true;
      case kDictionaryTag: return readDictionary(bytes, depth, out);
      case kArrayTag: {
        Array array;
        CanonicalReader items(bytes);
        while (!items.done()) {
          if (!items.field(&tag, &body) || tag != kEntryTag) return false;
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
      if (!entries.field(&tag, &entry) || tag != kEntryTag) return false;
      CanonicalReader in(entry);
      std::string_view key;
      std::string_view value;
      if (!in.field(&tag, &key)) return false;
      if (tag == kKeyTag) {
        if (key.empty() || !in.field(&tag, &value)) return false;  // an empty key is left out
      } else {
        value = key;
        key = {};
      }
      if (tag != kEntryValueTag || !in.done() || !isValidUtf8(key)) return false;
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
