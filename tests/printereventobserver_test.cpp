#include "observers/printereventobserver.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "support/fake_es.h"
#include "support/message_builder.h"
#include "support/value_text.h"

namespace {

namespace fs = std::filesystem;
using endpointsecurity::PrinterEventObserver;
using lumo::testing::MessageBuilder;
using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

constexpr const char* kSocket = "/run/cups/cups.sock";
const std::string kJob1 = "/var/spool/cups/d00012-001";
const std::string kJob2 = "/var/spool/cups/d00013-001";
const std::string kUnknownJob = "/var/spool/cups/d00099-001";

// Programs in a scratch directory: filter/ and backend/ exist, monitor/ not.
class PrinterEventObserverTest : public ::testing::Test {
 protected:
  PrinterEventObserverTest() {
    fs::create_directories(root / "filter" / "sub");
    fs::create_directories(root / "backend");
    addProgram("filter/pdftops");
    addProgram("backend/usb");
    fs::create_symlink(root / "filter" / "pdftops", root / "filter" / "link");
    es.newClient(&client, [this](es_client_t* c, const es_message_t* m) {
      m->action_type == ES_ACTION_TYPE_AUTH ? void(answered = observer.onAuth(m, c))
                                            : observer.onNotify(m, c);
    });
  }
  ~PrinterEventObserverTest() override { fs::remove_all(root); }

  std::string dir(const char* name) const { return (root / name).string() + "/"; }
  std::string program(const char* name) const { return (root / name).string(); }
  void addProgram(const char* name) { std::ofstream(root / name) << "#!/bin/sh\n"; }

  // Kept to the end: the fake keys answers by message address.
  const es_message_t* deliver(MessageBuilder& builder) {
    kept.push_back(builder.build());
    es.deliver(kept.back()->get());
    return kept.back()->get();
  }
  void connect(const lumo::testing::ProcessSpec& process,
               const std::optional<std::string>& path = kSocket) {
    deliver(MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT)
                .process(process)
                .uipcConnect(path));
  }
  void spool(const std::string& name, const std::optional<std::string>& dir = "/var/spool/cups") {
    deliver(MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_RENAME)
                .renameToNewPath({"/var/spool/cups/tmp/x"}, dir, name));
  }
  // True when the observer denied the run, uncached; false when it left it.
  bool exec(const std::string& path, std::vector<std::string> args) {
    args.insert(args.begin(), path);
    const auto answers = es.answers(deliver(
        MessageBuilder::auth(ES_EVENT_TYPE_AUTH_EXEC).exec({.path = path}, std::move(args))));
    EXPECT_EQ(answered, !answers.empty());
    for (const auto& a : answers) {
      EXPECT_TRUE(a.type == ES_RESULT_TYPE_AUTH && a.result == ES_AUTH_RESULT_DENY && !a.cache);
    }
    return answers.size() == 1;
  }

  lumo::testing::CaptureSink sink;
  lumo::testing::FakeDaemonLink link;
  lumo::testing::FakeEndpointSecurity es;
  const fs::path root = [] {
    std::string pattern = (fs::temp_directory_path() / "lumo-cups-XXXXXX").string();
    return fs::path(mkdtemp(pattern.data()));
  }();
  std::vector<milliseconds> sleeps;
  std::function<void(size_t)> onSleep;
  PrinterEventObserver observer{
      es,
      {kSocket, "/var/spool/cups/d", {dir("filter"), dir("backend"), dir("monitor")}},
      [this](milliseconds wait) {
        sleeps.push_back(wait);
        if (onSleep) onSleep(sleeps.size());
      }};
  es_client_t* client = nullptr;
  bool answered = false;
  std::vector<std::unique_ptr<lumo::testing::TestMessage>> kept;
};

TEST_F(PrinterEventObserverTest, EachSpooledFileIsReportedOnceWithTheLastSubmitter) {
  connect({.pid = 500});
  spool("d00012-001");
  spool("d00012-001");
  // Platform print utilities don't submit jobs; look-alikes do.
  connect({.pid = 600, .signingId = "com.apple.printuitool", .platform = true});
  spool("d00013-001");
  connect({.pid = 601, .signingId = "com.apple.printuitool"});
  // The socket must match exactly; a null path is logged.
  connect({.pid = 700}, std::string(kSocket) + "2");
  connect({.pid = 701}, "/run/cups/cups");
  connect({.pid = 702}, std::nullopt);
  deliver(MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_RENAME)
              .renameToExisting({"/var/spool/cups/tmp/y"}, {"/var/spool/cups/d00014-001"}));
  spool("c00015-001");
  spool("d00015-001", "/tmp");
  spool("d00016-001", std::nullopt);
  EXPECT_EQ(sink.count("] Assert:  Assertion failed: [ name]Unexpected null event data field"), 1u);
  EXPECT_EQ(sink.count("Assertion failed: [ newPath]Unexpected null event data field"), 1u);
  Texts reports;
  for (const auto& r : link.daemon().received("handlePrinterEvent:")) {
    reports.push_back(lumo::testing::valueText(r.event));
  }
  EXPECT_EQ(reports,
            (Texts{"{filename='" + kJob1 + "';pid=u500;}", "{filename='" + kJob2 + "';pid=u500;}",
                   "{filename='/var/spool/cups/d00014-001';pid=u601;}"}));
}

TEST_F(PrinterEventObserverTest, ProgramsOfBlockedPendingOrUnknownJobsAreHeldOrDenied) {
  // Only regular files of the program directories count, once listed.
  const std::string pdftops = program("filter/pdftops");
  EXPECT_FALSE(exec(pdftops, {kUnknownJob}));
  EXPECT_TRUE(observer.init());
  EXPECT_TRUE(sink.contains("] Error: failed to enumerate cups filter dir: " + dir("monitor")));
  EXPECT_TRUE(exec(program("backend/usb"), {kUnknownJob}));
  EXPECT_FALSE(exec(program("filter/link"), {kUnknownJob}));
  EXPECT_FALSE(exec("/usr/bin/lp", {kUnknownJob}));
  addProgram("filter/rastertopwg");  // a second init only adds
  EXPECT_TRUE(observer.init());
  EXPECT_TRUE(exec(program("filter/rastertopwg"), {kUnknownJob}) && exec(pdftops, {kUnknownJob}));

  spool("d00012-001");
  spool("d00013-001");
  observer.setPrinterEventVerdict(kJob1, false);
  observer.setPrinterEventVerdict(kJob2, true);
  // The usual filter line: job id, user, title, copies, options, file.
  EXPECT_TRUE(exec(pdftops, {"12", "user", "title", "1", "", kJob1}));
  EXPECT_FALSE(exec(pdftops, {"12", "user", "title", "1", "", kJob2}));
  EXPECT_TRUE(exec(pdftops, {kJob2, kJob1}));
  EXPECT_FALSE(exec(pdftops, {"/tmp/d00012-001"}));  // no data file: never denied
  EXPECT_TRUE(sleeps.empty());

  // Pending: six waits of 200 ms, then left to the client even if a denial
  // arrives meanwhile; the denial applies to the next run.
  spool("d00014-001");
  const std::string pending = "/var/spool/cups/d00014-001";
  onSleep = [&](size_t n) {
    if (n == 3) observer.setPrinterEventVerdict(pending, false);
  };
  EXPECT_FALSE(exec(pdftops, {pending}));
  EXPECT_EQ(sleeps, std::vector<milliseconds>(6, milliseconds(200)));
  EXPECT_TRUE(exec(pdftops, {pending}));
  onSleep = nullptr;
  spool("d00015-001");
  spool("d00016-001");
  EXPECT_FALSE(exec(pdftops, {"/var/spool/cups/d00015-001", "/var/spool/cups/d00016-001"}));
  EXPECT_EQ(sleeps.size(), 18u);
}

TEST_F(PrinterEventObserverTest, VerdictsAndReportsProceedWhileAFilterWaits) {
  observer.init();
  spool("d00012-001");
  std::promise<void> waiting;
  std::promise<void> release;
  onSleep = [&, released = release.get_future().share()](size_t n) {
    if (n != 1) return;
    waiting.set_value();
    released.wait();
  };
  // Built here: the fixture's helpers are not for two threads.
  auto filter = MessageBuilder::auth(ES_EVENT_TYPE_AUTH_EXEC)
                    .exec({.path = program("filter/pdftops")}, {"pdftops", kJob1})
                    .build();
  std::thread spooler([&] { es.deliver(filter->get()); });
  waiting.get_future().wait();
  // Neither may need a lock the waiting filter holds.
  observer.setPrinterEventVerdict(kJob1, false);
  connect({.pid = 900});
  spool("d00013-001");
  release.set_value();
  spooler.join();

  EXPECT_TRUE(es.answers(filter->get()).empty());
  EXPECT_EQ(sleeps.size(), 6u);
  EXPECT_EQ(lumo::testing::valueText(link.daemon().received("handlePrinterEvent:").back().event),
            "{filename='" + kJob2 + "';pid=u900;}");
}

}  // namespace
