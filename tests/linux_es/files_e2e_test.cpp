// File events from the real kernel through lumo-es to the daemon, on a
// tmpfs mounted while the extension runs and announced as removable.
#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "linux_es/realextension.h"
#include "text/byteescape.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::RealExtension;

constexpr const char* kFile = "handleFileEvent:";
constexpr uint64_t kOpen = 0, kCloseModified = 2, kDelete = 4, kExchange = 5, kRename = 6,
                   kLink = 7;
constexpr uint64_t kRemovable = 2;

class FileEvents : public RealExtension {
 protected:
  void TearDown() override {
    if (mounted) umount2(volume.c_str(), MNT_DETACH);
    RealExtension::TearDown();
  }

  // The event of `op` on f1 (and f2), from this process, on the removable volume.
  void expectEvent(uint64_t op, const std::string& f1, const std::string& f2 = "",
                   uint64_t size = ~0ull) {
    auto r = waitEvent(kFile, [&](const Received& r) {
      return number(r, "fileop") == op && text(r, "filename1") == f1 &&
             (f2.empty() || text(r, "filename2") == f2) && number(r, "pid") == (uint64_t)getpid();
    });
    ASSERT_TRUE(r) << "no event " << op << " for " << f1 << " " << f2;
    EXPECT_EQ(number(*r, "mounttype"), kRemovable) << op;
    EXPECT_EQ(number(*r, "uid"), 0u) << op;
    if (size != ~0ull) {
      EXPECT_EQ(number(*r, "filesize"), size) << op;
    }
  }
  size_t count(uint64_t op, const std::string& f1) {
    return events(kFile,
                  [&](const Received& r) {
                    return number(r, "fileop") == op && text(r, "filename1") == f1;
                  })
        .size();
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

TEST_F(FileEvents, RemovableVolumeYieldsOpenCloseRenameLinkUnlinkAndExchangeForAnyName) {
  start({"LUMO_LOG_DEBUG=1"});
  volume = dir + "/usb";
  fs::create_directories(volume);
  if (mount("lumo-e2e", volume.c_str(), "tmpfs", 0, "size=8m") != 0) {
    GTEST_SKIP() << "can't mount a tmpfs here";
  }
  mounted = true;
  ASSERT_TRUE(extensionLogs("Watching files on " + volume + " (tmpfs)."));
  extensionSide->addMountPoint(&volume, kRemovable);
  ASSERT_TRUE(extensionLogs("new volume: " + volume + " <removable> was registered"));
  const std::string a = volume + "/a.txt", b = volume + "/b.txt", c = volume + "/c.txt",
                    d = volume + "/d.txt";

  writeFile(a, "hello");
  expectEvent(kOpen, a);
  expectEvent(kCloseModified, a, "", 5);
  // Opened for writing and closed, nothing written: not a modification.
  close(open(a.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(rename(a.c_str(), b.c_str()), 0);
  expectEvent(kRename, a, b, 5);
  EXPECT_EQ(count(kCloseModified, a), 1u);  // events come in order: the close had its chance
  ASSERT_EQ(link(b.c_str(), c.c_str()), 0);
  expectEvent(kLink, b, c);
  ASSERT_EQ(unlink(c.c_str()), 0);
  expectEvent(kDelete, c);
  writeFile(d, "other data");
  ASSERT_EQ(renameat2(AT_FDCWD, b.c_str(), AT_FDCWD, d.c_str(), RENAME_EXCHANGE), 0);
  expectEvent(kExchange, b, d);
  // A rename onto an existing file; the exchange was not also reported as
  // renames.
  ASSERT_EQ(rename(d.c_str(), b.c_str()), 0);
  expectEvent(kRename, d, b);
  EXPECT_EQ(count(kRename, b), 0u);

  // A name in bytes that are not UTF-8 can't hide a copy: it arrives
  // escaped, and the original bytes come back from it.
  const std::string odd = volume + "/ev\xffil";
  writeFile(odd, "copied");
  const std::string escaped = volume + "/ev\\xffil";
  expectEvent(kCloseModified, escaped, "", 6);
  EXPECT_EQ(tarvex::itx::rtn::linux_platform::unescapeBytes(escaped), odd);

  // Watching holds nothing open on the volume: it unmounts as usual.
  mounted = umount(volume.c_str()) != 0;
  EXPECT_FALSE(mounted) << "the volume was busy";
}

}  // namespace
