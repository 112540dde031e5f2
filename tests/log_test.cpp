// The log: unified-log rendering, the level macros, and Linux's stderr
// lines, one whole line per write.
#include "log/log.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "log/stderrsink.h"
#include "support/capture_sink.h"

LUMO_LOG_MODULE("MAC_TESTLOG")

namespace {

using lumo::testing::CaptureSink;
using namespace std::string_view_literals;
using namespace tarvex::itx::log;
using namespace tarvex::itx::log::linux_platform;

constexpr LogObject kLog{"com.tarvex.test", "sink"};

std::string render(const char* fmt, std::initializer_list<LogArg> args) {
  return renderOsLog(fmt, args.begin(), args.size());
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

TEST(LogMacros, LinesCarryOriginLevelAndLogObjectAndDisabledDebugBuildsNoArguments) {
  int evaluations = 0;
  const auto counted = [&] { return ++evaluations, "x"; };
  {
    CaptureSink quiet(/*debug=*/false);
    LOG_DEBUG("%{public}s", counted());
    LOG_TRACE("%{public}s", counted());
    LOG_FUNC("%{public}s", counted());
    { LOG_TRACE_SCOPE(); }
    EXPECT_EQ(evaluations, 0);
    EXPECT_TRUE(quiet.lines().empty());
  }
  CaptureSink sink;
  LOG_INFO("hello %{public}s\n", counted());
  LOG_WARN("careful\n");
  LOG_ERROR("bad %d\n", 7);
  LOG_ASSERT(1 + 1 == 2, "never\n");  // only a false condition logs, and nothing aborts
  EXPECT_THROW(tracedThatThrows(), std::runtime_error);
  const auto lines = sink.lines();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0].subsystem + " " + lines[0].category, "com.tarvex.lumo MAC_TESTLOG");
  EXPECT_TRUE(lines[0].text.starts_with("[TestBody log_test.cpp@"));
  EXPECT_TRUE(lines[0].text.ends_with("] Info:  hello x\n"));
  // Warn goes out with the info type.
  EXPECT_EQ((std::vector{lines[0].type, lines[1].type, lines[2].type}),
            (std::vector{LogType::Info, LogType::Info, LogType::Error}));
  // The tracer logs entry and exit, also when unwinding, as debug lines.
  EXPECT_EQ(lines[3].text, "Func:   Entering: tracedThatThrows \n ");
  EXPECT_EQ(lines[4].text, "Func:   Exiting: tracedThatThrows \n ");
  EXPECT_EQ(lines[4].subsystem, "com.tarvex.lumo.trace");
  EXPECT_EQ(lines[4].type, LogType::Debug);
}

TEST(LinuxStderrSink, WritesEachLineWholeWithOneTrailingNewline) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* file = open_memstream(&buffer, &size);
  StderrSink sink{file};
  sink.write(kLog, LogType::Error, "ends with newline\n");
  sink.write(kLog, LogType::Debug, "");
  sink.write(kLog, LogType::Default, "100% {public}s\t\nnul\0inside"sv);
  EXPECT_EQ(std::string(buffer, size), "ends with newline\n\n100% {public}s\t\nnul\0inside\n"sv);

  // Lines from many threads, long enough to need more than one chunk if a
  // line were split, do not interleave.
  rewind(file);
  std::vector<std::thread> writers;
  for (char c : {'a', 'b', 'c', 'd'}) {
    writers.emplace_back([&sink, c] {
      for (int i = 0; i < 200; ++i) sink.write(kLog, LogType::Info, std::string(700, c));
    });
  }
  for (auto& writer : writers) writer.join();
  std::istringstream all(std::string(buffer, size));
  int lines = 0;
  for (std::string line; std::getline(all, line); ++lines) {
    ASSERT_EQ(line, std::string(700, line[0])) << "line " << lines;
  }
  EXPECT_EQ(lines, 800);
  fclose(file);
  free(buffer);
}

}  // namespace
