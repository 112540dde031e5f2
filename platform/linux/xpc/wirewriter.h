#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "xpc/framecodec.h"
#include "xpc/wireformat.h"

namespace tarvex::itx::xpc::linux_platform {

// A frame's lumo.link.Frame bytes, written straight from its values and
// byte for byte as the generated serializer writes them: building those
// messages first was most of what encoding a record cost, and encoding was
// some 40% of a notification worker's time.
// Fields go out by number; a oneof member or a set optional field always,
// any other scalar only when it is not zero or empty.
//
// Two passes: measure() notes the body size of every dictionary and array,
// in the order write() comes to them, so that nothing is measured twice
// however deep the values nest; write() then fills exactly that many bytes.
// One writer per frame.
// All in this header: the fuzz targets build the codec from a list of its
// sources, which a .cpp of its own would be missing from.
class FrameWriter {
 public:
  // The frame's size; nullopt if a value nests deeper than kMaxValueDepth.
  std::optional<size_t> measure(const Frame& frame) {
    body_ = 0;
    if (const CallFrame* call = std::get_if<CallFrame>(&frame)) {
      if (!call->selector.empty()) body_ += fieldSize(call->selector.size());
      for (const Value& arg : call->args) {
        size_t argSize = 0;
        if (!measure(arg, 1, &argSize)) return std::nullopt;
        body_ += fieldSize(argSize);
      }
      if (call->replyId) body_ += 1 + varintSize(*call->replyId);
    } else {
      const ReplyFrame& reply = std::get<ReplyFrame>(frame);
      if (reply.replyId) body_ += 1 + varintSize(reply.replyId);
      if (reply.value) body_ += 2;
    }
    return fieldSize(body_);
  }

  // Into `out`, which has room for exactly the measured size.
  void write(const Frame& frame, char* out) {
    if (const CallFrame* call = std::get_if<CallFrame>(&frame)) {
      out = putVarint(out, linktag::kCall, body_);
      if (!call->selector.empty()) out = putBytes(out, linktag::kSelector, call->selector);
      for (const Value& arg : call->args) out = putValue(out, linktag::kArg, arg);
      if (call->replyId) putVarint(out, linktag::kCallId, *call->replyId);
    } else {
      const ReplyFrame& reply = std::get<ReplyFrame>(frame);
      out = putVarint(out, linktag::kReply, body_);
      if (reply.replyId) out = putVarint(out, linktag::kReplyId, reply.replyId);
      if (reply.value) putVarint(out, linktag::kReplyValue, 1);
    }
  }

  // A one-way call whose only argument is a dictionary: the bytes measure()
  // and write() give for CallFrame{selector, {Value(record)}}, without
  // copying the record into a frame first.
  std::optional<size_t> measureRecordCall(std::string_view selector, const Dictionary& record) {
    body_ = selector.empty() ? 0 : fieldSize(selector.size());
    size_t argSize = 0;
    if (!measure(record, 1, &argSize)) return std::nullopt;
    body_ += fieldSize(argSize);
    return fieldSize(body_);
  }
  void writeRecordCall(std::string_view selector, const Dictionary& record, char* out) {
    out = putVarint(out, linktag::kCall, body_);
    if (!selector.empty()) out = putBytes(out, linktag::kSelector, selector);
    out = putVarint(out, linktag::kArg, fieldSize(bodyAt(next_)));
    putDictionaryBody(out, record);
  }

 private:
  static size_t varintSize(uint64_t value) { return (64 - __builtin_clzll(value | 1) + 6) / 7; }
  // A length-delimited field's: tag, length, then the bytes.
  static size_t fieldSize(size_t length) { return 1 + varintSize(length) + length; }
  static size_t entrySize(std::string_view key, size_t valueSize) {
    return (key.empty() ? 0 : fieldSize(key.size())) + fieldSize(valueSize);
  }

  // A number's tag and varint.
  static std::pair<char, uint64_t> numberField(const Number& n) {
    switch (n.kind) {
      case NumberKind::Int: return {linktag::kInt, linktag::zigzag(n.intValue())};
      case NumberKind::UnsignedInt: return {linktag::kUnsignedInt, n.unsignedIntValue()};
      case NumberKind::LongLong: return {linktag::kLongLong, linktag::zigzag(n.asSigned())};
      case NumberKind::UnsignedLongLong: return {linktag::kUnsignedLongLong, n.bits};
      case NumberKind::Bool: break;
    }
    return {linktag::kBool, n.bits != 0};
  }

  // A Value message that holds no other.
  static size_t scalarSize(const Value& v) {
    if (const std::string* s = v.string()) return fieldSize(s->size());
    if (const Number* n = v.number()) return 1 + varintSize(numberField(*n).second);
    return 2;  // nil: an empty Nil
  }

  bool measure(const Value& v, int depth, size_t* size) {
    if (const Dictionary* d = v.dictionary()) return measure(*d, depth, size);
    if (depth > kMaxValueDepth) return false;
    const Array* a = v.array();
    if (!a) {
      *size = scalarSize(v);
      return true;
    }
    const size_t slot = noteBody();
    size_t body = 0;
    size_t item = 0;
    for (const Value& i : a->items) {
      if (!measure(i, depth + 1, &item)) return false;
      body += fieldSize(item);
    }
    bodyAt(slot) = body;
    *size = fieldSize(body);
    return true;
  }
  // A dictionary, as a Value holding it measures.
  bool measure(const Dictionary& d, int depth, size_t* size) {
    if (depth > kMaxValueDepth) return false;
    const size_t slot = noteBody();
    size_t body = 0;
    size_t item = 0;
    for (const DictEntry& e : d.entries) {
      if (!measure(e.value, depth + 1, &item)) return false;
      body += fieldSize(entrySize(e.key, item));
    }
    bodyAt(slot) = body;
    *size = fieldSize(body);
    return true;
  }

  // Second pass: a dictionary's or array's body is the next one noted.
  size_t sizeOf(const Value& v) {
    return v.dictionary() || v.array() ? fieldSize(bodyAt(next_)) : scalarSize(v);
  }

  // The write position goes from call to call rather than living in a
  // member: any byte stored through a char* might be this object's, and the
  // compiler would reload and store the member around every one.
  char* putValue(char* out, char fieldTag, const Value& v) {
    out = putVarint(out, fieldTag, sizeOf(v));
    if (v.isNil()) return putVarint(out, linktag::kNil, 0);
    if (const std::string* s = v.string()) return putBytes(out, linktag::kString, *s);
    if (const Number* n = v.number()) {
      const auto [numberTag, bits] = numberField(*n);
      return putVarint(out, numberTag, bits);
    }
    if (const Dictionary* d = v.dictionary()) return putDictionaryBody(out, *d);
    out = putVarint(out, linktag::kArray, bodyAt(next_++));
    for (const Value& item : v.array()->items) out = putValue(out, linktag::kItem, item);
    return out;
  }
  char* putDictionaryBody(char* out, const Dictionary& d) {
    out = putVarint(out, linktag::kDictionary, bodyAt(next_++));
    for (const DictEntry& e : d.entries) {
      out = putVarint(out, linktag::kEntry, entrySize(e.key, sizeOf(e.value)));
      if (!e.key.empty()) out = putBytes(out, linktag::kKey, e.key);
      out = putValue(out, linktag::kEntryValue, e.value);
    }
    return out;
  }

  static char* putVarint(char* out, char fieldTag, uint64_t value) {
    *out++ = fieldTag;
    for (; value >= 0x80; value >>= 7) *out++ = static_cast<char>((value & 0x7f) | 0x80);
    *out++ = static_cast<char>(value);
    return out;
  }
  static char* putBytes(char* out, char fieldTag, std::string_view bytes) {
    out = putVarint(out, fieldTag, bytes.size());
    return std::copy(bytes.begin(), bytes.end(), out);
  }

  // Dictionaries' and arrays' body sizes, in writing order. A record holds
  // a handful, kept in here: a vector alone cost an allocation per frame, a
  // fifth of the encoding.
  size_t noteBody() {
    if (noted_ >= kInlineBodies) spilled_.push_back(0);
    return noted_++;
  }
  size_t& bodyAt(size_t i) {
    return i < kInlineBodies ? inline_[i] : spilled_[i - kInlineBodies];
  }
  static constexpr size_t kInlineBodies = 16;
  size_t inline_[kInlineBodies];
  std::vector<size_t> spilled_;
  size_t noted_ = 0;
  size_t next_ = 0;  // in the second pass
  size_t body_ = 0;  // the call's or the reply's
};

}  // namespace tarvex::itx::xpc::linux_platform
