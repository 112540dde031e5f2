// The Linux extension's service side: its command line, the status line
// systemd shows, and the metrics file.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "metrics/textfile.h"
#include "service/servicestatus.h"
#include "setup/entryoptions.h"

namespace tarvex::itx::rtn::linux_platform {
namespace {

EntryRequest parse(std::vector<std::string> args) {
  args.insert(args.begin(), "lumo-es");
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  return parseEntryOptions(static_cast<int>(argv.size()), argv.data());
}

TEST(EntryOptions, OnlyABareRunHelpOrVersionGetPastTheCommandLine) {
  EXPECT_FALSE(parse({}).exitStatus);
  const EntryRequest help = parse({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_EQ(help.text.rfind("Usage: lumo-es", 0), 0u);
  EXPECT_EQ(parse({"--version"}).exitStatus, 0);
  EXPECT_EQ(parse({"--version"}).text.rfind("lumo-es ", 0), 0u);
  // getopt would take abbreviations and "=values"; a monitor of the whole
  // machine must not start on a typo.
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"--hel"},
                                             {"--help=1"},
                                             {"-h"},
                                             {"--"},
                                             {""},
                                             {"run"},
                                             {"--help", "--version"},
                                             {"--version", "x"}}) {
    const EntryRequest request = parse(args);
    EXPECT_EQ(request.exitStatus, 2) << args.front();
    EXPECT_NE(request.text.find("\nUsage: lumo-es"), std::string::npos) << request.text;
  }
  EXPECT_NE(parse({"--help", "--bogus"}).text.find("'--bogus'"), std::string::npos);
  EXPECT_NE(parse({"x"}).text.find("unexpected argument 'x'"), std::string::npos);
}

TEST(ServiceStatusLine, FollowsTheModeAndTiersTheLogAnnounces) {
  ServiceStatus status;
  EXPECT_EQ(status.line().rfind("mode starting; tiers none yet; link down (", 0), 0u);
  for (const char* line :
       {"[MAC_ESCLIENT main@121] Info:  Lumo is installed. ES sysext will start in normal mode.",
        "[LINUX_ES addProcessTier@47] Warn:  Process events: BPF tier unavailable (EPERM); "
        "trying the process connector.",
        "[LINUX_ES addProcessTier@52] Info:  Process events: netlink process connector tier "
        "(fallback; enrichment from /proc).",
        "[LINUX_ES open@180] Info:  File events: fanotify FID group with filesystem marks on 3 "
        "file systems.",
        "[LINUX_ES open@168] Info:  File events: fanotify group closed (nothing subscribed).",
        "[MAC_ESCLIENT x@91] Info:  Sleep procedure finished"}) {
    status.noteLogLine(line);
  }
  EXPECT_EQ(status.line().rfind("mode sleep; tiers files=off process=connector; link ", 0), 0u)
      << status.line();
}

std::string contents(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(MetricsFile, PrometheusTextNamesEachMetricOnceWithItsKind) {
  const std::vector<CounterReading> readings = {
      {"lumo_es_events_delivered_total", "Delivered,\nby type \\ kind", "type=\"file\"", 5},
      {"lumo_es_link_up", "1 while up", "", 1},
      {"lumo_es_events_delivered_total", "Delivered,\nby type \\ kind", "type=\"exec\"", 7},
  };
  EXPECT_EQ(prometheusText(readings),
            "# HELP lumo_es_events_delivered_total Delivered,\\nby type \\\\ kind\n"
            "# TYPE lumo_es_events_delivered_total counter\n"
            "lumo_es_events_delivered_total{type=\"file\"} 5\n"
            "lumo_es_events_delivered_total{type=\"exec\"} 7\n"
            "# HELP lumo_es_link_up 1 while up\n"
            "# TYPE lumo_es_link_up gauge\n"
            "lumo_es_link_up 1\n");
}

// The exporter may read at any moment: it must see one whole file or the
// other, and nothing but *.prom files may be left in its folder.
TEST(MetricsFile, IsReplacedWholeAndLeavesNoTemporaryFile) {
  char pattern[] = "/tmp/lumo-metrics-test-XXXXXX";
  const std::string dir = mkdtemp(pattern);
  const std::string path = dir + "/lumo-es.prom";
  const std::string small = "a 1\n";
  const std::string large = std::string(256 * 1024, '#') + "\nb 2\n";
  std::string error;
  ASSERT_TRUE(replaceFile(path, small, &error)) << error;
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  std::thread reader([&] {
    while (!done.load()) {
      const std::string seen = contents(path);
      if (seen != small && seen != large) torn.fetch_add(1);
    }
  });
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(replaceFile(path, i % 2 ? small : large, &error));
  done.store(true);
  reader.join();
  EXPECT_EQ(torn.load(), 0);
  EXPECT_EQ(std::filesystem::status(path).permissions(),
            std::filesystem::perms(0644));
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names.push_back(entry.path().filename());
  }
  EXPECT_EQ(names, std::vector<std::string>{"lumo-es.prom"});

  EXPECT_FALSE(replaceFile(dir + "/missing/lumo-es.prom", small, &error));
  EXPECT_NE(error.find("missing"), std::string::npos);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace tarvex::itx::rtn::linux_platform
