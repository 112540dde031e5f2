// Where log lines go on Linux: the journal when its socket is there,
// otherwise stderr, one whole line per write.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "log/journalsink.h"
#include "log/stderrsink.h"
#include "log/systemsink.h"

namespace tarvex::itx::log::linux_platform {
namespace {

using namespace std::string_view_literals;

constexpr LogObject kLog{"com.tarvex.test", "sink"};

TEST(LinuxStderrSink, WritesEachLineWholeWithOneTrailingNewline) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* file = open_memstream(&buffer, &size);
  StderrSink sink{file};
  sink.write(kLog, LogType::Error, "ends with newline\n");
  sink.write(kLog, LogType::Debug, "");
  sink.write(kLog, LogType::Default, "100% {public}s\t\nnul\0inside"sv);
  fflush(file);
  EXPECT_EQ(std::string(buffer, size), "ends with newline\n\n100% {public}s\t\nnul\0inside\n"sv);

  // Lines from many threads, long enough to need more than one chunk if a
  // line were split, do not interleave.
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  rewind(file);
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&sink, t] {
      const std::string line(700, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) sink.write(kLog, LogType::Info, line);
    });
  }
  for (auto& writer : writers) writer.join();
  fflush(file);
  const std::string all(buffer, size);
  size_t start = 0;
  int lines = 0;
  for (size_t end; (end = all.find('\n', start)) != std::string::npos; start = end + 1, ++lines) {
    const std::string_view line(all.data() + start, end - start);
    ASSERT_EQ(line.size(), 700u) << "line " << lines;
    EXPECT_EQ(line.find_first_not_of(line[0]), std::string_view::npos) << "line " << lines;
  }
  EXPECT_EQ(start, all.size());
  EXPECT_EQ(lines, kThreads * kLines);
  fclose(file);
  free(buffer);
}

TEST(LinuxSystemSink, PicksTheJournalOnlyWhenItsSocketExists) {
  char dir[] = "/tmp/lumo-sink-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string socketPath = std::string(dir) + "/socket";
  const std::string filePath = std::string(dir) + "/file";
  EXPECT_NE(dynamic_cast<StderrSink*>(makeSystemSink(socketPath.c_str()).get()), nullptr);
  fclose(fopen(filePath.c_str(), "w"));
  EXPECT_NE(dynamic_cast<StderrSink*>(makeSystemSink(filePath.c_str()).get()), nullptr);

  const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, socketPath.c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  EXPECT_NE(dynamic_cast<JournalSink*>(makeSystemSink(socketPath.c_str()).get()), nullptr);
  close(fd);
  std::filesystem::remove_all(dir);
  // Writing must be harmless whether or not a journal is listening.
  JournalSink().write(kLog, LogType::Debug, "lumo-es journal sink test\n");
  JournalSink().write(LogObject{nullptr, nullptr}, LogType::Fault, "");
}

}  // namespace
}  // namespace tarvex::itx::log::linux_platform
