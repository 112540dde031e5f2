// The open scope on the real kernel: opens are heard only on the file
// systems under the volumes it names, a volume mounted after it was named
// included, while every other file event is heard everywhere.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "linux_es/realfacility.h"

namespace {

class OpenScope : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const std::string& volume : mounted) umount2(volume.c_str(), MNT_DETACH);
    if (!dir.empty()) std::system(("rm -rf '" + dir + "'").c_str());
  }

  std::string tmpfs(const std::string& name) {
    const std::string volume = dir + "/" + name;
    mkdir(volume.c_str(), 0755);
    if (mount("lumo-e2e", volume.c_str(), "tmpfs", 0, "size=1m") != 0) return "";
    mounted.push_back(volume);
    return volume;
  }

  // Has a child write a file (the facility never reports its own process)
  // and waits until the close is heard: true when it is.
  bool writeAndHearClose(const std::string& path) {
    const pid_t child = fork();
    if (child == 0) {
      const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      _exit(fd >= 0 && write(fd, "x", 1) == 1 ? 0 : 1);
    }
    int status = 1;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) return false;
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(2),
                            [&] { return heard(ES_EVENT_TYPE_NOTIFY_CLOSE, path); });
  }
  bool heardOpen(const std::string& path) {
    std::lock_guard lock(mutex);
    return heard(ES_EVENT_TYPE_NOTIFY_OPEN, path);
  }
  bool heard(es_event_type_t type, const std::string& path) {  // under mutex
    for (const auto& [t, p] : seen) {
      if (t == type && p == path) return true;
    }
    return false;
  }

  std::string dir;
  std::vector<std::string> mounted;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::pair<es_event_type_t, std::string>> seen;
};

TEST_F(OpenScope, OpensAreHeardOnlyUnderTheVolumesNamed) {
  if (geteuid() != 0) GTEST_SKIP() << "the facility needs root";
  char pattern[] = "/tmp/lumo-scope-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  dir = pattern;
  const std::string usb = tmpfs("usb");
  if (usb.empty()) GTEST_SKIP() << "can't mount a tmpfs here";

  lumo::testing::RealFacility facility;
  ASSERT_TRUE(facility.es);
  ASSERT_NE(facility.opens, nullptr);
  es_client_t* client = nullptr;
  ASSERT_EQ(facility.es->newClient(&client,
                                   [&](es_client_t*, const es_message_t* m) {
                                     const es_file_t* file =
                                         m->event_type == ES_EVENT_TYPE_NOTIFY_OPEN
                                             ? m->event.open.file
                                             : m->event.close.target;
                                     std::lock_guard lock(mutex);
                                     seen.emplace_back(m->event_type, file->path.data);
                                     changed.notify_all();
                                   }),
            ES_NEW_CLIENT_RESULT_SUCCESS);
  const es_event_type_t types[] = {ES_EVENT_TYPE_NOTIFY_OPEN, ES_EVENT_TYPE_NOTIFY_CLOSE};
  ASSERT_EQ(facility.es->subscribe(client, types, 2), ES_RETURN_SUCCESS);

  // Nothing named: closes only. One group delivers in order, so the open
  // had its chance before the close.
  facility.opens->wantOpensUnder({});
  ASSERT_TRUE(writeAndHearClose(usb + "/a"));
  EXPECT_FALSE(heardOpen(usb + "/a"));

  facility.opens->wantOpensUnder({usb});
  ASSERT_TRUE(writeAndHearClose(usb + "/b"));
  EXPECT_TRUE(heardOpen(usb + "/b"));

  // Named before it is mounted: its opens are heard once it is marked.
  const std::string later = dir + "/later";
  facility.opens->wantOpensUnder({later});
  ASSERT_FALSE(tmpfs("later").empty());
  std::string file;
  for (int i = 0; i < 50 && file.empty(); ++i) {
    const std::string candidate = later + "/c" + std::to_string(i);
    if (writeAndHearClose(candidate)) file = candidate;
  }
  ASSERT_FALSE(file.empty()) << "the volume mounted later was never watched";
  EXPECT_TRUE(heardOpen(file));
  facility.es->deleteClient(client);
}

}  // namespace
