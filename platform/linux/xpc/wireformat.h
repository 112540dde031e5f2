#pragma once

#include <cstdint>

// The pieces of proto/daemonlink.proto's wire form that the codec's own
// writer and reader share: each field's tag (its number and wire type, 0 a
// varint, 2 length-delimited; every one fits in a byte) and the zigzag of
// the signed numbers.
namespace tarvex::itx::xpc::linux_platform::linktag {

constexpr char tag(int field, int type) { return static_cast<char>(field << 3 | type); }

// Frame, and Pack.frames.
constexpr char kCall = tag(1, 2), kReply = tag(2, 2), kPack = tag(4, 2);
constexpr char kPackedFrame = tag(1, 2);
// Call and Reply.
constexpr char kSelector = tag(1, 2), kArg = tag(2, 2), kCallId = tag(3, 0);
constexpr char kReplyId = tag(1, 0), kReplyValue = tag(2, 0);
// Dictionary.entries, Array.items, DictEntry.
constexpr char kEntry = tag(1, 2), kItem = tag(1, 2);
constexpr char kKey = tag(1, 2), kEntryValue = tag(2, 2);
// Value, one of.
constexpr char kNil = tag(1, 2), kString = tag(2, 2), kInt = tag(3, 0), kUnsignedInt = tag(4, 0),
               kLongLong = tag(5, 0), kUnsignedLongLong = tag(6, 0), kBool = tag(7, 0),
               kDictionary = tag(8, 2), kArray = tag(9, 2);

// sint32 and sint64 alike: an int's zigzag fits the 32 bits sint32 takes.
constexpr uint64_t zigzag(int64_t v) {
  return (static_cast<uint64_t>(v) << 1) ^ static_cast<uint64_t>(v >> 63);
}
constexpr int64_t unzigzag(uint64_t n) {
  return static_cast<int64_t>(n >> 1) ^ -static_cast<int64_t>(n & 1);
}

}  // namespace tarvex::itx::xpc::linux_platform::linktag
