#include <gtest/gtest.h>

#include <string>

#include "daemonlink.pb.h"
#include "xpc/framecodec.h"

namespace tarvex::itx::xpc::linux_platform {
namespace {

std::string wireBytes(const ::lumo::link::Frame& frame) {
  std::string bytes;
  frame.SerializeToString(&bytes);
  return bytes;
}

std::string decodeError(const std::string& bytes) {
  std::string error;
  EXPECT_FALSE(decodeFrame(bytes, &error));
  return error;
}

Value nested(int depth) {
  Value v("leaf");
  for (int i = 1; i < depth; ++i) v = Value(Array{{v}});
  return v;
}

TEST(LinuxXpcFrameCodec, RoundTripsEveryValueKindAtItsEdges) {
  const CallFrame call{
      "handleFileEvent:",
      {Value(Dictionary{{
           {"s", Value("ü/\n")},
           {"i", Value(Number::ofInt(INT32_MIN))},
           {"u", Value(Number::ofUnsignedInt(UINT32_MAX))},
           {"ll", Value(Number::ofLongLong(INT64_MIN))},
           {"ull", Value(Number::ofUnsignedLongLong(UINT64_MAX))},
           {"b", Value(Number::ofBool(false))},
           {"nil", Value()},
           {"empty", Value(Array{})},
       }}),
       nested(kMaxValueDepth)},
      42};
  std::string error;
  const std::optional<std::string> bytes = encodeFrame(call, &error);
  ASSERT_TRUE(bytes) << error;
  const std::optional<Frame> back = decodeFrame(*bytes, &error);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(std::get<CallFrame>(*back), call);

  const std::optional<std::string> reply = encodeFrame(ReplyFrame{UINT64_MAX, true}, &error);
  ASSERT_TRUE(reply);
  EXPECT_EQ(std::get<ReplyFrame>(*decodeFrame(*reply, &error)), (ReplyFrame{UINT64_MAX, true}));
}

TEST(LinuxXpcFrameCodec, EncoderRefusesWhatThePeerWouldReject) {
  std::string error;
  EXPECT_FALSE(encodeFrame(CallFrame{"x", {nested(kMaxValueDepth + 1)}, std::nullopt}, &error));
  EXPECT_EQ(error, "values nested deeper than 32 levels");
  EXPECT_FALSE(encodeFrame(CallFrame{"x", {Value(std::string(100, 'a'))}, std::nullopt}, &error,
                           64));
  EXPECT_NE(error.find("exceeds the 64-byte limit"), std::string::npos);
}

TEST(LinuxXpcFrameCodec, DecoderNamesWhatIsWrongWithAFrame) {
  ::lumo::link::Frame frame;
  auto* call = frame.mutable_call();
  call->set_selector("handleFileEvent:");
  auto* entries = call->add_args()->mutable_dictionary();
  entries->add_entries()->set_key("pid");
  entries->mutable_entries(0)->mutable_value()->set_unsigned_int(1);
  entries->add_entries()->set_key("pid");
  entries->mutable_entries(1)->mutable_value()->set_unsigned_int(2);
  EXPECT_EQ(decodeError(wireBytes(frame)),
            "argument 1 of \"handleFileEvent:\": dictionary key \"pid\" appears twice");

  entries->mutable_entries(1)->set_key("\xc3\x28");
  EXPECT_EQ(decodeError(wireBytes(frame)),
            "argument 1 of \"handleFileEvent:\": dictionary key is not valid UTF-8");

  entries->mutable_entries(1)->set_key("uid");
  entries->mutable_entries(1)->mutable_value()->set_string("\xed\xa0\x80");  // a surrogate
  EXPECT_EQ(decodeError(wireBytes(frame)),
            "argument 1 of \"handleFileEvent:\": string value is not valid UTF-8");

  entries->mutable_entries(1)->mutable_value()->clear_kind();
  EXPECT_EQ(decodeError(wireBytes(frame)),
            "argument 1 of \"handleFileEvent:\": value of no known kind");

  call->set_selector("\xff");
  EXPECT_EQ(decodeError(wireBytes(frame)), "selector is not valid UTF-8");

  EXPECT_EQ(decodeError(std::string(kMaxFrameBytes + 1, '\0')),
            "frame of 1048577 bytes exceeds the 1048576-byte limit");
}

}  // namespace
}  // namespace tarvex::itx::xpc::linux_platform
