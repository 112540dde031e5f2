#include "log/log.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/capture_sink.h"

LUMO_LOG_MODULE("MAC_TESTLOG")

namespace {

using lumo::testing::CaptureSink;
using tarvex::itx::log::LogType;

std::string render(const char* fmt, std::initializer_list<tarvex::itx::log::LogArg> args) {
  return tarvex::itx::log::renderOsLog(fmt, args.begin(), args.size());
}

TEST(LogFormat, RendersUnifiedLogDirectivesAndNeverReadsPastTheArguments) {
  EXPECT_EQ(render("mode %{bool}d and %{bool}d", {true, 0}), "mode true and false");
  EXPECT_EQ(render("%u %d %llu %x %%", {4294967295u, -3, 18446744073709551615ull, 255}),
            "4294967295 -3 18446744073709551615 ff %");
  // %d takes an int: a 64-bit value is cut to 32 bits as printf would.
  EXPECT_EQ(render("%d", {static_cast<long long>(0x1'0000'0005)}), "5");
  EXPECT_EQ(render("%{public}s|%s|%{private}s", {nullptr, "x", "y"}), "(null)|x|y");
  EXPECT_EQ(render("a %d b %{public}s c", {}), "a 0 b (null) c");
  EXPECT_EQ(render("tail %", {}), "tail %");
  EXPECT_EQ(render("open %{public", {}), "open %{public");
}

void tracedThatThrows() {
  LOG_TRACE_SCOPE();
  throw std::runtime_error("boom");
}

int evaluations = 0;
const char* counted() {
  ++evaluations;
  return "x";
}

TEST(LogMacros, LinesCarryPrefixLevelWordAndModuleObjects) {
  CaptureSink sink;
  LOG_INFO("hello %{public}s\n", "there");
  LOG_WARN("careful\n");
  LOG_ERROR("bad %d\n", 7);
  const char* policy = nullptr;
  LOG_ASSERT(policy, "Missing argument.\n");
  LOG_ASSERT(1 + 1 == 2, "never\n");  // only a false condition logs, and nothing aborts
  EXPECT_THROW(tracedThatThrows(), std::runtime_error);
  auto lines = sink.lines();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0].subsystem + " " + lines[0].category, "com.tarvex.lumo MAC_TESTLOG");
  EXPECT_EQ(lines[0].type, LogType::Info);
  EXPECT_TRUE(lines[0].text.starts_with("[TestBody log_test.cpp@"));
  EXPECT_TRUE(lines[0].text.ends_with("] Info:  hello there\n"));
  // Warn goes out with the info type; Error has a single blank.
  EXPECT_EQ(lines[1].type, LogType::Info);
  EXPECT_TRUE(lines[1].text.ends_with("] Warn:  careful\n"));
  EXPECT_EQ(lines[2].type, LogType::Error);
  EXPECT_TRUE(lines[2].text.ends_with("] Error: bad 7\n"));
  EXPECT_EQ(lines[3].type, LogType::Error);
  EXPECT_TRUE(lines[3].text.ends_with("] Assert:  Assertion failed: [ policy]Missing argument.\n"));
  // The tracer logs entry and exit, also when unwinding, as debug lines.
  EXPECT_EQ(lines[4].text, "Func:   Entering: tracedThatThrows \n ");
  EXPECT_EQ(lines[5].text, "Func:   Exiting: tracedThatThrows \n ");
  EXPECT_EQ(lines[5].subsystem, "com.tarvex.lumo.trace");
  EXPECT_EQ(lines[5].type, LogType::Debug);
}

TEST(LogMacros, DisabledDebugBuildsNoArguments) {
  CaptureSink sink(/*debug=*/false);
  LOG_DEBUG("%{public}s", counted());
  LOG_TRACE("%{public}s", counted());
  LOG_FUNC("%{public}s", counted());
  { LOG_TRACE_SCOPE(); }
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(sink.lines().empty());
  LOG_INFO("%{public}s", counted());
  EXPECT_EQ(evaluations, 1);
}

}  // namespace
