// File events from the real kernel through lumo-es to the daemon, on a
// tmpfs the daemon announced as removable.
#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "linux_es/realextension.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::RealExtension;

constexpr const char* kFile = "handleFileEvent:";
constexpr uint64_t kOpen = 0, kCloseModified = 2, kDelete = 4, kExchange = 5, kRename = 6,
                   kLink = 7;
constexpr uint64_t kRemovable = 2;

class FileEvents : public RealExtension {
 protected:
  void SetUp() override {
    RealExtension::SetUp();
    if (IsSkipped()) return;
    volume = dir + "/usb";
    fs::create_directories(volume);
    if (mount("lumo-e2e", volume.c_str(), "tmpfs", 0, "size=8m") != 0) {
      GTEST_SKIP() << "can't mount a tmpfs here";
    }
    mounted = true;
  }
  void TearDown() override {
    if (mounted) umount2(volume.c_str(), MNT_DETACH);
    RealExtension::TearDown();
  }

  void announce() {
    const std::string v = volume;
    extensionSide->addMountPoint(&v, kRemovable);
    ASSERT_TRUE(extensionLogs("new volume: " + volume + " <removable> was registered"));
  }

  std::optional<Received> fileEvent(uint64_t op, const std::string& f1,
                                    const std::string& f2 = "") {
    return waitEvent(kFile, [&](const Received& r) {
      return number(r, "fileop") == op && text(r, "filename1") == f1 &&
             (f2.empty() || text(r, "filename2") == f2) && number(r, "pid") == (uint64_t)getpid();
    });
  }

  static void writeFile(const std::string& path, const std::string& data) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    close(fd);
  }

  std::string volume;
  bool mounted = false;
};

TEST_F(FileEvents, RemovableVolumeYieldsOpenCloseRenameLinkUnlinkAndExchange) {
  startWithPolicy(true, false, false);
  announce();
  const std::string a = volume + "/a.txt", b = volume + "/b.txt", c = volume + "/c.txt",
                    d = volume + "/d.txt";

  writeFile(a, "hello");
  auto opened = fileEvent(kOpen, a);
  ASSERT_TRUE(opened);
  EXPECT_EQ(number(*opened, "mounttype"), kRemovable);
  auto closed = fileEvent(kCloseModified, a);
  ASSERT_TRUE(closed);
  EXPECT_EQ(number(*closed, "filesize"), 5u);
  EXPECT_EQ(number(*closed, "mounttype"), kRemovable);
  EXPECT_EQ(number(*closed, "uid"), 0u);

  ASSERT_EQ(rename(a.c_str(), b.c_str()), 0);
  auto renamed = fileEvent(kRename, a, b);
  ASSERT_TRUE(renamed);
  EXPECT_EQ(number(*renamed, "filesize"), 5u);
  EXPECT_EQ(number(*renamed, "mounttype"), kRemovable);

  ASSERT_EQ(link(b.c_str(), c.c_str()), 0);
  auto linked = fileEvent(kLink, b, c);
  ASSERT_TRUE(linked);
  EXPECT_EQ(number(*linked, "mounttype"), kRemovable);

  ASSERT_EQ(unlink(c.c_str()), 0);
  auto deleted = fileEvent(kDelete, c);
  ASSERT_TRUE(deleted);
  EXPECT_EQ(number(*deleted, "mounttype"), kRemovable);

  writeFile(d, "other data");
  ASSERT_EQ(renameat2(AT_FDCWD, b.c_str(), AT_FDCWD, d.c_str(), RENAME_EXCHANGE), 0);
  auto exchanged = fileEvent(kExchange, b, d);
  ASSERT_TRUE(exchanged);
  EXPECT_EQ(number(*exchanged, "mounttype"), kRemovable);

  // A rename onto an existing file.
  ASSERT_EQ(rename(d.c_str(), b.c_str()), 0);
  EXPECT_TRUE(fileEvent(kRename, d, b));
  // The exchange was not also reported as renames.
  EXPECT_TRUE(events(kFile, [&](const Received& r) {
                return number(r, "fileop") == kRename && text(r, "filename1") == b;
              }).empty());
}

TEST_F(FileEvents, CloseWithoutWritingIsNotAModification) {
  startWithPolicy(true, false, false);
  announce();
  const std::string untouched = volume + "/untouched.txt";
  const std::string marker = volume + "/marker.txt";
  writeFile(untouched, "data");
  ASSERT_TRUE(fileEvent(kCloseModified, untouched));
  daemon->events().clear();

  // Opened for writing and closed, nothing written.
  const int fd = open(untouched.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  close(fd);
  writeFile(marker, "x");  // events come in order: once this is in, so is the close
  ASSERT_TRUE(fileEvent(kCloseModified, marker));
  EXPECT_TRUE(fileEvent(kOpen, untouched));
  EXPECT_TRUE(events(kFile, [&](const Received& r) {
                return number(r, "fileop") == kCloseModified && text(r, "filename1") == untouched;
              }).empty());
}

TEST_F(FileEvents, VolumesMountedLaterAreWatchedToo) {
  startWithPolicy(true, false, false, {"LUMO_LOG_DEBUG=1"});
  const std::string later = dir + "/later";
  fs::create_directories(later);
  ASSERT_EQ(mount("lumo-e2e-later", later.c_str(), "tmpfs", 0, "size=4m"), 0);
  ASSERT_TRUE(extensionLogs("Watching files on " + later + " (tmpfs)."));
  const std::string v = later;
  extensionSide->addMountPoint(&v, kRemovable);
  ASSERT_TRUE(extensionLogs("new volume: " + later + " <removable> was registered"));
  writeFile(later + "/x.txt", "1234");
  auto closed = fileEvent(kCloseModified, later + "/x.txt");
  // Watching holds nothing open on the volume: it unmounts as usual.
  const bool unmounted = umount(later.c_str()) == 0;
  if (!unmounted) umount2(later.c_str(), MNT_DETACH);
  ASSERT_TRUE(closed);
  EXPECT_EQ(number(*closed, "mounttype"), kRemovable);
  EXPECT_TRUE(unmounted) << "the volume was busy";
}

}  // namespace
