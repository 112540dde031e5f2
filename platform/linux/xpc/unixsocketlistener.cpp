#include "xpc/unixsocketlistener.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>
#include <utility>

#include "dispatch/threadname.h"
#include "log/log.h"
#include "xpc/peercheck.h"
#include "xpc/socketbind.h"
#include "xpc/socketpath.h"

LUMO_LOG_MODULE("MAC_ES_SERVICE_XPC")

namespace tarvex::itx::xpc::linux_platform {

namespace {

// Back-off while the process is out of descriptors, so accept does not spin.
constexpr int kOutOfDescriptorsMillis = 100;

}  // namespace

UnixSocketListener::UnixSocketListener(std::string serviceName, uint64_t options,
                                       std::string runtimeDir)
    : serviceName_(std::move(serviceName)),
      privileged_((options & IXPCConnector::kPrivileged) != 0) {
  path_ = socketPathFor(serviceName_, resolveRuntimeDir(runtimeDir), &pathError_);
}

UnixSocketListener::~UnixSocketListener() { stop(); }

bool UnixSocketListener::start(AcceptHandler onAccept) {
  if (thread_.joinable() || listenFd_ >= 0) return true;
  std::string error = pathError_;
  if (error.empty()) listenFd_ = bindListeningSocket(path_, &inode_, &error);
  if (listenFd_ >= 0) {
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd_ < 0) error = "cannot create a wake-up descriptor: " + errnoText(errno);
  }
  if (error.empty()) {
    onAccept_ = std::move(onAccept);
    stopping_ = false;
    try {
      thread_ = std::thread(&UnixSocketListener::run, this);
      LOG_INFO("Listening for %{public}s on %{public}s\n", serviceName_.c_str(), path_.c_str());
      return true;
    } catch (const std::system_error& e) {
      error = std::string("cannot start the listener thread: ") + e.what();
    }
  }
  LOG_ERROR("Cannot listen for %{public}s: %{public}s\n", serviceName_.c_str(), error.c_str());
  stop();
  return false;
}

void UnixSocketListener::stop() {
  stopping_ = true;
  if (wakeFd_ >= 0) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(wakeFd_, &one, sizeof one);
  }
  if (thread_.joinable()) {
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();  // stopped from the accept handler: the loop ends on its own
    } else {
      thread_.join();
    }
  }
  if (listenFd_ >= 0) {
    // Only our own socket: a successor may have replaced it already.
    struct stat st {};
    if (stat(path_.c_str(), &st) == 0 && st.st_ino == inode_) unlink(path_.c_str());
    close(listenFd_);
    listenFd_ = -1;
  }
  if (wakeFd_ >= 0 && !thread_.joinable()) {
    close(wakeFd_);
    wakeFd_ = -1;
  }
}

void UnixSocketListener::run() {
  rtn::linux_platform::nameThread("lumo.xpc.listen");
  while (!stopping_) {
    pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 && errno != EINTR) {
      LOG_ERROR("Listener of %{public}s cannot wait: %{public}s\n", serviceName_.c_str(),
                errnoText(errno).c_str());
      return;
    }
    if (fds[0].revents & POLLIN) accept();
  }
}

void UnixSocketListener::accept() {
  const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    const int err = errno;
    if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
      LOG_ERROR("Listener of %{public}s cannot accept: %{public}s\n", serviceName_.c_str(),
                errnoText(err).c_str());
      pollfd wake{wakeFd_, POLLIN, 0};
      poll(&wake, 1, kOutOfDescriptorsMillis);
    }
    return;  // EAGAIN, ECONNABORTED, EINTR: nothing to take
  }
  sizeFrameBuffers(fd);
  PeerCredentials peer;
  if (!admitPeer(fd, privileged_, serviceName_, &peer)) {
    close(fd);
    return;
  }
  LOG_DEBUG("Accepted a peer of %{public}s: pid %d uid %u\n", serviceName_.c_str(),
            static_cast<int>(peer.pid), static_cast<unsigned>(peer.uid));
  auto connection = std::make_shared<DaemonConnection>(serviceName_, fd, privileged_, peer);
  if (onAccept_) onAccept_(std::move(connection));
}

}  // namespace tarvex::itx::xpc::linux_platform
